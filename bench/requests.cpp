#include "requests.h"

#include <algorithm>
#include <cstdint>

#include "base64.h"

Pairs RequestCase::parameters(size_t payload) const
{
    Pairs all = others;
    if (form != Payload::None)
        all.emplace_back(payloadName,
                         form == Payload::AsIs ? noise(payload) : url64(noise(payload)));
    return all;
}

const std::vector<RequestCase>& requestCases()
{
    static const std::string key16 = url64(noise(16));
    static const std::string pem = url64(noise(1200));  // no engine here reads it
    // clang-format off
    static const std::vector<RequestCase> cases = {
        {"QZaVen_GetVersion",              Payload::None,   "", {}},
        {"QZaVen_strerror",                Payload::None,   "", {{"strErr", "-20001"}}},
        {"QZaven_crypto_base64_encode",    Payload::AsIs,   "strIn", {}},
        {"QZaven_crypto_base64_Decode",    Payload::Base64, "strIn", {}},
        {"QZaven_ke_new",                  Payload::None,   "", {}},
        {"QZaven_ke_free",                 Payload::None,   "", {{"strKe", "1"}}},
        {"QZaven_ke_set_public_key",       Payload::None,   "", {{"strKe", "1"}, {"strSig_key", pem}, {"strEnc_key", pem}, {"strPassword", "secret"}}},
        {"QZaven_ke_set_certificate",      Payload::None,   "", {{"strKe", "1"}, {"strSig_cert", pem}, {"strEnc_cert", pem}, {"strPassword", "secret"}}},
        {"QZaven_ke_set_root_certificate", Payload::None,   "", {{"strKe", "1"}, {"strCa_file", "/etc/roots.pem"}, {"strCa_path", "/etc"}}},
        {"QZaven_ke_client_hello",         Payload::None,   "", {{"strKe", "1"}}},
        {"QZaven_ke_client_key_exchange",  Payload::None,   "", {{"strKe", "1"}, {"strSrvr_rand", key16}, {"strSrvr_sig_cert", pem}, {"strSrvr_enc_cert", pem}, {"strSrvr_sign", key16}}},
        {"QZaven_ke_encrypt",              Payload::Base64, "strdata", {{"strKe", "1"}}},
        {"QZaven_ke_decrypt",              Payload::Base64, "strcipher", {{"strKe", "1"}}},
        {"QZaven_ke_hmac",                 Payload::Base64, "strdata", {{"strKe", "1"}}},
        {"QZaven_ke_cmac",                 Payload::Base64, "strdata", {{"strKe", "1"}}},
        {"QZaven_crypto_public_encrypt",   Payload::Base64, "strdata", {{"strKeyPairType", "1"}, {"strpk", pem}, {"strnoAsn1", "1"}}},
        {"QZaven_crypto_private_decrypt",  Payload::Base64, "strdata", {{"strKeyPairType", "1"}, {"strsk", pem}, {"strPassword", "secret"}}},
        {"QZaven_crypto_encrypt",          Payload::Base64, "strdata", {{"strCipherAlg", "2"}, {"strMode", "2"}, {"strCipherPadding", "1"}, {"strKey", key16}, {"strIV", key16}}},
        {"QZaven_crypto_decrypt",          Payload::Base64, "strdata", {{"strCipherAlg", "2"}, {"strMode", "2"}, {"strCipherPadding", "1"}, {"strKey", key16}, {"strIV", key16}}},
        {"QZaven_crypto_gen_symmkey",      Payload::None,   "", {{"strCipherAlg", "4"}}},
        {"QZaven_crypto_hmac",             Payload::Base64, "strdata", {{"strHashAlg", "4"}, {"strKey", key16}}},
        {"QZaven_crypto_cmac",             Payload::Base64, "strdata", {{"strCipherAlg", "2"}, {"strKey", key16}}},
        {"QZaven_crypto_kdf",              Payload::AsIs,   "srcdata", {{"HashType", "4"}, {"OutLen", "32"}}},
        {"QZaven_crypto_envelope_encrypt", Payload::AsIs,   "strdata", {{"strpk", pem}, {"strCipherAlg", "2"}, {"strMode", "2"}}},
        {"QZaven_crypto_envelope_decrypt", Payload::Base64, "strEncdata", {{"strKeyPairType", "1"}, {"strsk", pem}, {"strCipherAlg", "2"}, {"strMode", "2"}}},
        {"QZaven_wbsm4_encrypt",           Payload::Base64, "strdata", {{"strKey", key16}, {"strIV", key16}}},
        {"QZaven_wbsm4_decrypt",           Payload::Base64, "strdata", {{"strKey", key16}, {"strIV", key16}}},
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
