#include "catalogue.h"

#include <algorithm>

#include "common/codec.h"
#include "names.h"

namespace {

constexpr Allowed any = {Allowed::Any, 0, 0, "", 0};

constexpr Allowed range(int low, int high)
{
    return {Allowed::Range, low, high, "", 0};
}

constexpr Allowed oneOf(const char* digits)
{
    return {Allowed::OneOf, 0, 0, digits, 0};
}

constexpr Allowed size(size_t bytes)
{
    return {Allowed::Size, 0, 0, "", bytes, true};
}

constexpr Allowed oftenHex = {Allowed::Any, 0, 0, "", 0, true};
constexpr Allowed sizeOfKey = {Allowed::CipherKey, 0, 0, "", 0, true};
constexpr Allowed sizeOfIv = {Allowed::ModeIv, 0, 0, "", 0, true};
constexpr Allowed blocksUnlessPadded = {Allowed::BlocksUnlessPadded, 0, 0, "", 0};
constexpr Allowed blocks = {Allowed::Blocks, 0, 0, "", 0};
constexpr Allowed oneLine = {Allowed::OneLine, 0, 0, "", 0};

// Each parameter once; a request names the ones that it reads. Numbers of ciphers,
// modes, hashes and key pair types are the engine's.
// clang-format off
constexpr Form T = Form::Text, H = Form::Handle, P = Form::Path, B = Form::Base64,
               E = Form::Base64Text, K = Form::KeyText;
constexpr Need must = Need::Always, may = Need::Never;

constexpr IvSizes noIv = {IvSizes::None, 0, 0, 0}, blockIv = {IvSizes::Block, 0, 0, 0},
                  gcmIv = {IvSizes::Between, 1, 128, 12};

const Choices
    pairTypes   = {{"1", "SM2", {"sm2"}}, {"3", "RSA", {"rsa"}}},
    rsaPaddings = {{"0", "OAEP", {"oaep"}}, {"1", "PKCS#1 v1.5", {"pkcs1", "pkcs1-v1.5"}}},
    sm2Forms    = {{"0", "ASN.1", {"asn1"}}, {"1", "raw bytes", {"raw", "raw-bytes"}}},
    sm2Orders   = {{"0", "C1C3C2", {"c1c3c2"}}, {"1", "C1C2C3", {"c1c2c3"}}},
    ciphers     = {{"1", "SM4", {"sm4", "sm4-128"}, 16, 16},
                   {"2", "AES-128", {"aes-128"}, 16, 16},
                   {"3", "AES-192", {"aes-192"}, 24, 16},
                   {"4", "AES-256", {"aes-256"}, 32, 16},
                   {"5", "ARIA-256", {"aria-256"}, 32, 16},
                   {"6", "Camellia-256", {"camellia-256"}, 32, 16},
                   {"7", "3DES", {"3des", "des3", "tdes", "des-ede3"}, 24, 8, {}, "56"}},
    modes       = {{"1", "ECB", {"ecb"}, 0, 0, noIv, "", true},
                   {"2", "CBC", {"cbc"}, 0, 0, blockIv, "", true},
                   {"3", "CFB", {"cfb"}, 0, 0, blockIv},
                   {"4", "OFB", {"ofb"}, 0, 0, blockIv},
                   {"5", "CTR", {"ctr"}, 0, 0, blockIv},
                   {"6", "GCM", {"gcm"}, 0, 0, gcmIv}},
    paddings    = {{"0", "none", {"none"}}, {"1", "PKCS#7", {"pkcs7"}}},
    hashes      = {{"1", "SM3", {"sm3"}}, {"2", "SHA-1", {"sha-1"}}, {"3", "SHA-224", {"sha-224"}},
                   {"4", "SHA-256", {"sha-256"}}, {"5", "SHA-384", {"sha-384"}},
                   {"6", "SHA-512", {"sha-512"}}},
    hashesOrDefault = [] {
        Choices all = hashes;
        all.insert(all.begin(), {"0", "default (SM3)", {"default"}});
        return all;
    }();

const Parameter
    strErr        = {"strErr",           T, must, any,              "",   "error code, as in an errorCode result"},
    strIn         = {"strIn",            T, must, any,              "",   "the bytes, as they are"},
    strInBase64   = {"strIn",            E, must, any,              "",   "the text to decode"},

