#include "complaints.h"

#include <cctype>
#include <cstdlib>
#include <cstring>

#include "names.h"

namespace {

// clang-format off
const std::vector<ComplaintKind> kinds = {
    {"unknown",           "is not a parameter of {request}"},
    {"misspelt",          "is not a parameter of {request}; did you mean {nearest}?"},
    {"odd_name",          "has a name that no parameter has; it is not told, as it may be secret"},
    {"missing",           "is missing ({need})"},
    {"not_base64",        notBase64},
    {"looks_like_hex",    "looks like hex digits but is read as Base64 ({size} bytes); as hex digits it is {hexSize} bytes: write hex:DIGITS, by HTTP {\"hex\": DIGITS}"},
    {"unknown_name",      "is no number and no name that is known here; did you mean {nearest}?"},
    {"out_of_range",      "must be {low} to {high}"},
    {"not_one_of",        "must be one of {values}"},
    {"wrong_size",        "must be {bytes} bytes; it has {size}"},
    {"lacked_mode",       "is a mode that {cipher} does not have"},
    {"not_whole_blocks",  "must be whole blocks of {bytes} bytes; strCipherPadding=pkcs7 pads"},
    {"cut_block",         "must be whole blocks of {bytes} bytes; it has {size}"},
    {"ends_in_line_end",  "ends in a line end, which is sent as a part of it"},
};
// clang-format on

Complaint complaintOf(const std::string& code, const std::string& field, Pairs values)
{
    for (const ComplaintKind& kind : kinds)
        if (kind.code == code)
            return {field, field + " " + filled(kind.text, values), code, std::move(values)};
    return {field, field + " " + code, code, std::move(values)};
}

bool isNeeded(Need need, const Pairs& parameters)
{
    const std::string* given = findValue(parameters, "strMode");
    switch (need) {
        case Need::Always:
            return true;
        case Need::Never:
        case Need::MayInMode6:
            return false;
        case Need::UnlessMode1:
            return given == nullptr || *given != "1";
        case Need::InMode6:
            return given != nullptr && *given == "6";
    }
    return false;
}

// "0 1 3"
std::string listOf(const char* digits)
{
    std::string list;
    for (const char* digit = digits; *digit != '\0'; ++digit)
        list += std::string(list.empty() ? "" : " ") + *digit;
    return list;
}

// ---- What is not the request's.

Complaint strangerOf(const RequestInfo& request, const std::string& name)
{
    if (!isNameLike(name))
        return complaintOf("odd_name", "a parameter", {});
    std::vector<std::string> known;
    for (const Parameter& parameter : request.parameters)
        known.emplace_back(parameter.name);
    const std::string nearest = nearParameter(known, name);
    if (nearest.empty())
        return complaintOf("unknown", name, {{"request", request.name}});
    return complaintOf("misspelt", name, {{"request", request.name}, {"nearest", nearest}});
}

// ---- What the other parameters make of a value.

// The cipher or the mode that the parameters choose, null if that is not known.
const Choice* chosen(const RequestInfo& request, const Pairs& parameters, const char* name)
{
    const std::string* value = findValue(parameters, name);
    const Parameter* parameter = findParameter(request, name);
    return value == nullptr || parameter == nullptr ? nullptr : choiceOf(*parameter, *value);
}

class Surroundings {
public:
    Surroundings(const RequestInfo& request, const Pairs& parameters)
        : m_parameters(parameters),
          m_cipher(chosen(request, parameters, "strCipherAlg")),
          m_mode(chosen(request, parameters, "strMode"))
    {
    }

    // The sizes in bytes that a value may have; nothing if it may have any, or if it is not known.
    std::optional<IvSizes> sizesOf(const Allowed& allowed) const
    {
        const auto exactly = [](size_t size) { return between(size, size); };
        if (allowed.kind == Allowed::Size)
            return exactly(allowed.size);
        if (allowed.kind == Allowed::CipherKey && m_cipher != nullptr && m_cipher->keyBytes != 0)
            return exactly(m_cipher->keyBytes);
        if (allowed.kind != Allowed::ModeIv || m_mode == nullptr || !m_mode->iv)
            return std::nullopt;
        if (m_mode->iv->kind == IvSizes::Between)
            return m_mode->iv;
        const bool isBlock = m_mode->iv->kind == IvSizes::Block && m_cipher != nullptr;
        return isBlock ? exactly(m_cipher->blockBytes) : std::nullopt;
    }

    // The size of the blocks that a value must be made of; 0 for none.
    size_t blockOf(const Allowed& allowed) const
    {
        const std::string* padding = findValue(m_parameters, "strCipherPadding");
        const bool isPadded = padding != nullptr && !padding->empty() && *padding != "0";
        const bool mustFit = allowed.kind == Allowed::Blocks ||
                             (allowed.kind == Allowed::BlocksUnlessPadded && !isPadded);
        const bool isKnown = m_cipher != nullptr && m_mode != nullptr;
        return mustFit && isKnown && m_mode->takesWholeBlocks ? m_cipher->blockBytes : 0;
    }

    std::optional<Complaint> lackedMode() const
    {
        if (m_cipher == nullptr || m_mode == nullptr ||
            strstr(m_cipher->lackedModes, m_mode->value.c_str()) == nullptr)
            return std::nullopt;
        return complaintOf("lacked_mode", "strMode", {{"cipher", m_cipher->names.front()}});
    }

private:
    static std::optional<IvSizes> between(size_t least, size_t most)
    {
        return IvSizes{IvSizes::Between, least, most, least};
    }

