// The callers' buffers, checked.
#ifndef CORVANE_ENGINE_BUFFERS_H
#define CORVANE_ENGINE_BUFFERS_H

#include <openssl/crypto.h>

#include <cstddef>
#include <cstdint>

#include "errors.h"

struct Bytes {
    const unsigned char* data;  // never null
    size_t size;
};

// Null is allowed with length 0 only.
inline Bytes input(const unsigned char* data, uint32_t size)
{
    static constexpr unsigned char none = 0;
    require(data != nullptr || size == 0, AVEN_E_NULL_POINTER);
    return {size == 0 ? &none : data, size};
}

template <class Block>
const Block& parameterBlock(const void* params)
{
    require(params != nullptr, AVEN_E_NULL_POINTER);
    return *static_cast<const Block*>(params);
}

// An output buffer and its in/out length. After a failed call the length is 0, or what
// is needed if the buffer was too small.
class Output {
public:
    Output(unsigned char* data, uint32_t* length) : m_data(data), m_length(length)
    {
        require(length != nullptr, AVEN_E_NULL_POINTER);
        m_capacity = *length;
        *length = 0;
    }

    // Whether the caller asks for the length alone: null with a capacity of 0.
    bool isQuery() const { return m_data == nullptr && m_capacity == 0; }

    // Room for `size` bytes.
    unsigned char* room(size_t size)
    {
        require(isQuery() || m_data != nullptr, AVEN_E_NULL_POINTER);
        if (size > m_capacity) {
            setLength(size);
            throw Failure{AVEN_E_BUFFER_TOO_SMALL};
        }
        require(m_data != nullptr, AVEN_E_NULL_POINTER);
        return m_data;
    }

    void setLength(size_t size)
    {
        require(size <= UINT32_MAX, AVEN_E_INPUT_TOO_LONG);
        *m_length = static_cast<uint32_t>(size);
    }

private:
    unsigned char* m_data;
    uint32_t* m_length;
    uint32_t m_capacity;
};

// Wipes decrypted bytes at the end of the scope, unless they turned out to be good.
class WipeUnlessKept {
public:
    WipeUnlessKept(unsigned char* data, size_t size) : m_data(data), m_size(size) {}
    ~WipeUnlessKept()
    {
        if (m_data != nullptr)
            OPENSSL_cleanse(m_data, m_size);
    }
    WipeUnlessKept(const WipeUnlessKept&) = delete;
    WipeUnlessKept& operator=(const WipeUnlessKept&) = delete;

    void keep() { m_data = nullptr; }

private:
    unsigned char* m_data;
    size_t m_size;
};

#endif
