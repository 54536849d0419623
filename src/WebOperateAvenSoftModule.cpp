#include "WebOperateAvenSoftModule.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <string_view>
#include <utility>

#include "base64.h"
#include "base64_kernels.h"
#include "engine_binding_text.h"
#include "engine_interface.h"
#include "secret_text.h"

namespace {

struct RequestRow {
    std::string_view name;
    void (CWebOperateAvenSoftModule::*handler)();
};

// The requests; a row's place is its function ID.
constexpr RequestRow requests[] = {
    {"QZaVen_GetVersion", &CWebOperateAvenSoftModule::makeaVen_GetVersion},
    {"QZaVen_strerror", &CWebOperateAvenSoftModule::makeaVen_strerror},
    {"QZaven_crypto_base64_encode", &CWebOperateAvenSoftModule::makeaven_crypto_base64_encode},
    {"QZaven_crypto_base64_Decode", &CWebOperateAvenSoftModule::makeaven_crypto_base64_Decode},
    {"QZaven_ke_new", &CWebOperateAvenSoftModule::makeaven_ke_new},
    {"QZaven_ke_free", &CWebOperateAvenSoftModule::makeaven_ke_free},
    {"QZaven_ke_set_public_key", &CWebOperateAvenSoftModule::makeaven_ke_set_public_key},
    {"QZaven_ke_set_certificate", &CWebOperateAvenSoftModule::makeaven_ke_set_certificate},
    {"QZaven_ke_set_root_certificate",
     &CWebOperateAvenSoftModule::makeaven_ke_set_root_certificate},
    {"QZaven_ke_client_hello", &CWebOperateAvenSoftModule::makeaven_ke_client_hello},
    {"QZaven_ke_client_key_exchange", &CWebOperateAvenSoftModule::makeaven_ke_client_key_exchange},
    {"QZaven_ke_encrypt", &CWebOperateAvenSoftModule::makeaven_ke_encrypt},
    {"QZaven_ke_decrypt", &CWebOperateAvenSoftModule::makeaven_ke_decrypt},
    {"QZaven_ke_hmac", &CWebOperateAvenSoftModule::makeaven_ke_hmac},
    {"QZaven_ke_cmac", &CWebOperateAvenSoftModule::makeaven_ke_cmac},
    {"QZaven_crypto_public_encrypt", &CWebOperateAvenSoftModule::makeaven_crypto_public_encrypt},
    {"QZaven_crypto_private_decrypt", &CWebOperateAvenSoftModule::makeaven_crypto_private_decrypt},
    {"QZaven_crypto_encrypt", &CWebOperateAvenSoftModule::makeaven_crypto_encrypt},
    {"QZaven_crypto_decrypt", &CWebOperateAvenSoftModule::makeaven_crypto_decrypt},
    {"QZaven_crypto_gen_symmkey", &CWebOperateAvenSoftModule::makeaven_crypto_gen_symmkey},
    {"QZaven_crypto_hmac", &CWebOperateAvenSoftModule::makeaven_crypto_hmac},
    {"QZaven_crypto_cmac", &CWebOperateAvenSoftModule::makeaven_crypto_cmac},
    {"QZaven_crypto_kdf", &CWebOperateAvenSoftModule::makeaven_crypto_kdf},
    {"QZaven_crypto_envelope_encrypt",
     &CWebOperateAvenSoftModule::makeaven_crypto_envelope_encrypt},
    {"QZaven_crypto_envelope_decrypt",
     &CWebOperateAvenSoftModule::makeaven_crypto_envelope_decrypt},
    {"QZaven_wbsm4_encrypt", &CWebOperateAvenSoftModule::makeaven_wbsm4_encrypt},
    {"QZaven_wbsm4_decrypt", &CWebOperateAvenSoftModule::makeaven_wbsm4_decrypt},
};
static_assert(std::size(requests) == 27);

// The values that requests take.
constexpr int CIPHER_ALGS = 7;  // symmetric algorithms are numbered from 1
constexpr int HASH_ALGS = 6;
constexpr std::string_view MODES = "123456";
constexpr std::string_view FLAGS = "01";
constexpr std::string_view KEY_PAIR_TYPES = "13";

// Fails the request unless `ok`: the handler's catch-all takes over, with the code as it
// stands or, if one is given, with `value`.
void require(bool ok)
{
    if (!ok)
        throw "";
}

void require(bool ok, int& code, int value)
{
    if (!ok)
        code = value;
    require(ok);
}

template <class... Texts>
bool present(const Texts&... texts)
{
    return (!texts.empty() && ...);
}

// An engine call that fails leaves its output empty, and a text that is empty stays so in Base64
// and escaped: what comes of a call is converted and told whatever the code. This is for those
// calls behind which something else depends on it; success without any bytes is a failure too, with
// code 0.
void requireOutput(int code, const std::string& out)
{
    require(code == 0 && present(out));
}

bool inRange(int value, int low, int high)
{
    return low <= value && value <= high;
}

// A number that must be the whole text and one of the digits: no blank, no sign, no
// leading zero, no zero byte behind it.
bool digitIn(const std::string& text, std::string_view digits, int32_t& value)
{
    if (text.length() != 1 || digits.find(text[0]) == digits.npos)
        return false;
    value = text[0] - '0';
    return true;
}

// The same for an optional number; an empty text leaves `value` as it is.
bool optionalDigitIn(const std::string& text, std::string_view digits, int32_t& value)
{
    return text.empty() || digitIn(text, digits, value);
}

// URL-safe to standard Base64 in place, for a callee to take over; text in the standard alphabet
// stays as it is.
std::string&& toStandardAlphabet(std::string& text)
{
    base64Kernel->replace(text.data(), text.length(), '-', '+');
    base64Kernel->replace(text.data(), text.length(), '_', '/');
    return std::move(text);
}

void toUrlAlphabet(std::string& text)
{
    base64Kernel->replace(text.data(), text.length(), '+', '-');
    base64Kernel->replace(text.data(), text.length(), '/', '_');
}

std::string toUrlBase64(const std::string& data)
{
    return base64_encode_url(bytes(data), data.length());
}

// The algorithm and mode of an engine block, checked in this order.
template <class Block>
void checkAlgAndMode(const std::string& alg, const std::string& mode, Block& block, int& code)
{
    block.alg = atoi(alg.c_str());
    require(inRange(block.alg, 1, CIPHER_ALGS), code, PARAM_INVALID);
    require(digitIn(mode, MODES, block.mode), code, PARAM_INVALID);
}

// The key of a public-key request: private with its password, or public.
struct KeyTexts {
    SecretText sk, pk, password;
};

// What the two symmetric cipher requests have in common. The block points into the texts,
// so a request stays where it was made.
struct CipherRequest {
    CipherRequest() = default;
    CipherRequest(const CipherRequest&) = delete;
    CipherRequest& operator=(const CipherRequest&) = delete;

