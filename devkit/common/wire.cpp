#include "wire.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <iterator>

namespace {

constexpr size_t lengthSize = 4;

// Requests are received in pieces of so many bytes, larger ones whole.
constexpr size_t pieceSize = size_t{64} << 10;

class Writer {
public:
    Writer() : m_bytes(lengthSize, '\0') {}

    void number(size_t value)
    {
        for (unsigned shift = 0; shift < 32; shift += 8)
            m_bytes += static_cast<char>(value >> shift & 0xFF);
    }
    void text(const std::string& value)
    {
        number(value.size());
        m_bytes += value;
    }
    void pairs(const Pairs& values)
    {
        number(values.size());
        for (const auto& [name, value] : values) {
            text(name);
            text(value);
        }
    }
    // So that no unwiped copy is left behind by growing.
    void reserve(const Pairs& values)
    {
        size_t size = 1024;
        for (const auto& [name, value] : values)
            size += name.size() + value.size() + 8;
        m_bytes.reserve(size);
    }
    SecretText take()
    {
        const size_t size = m_bytes.size() - lengthSize;
        for (size_t i = 0; i < lengthSize; ++i)
            m_bytes[i] = static_cast<char>(size >> (8 * i) & 0xFF);
        return std::move(m_bytes);
    }

private:
    SecretText m_bytes;
};

size_t numberAt(std::string_view bytes)
{
    size_t value = 0;
    for (size_t i = 0; i < lengthSize; ++i)
        value |= static_cast<size_t>(static_cast<unsigned char>(bytes[i])) << (8 * i);
    return value;
}

// Behind the end everything is empty, and `whole` false.
class Reader {
public:
    explicit Reader(std::string_view bytes) : m_rest(bytes) {}

    size_t number()
    {
        const std::string_view bytes = take(lengthSize);
        return bytes.size() == lengthSize ? numberAt(bytes) : 0;
    }
    SecretText text() { return SecretText(take(number())); }
    SecretPairs pairs()
    {
        SecretPairs values;
        size_t count = number();
        // Growing would leave copies behind. A pair has two lengths at least.
        values.reserve(std::min(count, m_rest.size() / (2 * lengthSize)));
        for (; count > 0 && m_good; --count) {
            std::string name = text();
            values.emplace_back(std::move(name), text());
        }
        return values;
    }
    bool whole() const { return m_good && m_rest.empty(); }

private:
    std::string_view take(size_t size)
    {
        if (size > m_rest.size()) {
            m_good = false;
            m_rest = {};
        }
        const std::string_view bytes = m_rest.substr(0, m_good ? size : 0);
        m_rest.remove_prefix(bytes.size());
        return bytes;
    }

    std::string_view m_rest;
    bool m_good = true;
};

union Control {
    cmsghdr header;
    char bytes[CMSG_SPACE(mostFiles * sizeof(int))];
};

// Takes over the descriptors that came beside a message.
void takeFiles(msghdr& message, std::vector<Descriptor>& files)
{
    for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr;
         header = CMSG_NXTHDR(&message, header)) {
        if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS)
            continue;
        const size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < count; ++i) {
            int number;
            memcpy(&number, CMSG_DATA(header) + i * sizeof number, sizeof number);
            files.emplace_back(number);
        }
    }
}

}  // namespace

SecretText encode(const WireRequest& request)
{
    Writer writer;
    writer.reserve(request.parameters);
    writer.text(request.name);
    writer.text(request.session);
    writer.pairs(request.parameters);
    writer.number(request.files.size());
    for (const std::string& name : request.files)
        writer.text(name);
    return writer.take();
}

SecretText encode(const WireReply& reply)
{
    Writer writer;
    writer.reserve(reply.results);
    writer.number(reply.kind);
    writer.number(reply.ok ? 1 : 0);
    writer.number(static_cast<size_t>(std::min(reply.microseconds * 10, 4e9)));
    writer.text(reply.code);
    writer.text(reply.text);
    writer.pairs(reply.results);
    return writer.take();
}

std::optional<WireRequest> decodeRequest(std::string_view frame)
{
    Reader reader(frame);
    WireRequest request;
    request.name = reader.text();
    request.session = reader.text();
    request.parameters = reader.pairs();
    const size_t files = reader.number();
    if (files > mostFiles)
        return std::nullopt;
    for (size_t i = 0; i < files; ++i)
        request.files.push_back(reader.text());
    if (!reader.whole())
        return std::nullopt;
    return request;
}

