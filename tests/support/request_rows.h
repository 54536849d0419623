// What each request is called, and what it does by itself: the tests' own list, which holds the
// plug-in's and the catalogue's.
#ifndef CORVANE_TESTS_REQUEST_ROWS_H
#define CORVANE_TESTS_REQUEST_ROWS_H

#include <string>
#include <utility>
#include <vector>

namespace support {

// What a request does when the host has stored no parameters: which it asks for, and
// what it answers. No two requests that read the same answer from the same function.
inline const struct RequestRow {
    const char* name;
    std::vector<std::string> read;
    std::vector<std::pair<std::string, std::string>> results;
    const char* engineCall;  // made even so
} requestRows[] = {
    {"QZaVen_GetVersion", {}, {{"Data", "engine double 1.0"}, {"errorCode", "0"}}, "aven_version"},
    {"QZaVen_strerror", {"strErr"}, {{"Data", ""}}, nullptr},
    {"QZaven_crypto_base64_encode", {"strIn"}, {{"Data", ""}, {"errorCode", "-20001"}}, nullptr},
    {"QZaven_crypto_base64_Decode", {"strIn"}, {{"Data", ""}, {"errorCode", "-20001"}}, nullptr},
    {"QZaven_ke_new", {}, {{"Data", "1582628864"}, {"errorCode", "0"}}, "aven_ke_new"},
    {"QZaven_ke_free", {"strKe"}, {{"errorCode", "-20001"}}, nullptr},
    {"QZaven_ke_set_public_key",
     {"strKe", "strSig_key", "strEnc_key", "strPassword"},
     {{"errorCode", "-20001"}},
     nullptr},
    {"QZaven_ke_set_certificate",
     {"strKe", "strSig_cert", "strEnc_cert", "strPassword"},
     {{"errorCode", "-20001"}},
     nullptr},
    {"QZaven_ke_set_root_certificate",
     {"strKe", "strCa_file", "strCa_path"},
     {{"errorCode", "-20001"}},
     nullptr},
    {"QZaven_ke_client_hello", {"strKe"}, {{"Data", ""}, {"errorCode", "-20001"}}, nullptr},
    {"QZaven_ke_client_key_exchange",
     {"strKe", "strSrvr_rand", "strSrvr_sig_cert", "strSrvr_enc_cert", "strSrvr_sign"},
     {{"Data", ""}, {"errorCode", "-20001"}},
     nullptr},
    {"QZaven_ke_encrypt", {"strKe", "strdata"}, {{"Data", ""}, {"errorCode", "-20001"}}, nullptr},
    {"QZaven_ke_decrypt", {"strKe", "strcipher"}, {{"Data", ""}, {"errorCode", "-20001"}}, nullptr},
    {"QZaven_ke_hmac", {"strKe", "strdata"}, {{"Data", ""}, {"errorCode", "-20001"}}, nullptr},
    {"QZaven_ke_cmac", {"strKe", "strdata"}, {{"Data", ""}, {"errorCode", "-20001"}}, nullptr},
    {"QZaven_crypto_public_encrypt",
     {"strKeyPairType", "strpk", "strRsaPaddingE", "strnoAsn1", "strnoc1c3c2", "strdata"},
     {{"Data", ""}, {"errorCode", "-20001"}},
     nullptr},
    {"QZaven_crypto_private_decrypt",
     {"strKeyPairType", "strsk", "strPassword", "strRsaPaddingE", "strnoAsn1", "strnoc1c3c2",
      "strdata"},
     {{"Data", ""}, {"errorCode", "-20001"}},
     nullptr},
    {"QZaven_crypto_encrypt",
     {"strCipherAlg", "strMode", "strCipherPadding", "strKey", "strIV", "straad", "strdata",
      "strgcmTagLen"},
     {{"Data", ""}, {"errorCode", "-20001"}, {"gcmOutTag", ""}},
     nullptr},
    {"QZaven_crypto_decrypt",
     {"strCipherAlg", "strMode", "strCipherPadding", "strKey", "strIV", "straad", "strtag",
      "strdata"},
     {{"Data", ""}, {"errorCode", "-20001"}},
     nullptr},
    {"QZaven_crypto_gen_symmkey",
     {"strCipherAlg"},
     {{"Data", ""}, {"errorCode", "-20001"}},
     nullptr},
    {"QZaven_crypto_hmac",
     {"strHashAlg", "strKey", "strdata"},
     {{"Data", ""}, {"errorCode", "-20001"}},
     nullptr},
    {"QZaven_crypto_cmac",
     {"strCipherAlg", "strKey", "strdata"},
     {{"Data", ""}, {"errorCode", "-20001"}},
     nullptr},
    {"QZaven_crypto_kdf",
     {"HashType", "srcdata", "OutLen"},
     {{"Data", ""}, {"errorCode", "-20001"}},
     nullptr},
    {"QZaven_crypto_envelope_encrypt",
     {"strdata", "strpk", "strCipherAlg", "strMode"},
     {{"Data", ""}, {"errorCode", "-20001"}},
     "aven_certificate_free"},
    {"QZaven_crypto_envelope_decrypt",
     {"strEncdata", "strKeyPairType", "strsk", "strCipherAlg", "strMode"},
     {{"Data", ""}, {"errorCode", "-20001"}},
     "aven_keypair_free"},
    {"QZaven_wbsm4_encrypt",
     {"strKey", "strIV", "strdata"},
     {{"Data", ""}, {"errorCode", "-20001"}},
     nullptr},
    {"QZaven_wbsm4_decrypt",
     {"strKey", "strIV", "strdata"},
     {{"Data", ""}, {"errorCode", "-20001"}},
     nullptr},
};

}  // namespace support

#endif
