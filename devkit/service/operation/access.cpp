#include "access.h"

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

BearerToken::BearerToken(std::string file) : file_(std::move(file))
{
    while (!read() && !make()) {
    }
}

BearerToken::~BearerToken()
{
    wipe(token_);
}

// Whether there is a file.
bool BearerToken::read()
{
    const Descriptor descriptor(
        open(file_.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (!descriptor && errno == ENOENT)
        return false;
    if (!descriptor && errno == ELOOP)
        throw UsageError("the token file " + file_ + " is a symbolic link; name the file itself");
    struct stat info = {};
    if (!descriptor || fstat(descriptor.get(), &info) != 0)
        fail("cannot read the token file", file_);
    if (!S_ISREG(info.st_mode) || (info.st_mode & 077) != 0 ||
        (info.st_uid != geteuid() && info.st_uid != 0))
        throw UsageError("the token file " + file_ +
                         " must be a file that its owner alone can read (mode 0600)");

    std::array<char, longestToken + 2> buffer;
    const ssize_t count = ::read(descriptor.get(), buffer.data(), buffer.size());
    if (count < 0)
        fail("cannot read the token file", file_);
    token_.assign(buffer.data(), static_cast<size_t>(count));
    explicit_bzero(buffer.data(), buffer.size());
    while (!token_.empty() && (token_.back() == '\n' || token_.back() == '\r'))
        token_.pop_back();
    if (token_.empty())
        throw UsageError("the token file " + file_ +
                         " is empty; remove it, and the next start makes a new one");
    if (token_.size() < shortestToken || token_.size() > longestToken ||
        !std::all_of(token_.begin(), token_.end(), isTokenCharacter))
        throw UsageError("the token file " + file_ +
                         " must hold one token of 32 to 512 letters, "
                         "digits and characters of -._~+/=");
    return true;
}

// False if another one has made the file in the meantime.
bool BearerToken::make()
{
    std::array<char, 32> random;
    if (getrandom(random.data(), random.size(), 0) != static_cast<ssize_t>(random.size()))
        fail("no random bytes for the token file", file_);
    token_ = toUrlBase64({random.data(), random.size()});
    token_.erase(token_.find('='));
    explicit_bzero(random.data(), random.size());

    std::error_code failed;
    const fs::path folder = fs::path(file_).parent_path();
    if (!folder.empty() && fs::create_directories(folder, failed))
        fs::permissions(folder, fs::perms::owner_all, failed);
    // It gets its name once it is whole and on the disk.
    std::string draft = file_ + ".XXXXXX";
    const Descriptor descriptor(mkostemp(draft.data(), O_CLOEXEC));
    if (!descriptor)
        fail("cannot make the token file", file_);
    std::string line = token_ + "\n";
    const ssize_t count = write(descriptor.get(), line.data(), line.size());
    if (count >= 0)
        errno = ENOSPC;  // in case that it is a part only
    const bool isWhole = count == static_cast<ssize_t>(line.size()) && fsync(descriptor.get()) == 0;
    const bool isNamed = isWhole && link(draft.c_str(), file_.c_str()) == 0;
    const int reason = errno;
    wipe(line);
    unlink(draft.c_str());
    errno = reason;
    if (!isNamed && !(isWhole && reason == EEXIST))
        fail("cannot make the token file", file_);
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
    unsigned difference = shown.size() == token_.size() ? 0 : 1;
    for (size_t i = 0; i < shown.size(); ++i)
        difference |= static_cast<unsigned char>(shown[i]) ^
                      static_cast<unsigned char>(token_[i % token_.size()]);
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
    : hosts_{"localhost", "127.0.0.1", "[::1]"},
      origins_(options.allowOrigins),
      scheme_(options.tlsCert.empty() ? "http://" : "https://")
{
    const bool isIpv6 = options.host.find(':') != std::string::npos;
    hosts_.push_back(hostName(isIpv6 ? "[" + options.host + "]" : options.host));
    for (const std::string& name : options.allowHosts)
        hosts_.push_back(hostName(name));
}

bool AllowedSites::isHost(const std::string& hostHeader) const
{
    const std::string name = hostName(hostHeader);
    return !name.empty() && std::find(hosts_.begin(), hosts_.end(), name) != hosts_.end();
}

bool AllowedSites::isOrigin(const std::string& origin, const std::string& hostHeader) const
{
    return equalIgnoringCase(origin, scheme_ + hostHeader) ||
           std::find(origins_.begin(), origins_.end(), origin) != origins_.end();
}

double Rates::levelOf(const Bucket& bucket, Clock::time_point now) const
{
    return std::min(burst_, bucket.level + Seconds(now - bucket.time).count() * perSecond_);
}

bool Rates::take(const std::string& address, Clock::time_point now)
{
    if (perSecond_ <= 0)
        return true;
    Bucket& bucket = buckets_.try_emplace(address, Bucket{burst_, now}).first->second;
    bucket.level = levelOf(bucket, now);
    bucket.time = now;
    if (bucket.level < 1)
        return false;
    bucket.level -= 1;
    return true;
}

void Rates::sweep(Clock::time_point now)
{
    for (auto it = buckets_.begin(); it != buckets_.end();)
        it = levelOf(it->second, now) >= burst_ ? buckets_.erase(it) : std::next(it);
}
