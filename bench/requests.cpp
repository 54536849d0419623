#include "requests.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <string_view>

#include "base64.h"
#include "host/catalogue/catalogue.h"

namespace {

// What requests call the data that they work on.
constexpr const char* payloadNames[] = {"strIn", "strdata", "strcipher", "srcdata", "strEncdata"};

bool isPayload(const Parameter& parameter)
{
    return std::find(std::begin(payloadNames), std::end(payloadNames),
                     std::string_view(parameter.name)) != std::end(payloadNames);
}

// A value that the plug-in takes. Keys are no real ones: no engine here reads them.
std::string accepted(const Parameter& parameter)
{
    switch (parameter.allowed.kind) {
        case Allowed::Range:
            return std::to_string(std::clamp(32, parameter.allowed.low, parameter.allowed.high));
        case Allowed::OneOf:
            return {parameter.allowed.digits[1]};  // of modes, one that takes an IV
        case Allowed::Size:
            return url64(noise(parameter.allowed.size));
        case Allowed::Any:
            break;
    }
    switch (parameter.form) {
        case Form::Path:
            return "/etc/roots.pem";
        case Form::KeyText:
            return url64(noise(1200));
        case Form::Base64:
        case Form::Base64Text:
            return url64(noise(16));
        default:
            return "1";
    }
}

RequestCase caseOf(const RequestInfo& request)
{
    RequestCase made = {request.name, "", {}};
    for (const Parameter& parameter : request.parameters) {
        if (isPayload(parameter))
            made.payloadName = parameter.name;
        else
            made.others.emplace_back(parameter.name, accepted(parameter));
    }
    return made;
}

}  // namespace

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
    static const std::vector<RequestCase> cases = [] {
        std::vector<RequestCase> made;
        for (const RequestInfo& request : catalogue())
            made.push_back(caseOf(request));
        return made;
    }();
    return cases;
}

const RequestCase& encryption()
{
    static const std::string key = url64(noise(16));
    static const RequestCase cbc = {"QZaven_crypto_encrypt",
                                    "strdata",
                                    {{"strCipherAlg", "2"},
                                     {"strMode", "2"},
                                     {"strCipherPadding", "1"},
                                     {"strKey", key},
                                     {"strIV", key}}};
    return cbc;
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
