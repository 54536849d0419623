// What the fuzzers share: reading an input, memory of an exact size, and the statement
// that a property holds.
#ifndef CORVANE_FUZZ_H
#define CORVANE_FUZZ_H

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

// Ends the process, which libFuzzer takes for a finding, unless the property holds.
#define HOLDS(property)                                \
    do {                                               \
        if (!(property))                               \
            fuzz::fail(#property, __FILE__, __LINE__); \
    } while (0)

namespace fuzz {

[[noreturn]] inline void fail(const char* property, const char* file, int line)
{
    dprintf(STDERR_FILENO, "%s:%d: does not hold: %s\n", file, line, property);
    abort();
}

// An input from its first byte to its last. Behind the end there are zeros and empty texts.
class Input {
public:
    Input(const uint8_t* data, size_t size) : m_text(reinterpret_cast<const char*>(data), size) {}

    // A number below `count` from one byte. Digits stand for their value, so that seeds can
    // be written and read.
    unsigned pick(unsigned count)
    {
        const char c = m_text.empty() ? '0' : m_text.front();
        m_text.remove_prefix(m_text.empty() ? 0 : 1);
        return static_cast<unsigned char>(c - '0') % count;
    }

    // A number below `count` from two bytes.
    size_t pickWide(size_t count)
    {
        const size_t high = pick(256);
        return (high * 256 + pick(256)) % count;
    }

    // Up to the next line feed, which is dropped.
    std::string line()
    {
        const size_t end = m_text.find('\n');
        const std::string text(m_text.substr(0, end));
        m_text.remove_prefix(end == std::string_view::npos ? m_text.size() : end + 1);
        return text;
    }

    // Exactly `count` bytes.
    std::string take(size_t count)
    {
        std::string bytes(m_text.substr(0, count));
        m_text.remove_prefix(bytes.size());
        bytes.resize(count);
        return bytes;
    }

    std::string rest() { return std::string(std::exchange(m_text, {})); }
    bool empty() const { return m_text.empty(); }

private:
    std::string_view m_text;
};

// Heap memory of exactly `size` bytes: the sanitizer sees the first access beyond it.
class Exact {
public:
    explicit Exact(size_t size, unsigned char fill = 0)
        : m_size(size), m_data(new unsigned char[size])
    {
        memset(m_data.get(), fill, size);
    }
    explicit Exact(std::string_view bytes) : Exact(bytes.size())
    {
        memcpy(m_data.get(), bytes.data(), bytes.size());
    }

    unsigned char* data() { return m_data.get(); }
    char* chars() { return reinterpret_cast<char*>(m_data.get()); }
    size_t size() const { return m_size; }
    uint32_t size32() const { return static_cast<uint32_t>(m_size); }

    // Its first `count` bytes, which must be there.
    std::string text(size_t count) const
    {
        HOLDS(count <= m_size);
        return std::string(reinterpret_cast<const char*>(m_data.get()), count);
    }
    std::string text() const { return text(m_size); }

private:
    size_t m_size;
    std::unique_ptr<unsigned char[]> m_data;
};

inline const unsigned char* bytesOf(const std::string& text)
{
    return reinterpret_cast<const unsigned char*>(text.data());
}

inline uint32_t size32(const std::string& text)
{
    return static_cast<uint32_t>(text.size());
}

inline std::string replaced(std::string text, char from, char to)
{
    for (char& c : text)
        if (c == from)
            c = to;
    return text;
}

}  // namespace fuzz

#endif
