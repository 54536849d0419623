#include "token_file.h"

#include <fcntl.h>
#include <sys/random.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <vector>

#include "common/codec.h"
#include "host/output.h"
#include "owned_path.h"

namespace fs = std::filesystem;

namespace {

// A token that is made has 43 characters, 256 bits. One that an operator chose must not
// be easy to guess.
constexpr size_t shortestToken = 32;
constexpr size_t longestToken = 512;

constexpr const char* rightMode = "; it needs mode 0600, or 0640 with a group that the host is in";

[[noreturn]] void fail(const std::string& what, const std::string& file)
{
    throw UsageError(what + " " + file + ": " + std::generic_category().message(errno));
}

bool isTokenCharacter(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
           std::string_view("-._~+/=").find(c) != std::string_view::npos;
}

bool isOwnGroup(gid_t group)
{
    std::vector<gid_t> groups(static_cast<size_t>(std::max(0, getgroups(0, nullptr))));
    groups.resize(static_cast<size_t>(
        std::max(0, getgroups(static_cast<int>(groups.size()), groups.data()))));
    return group == getegid() || std::find(groups.begin(), groups.end(), group) != groups.end();
}

// What follows the file's name in a sentence; "" for a file that nobody else can read or write.
std::string faultOf(const struct stat& info)
{
    if (!S_ISREG(info.st_mode))
        return " is not a file";
    if (!isOwned(info))
        return " belongs to another user than root and the host's";
    if ((info.st_mode & S_IRWXO) != 0)
        return std::string(" is open to everybody") + rightMode;
    if ((info.st_mode & (S_IWGRP | S_IXGRP)) != 0)
        return std::string(" can be changed by its group") + rightMode;
    if ((info.st_mode & S_IRGRP) != 0 && !isOwnGroup(info.st_gid))
        return std::string(" can be read by a group that the host is not in") + rightMode;
    return "";
}

// Whether it got the name. If not, another one has it already.
bool nameDraft(const std::string& draft, const Descriptor& descriptor, std::string& line,
               const std::string& file)
{
    const ssize_t count = write(descriptor.get(), line.data(), line.size());
    if (count >= 0)
        errno = ENOSPC;  // in case that it is a part only
    const bool isWhole = count == static_cast<ssize_t>(line.size()) && fsync(descriptor.get()) == 0;
    const bool isNamed = isWhole && link(draft.c_str(), file.c_str()) == 0;
    const int reason = errno;
    unlink(draft.c_str());
    errno = reason;
    if (!isNamed && !(isWhole && reason == EEXIST))
        fail("cannot make the token file", file);
    return isNamed;
}

// Nothing if another one has made the file in the meantime.
std::optional<SecretText> makeToken(const std::string& file)
{
    std::array<char, 32> random;
    if (getrandom(random.data(), random.size(), 0) != static_cast<ssize_t>(random.size()))
        fail("no random bytes for the token file", file);
    SecretText token = toUrlBase64({random.data(), random.size()});
    token.erase(token.find('='));
    explicit_bzero(random.data(), random.size());

    std::error_code failed;
    const fs::path folder = fs::path(file).parent_path();
    if (!folder.empty() && fs::create_directories(folder, failed))
        fs::permissions(folder, fs::perms::owner_all, failed);
    // It gets its name once it is whole and on the disk.
    std::string draft = file + ".XXXXXX";
    const Descriptor descriptor(mkostemp(draft.data(), O_CLOEXEC));
    if (!descriptor)
        fail("cannot make the token file", file);
    SecretText line = token;
    line += "\n";
    if (!nameDraft(draft, descriptor, line, file))
        return std::nullopt;
    return token;
}

}  // namespace

std::string defaultTokenFile()
{
    const char* state = getenv("XDG_STATE_HOME");
    if (state != nullptr && state[0] == '/')
        return std::string(state) + "/corvane-host/token";
    const char* home = getenv("HOME");
    if (home == nullptr || home[0] != '/')
        throw UsageError("there is no home folder for the token; name a file by --token-file");
    return std::string(home) + "/.local/state/corvane-host/token";
}

std::optional<SecretText> readToken(const std::string& file)
{
    const Descriptor descriptor = openOwned(file, "the token file");
    if (!descriptor)
        return std::nullopt;
    struct stat info = {};
    if (fstat(descriptor.get(), &info) != 0)
        fail("cannot read the token file", file);
    if (const std::string fault = faultOf(info); !fault.empty())
        throw UsageError("the token file " + file + fault);

    // Room for more than a line, so that what stands behind it is seen.
    std::array<char, longestToken + 3> buffer;
    const ssize_t count = read(descriptor.get(), buffer.data(), buffer.size());
    if (count < 0)
        fail("cannot read the token file", file);
    SecretText token;
    token.assign(buffer.data(), static_cast<size_t>(count));
    explicit_bzero(buffer.data(), buffer.size());
    while (!token.empty() && (token.back() == '\n' || token.back() == '\r'))
        token.pop_back();
    if (token.empty())
        throw UsageError("the token file " + file +
                         " is empty; remove it, and the next start makes a new one");
    if (token.size() < shortestToken || token.size() > longestToken ||
        !std::all_of(token.begin(), token.end(), isTokenCharacter))
        throw UsageError("the token file " + file +
                         " must hold one token of 32 to 512 letters, "
                         "digits and characters of -._~+/=");
    return token;
}

SecretText readOrMakeToken(const std::string& file)
{
    while (true) {
        if (std::optional<SecretText> token = readToken(file))
            return *std::move(token);
        if (std::optional<SecretText> token = makeToken(file))
            return *std::move(token);
    }
}
