#include "support/traffic.h"

#include <openssl/crypto.h>
#include <openssl/pem.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <mutex>
#include <optional>
#include <random>
#include <utility>

#include "engine/engine_numbers.h"
#include "peer/ke_server.h"
#include "support/base64_text.h"
#include "support/files.h"
#include "support/oracle.h"

namespace support {

namespace {

using Parameters = DevkitHost::Parameters;
using Results = DevkitHost::Results;

constexpr int MISSING = -20001;  // the plug-in's codes
constexpr int INVALID = -20084;

constexpr char PASSWORD[] = "a password";

const char* const KEY_PAIR_REQUESTS[] = {"QZaven_crypto_public_encrypt",
                                         "QZaven_crypto_private_decrypt",
                                         "QZaven_crypto_envelope_decrypt"};

// A recipient of public-key encryption and of envelopes, the server of a key exchange, and
// the texts in which requests name them; of one kind of key.
struct Keys {
    Keys(KeyKind keyKind, const std::string& folder)
        : kind(keyKind),
          type(keyKind == KeyKind::Sm2 ? "1" : "3"),
          own(makeRoot(rootPlan(), keyKind)),
          rootFile(folder + "/root" + type + ".crt"),
          privateText(toUrlBase64(oracle::privatePem(own.key.get()))),
          lockedText(toUrlBase64(oracle::privatePem(own.key.get(), PASSWORD))),
          publicText(toUrlBase64(oracle::publicPem(own.key.get()))),
          certificateText(toUrlBase64(toDer(own.certificate.get())))
    {
        const Credential root = makeRoot(rootPlan(), kind);
        server.signing = makeCredential(signingPlan(), kind, root);
        server.encryption = makeCredential(encryptionPlan(), kind, root);
        writePrivateFile(rootFile, toPem(root.certificate.get()));
    }

    KeyKind kind;
    std::string type;  // as requests number it
    Credential own;
    ServerCredentials server;
    std::string rootFile;
    std::string privateText, lockedText, publicText, certificateText;  // Base64 of PEM or DER
};

// Which ciphers and modes there are.
bool isCipher(int cipher, int mode)
{
    return cipher != AVEN_CIPHER_3DES || mode < AVEN_MODE_CTR;
}

// Which of them envelopes to a kind of key have.
bool isEnvelope(KeyKind kind, int cipher, int mode)
{
    if (kind == KeyKind::Sm2)
        return cipher == AVEN_CIPHER_SM4 && mode != AVEN_MODE_GCM;
    if (cipher == AVEN_CIPHER_3DES)
        return mode == AVEN_MODE_CBC;
    const bool isAes = cipher >= AVEN_CIPHER_AES_128 && cipher <= AVEN_CIPHER_AES_256;
    return !isAes || mode != AVEN_MODE_CTR;
}

std::string damaged(std::string bytes)
{
    bytes.back() = static_cast<char>(bytes.back() ^ 1);
    return bytes;
}

std::string number(long long value)
{
    return std::to_string(value);
}

}  // namespace

struct TrafficSetting::Content {
    TemporaryFolder folder;
    Keys sm2{KeyKind::Sm2, folder.path()};
    Keys rsa{KeyKind::Rsa, folder.path()};
    mutable std::mutex keyPairs;
};

TrafficSetting::TrafficSetting() : m_content(new Content) {}

TrafficSetting::~TrafficSetting() = default;

class TrafficClient::Work {
public:
    Work(const DevkitHost& host, const TrafficSetting::Content& setting, uint32_t number,
         uint64_t seed, size_t smallest)
        : m_host(host),
          m_setting(setting),
          m_number(number),
          m_smallest(smallest),
          m_origin("client " + std::to_string(number) + ", seed " + std::to_string(seed)),
          m_chance(seed * 1000003 + number)
    {
    }

    void act();
    void actInEveryWay();
    void leave();

    TrafficCount count;

private:
    // A mistake, made by putting a value in a good request, and the code that it earns.
    // Without a value the parameter is left out or empty, which is the same.
    struct Mistake {
        const char* name;
        std::string value;
        int code;
    };
    using Mistakes = std::vector<Mistake>;

    struct Kind {
        unsigned weight;
        void (Work::*act)();
    };
    static const Kind KINDS[21];

    // ---- Chance

    uint64_t below(uint64_t limit) { return m_chance() % limit; }
    bool oneIn(uint64_t times) { return below(times) == 0; }
    int from(int low, int high)
    {
        return low + static_cast<int>(below(static_cast<uint64_t>(high - low + 1)));
    }
    bool isToErr() { return oneIn(12); }
    const Keys& keys() { return oneIn(2) ? m_setting.rsa : m_setting.sm2; }

    std::string random(size_t size)
    {
        std::string bytes(size, '\0');
        for (size_t at = 0; at < size; at += sizeof(uint64_t)) {
            const uint64_t word = m_chance();
            memcpy(&bytes[at], &word, std::min(size - at, sizeof word));
        }
        return bytes;
    }

