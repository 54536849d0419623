// Makes libraries answer to their bare names when their SONAMEs do not.
//
// The plug-in opens its libraries by bare name. The loader answers with one that is
// loaded already if that one's SONAME is this name, else it searches its path, which is
// fixed when a process starts. So the program starts itself once more, with a private
// folder of links, named as the plug-in names the libraries, at the head of the path.
#ifndef CORVANE_HOST_BARE_NAMES_H
#define CORVANE_HOST_BARE_NAMES_H

#include <string>

#include "host_session.h"
#include "output.h"

class BareNames {
public:
    // Finds out whether the program was started that way.
    BareNames();
    // Removes the folder.
    ~BareNames();
    BareNames(const BareNames&) = delete;
    BareNames& operator=(const BareNames&) = delete;

    // Removes the folder earlier, once the libraries are loaded: for a process that may
    // end without its destructors.
    void removeFolder();

    // Returns only if starting again is of no use: the program was started that way
    // already. Throws a LoadError if it cannot be done.
    void startAgain(const LibraryPaths& paths, char** argv, Output& output);

private:
    std::string m_folder;  // empty if the program was started by its user
};

#endif
