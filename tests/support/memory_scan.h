// Looks whether secrets are left in memory that a process holds: in freed heap, below the stack,
// in buffers that strings outgrew.
//
// A secret is found by any 12 bytes of it, raw or in Base64, so that one of fewer bytes is never
// found. What the scan itself holds it neither finds nor overwrites more than it must: a caller
// whose own stack frames may cover what a callee left there calls that by deeperInStack.
#ifndef CORVANE_TESTS_MEMORY_SCAN_H
#define CORVANE_TESTS_MEMORY_SCAN_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace support {

struct MemoryRange {
    uintptr_t begin;
    uintptr_t end;  // the first byte behind it
};

// One run of bytes that come from a secret.
struct Trace {
    std::string mark;    // the secret's name
    std::string form;    // "raw", "Base64", "Base64 URL" or "text"
    uintptr_t address;   // of the first byte
    size_t length;       // of what was recognised
    std::string region;  // the mapping's name, or "anonymous"; of the own stack, which part
    std::string around;  // in hex: up to 16 bytes before it, [the first 32 of it], 16 after these
};

std::ostream& operator<<(std::ostream& out, const Trace& trace);

// One line each, the first 20 of them.
std::string textOf(const std::vector<Trace>& traces);

// What to look for. Of the secrets themselves nothing is kept but hashes with a random key.
class Marks {
public:
    static constexpr size_t PIECE = 12;

    Marks();

    // Marks bytes: as they are, and in Base64 in both alphabets, also in the midst of a longer
    // text that was encoded. Where two secrets have a piece in common it counts for the first.
    void add(const std::string& name, std::string_view bytes);

    // Marks a text as it stands.
    void addText(const std::string& name, std::string_view text);

    // The number of pieces that can be found.
    size_t pieces() const;

private:
    friend class RangeScan;

    struct Entry {
        uint64_t hash;  // of the piece; 0: the entry is free
        uint32_t source;
    };
    struct Source {
        std::string mark;
        const char* form;
        uint32_t secret;  // which of those that were added
    };

    void addForm(const std::string& name, const char* form, const char* bytes, size_t size);
    void addPiece(const char* piece, uint32_t source);
    void grow();
    uint64_t hash(const char* piece) const;
    size_t filterBit(const char* window) const;
    const Entry* find(const char* piece) const;

    std::vector<Source> m_sources;
    std::vector<Entry> m_entries;    // open addressing; the size is a power of two
    std::vector<uint64_t> m_filter;  // a bit for each hash of 8 bytes that are in a piece
    uint32_t m_secrets = 0;
    size_t m_pieces = 0;
    uint64_t m_key[3];
};

// In all memory that this process alone may write, but for `except`. Not under sanitizers or
// valgrind, whose own memory is not to be read.
std::vector<Trace> tracesHere(const Marks& marks, const std::vector<MemoryRange>& except = {});

// In all memory that another process may write. The caller must be allowed to trace it. Throws a
// std::system_error if it is not, or if there is no such process.
std::vector<Trace> tracesIn(pid_t process, const Marks& marks);

// Overwrites memory without explicit_bzero, which a test may have taken over.
void wipeByHand(void* bytes, size_t size);

// Calls a function with the stack pointer so far down that nothing that it leaves on the stack is
// overwritten when its caller then scans.
template <class Function>
[[gnu::noinline]] void deeperInStack(Function&& function)
{
    volatile char room[32 * 1024];
    room[0] = 0;
    function();
    room[sizeof room - 1] = 0;
}

}  // namespace support

#endif