    size_t size(size_t limit)
    {
        size_t most = 128;
        if (oneIn(20000))
            most = size_t{1} << 20;
        else if (oneIn(200))
            most = 8192;
        most = std::min(most, limit);
        return m_smallest + below(most - m_smallest + 1);
    }

    // Data, with the nonce before it.
    std::string payload(size_t size)
    {
        char nonce[NONCE];
        static_assert(sizeof nonce == sizeof m_number + sizeof m_payloads);
        ++m_payloads;
        memcpy(nonce, &m_payloads, sizeof m_payloads);
        memcpy(nonce + sizeof m_payloads, &m_number, sizeof m_number);
        std::string bytes = random(size);
        memcpy(bytes.data(), nonce, std::min(size, sizeof nonce));
        return bytes;
    }
    std::string somePayload(size_t limit = SIZE_MAX) { return payload(size(limit)); }

    // ---- Requests

    void run(const Kind& kind)
    {
        try {
            (this->*kind.act)();
        } catch (const std::exception& e) {
            complain(m_lastRequest, e.what());
        }
    }

    Results send(const std::string& name, const Parameters& parameters)
    {
        m_lastRequest = name;
        ++count.sent;
        ++count.sentByName[name];
        std::unique_lock<std::mutex> alone(m_setting.keyPairs, std::defer_lock);
        if (std::count(std::begin(KEY_PAIR_REQUESTS), std::end(KEY_PAIR_REQUESTS), name) != 0)
            alone.lock();
        return m_host.request(name, parameters);
    }

    void complain(const std::string& name, const std::string& what)
    {
        ++count.wrong;
        if (count.complaints.size() < 10)
            count.complaints.push_back(m_origin + ", request " +
                                       number(static_cast<long long>(count.sent)) + ": " + name +
                                       ": " + what);
    }

    void expect(bool right, const char* what)
    {
        if (!right)
            complain(m_lastRequest, what);
    }

    void expectSame(const Results& got, const Results& expected)
    {
        if (got == expected)
            return;
        const auto code = got.find("errorCode"), wanted = expected.find("errorCode");
        if (code != got.end() && wanted != expected.end() && code->second != wanted->second)
            complain(m_lastRequest, "errorCode " + code->second + ", not " + wanted->second);
        else
            complain(m_lastRequest, "another answer");
    }

    void ask(const std::string& name, const Parameters& parameters, const Results& expected)
    {
        expectSame(send(name, parameters), expected);
    }

    // Expects these bytes.
    void askFor(const std::string& name, const Parameters& parameters, const std::string& data)
    {
        ask(name, parameters, {{"Data", toUrlBase64(data)}, {"errorCode", "0"}});
    }

    // Whatever "Data" a successful answer has, as text.
    std::string textOf(const std::string& name, const Parameters& parameters)
    {
        const Results results = send(name, parameters);
        const auto data = results.find("Data");
        const std::string text = data == results.end() ? "" : data->second;
        expectSame(results, {{"Data", text}, {"errorCode", "0"}});
        return text;
    }
    std::string bytesOf(const std::string& name, const Parameters& parameters)
    {
        return fromUrlBase64(textOf(name, parameters));
    }

    // Makes one of the mistakes. `empty` has the results that a failure leaves empty.
    void err(const std::string& name, Parameters parameters, const Mistakes& mistakes,
             Results empty = {{"Data", ""}})
    {
        const Mistake& mistake = mistakes[below(mistakes.size())];
        parameters.erase(
            std::remove_if(parameters.begin(), parameters.end(),
                           [&](const auto& pair) { return pair.first == mistake.name; }),
            parameters.end());
        if (!mistake.value.empty() || oneIn(2))
            parameters.emplace_back(mistake.name, mistake.value);
        empty["errorCode"] = number(mistake.code);
        ask(name, parameters, empty);
    }

    // ---- The kinds

    void version();
    void errorText();
    void base64Encode();
    void base64Decode();
    void renewSession();
    void channelEncrypt();
    void channelDecrypt();
    void channelHmac();
    void channelCmac();
    void publicEncrypt();
    void privateDecrypt();
    void encrypt();
    void decrypt();
    void generateKey();
    void hmac();
    void cmac();
    void kdf();
    void envelopeEncrypt();
    void envelopeDecrypt();
    void whiteBoxEncrypt();
    void whiteBoxDecrypt();

    void setUpSession(const Keys& keys);
    void exchangeKeys(const Keys& keys);
    Mistakes channelMistakes() const;
    oracle::PublicKeyForm publicKeyForm(Parameters& parameters);
    std::string publicKeyData(const Keys& keys, bool oaep);
    oracle::CipherSetup cipherSetup(Parameters& parameters);
    std::string cipherData(const oracle::CipherSetup& setup);
    Mistakes cipherMistakes(const oracle::CipherSetup& setup);
    void mac(const char* name, const char* algName, int algs, size_t keySize, int alg,
             std::string (*compute)(int, const std::string&, const std::string&));
    struct WhiteBox {
        oracle::CipherSetup setup;
        Parameters parameters;
    };
    WhiteBox whiteBox();
    void whiteBoxMistake(const char* name, Parameters parameters, const std::string& data);

