// Settles who gets a request that was sent ahead to a worker (see wire.h): the worker, which
// begins it, or the front, which takes it back. It is a page of memory that both share, so that
// exactly one of the two gets each request.
#ifndef CORVANE_COMMON_CLAIMS_H
#define CORVANE_COMMON_CLAIMS_H

#include <array>
#include <atomic>
#include <cstdint>

#include "descriptor.h"

class Claims {
public:
    // How many requests may be on their way at once. Both sides number them from 0 on.
    static constexpr uint64_t most = 16;

    // The front's side. Throws a std::system_error.
    Claims();
    // The worker's, over the front's descriptor. Throws a std::system_error.
    explicit Claims(const Descriptor& shared);
    ~Claims();
    Claims(const Claims&) = delete;
    Claims& operator=(const Claims&) = delete;

    // For the worker to inherit.
    const Descriptor& descriptor() const { return m_descriptor; }

    // The front's: before the request is sent.
    void offer(uint64_t number) { placeOf(number) = Offered; }
    // The front's: false if the worker has begun it.
    bool takeBack(uint64_t number) { return claim(number, TakenBack); }
    // The worker's: false if the front has taken it back.
    bool begin(uint64_t number) { return claim(number, Begun); }

private:
    enum State : uint32_t { Offered, Begun, TakenBack };
    using Places = std::array<std::atomic<uint32_t>, most>;

    void map(int descriptor);
    std::atomic<uint32_t>& placeOf(uint64_t number) { return (*m_places)[number % most]; }
    bool claim(uint64_t number, State state)
    {
        uint32_t offered = Offered;
        return placeOf(number).compare_exchange_strong(offered, state);
    }

    Descriptor m_descriptor;
    Places* m_places = nullptr;
};

#endif
