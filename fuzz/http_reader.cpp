#include "http_reader.h"

#include <algorithm>
#include <optional>

#include "fuzz.h"

namespace fuzz {

namespace {

// What is left of a text; nothing comes from where it is malformed or ends too early.
class Text {
public:
    explicit Text(std::string_view rest) : m_rest(rest) {}

    std::string_view rest() const { return m_rest; }
    bool skip(std::string_view text)
    {
        const bool isThere = m_rest.substr(0, text.size()) == text;
        m_rest.remove_prefix(isThere ? text.size() : 0);
        return isThere;
    }
    std::optional<std::string> until(std::string_view mark)
    {
        const size_t end = m_rest.find(mark);
        if (end == std::string_view::npos)
            return std::nullopt;
        std::string text(m_rest.substr(0, end));
        m_rest.remove_prefix(end + mark.size());
        return text;
    }
    // Up to a line feed, with a carriage return before it or without.
    std::optional<std::string> line()
    {
        auto text = until("\n");
        if (text && !text->empty() && text->back() == '\r')
            text->pop_back();
        return text;
    }
    // Up to a line feed with a carriage return before it, or a NUL.
    std::optional<std::string> headLine()
    {
        auto text = until("\n");
        if (!text || text->empty() || (text->back() != '\r' && text->back() != '\0'))
            return std::nullopt;
        text->pop_back();
        return text;
    }
    // Those that are empty or begin with NUL.
    void skipLines()
    {
        Text next = *this;
        for (auto read = next.line(); read && (read->empty() || read->front() == '\0');
             read = next.line())
            *this = next;
    }
    std::optional<std::string> take(size_t size)
    {
        if (size > m_rest.size())
            return std::nullopt;
        std::string text(m_rest.substr(0, size));
        m_rest.remove_prefix(size);
        return text;
    }

private:
    std::string_view m_rest;
};

std::string small(std::string text)
{
    for (char& c : text)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c + 32);
    return text;
}

bool consistsOf(std::string_view text, std::string_view characters)
{
    return text.find_first_not_of(characters) == std::string_view::npos;
}

bool isToken(const std::string& text)
{
    return !text.empty() && consistsOf(small(text),
                                       "abcdefghijklmnopqrstuvwxyz0123456789"
                                       "!#$%&'*+-.^_`|~");
}

bool isValue(const std::string& text)
{
    return std::none_of(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == 0x7F;
    });
}

std::string withoutBlanks(const std::string& text)
{
    const size_t begin = text.find_first_not_of(" \t");
    return begin == std::string::npos
               ? ""
               : text.substr(begin, text.find_last_not_of(" \t") + 1 - begin);
}

// With the empty line behind them.
std::optional<HttpHeaders> takeHeaders(Text& text)
{
    HttpHeaders headers;
    for (;;) {
        if (!headers.empty() && text.skip(":\n"))
            return headers;
        const auto line = text.headLine();
        if (line && line->empty())
            return headers;
        const size_t colon = line ? line->find(':') : std::string::npos;
        if (colon == std::string::npos || !isToken(line->substr(0, colon)) || !isValue(*line))
            return std::nullopt;
        headers.emplace_back(small(line->substr(0, colon)), withoutBlanks(line->substr(colon + 1)));
    }
    return headers;
}

// One whose lines between chunks and behind them are as RFC 9112 has them, section 7.1, is proper.
std::optional<std::string> takeChunks(Text& text, bool& isProper)
{
    const auto takeLine = [&] {
        Text proper = text;
        auto line = text.line();
        isProper = isProper && line && proper.until("\r\n") == line && isValue(*line);
        return line;
    };
    std::string body;
    for (;;) {
        const auto line = takeLine();
        const std::string digits = line ? small(line->substr(0, line->find(';'))) : "";
        if (digits.empty() || !consistsOf(digits, "0123456789abcdef"))
            return std::nullopt;
        const size_t first = digits.find_first_not_of('0');
        if (first == std::string::npos)
            break;
        if (digits.size() - first > 8)
            return std::nullopt;  // of no input's size
        const auto chunk = text.take(std::stoul(digits, nullptr, 16));
        const auto end = chunk ? takeLine() : chunk;
        if (!end || !end->empty())
            return std::nullopt;
        body += *chunk;
    }
    // Trailers say nothing.
    for (bool isFirst = true;; isFirst = false) {
        const auto line = takeLine();
        if (!line)
            return std::nullopt;
        isProper = isProper && (line->empty() || isToken(line->substr(0, line->find(':'))));
        if (line->empty() || line->front() == '\0' || (line->front() == ':' && !isFirst))
            return body;
    }
}

