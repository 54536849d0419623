#include "program.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>

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
    output.giveBack();
    execv("/proc/self/exe", m_argv);
    throw LoadError("cannot start again: " + std::generic_category().message(errno));
}
