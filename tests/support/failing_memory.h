// Makes allocations of a host's front process fail while it serves. The library
// failing_memory, loaded before all others, answers malloc there and looks for its orders in
// a file that the test shares with it. It has no effect in an address sanitizer's build.
#ifndef CORVANE_TESTS_FAILING_MEMORY_H
#define CORVANE_TESTS_FAILING_MEMORY_H

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

namespace support {

// The name of the file is in this variable of the environment.
constexpr const char* failingMemoryVariable = "CORVANE_FAILING_MEMORY";

struct FailingMemoryOrders {
    std::atomic<size_t> every;    // each so many-th allocation fails; 0 for none
    std::atomic<size_t> atLeast;  // of so many bytes
    std::atomic<size_t> failed;   // so far
};

inline FailingMemoryOrders* mapOrders(const char* file)
{
    const int descriptor = open(file, O_RDWR | O_CLOEXEC);
    void* memory = mmap(nullptr, sizeof(FailingMemoryOrders), PROT_READ | PROT_WRITE, MAP_SHARED,
                        descriptor, 0);
    close(descriptor);
    return memory == MAP_FAILED ? nullptr : static_cast<FailingMemoryOrders*>(memory);
}

// The test's side.
class FailingMemory {
public:
    // With where the library is.
    explicit FailingMemory(const std::string& library)
    {
        std::string name = (std::filesystem::temp_directory_path() / "memory_XXXXXX").string();
        const int descriptor = mkstemp(name.data());
        const bool isMade = ftruncate(descriptor, sizeof(FailingMemoryOrders)) == 0;
        close(descriptor);
        m_file = name;
        // The loader takes a blank in a path for the end of it.
        m_library = m_file + ".so";
        std::filesystem::create_symlink(library, m_library);
        m_orders = isMade ? mapOrders(m_file.c_str()) : nullptr;
        if (m_orders == nullptr)
            throw std::runtime_error("no file for orders");
    }
    ~FailingMemory()
    {
        munmap(m_orders, sizeof *m_orders);
        unlink(m_library.c_str());
        unlink(m_file.c_str());
    }
    FailingMemory(const FailingMemory&) = delete;
    FailingMemory& operator=(const FailingMemory&) = delete;

    std::vector<std::string> environment() const
    {
        return {"LD_PRELOAD=" + m_library, std::string(failingMemoryVariable) + "=" + m_file};
    }
    void fail(size_t every, size_t atLeast)
    {
        m_orders->atLeast = atLeast;
        m_orders->every = every;
    }
    size_t failed() const { return m_orders->failed; }

private:
    std::string m_file;
    std::string m_library;
    FailingMemoryOrders* m_orders = nullptr;
};

}  // namespace support

#endif