    SecretText alg = CWebServerBase::param("strCipherAlg");
    SecretText mode = CWebServerBase::param("strMode");
    SecretText padding = CWebServerBase::param("strCipherPadding");
    // Base64 texts, then their bytes
    SecretText key = CWebServerBase::param("strKey");
    SecretText iv = CWebServerBase::param("strIV");
    SecretText aad = CWebServerBase::param("straad");
    SymmCipherParams block = {};
};

// Checks all but the parameters of GCM, and fills the block.
void checkCipherRequest(CipherRequest& cipher, const std::string& data, int& code)
{
    SymmCipherParams& block = cipher.block;

    require(present(cipher.alg, cipher.mode, cipher.key, data), code, PARAM_MISSING);
    base64_decode_url(cipher.key);
    block.key = bytes(cipher.key);
    block.key_len = size32(cipher.key);
    checkAlgAndMode(cipher.alg, cipher.mode, block, code);
    require(optionalDigitIn(cipher.padding, FLAGS, block.padding), code, PARAM_INVALID);
    if (block.mode == AVEN_MODE_WITHOUT_IV)
        return;
    require(present(cipher.iv), code, PARAM_MISSING);
    base64_decode_url(cipher.iv);
    block.iv = bytes(cipher.iv);
    block.iv_len = size32(cipher.iv);
}

void decodeAad(CipherRequest& cipher)
{
    base64_decode_url(cipher.aad);
    cipher.block.aad = bytes(cipher.aad);
    cipher.block.aad_len = size32(cipher.aad);
}

}  // namespace

