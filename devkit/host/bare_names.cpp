#include "bare_names.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>

namespace {

constexpr const char* marker = "CORVANE_HOST_LINKS";
constexpr const char* searchPath = "LD_LIBRARY_PATH";

std::string variable(const char* name)
{
    const char* value = getenv(name);
    return value != nullptr ? value : "";
}

// Removes only what startAgain makes, whatever the folder's name.
void removeLinks(const std::string& folder)
{
    for (const char* name : {paramsName, engineName}) {
        const std::string link = folder + "/" + name;
        char ignored;
        if (readlink(link.c_str(), &ignored, 1) >= 0)
            unlink(link.c_str());
    }
    rmdir(folder.c_str());
}

[[noreturn]] void fail(const std::string& folder, const char* what)
{
    const int reason = errno;
    if (!folder.empty())
        removeLinks(folder);
    throw LoadError(std::string(what) + ": " + std::generic_category().message(reason));
}

}  // namespace

BareNames::BareNames() : m_folder(variable(marker))
{
    if (m_folder.empty())
        return;

    // What the libraries start in turn must not search the folder.
    unsetenv(marker);
    const std::string path = variable(searchPath);
    if (path == m_folder)
        unsetenv(searchPath);
    else if (path.compare(0, m_folder.size() + 1, m_folder + ":") == 0)
        setenv(searchPath, path.c_str() + m_folder.size() + 1, 1);
}

BareNames::~BareNames()
{
    removeFolder();
}

void BareNames::removeFolder()
{
    if (!m_folder.empty())
        removeLinks(m_folder);
    m_folder.clear();
}

void BareNames::startAgain(const LibraryPaths& paths, char** argv, Output& output)
{
    if (!m_folder.empty())
        return;

    const std::string temporary = variable("TMPDIR");
    std::string folder = (temporary.empty() ? "/tmp" : temporary) + "/corvane-host-XXXXXX";
    if (mkdtemp(folder.data()) == nullptr)
        fail("", "cannot make a folder for links to the libraries");

    // A library that was found by its name needs no link.
    for (const auto& [path, name] :
         {std::pair(paths.params, paramsName), {paths.engine, engineName}})
        if (path != name && symlink(path.c_str(), (folder + "/" + name).c_str()) != 0)
            fail(folder, "cannot link to the libraries");

    const std::string path = variable(searchPath);
    setenv(searchPath, path.empty() ? folder.c_str() : (folder + ":" + path).c_str(), 1);
    setenv(marker, folder.c_str(), 1);
    output.giveBack();
    execv("/proc/self/exe", argv);
    fail(folder, "cannot start again with links to the libraries");
}
