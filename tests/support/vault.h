// Where a test that looks for traces of secrets keeps them: the one place in which they may be
// found. It is shared with child processes, which make what takes much handling of secrets, so
// that no trace of that is in the test program.
#ifndef CORVANE_TESTS_VAULT_H
#define CORVANE_TESTS_VAULT_H

#include <sys/mman.h>
#include <sys/random.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string_view>

#include "memory_scan.h"

namespace support {

// Bytes in the vault.
struct Held {
    unsigned char* data = nullptr;
    uint32_t size = 0;

    std::string_view view() const { return {reinterpret_cast<const char*>(data), size}; }
    Held first(uint32_t some) const { return {data, std::min(size, some)}; }
};

class Vault {
public:
    Vault()
    {
        void* memory =
            mmap(nullptr, SIZE, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED)
            throw std::bad_alloc();
        m_memory = static_cast<unsigned char*>(memory);
        m_used = new (m_memory) size_t(64);
    }
    Vault(const Vault&) = delete;
    Vault& operator=(const Vault&) = delete;
    ~Vault() { munmap(m_memory, SIZE); }

    // Zeros, so far.
    Held room(size_t size)
    {
        const size_t at = *m_used;
        *m_used = (at + size + 63) / 64 * 64;
        if (*m_used > SIZE)
            throw std::bad_alloc();
        return {m_memory + at, static_cast<uint32_t>(size)};
    }

    Held hold(std::string_view bytes)
    {
        const Held held = room(bytes.size());
        memcpy(held.data, bytes.data(), bytes.size());
        return held;
    }

    Held random(size_t size)
    {
        const Held held = room(size);
        for (size_t done = 0; done < size;) {
            const ssize_t some = getrandom(held.data + done, size - done, 0);
            if (some <= 0)
                throw std::runtime_error("no randomness");
            done += static_cast<size_t>(some);
        }
        return held;
    }

    // An object that child processes fill.
    template <class Object>
    Object& make()
    {
        return *new (room(sizeof(Object)).data) Object;
    }

    MemoryRange range() const
    {
        const auto begin = reinterpret_cast<uintptr_t>(m_memory);
        return {begin, begin + SIZE};
    }

private:
    static constexpr size_t SIZE = size_t{64} << 20;

    unsigned char* m_memory = nullptr;
    size_t* m_used = nullptr;  // in the vault, so that children move it on
};

// Runs `work` in a child process; nothing that it leaves in memory, but in a vault, is here.
template <class Work>
void inChild(Work work)
{
    const pid_t child = fork();
    if (child < 0)
        throw std::runtime_error("fork");
    if (child == 0) {
        try {
            work();
            _exit(0);
        } catch (const std::exception& error) {
            fprintf(stderr, "in the child: %s\n", error.what());
        } catch (...) {
        }
        _exit(1);
    }
    int status = -1;
    if (waitpid(child, &status, 0) != child || status != 0)
        throw std::runtime_error("the child has failed");
}

}  // namespace support

#endif
