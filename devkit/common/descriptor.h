// A file descriptor with one owner.
#ifndef CORVANE_COMMON_DESCRIPTOR_H
#define CORVANE_COMMON_DESCRIPTOR_H

#include <unistd.h>

#include <utility>

class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int number) : number_(number) {}
    Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept
    {
        std::swap(number_, other.number_);
        return *this;
    }
    ~Descriptor() { reset(); }

    int get() const { return number_; }
    int release() { return std::exchange(number_, -1); }
    explicit operator bool() const { return number_ >= 0; }
    void reset()
    {
        if (number_ >= 0)
            close(number_);
        number_ = -1;
    }

private:
    int number_ = -1;
};

#endif
