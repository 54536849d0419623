// Sequences of requests with any parameters and any answers of the engine. After each
// request: its results are those that its row below allows and no others, they tell what
// the engine answered, every key pair and certificate is freed once, and the request
// parameters are gone.
//
// The plug-in finds its parameter module and its engine in this program. Input, by lines;
// others mean nothing:
//
//     p<name>=<value>         stores a request parameter
//     a<code> <length> <how>  what an engine call answers, in turn; see Answer
//     q<name>                 sends a request
//     e<number>               takes the engine away, or with another number than 0 back
//     l<number>               in the next request, second reads of values tell this length
//     v<number>               sets the log level

#include <syslog.h>

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "Corvane_plugin.h"
#include "engine_binding.h"
#include "engine_interface.h"
#include "fuzz.h"
#include "log.h"
#include "module_CorvaneParams.h"
#include "oracles.h"

namespace {

// ---- What the protocol says.

enum class Results { None, Data, Code, DataCode, DataCodeTag };
enum class Form { Text, UrlBase64, UrlText, Escaped };       // of a successful "Data"
enum class Given { Nothing, Bytes, Base64, OtherAlphabet };  // what the engine gets

struct Row {
    const char* name;
    Results results;
    Form form;
    const char* input;  // the parameter that becomes the engine's input
    Given given;
};

// clang-format off
const Row rows[] = {
    {"QZaVen_GetVersion",              Results::DataCode,    Form::Text,      "",           Given::Nothing},
    {"QZaVen_strerror",                Results::Data,        Form::Text,      "",           Given::Nothing},
    {"QZaven_crypto_base64_encode",    Results::DataCode,    Form::UrlText,   "strIn",      Given::Bytes},
    {"QZaven_crypto_base64_Decode",    Results::DataCode,    Form::Escaped,   "strIn",      Given::OtherAlphabet},
    {"QZaven_ke_new",                  Results::DataCode,    Form::Text,      "",           Given::Nothing},
    {"QZaven_ke_free",                 Results::Code,        Form::Text,      "",           Given::Nothing},
    {"QZaven_ke_set_public_key",       Results::Code,        Form::Text,      "strSig_key", Given::OtherAlphabet},
    {"QZaven_ke_set_certificate",      Results::Code,        Form::Text,      "strSig_cert", Given::OtherAlphabet},
    {"QZaven_ke_set_root_certificate", Results::Code,        Form::Text,      "",           Given::Nothing},
    {"QZaven_ke_client_hello",         Results::DataCode,    Form::UrlBase64, "",           Given::Nothing},
    {"QZaven_ke_client_key_exchange",  Results::DataCode,    Form::UrlBase64, "strSrvr_rand", Given::Base64},
    {"QZaven_ke_encrypt",              Results::DataCode,    Form::UrlBase64, "strdata",    Given::Base64},
    {"QZaven_ke_decrypt",              Results::DataCode,    Form::UrlBase64, "strcipher",  Given::Base64},
    {"QZaven_ke_hmac",                 Results::DataCode,    Form::UrlBase64, "strdata",    Given::Base64},
    {"QZaven_ke_cmac",                 Results::DataCode,    Form::UrlBase64, "strdata",    Given::Base64},
    {"QZaven_crypto_public_encrypt",   Results::DataCode,    Form::UrlBase64, "strdata",    Given::Base64},
    {"QZaven_crypto_private_decrypt",  Results::DataCode,    Form::UrlBase64, "strdata",    Given::Base64},
    {"QZaven_crypto_encrypt",          Results::DataCodeTag, Form::UrlBase64, "strdata",    Given::Base64},
    {"QZaven_crypto_decrypt",          Results::DataCode,    Form::UrlBase64, "strdata",    Given::Base64},
    {"QZaven_crypto_gen_symmkey",      Results::DataCode,    Form::UrlBase64, "",           Given::Nothing},
    {"QZaven_crypto_hmac",             Results::DataCode,    Form::UrlBase64, "strdata",    Given::Base64},
    {"QZaven_crypto_cmac",             Results::DataCode,    Form::UrlBase64, "strdata",    Given::Base64},
    {"QZaven_crypto_kdf",              Results::DataCode,    Form::UrlBase64, "srcdata",    Given::Bytes},
    {"QZaven_crypto_envelope_encrypt", Results::DataCode,    Form::UrlBase64, "strdata",    Given::Bytes},
    {"QZaven_crypto_envelope_decrypt", Results::DataCode,    Form::Escaped,   "strEncdata", Given::Base64},
    {"QZaven_wbsm4_encrypt",           Results::DataCode,    Form::UrlBase64, "strdata",    Given::Base64},
    {"QZaven_wbsm4_decrypt",           Results::DataCode,    Form::UrlBase64, "strdata",    Given::Base64},
};
// clang-format on
const Row unknownRow = {"", Results::None, Form::Text, "", Given::Nothing};

const Row& rowOf(const std::string& name)
{
    for (const Row& row : rows)
        if (name == row.name)
            return row;
    return unknownRow;
}

std::vector<std::string> namesOf(Results results)
{
    switch (results) {
        case Results::None:
            return {};
        case Results::Data:
            return {"Data"};
        case Results::Code:
            return {"errorCode"};
        case Results::DataCode:
            return {"Data", "errorCode"};
        case Results::DataCodeTag:
            break;
    }
    return {"Data", "errorCode", "gcmOutTag"};
}

std::string inForm(Form form, const std::string& output)
{
    if (form == Form::Escaped)
        return fuzz::escaped(fuzz::escaped(output));
    if (form == Form::UrlText)
        return fuzz::toUrl(output);
    return form == Form::UrlBase64 ? fuzz::toUrl(fuzz::base64Of(output)) : output;
}

std::string asGiven(Given given, const std::string& value)
{
    if (given == Given::Bytes)
        return value;
    return given == Given::Base64 ? fuzz::base64Decoded(fuzz::fromUrl(value))
                                  : fuzz::fromUrl(value);
}

// ---- The parameter module.

using Pairs = std::vector<std::pair<std::string, std::string>>;

struct Module {
    Pairs http;
    Pairs ret;
    std::string custom;
    long toldLength = -1;  // by second reads, unless negative
};
Module module;

std::string* valueOf(Pairs& pairs, const std::string& name)
{
    const auto found = std::find_if(pairs.begin(), pairs.end(),
                                    [&](const auto& pair) { return pair.first == name; });
    return found == pairs.end() ? nullptr : &found->second;
}

std::string textOf(const char* bytes, long length)
{
    HOLDS(bytes != nullptr && length >= 0);
    return std::string(bytes, static_cast<size_t>(length));
}

// The two calls that read a value.
int readValue(Pairs& pairs, const char* name, long nameLength, char* value, long* valueLength)
{
    const std::string* found = valueOf(pairs, textOf(name, nameLength));
    if (found == nullptr)
        return 404;
    const long length = static_cast<long>(found->size());
    HOLDS(*valueLength == (value == nullptr ? 0 : length));
    if (value != nullptr) {
        const std::string terminated = *found + '\0';
        HOLDS(std::all_of(value, value + terminated.size(), [](char c) { return c == '\0'; }));
        memcpy(value, terminated.data(), terminated.size());
    }
    *valueLength = value != nullptr && module.toldLength >= 0 ? module.toldLength : length;
    return 0;
}

// ---- The engine.

// What a call answers: a code and, with an output, so many bytes of it as fit. `how` is 1
// to tell one byte more than there is room for, or to give no object and no text.
struct Answer {
    int code = 0;
    unsigned length = 16;
    int how = 0;
};

// What the engine saw and did in a request.
struct Account {
    int calls = 0;
    int worked = 0;               // calls that do what the request asks for and succeeded
    int codes = 0;                // calls that failed
    int code = 0;                 // of the last one that failed
    std::string input;            // of the last call that has one
    std::string output;           // of the last call that succeeded
    std::string tag;              //
    std::string handle = "none";  // of a session, in decimal
};

std::deque<Answer> answers;
std::set<void*> objects;  // given out and not freed
Account account;

Answer nextAnswer()
{
    ++account.calls;
    if (answers.empty())
        return {};
    const Answer answer = answers.front();
    answers.pop_front();
    return answer;
}

int finish(int code)
{
    if (code == 0) {
        ++account.worked;
    } else {
        ++account.codes;
        account.code = code;
    }
    return code;
}

void takeBytes(const unsigned char* bytes, uint32_t length, std::string& to)
{
    HOLDS(bytes != nullptr);
    to = std::string(reinterpret_cast<const char*>(bytes), length);
}

void lookAt(const unsigned char* bytes, uint32_t length)
{
    std::string ignored;
    takeBytes(bytes, length, ignored);
}

// Null if and only if there is none.
void lookAtOptional(const unsigned char* bytes, uint32_t length)
{
    HOLDS((bytes == nullptr) == (length == 0));
    if (bytes != nullptr)
        lookAt(bytes, length);
}

// The same with a length of 0 allowed.
void lookAtIf(bool expected, const unsigned char* bytes, uint32_t length)
{
    HOLDS(expected == (bytes != nullptr) && (expected || length == 0));
    if (expected)
        lookAt(bytes, length);
}

void lookAtOptional(const char* text)
{
    HOLDS(text == nullptr || text == std::string(text));
}

void takeInput(const unsigned char* bytes, uint32_t length)
{
    takeBytes(bytes, length, account.input);
}

void takeSession(const void* ke)
{
    account.handle = std::to_string(reinterpret_cast<long>(ke));
}

std::string pattern(size_t length)
{
    std::string bytes(length, '\0');
    for (size_t i = 0; i < length; ++i)
        bytes[i] = static_cast<char>(0xF9 + i * 0x35);
    return bytes;
}

// Writes an output of at most *length bytes.
int write(unsigned char* out, uint32_t* length)
{
    const Answer answer = nextAnswer();
    HOLDS(out != nullptr && length != nullptr);
    for (uint32_t i = 0; i < *length; ++i)
        HOLDS(out[i] == 0);
    const uint32_t room = *length;
    const uint32_t count = answer.how == 1 ? room : std::min(answer.length, room);
    const std::string bytes = pattern(count);
    memcpy(out, bytes.data(), count);
    *length = answer.how == 1 ? room + 1 : count;
    account.output = answer.code == 0 ? bytes : account.output;
    return finish(answer.code);
}

// The functions that are asked for the length first.
int writeAsAsked(unsigned char* out, uint32_t* length)
{
    if (out != nullptr)
        return write(out, length);
    const Answer answer = nextAnswer();
    HOLDS(length != nullptr && *length == 0);
    *length = answer.length;
    return answer.code == 0 ? 0 : finish(answer.code);
}

int giveObject(void** object)
{
    const Answer answer = nextAnswer();
    HOLDS(object != nullptr);
    if (answer.code == 0 && answer.how != 1) {
        *object = new char;
        objects.insert(*object);
    }
    return answer.code == 0 ? 0 : finish(answer.code);
}

// The code does not matter to requests.
int takeObject(void* object)
{
    const Answer answer = nextAnswer();
    HOLDS(object == nullptr || objects.erase(object) == 1);
    delete static_cast<char*>(object);
    return answer.code;
}

void lookAtObject(void* object)
{
    HOLDS(object == nullptr || objects.count(object) == 1);
}

bool isFlag(int value)
{
    return value == 0 || value == 1;
}

void lookAtBlock(const PkeyCipherParams& block)
{
    lookAtObject(block.keypair);
    HOLDS(isFlag(block.rsa_padding_e) && isFlag(block.no_asn1) && isFlag(block.no_c1c3c2));
}

void lookAtBlock(const SymmCipherParams& block)
{
    HOLDS(block.alg >= 1 && block.alg <= 7 && block.mode >= 1 && block.mode <= 6);
    HOLDS(isFlag(block.padding));
    lookAt(block.key, block.key_len);
    lookAtIf(block.mode != AVEN_MODE_WITHOUT_IV, block.iv, block.iv_len);
    lookAtIf(block.mode == AVEN_MODE_GCM, block.aad, block.aad_len);
}

void lookAtBlock(const EnvelopeParams& block)
{
    HOLDS(block.alg >= 1 && block.alg <= 7 && block.mode >= 1 && block.mode <= 6);
    HOLDS(block.keypair == nullptr || block.certificate == nullptr);
    lookAtObject(block.keypair);
    lookAtObject(block.certificate);
}

void lookAtBlock(const MacParams& block, int algorithms)
{
    HOLDS(block.alg >= 1 && block.alg <= algorithms);
    lookAt(block.key, block.key_len);
}

template <class Block>
const Block& blockOf(const void* params)
{
    HOLDS(params != nullptr);
    return *static_cast<const Block*>(params);
}

const char* nextText()
{
    static std::string text;
    const Answer answer = nextAnswer();
    text = fuzz::replaced(pattern(answer.length), '\0', '0');
    account.output = answer.how == 1 ? "" : text;
    ++account.worked;
    return answer.how == 1 ? nullptr : text.c_str();
}

}  // namespace

