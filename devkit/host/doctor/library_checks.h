// Checks that load the libraries.
#ifndef CORVANE_HOST_DOCTOR_LIBRARY_CHECKS_H
#define CORVANE_HOST_DOCTOR_LIBRARY_CHECKS_H

#include <memory>
#include <vector>

#include "host/host_session.h"
#include "isolation.h"
#include "surroundings.h"

// The libraries under test, loaded by the first check of a process that needs them.
class Subject {
public:
    explicit Subject(const LibraryPaths& paths) : m_paths(paths) {}

    HostSession& session()
    {
        if (m_session == nullptr)
            m_session = std::make_unique<HostSession>(m_paths);
        return *m_session;
    }
    void end() { m_session.reset(); }

private:
    LibraryPaths m_paths;
    std::unique_ptr<HostSession> m_session;
};

// Loads one library and looks its functions up; the plug-in's log level too.
Check libraryCheck(const LibraryChoice& library);

// Has the plug-in bind and initialise the others.
Check startCheck(Subject& subject);

// Has it clean up.
Check endCheck(Subject& subject);

#endif
