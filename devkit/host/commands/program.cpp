#include "program.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>

#include "common/descriptor.h"

std::unique_ptr<HostSession> Program::openSession()
{
    try {
        return std::make_unique<HostSession>(withDefaults(paths));
    } catch (const BareNameError&) {
        startAgain();
        throw;
    }
}

void Program::bindAtOnce()
{
    constexpr const char* name = "LD_BIND_NOW";
    const char* const value = getenv(name);
    if (value != nullptr && *value != '\0')
        return;
    setenv(name, "1", 1);
    const Descriptor redirected(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0));
    output.giveBack();
    execv("/proc/self/exe", m_argv);
    const int reason = errno;
    dup2(redirected.get(), STDOUT_FILENO);
    // An emulator's program is none of the system's. Workers do not start there either.
    if (reason != ENOEXEC)
        throw LoadError("cannot start again: " + std::generic_category().message(reason));
}