#define MODULE(name, parameters) extern "C" int name parameters;
CORVANE_PARAMS_FUNCTIONS(MODULE)
#undef MODULE
#define ENGINE(result, name, parameters) extern "C" result name parameters;
AVEN_ENGINE_FUNCTIONS(ENGINE)
#undef ENGINE

int AddHttpParams(char*, long, char*, long)
{
    fuzz::fail("no request calls this function", __FILE__, __LINE__);
}

int GetHttpParams(char* name, long nameLength, char* value, long* valueLength)
{
    return readValue(module.http, name, nameLength, value, valueLength);
}

int ChangeHttpParams(char*, long, char*, long)
{
    fuzz::fail("no request calls this function", __FILE__, __LINE__);
}

int ClearHttpParams()
{
    module.http.clear();
    return 0;
}

int AddRetParams(char* name, long nameLength, char* value, long valueLength)
{
    module.ret.emplace_back(textOf(name, nameLength), textOf(value, valueLength));
    return 0;
}

int GetRetParams(char* name, long nameLength, char* value, long* valueLength)
{
    return readValue(module.ret, name, nameLength, value, valueLength);
}

int GetRetParamsSum(int*)
{
    fuzz::fail("no request calls this function", __FILE__, __LINE__);
}

int GetRetParamFromIndex(int, char*, long*, char*, long*)
{
    fuzz::fail("no request calls this function", __FILE__, __LINE__);
}

