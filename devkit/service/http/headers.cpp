#include "headers.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "common/text.h"
#include "service/requests/refusal.h"

namespace {

constexpr size_t longestHeaders = size_t{16} << 10;
constexpr size_t mostHeaders = 64;

// Each may be there once.
struct Known {
    const char* name;
    std::string Headers::*value;
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
};

bool isHeaderValue(std::string_view value)
{
    return std::none_of(value.begin(), value.end(), [](char c) {
        return (static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == 0x7F;
    });
}

// libmicrohttpd cuts lines at a NUL, joins folded ones and takes a line feed alone for their
// end, and tells nothing of it. But it keeps the head of a request as it came, in one piece:
// whatever is hidden makes a gap there, and what is missing an overlap.
class Layout {
public:
    explicit Layout(const FirstLine& first)
        : start_(first.method),
          isWhole_(first.method + strlen(first.method) + 1 == first.target &&
                   first.target + first.targetSize + 1 == first.version),
          next_(first.version + strlen(first.version) + lineEnd)
    {
    }

    // Between name and value are a colon and blanks, which the library has seen.
    void add(std::string_view name, std::string_view value)
    {
        isWhole_ = isWhole_ && name.data() == next_;
        next_ = value.data() + value.size() + lineEnd;
    }
    bool isWhole(size_t size) const { return isWhole_ && next_ + lineEnd == start_ + size; }

private:
    static constexpr size_t lineEnd = 2;

    const char* const start_;
    bool isWhole_;
    const char* next_;  // where the next header has to be
};

// Gathers the headers, and what is wrong with them.
class Reader {
public:
    Reader(const FirstLine& first, Headers& headers) : headers_(headers), layout_(first) {}

    static MHD_Result read(void* self, MHD_ValueKind /*kind*/, const char* name, size_t nameSize,
                           const char* value, size_t valueSize)
    {
        static_cast<Reader*>(self)->add({name, nameSize}, {value, valueSize});
        return MHD_YES;
    }

    bool has(std::string_view name) const
    {
        return std::find(seen_.begin(), seen_.end(), name) != seen_.end();
    }
    const std::string& twice() const { return twice_; }
    bool isMalformed() const { return isMalformed_; }
    bool isWhole(size_t size) const { return layout_.isWhole(size); }
    bool isTooMuch() const { return count_ > mostHeaders || bytes_ > longestHeaders; }

private:
    void add(std::string_view name, std::string_view value)
    {
        ++count_;
        layout_.add(name, value);
        bytes_ += name.size() + value.size() + 4;
        isMalformed_ = isMalformed_ || !isHeaderName(name) || !isHeaderValue(value);
        for (const Known& known : knownHeaders) {
            if (!equalIgnoringCase(name, known.name))
                continue;
            if (has(known.name))
                twice_ = known.name;
            seen_.emplace_back(known.name);
            headers_.*known.value = std::string(trimmed(value));
        }
    }

    Headers& headers_;
    Layout layout_;
    size_t count_ = 0;
    size_t bytes_ = 0;
    std::string twice_;
    bool isMalformed_ = false;
    std::vector<std::string_view> seen_;
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
        throw Refusal("malformed", reader.twice(), reader.twice() + " is given twice");
    if (size == nullptr || !reader.isWhole(size->header_size))
        throw Refusal("malformed", "",
                      "the head has NUL bytes, folded lines or lines that do not end in CR LF");
    if (reader.isMalformed())
        throw Refusal("malformed", "", "a header is not of its form");
    if (isChunked && hasLength)
        throw Refusal("malformed", lengthHeader,
                      "Content-Length and Transfer-Encoding exclude each other");
    if (isChunked && first.version == std::string_view("HTTP/1.0"))
        throw Refusal("malformed", encodingHeader, "HTTP/1.0 has no Transfer-Encoding");
    if (isChunked && !equalIgnoringCase(headers.transferEncoding, "chunked"))
        throw Refusal("malformed", encodingHeader, "the body can only be chunked");
    if (hasLength &&
        (length.empty() || length.find_first_not_of("0123456789") != std::string::npos))
        throw Refusal("malformed", lengthHeader, "Content-Length is not a number");
    if (reader.isTooMuch())
        throw Refusal("headers_too_large", "",
                      "there are more than " + std::to_string(mostHeaders) +
                          " headers, or more than " + std::to_string(longestHeaders) + " bytes");
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
