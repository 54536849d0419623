#include "request_calls.h"

#include <cstdlib>
#include <cstring>

#include "engine_interface.h"
#include "fuzz.h"
#include "oracles.h"

namespace fuzz {

namespace {

// An argument of the engine and the parameter that it comes from, in the requests that have
// it. A function's row goes before those of all functions.
struct Origin {
    const char* function;  // "" for all
    const char* argument;
    const char* parameter;
};

const Origin origins[] = {
    {"aven_crypto_gen_symmkey", "type", "strCipherAlg"},
    {"aven_keypair_unmarshal", "type", "strKeyPairType"},
    {"aven_crypto_encrypt", "tag_len", "strgcmTagLen"},
    {"aven_crypto_decrypt", "tag", "strtag"},
    {"aven_crypto_kdf", "out_len", "OutLen"},
    {"aven_crypto_kdf", "alg", "HashType"},
    {"aven_crypto_hmac", "params.alg", "strHashAlg"},
    {"aven_strerror", "code", "strErr"},
    {"", "ke", "strKe"},
    {"", "in", "strIn"},
    {"", "in", "strdata"},
    {"", "in", "strcipher"},
    {"", "in", "srcdata"},
    {"", "in", "strEncdata"},
    {"", "sig_key", "strSig_key"},
    {"", "enc_key", "strEnc_key"},
    {"", "sig_cert", "strSig_cert"},
    {"", "enc_cert", "strEnc_cert"},
    {"", "password", "strPassword"},
    {"", "ca_file", "strCa_file"},
    {"", "ca_path", "strCa_path"},
    {"", "srvr_rand", "strSrvr_rand"},
    {"", "srvr_sig_cert", "strSrvr_sig_cert"},
    {"", "srvr_enc_cert", "strSrvr_enc_cert"},
    {"", "srvr_sign", "strSrvr_sign"},
    {"", "private_key", "strsk"},
    {"", "public_key", "strpk"},
    {"", "cert", "strpk"},
    {"", "key", "strKey"},
    {"", "iv", "strIV"},
    {"", "params.alg", "strCipherAlg"},
    {"", "params.mode", "strMode"},
    {"", "params.padding", "strCipherPadding"},
    {"", "params.rsa_padding_e", "strRsaPaddingE"},
    {"", "params.no_asn1", "strnoAsn1"},
    {"", "params.no_c1c3c2", "strnoc1c3c2"},
    {"", "params.key", "strKey"},
    {"", "params.iv", "strIV"},
    {"", "params.aad", "straad"},
};

bool isText(const Parameter& parameter)
{
    return parameter.form == Form::Path || strcmp(parameter.name, "strPassword") == 0;
}

// The bytes that the engine gets for a value.
std::string asGiven(const Parameter& parameter, const std::string& value)
{
    switch (parameter.form) {
        case Form::Base64:
            return base64Decoded(fromUrl(value));
        case Form::Base64Text:
        case Form::KeyText:
            return fromUrl(value);
        default:
            return isText(parameter) ? value.c_str() : value;
    }
}

bool isNumber(const Parameter& parameter)
{
    return parameter.allowed.kind == Allowed::Range || parameter.allowed.kind == Allowed::OneOf ||
           parameter.form == Form::Handle || strcmp(parameter.name, "strErr") == 0;
}

void checkNumber(const doubles::Argument& argument, const Parameter& parameter,
                 const std::string& value)
{
    const Allowed& allowed = parameter.allowed;
    const long number = atol((value.empty() ? parameter.ifAbsent : value).c_str());
    HOLDS(argument.number == (parameter.form == Form::Handle ? number : static_cast<int>(number)));
    if (allowed.kind == Allowed::Range)
        HOLDS(number >= allowed.low && number <= allowed.high);
    if (allowed.kind == Allowed::OneOf && !value.empty())
        HOLDS(value.size() == 1 && strchr(allowed.digits, value[0]) != nullptr);
}

// Of bytes and texts. Those that a mode does not need must not be given.
void checkBytes(const doubles::Call& call, const doubles::Argument& argument,
                const Parameter& parameter, const std::string& value)
{
    const doubles::Argument* mode = find(call, "params.mode");
    if (mode != nullptr && ((parameter.need == Need::UnlessMode1 && mode->number == 1) ||
                            (parameter.need == Need::InMode6 && mode->number != 6))) {
        HOLDS(argument.null && argument.number == 0);
        return;
    }
    const std::string expected = asGiven(parameter, value);
    // Keys and texts that are empty are not given at all; other bytes always have a place.
    if (isText(parameter) || parameter.form == Form::KeyText)
        HOLDS(argument.null == value.empty());
    else
        HOLDS(!argument.null);
    HOLDS(argument.bytes == expected);
    if (parameter.allowed.kind == Allowed::Size)
        HOLDS(expected.size() == parameter.allowed.size);
}

void checkOrigin(const doubles::Call& call, const doubles::Argument& argument,
                 const SentRequest& sent)
{
    bool isKnown = false;
    for (const Origin& origin : origins) {
        if (argument.name != origin.argument ||
            (*origin.function != '\0' && call.function != origin.function))
            continue;
        isKnown = true;
        const Parameter* parameter = findParameter(*sent.info, origin.parameter);
        if (parameter == nullptr)
            continue;
        if (isNumber(*parameter))
            checkNumber(argument, *parameter, sent.value(origin.parameter));
        else
            checkBytes(call, argument, *parameter, sent.value(origin.parameter));
        return;
    }
    HOLDS(!isKnown || (argument.null && argument.number == 0));
}

// The output buffer, and what a function asks of its size.
void checkRoom(const doubles::Call& call)
{
    const doubles::Argument* out = find(call, "out");
    if (out == nullptr)
        return;
    const std::string& name = call.function;
    const long long room = call["out_len"].number;
    if (out->null) {
        HOLDS(name == "aven_crypto_base64_encode" || name == "aven_crypto_base64_decode" ||
              name == "aven_ke_hmac" || name == "aven_ke_cmac");
        HOLDS(room == 0);
        return;
    }
    HOLDS(out->zeroed);
    if (name == "aven_ke_client_hello")
        HOLDS(room == 32);
    if (name == "aven_ke_client_key_exchange")
        HOLDS(room == 256);
    if (name == "aven_ke_encrypt")
        HOLDS(room >= call["in_len"].number + 28);
    if (name == "aven_ke_decrypt" || name == "aven_crypto_decrypt" ||
        name == "aven_wbsm4_encrypt" || name == "aven_wbsm4_decrypt")
        HOLDS(room >= call["in_len"].number);
}

// Null, or given out and not freed.
void checkObject(const doubles::Argument* object, const doubles::Objects& objects)
{
    HOLDS(object == nullptr || object->null ||
          objects.live.count(reinterpret_cast<void*>(object->number)) == 1);
}

}  // namespace

std::string SentRequest::value(const std::string& name) const
{
    const std::string* found = findValue(parameters, name);
    if (found == nullptr)
        return "";
    return found->substr(0, toldLength < 0 ? std::string::npos : static_cast<size_t>(toldLength));
}

const doubles::Argument* find(const doubles::Call& call, const std::string& name)
{
    for (const doubles::Argument& argument : call.arguments)
        if (argument.name == name)
            return &argument;
    return nullptr;
}

void checkCall(const doubles::Call& call, const SentRequest& sent,
               const doubles::EngineDouble& engine)
{
    HOLDS(sent.info != nullptr);
    const std::string& name = call.function;
    const bool hasTag =
        name != "aven_crypto_encrypt" || call["params.mode"].number == AVEN_MODE_GCM;
    for (const doubles::Argument& argument : call.arguments) {
        HOLDS(argument.name != "params" || !argument.null);
        if (name != "aven_ke_new" && (hasTag || argument.name != "tag_len"))
            checkOrigin(call, argument, sent);
    }
    checkRoom(call);
    if (name == "aven_crypto_encrypt")
        HOLDS(call["tag"].null != hasTag && (hasTag || call["tag_len"].number == 0));
    if (name == "aven_keypair_unmarshal")
        HOLDS(call["private_key"].null != call["public_key"].null);
    if (const doubles::Argument* kind = find(call, "kind"))
        HOLDS(kind->number == 1);

    const doubles::Argument* keypair = find(call, "params.keypair");
    const doubles::Argument* certificate = find(call, "params.certificate");
    checkObject(keypair, engine.keypairs);
    checkObject(certificate, engine.certificates);
    HOLDS(keypair == nullptr || certificate == nullptr || keypair->null || certificate->null);
}

}  // namespace fuzz