std::optional<WireReply> decodeReply(std::string_view frame)
{
    Reader reader(frame);
    WireReply reply;
    const size_t kind = reader.number();
    reply.kind = static_cast<WireReply::Kind>(kind);
    const size_t ok = reader.number();
    reply.ok = ok == 1;
    reply.microseconds = static_cast<double>(reader.number()) / 10;
    reply.code = reader.text();
    reply.text = reader.text();
    reply.results = reader.pairs();
    if (!reader.whole() || kind > WireReply::TakenBack || ok > 1)
        return std::nullopt;
    return reply;
}

std::optional<size_t> frameSize(std::string_view bytes)
{
    if (bytes.size() < lengthSize)
        return std::nullopt;
    return lengthSize + numberAt(bytes);
}

ssize_t sendSome(int socket, std::string_view bytes, const std::vector<Descriptor>& files)
{
    iovec part = {const_cast<char*>(bytes.data()), bytes.size()};
    Control control = {};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (!files.empty()) {
        message.msg_control = &control;
        message.msg_controllen = CMSG_SPACE(files.size() * sizeof(int));
        cmsghdr* header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(files.size() * sizeof(int));
        for (size_t i = 0; i < files.size(); ++i) {
            const int number = files[i].get();
            memcpy(CMSG_DATA(header) + i * sizeof number, &number, sizeof number);
        }
    }
    return sendmsg(socket, &message, MSG_NOSIGNAL);
}

bool RequestReader::next(WireRequest& request, std::vector<Descriptor>& files)
{
    files.clear();
    std::optional<size_t> size;
    while (!(size = frameSize(received())) || received().size() < *size) {
        const size_t frame = size.value_or(lengthSize);
        if (frame > longestFrame + lengthSize || !receive(frame))
            return false;
    }
    auto decoded = decodeRequest(received().substr(lengthSize, *size - lengthSize));
    drop(*size);
    if (!decoded)
        return false;
    request = *std::move(decoded);
    const auto end = m_files.begin() +
                     static_cast<std::ptrdiff_t>(std::min(request.files.size(), m_files.size()));
    files.assign(std::make_move_iterator(m_files.begin()), std::make_move_iterator(end));
    m_files.erase(m_files.begin(), end);
    return true;
}

// Waits for more of a frame of so many bytes.
bool RequestReader::receive(size_t frame)
{
    if (m_start > 0) {
        const size_t size = received().size();
        memmove(m_buffer.data(), m_buffer.data() + m_start, size);
        explicit_bzero(m_buffer.data() + size, m_end - size);
        m_start = 0;
        m_end = size;
    }
    if (m_buffer.size() < std::max(frame, pieceSize)) {
        SecretText larger(std::max(frame, pieceSize), '\0');
        memcpy(larger.data(), m_buffer.data(), m_end);
        m_buffer.swap(larger);
    }

    iovec part = {m_buffer.data() + m_end, m_buffer.size() - m_end};
    for (;;) {
        // The other side's reading of a reply would wake who waits in recvmsg itself.
        pollfd waiting = {m_socket, POLLIN, 0};
        if (poll(&waiting, 1, -1) < 0 && errno != EINTR)
            return false;
        Control control = {};
        msghdr message = {};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = &control;
        message.msg_controllen = sizeof control;
        const ssize_t count = recvmsg(m_socket, &message, MSG_CMSG_CLOEXEC | MSG_DONTWAIT);
        if (count < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        if (count <= 0)
            return false;
        takeFiles(message, m_files);
        m_end += static_cast<size_t>(count);
        return true;
    }
}

// The first frame is used up.
void RequestReader::drop(size_t frame)
{
    explicit_bzero(m_buffer.data() + m_start, frame);
    m_start += frame;
    if (m_start < m_end)
        return;
    m_start = m_end = 0;
    // The room for a large one is not kept.
    if (m_buffer.size() > pieceSize)
        m_buffer = SecretText();
}

bool writeFrame(int socket, std::string_view frame)
{
    while (!frame.empty()) {
        const ssize_t count = sendSome(socket, frame, {});
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return false;
        frame.remove_prefix(static_cast<size_t>(count));
    }
    return true;
}