CWebOperateAvenSoftModule::CWebOperateAvenSoftModule() : m_functionID(-1) {}

CWebOperateAvenSoftModule::~CWebOperateAvenSoftModule() = default;

// The list of names is made for each call. It is one of views, so that it needs no memory.
int CWebOperateAvenSoftModule::GetFunctionID(std::string name)
{
    std::array<std::string_view, std::size(requests)> names;
    std::transform(std::begin(requests), std::end(requests), names.begin(),
                   [](const RequestRow& request) { return request.name; });

    const auto found = std::find(names.begin(), names.end(), name);
    return found == names.end() ? -1 : static_cast<int>(found - names.begin());
}

void CWebOperateAvenSoftModule::SetFunctionID(int id)
{
    m_functionID = id;
}

std::string CWebOperateAvenSoftModule::Request()
{
    ClearRetParamsMap(1);
    if (static_cast<size_t>(m_functionID) < std::size(requests)) {
        const RequestRow& request = requests[m_functionID];
        (this->*request.handler)();
    }
    return ReturnRequest();
}

void CWebOperateAvenSoftModule::reply(std::string& data, int code)
{
    addResult("Data", data);
    replyCode(code);
}

void CWebOperateAvenSoftModule::replyCode(int code)
{
    std::string text = GetStrErrorForInt(code);
    addResult("errorCode", text);
}

// The handlers. All that may fail stands in the `try`; a failure leaves its code and what
// there is of the output behind. The results are written after it, at one place and once,
// and an engine object is freed once, whichever way the `try` ended.

void CWebOperateAvenSoftModule::makeaVen_GetVersion()
{
    int code = 0;
    std::string out;

    try {
        out = m_softMoudleAven.aven_version();
        // 0 if the engine is loaded but has no version text.
        require(present(out), code, m_softMoudleAven.get_ErrorCode());
    } catch (...) {
        out.clear();
    }
    reply(out, code);
}

// Answers with "Data" alone, whatever happens: the text is an explanation of a code, not
// an outcome of its own.
void CWebOperateAvenSoftModule::makeaVen_strerror()
{
    std::string text;

    try {
        SecretText error = param("strErr");
        require(present(error));
        text = m_softMoudleAven.aven_strerror(std::move(error));
    } catch (...) {
        text.clear();
    }
    addResult("Data", text);
}

void CWebOperateAvenSoftModule::makeaven_crypto_base64_encode()
{
    int code = 0;
    SecretText out;

    try {
        SecretText in = param("strIn");
        require(present(in), code, PARAM_MISSING);
        code = m_softMoudleAven.aven_crypto_base64_encode(true, std::move(in), out);
        toUrlAlphabet(out);
    } catch (...) {  // there is no output yet
    }
    reply(out, code);
}

// Escapes its output, which may be any bytes; the encoding twin has no need to.
void CWebOperateAvenSoftModule::makeaven_crypto_base64_Decode()
{
    int code = 0;
    SecretText out;

    try {
        SecretText in = param("strIn");
        require(present(in), code, PARAM_MISSING);
        code = m_softMoudleAven.aven_crypto_base64_encode(false, toStandardAlphabet(in), out);
        out = JsonUrlEncode(std::move(out));
    } catch (...) {
        out.clear();
    }
    reply(out, code);
}

