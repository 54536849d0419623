#include "names.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <limits>
#include <numeric>

namespace {

// Longer texts are no names, and are not compared with any.
constexpr size_t mostOfName = 64;

char small(char c)
{
    return static_cast<char>(tolower(static_cast<unsigned char>(c)));
}

bool isSkipped(char c)
{
    constexpr std::string_view skipped = "-_./# ";
    return skipped.find(c) != skipped.npos;
}

bool isSameName(std::string_view a, std::string_view b)
{
    size_t i = 0;
    size_t j = 0;
    for (;;) {
        while (i < a.size() && isSkipped(a[i]))
            ++i;
        while (j < b.size() && isSkipped(b[j]))
            ++j;
        if (i == a.size() || j == b.size())
            return i == a.size() && j == b.size();
        if (small(a[i++]) != small(b[j++]))
            return false;
    }
}

// Digits behind a sign, with blanks or line ends around them, as files may have.
bool isWholeNumber(std::string_view value)
{
    constexpr std::string_view blanks = " \t\r\n";
    const size_t begin = value.find_first_not_of(blanks);
    if (begin == value.npos)
        return false;
    value = value.substr(begin, value.find_last_not_of(blanks) + 1 - begin);
    if (value.front() == '+' || value.front() == '-')
        value.remove_prefix(1);
    return !value.empty() && value.find_first_not_of("0123456789") == value.npos;
}

// Nearly all names of parameters begin alike, which says nothing of what was meant.
std::string_view withoutPrefix(std::string_view name)
{
    constexpr std::string_view prefix = "str";
    const bool has =
        name.size() > prefix.size() && editDistance(name.substr(0, prefix.size()), prefix) == 0;
    return has ? name.substr(prefix.size()) : name;
}

// "rsa" and "oaep" of "rsa-oaep".
std::vector<std::string> partsOf(std::string_view word)
{
    std::vector<std::string> parts(1);
    for (const char c : word)
        if (!isSkipped(c))
            parts.back() += c;
        else if (!parts.back().empty())
            parts.emplace_back();
    if (parts.back().empty())
        parts.pop_back();
    return parts;
}

// Whether a folded word is one of the text's, or the beginning of one, or of several.
bool hasWord(std::string_view text, std::string_view folded)
{
    const auto is = [&](size_t at, int (*kind)(int)) {
        return kind(static_cast<unsigned char>(text[at])) != 0;
    };
    for (size_t at = 0; at < text.size(); ++at) {
        const bool begins =
            at == 0 || !is(at - 1, isalnum) || (is(at, isupper) && is(at - 1, islower));
        if (begins && foldedName(text.substr(at)).compare(0, folded.size(), folded) == 0)
            return true;
    }
    return false;
}

// The choices whose names have a folded text within them, by the names that are shown.
std::vector<std::string> namesHolding(const Parameter& parameter, const std::string& folded)
{
    constexpr size_t fewest = 2;  // characters that tell anything
    std::vector<std::string> names;
    for (const Choice& choice : parameter.choices)
        if (folded.size() >= fewest &&
            std::any_of(choice.names.begin(), choice.names.end(), [&](const std::string& name) {
                return foldedName(name).find(folded) != std::string::npos;
            }))
            names.push_back(choice.names.front());
    return names;
}

// The first of the catalogue's parameters of that name, or null.
const Parameter* parameterOfSome(const std::string& name)
{
    for (const RequestInfo& request : catalogue())
        if (const Parameter* parameter = findParameter(request, name))
            return parameter;
    return nullptr;
}

}  // namespace

std::string anyOf(const std::vector<std::string>& names)
{
    std::string text;
    for (size_t i = 0; i < names.size(); ++i)
        text += (i == 0 ? "" : i + 1 == names.size() ? " or " : ", ") + names[i];
    return text;
}

std::string didYouMean(const std::string& name)
{
    return name.empty() ? "" : "; did you mean " + name + "?";
}

std::string foldedName(std::string_view name)
{
    std::string folded;
    for (const char c : name)
        if (!isSkipped(c))
            folded += small(c);
    return folded;
}

const std::string* numberNamed(const RequestInfo* request, const std::string& parameter,
                               Given given, std::string_view value)
{
    if (request == nullptr || given != Given::Plain || value.empty() || value.size() > mostOfName)
        return nullptr;
    const Parameter* known = findParameter(*request, parameter);
    if (known == nullptr)
        return nullptr;
    for (const Choice& choice : known->choices)
        for (const std::string& name : choice.names)
            if (isSameName(name, value))
                return &choice.value;
    return nullptr;
}

