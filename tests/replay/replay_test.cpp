// Ten thousand requests, and all that the plug-in did in each of them, held against a record: its
// calls of the parameter module and of the engine in their order, with every argument. The record
// is the same for every compiler, processor and Base64 kernel. Both libraries are doubles, and
// what they answer is random like the requests; see random_request.h.
//
//     replay_test           compares
//     replay_test --show N  prints all that request N does
//     replay_test --write   replaces the record, requests.txt, by what this build does
//
// The record has a line for each name, with a hash of all of its requests, and then the hashes
// of the single requests, cut to four digits, so that a difference is found: build the revision
// before, and compare what the two print of the request.

#include <gtest/gtest.h>

#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <sstream>

#include "replay/random_request.h"
#include "support/files.h"
#include "support/handlers.h"
#include "support/request_rows.h"

namespace {

using replay::RandomRequest;
using support::quoted;

constexpr size_t REQUESTS = 10000;
constexpr size_t IN_A_LINE = 16;

const std::string RECORD = CORVANE_SOURCE_DIR "/tests/replay/requests.txt";

// FNV-1a, 64 bits, of texts one after the other.
class Hash {
public:
    void add(const std::string& text)
    {
        for (const char c : text)
            m_value = (m_value ^ static_cast<unsigned char>(c)) * 0x100000001B3U;
    }
    std::string digits() const
    {
        char text[17];
        snprintf(text, sizeof text, "%016" PRIx64, m_value);
        return text;
    }

private:
    uint64_t m_value = 0xCBF29CE484222325U;
};

// Records the calls of the library at `path` by a double of our own.
template <class Double>
void attach(const std::string& path, const char* function, Double* state)
{
    const OpenedLibrary library = openLibrary(path);
    void (*attachTo)(Double*) = nullptr;
    bindFunction(library, attachTo, function);
    attachTo(state);
}

// A plug-in in front of doubles that answer by chance.
class Replay {
public:
    Replay()
    {
        attach<doubles::ParamsDouble>(support::paramsDouble(), doubles::PARAMS_ATTACH, &m_params);
    }
    ~Replay() { m_host.free(); }
    Replay(const Replay&) = delete;
    Replay& operator=(const Replay&) = delete;

    // Serves a request. The lines tell what was sent and answered, and what the plug-in did.
    std::string serve(size_t number)
    {
        setEngine(replay::engineOf(number));
        const RandomRequest request = replay::randomRequest(number);
        m_engine.forgetObjects();
        m_engine.answers = {request.answers.begin(), request.answers.end()};
        m_params.toldLength = request.toldLength;
        m_params.http = request.parameters;
        m_params.ret = {{"stale", "result"}};
        m_params.custom = "stale";

        EXPECT_EQ(0, m_host.requestBytes(request.name.data(),
                                         static_cast<unsigned>(request.name.size())));
        return sent(request) + done();
    }

    const std::string* result(const std::string& name) const
    {
        for (const auto& pair : m_params.ret)
            if (pair.first == name)
                return &pair.second;
        return nullptr;
    }

private:
    void setEngine(const std::string& lacks)
    {
        if (m_isInitialised && lacks == m_lacks)
            return;
        const std::string path = lacks.empty()     ? support::engineDouble()
                                 : lacks == "none" ? ""
                                                   : support::engineLacking(lacks);
        m_host.free();
        m_host.changeEngine(path);
        if (!path.empty())
            attach<doubles::EngineDouble>(path, doubles::ENGINE_ATTACH, &m_engine);
        m_host.init();
        m_isInitialised = true;
        m_lacks = lacks;
    }

    std::string sent(const RandomRequest& request) const
    {
        std::ostringstream lines;
        lines << "request " << quoted(request.name) << "\n";
        if (!m_lacks.empty())
            lines << "engine without " << m_lacks << "\n";
        if (request.toldLength >= 0)
            lines << "parameters are told to have " << request.toldLength << " bytes\n";
        for (const auto& [name, value] : request.parameters)
            lines << "parameter " << name << "=" << quoted(value) << "\n";
        for (const support::Answer& answer : request.answers)
            lines << "answer " << answer.code << " " << answer.length << " " << answer.how << "\n";
        return lines.str();
    }

    std::string done() const
    {
        std::string lines;
        for (const doubles::Call& call : m_host.journal.calls)
            if (call.function != "syslog")  // names lines of the source
                lines += spelled(call);
        if (!m_host.printed.empty())
            lines += "printed " + quoted(m_host.printed) + "\n";
        return lines;
    }