void CWebOperateAvenSoftModule::makeaven_ke_new()
{
    std::string ke;
    const int code = m_softMoudleAven.aven_ke_new(ke);
    reply(ke, code);
}

void CWebOperateAvenSoftModule::makeaven_ke_free()
{
    int code = 0;

    try {
        SecretText ke = param("strKe");
        require(present(ke), code, PARAM_MISSING);
        code = m_softMoudleAven.aven_ke_free(std::move(ke));
    } catch (...) {  // the code tells it
    }
    replyCode(code);
}

void CWebOperateAvenSoftModule::makeaven_ke_set_public_key()
{
    setSessionKeys("strSig_key", "strEnc_key", &CSoftMoudle_aven::aven_ke_set_public_key);
}

void CWebOperateAvenSoftModule::makeaven_ke_set_certificate()
{
    setSessionKeys("strSig_cert", "strEnc_cert", &CSoftMoudle_aven::aven_ke_set_certificate);
}

// Keys and certificates reach the engine as Base64 text, not decoded.
void CWebOperateAvenSoftModule::setSessionKeys(const char* sigName, const char* encName,
                                               SessionKeySetter set)
{
    int code = 0;

    try {
        SecretText ke = param("strKe");
        SecretText sig = param(sigName);
        SecretText enc = param(encName);
        SecretText password = param("strPassword");

        require(present(ke), code, PARAM_MISSING);
        code = (m_softMoudleAven.*set)(std::move(ke), toStandardAlphabet(sig),
                                       toStandardAlphabet(enc), std::move(password));
    } catch (...) {  // the code tells it
    }
    replyCode(code);
}

void CWebOperateAvenSoftModule::makeaven_ke_set_root_certificate()
{
    int code = 0;

    try {
        SecretText ke = param("strKe");
        SecretText caFile = param("strCa_file");
        SecretText caPath = param("strCa_path");

        require(present(ke, caFile), code, PARAM_MISSING);
        UTF8ToMulti(caFile, caFile);  // leaves the name as it is
        code = m_softMoudleAven.aven_ke_set_root_certificate(std::move(ke), std::move(caFile),
                                                             std::move(caPath));
    } catch (...) {  // the code tells it
    }
    replyCode(code);
}

void CWebOperateAvenSoftModule::makeaven_ke_client_hello()
{
    int code = 0;
    std::string out;

    try {
        SecretText ke = param("strKe");
        require(present(ke), code, PARAM_MISSING);
        code = m_softMoudleAven.aven_ke_client_hello(std::move(ke), out);
        out = toUrlBase64(out);
    } catch (...) {
        out.clear();
    }
    reply(out, code);
}

void CWebOperateAvenSoftModule::makeaven_ke_client_key_exchange()
{
    int code = 0;
    std::string out;

    try {
        SecretText ke = param("strKe");
        SecretText random = param("strSrvr_rand");
        SecretText sigCert = param("strSrvr_sig_cert");
        SecretText encCert = param("strSrvr_enc_cert");
        SecretText signature = param("strSrvr_sign");

        require(present(ke), code, PARAM_MISSING);
        base64_decode_url(random);
        base64_decode_url(sigCert);
        base64_decode_url(encCert);
        base64_decode_url(signature);
        code = m_softMoudleAven.aven_ke_client_key_exchange(std::move(ke), std::move(random),
                                                            std::move(sigCert), std::move(encCert),
                                                            std::move(signature), out);
        out = toUrlBase64(out);
    } catch (...) {
        out.clear();
    }
    reply(out, code);
}

void CWebOperateAvenSoftModule::makeaven_ke_encrypt()
{
    useChannel("strdata", &CSoftMoudle_aven::aven_ke_encrypt);
}

void CWebOperateAvenSoftModule::makeaven_ke_decrypt()
{
    useChannel("strcipher", &CSoftMoudle_aven::aven_ke_decrypt);
}

