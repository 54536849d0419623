// Keeping keys, passwords and plaintext out of memory that is no longer used and out of
// core dumps.
#ifndef CORVANE_HOST_SERVE_SECRETS_H
#define CORVANE_HOST_SERVE_SECRETS_H

#include <sys/prctl.h>
#include <sys/resource.h>

#include <cstring>
#include <string>

#include "catalogue.h"

// The text is empty afterwards, and gone from memory.
inline void wipe(std::string& text)
{
    explicit_bzero(text.data(), text.size());
    text.clear();
}

inline void wipe(Pairs& pairs)
{
    for (auto& pair : pairs)
        wipe(pair.second);
    pairs.clear();
}

// While it exists, the process leaves no core dump and cannot be read by others of its
// user. A leak checker can look at the process afterwards.
class Undumpable {
public:
    Undumpable()
    {
        const rlimit none = {0, 0};
        setrlimit(RLIMIT_CORE, &none);
        prctl(PR_SET_DUMPABLE, 0);
    }
    ~Undumpable() { prctl(PR_SET_DUMPABLE, 1); }
    Undumpable(const Undumpable&) = delete;
    Undumpable& operator=(const Undumpable&) = delete;
};

#endif
