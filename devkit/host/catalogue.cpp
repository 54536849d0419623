#include "catalogue.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <numeric>

#include "codec.h"

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
    return {Allowed::Size, 0, 0, "", bytes};
}

// Each parameter once; a request names the ones that it reads. Numbers of ciphers,
// modes, hashes and key pair types are the engine's.
// clang-format off
constexpr Form T = Form::Text, H = Form::Handle, P = Form::Path, B = Form::Base64, K = Form::KeyText;
constexpr Need must = Need::Always, may = Need::Never;

constexpr Parameter
    strErr        = {"strErr",           T, must, any,              "",   "error code, as in an errorCode result"},
    strIn         = {"strIn",            T, must, any,              "",   "the bytes, as they are"},
    strInBase64   = {"strIn",            B, must, any,              "",   "the text to decode"},

    strKe         = {"strKe",            H, must, any,              "",   "session, the Data of QZaven_ke_new"},
    strSigKey     = {"strSig_key",       K, may,  any,              "",   "client's signing key"},
    strEncKey     = {"strEnc_key",       K, may,  any,              "",   "client's encryption key"},
    strSigCert    = {"strSig_cert",      K, may,  any,              "",   "client's signing certificate"},
    strEncCert    = {"strEnc_cert",      K, may,  any,              "",   "client's encryption certificate"},
    strPassword   = {"strPassword",      T, may,  any,              "",   "password of the private key"},
    strCaFile     = {"strCa_file",       P, must, any,              "",   "file of trusted root certificates"},
    strCaPath     = {"strCa_path",       P, may,  any,              "",   "folder of trusted root certificates"},
    strSrvrRand   = {"strSrvr_rand",     B, may,  any,              "",   "server's random"},
    strSrvrSig    = {"strSrvr_sig_cert", B, may,  any,              "",   "server's signing certificate"},
    strSrvrEnc    = {"strSrvr_enc_cert", B, may,  any,              "",   "server's encryption certificate"},
    strSrvrSign   = {"strSrvr_sign",     B, may,  any,              "",   "server's signature"},
    channelData   = {"strdata",          B, may,  any,              "",   "the data"},
    channelCipher = {"strcipher",        B, may,  any,              "",   "the ciphertext"},

    pairType      = {"strKeyPairType",   T, may,  oneOf("13"),      "0",  "key pair; development engine: 1 SM2, 3 RSA, absent: as the key says"},
    pairTypeMust  = {"strKeyPairType",   T, must, oneOf("13"),      "",   "key pair; development engine: 1 SM2, 3 RSA"},
    publicKey     = {"strpk",            K, must, any,              "",   "public key"},
    privateKey    = {"strsk",            K, must, any,              "",   "private key"},
    certificate   = {"strpk",            K, must, any,              "",   "recipient's certificate"},
    rsaPadding    = {"strRsaPaddingE",   T, may,  oneOf("01"),      "0",  "RSA padding; development engine: 0 OAEP, 1 PKCS#1"},
    noAsn1        = {"strnoAsn1",        T, may,  oneOf("01"),      "0",  "SM2: 1 for ciphertext without ASN.1"},
    noC1C3C2      = {"strnoc1c3c2",      T, may,  oneOf("01"),      "0",  "SM2: 1 for another order than C1C3C2"},
    data          = {"strdata",          B, must, any,              "",   "the data"},
    dataText      = {"strdata",          T, must, any,              "",   "the data, as it is"},
    envelope      = {"strEncdata",       B, must, any,              "",   "the envelope"},

    cipherAlg     = {"strCipherAlg",     T, must, range(1, 7),      "",   "cipher; development engine: 1 SM4, 2 to 4 AES-128/192/256, 5 ARIA-256, 6 Camellia-256, 7 3DES"},
    mode          = {"strMode",          T, must, oneOf("123456"),  "",   "mode: 1 takes no IV, 6 is GCM; development engine: 1 ECB, 2 CBC, 3 CFB, 4 OFB, 5 CTR"},
    padding       = {"strCipherPadding", T, may,  oneOf("01"),      "0",  "1 to pad the data"},
    key           = {"strKey",           B, must, any,              "",   "the key"},
    key16         = {"strKey",           B, must, size(16),         "",   "the key"},
    iv            = {"strIV",            B, Need::UnlessMode1, any, "",   "initial value; ignored in mode 1"},
    iv16          = {"strIV",            B, must, size(16),         "",   "initial value"},
    aad           = {"straad",           B, Need::InMode6,     any, "",   "additional authenticated data; mode 6 only"},
    tagLength     = {"strgcmTagLen",     T, may,  range(4, 16),     "16", "length of the tag in bytes; mode 6 only"},
    tag           = {"strtag",           B, Need::InMode6,     any, "",   "the tag; mode 6 only"},

    hashAlg       = {"strHashAlg",       T, must, range(1, 6),      "",   "hash; development engine: 1 SM3, 2 SHA-1, 3 SHA-224, 4 SHA-256, 5 SHA-384, 6 SHA-512"},
    hashType      = {"HashType",         T, must, range(0, 6),      "",   "hash, as strHashAlg, or 0 for the engine's default"},
    srcdata       = {"srcdata",          T, must, any,              "",   "the secret to derive from, as it is"},
    outLen        = {"OutLen",           T, must, range(0, 65535),  "",   "length of the derived key in bytes"};