void CWebOperateAvenSoftModule::makeaven_ke_hmac()
{
    useChannel("strdata", &CSoftMoudle_aven::aven_ke_hmac);
}

void CWebOperateAvenSoftModule::makeaven_ke_cmac()
{
    useChannel("strdata", &CSoftMoudle_aven::aven_ke_cmac);
}

// No data counts as zero bytes.
void CWebOperateAvenSoftModule::useChannel(const char* dataName, ChannelOperation operation)
{
    int code = 0;
    SecretText out;

    try {
        SecretText ke = param("strKe");
        SecretText data = param(dataName);

        require(present(ke), code, PARAM_MISSING);
        base64_decode_url(data);
        code = (m_softMoudleAven.*operation)(std::move(ke), std::move(data), out);
        out = toUrlBase64(out);
    } catch (...) {  // the output is told as it stands
    }
    reply(out, code);
}

void CWebOperateAvenSoftModule::makeaven_crypto_public_encrypt()
{
    usePublicKey([](KeyTexts& key) { key.pk = param("strpk"); },
                 &CSoftMoudle_aven::aven_crypto_public_encrypt);
}

void CWebOperateAvenSoftModule::makeaven_crypto_private_decrypt()
{
    usePublicKey(
        [](KeyTexts& key) {
            key.sk = param("strsk");
            key.password = param("strPassword");
        },
        &CSoftMoudle_aven::aven_crypto_private_decrypt);
}

// `readKey` reads the one key text of the request. All checks come before the key pair
// is read, so a bad parameter leaves none behind.
template <class ReadKey>
void CWebOperateAvenSoftModule::usePublicKey(ReadKey readKey, BlockOperation operation)
{
    int code = 0;
    SecretText out;
    void* keypair = nullptr;

    try {
        const SecretText typeText = param("strKeyPairType");
        KeyTexts key;
        readKey(key);
        const SecretText rsaPadding = param("strRsaPaddingE");
        const SecretText noAsn1 = param("strnoAsn1");
        const SecretText noC1c3c2 = param("strnoc1c3c2");
        SecretText data = param("strdata");
        PkeyCipherParams block = {};
        int32_t type = 0;

        require(present(key.sk) || present(key.pk), code, PARAM_MISSING);
        require(present(data), code, PARAM_MISSING);
        require(optionalDigitIn(rsaPadding, FLAGS, block.rsa_padding_e), code, PARAM_INVALID);
        require(optionalDigitIn(noAsn1, FLAGS, block.no_asn1), code, PARAM_INVALID);
        require(optionalDigitIn(noC1c3c2, FLAGS, block.no_c1c3c2), code, PARAM_INVALID);
        require(optionalDigitIn(typeText, KEY_PAIR_TYPES, type), code, PARAM_INVALID);

        base64_decode_url(data);
        code = m_softMoudleAven.aven_keypair_read(type, toStandardAlphabet(key.sk),
                                                  toStandardAlphabet(key.pk),
                                                  std::move(key.password), &keypair);
        require(code == 0);
        block.keypair = keypair;
        code = (m_softMoudleAven.*operation)(&block, std::move(data), out);
        requireOutput(code, out);

        out = toUrlBase64(out);
    } catch (...) {
        freeKeypair(std::exchange(keypair, nullptr));  // before the failure is told
    }
    reply(out, code);
    freeKeypair(keypair);
}

void CWebOperateAvenSoftModule::freeKeypair(void* keypair)
{
    if (keypair != nullptr)
        m_softMoudleAven.aven_keypair_free(keypair);
}

