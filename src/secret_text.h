// Memory that held keys, passwords, plaintext, or their Base64 is overwritten before it is given
// back, on whichever way that happens.
#ifndef CORVANE_SECRET_TEXT_H
#define CORVANE_SECRET_TEXT_H

#include <cstring>
#include <string>
#include <utility>

// Overwrites all the memory that a text has, also behind its end. It stays as long as it was. The
// compiler must not leave this out, as it may leave out a memset before memory is freed.
template <class Character>
void wipe(std::basic_string<Character>& text)
{
    explicit_bzero(text.data(), text.capacity() * sizeof(Character));
}

// A text that is wiped when it is destroyed or assigned to. It owns its memory alone: what it takes
// over from a std::string leaves nothing behind there. Who moves it into a std::string, or fills
// it beyond its capacity, must see to the memory himself.
class SecretText : public std::string {
public:
    SecretText() = default;
    explicit SecretText(size_t zeroBytes) : std::string(zeroBytes, '\0') {}
    SecretText(const char* data, size_t size) : std::string(data, size) {}
    SecretText(std::string&& text) noexcept : std::string(std::move(text)) { wipe(text); }
    SecretText(SecretText&&) = default;  // a short text stays in the other one until that is wiped
    SecretText& operator=(SecretText&& other) noexcept
    {
        wipe(*this);
        std::string::operator=(std::move(other));
        return *this;
    }
    SecretText& operator=(std::string&& text) noexcept
    {
        wipe(*this);
        std::string::operator=(std::move(text));
        wipe(text);
        return *this;
    }
    ~SecretText() { wipe(*this); }
};

// Wipes memory of others at its own end.
class WipedBytes {
public:
    WipedBytes(void* bytes, size_t size) : m_bytes(bytes), m_size(size) {}
    ~WipedBytes() { explicit_bzero(m_bytes, m_size); }
    WipedBytes(const WipedBytes&) = delete;
    WipedBytes& operator=(const WipedBytes&) = delete;

private:
    void* const m_bytes;
    const size_t m_size;
};

// Wipes a text of others at its own end: one that a function was given as its own.
template <class Text>
class WipedAtEnd {
public:
    explicit WipedAtEnd(Text& text) : m_text(text) {}
    ~WipedAtEnd() { wipe(m_text); }
    WipedAtEnd(const WipedAtEnd&) = delete;
    WipedAtEnd& operator=(const WipedAtEnd&) = delete;

private:
    Text& m_text;
};

#endif