const Result
    code    = {"errorCode", Form::Text,    "0, or the code of the failure"},
    plain   = {"Data",      Form::Text,    "the text"},
    handle  = {"Data",      Form::Handle,  "the session"},
    base64  = {"Data",      Form::Base64,  "the bytes"},
    escaped = {"Data",      Form::Escaped, "the bytes"},
    gcmTag  = {"gcmOutTag", Form::Base64,  "the tag; empty unless mode is 6"};

const std::vector<RequestInfo> requests = {
    {"QZaVen_GetVersion",               "Engine",   "The engine's version text.",
        {}, {plain, code}},
    {"QZaVen_strerror",                 "Engine",   "The engine's text for an error code. Writes no errorCode.",
        {strErr}, {plain}},
    {"QZaven_crypto_base64_encode",     "Base64",   "Bytes to URL-safe Base64, by the engine.",
        {strIn}, {base64, code}},
    {"QZaven_crypto_base64_Decode",     "Base64",   "Base64 of either alphabet to bytes, by the engine.",
        {strInBase64}, {escaped, code}},

    {"QZaven_ke_new",                   "Key-exchange session", "Creates a session.",
        {}, {handle, code}},
    {"QZaven_ke_free",                  "Key-exchange session", "Frees a session.",
        {strKe}, {code}},
    {"QZaven_ke_set_public_key",        "Key-exchange session", "Sets the client's keys.",
        {strKe, strSigKey, strEncKey, strPassword}, {code}},
    {"QZaven_ke_set_certificate",       "Key-exchange session", "Sets the client's certificates.",
        {strKe, strSigCert, strEncCert, strPassword}, {code}},
    {"QZaven_ke_set_root_certificate",  "Key-exchange session", "Sets the trusted roots.",
        {strKe, strCaFile, strCaPath}, {code}},
    {"QZaven_ke_client_hello",          "Key-exchange session", "Makes the client hello, at most 32 bytes.",
        {strKe}, {base64, code}},
    {"QZaven_ke_client_key_exchange",   "Key-exchange session", "Takes the server's answer and makes the client's message, at most 256 bytes.",
        {strKe, strSrvrRand, strSrvrSig, strSrvrEnc, strSrvrSign}, {base64, code}},

    {"QZaven_ke_encrypt",               "Key-exchange channel", "Encrypts with the session's keys.",
        {strKe, channelData}, {base64, code}},
    {"QZaven_ke_decrypt",               "Key-exchange channel", "Decrypts with the session's keys.",
        {strKe, channelCipher}, {base64, code}},
    {"QZaven_ke_hmac",                  "Key-exchange channel", "HMAC with the session's keys.",
        {strKe, channelData}, {base64, code}},
    {"QZaven_ke_cmac",                  "Key-exchange channel", "CMAC with the session's keys.",
        {strKe, channelData}, {base64, code}},

    {"QZaven_crypto_public_encrypt",    "Public key", "Encrypts with a public key.",
        {pairType, publicKey, rsaPadding, noAsn1, noC1C3C2, data}, {base64, code}},
    {"QZaven_crypto_private_decrypt",   "Public key", "Decrypts with a private key.",
        {pairType, privateKey, strPassword, rsaPadding, noAsn1, noC1C3C2, data}, {base64, code}},

    {"QZaven_crypto_encrypt",           "Symmetric cipher", "Encrypts; mode 6 makes a tag too.",
        {cipherAlg, mode, padding, key, iv, aad, data, tagLength}, {base64, code, gcmTag}},
    {"QZaven_crypto_decrypt",           "Symmetric cipher", "Decrypts; mode 6 checks the tag.",
        {cipherAlg, mode, padding, key, iv, aad, tag, data}, {base64, code}},
    {"QZaven_crypto_gen_symmkey",       "Symmetric cipher", "Makes a key for a cipher.",
        {cipherAlg}, {base64, code}},

    {"QZaven_crypto_hmac",              "MAC and key derivation", "HMAC.",
        {hashAlg, key, data}, {base64, code}},
    {"QZaven_crypto_cmac",              "MAC and key derivation", "CMAC.",
        {cipherAlg, key, data}, {base64, code}},
    {"QZaven_crypto_kdf",               "MAC and key derivation", "Derives a key.",
        {hashType, srcdata, outLen}, {base64, code}},

    {"QZaven_crypto_envelope_encrypt",  "Envelope", "Seals data for the holder of a certificate.",
        {dataText, certificate, cipherAlg, mode}, {base64, code}},
    {"QZaven_crypto_envelope_decrypt",  "Envelope", "Opens an envelope.",
        {envelope, pairTypeMust, privateKey, cipherAlg, mode}, {escaped, code}},

    {"QZaven_wbsm4_encrypt",            "White-box SM4", "Encrypts.",
        {key16, iv16, data}, {base64, code}},
    {"QZaven_wbsm4_decrypt",            "White-box SM4", "Decrypts.",
        {key16, iv16, data}, {base64, code}},
};
// clang-format on

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
            return "optional";
        case Need::UnlessMode1:
            return "required unless strMode is 1";
        case Need::InMode6:
            return "required if strMode is 6";
    }
    return "";
}

