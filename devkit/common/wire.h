// The protocol between the front process and its workers, over a stream socket. A frame is a
// length (32 bits, little-endian) and as many bytes; descriptors are passed along with it.
//
// A worker sends one Ready frame when it can serve, then one reply for each request, in the
// order of the requests. Any program that does so can be a worker. Requests may be sent ahead,
// which is before the worker has answered the one before. Then it must claim each request
// (claims.h) before it begins it, and answer TakenBack if the front was faster.
#ifndef CORVANE_COMMON_WIRE_H
#define CORVANE_COMMON_WIRE_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "descriptor.h"
#include "pairs.h"
#include "secrets.h"

// In bytes. A longer frame is an error of the other side.
constexpr size_t longestFrame = size_t{512} << 20;

// How many descriptors may come with a frame.
constexpr size_t mostFiles = 4;

struct WireRequest {
    std::string name;
    SecretText session;  // token of the session that the request makes or uses, or ""
    SecretPairs parameters;
    // Names of parameters. The value of the first is a path to the first descriptor, and so on.
    std::vector<std::string> files;
};

struct WireReply {
    enum Kind : unsigned char {
        Ready,        // text: the version of what serves
        Answer,       // the results
        SessionGone,  // the worker does not know the session
        Failed,       // text: why there are no results
        TakenBack,    // the front has taken the request back
    };
    Kind kind = Answer;
    bool ok = false;
    double microseconds = 0;
    std::string code;  // of a refusal, and its text
    std::string text;
    SecretPairs results;
};

// The whole frame, with its length.
SecretText encode(const WireRequest& request);
SecretText encode(const WireReply& reply);

// From a frame's bytes without the length. Nothing if they are malformed.
std::optional<WireRequest> decodeRequest(std::string_view frame);
std::optional<WireReply> decodeReply(std::string_view frame);

// The size of the first frame, with its length field; nothing if that is not whole yet.
std::optional<size_t> frameSize(std::string_view bytes);

// For a socket that does not block. Sends as much as the socket takes, and the descriptors with
// the first byte. Returns how many bytes were sent; negative, with errno set, on failure.
ssize_t sendSome(int socket, std::string_view bytes, const std::vector<Descriptor>& files);

// Reads requests from a worker's end of the socket, which blocks.
class RequestReader {
public:
    explicit RequestReader(int socket) : m_socket(socket) {}
    RequestReader(const RequestReader&) = delete;
    RequestReader& operator=(const RequestReader&) = delete;

    // Waits for the next request and its descriptors. False at the socket's end, and for a
    // malformed frame.
    bool next(WireRequest& request, std::vector<Descriptor>& files);

private:
    std::string_view received() const { return {m_buffer.data() + m_start, m_end - m_start}; }
    bool receive(size_t frame);
    void drop(size_t frame);

    const int m_socket;
    // What has been received and not returned yet is from m_start to m_end.
    SecretText m_buffer;
    size_t m_start = 0;
    size_t m_end = 0;
    std::vector<Descriptor> m_files;  // likewise
};

// Sends the whole frame over a socket that blocks. False if the other end is closed.
bool writeFrame(int socket, std::string_view frame);

#endif
