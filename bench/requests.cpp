#include "requests.h"

#include <algorithm>
#include <cstdint>

#include "base64.h"
#include "host/catalogue/catalogue.h"

Pairs RequestCase::parameters(size_t payload) const
{
    Pairs all = others;
    if (hasPayload())
        all.emplace_back(payloadName, isBase64(formOf(findRequest(name), payloadName))
                                          ? url64(noise(payload))
                                          : noise(payload));
    return all;
}

const std::vector<RequestCase>& requestCases()
{
    static const std::string key16 = url64(noise(16));
    static const std::string pem = url64(noise(1200));  // no engine here reads it
    // clang-format off
    static const std::vector<RequestCase> cases = {
        {"QZaVen_GetVersion",              "", {}},
        {"QZaVen_strerror",                "", {{"strErr", "-20001"}}},
        {"QZaven_crypto_base64_encode",    "strIn", {}},
        {"QZaven_crypto_base64_Decode",    "strIn", {}},
        {"QZaven_ke_new",                  "", {}},
        {"QZaven_ke_free",                 "", {{"strKe", "1"}}},
        {"QZaven_ke_set_public_key",       "", {{"strKe", "1"}, {"strSig_key", pem}, {"strEnc_key", pem}, {"strPassword", "secret"}}},
        {"QZaven_ke_set_certificate",      "", {{"strKe", "1"}, {"strSig_cert", pem}, {"strEnc_cert", pem}, {"strPassword", "secret"}}},
        {"QZaven_ke_set_root_certificate", "", {{"strKe", "1"}, {"strCa_file", "/etc/roots.pem"}, {"strCa_path", "/etc"}}},
        {"QZaven_ke_client_hello",         "", {{"strKe", "1"}}},
        {"QZaven_ke_client_key_exchange",  "", {{"strKe", "1"}, {"strSrvr_rand", key16}, {"strSrvr_sig_cert", pem}, {"strSrvr_enc_cert", pem}, {"strSrvr_sign", key16}}},
        {"QZaven_ke_encrypt",              "strdata", {{"strKe", "1"}}},
        {"QZaven_ke_decrypt",              "strcipher", {{"strKe", "1"}}},
        {"QZaven_ke_hmac",                 "strdata", {{"strKe", "1"}}},
        {"QZaven_ke_cmac",                 "strdata", {{"strKe", "1"}}},
        {"QZaven_crypto_public_encrypt",   "strdata", {{"strKeyPairType", "1"}, {"strpk", pem}, {"strnoAsn1", "1"}}},
        {"QZaven_crypto_private_decrypt",  "strdata", {{"strKeyPairType", "1"}, {"strsk", pem}, {"strPassword", "secret"}}},
        {"QZaven_crypto_encrypt",          "strdata", {{"strCipherAlg", "2"}, {"strMode", "2"}, {"strCipherPadding", "1"}, {"strKey", key16}, {"strIV", key16}}},
        {"QZaven_crypto_decrypt",          "strdata", {{"strCipherAlg", "2"}, {"strMode", "2"}, {"strCipherPadding", "1"}, {"strKey", key16}, {"strIV", key16}}},
        {"QZaven_crypto_gen_symmkey",      "", {{"strCipherAlg", "4"}}},
        {"QZaven_crypto_hmac",             "strdata", {{"strHashAlg", "4"}, {"strKey", key16}}},
        {"QZaven_crypto_cmac",             "strdata", {{"strCipherAlg", "2"}, {"strKey", key16}}},
        {"QZaven_crypto_kdf",              "srcdata", {{"HashType", "4"}, {"OutLen", "32"}}},
        {"QZaven_crypto_envelope_encrypt", "strdata", {{"strpk", pem}, {"strCipherAlg", "2"}, {"strMode", "2"}}},
        {"QZaven_crypto_envelope_decrypt", "strEncdata", {{"strKeyPairType", "1"}, {"strsk", pem}, {"strCipherAlg", "2"}, {"strMode", "2"}}},
        {"QZaven_wbsm4_encrypt",           "strdata", {{"strKey", key16}, {"strIV", key16}}},
        {"QZaven_wbsm4_decrypt",           "strdata", {{"strKey", key16}, {"strIV", key16}}},
    };
    // clang-format on
    return cases;
}

const RequestCase& encryption()
{
    const auto& cases = requestCases();
    return *std::find_if(cases.begin(), cases.end(), [](const RequestCase& request) {
        return request.name == "QZaven_crypto_encrypt";
    });
}

// The top bytes of a linear congruential sequence (Knuth's constants).
std::string noise(size_t size)
{
    std::string bytes(size, '\0');
    uint64_t state = 1;
    for (char& byte : bytes) {
        state = state * 6364136223846793005u + 1442695040888963407u;
        byte = static_cast<char>(state >> 56);
    }
    return bytes;
}

std::string url64(const std::string& bytes)
{
    std::string text = base64_encode(reinterpret_cast<const unsigned char*>(bytes.data()),
                                     static_cast<unsigned int>(bytes.length()));
    std::replace(text.begin(), text.end(), '+', '-');
    std::replace(text.begin(), text.end(), '/', '_');
    return text;
}