bool isNeeded(Need need, const Pairs& parameters)
{
    const std::string* given = findValue(parameters, "strMode");
    switch (need) {
        case Need::Always:
            return true;
        case Need::Never:
            return false;
        case Need::UnlessMode1:
            return given == nullptr || *given != "1";
        case Need::InMode6:
            return given != nullptr && *given == "6";
    }
    return false;
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
        case Allowed::OneOf:
            break;
    }
    std::string list = "one of";
    for (const char* digit = allowed.digits; *digit != '\0'; ++digit)
        list += std::string(" ") + *digit;
    return list;
}

// A value's own fault, or "".
std::string fault(const Parameter& parameter, const std::string& value)
{
    const Allowed& allowed = parameter.allowed;
    if (parameter.form == Form::Base64 || parameter.form == Form::KeyText) {
        const auto decodedSize = base64Size(value);
        if (!decodedSize)
            return "is not Base64; write b64:... to have it encoded";
        if (allowed.kind == Allowed::Size && *decodedSize != allowed.size)
            return "must be " + allowedText(allowed);
    }
    if (allowed.kind == Allowed::OneOf &&
        (value.size() != 1 || std::string(allowed.digits).find(value) == std::string::npos))
        return "must be " + allowedText(allowed);
    if (allowed.kind == Allowed::Range) {
        const long number = strtol(value.c_str(), nullptr, 10);
        if (number < allowed.low || number > allowed.high)
            return "must be " + allowedText(allowed);
    }
    return "";
}

// How many letters to insert, remove or replace to turn one name into the other.
size_t editDistance(const std::string& a, const std::string& b)
{
    std::vector<size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 0; i < a.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i + 1;
        for (size_t j = 0; j < b.size(); ++j) {
            const bool same = tolower(static_cast<unsigned char>(a[i])) ==
                              tolower(static_cast<unsigned char>(b[j]));
            const size_t replaced = diagonal + (same ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({row[j] + 1, diagonal + 1, replaced});
        }
    }
    return row.back();
}

