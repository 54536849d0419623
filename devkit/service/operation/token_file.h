// The files that tokens are kept in.
#ifndef CORVANE_SERVICE_OPERATION_TOKEN_FILE_H
#define CORVANE_SERVICE_OPERATION_TOKEN_FILE_H

#include <optional>
#include <string>

#include "common/secrets.h"

// Below the user's home. Throws a UsageError if there is none.
std::string defaultTokenFile();

// The token that the file holds; nothing if there is no file. Root or this process's user must
// own it, and nobody else can read it, but for a group that this process is in. Throws a
// UsageError for another file, and for what is no token.
std::optional<SecretText> readToken(const std::string& file);

// The same, or makes the file with a new token, for its owner alone. Of many who make it at
// once, one does, and the others read; it is never there in part.
SecretText readOrMakeToken(const std::string& file);

#endif