int ClearRetParams()
{
    module.ret.clear();
    return 0;
}

int SetRetCustomParam(char*, long)
{
    fuzz::fail("no request calls this function", __FILE__, __LINE__);
}

int GetRetCustomParam(char*, long*)
{
    fuzz::fail("no request calls this function", __FILE__, __LINE__);
}

int ClearRetCustomParam()
{
    module.custom.clear();
    return 0;
}

int aven_global_init()
{
    return 0;
}

int aven_global_cleanup()
{
    return 0;
}

int aven_global_set_logger(const char*)
{
    return 0;
}

const char* aven_version()
{
    return nextText();
}

const char* aven_strerror(int)
{
    return nextText();
}

int aven_crypto_base64_encode(const unsigned char* in, uint32_t in_len, unsigned char* out,
                              uint32_t* out_len)
{
    takeInput(in, in_len);
    return writeAsAsked(out, out_len);
}

int aven_crypto_base64_decode(const unsigned char* in, uint32_t in_len, unsigned char* out,
                              uint32_t* out_len)
{
    takeInput(in, in_len);
    return writeAsAsked(out, out_len);
}

int aven_ke_new(void** ke)
{
    const Answer answer = nextAnswer();
    HOLDS(ke != nullptr);
    *ke = reinterpret_cast<void*>(static_cast<uintptr_t>(answer.length));
    if (answer.code == 0)
        account.output = std::to_string(answer.length);
    return finish(answer.code);
}

