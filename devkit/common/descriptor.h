// A file descriptor with one owner.
#ifndef CORVANE_COMMON_DESCRIPTOR_H
#define CORVANE_COMMON_DESCRIPTOR_H

#include <unistd.h>

#include <utility>

class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int number) : m_number(number) {}
    Descriptor(Descriptor&& other) noexcept : m_number(std::exchange(other.m_number, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept
    {
        std::swap(m_number, other.m_number);
        return *this;
    }
    ~Descriptor() { reset(); }

    int get() const { return m_number; }
    int release() { return std::exchange(m_number, -1); }
    explicit operator bool() const { return m_number >= 0; }
    void reset()
    {
        if (m_number >= 0)
            close(m_number);
        m_number = -1;
    }

private:
    int m_number = -1;
};

#endif
