#include "replay/random_request.h"

#include <climits>
#include <iterator>

#include "support/base64_text.h"
#include "support/request_rows.h"

namespace replay {

namespace {

using support::Answer;
using support::toUrlBase64;

// Numbers by which everything is chosen (splitmix64). In C++ the order in which an expression's
// parts are computed is the compiler's, so that no expression here draws twice.
class Random {
public:
    explicit Random(uint64_t seed) : m_state(seed) {}

    uint64_t next()
    {
        m_state += 0x9E3779B97F4A7C15U;
        uint64_t z = m_state;
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9U;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBU;
        return z ^ (z >> 31);
    }

    size_t below(size_t count) { return static_cast<size_t>(next() % count); }
    bool oneIn(size_t count) { return below(count) == 0; }
    int between(int low, int high)
    {
        return low + static_cast<int>(below(static_cast<size_t>(high - low) + 1));
    }

    template <class List>
    const auto& of(const List& list)
    {
        return list[below(std::size(list))];
    }

private:
    uint64_t m_state;
};

// What a parameter is, for a value that is likely to be right. Nothing is expected of it.
enum class Kind { Base64, Block, Text, Handle, Number, Digit };

struct ParameterRow {
    const char* name;
    Kind kind;
    const char* digits;  // of Digit
    int low, high;       // of Number
};

const ParameterRow parameterRows[] = {
    {"strErr", Kind::Number, "", -20300, 20300},
    {"strKe", Kind::Handle, "", 0, 0},
    {"strPassword", Kind::Text, "", 0, 0},
    {"strCa_file", Kind::Text, "", 0, 0},
    {"strCa_path", Kind::Text, "", 0, 0},
    {"srcdata", Kind::Text, "", 0, 0},
    {"strKeyPairType", Kind::Digit, "13", 0, 0},
    {"strRsaPaddingE", Kind::Digit, "01", 0, 0},
    {"strnoAsn1", Kind::Digit, "01", 0, 0},
    {"strnoc1c3c2", Kind::Digit, "01", 0, 0},
    {"strCipherPadding", Kind::Digit, "01", 0, 0},
    {"strMode", Kind::Digit, "123456", 0, 0},
    {"strCipherAlg", Kind::Number, "", 1, 7},
    {"strHashAlg", Kind::Number, "", 1, 6},
    {"HashType", Kind::Number, "", 0, 6},
    {"strgcmTagLen", Kind::Number, "", 4, 16},
    {"OutLen", Kind::Number, "", 0, 0xFFFF},
    {"strKey", Kind::Block, "", 0, 0},
    {"strIV", Kind::Block, "", 0, 0},
};
const ParameterRow otherParameter = {"", Kind::Base64, "", 0, 0};

const ParameterRow& rowOf(const std::string& name)
{
    for (const ParameterRow& row : parameterRows)
        if (name == row.name)
            return row;
    return otherParameter;
}

// Around the sizes of groups, blocks and vectors; now and then any up to some thousands.
size_t length(Random& random)
{
    constexpr size_t edges[] = {0,  1,  2,  3,  4,  5,  11, 12, 13, 15, 16,  17,  23,  24,  25,
                                31, 32, 33, 47, 48, 49, 63, 64, 65, 95, 127, 128, 129, 255, 256};
    switch (random.below(16)) {
        case 0:
            return random.below(4096);
        case 1:
        case 2:
        case 3:
        case 4:
            return random.below(64);
        default:
            return random.of(edges);
    }
}

const std::string letters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
// Its NUL is one of them.
constexpr char oddCharacters[] = "\n\r\t +-/_=%*.,;:\"'\\{}~\x7F\x80\xC3\xA9\xFE\xFF";

std::string bytes(Random& random, size_t count)
{
    const size_t style = random.below(3);
    std::string text(count, '\0');
    for (char& c : text) {
        if (style == 0)
            c = static_cast<char>(random.below(256));
        else
            c = random.of(style == 1 ? letters : oddCharacters);
    }
    return text;
}

// In either alphabet, not always padded.
std::string base64(Random& random, size_t count)
{
    std::string text = toUrlBase64(bytes(random, count));
    if (random.oneIn(2))
        text = support::fromUrl(std::move(text));
    if (random.oneIn(4))
        while (!text.empty() && text.back() == '=')
            text.pop_back();
    return text;
}

std::string rightValue(Random& random, const ParameterRow& row)
{
    switch (row.kind) {
        case Kind::Base64:
            return base64(random, length(random));
        case Kind::Block:
            return base64(random, 16);
        case Kind::Text:
            return bytes(random, length(random));
        case Kind::Handle: {
            const uint64_t bits = random.next();
            return std::to_string(bits >> random.between(1, 63));
        }
        case Kind::Number:
            if (random.oneIn(4))
                return std::to_string(random.oneIn(2) ? row.low : row.high);
            return std::to_string(random.between(row.low, row.high));
        case Kind::Digit:
            return std::string(1, random.of(std::string(row.digits)));
    }
    return "";
}

std::string oddNumber(Random& random, const ParameterRow& row)
{
    const int64_t numbers[] = {row.low - 1, row.low,   row.high,   row.high + 1, 0,
                               -1,          INT_MAX,   INT_MIN,    UINT_MAX,     INT64_MAX,
                               INT64_MIN,   1LL << 32, 0x100000001};
    const char* const before[] = {"", "", "", "0", "+", " ", "\t\n", "x", "-", "\xEF\xBC\x91"};
    const char* const behind[] = {"", "", "", " ", "x", ".0", "\n", "e3", ",5", "9"};
    std::string text = random.of(before);
    text += std::to_string(random.of(numbers));
    text += random.of(behind);
    if (random.oneIn(16))
        text += '\0';
    return text;
}

// With a few characters more, less or others.
std::string changed(Random& random, std::string text)
{
    for (size_t changes = 1 + random.below(3); changes > 0; --changes) {
        const size_t place = random.below(text.size() + 1);
        const char c = random.of(oddCharacters);
        const size_t how = random.below(3);
        if (how == 0 || place == text.size())
            text.insert(place, 1, c);
        else if (how == 1)
            text[place] = c;
        else
            text.erase(place, 1);
    }
    return text;
}

// Stores a value that is wrong in some way, or none.
void storeWrong(Random& random, const std::string& name, doubles::Pairs& parameters)
{
    const ParameterRow& row = rowOf(name);
    std::string value;
    switch (random.below(8)) {
        case 0:
            return;
        case 1:
            break;
        case 2:
            value = bytes(random, length(random));
            break;
        case 3:
            value = base64(random, length(random));
            break;
        case 4:
            value = rightValue(random, random.of(parameterRows));
            break;
        case 5:
        case 6:
            value = oddNumber(random, row);
            break;
        default:
            value = changed(random, rightValue(random, row));
    }
    parameters.emplace_back(name, value);
}

doubles::Pairs randomParameters(Random& random, const std::vector<std::string>& names)
{
    enum { AllRight, AllButOneRight, SomeWrong };
    constexpr int ways[] = {AllRight,       AllRight,       AllRight,
                            AllButOneRight, AllButOneRight, SomeWrong};
    const int way = random.of(ways);
    const size_t wrong = names.empty() ? 0 : random.below(names.size());
    doubles::Pairs parameters;
    for (size_t i = 0; i < names.size(); ++i) {
        if (way == SomeWrong ? random.oneIn(3) : way == AllButOneRight && i == wrong)
            storeWrong(random, names[i], parameters);
        else
            parameters.emplace_back(names[i], rightValue(random, rowOf(names[i])));
    }
    if (random.oneIn(16))
        parameters.emplace_back("nobodyReadsThis", bytes(random, 3));
    return parameters;
}

Answer randomAnswer(Random& random)
{
    constexpr int codes[] = {1, -1, 7, -20000, -20001, -20084, -20215, 4096, INT_MAX, INT_MIN};
    Answer answer;
    if (random.oneIn(6))
        answer.code = random.of(codes);
    answer.length = static_cast<unsigned>(length(random));
    answer.how = random.oneIn(12) ? 1 : 0;
    return answer;
}

}  // namespace

RandomRequest randomRequest(size_t number)
{
    Random random(number);
    RandomRequest request;
    const support::RequestRow& row = random.of(support::requestRows);
    request.name = random.oneIn(30) ? changed(random, row.name) : row.name;
    request.parameters = randomParameters(random, row.read);
    for (size_t count = random.below(5); count > 0; --count)
        request.answers.push_back(randomAnswer(random));
    if (random.oneIn(40))
        request.toldLength = static_cast<long>(length(random));
    return request;
}

// A fifth of the blocks, each engine in turn.
std::string engineOf(size_t number)
{
    const size_t block = number / BLOCK;
    if (block % 5 != 4)
        return "";
    const std::vector<std::string> functions = doubles::engineFunctions();
    const size_t place = block / 5 % (functions.size() + 1);
    return place < functions.size() ? functions[place] : "none";
}

}  // namespace replay