    strKe         = {"strKe",            H, must, any,              "",   "session, the Data of QZaven_ke_new"},
    strSigKey     = {"strSig_key",       K, may,  any,              "",   "client's signing key"},
    strEncKey     = {"strEnc_key",       K, may,  any,              "",   "client's encryption key"},
    strSigCert    = {"strSig_cert",      K, may,  any,              "",   "client's signing certificate"},
    strEncCert    = {"strEnc_cert",      K, may,  any,              "",   "client's encryption certificate"},
    strPassword   = {"strPassword",      T, may,  oneLine,          "",   "password of the private key"},
    strCaFile     = {"strCa_file",       P, must, any,              "",   "file of trusted root certificates"},
    strCaPath     = {"strCa_path",       P, may,  any,              "",   "folder of trusted root certificates"},
    strSrvrRand   = {"strSrvr_rand",     B, may,  any,              "",   "server's random"},
    strSrvrSig    = {"strSrvr_sig_cert", B, may,  any,              "",   "server's signing certificate"},
    strSrvrEnc    = {"strSrvr_enc_cert", B, may,  any,              "",   "server's encryption certificate"},
    strSrvrSign   = {"strSrvr_sign",     B, may,  any,              "",   "server's signature"},
    channelPlain  = {"strdata",          B, may,  any,              "",   "the plaintext"},
    channelData   = {"strdata",          B, may,  any,              "",   "the data"},
    channelCipher = {"strcipher",        B, may,  any,              "",   "the ciphertext"},

    pairType      = {"strKeyPairType",   T, may,  oneOf("13"),      "0",  "type of the key pair; absent: as the key says", pairTypes},
    pairTypeMust  = {"strKeyPairType",   T, must, oneOf("13"),      "",   "type of the key pair", pairTypes},
    publicKey     = {"strpk",            K, must, any,              "",   "recipient's public key"},
    privateKey    = {"strsk",            K, must, any,              "",   "own private key"},
    certificate   = {"strpk",            K, must, any,              "",   "recipient's certificate"},
    rsaPadding    = {"strRsaPaddingE",   T, may,  oneOf("01"),      "0",  "padding of RSA; the development engine's OAEP is with SHA-256, also in MGF1", rsaPaddings},
    noAsn1        = {"strnoAsn1",        T, may,  oneOf("01"),      "0",  "form of SM2 ciphertext", sm2Forms},
    noC1C3C2      = {"strnoc1c3c2",      T, may,  oneOf("01"),      "0",  "order of the parts of SM2 ciphertext", sm2Orders},
    data          = {"strdata",          B, must, any,              "",   "the data"},
    plaintext     = {"strdata",          B, must, any,              "",   "the plaintext"},
    plaintextAsIs = {"strdata",          T, must, any,              "",   "the plaintext, as it is"},
    ciphertext    = {"strdata",          B, must, any,              "",   "the ciphertext"},
    blockPlain    = {"strdata",          B, must, blocksUnlessPadded, "", "the plaintext"},
    blockCipher   = {"strdata",          B, must, blocks,           "",   "the ciphertext"},
    envelope      = {"strEncdata",       B, must, any,              "",   "the envelope, in DER"},

    cipherAlg     = {"strCipherAlg",     T, must, range(1, 7),      "",   "the cipher", ciphers},
    mode          = {"strMode",          T, must, oneOf("123456"),  "",   "the cipher's mode; ECB takes no initial value, GCM has a tag", modes},
    padding       = {"strCipherPadding", T, may,  oneOf("01"),      "0",  "padding of the data", paddings},
    macKey        = {"strKey",           B, must, oftenHex,         "",   "the key"},
    key           = {"strKey",           B, must, sizeOfKey,        "",   "the key"},
    key16         = {"strKey",           B, must, size(16),         "",   "the key"},
    iv            = {"strIV",            B, Need::UnlessMode1, sizeOfIv, "", "initial value; ECB takes none"},
    iv16          = {"strIV",            B, must, size(16),         "",   "initial value"},
    aad           = {"straad",           B, Need::InMode6,     any, "",   "additional authenticated data; GCM alone takes it, and there it must not be empty"},
    tagLength     = {"strgcmTagLen",     T, Need::MayInMode6, range(4, 16), "16", "length of the tag in bytes; GCM alone has one"},
    tag           = {"strtag",           B, Need::InMode6, oftenHex, "",   "the tag; GCM alone has one"},