    const Pairs& m_parameters;
    const Choice* m_cipher;
    const Choice* m_mode;
};

// ---- A value's own faults.

// How many bytes a value is if it is hex digits of one case; 0 if it cannot be.
size_t sizeOfHex(std::string_view value, size_t& numerals)
{
    value = value.substr(0, value.find_last_not_of("\r\n") + 1);
    bool hasSmall = false;
    bool hasCapital = false;
    for (const char c : value) {
        if (isxdigit(static_cast<unsigned char>(c)) == 0)
            return 0;
        numerals += c <= '9' ? 1U : 0U;
        hasSmall |= c >= 'a';
        hasCapital |= c >= 'A' && c <= 'F';
    }
    return value.size() % 2 != 0 || (hasSmall && hasCapital) ? 0 : value.size() / 2;
}

// Hex digits are Base64, too. Of random bytes in Base64 one value in 30000 is taken for hex digits
// if it has six bytes, and one in 2000 million if it has twelve, as an initial value of GCM; with
// padding none is. Zeros, and small numbers behind them, have no numerals in Base64.
// Other data than keys may be text or numbers: there a quarter must be numerals, of eight at least.
bool looksLikeHex(const Parameter& parameter, size_t hexSize, size_t numerals)
{
    if (parameter.allowed.isOftenHex)
        return hexSize >= 3 && numerals > 0;
    // Text to be decoded is no value that somebody has encoded.
    return parameter.form != Form::Base64Text && hexSize >= 4 && 2 * numerals >= hexSize;
}

std::string rangeText(const IvSizes& sizes)
{
    const std::string least = std::to_string(sizes.least);
    return sizes.least == sizes.most ? least : least + " to " + std::to_string(sizes.most);
}

void addFaultsOfBytes(std::vector<Complaint>& list, const Parameter& parameter,
                      const std::string& value, const Surroundings& surroundings)
{
    const auto size = base64Size(parameter.form, value);
    if (!size) {
        list.push_back(complaintOf("not_base64", parameter.name, {}));
        return;
    }
    const std::string sizeText = std::to_string(*size);
    const auto due = surroundings.sizesOf(parameter.allowed);
    if (due && (*size < due->least || *size > due->most))
        list.push_back(complaintOf("wrong_size", parameter.name,
                                   {{"bytes", rangeText(*due)}, {"size", sizeText}}));
    size_t numerals = 0;
    const size_t hexSize = sizeOfHex(value, numerals);
    if (looksLikeHex(parameter, hexSize, numerals))
        list.push_back(complaintOf("looks_like_hex", parameter.name,
                                   {{"size", sizeText}, {"hexSize", std::to_string(hexSize)}}));

    const size_t block = surroundings.blockOf(parameter.allowed);
    if (block != 0 && *size % block != 0)
        list.push_back(complaintOf(
            parameter.allowed.kind == Allowed::Blocks ? "cut_block" : "not_whole_blocks",
            parameter.name, {{"bytes", std::to_string(block)}, {"size", sizeText}}));
}

void addFaultsOfText(std::vector<Complaint>& list, const Parameter& parameter,
                     const std::string& value)
{
    const Allowed& allowed = parameter.allowed;
    const bool isNumber = value.find_first_not_of("0123456789+- \t\r\n") == std::string::npos;
    if (!isNumber && !parameter.choices.empty()) {
        list.push_back(complaintOf("unknown_name", parameter.name,
                                   {{"nearest", nearestChoices(parameter, value)}}));
    } else if (allowed.kind == Allowed::OneOf) {
        if (value.size() != 1 ||
            std::string_view(allowed.digits).find(value) == std::string_view::npos)
            list.push_back(
                complaintOf("not_one_of", parameter.name, {{"values", listOf(allowed.digits)}}));
    } else if (allowed.kind == Allowed::Range) {
        const long number = strtol(value.c_str(), nullptr, 10);
        if (number < allowed.low || number > allowed.high)
            list.push_back(complaintOf(
                "out_of_range", parameter.name,
                {{"low", std::to_string(allowed.low)}, {"high", std::to_string(allowed.high)}}));
    } else if (allowed.kind == Allowed::OneLine && value.find_last_of("\r\n") == value.size() - 1) {
        list.push_back(complaintOf("ends_in_line_end", parameter.name, {}));
    }
}

}  // namespace

const std::vector<ComplaintKind>& complaintKinds()
{
    return kinds;
}

std::vector<Complaint> complaints(const RequestInfo& request, const Pairs& parameters)
{
    std::vector<Complaint> list;
    for (const auto& given : parameters)
        if (findParameter(request, given.first) == nullptr)
            list.push_back(strangerOf(request, given.first));

    const Surroundings surroundings(request, parameters);
    for (const Parameter& parameter : request.parameters) {
        const std::string* value = findValue(parameters, parameter.name);
        if (value == nullptr || value->empty()) {
            if (isNeeded(parameter.need, parameters))
                list.push_back(
                    complaintOf("missing", parameter.name, {{"need", needText(parameter.need)}}));
        } else if (isBase64(parameter.form)) {
            addFaultsOfBytes(list, parameter, *value, surroundings);
        } else {
            addFaultsOfText(list, parameter, *value);
        }
    }
    if (auto lacked = surroundings.lackedMode())
        list.push_back(*std::move(lacked));
    return list;
}