int aven_ke_free(void* ke)
{
    takeSession(ke);
    return finish(nextAnswer().code);
}

int aven_ke_set_public_key(void* ke, const unsigned char* sig_key, uint32_t sig_key_len,
                           const unsigned char* enc_key, uint32_t enc_key_len, const char* password)
{
    takeSession(ke);
    lookAtOptional(sig_key, sig_key_len);
    lookAtOptional(enc_key, enc_key_len);
    lookAtOptional(password);
    takeInput(sig_key_len == 0 ? fuzz::bytesOf("") : sig_key, sig_key_len);
    return finish(nextAnswer().code);
}

int aven_ke_set_certificate(void* ke, const unsigned char* sig_cert, uint32_t sig_cert_len,
                            const unsigned char* enc_cert, uint32_t enc_cert_len,
                            const char* password)
{
    return aven_ke_set_public_key(ke, sig_cert, sig_cert_len, enc_cert, enc_cert_len, password);
}

int aven_ke_set_root_certificate(void* ke, const char* ca_file, const char* ca_path)
{
    takeSession(ke);
    lookAtOptional(ca_file);
    lookAtOptional(ca_path);
    return finish(nextAnswer().code);
}

int aven_ke_client_hello(void* ke, unsigned char* out, uint32_t* out_len)
{
    takeSession(ke);
    HOLDS(*out_len == 32);
    return write(out, out_len);
}

