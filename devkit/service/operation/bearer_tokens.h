// The tokens that clients show.
#ifndef CORVANE_SERVICE_OPERATION_BEARER_TOKENS_H
#define CORVANE_SERVICE_OPERATION_BEARER_TOKENS_H

#include <mutex>
#include <string>
#include <vector>

#include "common/secrets.h"

// While a token is replaced, clients have the old one or the new one: each file has one, and all
// of them are good. Threads may share it.
class BearerTokens {
public:
    // A missing first file is made, others must be there. Throws a UsageError.
    explicit BearerTokens(std::vector<std::string> files);

    // Reads the files again, none of which is made. Throws a UsageError if one of them is not
    // fit; then all tokens stay as they were. True if there are others than before.
    bool reload();

    // Of the first one, which people are told.
    const std::string& file() const { return m_files.front(); }
    SecretText text() const;

    // Whether an Authorization header shows one of them. Takes the same time whichever it is
    // and wherever they differ.
    bool isShownBy(const std::string& authorization) const;

private:
    const std::vector<std::string> m_files;
    mutable std::mutex m_mutex;  // of what follows
    std::vector<SecretText> m_tokens;
};

#endif