void CWebOperateAvenSoftModule::makeaven_crypto_encrypt()
{
    int code = 0;
    std::string out;
    std::string tag;

    try {
        CipherRequest cipher;
        SecretText data = param("strdata");
        const SecretText tagLenText = param("strgcmTagLen");
        int tagLen = 16;

        checkCipherRequest(cipher, data, code);
        if (cipher.block.mode == AVEN_MODE_GCM) {
            require(present(cipher.aad), code, PARAM_MISSING);
            decodeAad(cipher);
            if (present(tagLenText))
                tagLen = atoi(tagLenText.c_str());
            require(inRange(tagLen, 4, 16), code, PARAM_INVALID);
        }

        base64_decode_url(data);
        code =
            m_softMoudleAven.aven_crypto_encrypt(&cipher.block, std::move(data), out, tag, tagLen);
        requireOutput(code, out);

        out = toUrlBase64(out);
        tag = toUrlBase64(tag);
    } catch (...) {  // both outputs are told as they stand
    }
    reply(out, code);
    addResult("gcmOutTag", tag);
}

void CWebOperateAvenSoftModule::makeaven_crypto_decrypt()
{
    int code = 0;
    SecretText out;

    try {
        CipherRequest cipher;
        SecretText tag = param("strtag");
        SecretText data = param("strdata");

        checkCipherRequest(cipher, data, code);
        if (cipher.block.mode == AVEN_MODE_GCM) {
            require(present(cipher.aad, tag), code, PARAM_MISSING);
            decodeAad(cipher);
            base64_decode_url(tag);
        }

        base64_decode_url(data);
        code = m_softMoudleAven.aven_crypto_decrypt(&cipher.block, std::move(data), std::move(tag),
                                                    out);
        out = toUrlBase64(out);
    } catch (...) {  // the output is told as it stands
    }
    reply(out, code);
}

void CWebOperateAvenSoftModule::makeaven_crypto_gen_symmkey()
{
    int code = 0;
    SecretText out;

    try {
        const SecretText algText = param("strCipherAlg");
        require(present(algText), code, PARAM_MISSING);
        const int alg = atoi(algText.c_str());
        require(inRange(alg, 1, CIPHER_ALGS), code, PARAM_INVALID);

        code = m_softMoudleAven.aven_crypto_gen_symmkey(alg, out);
        out = toUrlBase64(out);
    } catch (...) {  // the output is told as it stands
    }
    reply(out, code);
}

void CWebOperateAvenSoftModule::makeaven_crypto_hmac()
{
    useMac("strHashAlg", HASH_ALGS, &CSoftMoudle_aven::aven_crypto_hmac);
}

void CWebOperateAvenSoftModule::makeaven_crypto_cmac()
{
    useMac("strCipherAlg", CIPHER_ALGS, &CSoftMoudle_aven::aven_crypto_cmac);
}

void CWebOperateAvenSoftModule::useMac(const char* algName, int algs, BlockOperation operation)
{
    int code = 0;
    std::string out;

    try {
        const SecretText alg = param(algName);
        SecretText key = param("strKey");
        SecretText data = param("strdata");
        MacParams block = {};

        require(present(alg, key, data), code, PARAM_MISSING);
        block.alg = atoi(alg.c_str());
        require(inRange(block.alg, 1, algs), code, PARAM_INVALID);

        base64_decode_url(key);
        base64_decode_url(data);
        block.key = bytes(key);
        block.key_len = size32(key);
        code = (m_softMoudleAven.*operation)(&block, std::move(data), out);
        out = toUrlBase64(out);
    } catch (...) {  // the output is told as it stands
    }
    reply(out, code);
}

// Takes its input byte for byte, not as Base64. Hash 0, the engine's default, is allowed
// here, unlike for HMAC.
void CWebOperateAvenSoftModule::makeaven_crypto_kdf()
{
    int code = 0;
    SecretText out;

    try {
        const SecretText hashText = param("HashType");
        SecretText source = param("srcdata");
        const SecretText lengthText = param("OutLen");

        require(present(hashText, source, lengthText), code, PARAM_MISSING);
        const int hash = atoi(hashText.c_str());
        require(inRange(hash, 0, HASH_ALGS), code, PARAM_INVALID);
        const int length = atoi(lengthText.c_str());
        require(inRange(length, 0, 0xFFFF), code, PARAM_INVALID);

        code = m_softMoudleAven.aven_crypto_kdf(hash, std::move(source), length, out);
        out = toUrlBase64(out);
    } catch (...) {  // the output is told as it stands
    }
    reply(out, code);
}

