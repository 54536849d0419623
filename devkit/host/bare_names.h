// Makes libraries answer to their bare names when their SONAMEs do not.
//
// The plug-in opens its libraries by bare name. The loader then takes a library that is loaded
// already, if its SONAME is this name; else it searches its path, which is fixed when a process
// starts. So the program starts itself again, with a private folder at the head of the path. In
// it are links to the libraries, with the names by which the plug-in opens them.
#ifndef CORVANE_HOST_BARE_NAMES_H
#define CORVANE_HOST_BARE_NAMES_H

#include <string>

#include "host_session.h"
#include "output.h"

class BareNames {
public:
    // Finds out whether this process is the one that was started again.
    BareNames();
    // Removes the folder, in that process.
    ~BareNames();
    BareNames(const BareNames&) = delete;
    BareNames& operator=(const BareNames&) = delete;

    // Removes the folder earlier, once the libraries are loaded: for a process that may
    // end without its destructors.
    void removeFolder();

    // Replaces the process by the one that is started again. Returns only in that one, where it
    // would be of no use. Throws a LoadError if it cannot be done.
    void startAgain(const LibraryPaths& paths, char** argv, Output& output);

private:
    std::string m_folder;  // "" in a process that was not started again
};

#endif