int aven_ke_client_key_exchange(void* ke, const unsigned char* srvr_rand, uint32_t srvr_rand_len,
                                const unsigned char* srvr_sig_cert, uint32_t srvr_sig_cert_len,
                                const unsigned char* srvr_enc_cert, uint32_t srvr_enc_cert_len,
                                const unsigned char* srvr_sign, uint32_t srvr_sign_len,
                                unsigned char* out, uint32_t* out_len)
{
    takeSession(ke);
    lookAt(srvr_sig_cert, srvr_sig_cert_len);
    lookAt(srvr_enc_cert, srvr_enc_cert_len);
    lookAt(srvr_sign, srvr_sign_len);
    takeInput(srvr_rand, srvr_rand_len);
    HOLDS(*out_len == 256);
    return write(out, out_len);
}

int aven_ke_encrypt(void* ke, const unsigned char* in, uint32_t in_len, unsigned char* out,
                    uint32_t* out_len)
{
    takeSession(ke);
    takeInput(in, in_len);
    HOLDS(*out_len >= in_len + 28);
    return write(out, out_len);
}

int aven_ke_decrypt(void* ke, const unsigned char* in, uint32_t in_len, unsigned char* out,
                    uint32_t* out_len)
{
    takeSession(ke);
    takeInput(in, in_len);
    HOLDS(*out_len >= in_len);
    return write(out, out_len);
}

int aven_ke_hmac(void* ke, const unsigned char* in, uint32_t in_len, unsigned char* out,
                 uint32_t* out_len)
{
    takeSession(ke);
    takeInput(in, in_len);
    return writeAsAsked(out, out_len);
}

int aven_ke_cmac(void* ke, const unsigned char* in, uint32_t in_len, unsigned char* out,
                 uint32_t* out_len)
{
    return aven_ke_hmac(ke, in, in_len, out, out_len);
}

int aven_crypto_public_encrypt(const void* params, const unsigned char* in, uint32_t in_len,
                               unsigned char* out, uint32_t* out_len)
{
    lookAtBlock(blockOf<PkeyCipherParams>(params));
    takeInput(in, in_len);
    return write(out, out_len);
}

int aven_crypto_private_decrypt(const void* params, const unsigned char* in, uint32_t in_len,
                                unsigned char* out, uint32_t* out_len)
{
    return aven_crypto_public_encrypt(params, in, in_len, out, out_len);
}

int aven_crypto_encrypt(const void* params, const unsigned char* in, uint32_t in_len,
                        unsigned char* out, uint32_t* out_len, int tag_len, unsigned char* tag)
{
    const auto& block = blockOf<SymmCipherParams>(params);
    lookAtBlock(block);
    takeInput(in, in_len);
    if (block.mode == AVEN_MODE_GCM) {
        HOLDS(tag != nullptr && tag_len >= 4 && tag_len <= 16);
        memset(tag, 0xFE, static_cast<size_t>(tag_len));
    } else {
        HOLDS(tag == nullptr && tag_len == 0);
    }
    const int code = write(out, out_len);
    if (code == 0)
        account.tag = std::string(static_cast<size_t>(tag_len), '\xFE');
    return code;
}

