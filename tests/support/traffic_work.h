// How a client of traffic.h draws a request and judges the answer. The kinds of requests are in
// the traffic_*.cpp beside it, family by family.
#ifndef CORVANE_TESTS_TRAFFIC_WORK_H
#define CORVANE_TESTS_TRAFFIC_WORK_H

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
#include "support/traffic.h"

namespace support {

// A recipient of public-key encryption and of envelopes, the server of a key exchange, and
// the texts in which requests name them; of one kind of key.
struct TrafficKeys {
    static constexpr char PASSWORD[] = "a password";  // of lockedText

    TrafficKeys(KeyKind keyKind, const std::string& folder)
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

struct TrafficSetting::Content {
    TemporaryFolder folder;
    TrafficKeys sm2{KeyKind::Sm2, folder.path()};
    TrafficKeys rsa{KeyKind::Rsa, folder.path()};
    mutable std::mutex keyPairs;
};

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
    using Parameters = DevkitHost::Parameters;
    using Results = DevkitHost::Results;

    static constexpr int MISSING = -20001;  // the plug-in's codes
    static constexpr int INVALID = -20084;

    static constexpr const char* KEY_PAIR_REQUESTS[] = {"QZaven_crypto_public_encrypt",
                                                        "QZaven_crypto_private_decrypt",
                                                        "QZaven_crypto_envelope_decrypt"};

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
    const TrafficKeys& keys() { return oneIn(2) ? m_setting.rsa : m_setting.sm2; }

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

    static std::string damaged(std::string bytes)
    {
        bytes.back() = static_cast<char>(bytes.back() ^ 1);
        return bytes;
    }
    static std::string number(long long value) { return std::to_string(value); }

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

    void setUpSession(const TrafficKeys& keys);
    void exchangeKeys(const TrafficKeys& keys);
    Mistakes channelMistakes() const;
    oracle::PublicKeyForm publicKeyForm(Parameters& parameters);
    std::string publicKeyData(const TrafficKeys& keys, bool oaep);
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

}  // namespace support

#endif
