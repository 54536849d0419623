// Sequences of requests with any parameters and any answers of the engine. After each
// request: its results are those that the catalogue names and no others, they tell what
// the engine answered, every key pair and certificate is freed once, and the request
// parameters are gone. In each call: what the engine is given is what the request was.
//
// The plug-in finds its parameter module and its engine in this program: the doubles of
// the tests. Input, by lines; others mean nothing:
//
//     p<name>=<value>         stores a request parameter
//     a<code> <length> <how>  what an engine call answers, in turn; see support::Answer
//     q<name>                 sends a request
//     e<number>               takes the engine away, or with another number than 0 back
//     l<number>               in the next request, second reads of values tell this length
//     v<number>               sets the log level

#include <syslog.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "Corvane_plugin.h"
#include "engine_binding.h"
#include "fuzz.h"
#include "log.h"
#include "module_CorvaneParams.h"
#include "oracles.h"
#include "request_calls.h"
#include "support/answering_doubles.h"

namespace {

// What the engine did in a request.
struct Account {
    int calls = 0;
    int worked = 0;      // calls that do what the request asks for and succeeded
    int codes = 0;       // calls that failed
    int code = 0;        // of the last one that failed
    std::string output;  // of the last call that succeeded
    std::string tag;     //
};

// Looks at each call before it is answered.
class FuzzedEngine : public support::AnsweringEngine {
public:
    using AnsweringEngine::AnsweringEngine;

    Account account;
    fuzz::SentRequest sent;

private:
    void take(const doubles::Call& call, bool query) override
    {
        ++account.calls;
        fuzz::checkCall(call, sent, *this);
        const std::string& name = call.function;
        if (name == "aven_version" || name == "aven_strerror") {
            ++account.worked;
            account.output = m_step.nullText ? "" : *m_step.text;
        } else if (name == "aven_keypair_free" || name == "aven_certificate_free") {
            return;  // the code does not matter to requests
        } else if (m_step.code != 0) {
            ++account.codes;
            account.code = m_step.code;
        } else if (!query && name != "aven_keypair_unmarshal" &&
                   name != "aven_certificate_unmarshal") {
            ++account.worked;
            takeOutput(call);
        }
    }

    void takeOutput(const doubles::Call& call)
    {
        if (call.function == "aven_ke_new")
            account.output = std::to_string(m_answer.length);
        else if (const doubles::Argument* room = fuzz::find(call, "out_len"))
            account.output = m_step.output->substr(0, static_cast<size_t>(room->number));
        if (call.function == "aven_crypto_encrypt")
            account.tag = support::WHOLE_TAG.substr(0, static_cast<size_t>(call["tag_len"].number));
    }
};

// Looks at each call before it is answered.
class FuzzedParams : public support::AnsweringParams {
public:
    using AnsweringParams::AnsweringParams;

private:
    void take(const doubles::Call& call) override
    {
        const std::string& name = call.function;
        if (name == "GetHttpParams") {
            const std::string* value = findValue(http, call["name"].bytes);
            const bool isQuery = call["value"].null;
            HOLDS(isQuery || (value != nullptr && call["value"].zeroed));
            HOLDS(call["value_len"].number == (isQuery ? 0 : static_cast<long>(value->size())));
        } else {
            HOLDS(name == "AddRetParams" || name == "ClearHttpParams" || name == "ClearRetParams" ||
                  name == "ClearRetCustomParam");
        }
    }
};

doubles::Journal journal;
FuzzedEngine engine(journal);
FuzzedParams params(journal);
int messages;

}  // namespace

extern "C" void syslog(int priority, const char*, ...)
{
    HOLDS(priority == 142);
    ++messages;
}

