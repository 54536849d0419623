// The requests, each with what of its parameters and of its output is secret.
#ifndef CORVANE_TESTS_SECRETS_REQUESTS_H
#define CORVANE_TESTS_SECRETS_REQUESTS_H

#include <vector>

namespace secrets {

enum class Form {
    Public,        // `value` as it stands
    PublicBase64,  // other bytes, as many as the secrets have
    Length,        // how many bytes the secrets have
    Secret,        // the secret `value`, as it stands
    SecretBase64,  // in Base64 with the URL alphabet
};

struct Parameter {
    const char* name;
    Form form;
    const char* value;
};

// What the engine gives.
enum class Output {
    Public,
    Secret,      // the secret "output"
    DataBase64,  // the secret "data" in Base64 with the standard alphabet
};

struct Request {
    const char* label;
    const char* name;
    std::vector<Parameter> parameters;
    Output output;
};

// Names of secrets. The key's size is the white box's, all others have the scenario's.
constexpr char KEY[] = "key";
constexpr char LONG_KEY[] = "long key";
constexpr char OTHER_KEY[] = "other key";
constexpr char PASSWORD[] = "password";
constexpr char DATA[] = "data";
constexpr char OUTPUT[] = "output";

inline const Request requests[] = {
    {"version", "QZaVen_GetVersion", {}, Output::Public},
    {"error text", "QZaVen_strerror", {{"strErr", Form::Public, "7"}}, Output::Public},
    {"Base64 encoding",
     "QZaven_crypto_base64_encode",
     {{"strIn", Form::Secret, DATA}},
     Output::DataBase64},
    {"Base64 decoding",
     "QZaven_crypto_base64_Decode",
     {{"strIn", Form::SecretBase64, DATA}},
     Output::Secret},
    {"session, begun", "QZaven_ke_new", {}, Output::Public},
    {"session, ended", "QZaven_ke_free", {{"strKe", Form::Public, "4096"}}, Output::Public},
    {"session's key pairs",
     "QZaven_ke_set_public_key",
     {{"strKe", Form::Public, "4096"},
      {"strSig_key", Form::SecretBase64, LONG_KEY},
      {"strEnc_key", Form::SecretBase64, OTHER_KEY},
      {"strPassword", Form::Secret, PASSWORD}},
     Output::Public},
    {"session's certificates",
     "QZaven_ke_set_certificate",
     {{"strKe", Form::Public, "4096"},
      {"strSig_cert", Form::PublicBase64, ""},
      {"strEnc_cert", Form::PublicBase64, ""},
      {"strPassword", Form::Secret, PASSWORD}},
     Output::Public},
    {"session's root",
     "QZaven_ke_set_root_certificate",
     {{"strKe", Form::Public, "4096"},
      {"strCa_file", Form::Public, "root.pem"},
      {"strCa_path", Form::Public, "roots"}},
     Output::Public},
    {"client hello", "QZaven_ke_client_hello", {{"strKe", Form::Public, "4096"}}, Output::Public},
    {"client key exchange",
     "QZaven_ke_client_key_exchange",
     {{"strKe", Form::Public, "4096"},
      {"strSrvr_rand", Form::PublicBase64, ""},
      {"strSrvr_sig_cert", Form::PublicBase64, ""},
      {"strSrvr_enc_cert", Form::PublicBase64, ""},
      {"strSrvr_sign", Form::PublicBase64, ""}},
     Output::Public},
    {"channel encryption",
     "QZaven_ke_encrypt",
     {{"strKe", Form::Public, "4096"}, {"strdata", Form::SecretBase64, DATA}},
     Output::Public},
    {"channel decryption",
     "QZaven_ke_decrypt",
     {{"strKe", Form::Public, "4096"}, {"strcipher", Form::PublicBase64, ""}},
     Output::Secret},
    {"channel HMAC",
     "QZaven_ke_hmac",
     {{"strKe", Form::Public, "4096"}, {"strdata", Form::SecretBase64, DATA}},
     Output::Public},
    {"channel CMAC",
     "QZaven_ke_cmac",
     {{"strKe", Form::Public, "4096"}, {"strdata", Form::SecretBase64, DATA}},
     Output::Public},
    {"public encryption",
     "QZaven_crypto_public_encrypt",
     {{"strpk", Form::PublicBase64, ""},
      {"strKeyPairType", Form::Public, "1"},
      {"strRsaPaddingE", Form::Public, "1"},
      {"strnoAsn1", Form::Public, "0"},
      {"strnoc1c3c2", Form::Public, "1"},
      {"strdata", Form::SecretBase64, DATA}},
     Output::Public},
    {"private decryption",
     "QZaven_crypto_private_decrypt",
     {{"strsk", Form::SecretBase64, LONG_KEY},
      {"strPassword", Form::Secret, PASSWORD},
      {"strKeyPairType", Form::Public, "3"},
      {"strRsaPaddingE", Form::Public, "1"},
      {"strnoAsn1", Form::Public, "0"},
      {"strnoc1c3c2", Form::Public, "1"},
      {"strdata", Form::PublicBase64, ""}},
     Output::Secret},
    {"encryption, ECB",
     "QZaven_crypto_encrypt",
     {{"strCipherAlg", Form::Public, "1"},
      {"strMode", Form::Public, "1"},
      {"strCipherPadding", Form::Public, "1"},
      {"strKey", Form::SecretBase64, KEY},
      {"strdata", Form::SecretBase64, DATA}},
     Output::Public},
    {"encryption, GCM",
     "QZaven_crypto_encrypt",
     {{"strCipherAlg", Form::Public, "1"},
      {"strMode", Form::Public, "6"},
      {"strKey", Form::SecretBase64, KEY},
      {"strIV", Form::PublicBase64, ""},
      {"straad", Form::PublicBase64, ""},
      {"strgcmTagLen", Form::Public, "12"},
      {"strdata", Form::SecretBase64, DATA}},
     Output::Public},
    {"decryption, CBC",
     "QZaven_crypto_decrypt",
     {{"strCipherAlg", Form::Public, "2"},
      {"strMode", Form::Public, "2"},
      {"strCipherPadding", Form::Public, "1"},
      {"strKey", Form::SecretBase64, KEY},
      {"strIV", Form::PublicBase64, ""},
      {"strdata", Form::PublicBase64, ""}},
     Output::Secret},
    {"decryption, GCM",
     "QZaven_crypto_decrypt",
     {{"strCipherAlg", Form::Public, "1"},
      {"strMode", Form::Public, "6"},
      {"strKey", Form::SecretBase64, KEY},
      {"strIV", Form::PublicBase64, ""},
      {"straad", Form::PublicBase64, ""},
      {"strtag", Form::PublicBase64, ""},
      {"strdata", Form::PublicBase64, ""}},
     Output::Secret},
    {"key generation",
     "QZaven_crypto_gen_symmkey",
     {{"strCipherAlg", Form::Public, "1"}},
     Output::Secret},
    {"HMAC",
     "QZaven_crypto_hmac",
     {{"strHashAlg", Form::Public, "1"},
      {"strKey", Form::SecretBase64, LONG_KEY},
      {"strdata", Form::SecretBase64, DATA}},
     Output::Public},
    {"CMAC",
     "QZaven_crypto_cmac",
     {{"strCipherAlg", Form::Public, "1"},
      {"strKey", Form::SecretBase64, KEY},
      {"strdata", Form::SecretBase64, DATA}},
     Output::Public},
    {"key derivation",
     "QZaven_crypto_kdf",
     {{"HashType", Form::Public, "1"},
      {"srcdata", Form::Secret, DATA},
      {"OutLen", Form::Length, ""}},
     Output::Secret},
    {"envelope, sealed",
     "QZaven_crypto_envelope_encrypt",
     {{"strdata", Form::Secret, DATA},
      {"strpk", Form::PublicBase64, ""},
      {"strCipherAlg", Form::Public, "1"},
      {"strMode", Form::Public, "2"}},
     Output::Public},
    {"envelope, opened",
     "QZaven_crypto_envelope_decrypt",
     {{"strEncdata", Form::PublicBase64, ""},
      {"strKeyPairType", Form::Public, "1"},
      {"strsk", Form::SecretBase64, LONG_KEY},
      {"strCipherAlg", Form::Public, "1"},
      {"strMode", Form::Public, "2"}},
     Output::Secret},
    {"white-box encryption",
     "QZaven_wbsm4_encrypt",
     {{"strKey", Form::SecretBase64, KEY},
      {"strIV", Form::Public, "MDEyMzQ1Njc4OWFiY2RlZg=="},
      {"strdata", Form::SecretBase64, DATA}},
     Output::Public},
    {"white-box decryption",
     "QZaven_wbsm4_decrypt",
     {{"strKey", Form::SecretBase64, KEY},
      {"strIV", Form::Public, "MDEyMzQ1Njc4OWFiY2RlZg=="},
      {"strdata", Form::PublicBase64, ""}},
     Output::Secret},
};

}  // namespace secrets

#endif
