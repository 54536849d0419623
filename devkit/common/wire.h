// What front and worker processes say to each other over a stream socket: frames of a
// length (32 bits, little-endian) and as many bytes. Descriptors travel beside a frame.
//
// A worker sends one Ready frame when it can serve, then one reply for each request, in the
// order of the requests. Any program that does so can be a worker. One that is sent requests
// ahead, before it has answered the one before, claims each of them (claims.h) before it
// begins, and answers TakenBack for those that it does not get.
#ifndef CORVANE_COMMON_WIRE_H
#define CORVANE_COMMON_WIRE_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "descriptor.h"
#include "pairs.h"
#include "secrets.h"

// A longer frame is a fault of the other side.
constexpr size_t longestFrame = size_t{512} << 20;

// At most so many descriptors beside a frame.
constexpr size_t mostFiles = 4;

struct WireRequest {
    std::string name;
    std::string session;  // token of the session that the request makes or uses, or ""
    SecretPairs parameters;
    // Parameters whose value is a path to the descriptor of the same place.
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
std::string encode(const WireRequest& request);
std::string encode(const WireReply& reply);

// A frame's bytes without the length; nothing if they are not of the form.
std::optional<WireRequest> decodeRequest(std::string_view frame);
std::optional<WireReply> decodeReply(std::string_view frame);

// The first frame's size with its length, or nothing as long as the length is not there.
std::optional<size_t> frameSize(std::string_view bytes);

// For a socket that does not block. Sends what it takes, descriptors with the first byte,
// and returns how many bytes that were; negative with errno set.
ssize_t sendSome(int socket, std::string_view bytes, const std::vector<Descriptor>& files);

// A worker's side of a socket that blocks: requests as they come.
class RequestReader {
public:
    explicit RequestReader(int socket) : m_socket(socket) {}
    ~RequestReader() { wipe(m_buffer); }
    RequestReader(const RequestReader&) = delete;
    RequestReader& operator=(const RequestReader&) = delete;

    // The next request with the descriptors that came beside its frame. False at the socket's
    // end, and for what is not of the form.
    bool next(WireRequest& request, std::vector<Descriptor>& files);

private:
    std::string_view received() const { return {m_buffer.data() + m_start, m_end - m_start}; }
    bool receive(size_t frame);
    void drop(size_t frame);

    const int m_socket;
    // Its part from m_start to m_end has been received and not given yet.
    std::string m_buffer;
    size_t m_start = 0;
    size_t m_end = 0;
    std::vector<Descriptor> m_files;  // likewise
};

// For a socket that blocks. False at its end.
bool writeFrame(int socket, std::string_view frame);

#endif