    hashAlg       = {"strHashAlg",       T, must, range(1, 6),      "",   "the hash", hashes},
    hashType      = {"HashType",         T, must, range(0, 6),      "",   "the hash; 0 for the engine's default", hashesOrDefault},
    srcdata       = {"srcdata",          T, must, any,              "",   "the secret to derive from, as it is"},
    outLen        = {"OutLen",           T, must, range(0, 65535),  "",   "length of the derived key in bytes"};

const Result
    code    = {"errorCode", Form::Text,    "0, or the code of the failure"},
    plain   = {"Data",      Form::Text,    "the text"},
    handle  = {"Data",      Form::Handle,  "the session"},
    encoded = {"Data",      Form::Base64,  "the bytes in Base64"},
    sealed  = {"Data",      Form::Base64,  "the ciphertext"},
    opened  = {"Data",      Form::Base64,  "the plaintext"},
    mac     = {"Data",      Form::Base64,  "the check value"},
    madeKey = {"Data",      Form::Base64,  "the key"},
    message = {"Data",      Form::Base64,  "the message for the server"},
    sealedEnvelope = {"Data", Form::Base64,  "the envelope, in DER"},
    decoded = {"Data",      Form::Escaped, "the bytes"},
    openedEnvelope = {"Data", Form::Escaped, "the plaintext"},
    gcmTag  = {"gcmOutTag", Form::Base64,  "the tag; empty in other modes than GCM"};

// The plug-in's own codes; error_codes.cpp has their texts.
constexpr int MISSING = -20001, RANGE = -20084, MEMORY = -20000, ENGINE = -20215;

// Changed by useNames alone.
std::vector<RequestInfo> requests = {
    {"QZaVen_GetVersion",               "Engine",   "The engine's version text.",
        "engine library build release",
        {}, {plain, code}, {ENGINE}},
    {"QZaVen_strerror",                 "Engine",   "The engine's text for an error code. Writes no errorCode.",
        "error message errorCode meaning",
        {strErr}, {plain}, {}},
    {"QZaven_crypto_base64_encode",     "Base64",   "Bytes to URL-safe Base64, by the engine.",
        "base64url RFC 4648 encode encoding",
        {strIn}, {encoded, code}, {MISSING, ENGINE}},
    {"QZaven_crypto_base64_Decode",     "Base64",   "Base64 of either alphabet to bytes, by the engine.",
        "base64url RFC 4648 decode unescape decoding",
        {strInBase64}, {decoded, code}, {MISSING, ENGINE}},

    {"QZaven_ke_new",                   "Key-exchange session", "Creates a session.",
        "handshake TLCP open start begin",
        {}, {handle, code}, {ENGINE}},
    {"QZaven_ke_free",                  "Key-exchange session", "Frees a session.",
        "handshake close end delete",
        {strKe}, {code}, {MISSING, ENGINE}},
    {"QZaven_ke_set_public_key",        "Key-exchange session", "Sets the client's keys.",
        "handshake private key pair PEM",
        {strKe, strSigKey, strEncKey, strPassword}, {code}, {MISSING, ENGINE}},
    {"QZaven_ke_set_certificate",       "Key-exchange session", "Sets the client's certificates.",
        "handshake X.509 PEM",
        {strKe, strSigCert, strEncCert, strPassword}, {code}, {MISSING, ENGINE}},
    {"QZaven_ke_set_root_certificate",  "Key-exchange session", "Sets the trusted roots.",
        "handshake X.509 CA trust anchor chain PEM",
        {strKe, strCaFile, strCaPath}, {code}, {MISSING, ENGINE}},
    {"QZaven_ke_client_hello",          "Key-exchange session", "Makes the client hello, at most 32 bytes.",
        "handshake ClientHello random nonce",
        {strKe}, {message, code}, {MISSING, ENGINE}, {}, Retry::Once},
    {"QZaven_ke_client_key_exchange",   "Key-exchange session", "Takes the server's answer and makes the client's message, at most 256 bytes.",
        "handshake ClientKeyExchange ServerHello premaster secret agreement",
        {strKe, strSrvrRand, strSrvrSig, strSrvrEnc, strSrvrSign}, {message, code}, {MISSING, ENGINE}, {}, Retry::Once},

    {"QZaven_ke_encrypt",               "Key-exchange channel", "Encrypts with the session's keys.",
        "channel session send seal encryption",
        {strKe, channelPlain}, {sealed, code}, {MISSING, ENGINE}},
    {"QZaven_ke_decrypt",               "Key-exchange channel", "Decrypts with the session's keys.",
        "channel session receive open decryption",
        {strKe, channelCipher}, {opened, code}, {MISSING, ENGINE}},
    {"QZaven_ke_hmac",                  "Key-exchange channel", "HMAC with the session's keys.",
        "channel session MAC authentication integrity",
        {strKe, channelData}, {mac, code}, {MISSING, ENGINE}},
    {"QZaven_ke_cmac",                  "Key-exchange channel", "CMAC with the session's keys.",
        "channel session MAC authentication integrity",
        {strKe, channelData}, {mac, code}, {MISSING, ENGINE}},

    {"QZaven_crypto_public_encrypt",    "Public key", "Encrypts with a public key.",
        "asymmetric RSAES PKCS1 ECIES encryption",
        {pairType, publicKey, rsaPadding, noAsn1, noC1C3C2, plaintext}, {sealed, code}, {MISSING, RANGE, MEMORY, ENGINE}},
    {"QZaven_crypto_private_decrypt",   "Public key", "Decrypts with a private key.",
        "asymmetric RSAES PKCS1 ECIES decryption",
        {pairType, privateKey, strPassword, rsaPadding, noAsn1, noC1C3C2, ciphertext}, {opened, code}, {MISSING, RANGE, MEMORY, ENGINE}},

    {"QZaven_crypto_encrypt",           "Symmetric cipher", "Encrypts; GCM makes a tag too.",
        "AES DES AEAD authenticated block stream file encryption",
        {cipherAlg, mode, padding, key, iv, aad, blockPlain, tagLength}, {sealed, code, gcmTag}, {MISSING, RANGE, MEMORY, ENGINE}},
    {"QZaven_crypto_decrypt",           "Symmetric cipher", "Decrypts; GCM checks the tag.",
        "AES DES AEAD authenticated block stream file verify tag decryption",
        {cipherAlg, mode, padding, key, iv, aad, tag, blockCipher}, {opened, code}, {MISSING, RANGE, MEMORY, ENGINE}},
    {"QZaven_crypto_gen_symmkey",       "Symmetric cipher", "Makes a key for a cipher.",
        "generate random secret AES key",
        {cipherAlg}, {madeKey, code}, {MISSING, RANGE, ENGINE}},

    {"QZaven_crypto_hmac",              "MAC and key derivation", "HMAC.",
        "digest hash message authentication code integrity RFC 2104",
        {hashAlg, macKey, data}, {mac, code}, {MISSING, RANGE, MEMORY, ENGINE},
        Sample{{{"strHashAlg", "4"}, {"strKey", "SmVmZQ=="}, {"strdata", "d2hhdCBkbyB5YSB3YW50IGZvciBub3RoaW5nPw=="}},
               "W9zBRr9gdU5qBCQmCJV1x1oAPwidJzmDnexYuWTsOEM=", "RFC 4231, HMAC-SHA-256"}},
    {"QZaven_crypto_cmac",              "MAC and key derivation", "CMAC.",
        "message authentication code integrity AES-CMAC OMAC",
        {cipherAlg, key, data}, {mac, code}, {MISSING, RANGE, MEMORY, ENGINE},
        Sample{{{"strCipherAlg", "2"}, {"strKey", "K34VFiiu0qar9xWICc9PPA=="}, {"strdata", "a8G-4i5An5bpPX4Rc5MXKg=="}},
               "BwoWtGtNQUT3m92d0EoofA==", "RFC 4493, AES-128-CMAC"}},
    {"QZaven_crypto_kdf",               "MAC and key derivation", "Derives a key.",
        "KDF key derivation X9.63 hash digest",
        {hashType, srcdata, outLen}, {madeKey, code}, {MISSING, RANGE, MEMORY, ENGINE},
        // Computed with: openssl kdf -keylen 16 -kdfopt digest:SHA256 -kdfopt "secret:..." X963KDF
        Sample{{{"HashType", "4"}, {"srcdata", "corvane-host doctor"}, {"OutLen", "16"}},
               "0jkvJ1ZRrA-DmDsuvbmfdQ==", "ANSI X9.63 with SHA-256"}},

    {"QZaven_crypto_envelope_encrypt",  "Envelope", "Seals data for the holder of a certificate.",
        "CMS PKCS#7 EnvelopedData AuthEnvelopedData S/MIME hybrid RSA SM2 certificate encryption",
        {plaintextAsIs, certificate, cipherAlg, mode}, {sealedEnvelope, code}, {MISSING, RANGE, MEMORY, ENGINE}},
    {"QZaven_crypto_envelope_decrypt",  "Envelope", "Opens an envelope.",
        "CMS PKCS#7 EnvelopedData AuthEnvelopedData S/MIME hybrid RSA SM2 certificate decryption",
        {envelope, pairTypeMust, privateKey, cipherAlg, mode}, {openedEnvelope, code}, {MISSING, RANGE, MEMORY, ENGINE}},

    {"QZaven_wbsm4_encrypt",            "White-box SM4", "Encrypts.",
        "SM4 CBC whitebox encryption",
        {key16, iv16, plaintext}, {sealed, code}, {MISSING, RANGE, MEMORY, ENGINE}},
    {"QZaven_wbsm4_decrypt",            "White-box SM4", "Decrypts.",
        "SM4 CBC whitebox decryption",
        {key16, iv16, ciphertext}, {opened, code}, {MISSING, RANGE, MEMORY, ENGINE}},
};

const std::vector<RetryKind> retries = {
    {Retry::Safe,           "safe",             "nothing is kept of it: it may be sent again, to any worker or host"},
    {Retry::LeavesASession, "leaves-a-session", "sending it again makes another session; the first stays until it is freed, which corvane-host serve does once it is idle"},
    {Retry::Once,           "once",             "happens once in a session: sent again it is refused, and the session is of no use without the lost answer"},
    {Retry::No,             "no",               "not to be sent again: the first time may have changed the session, or ended it"},
};
// clang-format on

}  // namespace

