// What can be seen without loading the libraries: their files, where they were looked for,
// and where logs go.
#ifndef CORVANE_HOST_DOCTOR_SURROUNDINGS_H
#define CORVANE_HOST_DOCTOR_SURROUNDINGS_H

#include <string>
#include <vector>

#include "finding.h"
#include "host/host_session.h"
#include "host/library_file.h"

// One of the three libraries, as a host is to load it.
struct LibraryChoice {
    const char* what;
    const char* name;  // its bare name
    bool given;        // the path, by the user
    std::string path;  // to load; the bare name if it is left to the loader
    std::string file;  // the same, or where the loader finds it; "" if only its cache can tell
    LibraryFile look;  // at the file
};

// Parameter module, engine, plug-in: the order of loading.
std::vector<LibraryChoice> chooseLibraries(const LibraryPaths& given);

// Whether the plug-in, which opens module and engine by their bare names, would not get this
// file.
bool hasForeignName(const LibraryChoice& library);

Finding checkSystem();
Finding checkSearchPath();
// The file, its permissions and its SONAME.
Findings checkFile(const LibraryChoice& library);
// Where the plug-in's messages and the engine's go.
Findings checkLogTargets();

#endif
