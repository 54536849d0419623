// The development engine, loaded as a plug-in loads it, and what its tests share.
#ifndef CORVANE_TESTS_DEVKIT_ENGINE_H
#define CORVANE_TESTS_DEVKIT_ENGINE_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "common/opened_library.h"
#include "engine/engine_numbers.h"

namespace support {

// The library and its 34 functions. Closing it does not clean the engine up.
class DevkitEngine : public EngineFunctions {
public:
    DevkitEngine() { bind(m_library); }
    DevkitEngine(const DevkitEngine&) = delete;
    DevkitEngine& operator=(const DevkitEngine&) = delete;

private:
    OpenedLibrary m_library = openLibrary(CORVANE_ENGINE_LIBRARY);
};

// An initialised engine.
class EngineTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(engine.aven_global_init(), 0); }
    void TearDown() override { EXPECT_EQ(engine.aven_global_cleanup(), 0); }

    DevkitEngine engine;
};

// A byte string in a block of exactly its size, so that a sanitizer sees any access
// beyond it. An empty one still has an address.
class Exact {
public:
    explicit Exact(const std::string& bytes)
        : m_data(new unsigned char[bytes.size()]), m_size(static_cast<uint32_t>(bytes.size()))
    {
        std::copy(bytes.begin(), bytes.end(), m_data.get());
    }
    unsigned char* data() const { return m_data.get(); }
    uint32_t size() const { return m_size; }

private:
    std::unique_ptr<unsigned char[]> m_data;
    uint32_t m_size;
};

// An output buffer of a capacity, filled with a pattern and fenced by more of it.
class Fenced {
public:
    explicit Fenced(size_t capacity)
        : len(static_cast<uint32_t>(capacity)),
          m_capacity(capacity),
          m_bytes(capacity + FENCE, FILL)
    {
    }

    unsigned char* data() { return m_bytes.data(); }
    std::string text() const { return std::string(m_bytes.begin(), m_bytes.begin() + len); }
    bool lengthFits() const { return len <= m_capacity; }
    bool fenceIntact() const
    {
        return std::all_of(m_bytes.begin() + static_cast<std::ptrdiff_t>(m_capacity), m_bytes.end(),
                           [](unsigned char b) { return b == FILL; });
    }
    bool untouched() const
    {
        return std::all_of(m_bytes.begin(), m_bytes.end(),
                           [](unsigned char b) { return b == FILL; });
    }
    bool wiped() const
    {
        return std::all_of(m_bytes.begin(),
                           m_bytes.begin() + static_cast<std::ptrdiff_t>(m_capacity),
                           [](unsigned char b) { return b == 0 || b == FILL; });
    }

    uint32_t len;

private:
    static constexpr size_t FENCE = 64;
    static constexpr unsigned char FILL = 0xA5;

    size_t m_capacity;
    std::vector<unsigned char> m_bytes;
};

// What a call gave that writes into a buffer.
struct Result {
    int code;
    uint32_t len;
    std::string out;  // nothing if the call failed
};

// Of a call that took `out` and its length. It must have written within the capacity and, if it
// failed, have left the buffer as `ifFailed` says.
inline Result resultOf(int code, const Fenced& out,
                       bool (Fenced::*ifFailed)() const = &Fenced::untouched)
{
    EXPECT_TRUE(out.fenceIntact());
    EXPECT_TRUE(code == 0 || (out.*ifFailed)());
    return {code, out.len, code == 0 ? out.text() : ""};
}

// That a function of a parameter block, an input and an output refuses each that is null.
template <class Function, class Block>
void expectNullsRefused(Function function, const Block& block)
{
    unsigned char byte = 0;
    uint32_t len = 1;
    EXPECT_EQ(function(nullptr, &byte, 1, &byte, &len), AVEN_E_NULL_POINTER);
    EXPECT_EQ(len, 0U);
    EXPECT_EQ(function(&block, nullptr, 1, &byte, &len), AVEN_E_NULL_POINTER);
    EXPECT_EQ(function(&block, &byte, 1, &byte, nullptr), AVEN_E_NULL_POINTER);
}

using Sizes = std::initializer_list<size_t>;

inline std::string fromHex(const std::string& hex)
{
    std::string bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    return bytes;
}

inline std::string toHex(const std::string& bytes)
{
    std::string hex;
    char digits[3];
    for (char b : bytes) {
        snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(b));
        hex += digits;
    }
    return hex;
}

// `size` bytes that differ from each other and from those of another seed.
inline std::string pattern(size_t size, unsigned seed = 1)
{
    std::string bytes;
    uint32_t state = seed * 2654435761u + 1;
    for (size_t i = 0; i < size; ++i) {
        state = state * 1664525u + 1013904223u;
        bytes += static_cast<char>(state >> 24);
    }
    return bytes;
}

}  // namespace support

#endif