    // A call with its arguments: a number, a pointer's bytes behind their number, null with the
    // number if that is not 0; and what it returned.
    static std::string spelled(const doubles::Call& call)
    {
        std::ostringstream line;
        line << call.function << "(";
        const char* between = "";
        for (const doubles::Argument& argument : call.arguments) {
            line << std::exchange(between, ", ") << argument.name << "=";
            if (argument.null)
                line << "null";
            if (argument.name == "params" && !argument.null)
                line << "given";  // where the block lies is by chance
            else if (!argument.null || argument.number != 0)
                line << argument.number;
            if (!argument.bytes.empty())
                line << quoted(argument.bytes);
            if (argument.zeroed)
                line << " zero";
        }
        line << ") " << call.result << (call.threw ? " threw" : "") << "\n";
        return line.str();
    }

    support::PluginHost m_host;
    support::AnsweringEngine m_engine{m_host.journal};
    support::AnsweringParams m_params{m_host.journal};
    bool m_isInitialised = false;
    std::string m_lacks;
};

// What the record tells of the requests with a name.
struct Named {
    size_t requests = 0;
    size_t succeeded = 0;  // with the result "errorCode" of "0"
    Hash hash;
};

// The record's lines. Names that the plug-in does not know share one.
std::vector<std::string> recorded()
{
    std::map<std::string, Named> names;
    std::vector<std::string> hashes;
    Replay replay;
    for (size_t number = 0; number < REQUESTS; ++number) {
        const std::string lines = replay.serve(number);
        Hash hash;
        hash.add(lines);
        if (number % IN_A_LINE == 0)
            hashes.push_back(std::to_string(number));
        hashes.back() += " " + hash.digits().substr(0, 4);

        const std::string name = replay::randomRequest(number).name;
        const bool isKnown =
            std::any_of(std::begin(support::requestRows), std::end(support::requestRows),
                        [&](const auto& row) { return row.name == name; });
        Named& named = names[isKnown ? name : "unknown"];
        ++named.requests;
        const std::string* code = replay.result("errorCode");
        named.succeeded += code != nullptr && *code == "0";
        named.hash.add(lines);
    }

    std::vector<std::string> record;
    for (const auto& [name, named] : names)
        record.push_back(name + " " + std::to_string(named.requests) + " requests, " +
                         std::to_string(named.succeeded) + " with code 0: " + named.hash.digits());
    record.insert(record.end(), hashes.begin(), hashes.end());
    return record;
}

std::vector<std::string> linesOf(const std::string& path)
{
    std::vector<std::string> lines;
    std::istringstream text(support::readWhole(path));
    for (std::string line; std::getline(text, line);)
        lines.push_back(line);
    return lines;
}

// The requests whose hashes differ between two lines of the record that begin with a number.
void tellDifferences(const std::string& expected, const std::string& found)
{
    std::istringstream before(expected);
    std::istringstream now(found);
    size_t first = 0;
    std::string hashBefore;
    std::string hashNow;
    before >> first;
    now >> first;
    for (size_t i = 0; before >> hashBefore && now >> hashNow; ++i)
        if (hashBefore != hashNow)
            ADD_FAILURE() << "request " << first + i << " does something else: replay_test --show "
                          << first + i;
}

}  // namespace

TEST(Replay, RequestsDoWhatIsRecorded)
{
    const std::vector<std::string> expected = linesOf(RECORD);
    const std::vector<std::string> found = recorded();
    ASSERT_EQ(expected.size(), found.size());
    constexpr size_t mostTold = 8;
    size_t told = 0;
    for (size_t i = 0; i < found.size(); ++i) {
        if (expected[i] == found[i] || told == mostTold)
            continue;
        if (isdigit(static_cast<unsigned char>(found[i][0])) == 0) {
            EXPECT_EQ(expected[i], found[i]);
            continue;
        }
        ++told;
        tellDifferences(expected[i], found[i]);
    }
}

// So that the record shows what requests do and not only how they are refused.
TEST(Replay, EachRequestSucceedsInManyWays)
{
    for (const std::string& line : linesOf(RECORD)) {
        std::istringstream words(line);
        std::string name;
        std::string skipped;
        int requests = 0;
        int succeeded = 0;
        words >> name >> requests >> skipped >> succeeded;
        if (name[0] == 'Q' && name != "QZaVen_strerror") {  // which has no code
            EXPECT_GE(succeeded, 60) << line;
        }
    }
}

int main(int count, char** arguments)
{
    if (count == 3 && strcmp(arguments[1], "--show") == 0) {
        printf("%s", Replay().serve(strtoul(arguments[2], nullptr, 10)).c_str());
        return 0;
    }
    if (count == 2 && strcmp(arguments[1], "--write") == 0) {
        std::string text;
        for (const std::string& line : recorded())
            text += line + "\n";
        support::writeWhole(RECORD, text);
        return 0;
    }
    ::testing::InitGoogleTest(&count, arguments);
    return RUN_ALL_TESTS();
}