// The envelope requests are no mirror images: this one takes plain text and answers in
// Base64, the other takes Base64 and answers in escaped text. Both accept an empty
// output, answer a failure with empty "Data", and free their engine object behind the
// results, null too.
void CWebOperateAvenSoftModule::makeaven_crypto_envelope_encrypt()
{
    int code = 0;
    std::string out;
    void* certificate = nullptr;

    try {
        SecretText data = param("strdata");
        SecretText pk = param("strpk");
        const SecretText alg = param("strCipherAlg");
        const SecretText mode = param("strMode");
        EnvelopeParams block = {};

        require(present(data, pk, alg, mode), code, PARAM_MISSING);
        code = m_softMoudleAven.aven_certificate_read(toStandardAlphabet(pk), "", &certificate);
        require(code == 0);
        block.certificate = certificate;
        checkAlgAndMode(alg, mode, block, code);

        code = m_softMoudleAven.aven_crypto_envelope_encrypt(&block, std::move(data), out);
        out = toUrlBase64(out);
    } catch (...) {
        out.clear();
    }
    reply(out, code);
    m_softMoudleAven.aven_certificate_free(certificate);
}

void CWebOperateAvenSoftModule::makeaven_crypto_envelope_decrypt()
{
    int code = 0;
    SecretText out;
    void* keypair = nullptr;

    try {
        SecretText envelope = param("strEncdata");
        const SecretText typeText = param("strKeyPairType");
        SecretText sk = param("strsk");
        const SecretText alg = param("strCipherAlg");
        const SecretText mode = param("strMode");
        EnvelopeParams block = {};
        int32_t type = 0;

        require(present(envelope, typeText, sk, alg, mode), code, PARAM_MISSING);
        base64_decode_url(envelope);
        require(digitIn(typeText, KEY_PAIR_TYPES, type), code, PARAM_INVALID);
        code = m_softMoudleAven.aven_keypair_read(type, toStandardAlphabet(sk), "", "", &keypair);
        require(code == 0);
        block.keypair = keypair;
        checkAlgAndMode(alg, mode, block, code);

        code = m_softMoudleAven.aven_crypto_envelope_decrypt(&block, std::move(envelope), out);
        out = JsonUrlEncode(std::move(out));
    } catch (...) {
        out.clear();
    }
    reply(out, code);
    m_softMoudleAven.aven_keypair_free(keypair);
}

void CWebOperateAvenSoftModule::makeaven_wbsm4_encrypt()
{
    useWhiteBox(&CSoftMoudle_aven::aven_wbsm4_encrypt);
}

void CWebOperateAvenSoftModule::makeaven_wbsm4_decrypt()
{
    useWhiteBox(&CSoftMoudle_aven::aven_wbsm4_decrypt);
}

// Both directions take their input from "strdata", unlike the key-exchange channel.
void CWebOperateAvenSoftModule::useWhiteBox(WhiteBoxOperation operation)
{
    constexpr size_t blockSize = 16;
    int code = 0;
    SecretText out;

    try {
        SecretText key = param("strKey");
        SecretText iv = param("strIV");
        SecretText data = param("strdata");

        require(present(iv, key, data), code, PARAM_MISSING);
        base64_decode_url(key);
        base64_decode_url(iv);
        require(key.length() == blockSize && iv.length() == blockSize, code, PARAM_INVALID);

        base64_decode_url(data);
        code = (m_softMoudleAven.*operation)(std::move(key), std::move(iv), data, out);
        out = toUrlBase64(out);
    } catch (...) {  // the output is told as it stands
    }
    reply(out, code);
}
