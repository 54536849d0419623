// Calls corvane-host over HTTP. README.md tells how it is started and what it prints.
#include <curl/curl.h>
#include <sys/random.h>

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

namespace {

using Json = nlohmann::json;

// By name; other engines' ciphers have numbers of their own, as "4".
constexpr const char* AES_256 = "aes-256";
constexpr const char* GCM = "gcm";
constexpr const char* SHA_256 = "sha-256";
const std::string message = "meet me at the usual place";

std::string setting(const char* name, const std::string& usual)
{
    const char* value = std::getenv(name);
    return value != nullptr ? value : usual;
}

// The host, the plug-in or the engine did not do it. Programs go by code and reason.
struct Refused : std::runtime_error {
    explicit Refused(const Json& error)
        : std::runtime_error("refused by " + error["source"].get<std::string>() + ": " +
                             parts(error)),
          text(error["text"])
    {
    }

    static std::string parts(const Json& error)
    {
        std::string all = error["code"];
        for (const char* name : {"reason", "field"})
            if (const auto part = error.find(name); part != error.end() && part->is_string())
                all += ", " + part->get<std::string>();
        return all;
    }

    std::string text;  // for people
};

// A connection to the host.
class Host {
public:
    Host() : m_http(curl_easy_init(), curl_easy_cleanup)
    {
        if (m_http == nullptr)
            throw std::runtime_error("curl does not start");
    }

    // The results of a request. Nothing of it is logged: it has the token, and keys.
    Json send(const std::string& request, const Json& parameters)
    {
        const std::string target = m_url + "/v1/requests/" + request;
        const std::string body = parameters.dump();
        const Headers headers = authorization();
        std::string text;
        const auto option = [this](CURLoption name, auto value) {
            curl_easy_setopt(m_http.get(), name, value);
        };
        option(CURLOPT_URL, target.c_str());
        option(CURLOPT_HTTPHEADER, headers.get());
        option(CURLOPT_POSTFIELDS, body.c_str());
        option(CURLOPT_TIMEOUT, 30L);
        option(CURLOPT_WRITEFUNCTION, append);
        option(CURLOPT_WRITEDATA, &text);
        if (const CURLcode code = curl_easy_perform(m_http.get()); code != CURLE_OK)
            throw std::runtime_error(curl_easy_strerror(code));
        const Json answer = Json::parse(text);  // a status of 4xx or 5xx has one too
        if (!answer["error"].is_null())
            throw Refused(answer["error"]);
        return answer["results"];
    }

private:
    using Headers = std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)>;

    // The token is in no argument of a program and no environment, where others could read it.
    static Headers authorization()
    {
        const std::string path =
            setting("CORVANE_TOKEN_FILE", setting("HOME", "") + "/.local/state/corvane-host/token");
        std::string token;
        if (!(std::ifstream(path) >> token))
            throw std::runtime_error("no token in " + path);
        curl_slist* first = curl_slist_append(nullptr, "Content-Type: application/json");
        return {curl_slist_append(first, ("Authorization: Bearer " + token).c_str()),
                curl_slist_free_all};
    }

    static size_t append(const char* bytes, size_t one, size_t count, void* to)
    {
        static_cast<std::string*>(to)->append(bytes, one * count);
        return one * count;
    }

    const std::string m_url = setting("CORVANE_URL", "http://127.0.0.1:8720");
    std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> m_http;
};

// The bytes of URL-safe Base64.
std::string fromBase64(const std::string& text)
{
    static const std::string digits =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
    std::string bytes;
    unsigned bits = 0;
    int count = 0;
    for (const char one : text.substr(0, text.find('='))) {
        const size_t digit = digits.find(one);
        if (digit == std::string::npos)
            throw std::runtime_error("a result is not Base64");
        bits = bits << 6 | static_cast<unsigned>(digit);
        count += 6;
        if (count >= 8) {
            count -= 8;
            bytes += static_cast<char>(bits >> count & 0xff);
        }
    }
    return bytes;
}

std::string randomHex(size_t size)
{
    std::string random(size, '\0'), hex;
    if (getrandom(random.data(), size, 0) != static_cast<ssize_t>(size))
        throw std::runtime_error("there are no random numbers");
    for (const char byte : random)
        for (const int shift : {4, 0})
            hex += "0123456789abcdef"[byte >> shift & 15];
    return hex;
}

void check(bool holds, const std::string& complaint)
{
    if (!holds)
        throw std::runtime_error(complaint);
}

void checkHmac(Host& host)
{
    const Json results =
        host.send("QZaven_crypto_hmac", {{"strHashAlg", SHA_256},
                                         {"strKey", {{"text", "Jefe"}}},
                                         {"strdata", {{"text", "what do ya want for nothing?"}}}});
    check(results["Data"] == "W9zBRr9gdU5qBCQmCJV1x1oAPwidJzmDnexYuWTsOEM=",
          "the HMAC is another one");
    std::cout << "HMAC-SHA-256: as in RFC 4231, test case 2\n";
}

// Gives the parameters of the decryption.
Json encryptAndDecrypt(Host& host)
{
    // Bytes come as URL-safe Base64, which is taken as it is where bytes are due.
    const Json key = host.send("QZaven_crypto_gen_symmkey", {{"strCipherAlg", AES_256}})["Data"];
    const Json cipher = {{"strCipherAlg", AES_256},
                         {"strMode", GCM},
                         {"strKey", key},
                         {"strIV", {{"hex", randomHex(12)}}},   // another for each message
                         {"straad", {{"text", "message 1"}}}};  // not secret; the tag protects it
    Json sealing = cipher;
    sealing["strdata"] = {{"text", message}};
    const Json sealed = host.send("QZaven_crypto_encrypt", sealing);
    std::cout << "AES-256-GCM: " << fromBase64(sealed["Data"]).size() << " bytes encrypted, "
              << fromBase64(sealed["gcmOutTag"]).size() << " bytes of tag\n";

    Json opening = cipher;
    opening["strdata"] = sealed["Data"];
    opening["strtag"] = sealed["gcmOutTag"];
    const std::string opened = fromBase64(host.send("QZaven_crypto_decrypt", opening)["Data"]);
    check(opened == message, "the decrypted message is another one");
    std::cout << "AES-256-GCM: " << opened.size() << " bytes decrypted, the same\n";
    return opening;
}

void showRefusal(Host& host, const std::string& title, const char* request, const Json& parameters)
{
    try {
        host.send(request, parameters);
    } catch (const Refused& refused) {
        std::cout << title << ": " << refused.what() << '\n';
        return;
    }
    throw std::runtime_error(title + ": was not refused");
}

}  // namespace

int main()
try {
    Host host;
    checkHmac(host);
    Json opening = encryptAndDecrypt(host);
    opening["strtag"] = {{"hex", std::string(32, '0')}};
    showRefusal(host, "a wrong tag", "QZaven_crypto_decrypt", opening);
    showRefusal(
        host, "text for bytes", "QZaven_crypto_hmac",
        {{"strHashAlg", SHA_256}, {"strKey", {{"text", "Jefe"}}}, {"strdata", "two words"}});
} catch (const Refused& refused) {
    std::cerr << "error: " << refused.what() << ": " << refused.text << '\n';
    return 1;
} catch (const std::exception& problem) {
    std::cerr << "error: " << problem.what() << '\n';
    return 1;
}