int aven_crypto_decrypt(const void* params, const unsigned char* in, uint32_t in_len,
                        const unsigned char* tag, uint32_t tag_len, unsigned char* out,
                        uint32_t* out_len)
{
    const auto& block = blockOf<SymmCipherParams>(params);
    lookAtBlock(block);
    lookAtIf(block.mode == AVEN_MODE_GCM, tag, tag_len);
    takeInput(in, in_len);
    HOLDS(*out_len >= in_len);
    return write(out, out_len);
}

int aven_crypto_gen_symmkey(int type, unsigned char* out, uint32_t* out_len)
{
    HOLDS(type >= 1 && type <= 7);
    return write(out, out_len);
}

int aven_crypto_hmac(const void* params, const unsigned char* in, uint32_t in_len,
                     unsigned char* out, uint32_t* out_len)
{
    lookAtBlock(blockOf<MacParams>(params), 6);
    takeInput(in, in_len);
    return write(out, out_len);
}

int aven_crypto_cmac(const void* params, const unsigned char* in, uint32_t in_len,
                     unsigned char* out, uint32_t* out_len)
{
    lookAtBlock(blockOf<MacParams>(params), 7);
    takeInput(in, in_len);
    return write(out, out_len);
}

int aven_keypair_unmarshal(int type, const unsigned char* private_key, uint32_t private_key_len,
                           const unsigned char* public_key, uint32_t public_key_len,
                           const char* password, void** keypair)
{
    HOLDS(type == 0 || type == 1 || type == 3);
    HOLDS((private_key == nullptr) != (public_key == nullptr));
    lookAtOptional(private_key, private_key_len);
    lookAtOptional(public_key, public_key_len);
    lookAtOptional(password);
    return giveObject(keypair);
}

int aven_keypair_free(void* keypair)
{
    return takeObject(keypair);
}

int aven_certificate_unmarshal(const unsigned char* cert, uint32_t cert_len, const char* password,
                               void** certificate)
{
    lookAtOptional(cert, cert_len);
    HOLDS(password == nullptr);
    return giveObject(certificate);
}

int aven_certificate_free(void* certificate)
{
    return takeObject(certificate);
}

int aven_crypto_kdf(int alg, const unsigned char* in, uint32_t in_len, uint32_t out_len,
                    unsigned char* out)
{
    HOLDS(alg >= 0 && alg <= 6 && out_len <= 65535 && out != nullptr);
    takeInput(in, in_len);
    const Answer answer = nextAnswer();
    const std::string bytes = pattern(out_len);
    memcpy(out, bytes.data(), bytes.size());
    account.output = answer.code == 0 ? bytes : account.output;
    return finish(answer.code);
}

int aven_crypto_pkcs7_encrypt(const void* params, const unsigned char* in, uint32_t in_len,
                              unsigned char* out, uint32_t* out_len)
{
    lookAtBlock(blockOf<EnvelopeParams>(params));
    takeInput(in, in_len);
    return write(out, out_len);
}

int aven_crypto_pkcs7_decrypt(const void* params, const unsigned char* in, uint32_t in_len,
                              unsigned char* out, uint32_t* out_len)
{
    return aven_crypto_pkcs7_encrypt(params, in, in_len, out, out_len);
}

int aven_wbsm4_encrypt(int kind, const unsigned char* key, uint32_t key_len,
                       const unsigned char* iv, uint32_t iv_len, const unsigned char* in,
                       uint32_t in_len, unsigned char* out, uint32_t* out_len)
{
    HOLDS(kind == 1 && key_len == 16 && iv_len == 16);
    lookAt(key, key_len);
    lookAt(iv, iv_len);
    takeInput(in, in_len);
    HOLDS(*out_len >= in_len);
    return write(out, out_len);
}