std::string pad(std::string text, size_t width)
{
    text.resize(std::max(text.size(), width), ' ');
    return text;
}

// "required, 1 to 7, text" and the like.
std::string traits(const Parameter& parameter)
{
    std::string line = needText(parameter.need);
    const std::string values = allowedText(parameter.allowed);
    if (!values.empty())
        line += ", " + values;
    if (*parameter.ifAbsent != '\0')
        line += ", default " + std::string(parameter.ifAbsent);
    return line + ", " + formName(parameter.form);
}

}  // namespace

const std::string* findValue(const Pairs& pairs, const std::string& name)
{
    for (const auto& [pairName, value] : pairs)
        if (pairName == name)
            return &value;
    return nullptr;
}

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

std::string nearestRequest(const std::string& name)
{
    return std::min_element(requests.begin(), requests.end(),
                            [&](const RequestInfo& a, const RequestInfo& b) {
                                return editDistance(name, a.name) < editDistance(name, b.name);
                            })
        ->name;
}

std::vector<std::string> complaints(const RequestInfo& request, const Pairs& parameters)
{
    std::vector<std::string> list;
    for (const auto& given : parameters) {
        const bool known =
            std::any_of(request.parameters.begin(), request.parameters.end(),
                        [&](const Parameter& parameter) { return parameter.name == given.first; });
        if (!known)
            list.push_back(given.first + " is not a parameter of " + request.name);
    }
    for (const Parameter& parameter : request.parameters) {
        const std::string* value = findValue(parameters, parameter.name);
        if (value != nullptr && !value->empty()) {
            const std::string found = fault(parameter, *value);
            if (!found.empty())
                list.push_back(std::string(parameter.name) + " " + found);
        } else if (isNeeded(parameter.need, parameters)) {
            list.push_back(std::string(parameter.name) + " is missing (" +
                           needText(parameter.need) + ")");
        }
    }
    return list;
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

std::string describe(const RequestInfo& request)
{
    std::string out = std::string(request.name) + "\n  " + request.summary + "\n";
    if (request.parameters.empty())
        out += "  takes no parameters\n";
    for (const Parameter& parameter : request.parameters) {
        out += "  " + pad(parameter.name, 18) + traits(parameter) + "\n";
        out += std::string(20, ' ') + parameter.meaning + "\n";
    }
    out += "  results\n";
    for (const Result& result : request.results)
        out += "  " + pad(result.name, 18) + formName(result.form) + ": " + result.meaning + "\n";
    return out;
}

std::string listRequests()
{
    std::string out;
    std::string group;
    for (const RequestInfo& request : requests) {
        if (group != request.group) {
            group = request.group;
            out += (out.empty() ? "" : "\n") + group + "\n";
        }
        out += "  " + std::string(request.name) + "\n";
        for (const Parameter& parameter : request.parameters)
            out += "      " + pad(parameter.name, 18) + traits(parameter) + "\n";
    }
    return out;
}

nlohmann::ordered_json toJson(const RequestInfo& request)
{
    using Json = nlohmann::ordered_json;

    Json parameters = Json::array();
    for (const Parameter& parameter : request.parameters) {
        const Allowed& allowed = parameter.allowed;
        Json row = {{"name", parameter.name},
                    {"form", formName(parameter.form)},
                    {"need", needText(parameter.need)}};
        if (allowed.kind == Allowed::Range)
            row["range"] = {allowed.low, allowed.high};
        if (allowed.kind == Allowed::Size)
            row["bytes"] = allowed.size;
        if (allowed.kind == Allowed::OneOf) {
            row["oneOf"] = Json::array();
            for (const char* digit = allowed.digits; *digit != '\0'; ++digit)
                row["oneOf"].push_back(std::string(1, *digit));
        }
        if (*parameter.ifAbsent != '\0')
            row["default"] = parameter.ifAbsent;
        row["meaning"] = parameter.meaning;
        parameters.push_back(row);
    }

    Json results = Json::array();
    for (const Result& result : request.results)
        results.push_back(
            {{"name", result.name}, {"form", formName(result.form)}, {"meaning", result.meaning}});

    return {{"name", request.name},
            {"group", request.group},
            {"summary", request.summary},
            {"parameters", parameters},
            {"results", results}};
}
