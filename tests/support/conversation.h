// A right conversation between the service's front and a worker, frame by frame, and what may
// happen to one of its frames.
#ifndef CORVANE_TESTS_CONVERSATION_H
#define CORVANE_TESTS_CONVERSATION_H

#include <cstdint>
#include <string>
#include <vector>

#include "common/wire.h"

namespace support {

constexpr size_t FRAME_LENGTH_SIZE = 4;

inline std::vector<WireRequest> conversationRequests()
{
    std::vector<WireRequest> requests(3);
    requests[0].name = "QZaven_crypto_hmac";
    requests[0].parameters = {{"strHashAlg", "1"}, {"strKey", ""}, {"strdata", "AAEC"}};
    requests[1].name = "QZaven_ke_encrypt";
    requests[1].session = "session-1";
    requests[1].parameters = {{"strdata", std::string("a\0b\n\xFF", 5)}};
    requests[1].files = {"strdata"};
    return requests;  // the last says nothing
}

inline std::vector<WireReply> conversationReplies()
{
    std::vector<WireReply> replies(5);
    replies[0].kind = WireReply::Ready;
    replies[0].text = "engine 1.0";
    replies[1].ok = true;
    replies[1].microseconds = 12.5;
    replies[1].results = {{"Data", std::string("a\0b\n\xFF", 5)}, {"errorCode", "0"}};
    replies[2].kind = WireReply::SessionGone;
    replies[3].kind = WireReply::Failed;
    replies[3].code = "-20215";
    replies[3].text = "no library";
    replies[4].kind = WireReply::TakenBack;
    return replies;
}

template <class Message>
std::vector<std::string> framesOf(const std::vector<Message>& messages)
{
    std::vector<std::string> frames;
    for (const Message& message : messages)
        frames.push_back(encode(message));
    return frames;
}

inline void putNumber(std::string& bytes, size_t place, uint32_t number)
{
    for (size_t i = 0; i < FRAME_LENGTH_SIZE; ++i)
        bytes[place + i] = static_cast<char>(number >> (8 * i) & 0xFF);
}

inline uint32_t numberAt(const std::string& bytes, size_t place)
{
    uint32_t number = 0;
    for (size_t i = 0; i < FRAME_LENGTH_SIZE; ++i)
        number |= static_cast<uint32_t>(static_cast<unsigned char>(bytes[place + i])) << (8 * i);
    return number;
}

// The numbers that a field is set to in place of the right one.
inline std::vector<uint32_t> wrongNumbers(uint32_t right)
{
    return {right - 1,
            right + 1,
            0,
            1,
            0x7FFFFFFF,
            0x80000000,
            0xFFFFFFFF,
            static_cast<uint32_t>(longestFrame),
            static_cast<uint32_t>(longestFrame) + 1};
}

// The line of the shell by which a worker sends bytes.
inline std::string printing(const std::string& bytes)
{
    std::string text = "printf '";
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        text += {'\\', static_cast<char>('0' + (byte >> 6)),
                 static_cast<char>('0' + (byte >> 3 & 7)), static_cast<char>('0' + (byte & 7))};
    }
    return text + "' >&3\n";
}

}  // namespace support

#endif