int aven_wbsm4_decrypt(int kind, const unsigned char* key, uint32_t key_len,
                       const unsigned char* iv, uint32_t iv_len, const unsigned char* in,
                       uint32_t in_len, unsigned char* out, uint32_t* out_len)
{
    return aven_wbsm4_encrypt(kind, key, key_len, iv, iv_len, in, in_len, out, out_len);
}

static int messages;

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

// What the results tell, given what the engine did.
void checkResults(const Row& row, const std::map<std::string, std::string>& results)
{
    const bool hasCode = results.count("errorCode") != 0;
    const std::string data = results.count("Data") != 0 ? results.at("Data") : "";
    const std::string tag = results.count("gcmOutTag") != 0 ? results.at("gcmOutTag") : "";
    if (row.results == Results::None) {
        HOLDS(account.calls == 0);
        return;
    }
    if (row.results == Results::Data) {  // without a code, nothing tells of a failure
        HOLDS(data == account.output);
        return;
    }

    HOLDS(hasCode);
    const std::string codeText = results.at("errorCode");
    const int code = atoi(codeText.c_str());
    HOLDS(codeText == std::to_string(code));
    if (code != 0) {
        HOLDS(data.empty() && tag.empty());
        if (account.codes > 0) {
            HOLDS(account.codes == 1 && code == account.code);
            return;
        }
        HOLDS(code == -20001 || code == -20084 || code == -20215);
        HOLDS(code != -20215 || !isLoaded);
        // The engine is not used for a request that is refused, but to read keys first.
        HOLDS(account.worked == 0);
        return;
    }

    HOLDS(account.codes == 0 && account.worked == 1);
    HOLDS(data == inForm(row.form, account.output));
    HOLDS(tag == (data.empty() ? account.tag : inForm(row.form, account.tag)));
}

void send(const std::string& name)
{
    const Row& row = rowOf(name);
    const Pairs sent = module.http;
    const size_t told =
        module.toldLength < 0 ? std::string::npos : static_cast<size_t>(module.toldLength);
    module.ret = {{"Data", "stale"}, {"more", "stale"}};
    module.custom = "stale";
    account = {};
    messages = 0;

    fuzz::Exact nameBytes(name);
    HOLDS(Corvane_plugin_Request(nameBytes.chars(), nameBytes.size32()) == 0);

    HOLDS(module.http.empty() && module.custom.empty());
    HOLDS(messages == (_log_level > 3 ? 2 : 0));
    HOLDS(objects.empty());
    std::vector<std::string> names;
    for (const auto& [resultName, value] : module.ret)
        names.push_back(resultName);
    HOLDS(names == namesOf(row.results));
    checkResults(row, {module.ret.begin(), module.ret.end()});

    const auto parameter = [&](const std::string& wanted) {
        for (const auto& [sentName, value] : sent)
            if (sentName == wanted)
                return value.substr(0, told);
        return std::string();
    };
    if (account.worked > 0 && row.given != Given::Nothing)
        HOLDS(account.input == asGiven(row.given, parameter(row.input)));
    if (account.handle != "none")
        HOLDS(account.handle == std::to_string(atol(parameter("strKe").c_str())));
    module.toldLength = -1;
    answers.clear();
}

void store(const std::string& text)
{
    const size_t equals = text.find('=');
    if (equals == std::string::npos)
        return;
    const std::string name = text.substr(0, equals);
    if (std::string* value = valueOf(module.http, name))
        *value = text.substr(equals + 1);
    else
        module.http.emplace_back(name, text.substr(equals + 1));
}

void queue(const std::string& text)
{
    constexpr unsigned longest = 4096;
    Answer answer;
    int length = 0;
    if (sscanf(text.c_str(), "%11d %9d %9d", &answer.code, &length, &answer.how) == 3) {
        answer.length = static_cast<unsigned>(length) % longest;
        answers.push_back(answer);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    HOLDS(CorvaneParamsClass::getInstance()->Load(nullptr, 0) == 0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::Input input(data, size);
    module = {};
    answers.clear();
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
                module.toldLength = atol(rest.c_str());
                break;
            case 'v':
                log_set_level(atoi(rest.c_str()));
                break;
        }
    }
    return 0;
}
