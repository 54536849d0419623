// Keeps keys, passwords and plaintext out of memory that is given back, and out of core dumps.
#ifndef CORVANE_COMMON_SECRETS_H
#define CORVANE_COMMON_SECRETS_H

#include <sys/prctl.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "pairs.h"

// Overwrites all the memory that the text has, also what is behind its end, and makes it empty.
inline void wipe(std::string& text)
{
    text.resize(text.capacity());
    explicit_bzero(text.data(), text.size());
    text.clear();
}

// Appends. If the text must move to grow, its old memory is wiped.
inline void appendSecret(std::string& text, std::string_view more)
{
    if (text.capacity() - text.size() < more.size()) {
        std::string larger;
        larger.reserve(std::max(2 * text.capacity(), text.size() + more.size()));
        larger += text;
        wipe(text);
        text.swap(larger);
    }
    text += more;
}

inline void wipe(Pairs& pairs)
{
    for (auto& pair : pairs)
        wipe(pair.second);
    pairs.clear();
}

// A text, or pairs, that are wiped when they are destroyed or moved from.
template <class Value>
class Wiped : public Value {
public:
    using Value::Value;
    Wiped() = default;
    Wiped(Value value) noexcept : Value(std::move(value)) { wipe(value); }
    Wiped(const Wiped&) = default;
    Wiped(Wiped&& other) noexcept : Value(std::move(other)) { wipe(other); }
    Wiped& operator=(Wiped other) noexcept
    {
        Value::swap(other);
        return *this;
    }
    ~Wiped() { wipe(*this); }
};
using SecretText = Wiped<std::string>;
using SecretPairs = Wiped<Pairs>;

// While it exists, the process leaves no core dump, and other processes of the same user cannot
// read its memory. Its destructor allows the latter again, which a leak checker needs.
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
