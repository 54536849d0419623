// What the oracle's sources share.
#ifndef CORVANE_TESTS_ORACLE_PARTS_H
#define CORVANE_TESTS_ORACLE_PARTS_H

#include <memory>
#include <stdexcept>
#include <string>

namespace support::oracle {

template <auto Function>
struct Freer {
    template <class Object>
    void operator()(Object* object) const
    {
        Function(object);
    }
};
template <class Object, auto Function>
using Owned = std::unique_ptr<Object, Freer<Function>>;

inline void require(bool ok, const char* what)
{
    if (!ok)
        throw std::runtime_error(std::string("oracle: ") + what);
}

inline const unsigned char* bytesOf(const std::string& text)
{
    return reinterpret_cast<const unsigned char*>(text.data());
}

inline unsigned char* bytesOf(std::string& text)
{
    return reinterpret_cast<unsigned char*>(text.data());
}

inline int sizeOf(const std::string& text)
{
    return static_cast<int>(text.size());
}

// libcrypto's name of a cipher in a mode.
std::string cipherName(int cipher, int mode);

}  // namespace support::oracle

#endif
