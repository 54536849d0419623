#include "headers.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <vector>

#include "common/text.h"
#include "service/bodies/refusal.h"

namespace {

constexpr size_t longestHeaders = size_t{16} << 10;
constexpr size_t mostHeaders = 64;

// Each may be there once, but for those that whoever passes a request on adds to.
struct Known {
    const char* name;
    std::string Headers::*value;
    bool isList = false;
};

constexpr const char* lengthHeader = "Content-Length";
constexpr const char* encodingHeader = "Transfer-Encoding";

constexpr Known knownHeaders[] = {
    {"Host", &Headers::host},
    {"Origin", &Headers::origin},
    {"Sec-Fetch-Site", &Headers::fetchSite},
    {"Authorization", &Headers::authorization},
    {"Content-Type", &Headers::contentType},
    {lengthHeader, &Headers::contentLength},
    {"Content-Encoding", &Headers::contentEncoding},
    {encodingHeader, &Headers::transferEncoding},
    {"If-None-Match", &Headers::noneMatch},
    {nodeHeader, &Headers::node},
    {sessionHeader, &Headers::session},
    {"X-Request-Id", &Headers::requestId, true},
    {"X-Forwarded-For", &Headers::forwardedFor, true},
};

// libmicrohttpd cuts lines at a NUL, joins folded ones and takes a line feed alone for their
// end, and tells nothing of it. But it keeps the head of a request as it came, in one piece:
// whatever is hidden makes a gap there, and what is missing an overlap.
class Layout {
public:
    explicit Layout(const FirstLine& first)
        : m_start(first.method),
          m_isWhole(first.method + strlen(first.method) + 1 == first.target &&
                    first.target + first.targetSize + 1 == first.version),
          m_next(first.version + strlen(first.version) + lineEnd)
    {
    }

    // Between name and value are a colon and blanks, which the library has seen.
    void add(std::string_view name, std::string_view value)
    {
        m_isWhole = m_isWhole && name.data() == m_next;
        m_next = value.data() + value.size() + lineEnd;
    }
    bool isWhole(size_t size) const { return m_isWhole && m_next + lineEnd == m_start + size; }

private:
    static constexpr size_t lineEnd = 2;

    const char* const m_start;
    bool m_isWhole;
    const char* m_next;  // where the next header has to be
};

// Gathers the headers, and what is wrong with them.
class Reader {
public:
    Reader(const FirstLine& first, Headers& headers) : m_headers(headers), m_layout(first)
    {
        m_seen.reserve(std::size(knownHeaders));
    }

    static MHD_Result read(void* self, MHD_ValueKind /*kind*/, const char* name, size_t nameSize,
                           const char* value, size_t valueSize)
    {
        static_cast<Reader*>(self)->add({name, nameSize}, {value, valueSize});
        return MHD_YES;
    }

    bool has(std::string_view name) const
    {
        return std::find(m_seen.begin(), m_seen.end(), name) != m_seen.end();
    }
    const std::string& twice() const { return m_twice; }
    bool isMalformed() const { return m_isMalformed; }
    bool isWhole(size_t size) const { return m_layout.isWhole(size); }
    bool isTooMuch() const { return m_count > mostHeaders || m_bytes > longestHeaders; }

private:
    void add(std::string_view name, std::string_view value)
    {
        ++m_count;
        m_layout.add(name, value);
        m_bytes += name.size() + value.size() + 4;
        m_isMalformed = m_isMalformed || !isHeaderName(name) || !isHeaderValue(value);
        for (const Known& known : knownHeaders) {
            if (!equalIgnoringCase(name, known.name))
                continue;
            std::string& text = m_headers.*known.value;
            if (has(known.name) && known.isList) {
                text.append(",").append(trimmed(value));  // RFC 9110, section 5.3
                continue;
            }
            if (has(known.name))
                m_twice = known.name;
            m_seen.emplace_back(known.name);
            text = std::string(trimmed(value));
        }
    }

    Headers& m_headers;
    Layout m_layout;
    size_t m_count = 0;
    size_t m_bytes = 0;
    std::string m_twice;
    bool m_isMalformed = false;
    std::vector<std::string_view> m_seen;
};

}  // namespace

void readHeaders(MHD_Connection* connection, const FirstLine& first, Headers& headers)
{
    Reader reader(first, headers);
    MHD_get_connection_values_n(connection, MHD_HEADER_KIND, &Reader::read, &reader);
    const auto* size = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_REQUEST_HEADER_SIZE);
    const bool isChunked = reader.has(encodingHeader);
    const bool hasLength = reader.has(lengthHeader);
    const std::string& length = headers.contentLength;
    headers.hasBody = isChunked || (hasLength && length != "0");

    if (!reader.twice().empty())
        throw Refusal(Reason::header_twice, reader.twice(), {{"header", reader.twice()}});
    if (size == nullptr || !reader.isWhole(size->header_size) || !isHeaderName(first.method) ||
        !first.isTargetPlain)
        throw Refusal(Reason::bad_head);
    if (reader.isMalformed())
        throw Refusal(Reason::bad_header);
    if (isChunked && hasLength)
        throw Refusal(Reason::length_and_chunks, lengthHeader);
    if (isChunked && first.version == std::string_view("HTTP/1.0"))
        throw Refusal(Reason::old_and_chunked, encodingHeader);
    if (isChunked && !equalIgnoringCase(headers.transferEncoding, "chunked"))
        throw Refusal(Reason::not_chunked, encodingHeader);
    if (hasLength &&
        (length.empty() || length.find_first_not_of("0123456789") != std::string::npos))
        throw Refusal(Reason::bad_length, lengthHeader);
    if (reader.isTooMuch())
        throw Refusal(
            Reason::too_many_headers, "",
            {{"headers", std::to_string(mostHeaders)}, {"bytes", std::to_string(longestHeaders)}});
}

size_t Headers::bodySize() const
{
    // More digits than any number of bytes has.
    if (contentLength.size() > 18)
        return SIZE_MAX;
    return contentLength.empty() ? 0 : std::stoul(contentLength);
}

bool isHeaderName(std::string_view name)
{
    return !name.empty() && std::all_of(name.begin(), name.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
    });
}

bool isHeaderValue(std::string_view value)
{
    return std::none_of(value.begin(), value.end(), [](char c) {
        return (static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == 0x7F;
    });
}
