// What the operator configures: what is read is of its form, and reads the same when it is written
// again; what is refused is refused in one printable line, or with the name of the file, and
// nothing that a token's file holds is in it. Input:
// one byte that chooses a reader (0 the token's file, 1 trusted proxies, 2 nodes and session
// tokens, 3 the options of the service, 4 a file of names, 5 a file of parameters), then its text.

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <sstream>

#include "common/codec.h"
#include "common/descriptor.h"
#include "fuzz.h"
#include "host/known_names.h"
#include "host/output.h"
#include "host/parameters.h"
#include "oracles.h"
#include "service/operation/authorization.h"
#include "service/operation/bearer_tokens.h"
#include "service/operation/nodes.h"
#include "service/operation/options.h"
#include "service/operation/token_file.h"
#include "service/operation/trusted_proxies.h"

namespace {

using Json = nlohmann::ordered_json;

// ---- Files.

// A file in memory.
class File {
public:
    explicit File(const std::string& content) : m_file(memfd_create("file", MFD_CLOEXEC))
    {
        HOLDS(write(m_file.get(), content.data(), content.size()) ==
              static_cast<ssize_t>(content.size()));
        HOLDS(fchmod(m_file.get(), S_IRUSR | S_IWUSR) == 0);
    }

    std::string path() const { return "/proc/self/fd/" + std::to_string(m_file.get()); }
    // One more opening of it.
    int open() const { return ::open(path().c_str(), O_RDONLY | O_CLOEXEC); }

private:
    const Descriptor m_file;
};

// Links, as the path above is one, are not followed to a token: it is opened by this name.
const std::string tokenPath = "token-file";
const File* tokenFile = nullptr;

}  // namespace

extern "C" int __real_open(const char* path, int flags, ...);

extern "C" int __wrap_open(const char* path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const unsigned mode = (flags & O_CREAT) != 0 ? va_arg(arguments, unsigned) : 0;
    va_end(arguments);
    return path == tokenPath ? tokenFile->open() : __real_open(path, flags, mode);
}

namespace {

// ---- Refusals.

// What a reader refuses with; "" if it does not.
template <class Read>
std::string refusalOf(const Read& read)
{
    try {
        read();
        return "";
    } catch (const UsageError& e) {
        const std::string text = e.what();
        HOLDS(!text.empty());
        return text;
    }
}

bool isOneLine(const std::string& text)
{
    return text.size() < 400 && isUtf8(text) && std::none_of(text.begin(), text.end(), [](char c) {
               return static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
           });
}

// ---- The token's file.

// What it says of a file is the same for any other that is none.
std::string refusalOfToken(const std::string& content)
{
    const File file(content);
    tokenFile = &file;
    return refusalOf([] { readToken(tokenPath); });
}

std::optional<std::string> tokenOracle(const std::string& content)
{
    static const std::regex token("([-._~+/=A-Za-z0-9]{32,512})[\r\n]*");
    constexpr size_t mostRead = 514;
    std::smatch match;
    const std::string head = content.substr(0, mostRead);
    return std::regex_match(head, match, token) ? std::optional(match.str(1)) : std::nullopt;
}

void checkToken(const std::string& content)
{
    const auto expected = tokenOracle(content);
    const std::string refusal = refusalOfToken(content);
    HOLDS(expected.has_value() == refusal.empty());
    if (!expected) {
        HOLDS(refusal == refusalOfToken("x") || refusal == refusalOfToken(""));
        HOLDS(isOneLine(refusal) && refusal.find(tokenPath) != std::string::npos);
        return;
    }
    const File file(content);
    tokenFile = &file;
    BearerTokens tokens({tokenPath});
    HOLDS(tokens.text() == *expected);
    const auto isShown = [&](const std::string& shown) {
        return tokens.isShownBy("bEARER " + shown);
    };
    const auto checkShown = [&] {
        HOLDS(isShown(*expected));
        HOLDS(!isShown(*expected + "a") && !isShown(*expected + *expected));
        HOLDS(!isShown(expected->substr(1)) && !isShown(expected->substr(0, expected->size() - 1)));
        HOLDS(!isShown("") && !tokens.isShownBy(*expected));
        for (const size_t place : {size_t{0}, expected->size() / 2, expected->size() - 1}) {
            std::string other = *expected;
            other[place] = static_cast<char>(other[place] ^ 1);
            HOLDS(!isShown(other));
        }
    };
    checkShown();
    HOLDS(!tokens.reload());
    const File bad("x");
    tokenFile = &bad;
    HOLDS(!refusalOf([&] { tokens.reload(); }).empty());
    checkShown();
}

// ---- Addresses.

// As IPv6 has it.
std::optional<std::array<unsigned char, 16>> addressOracle(const std::string& text)
{
    std::array<unsigned char, 16> bytes = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
    if (text.find('\0') != std::string::npos)
        return std::nullopt;
    if (inet_pton(AF_INET, text.c_str(), bytes.data() + 12) == 1 ||
        inet_pton(AF_INET6, text.c_str(), bytes.data()) == 1)
        return bytes;
    return std::nullopt;
}

struct NetworkOracle {
    bool isUnix = false;
    std::array<unsigned char, 16> bytes = {};
    unsigned bits = 0;

