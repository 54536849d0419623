// Opens files that only root and this process's user can have put where they are.
#ifndef CORVANE_SERVICE_OPERATION_OWNED_PATH_H
#define CORVANE_SERVICE_OPERATION_OWNED_PATH_H

#include <sys/stat.h>

#include <string>

#include "common/descriptor.h"

// Whether it is root's, or the user's that this process runs as.
bool isOwned(const struct stat& info);

// Opens what the path names, for reading and without waiting; nothing if there is nothing at the
// path. The caller looks at what it is.
//
// Where the path itself is a symbolic link, another user may have put it there, to make this
// process read a file that is not meant. So links, folders and file on the whole way must be
// owned, and nobody else may be able to replace one of them: each folder can be written by its
// owner alone, or is sticky. `what` begins the sentence of the UsageError that it throws for the
// others, and for links that lead nowhere.
Descriptor openOwned(const std::string& path, const std::string& what);

#endif
