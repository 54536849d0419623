// Keeping keys, passwords and plaintext out of memory that is no longer used and out of
// core dumps.
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

// The text is empty afterwards, and gone from memory, with what a longer one or one that has
// moved away left in its room.
inline void wipe(std::string& text)
{
    text.resize(text.capacity());
    explicit_bzero(text.data(), text.size());
    text.clear();
}

// As append, but leaves no copy behind when the text must move to grow.
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

// A text or parameters that are wiped wherever they end or move away from.
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