    bool has(const std::optional<std::array<unsigned char, 16>>& address) const
    {
        if (!address || isUnix)
            return isUnix && !address;
        for (unsigned bit = 0; bit < bits; ++bit)
            if ((((*address)[bit / 8] ^ bytes[bit / 8]) & (0x80 >> bit % 8)) != 0)
                return false;
        return true;
    }
};

std::optional<NetworkOracle> networkOracle(const std::string& text)
{
    static const std::regex form("([^/]*)(/([0-9]{1,3}))?");
    std::smatch match;
    NetworkOracle network;
    network.isUnix = text == "unix";
    if (network.isUnix)
        return network;
    if (!std::regex_match(text, match, form) || !addressOracle(match.str(1)))
        return std::nullopt;
    network.bytes = *addressOracle(match.str(1));
    const bool isIpv4 = text.find(':') == std::string::npos;
    const unsigned most = isIpv4 ? 32 : 128;
    network.bits = match[3].matched ? static_cast<unsigned>(std::stoul(match.str(3))) : most;
    if (network.bits > most)
        return std::nullopt;
    network.bits += isIpv4 ? 96 : 0;
    // One that has all addresses of a kind is refused.
    const bool isMapped = network.bytes[10] == 0xFF && network.bytes[11] == 0xFF &&
                          std::all_of(network.bytes.begin(), network.bytes.begin() + 10,
                                      [](unsigned char byte) { return byte == 0; });
    return network.bits > (isMapped ? 96 : 0) ? std::optional(network) : std::nullopt;
}

std::string trimmedOracle(const std::string& text)
{
    const size_t begin = text.find_first_not_of(" \t");
    return begin == std::string::npos
               ? ""
               : text.substr(begin, text.find_last_not_of(" \t") + 1 - begin);
}

// Of a list of clients.
std::optional<std::string> entryOracle(const std::string& entry)
{
    static const std::regex ipv4("([0-9.]+)(:[0-9]{1,5})?");
    static const std::regex ipv6("\\[([^\\]]*:[^\\]]*)\\](:[0-9]{1,5})?");
    std::smatch match;
    if (addressOracle(entry))
        return entry;
    if (std::regex_match(entry, match, ipv4) && addressOracle(match.str(1)))
        return match.str(1);
    if (std::regex_match(entry, match, ipv6) && addressOracle(match.str(1)))
        return match.str(1);
    return std::nullopt;
}

void checkAddress(const std::string& text)
{
    const auto address = IpAddress::of(std::string_view(text));
    HOLDS(address.has_value() == addressOracle(text).has_value());
    if (!address)
        return;
    HOLDS(addressOracle(address->text()) == addressOracle(text));
    const auto client = IpAddress::of(std::string_view(address->client()));
    HOLDS(client && client->client() == address->client());
    HOLDS(client->isLike(*address, address->isIpv4() ? 128 : 64));
}

// Lines: what is trusted, the peer, what it forwards.
void checkProxies(fuzz::Input& input)
{
    std::vector<std::string> texts;
    std::istringstream words(input.line());
    for (std::string word; words >> word;)
        texts.push_back(word);
    const std::string peerText = input.line();
    const std::string forwarded = input.rest().substr(0, 1000);
    checkAddress(peerText);

    std::vector<NetworkOracle> networks;
    bool isGood = true;
    for (const std::string& text : texts) {
        checkAddress(text);
        const auto network = networkOracle(text);
        isGood = isGood && network;
        networks.push_back(network.value_or(NetworkOracle()));
    }
    const std::string refusal = refusalOf([&] { const TrustedProxies refused(texts); });
    HOLDS(isOneLine(refusal));
    HOLDS(refusal.empty() == isGood);
    if (!isGood)
        return;

    const TrustedProxies proxies(texts);
    const auto trusts = [&](const std::optional<std::string>& client) {
        return std::any_of(networks.begin(), networks.end(), [&](const NetworkOracle& network) {
            return network.has(client ? addressOracle(*client) : std::nullopt);
        });
    };
    const auto peer = IpAddress::of(std::string_view(peerText));
    std::optional<std::string> client = peer ? std::optional(peerText) : std::nullopt;
    HOLDS(proxies.trusts(peer) == trusts(client));
    std::string left = forwarded;
    while (trusts(client) && !left.empty()) {
        const size_t comma = left.rfind(',');
        const size_t begin = comma == std::string::npos ? 0 : comma + 1;
        const auto entry = entryOracle(trimmedOracle(left.substr(begin)));
        if (!entry)
            break;
        client = entry;
        left.resize(begin == 0 ? 0 : comma);
    }
    const auto found = proxies.clientOf(peer, forwarded);
    HOLDS(found.has_value() == client.has_value());
    HOLDS(!found || addressOracle(found->text()) == addressOracle(*client));
}

// ---- Nodes.

void checkNode(const std::string& text)
{
    if (text.size() > 200)
        return;
    const std::string name = "[a-z0-9]([-a-z0-9]{0,61}[a-z0-9])?";
    static const std::regex nodeForm(name);
    static const std::regex tokenForm("ke_((" + name + ")\\.)?[-_A-Za-z0-9]{32}");
    HOLDS(isNodeName(text) == std::regex_match(text, nodeForm));
    std::smatch match;
    const bool isToken = std::regex_match(text, match, tokenForm);
    const auto node = nodeOfSession(text);
    HOLDS(node.has_value() == isToken);
    HOLDS(!isToken || *node == match.str(2));
    if (!isNodeName(text))
        return;
    const SecretText token = makeSessionToken(text);
    HOLDS(nodeOfSession(token) == text && makeSessionToken(text) != token);
}

// ---- The options of the service.

// Lines: where to listen, the node, allowed hosts, allowed origins, flags.
void checkServeOptions(fuzz::Input& input)
{
    ServeOptions given;
    given.listen = input.line();
    given.node = input.line();
    std::istringstream hosts(input.line());
    for (std::string word; hosts >> word;)
        given.allowHosts.push_back(word);
    std::istringstream origins(input.line());
    for (std::string word; origins >> word;)
        given.allowOrigins.push_back(word);
    given.noAuth = input.pick(2) == 1;
    given.listenMode = input.pick(2) == 1 ? "0600" : "";
    given.workers = input.pick(300);

    ServeOptions options = given;
    const std::string refusal = refusalOf([&] { checkOptions(options); });
    HOLDS(isOneLine(refusal));
    if (!refusal.empty())
        return;
    HOLDS(options.workers > 0 && options.frontThreads > 0 && options.frontThreads <= 4);
    HOLDS(options.parameterBytes == options.bodyBytes);
    HOLDS(given.node.empty() || isNodeName(given.node));
    HOLDS(options.socketPath.empty() != options.host.empty());
    HOLDS(options.socketPath.empty() ? isLoopback(options.host)
                                     : given.listen == "unix:" + options.socketPath);
    HOLDS(options.socketPath.empty() || options.socketPath[0] == '/');
    // Written again, it is the same place.
    if (options.socketPath.empty()) {
        const bool isIpv6 = options.host.find(':') != std::string::npos;
        ServeOptions again;
        again.listen = (isIpv6 ? "[" + options.host + "]" : options.host) + ":" + options.port;
        HOLDS(refusalOf([&] { checkOptions(again); }).empty());
        HOLDS(again.host == options.host && again.port == options.port);
        HOLDS(std::stoul(options.port) <= 65535);
    }
    const AllowedSites sites(options);
    for (const std::string& host : given.allowHosts) {
        HOLDS(sites.isHost(host));
        HOLDS(!sites.isHost("x" + hostName(host)) || given.allowHosts.size() > 1);
        HOLDS(sites.isOrigin("http://" + host, host) && !sites.isOrigin("null", host));
    }
    for (const std::string& origin : given.allowOrigins)
        HOLDS(sites.isOrigin(origin, "localhost"));
}

// ---- A file of names.

Json namesAsJson()
{
    Json all = Json::object();
    for (const RequestInfo& request : catalogue())
        for (const Parameter& parameter : request.parameters)
            for (const Choice& choice : parameter.choices)
                for (const std::string& name : choice.names)
                    all[parameter.name][name] = Json::parse(choice.value);
    return all;
}

void checkNames(const std::string& text)
{
    const File file(text);
    const std::string refusal = refusalOf([&] { useKnownNames(file.path(), {}); });
    if (!refusal.empty()) {
        HOLDS(refusal.compare(0, file.path().size() + 1, file.path() + ":") == 0);
        return;
    }
    const Json given = Json::parse(text);
    const Json known = namesAsJson();
    for (const auto& [parameter, names] : known.items()) {
        HOLDS(names.size() == given[parameter].size());
        for (const auto& [name, number] : names.items())
            HOLDS(given[parameter].at(name) == number);
    }
    const File again(known.dump());
    HOLDS(refusalOf([&] { useKnownNames(again.path(), {}); }).empty());
    HOLDS(namesAsJson() == known);
}

// ---- A file of parameters.

std::string hexOf(const std::string& bytes)
{
    return "hex:" + toHex(bytes);
}

Pairs readParameters(const std::string& text)
{
    const File file(text);
    return WrittenParameters{{}, file.path()}.read(nullptr);
}

void checkParameters(const std::string& text)
{
    // Values that name files lead out of here.
    if (text.find('@') != std::string::npos || text.find("\\u00") != std::string::npos)
        return;
    Pairs pairs;
    const std::string refusal = refusalOf([&] { pairs = readParameters(text); });
    if (!refusal.empty())
        return;
    Json asJson = Json::object();
    std::string asLines;
    bool haveLines = true;
    for (const auto& [name, value] : pairs) {
        HOLDS(!asJson.contains(name));
        if (!isUtf8(name))
            return;  // of a file of lines
        asJson[name] = hexOf(value);
        asLines += std::string(name).append("=").append(hexOf(value)).append("\n");
        haveLines = haveLines && !name.empty() && name[0] != '#' &&
                    name.find_first_of("=\n") == std::string::npos;
    }
    HOLDS(readParameters(asJson.dump()) == pairs);
    const size_t first = asLines.find_first_not_of(" \t\r\n");
    if (haveLines && first != std::string::npos && asLines[first] != '{')
        HOLDS(readParameters(asLines) == pairs);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::Input input(data, size);
    switch (input.pick(6)) {
        case 0:
            checkToken(input.rest());
            break;
        case 1:
            checkProxies(input);
            break;
        case 2:
            checkNode(input.rest());
            break;
        case 3:
            checkServeOptions(input);
            break;
        case 4:
            checkNames(input.rest());
            break;
        default:
            checkParameters(input.rest());
    }
    return 0;
}
