// How texts are handed to the engine.
#ifndef CORVANE_ENGINE_BINDING_TEXT_H
#define CORVANE_ENGINE_BINDING_TEXT_H

#include <cstdint>
#include <string>

// Never null, also for an empty text.
inline const unsigned char* bytes(const std::string& text)
{
    return reinterpret_cast<const unsigned char*>(text.data());
}

// The length as the engine takes it. Longer texts count modulo 4 GiB.
inline uint32_t size32(const std::string& text)
{
    return static_cast<uint32_t>(text.length());
}

#endif
