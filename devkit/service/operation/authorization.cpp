#include "authorization.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "common/codec.h"
#include "common/descriptor.h"
#include "common/secrets.h"
#include "common/text.h"
#include "host/output.h"

namespace fs = std::filesystem;

namespace {

// A token that is made has 43 characters, 256 bits. One that an operator chose must not
// be easy to guess.
constexpr size_t shortestToken = 32;
constexpr size_t longestToken = 512;

[[noreturn]] void fail(const std::string& what, const std::string& file)
{
    throw UsageError(what + " " + file + ": " + std::generic_category().message(errno));
}

bool isTokenCharacter(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
           std::string_view("-._~+/=").find(c) != std::string_view::npos;
}

}  // namespace

std::string BearerToken::defaultFile()
{
    const char* state = getenv("XDG_STATE_HOME");
    if (state != nullptr && state[0] == '/')
        return std::string(state) + "/corvane-host/token";
    const char* home = getenv("HOME");
    if (home == nullptr || home[0] != '/')
        throw UsageError("there is no home folder for the token; name a file by --token-file");
    return std::string(home) + "/.local/state/corvane-host/token";
}

BearerToken::BearerToken(std::string file) : m_file(std::move(file))
{
    while (!read() && !make()) {
    }
}

BearerToken::~BearerToken()
{
    wipe(m_token);
}

// Whether there is a file.
bool BearerToken::read()
{
    const Descriptor descriptor(
        open(m_file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (!descriptor && errno == ENOENT)
        return false;
    if (!descriptor && errno == ELOOP)
        throw UsageError("the token file " + m_file + " is a symbolic link; name the file itself");
    struct stat info = {};
    if (!descriptor || fstat(descriptor.get(), &info) != 0)
        fail("cannot read the token file", m_file);
    if (!S_ISREG(info.st_mode) || (info.st_mode & 077) != 0 ||
        (info.st_uid != geteuid() && info.st_uid != 0))
        throw UsageError("the token file " + m_file +
                         " must be a file that its owner alone can read (mode 0600)");

    std::array<char, longestToken + 2> buffer;
    const ssize_t count = ::read(descriptor.get(), buffer.data(), buffer.size());
    if (count < 0)
        fail("cannot read the token file", m_file);
    m_token.assign(buffer.data(), static_cast<size_t>(count));
    explicit_bzero(buffer.data(), buffer.size());
    while (!m_token.empty() && (m_token.back() == '\n' || m_token.back() == '\r'))
        m_token.pop_back();
    if (m_token.empty())
        throw UsageError("the token file " + m_file +
                         " is empty; remove it, and the next start makes a new one");
    if (m_token.size() < shortestToken || m_token.size() > longestToken ||
        !std::all_of(m_token.begin(), m_token.end(), isTokenCharacter))
        throw UsageError("the token file " + m_file +
                         " must hold one token of 32 to 512 letters, "
                         "digits and characters of -._~+/=");
    return true;
}

// False if another one has made the file in the meantime.
bool BearerToken::make()
{
    std::array<char, 32> random;
    if (getrandom(random.data(), random.size(), 0) != static_cast<ssize_t>(random.size()))
        fail("no random bytes for the token file", m_file);
    m_token = toUrlBase64({random.data(), random.size()});
    m_token.erase(m_token.find('='));
    explicit_bzero(random.data(), random.size());

    std::error_code failed;
    const fs::path folder = fs::path(m_file).parent_path();
    if (!folder.empty() && fs::create_directories(folder, failed))
        fs::permissions(folder, fs::perms::owner_all, failed);
    // It gets its name once it is whole and on the disk.
    std::string draft = m_file + ".XXXXXX";
    const Descriptor descriptor(mkostemp(draft.data(), O_CLOEXEC));
    if (!descriptor)
        fail("cannot make the token file", m_file);
    std::string line = m_token + "\n";
    const ssize_t count = write(descriptor.get(), line.data(), line.size());
    if (count >= 0)
        errno = ENOSPC;  // in case that it is a part only
    const bool isWhole = count == static_cast<ssize_t>(line.size()) && fsync(descriptor.get()) == 0;
    const bool isNamed = isWhole && link(draft.c_str(), m_file.c_str()) == 0;
    const int reason = errno;
    wipe(line);
    unlink(draft.c_str());
    errno = reason;
    if (!isNamed && !(isWhole && reason == EEXIST))
        fail("cannot make the token file", m_file);
    return isNamed;
}

bool BearerToken::isShownBy(const std::string& authorization) const
{
    constexpr std::string_view scheme = "Bearer ";
    if (authorization.size() < scheme.size() ||
        !equalIgnoringCase(std::string_view(authorization).substr(0, scheme.size()), scheme))
        return false;
    const std::string_view shown = std::string_view(authorization).substr(scheme.size());
    // As many steps as the shown one has characters; how long the right one is, is no secret.
    unsigned difference = shown.size() == m_token.size() ? 0 : 1;
    for (size_t i = 0; i < shown.size(); ++i)
        difference |= static_cast<unsigned char>(shown[i]) ^
                      static_cast<unsigned char>(m_token[i % m_token.size()]);
    const volatile unsigned all = difference;
    return all == 0;
}

std::string hostName(const std::string& header)
{
    const size_t bracket = header.rfind(']');
    const size_t colon = header.find(':', bracket == std::string::npos ? 0 : bracket);
    const bool hasPort = colon != std::string::npos && colon + 1 < header.size() &&
                         header.find_first_not_of("0123456789", colon + 1) == std::string::npos;
    if (colon != std::string::npos && !hasPort)
        return "";
    std::string name = header.substr(0, colon);
    std::transform(name.begin(), name.end(), name.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
    return name;
}

AllowedSites::AllowedSites(const ServeOptions& options)
    : m_hosts{"localhost", "127.0.0.1", "[::1]"},
      m_origins(options.allowOrigins),
      m_scheme(options.tlsCert.empty() ? "http://" : "https://")
{
    const bool isIpv6 = options.host.find(':') != std::string::npos;
    m_hosts.push_back(hostName(isIpv6 ? "[" + options.host + "]" : options.host));
    for (const std::string& name : options.allowHosts)
        m_hosts.push_back(hostName(name));
}

bool AllowedSites::isHost(const std::string& hostHeader) const
{
    const std::string name = hostName(hostHeader);
    return !name.empty() && std::find(m_hosts.begin(), m_hosts.end(), name) != m_hosts.end();
}

bool AllowedSites::isOrigin(const std::string& origin, const std::string& hostHeader) const
{
    return equalIgnoringCase(origin, m_scheme + hostHeader) ||
           std::find(m_origins.begin(), m_origins.end(), origin) != m_origins.end();
}

double Rates::levelOf(const Bucket& bucket, Clock::time_point now) const
{
    return std::min(m_burst, bucket.level + Seconds(now - bucket.time).count() * m_perSecond);
}

bool Rates::take(const std::string& address, Clock::time_point now)
{
    if (m_perSecond <= 0)
        return true;
    Bucket& bucket = m_buckets.try_emplace(address, Bucket{m_burst, now}).first->second;
    bucket.level = levelOf(bucket, now);
    bucket.time = now;
    if (bucket.level < 1)
        return false;
    bucket.level -= 1;
    return true;
}

void Rates::sweep(Clock::time_point now)
{
    for (auto it = m_buckets.begin(); it != m_buckets.end();)
        it = levelOf(it->second, now) >= m_burst ? m_buckets.erase(it) : std::next(it);
}
