#include "program.h"

std::unique_ptr<HostSession> Program::openSession()
{
    const LibraryPaths chosen = withDefaults(paths);
    try {
        return std::make_unique<HostSession>(chosen);
    } catch (const BareNameError&) {
        bareNames.startAgain(chosen, argv_, output);
        throw;
    }
}
