#include "nodes.h"

#include <sys/random.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

#include "common/codec.h"

namespace {

constexpr size_t longestNode = 63;
constexpr std::string_view beginning = "ke_";

constexpr size_t randomBytes = 24;
constexpr size_t randomCharacters = randomBytes / 3 * 4;

bool isLetterOrDigit(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
}

bool isRandom(std::string_view text)
{
    return text.size() == randomCharacters && std::all_of(text.begin(), text.end(), [](char c) {
               return isLetterOrDigit(c) || (c >= 'A' && c <= 'Z') || c == '-' || c == '_';
           });
}

}  // namespace

bool isNodeName(std::string_view text)
{
    return !text.empty() && text.size() <= longestNode && isLetterOrDigit(text.front()) &&
           isLetterOrDigit(text.back()) && std::all_of(text.begin(), text.end(), [](char c) {
               return isLetterOrDigit(c) || c == '-';
           });
}

SecretText makeSessionToken(const std::string& node)
{
    std::array<char, randomBytes> random;
    if (getrandom(random.data(), random.size(), 0) != static_cast<ssize_t>(random.size()))
        throw std::system_error(errno, std::generic_category(), "no random bytes");
    SecretText token(beginning);
    appendSecret(token, node + (node.empty() ? "" : "."));
    appendSecret(token, SecretText(toUrlBase64({random.data(), random.size()})));
    explicit_bzero(random.data(), random.size());
    return token;
}

std::optional<std::string_view> nodeOfSession(std::string_view token)
{
    if (token.substr(0, beginning.size()) != beginning)
        return std::nullopt;
    const std::string_view behind = token.substr(beginning.size());
    const size_t dot = behind.find('.');
    if (dot == std::string_view::npos)
        return isRandom(behind) ? std::optional(std::string_view()) : std::nullopt;
    const std::string_view node = behind.substr(0, dot);
    return isNodeName(node) && isRandom(behind.substr(dot + 1)) ? std::optional(node)
                                                                : std::nullopt;
}
