#include "program.h"

std::unique_ptr<HostSession> Program::openSession()
{
    try {
        return std::make_unique<HostSession>(withDefaults(paths));
    } catch (const BareNameError&) {
        startAgain();
        throw;
    }
}