const std::vector<RequestInfo>& catalogue()
{
    return requests;
}

const RequestInfo* findRequest(const std::string& name)
{
    for (const RequestInfo& request : requests)
        if (request.name == name)
            return &request;
    return nullptr;
}

const Result* findResult(const RequestInfo& request, const std::string& name)
{
    for (const Result& result : request.results)
        if (result.name == name)
            return &result;
    return nullptr;
}

std::string nearestName(const std::vector<std::string>& known, const std::string& name)
{
    return *std::min_element(known.begin(), known.end(),
                             [&](const std::string& a, const std::string& b) {
                                 return editDistance(name, a) < editDistance(name, b);
                             });
}

std::string nearName(const std::vector<std::string>& known, const std::string& name)
{
    constexpr size_t longest = 100;  // of names that people mistype
    if (known.empty() || name.empty() || name.size() > longest)
        return "";
    const std::string nearest = nearestName(known, name);
    const size_t mostEdits = std::max<size_t>(1, std::min(name.size(), nearest.size()) / 3);
    return editDistance(name, nearest) <= mostEdits ? nearest : "";
}

std::vector<std::string> likelyRequests(const std::string& name)
{
    std::vector<std::string> known;
    std::vector<std::string> likely;
    for (const RequestInfo& request : requests) {
        const std::string whole = request.name;
        known.push_back(whole);
        const bool isLonger = !name.empty() && whole.size() > name.size() + 1 &&
                              whole[whole.size() - name.size() - 1] == '_';
        if (isLonger && editDistance(whole.substr(whole.size() - name.size()), name) == 0)
            likely.push_back(whole);
    }
    if (!likely.empty())
        return likely;
    const std::string near = nearName(known, name);
    return near.empty() ? likely : std::vector{near};
}