std::optional<std::string> takeBody(Text& text, const HttpHeaders& headers, bool isOld,
                                    bool& isProper)
{
    const std::string length = headers.value("content-length");
    if (headers.count("transfer-encoding") > 0) {
        if (isOld || headers.count("content-length") > 0 ||
            small(headers.value("transfer-encoding")) != "chunked")
            return std::nullopt;
        return takeChunks(text, isProper);
    }
    if (headers.count("content-length") == 0)
        return "";
    if (length.empty() || length.size() > 9 || !consistsOf(length, "0123456789"))
        return std::nullopt;
    return text.take(std::stoul(length));
}

std::optional<HttpRequest> takeRequest(Text& text, bool& isProper)
{
    HttpRequest request;
    const auto method = text.until(" ");
    const auto target = text.until(" ");
    const auto version = text.headLine();
    if (!method || !target || !version || !isToken(*method) || target->empty() ||
        !isValue(*target) || version->size() != 8 || version->compare(0, 7, "HTTP/1.") != 0 ||
        !consistsOf(version->substr(7), "0123456789"))
        return std::nullopt;
    request.method = *method;
    request.target = *target;
    auto headers = takeHeaders(text);
    if (!headers)
        return std::nullopt;
    request.headers = *std::move(headers);
    for (const char* once : {"host", "origin", "authorization", "content-type", "content-length",
                             "content-encoding", "transfer-encoding"})
        if (request.headers.count(once) > 1)
            return std::nullopt;
    auto body = takeBody(text, request.headers, version->back() == '0', isProper);
    if (!body)
        return std::nullopt;
    request.body = *std::move(body);
    return request;
}

HttpAnswer takeAnswer(Text& text)
{
    HttpAnswer answer;
    HOLDS(text.skip("HTTP/1.1 "));
    const auto status = text.until(" ");
    HOLDS(status && status->size() == 3 && consistsOf(*status, "0123456789"));
    answer.status = static_cast<unsigned>(std::stoul(*status));
    const auto words = text.until("\r\n");
    HOLDS(words && !words->empty() && isValue(*words));
    auto headers = takeHeaders(text);
    HOLDS(headers);
    answer.headers = *std::move(headers);
    return answer;
}

}  // namespace

size_t HttpHeaders::count(std::string_view name) const
{
    return static_cast<size_t>(
        std::count_if(begin(), end(), [&](const auto& header) { return header.first == name; }));
}

std::string HttpHeaders::value(std::string_view name) const
{
    for (const auto& header : *this)
        if (header.first == name)
            return header.second;
    return "";
}

HttpRequests readRequests(std::string_view bytes)
{
    HttpRequests requests;
    Text text(bytes);
    for (;;) {
        text.skipLines();
        Text here = text;
        auto request = takeRequest(here, requests.isProper);
        if (!request) {
            requests.rest = std::string(text.rest());
            return requests;
        }
        requests.whole.push_back(*std::move(request));
        if (requests.whole.back().headers.count("transfer-encoding") > 0)
            return requests;
        text = here;
    }
}

std::vector<HttpAnswer> readAnswers(std::string_view bytes, const HttpRequests& requests)
{
    std::vector<HttpAnswer> answers;
    for (Text text(bytes); !text.rest().empty();) {
        const std::string_view before = text.rest();
        HttpAnswer answer = takeAnswer(text);
        if (answer.status < 200)
            continue;
        // libmicrohttpd sends its own head twice where HTTP/1.1 comes without Host.
        if (answer.status == 400 && answer.headers.count("x-request-id") == 0)
            text.skip(before.substr(0, before.size() - text.rest().size()));
        const size_t number = answers.size();
        const bool isHead = number < requests.whole.size() ? requests.whole[number].method == "HEAD"
                                                           : requests.rest.substr(0, 5) == "HEAD ";
        HOLDS(answer.headers.count("content-length") == (answer.status == 304 ? 0 : 1));
        if (!isHead && answer.status != 304) {
            auto body = text.take(std::stoul(answer.headers.value("content-length")));
            HOLDS(body);
            answer.body = *std::move(body);
        }
        answers.push_back(std::move(answer));
    }
    return answers;
}

}  // namespace fuzz
