#include "confined_files.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <sstream>
#include <system_error>

#include "host/output.h"
#include "service/bodies/refusal.h"

namespace {

// "a/../b" stays below the folder, and is refused all the same: the promise is plain.
bool hasParent(const std::string& name)
{
    std::istringstream parts(name);
    for (std::string part; std::getline(parts, part, '/');)
        if (part == "..")
            return true;
    return false;
}

}  // namespace

ConfinedFiles::ConfinedFiles(const std::string& folder)
{
    if (folder.empty())
        return;
    m_folder = Descriptor(::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!m_folder || faccessat(AT_FDCWD, folder.c_str(), R_OK | X_OK, AT_EACCESS) != 0)
        throw UsageError("cannot open the folder " + folder + ": " +
                         std::generic_category().message(errno));
}

Descriptor ConfinedFiles::open(const std::string& name, const std::string& field,
                               bool isFolder) const
{
    if (!m_folder)
        throw Refusal(Reason::no_folder, field);
    if (name.empty() || name.find('\0') != std::string::npos || name.front() == '/' ||
        hasParent(name))
        throw Refusal(Reason::outside_folder, field);

    // A pipe must not keep the host waiting.
    open_how how = {};
    how.flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    if (isFolder)
        how.flags |= O_DIRECTORY;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS | RESOLVE_NO_SYMLINKS;
    Descriptor file(
        static_cast<int>(syscall(SYS_openat2, m_folder.get(), name.c_str(), &how, sizeof how)));
    struct stat info = {};
    if (!file || fstat(file.get(), &info) != 0 || !(isFolder || S_ISREG(info.st_mode)))
        throw Refusal(isFolder ? Reason::no_such_folder : Reason::no_such_file, field);
    return file;
}

Descriptor ConfinedFiles::openFile(const std::string& name, const std::string& field) const
{
    return open(name, field, false);
}

Descriptor ConfinedFiles::openFolder(const std::string& name, const std::string& field) const
{
    return open(name, field, true);
}

Descriptor ConfinedFiles::upload(std::string_view bytes)
{
    Descriptor file(memfd_create("upload", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    while (file && !bytes.empty()) {
        const ssize_t count = write(file.get(), bytes.data(), bytes.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            break;
        bytes.remove_prefix(static_cast<size_t>(count));
    }
    if (!file || !bytes.empty())
        throw std::system_error(errno, std::generic_category(), "cannot keep an upload");
    fcntl(file.get(), F_ADD_SEALS, F_SEAL_SEAL | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE);
    return file;
}