    const DevkitHost& m_host;
    const TrafficSetting::Content& m_setting;
    uint32_t m_number;
    size_t m_smallest;
    std::string m_origin;
    std::mt19937_64 m_chance;
    uint64_t m_payloads = 0;
    std::string m_lastRequest;

    std::string m_session;  // the handle's text; empty while there is none
    std::optional<ChannelKeys> m_channel;
    std::string m_lastKey;  // that was generated
};

// Of a thousand requests, about one in each of the kinds that use a public key.
const TrafficClient::Work::Kind TrafficClient::Work::KINDS[21] = {
    {200, &Work::version},
    {300, &Work::errorText},
    {900, &Work::base64Encode},
    {900, &Work::base64Decode},
    {3, &Work::renewSession},
    {700, &Work::channelEncrypt},
    {700, &Work::channelDecrypt},
    {700, &Work::channelHmac},
    {700, &Work::channelCmac},
    {10, &Work::publicEncrypt},
    {10, &Work::privateDecrypt},
    {1000, &Work::encrypt},
    {1000, &Work::decrypt},
    {500, &Work::generateKey},
    {700, &Work::hmac},
    {700, &Work::cmac},
    {700, &Work::kdf},
    {10, &Work::envelopeEncrypt},
    {10, &Work::envelopeDecrypt},
    {600, &Work::whiteBoxEncrypt},
    {600, &Work::whiteBoxDecrypt},
};

void TrafficClient::Work::act()
{
    unsigned total = 0;
    for (const Kind& kind : KINDS)
        total += kind.weight;
    uint64_t drawn = below(total);
    for (const Kind& kind : KINDS) {
        if (drawn < kind.weight)
            return run(kind);
        drawn -= kind.weight;
    }
}

void TrafficClient::Work::actInEveryWay()
{
    for (const Kind& kind : KINDS)
        run(kind);
}

void TrafficClient::Work::leave()
{
    if (m_session.empty())
        return;
    ask("QZaven_ke_free", {{"strKe", m_session}}, {{"errorCode", "0"}});
    m_session.clear();
    m_channel.reset();
}

// ---- Texts

void TrafficClient::Work::version()
{
    const std::string text = textOf("QZaVen_GetVersion", {});
    expect(text.find("development engine") != std::string::npos &&
               text.find(OpenSSL_version(OPENSSL_VERSION_STRING)) != std::string::npos,
           "another version");
}

void TrafficClient::Work::errorText()
{
    static const std::pair<int, const char*> texts[] = {
        {0, "success"},
#define ROW(name, code, text, cause, remedy) {code, text},
        AVEN_ENGINE_ERRORS(ROW) AVEN_PLUGIN_ERRORS(ROW)
#undef ROW
    };
    const char* const name = "QZaVen_strerror";
    if (isToErr())
        return ask(name, {}, {{"Data", ""}});
    const auto& [code, text] = texts[below(std::size(texts))];
    ask(name, {{"strErr", number(code)}}, {{"Data", text}});
}

void TrafficClient::Work::base64Encode()
{
    const char* const name = "QZaven_crypto_base64_encode";
    const std::string data = somePayload();
    if (isToErr())
        return err(name, {{"strIn", data}}, {{"strIn", "", MISSING}});
    askFor(name, {{"strIn", data}}, data);
}

void TrafficClient::Work::base64Decode()
{
    const char* const name = "QZaven_crypto_base64_Decode";
    const std::string data = somePayload();
    const std::string text = toUrlBase64(data);
    if (isToErr())
        return err(name, {{"strIn", text}},
                   {{"strIn", "", MISSING},
                    {"strIn", "AA*A" + text, AVEN_E_BASE64_CHARACTER},
                    {"strIn", toUrlBase64("abc") + "A", AVEN_E_BASE64_ENDING}});
    ask(name, {{"strIn", text}}, {{"Data", oracle::escapedTwice(data)}, {"errorCode", "0"}});
}

// ---- Key exchange

void TrafficClient::Work::renewSession()
{
    const std::string old = m_session;
    leave();
    if (!old.empty())
        ask("QZaven_ke_free", {{"strKe", old}}, {{"errorCode", number(AVEN_E_HANDLE)}});
    const Keys& keys = this->keys();
    setUpSession(keys);
    exchangeKeys(keys);
}

// Up to the trusted roots.
void TrafficClient::Work::setUpSession(const Keys& keys)
{
    m_session = textOf("QZaven_ke_new", {});
    ask("QZaven_ke_hmac", {{"strKe", m_session}},
        {{"Data", ""}, {"errorCode", number(AVEN_E_KE_TOO_EARLY)}});

    const char* name = "QZaven_ke_set_public_key";
    Parameters parameters = {{"strKe", m_session},
                             {"strSig_key", keys.lockedText},
                             {"strEnc_key", keys.publicText},
                             {"strPassword", PASSWORD}};
    err(name, parameters,
        {{"strKe", "", MISSING},
         {"strSig_key", toUrlBase64("no key"), AVEN_E_KEY_TEXT},
         {"strPassword", "another", AVEN_E_PASSWORD_WRONG}},
        {});
    ask(name, parameters, {{"errorCode", "0"}});

    name = "QZaven_ke_set_certificate";
    parameters = {{"strKe", m_session},
                  {"strSig_cert", keys.certificateText},
                  {"strEnc_cert", keys.certificateText}};
    err(name, parameters,
        {{"strKe", "", MISSING}, {"strEnc_cert", keys.publicText, AVEN_E_KEY_ROLE}}, {});
    ask(name, parameters, {{"errorCode", "0"}});

    name = "QZaven_ke_set_root_certificate";
    parameters = {{"strKe", m_session}, {"strCa_file", keys.rootFile}};
    err(name, parameters,
        {{"strKe", "", MISSING},
         {"strCa_file", "", MISSING},
         {"strCa_file", keys.rootFile + ".none", AVEN_E_KE_ROOTS_OPEN}},
        {});
    ask(name, parameters, {{"errorCode", "0"}});
}

void TrafficClient::Work::exchangeKeys(const Keys& keys)
{
    const char* name = "QZaven_ke_client_hello";
    const Parameters session = {{"strKe", m_session}};
    const std::string hello = bytesOf(name, session);
    err(name, session, {{"strKe", "", MISSING}, {"strKe", m_session, AVEN_E_KE_TOO_LATE}});

    const ServerAnswer server = answerHello(keys.server, hello);
    name = "QZaven_ke_client_key_exchange";
    const Parameters parameters = {
        {"strKe", m_session},
        {"strSrvr_rand", toUrlBase64(server.random)},
        {"strSrvr_sig_cert", toUrlBase64(server.signingCertificate)},
        {"strSrvr_enc_cert", toUrlBase64(server.encryptionCertificate)},
        {"strSrvr_sign", toUrlBase64(server.signature)},
    };
    err(name, parameters,
        {{"strKe", "", MISSING},
         {"strSrvr_rand", toUrlBase64(server.random + "!"), AVEN_E_KE_SERVER_RANDOM},
         {"strSrvr_rand", toUrlBase64(damaged(server.random)), AVEN_E_KE_SIGNATURE},
         {"strSrvr_sig_cert", keys.certificateText, AVEN_E_KE_UNTRUSTED}});
    m_channel = acceptKeyExchange(keys.server, hello, server.random, bytesOf(name, parameters));
}

TrafficClient::Work::Mistakes TrafficClient::Work::channelMistakes() const
{
    return {{"strKe", "", MISSING},
            {"strKe", "0", AVEN_E_NULL_POINTER},
            {"strKe", number(static_cast<long long>(m_number) + 4096), AVEN_E_HANDLE}};
}

// Data may be empty, too.
void TrafficClient::Work::channelEncrypt()
{
    if (!m_channel)
        renewSession();
    const char* const name = "QZaven_ke_encrypt";
    const std::string data = oneIn(100) ? "" : somePayload();
    const Parameters parameters = {{"strKe", m_session}, {"strdata", toUrlBase64(data)}};
    if (isToErr())
        return err(name, parameters, channelMistakes());
    expect(openMessage(*m_channel, bytesOf(name, parameters)) == data, "another text is sealed");
}

void TrafficClient::Work::channelDecrypt()
{
    if (!m_channel)
        renewSession();
    const char* const name = "QZaven_ke_decrypt";
    const std::string data = somePayload();
    const std::string message = sealMessage(*m_channel, data);
    const Parameters parameters = {{"strKe", m_session}, {"strcipher", toUrlBase64(message)}};
    if (isToErr()) {
        Mistakes mistakes = channelMistakes();
        mistakes.push_back({"strcipher", "", AVEN_E_KE_MESSAGE});
        mistakes.push_back({"strcipher", toUrlBase64(damaged(message)), AVEN_E_TAG_MISMATCH});
        mistakes.push_back({"strcipher",
                            toUrlBase64(sealMessage(*m_channel, data, Direction::ToServer)),
                            AVEN_E_TAG_MISMATCH});
        return err(name, parameters, mistakes);
    }
    askFor(name, parameters, data);
}

void TrafficClient::Work::channelHmac()
{
    if (!m_channel)
        renewSession();
    const char* const name = "QZaven_ke_hmac";
    const std::string data = somePayload();
    const Parameters parameters = {{"strKe", m_session}, {"strdata", toUrlBase64(data)}};
    if (isToErr())
        return err(name, parameters, channelMistakes());
    const Bytes key = m_channel->hmac();
    askFor(name, parameters,
           oracle::hmac(m_channel->hash(),
                        std::string(reinterpret_cast<const char*>(key.data), key.size), data));
}

void TrafficClient::Work::channelCmac()
{
    if (!m_channel)
        renewSession();
    const char* const name = "QZaven_ke_cmac";
    const std::string data = somePayload();
    const Parameters parameters = {{"strKe", m_session}, {"strdata", toUrlBase64(data)}};
    if (isToErr())
        return err(name, parameters, channelMistakes());
    const Bytes key = m_channel->cmac();
    askFor(name, parameters,
           oracle::cmac(AVEN_CIPHER_SM4,
                        std::string(reinterpret_cast<const char*>(key.data), key.size), data));
}

// ---- Public keys

oracle::PublicKeyForm TrafficClient::Work::publicKeyForm(Parameters& parameters)
{
    oracle::PublicKeyForm form = {oneIn(2), oneIn(2), oneIn(2)};
    const auto flag = [&](const char* name, bool isZero) {
        if (!isZero || oneIn(2))  // 0 is the default
            parameters.emplace_back(name, isZero ? "0" : "1");
    };
    flag("strRsaPaddingE", form.oaep);
    flag("strnoAsn1", form.asn1);
    flag("strnoc1c3c2", form.c1c3c2);
    return form;
}

// The most that a key of 2048 bits takes, and what a margin of 129 bytes must suffice for.
std::string TrafficClient::Work::publicKeyData(const Keys& keys, bool oaep)
{
    return somePayload(keys.kind == KeyKind::Sm2 ? size_t{1} << 17 : oaep ? 256 - 66 : 256 - 11);
}

void TrafficClient::Work::publicEncrypt()
{
    const char* const name = "QZaven_crypto_public_encrypt";
    const Keys& keys = this->keys();
    Parameters parameters = {{"strpk", oneIn(2) ? keys.publicText : keys.certificateText}};
    if (oneIn(2))
        parameters.emplace_back("strKeyPairType", keys.type);
    const oracle::PublicKeyForm form = publicKeyForm(parameters);
    const std::string data = publicKeyData(keys, form.oaep);
    parameters.emplace_back("strdata", toUrlBase64(data));
    if (isToErr())
        return err(name, parameters,
                   {{"strpk", "", MISSING},
                    {"strdata", "", MISSING},
                    {"strKeyPairType", "2", INVALID},
                    {"strnoAsn1", "2", INVALID},
                    {"strKeyPairType", keys.kind == KeyKind::Sm2 ? "3" : "1", AVEN_E_KEY_KIND},
                    {"strpk", toUrlBase64("no key"), AVEN_E_KEY_TEXT},
                    {"strpk", keys.privateText, AVEN_E_KEY_ROLE}});
    expect(oracle::privateDecrypt(keys.own.key.get(), form, bytesOf(name, parameters)) == data,
           "another text is encrypted");
}

void TrafficClient::Work::privateDecrypt()
{
    const char* const name = "QZaven_crypto_private_decrypt";
    const Keys& keys = this->keys();
    const bool isLocked = oneIn(4);
    Parameters parameters = {{"strsk", isLocked ? keys.lockedText : keys.privateText}};
    if (isLocked || oneIn(4))
        parameters.emplace_back("strPassword", PASSWORD);
    if (oneIn(2))
        parameters.emplace_back("strKeyPairType", keys.type);
    const oracle::PublicKeyForm form = publicKeyForm(parameters);
    const std::string data = publicKeyData(keys, form.oaep);
    const std::string encrypted = oracle::publicEncrypt(keys.own.key.get(), form, data);
    parameters.emplace_back("strdata", toUrlBase64(encrypted));
    if (isToErr()) {
        Mistakes mistakes = {{"strsk", "", MISSING},
                             {"strdata", "", MISSING},
                             {"strRsaPaddingE", "x", INVALID},
                             {"strsk", keys.publicText, AVEN_E_KEY_ROLE}};
        if (isLocked) {
            mistakes.push_back({"strPassword", "", AVEN_E_PASSWORD_MISSING});
            mistakes.push_back({"strPassword", "another", AVEN_E_PASSWORD_WRONG});
        }
        if (keys.kind == KeyKind::Sm2 || form.oaep)  // PKCS#1 v1.5 may not notice
            mistakes.push_back({"strdata", toUrlBase64(damaged(encrypted)), AVEN_E_DECRYPTION});
        return err(name, parameters, mistakes);
    }
    askFor(name, parameters, data);
}

// ---- Ciphers

oracle::CipherSetup TrafficClient::Work::cipherSetup(Parameters& parameters)
{
    oracle::CipherSetup setup;
    do {
        setup.cipher = from(1, 7);
        setup.mode = from(1, 6);
    } while (!isCipher(setup.cipher, setup.mode));
    setup.padded = oneIn(2);
    setup.key = random(oracle::keySize(setup.cipher));
    parameters = {{"strCipherAlg", number(setup.cipher)},
                  {"strMode", number(setup.mode)},
                  {"strKey", toUrlBase64(setup.key)}};
    if (setup.padded || oneIn(2))
        parameters.emplace_back("strCipherPadding", setup.padded ? "1" : "0");
    if (setup.mode == AVEN_MODE_GCM) {
        setup.iv = random(oneIn(2) ? 12 : 1 + below(128));
        setup.aad = somePayload();
        parameters.emplace_back("straad", toUrlBase64(setup.aad));
    } else if (setup.mode != AVEN_MODE_ECB) {
        setup.iv = random(oracle::blockSize(setup.cipher));
    }
    if (!setup.iv.empty())
        parameters.emplace_back("strIV", toUrlBase64(setup.iv));
    return setup;
}

// In whole blocks where nothing pads.
std::string TrafficClient::Work::cipherData(const oracle::CipherSetup& setup)
{
    size_t length = size(SIZE_MAX);
    if (setup.mode <= AVEN_MODE_CBC && !setup.padded) {
        const size_t block = oracle::blockSize(setup.cipher);
        length = (length + block - 1) / block * block;
    }
    return payload(length);
}

TrafficClient::Work::Mistakes TrafficClient::Work::cipherMistakes(const oracle::CipherSetup& setup)
{
    Mistakes mistakes = {{"strCipherAlg", "", MISSING},
                         {"strMode", "", MISSING},
                         {"strKey", "", MISSING},
                         {"strdata", "", MISSING},
                         {"strCipherAlg", "0", INVALID},
                         {"strCipherAlg", "8", INVALID},
                         {"strMode", "7", INVALID},
                         {"strMode", "1 ", INVALID},
                         {"strCipherPadding", "2", INVALID},
                         {"strKey", toUrlBase64(setup.key + "!"), AVEN_E_KEY_LENGTH}};
    if (setup.mode != AVEN_MODE_ECB) {
        mistakes.push_back({"strIV", "", MISSING});
        mistakes.push_back({"strIV", toUrlBase64(random(129)), AVEN_E_IV_LENGTH});
    }
    if (setup.mode == AVEN_MODE_GCM)
        mistakes.push_back({"straad", "", MISSING});
    else if (setup.mode != AVEN_MODE_ECB && setup.cipher == AVEN_CIPHER_3DES)
        mistakes.push_back({"strMode", "5", AVEN_E_COMBINATION});
    return mistakes;
}

void TrafficClient::Work::encrypt()
{
    const char* const name = "QZaven_crypto_encrypt";
    Parameters parameters;
    const oracle::CipherSetup setup = cipherSetup(parameters);
    const std::string data = cipherData(setup);
    const bool isGcm = setup.mode == AVEN_MODE_GCM;
    const int tagSize = oneIn(2) ? 16 : from(4, 16);
    parameters.emplace_back("strdata", toUrlBase64(data));
    if (isGcm && (tagSize != 16 || oneIn(2)))
        parameters.emplace_back("strgcmTagLen", number(tagSize));
    if (isToErr()) {
        Mistakes mistakes = cipherMistakes(setup);
        if (isGcm) {
            mistakes.push_back({"strgcmTagLen", "3", INVALID});
            mistakes.push_back({"strgcmTagLen", "17", INVALID});
        } else if (setup.mode <= AVEN_MODE_CBC && !setup.padded) {
            mistakes.push_back({"strdata", toUrlBase64(data + "!"), AVEN_E_DATA_LENGTH});
        }
        return err(name, parameters, mistakes, {{"Data", ""}, {"gcmOutTag", ""}});
    }
    const oracle::Sealed sealed = isGcm ? oracle::sealGcm(setup, data, static_cast<size_t>(tagSize))
                                        : oracle::Sealed{oracle::encrypt(setup, data), ""};
    ask(name, parameters,
        {{"Data", toUrlBase64(sealed.data)},
         {"gcmOutTag", toUrlBase64(sealed.tag)},
         {"errorCode", "0"}});
}

void TrafficClient::Work::decrypt()
{
    const char* const name = "QZaven_crypto_decrypt";
    Parameters parameters;
    const oracle::CipherSetup setup = cipherSetup(parameters);
    const std::string data = cipherData(setup);
    const bool isGcm = setup.mode == AVEN_MODE_GCM;
    const oracle::Sealed sealed =
        isGcm ? oracle::sealGcm(setup, data, static_cast<size_t>(from(4, 16)))
              : oracle::Sealed{oracle::encrypt(setup, data), ""};
    parameters.emplace_back("strdata", toUrlBase64(sealed.data));
    if (isGcm)
        parameters.emplace_back("strtag", toUrlBase64(sealed.tag));
    if (isToErr()) {
        Mistakes mistakes = cipherMistakes(setup);
        if (isGcm) {
            mistakes.push_back({"strtag", "", MISSING});
            mistakes.push_back({"strtag", toUrlBase64(damaged(sealed.tag)), AVEN_E_TAG_MISMATCH});
            mistakes.push_back({"strdata", toUrlBase64(damaged(sealed.data)), AVEN_E_TAG_MISMATCH});
            mistakes.push_back({"strtag", toUrlBase64("abc"), AVEN_E_TAG_LENGTH});
        } else if (setup.mode <= AVEN_MODE_CBC) {
            mistakes.push_back({"strdata", toUrlBase64(sealed.data + "!"), AVEN_E_DATA_LENGTH});
        }
        return err(name, parameters, mistakes);
    }
    askFor(name, parameters, data);
}

void TrafficClient::Work::generateKey()
{
    const char* const name = "QZaven_crypto_gen_symmkey";
    const int cipher = from(1, 7);
    const Parameters parameters = {{"strCipherAlg", number(cipher)}};
    if (isToErr())
        return err(name, parameters,
                   {{"strCipherAlg", "", MISSING},
                    {"strCipherAlg", "0", INVALID},
                    {"strCipherAlg", "8", INVALID}});
    const std::string key = bytesOf(name, parameters);
    expect(key.size() == oracle::keySize(cipher), "a key of another length");
    expect(key.substr(0, 16) != m_lastKey.substr(0, 16), "the same key again");
    if (cipher == AVEN_CIPHER_3DES) {
        for (const char c : key) {
            unsigned ones = 0;
            for (unsigned rest = static_cast<unsigned char>(c); rest != 0; rest &= rest - 1)
                ++ones;
            expect(ones % 2 == 1, "a key of even parity");
        }
    }
    m_lastKey = key;
}

// ---- MACs and key derivation

void TrafficClient::Work::mac(const char* name, const char* algName, int algs, size_t keySize,
                              int alg,
                              std::string (*compute)(int, const std::string&, const std::string&))
{
    const std::string key = random(keySize);
    const std::string data = somePayload();
    const Parameters parameters = {
        {algName, number(alg)}, {"strKey", toUrlBase64(key)}, {"strdata", toUrlBase64(data)}};
    if (isToErr()) {
        Mistakes mistakes = {{algName, "", MISSING},
                             {"strKey", "", MISSING},
                             {"strdata", "", MISSING},
                             {algName, "0", INVALID},
                             {algName, number(algs + 1), INVALID}};
        if (compute == oracle::cmac)
            mistakes.push_back({"strKey", toUrlBase64(key + "!"), AVEN_E_KEY_LENGTH});
        return err(name, parameters, mistakes);
    }
    askFor(name, parameters, compute(alg, key, data));
}

void TrafficClient::Work::hmac()
{
    mac("QZaven_crypto_hmac", "strHashAlg", 6, 1 + below(oneIn(8) ? 300 : 64), from(1, 6),
        oracle::hmac);
}

void TrafficClient::Work::cmac()
{
    const int cipher = from(1, 7);
    mac("QZaven_crypto_cmac", "strCipherAlg", 7, oracle::keySize(cipher), cipher, oracle::cmac);
}

void TrafficClient::Work::kdf()
{
    const char* const name = "QZaven_crypto_kdf";
    const int hash = from(0, 6);
    const std::string data = somePayload();
    const size_t length = size(0xFFFF);
    const Parameters parameters = {{"HashType", number(hash)},
                                   {"srcdata", data},
                                   {"OutLen", number(static_cast<long long>(length))}};
    if (isToErr())
        return err(name, parameters,
                   {{"HashType", "", MISSING},
                    {"srcdata", "", MISSING},
                    {"OutLen", "", MISSING},
                    {"HashType", "7", INVALID},
                    {"OutLen", "-1", INVALID},
                    {"OutLen", "65536", INVALID},
                    {"OutLen", "0", AVEN_E_OUTPUT_LENGTH}});
    // Each block of the output hashes all of the input again.
    if (length > 4096 && data.size() > 4096)
        return;
    askFor(name, parameters, oracle::kdf(hash, data, length));
}

// ---- Envelopes

constexpr size_t ENVELOPE_LIMIT = size_t{1} << 18;  // escaped, it may be five times that

void TrafficClient::Work::envelopeEncrypt()
{
    const char* const name = "QZaven_crypto_envelope_encrypt";
    const Keys& keys = this->keys();
    const int cipher = from(1, 7), mode = from(1, 6);
    const std::string data = somePayload(ENVELOPE_LIMIT);
    Parameters parameters = {{"strCipherAlg", number(cipher)}, {"strMode", number(mode)}};
    Parameters back = parameters;
    parameters.emplace_back("strpk", keys.certificateText);
    parameters.emplace_back("strdata", data);
    if (!isEnvelope(keys.kind, cipher, mode))
        return ask(name, parameters,
                   {{"Data", ""}, {"errorCode", number(AVEN_E_ENVELOPE_ALGORITHM)}});
    if (isToErr())
        return err(name, parameters,
                   {{"strdata", "", MISSING},
                    {"strpk", "", MISSING},
                    {"strCipherAlg", "", MISSING},
                    {"strMode", "", MISSING},
                    {"strCipherAlg", "8", INVALID},
                    {"strMode", "0", INVALID},
                    {"strpk", toUrlBase64("no certificate"), AVEN_E_KEY_TEXT},
                    {"strpk", keys.publicText, AVEN_E_KEY_ROLE}});
    const std::string envelope = bytesOf(name, parameters);
    if (keys.kind == KeyKind::Rsa && oracle::knowsEnvelope(cipher, mode)) {
        expect(oracle::openEnvelope(keys.own.key.get(), envelope) == data,
               "another text is in the envelope");
        return;
    }
    back.emplace_back("strKeyPairType", keys.type);
    back.emplace_back("strsk", keys.privateText);
    back.emplace_back("strEncdata", toUrlBase64(envelope));
    ask("QZaven_crypto_envelope_decrypt", back,
        {{"Data", oracle::escapedTwice(data)}, {"errorCode", "0"}});
}

void TrafficClient::Work::envelopeDecrypt()
{
    const char* const name = "QZaven_crypto_envelope_decrypt";
    const Keys& keys = m_setting.rsa;
    int cipher = 0, mode = 0;
    do {
        cipher = from(1, 7);
        mode = from(1, 6);
    } while (!isEnvelope(keys.kind, cipher, mode) || !oracle::knowsEnvelope(cipher, mode));
    const std::string data = somePayload(ENVELOPE_LIMIT);
    const std::string envelope =
        oracle::sealEnvelope(keys.own.certificate.get(), cipher, mode, oneIn(2), data);
    const Parameters parameters = {{"strKeyPairType", keys.type},
                                   {"strsk", keys.privateText},
                                   {"strCipherAlg", number(cipher)},
                                   {"strMode", number(mode)},
                                   {"strEncdata", toUrlBase64(envelope)}};
    const int another = cipher % 7 + 1;
    if (isToErr())
        return err(name, parameters,
                   {{"strKeyPairType", "", MISSING},
                    {"strsk", "", MISSING},
                    {"strEncdata", "", MISSING},
                    {"strKeyPairType", "0", INVALID},
                    {"strCipherAlg", "8", INVALID},
                    {"strMode", "0", INVALID},
                    {"strKeyPairType", m_setting.sm2.type, AVEN_E_KEY_KIND},
                    {"strsk", keys.publicText, AVEN_E_KEY_ROLE},
                    {"strCipherAlg", number(another),
                     isEnvelope(keys.kind, another, mode) ? AVEN_E_ENVELOPE_DIFFERS
                                                          : AVEN_E_ENVELOPE_ALGORITHM},
                    {"strEncdata", toUrlBase64(envelope + "!"), AVEN_E_ENVELOPE_TRAILING},
                    {"strEncdata", toUrlBase64(envelope.substr(0, envelope.size() - 1)),
                     AVEN_E_ENVELOPE_TEXT}});
    ask(name, parameters, {{"Data", oracle::escapedTwice(data)}, {"errorCode", "0"}});
}

// ---- White box

TrafficClient::Work::WhiteBox TrafficClient::Work::whiteBox()
{
    WhiteBox box;
    box.setup = {AVEN_CIPHER_SM4, AVEN_MODE_CBC, true, random(16), random(16), ""};
    box.parameters = {{"strKey", toUrlBase64(box.setup.key)}, {"strIV", toUrlBase64(box.setup.iv)}};
    return box;
}

void TrafficClient::Work::whiteBoxMistake(const char* name, Parameters parameters,
                                          const std::string& data)
{
    parameters.emplace_back("strdata", toUrlBase64(data));
    err(name, parameters,
        {{"strKey", "", MISSING},
         {"strIV", "", MISSING},
         {"strdata", "", MISSING},
         {"strKey", toUrlBase64(random(15)), INVALID},
         {"strIV", toUrlBase64(random(17)), INVALID}});
}

void TrafficClient::Work::whiteBoxEncrypt()
{
    const char* const name = "QZaven_wbsm4_encrypt";
    WhiteBox box = whiteBox();
    const std::string data = somePayload();
    if (isToErr())
        return whiteBoxMistake(name, box.parameters, data);
    box.parameters.emplace_back("strdata", toUrlBase64(data));
    askFor(name, box.parameters, oracle::encrypt(box.setup, data));
}

void TrafficClient::Work::whiteBoxDecrypt()
{
    const char* const name = "QZaven_wbsm4_decrypt";
    WhiteBox box = whiteBox();
    const std::string data = somePayload();
    const std::string encrypted = oracle::encrypt(box.setup, data);
    if (isToErr())
        return whiteBoxMistake(name, box.parameters, encrypted);
    box.parameters.emplace_back("strdata", toUrlBase64(encrypted));
    askFor(name, box.parameters, data);
}

// ---- The client's outside

TrafficClient::TrafficClient(const DevkitHost& host, const TrafficSetting& setting, uint32_t number,
                             uint64_t seed, size_t smallest)
    : m_work(new Work(host, setting.content(), number, seed, smallest))
{
}

TrafficClient::~TrafficClient() = default;

void TrafficClient::act()
{
    m_work->act();
}

void TrafficClient::actInEveryWay()
{
    m_work->actInEveryWay();
}

void TrafficClient::leave()
{
    m_work->leave();
}

const TrafficCount& TrafficClient::count() const
{
    return m_work->count;
}

}  // namespace support
