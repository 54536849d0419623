// Which names of numbers this process knows: what --names says.
#ifndef CORVANE_HOST_KNOWN_NAMES_H
#define CORVANE_HOST_KNOWN_NAMES_H

#include <string>

#include "host_session.h"

// `what` is one of
//     auto         those of the development engine if its file would be loaded, else none
//     development  those of the development engine
//     none         none: numbers alone count
//     FILE         those of a JSON file: {"strCipherAlg": {"aes-256": 4, ...}, ...}
// With names from a file, or none, sizes of keys and initial values are not known either.
// To be called when the process starts, as the catalogue changes for all of it. Throws a UsageError
// that names the place in the file.
void useKnownNames(const std::string& what, const LibraryPaths& paths);

#endif
