#include "surroundings.h"
#include "common/version.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "host/syslog_target.h"

namespace fs = std::filesystem;

namespace {

std::string errorText(int number)
{
    return std::generic_category().message(number);
}

std::string joined(const std::vector<std::string>& parts)
{
    std::string text;
    for (const std::string& part : parts)
        text += (text.empty() ? "" : ", ") + part;
    return text;
}

// The folders that the loader searches for a bare name, before its cache.
std::vector<std::string> loaderFolders()
{
    std::vector<std::string> folders;
    void* self = dlopen(nullptr, RTLD_NOW);
    Dl_serinfo size;
    if (self == nullptr || dlinfo(self, RTLD_DI_SERINFOSIZE, &size) != 0)
        return folders;
    std::vector<max_align_t> room(size.dls_size / sizeof(max_align_t) + 1);
    auto* list = reinterpret_cast<Dl_serinfo*>(room.data());
    *list = size;
    if (dlinfo(self, RTLD_DI_SERINFO, list) == 0)
        for (unsigned i = 0; i < list->dls_cnt; ++i)
            folders.emplace_back(list->dls_serpath[i].dls_name);
    dlclose(self);
    return folders;
}

// The file that the loader would take, or "" if only its cache can tell.
std::string foundByLoader(const std::string& name)
{
    std::error_code ignored;
    for (const std::string& folder : loaderFolders())
        if (fs::exists(fs::path(folder) / name, ignored))
            return fs::path(folder) / name;
    return "";
}

LibraryChoice choose(const char* what, const char* name, const std::string& given,
                     const std::string& path)
{
    LibraryChoice library = {what, name, !given.empty(), path, path, {}};
    if (path == name)
        library.file = foundByLoader(name);
    if (!library.file.empty())
        library.look = inspectLibrary(library.file);
    return library;
}

Finding checkLibraryFile(const LibraryChoice& library)
{
    const std::string& path = library.file;
    const LibraryFile& file = library.look;
    Finding finding = {std::string(library.what) + " file", Status::Ok, ""};
    if (path.empty()) {
        finding.status = Status::Note;
        finding.detail = std::string(library.name) + " is neither in " + joined(usualFolders()) +
                         " nor in the loader's folders; its cache remains";
        finding.hint = "name the file with --plugin, --params or --engine";
    } else if (!file.fault.empty()) {
        finding.status = Status::Fail;
        finding.detail = file.fault;
        finding.hint = file.remedy;
        finding.loading = true;
    } else {
        finding.detail = path +
                         (library.given                  ? ", as given"
                          : library.path == library.name ? ", found by the loader"
                                                         : ", the usual place") +
                         "; " + file.machine + ", " + std::to_string(file.size) + " bytes";
    }
    return finding;
}

// Who else may put another library in the place of this one.
Finding checkPermissions(const LibraryChoice& library)
{
    const std::string& path = library.file;
    Finding finding = {std::string(library.what) + " permissions", Status::Ok, ""};
    struct stat file;
    struct stat folder;
    struct statvfs system;
    const std::string parent = fs::path(path).parent_path();
    if (stat(path.c_str(), &file) != 0 || stat(parent.c_str(), &folder) != 0 ||
        statvfs(path.c_str(), &system) != 0) {
        finding.status = Status::Fail;
        finding.detail = path + ": " + errorText(errno);
        return finding;
    }
    if ((system.f_flag & ST_NOEXEC) != 0) {
        finding.status = Status::Fail;
        finding.detail = path + " is on a file system that is mounted noexec";
        finding.hint = "move it to another one, or mount this one without noexec";
        finding.loading = true;
    } else if ((file.st_mode & S_IWOTH) != 0) {
        finding.status = Status::Fail;
        finding.detail = "everybody may write to " + path;
        finding.hint = "chmod o-w " + path;
    } else if ((folder.st_mode & S_IWOTH) != 0 && (folder.st_mode & S_ISVTX) == 0) {
        finding.status = Status::Fail;
        finding.detail = "everybody may replace files in " + parent;
        finding.hint = "chmod o-w " + parent;
    } else if (file.st_uid != 0 && file.st_uid != geteuid()) {
        finding.status = Status::Note;
        finding.detail = path + " belongs to user " + std::to_string(file.st_uid) +
                         ", who is neither root nor this one";
        finding.hint = "whoever owns a library rules the host that loads it";
    } else {
        finding.detail = "readable, and not writable for everybody";
    }
    return finding;
}

Finding checkSoname(const LibraryChoice& library)
{
    const std::string& soname = library.look.soname;
    Finding finding = {std::string(library.what) + " SONAME", Status::Ok,
                       soname.empty() ? "none" : soname};
    if (hasForeignName(library)) {
        finding.status = Status::Note;
        finding.detail += "; the plug-in opens it as " + std::string(library.name) +
                          ", a name that this program gives it with a link for its own time";
        finding.hint = "install it under that name in a folder that the host's loader searches";
    }
    return finding;
}

// Whether syslog has somebody who listens.
Finding checkSyslog()
{
    Finding finding = {"plug-in's messages", Status::Ok, ""};
    const SyslogTarget syslog = lookAtSyslog();
    if (syslog.fault.empty()) {
        finding.detail = "syslog takes them at /dev/log, facilities local0 to local5";
        return finding;
    }
    finding.status = Status::Note;
    finding.detail = "they go to syslog, but nobody takes them: " + syslog.fault;
    finding.hint = syslog.remedy;
    return finding;
}

// The plug-in names /dev/stderr to the engine, which opens it or copies the descriptor.
Finding checkStandardError()
{
    Finding finding = {"engine's log", Status::Ok, "/dev/stderr"};
    struct stat status;
    if (fstat(STDERR_FILENO, &status) != 0) {
        finding.status = Status::Note;
        finding.detail += ", but standard error is closed: the log is lost";
        finding.hint = "start the host with standard error on a file or a pipe";
        return finding;
    }
    const int file = open("/dev/stderr", O_WRONLY | O_APPEND | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    const int reason = file < 0 ? errno : 0;
    if (file >= 0)
        close(file);
    struct stat nowhere;
    if (S_ISCHR(status.st_mode) && stat("/dev/null", &nowhere) == 0 &&
        nowhere.st_rdev == status.st_rdev) {
        finding.status = Status::Note;
        finding.detail += ", which is /dev/null here: the log is lost";
        finding.hint = "start the host with standard error on a file or a pipe";
    } else if (reason != 0) {
        finding.status = Status::Note;
        finding.detail += ", which cannot be opened by its name here (" + errorText(reason) +
                          "): an engine that does not copy the descriptor has no log";
        finding.hint = "start the host with standard error on a file or a pipe, which it may open";
    } else {
        finding.detail += std::string(", here ") + (isatty(STDERR_FILENO)      ? "a terminal"
                                                    : S_ISFIFO(status.st_mode) ? "a pipe"
                                                    : S_ISREG(status.st_mode)  ? "a file"
                                                                               : "a device");
    }
    return finding;
}

}  // namespace

std::vector<LibraryChoice> chooseLibraries(const LibraryPaths& given)
{
    const LibraryPaths chosen = withDefaults(given);
    return {
        choose("parameter module", paramsName, given.params, chosen.params),
        choose("engine", engineName, given.engine, chosen.engine),
        choose("plug-in", pluginName, given.plugin, chosen.plugin),
    };
}

bool hasForeignName(const LibraryChoice& library)
{
    return std::string(library.name) != pluginName && library.path != library.name &&
           library.look.soname != library.name;
}

Finding checkSystem()
{
    utsname system = {};
    uname(&system);
    return {"host", Status::Ok,
            std::string("corvane-host " + versionWithCommit() + ", ") + system.sysname + " " +
                system.release + " " + system.machine + ", user " + std::to_string(geteuid())};
}

Finding checkSearchPath()
{
    const char* path = getenv("LD_LIBRARY_PATH");
    Finding finding = {"search path", Status::Ok, ""};
    finding.detail = joined(usualFolders()) + "; LD_LIBRARY_PATH " +
                     (path == nullptr ? std::string("is not set") : std::string("is ") + path) +
                     "; the loader's folders: " + joined(loaderFolders());
    return finding;
}

Findings checkFile(const LibraryChoice& library)
{
    Findings findings = {checkLibraryFile(library)};
    if (library.file.empty() || !library.look.fault.empty())
        return findings;
    findings.push_back(checkPermissions(library));
    findings.push_back(checkSoname(library));
    return findings;
}

Findings checkLogTargets()
{
    return {checkSyslog(), checkStandardError()};
}
