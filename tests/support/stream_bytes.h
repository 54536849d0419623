// Bytes for the streaming codec and where to put them: random texts in random pieces, blocks of
// exactly their size, blocks at the edge of what can be read.
#ifndef CORVANE_TESTS_STREAM_BYTES_H
#define CORVANE_TESTS_STREAM_BYTES_H

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>

#include "support/each_kernel.h"

namespace support {

inline const std::string ALPHABET =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr unsigned char CANARY = 0xa5;

inline std::string randomBytes(std::mt19937& random, size_t size)
{
    std::string bytes(size, '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(random());
    return bytes;
}

inline std::string randomCharacters(std::mt19937& random, size_t size)
{
    std::string text(size, '\0');
    for (char& character : text)
        character = ALPHABET[random() % ALPHABET.size()];
    return text;
}

// The length of a piece of a stream: short, so that groups are cut anywhere, or long enough for
// each kernel to begin in the middle of a call.
inline size_t pieceLength(std::mt19937& random)
{
    return random() % (random() % 2 == 0 ? 9 : LONGER_THAN_ANY_VECTOR);
}

// A copy of some bytes in a block of exactly their size, so that a sanitizer or valgrind
// sees any access behind it.
struct ExactBlock {
    explicit ExactBlock(const std::string& bytes)
        : size(bytes.size()), data(std::make_unique<unsigned char[]>(bytes.size()))
    {
        std::copy(bytes.begin(), bytes.end(), data.get());
    }
    ExactBlock(size_t count, unsigned char filler)
        : size(count), data(std::make_unique<unsigned char[]>(count))
    {
        std::fill_n(data.get(), count, filler);
    }
    std::string text(size_t from, size_t count) const
    {
        return std::string(data.get() + from, data.get() + from + count);
    }
    char* chars() const { return reinterpret_cast<char*>(data.get()); }

    size_t size;
    std::unique_ptr<unsigned char[]> data;
};

// Bytes that end where readable memory ends, so that any build sees a read behind them.
class BeforeTheEdge {
public:
    explicit BeforeTheEdge(const std::string& bytes) : m_page(static_cast<size_t>(getpagesize()))
    {
        void* both =
            mmap(nullptr, 2 * m_page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (both == MAP_FAILED ||
            mprotect(static_cast<char*>(both) + m_page, m_page, PROT_NONE) != 0)
            abort();
        m_start = static_cast<unsigned char*>(both);
        m_data = m_start + m_page - bytes.size();
        std::copy(bytes.begin(), bytes.end(), m_data);
    }
    ~BeforeTheEdge() { munmap(m_start, 2 * m_page); }
    BeforeTheEdge(const BeforeTheEdge&) = delete;
    BeforeTheEdge& operator=(const BeforeTheEdge&) = delete;

    unsigned char* data() { return m_data; }

private:
    size_t m_page;
    unsigned char* m_start;
    unsigned char* m_data;
};

// Address space that takes no memory until it is touched; reads give zeros.
class Reserved {
public:
    explicit Reserved(size_t size, int access = PROT_READ | PROT_WRITE) : m_size(size)
    {
        void* start =
            mmap(nullptr, size, access, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        m_data = start == MAP_FAILED ? nullptr : static_cast<unsigned char*>(start);
    }
    ~Reserved()
    {
        if (m_data != nullptr)
            munmap(m_data, m_size);
    }
    Reserved(const Reserved&) = delete;
    Reserved& operator=(const Reserved&) = delete;

    unsigned char* data() { return m_data; }

private:
    size_t m_size;
    unsigned char* m_data;
};

inline int32_t int32At(const unsigned char* state, size_t offset)
{
    int32_t value;
    memcpy(&value, state + offset, sizeof value);
    return value;
}

// Leaves a freed block behind that is not all zero; the next one of its size has its place.
inline void leaveUsedBlock(size_t size)
{
    auto* block = static_cast<volatile unsigned char*>(malloc(size));
    for (size_t i = 0; i < size; i++)
        block[i] = CANARY;
    free(const_cast<unsigned char*>(block));
}

}  // namespace support

#endif