std::string nearestRequest(const std::string& name)
{
    std::vector<std::string> known;
    known.reserve(requests.size());
    for (const RequestInfo& request : requests)
        known.emplace_back(request.name);
    return nearestName(known, name);
}

const Parameter* findParameter(const RequestInfo& request, const std::string& name)
{
    for (const Parameter& parameter : request.parameters)
        if (parameter.name == name)
            return &parameter;
    return nullptr;
}

void useNames(const std::map<std::string, Choices>& names)
{
    for (RequestInfo& request : requests)
        for (Parameter& parameter : request.parameters) {
            const auto known = names.find(parameter.name);
            parameter.choices = known == names.end() ? Choices() : known->second;
            const Allowed::Kind kind = parameter.allowed.kind;
            if (kind == Allowed::CipherKey || kind == Allowed::ModeIv ||
                kind == Allowed::BlocksUnlessPadded || kind == Allowed::Blocks)
                parameter.allowed.kind = Allowed::Any;
        }
}

bool takesSession(const RequestInfo& request)
{
    return std::any_of(request.parameters.begin(), request.parameters.end(),
                       [](const Parameter& p) { return p.form == Form::Handle; });
}

Retry retryOf(const RequestInfo& request)
{
    if (takesSession(request))
        return request.inSession;
    const bool makesSession =
        std::any_of(request.results.begin(), request.results.end(),
                    [](const Result& result) { return result.form == Form::Handle; });
    return makesSession ? Retry::LeavesASession : Retry::Safe;
}