std::optional<NoNumber> noNumber(const RequestInfo* request, const std::string& parameter,
                                 Given given, std::string_view value)
{
    const Parameter* known = request == nullptr ? nullptr : findParameter(*request, parameter);
    if (known == nullptr || given != Given::Plain || value.empty() || isWholeNumber(value) ||
        (known->allowed.kind != Allowed::Range && known->allowed.kind != Allowed::OneOf))
        return std::nullopt;
    return NoNumber{known->choices.empty() ? "" : nearestChoices(*known, value),
                    allowedText(known->allowed)};
}

const Choice* choiceOf(const Parameter& parameter, const std::string& number)
{
    const long wanted = strtol(number.c_str(), nullptr, 10);
    for (const Choice& choice : parameter.choices)
        if (strtol(choice.value.c_str(), nullptr, 10) == wanted)
            return &choice;
    return nullptr;
}

std::string nearestChoices(const Parameter& parameter, std::string_view name)
{
    const std::string wanted = foldedName(name.substr(0, mostOfName));
    const std::vector<std::string> holding = namesHolding(parameter, wanted);
    if (!holding.empty())
        return anyOf(holding);
    std::string nearest;
    size_t least = std::numeric_limits<size_t>::max();
    for (const Choice& choice : parameter.choices)
        for (const std::string& known : choice.names) {
            const std::string folded = foldedName(known);
            // "aes-256-cbc" is nearer to "aes-256" than their lengths tell.
            const bool isPart = wanted.find(folded) != wanted.npos;
            const size_t distance = editDistance(folded, wanted) + (isPart ? 0 : mostOfName);
            if (distance < least) {
                nearest = choice.names.front();
                least = distance;
            }
        }
    return nearest;
}

std::string nearParameter(const std::vector<std::string>& known, const std::string& name)
{
    if (name.size() > mostOfName)
        return "";
    const std::string_view wanted = withoutPrefix(name);
    std::string nearest;
    size_t least = mostOfName;
    for (const std::string& one : known) {
        const std::string_view rest = withoutPrefix(one);
        const size_t distance = editDistance(rest, wanted);
        if (distance < least && 2 * distance <= rest.size()) {
            nearest = one;
            least = distance;
        }
    }
    return nearest;
}

size_t editDistance(std::string_view a, std::string_view b)
{
    const auto same = [&](size_t i, size_t j) { return small(a[i]) == small(b[j]); };
    std::vector<size_t> before(b.size() + 1);
    std::vector<size_t> row(b.size() + 1);
    std::vector<size_t> next(b.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 0; i < a.size(); ++i) {
        next[0] = i + 1;
        for (size_t j = 0; j < b.size(); ++j) {
            next[j + 1] = std::min({row[j + 1] + 1, next[j] + 1, row[j] + (same(i, j) ? 0 : 1)});
            if (i > 0 && j > 0 && same(i, j - 1) && same(i - 1, j))
                next[j + 1] = std::min(next[j + 1], before[j - 1] + 1);
        }
        before.swap(row);
        row.swap(next);
    }
    return row.back();
}

bool isAbout(const RequestInfo& request, const std::vector<std::string>& words)
{
    std::vector<std::string_view> said = {request.name, request.summary, request.group,
                                          request.keywords};
    for (const Parameter& parameter : request.parameters) {
        said.push_back(withoutPrefix(parameter.name));
        for (const Choice& choice : parameter.choices)
            said.insert(said.end(), choice.names.begin(), choice.names.end());
    }
    const auto isSaid = [&](std::string_view word) {
        return std::any_of(said.begin(), said.end(),
                           [&](std::string_view text) { return hasWord(text, foldedName(word)); });
    };
    return std::all_of(words.begin(), words.end(), [&](const std::string& word) {
        if (isSaid(word))
            return true;
        const std::vector<std::string> parts = partsOf(word);
        return parts.size() > 1 && std::all_of(parts.begin(), parts.end(), isSaid);
    });
}

Choices choicesAbout(const Parameter& parameter, const std::vector<std::string>& words)
{
    Choices found;
    for (const Choice& choice : parameter.choices)
        if (std::any_of(words.begin(), words.end(), [&](const std::string& word) {
                return std::any_of(
                    choice.names.begin(), choice.names.end(),
                    [&](const std::string& name) { return hasWord(name, foldedName(word)); });
            }))
            found.push_back(choice);
    return found;
}

bool isNameLike(std::string_view text)
{
    return !text.empty() && text.size() <= mostOfName &&
           std::all_of(text.begin(), text.end(), [](char c) {
               return isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
           });
}

std::string toldName(const std::string& name)
{
    return isNameLike(name) ? name : "a name";
}

bool isParameterName(const std::string& text)
{
    return parameterOfSome(text) != nullptr;
}

const Allowed* numbersOf(const std::string& parameter)
{
    const Parameter* known = parameterOfSome(parameter);
    if (known == nullptr)
        return nullptr;
    const Allowed& allowed = known->allowed;
    return allowed.kind == Allowed::Range || allowed.kind == Allowed::OneOf ? &allowed : nullptr;
}