namespace {

bool isLoaded = false;

void setEngine(bool wanted)
{
    CSoftMoudle_aven binding;
    if (wanted && !isLoaded)
        HOLDS(binding.loadLibrary(nullptr) == 0);
    else if (!wanted)
        binding.unloadLibrary();
    isLoaded = wanted;
}

std::string inForm(const RequestInfo& request, const std::string& output)
{
    switch (findResult(request, "Data")->form) {
        case Form::Escaped:
            return fuzz::escaped(fuzz::escaped(output));
        case Form::Base64:  // the one output that is Base64 already is the encoder's
            return fuzz::toUrl(request.name == std::string("QZaven_crypto_base64_encode")
                                   ? output
                                   : fuzz::toBase64(output));
        default:
            return output;
    }
}

// What the results tell, given what the engine did.
void checkResults(const RequestInfo& request)
{
    const auto result = [](const char* name) {
        const std::string* value = findValue(params.ret, name);
        return value != nullptr ? *value : "";
    };
    const Account& account = engine.account;
    const std::string data = result("Data");
    const std::string tag = result("gcmOutTag");
    if (findResult(request, "errorCode") == nullptr) {  // nothing tells of a failure
        HOLDS(data == account.output);
        return;
    }

    const std::string codeText = result("errorCode");
    const int code = atoi(codeText.c_str());
    HOLDS(codeText == std::to_string(code));
    if (code != 0) {
        HOLDS(data.empty() && tag.empty());
        if (account.codes > 0) {
            HOLDS(account.codes == 1 && code == account.code);
            return;
        }
        // Any may find the engine gone, also one that names no codes.
        HOLDS(code == -20215 || std::count(request.codes.begin(), request.codes.end(), code) == 1);
        HOLDS(code != -20215 || !isLoaded);
        // The engine is not used for a request that is refused, but to read keys first.
        HOLDS(account.worked == 0);
        return;
    }

    HOLDS(account.codes == 0 && account.worked == 1);
    if (findResult(request, "Data") != nullptr)
        HOLDS(data == inForm(request, account.output));
    HOLDS(tag == (data.empty() ? account.tag : fuzz::toUrl(fuzz::toBase64(account.tag))));
}

void send(const std::string& name)
{
    const RequestInfo* request = findRequest(name);
    engine.sent = {request, params.http, params.toldLength};
    engine.account = {};
    params.ret = {{"Data", "stale"}, {"more", "stale"}};
    params.custom = "stale";
    journal.calls.clear();
    messages = 0;

    fuzz::Exact nameBytes(name);
    HOLDS(Corvane_plugin_Request(nameBytes.chars(), nameBytes.size32()) == 0);

    HOLDS(params.http.empty() && params.custom.empty());
    HOLDS(messages == (_log_level > 3 ? 2 : 0));
    for (const doubles::Objects* objects : {&engine.keypairs, &engine.certificates})
        HOLDS(objects->live.empty() && objects->strangersFreed == 0);
    std::vector<std::string> written;
    for (const doubles::Call& call : journal.calls)
        if (call.function == "AddRetParams")
            written.push_back(call["name"].bytes);
    std::vector<std::string> expected;
    if (request != nullptr)
        for (const Result& result : request->results)
            expected.emplace_back(result.name);
    HOLDS(written == expected && params.ret.size() == written.size());
    if (request != nullptr)
        checkResults(*request);
    else
        HOLDS(engine.account.calls == 0);
    params.toldLength = -1;
    engine.answers.clear();
}

void store(const std::string& text)
{
    const size_t equals = text.find('=');
    if (equals == std::string::npos)
        return;
    const std::string name = text.substr(0, equals);
    const auto found = std::find_if(params.http.begin(), params.http.end(),
                                    [&](const auto& pair) { return pair.first == name; });
    if (found != params.http.end())
        found->second = text.substr(equals + 1);
    else
        params.http.emplace_back(name, text.substr(equals + 1));
}

void queue(const std::string& text)
{
    constexpr unsigned longest = 4096;
    support::Answer answer;
    int length = 0;
    if (sscanf(text.c_str(), "%11d %9d %9d", &answer.code, &length, &answer.how) == 3) {
        answer.length = static_cast<unsigned>(length) % longest;
        engine.answers.push_back(answer);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    engine_double_attach(&engine);
    params_double_attach(&params);
    HOLDS(CorvaneParamsClass::getInstance()->Load(nullptr, 0) == 0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::Input input(data, size);
    engine.forgetObjects();
    engine.answers.clear();
    params.http.clear();
    params.toldLength = -1;
    log_set_level(4);
    setEngine(true);

    while (!input.empty()) {
        const std::string line = input.line();
        const std::string rest = line.empty() ? "" : line.substr(1);
        switch (line.empty() ? '\0' : line[0]) {
            case 'p':
                store(rest);
                break;
            case 'a':
                queue(rest);
                break;
            case 'q':
                send(rest);
                break;
            case 'e':
                setEngine(atoi(rest.c_str()) != 0);
                break;
            case 'l':
                params.toldLength = atol(rest.c_str());
                break;
            case 'v':
                log_set_level(atoi(rest.c_str()));
                break;
        }
    }
    return 0;
}