const std::vector<RetryKind>& retryKinds()
{
    return retries;
}

const RetryKind& kindOf(Retry retry)
{
    return *std::find_if(retries.begin(), retries.end(),
                         [&](const RetryKind& kind) { return kind.retry == retry; });
}

Form formOf(const RequestInfo* request, const std::string& name)
{
    const Parameter* known = request == nullptr ? nullptr : findParameter(*request, name);
    return known == nullptr ? Form::Text : known->form;
}

bool isBase64(Form form)
{
    return form == Form::Base64 || form == Form::Base64Text || form == Form::KeyText;
}

std::optional<size_t> base64Size(Form form, std::string_view text)
{
    // Blanks are none of them: a form turns a plus sign into one.
    constexpr std::string_view lineEnds = "\r\n";
    text = text.substr(0, text.find_last_not_of(lineEnds) + 1);
    if (text.empty())
        return std::nullopt;
    if (form == Form::Base64 || text.find_first_of(lineEnds) == text.npos)
        return base64Size(text);

    std::string line(text);
    line.erase(std::remove_if(line.begin(), line.end(),
                              [&](char c) { return lineEnds.find(c) != lineEnds.npos; }),
               line.end());
    return base64Size(line);
}

bool isEncoded(Form form, Given given)
{
    return isBase64(form) && (given == Given::Text || given == Given::Bytes);
}

bool isMisencoded(Form form, Given given, std::string_view value)
{
    return isBase64(form) && given == Given::Plain && !value.empty() && !base64Size(form, value);
}

bool isSecret(const Parameter& parameter)
{
    const Allowed::Kind kind = parameter.allowed.kind;
    return kind != Allowed::Range && kind != Allowed::OneOf && parameter.form != Form::Path;
}

bool succeeded(const RequestInfo* request, const Pairs& results)
{
    // A request without errorCode succeeds by giving data.
    if (request != nullptr && findResult(*request, "errorCode") == nullptr) {
        const std::string* given = findValue(results, "Data");
        return given != nullptr && !given->empty();
    }
    const std::string* written = findValue(results, "errorCode");
    return written != nullptr && *written == "0";
}

const char* formName(Form form)
{
    switch (form) {
        case Form::Text:
            return "text";
        case Form::Handle:
            return "handle";
        case Form::Path:
            return "path";
        case Form::Base64:
        case Form::Base64Text:
            return "base64";
        case Form::KeyText:
            return "key-text";
        case Form::Escaped:
            return "escaped";
    }
    return "";
}

const char* needText(Need need)
{
    switch (need) {
        case Need::Always:
            return "required";
        case Need::Never:
        case Need::MayInMode6:
            return "optional";
        case Need::UnlessMode1:
            return "required unless the mode is ECB (strMode 1)";
        case Need::InMode6:
            return "required if the mode is GCM (strMode 6)";
    }
    return "";
}

std::string allowedText(const Allowed& allowed)
{
    switch (allowed.kind) {
        case Allowed::Any:
            return "";
        case Allowed::Range:
            return std::to_string(allowed.low) + " to " + std::to_string(allowed.high);
        case Allowed::Size:
            return std::to_string(allowed.size) + " bytes";
        case Allowed::CipherKey:
            return "as many bytes as the cipher takes";
        case Allowed::ModeIv:
            return "as many bytes as the mode takes";
        case Allowed::BlocksUnlessPadded:
            return "whole blocks in ECB and CBC, unless padded";
        case Allowed::Blocks:
            return "whole blocks in ECB and CBC";
        case Allowed::OneLine:
            return "";
        case Allowed::OneOf:
            break;
    }
    std::string list = "one of";
    for (const char* digit = allowed.digits; *digit != '\0'; ++digit)
        list += std::string(" ") + *digit;
    return list;
}
