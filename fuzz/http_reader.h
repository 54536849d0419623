// Another reader of HTTP/1.1 (RFC 9112), as strict as the host is. Where libmicrohttpd is not, and
// does not tell, it is neither: in a head, NUL and line feed end a line as carriage return and line
// feed do, and colon and line feed are as good as an empty line behind a header; before it, lines
// are dropped that are empty or begin with NUL; in a chunked body, a line feed alone ends a line,
// and a line that begins with NUL, or with a colon behind another one, ends the trailers. Nothing
// is a request that comes behind such a body.
#ifndef CORVANE_FUZZ_HTTP_READER_H
#define CORVANE_FUZZ_HTTP_READER_H

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace fuzz {

// Names in lower case, values without blanks around them.
struct HttpHeaders : std::vector<std::pair<std::string, std::string>> {
    size_t count(std::string_view name) const;
    // "" if it is not there.
    std::string value(std::string_view name) const;
};

struct HttpRequest {
    std::string method;
    std::string target;
    HttpHeaders headers;
    std::string body;

    std::string path() const { return target.substr(0, target.find('?')); }
};

struct HttpRequests {
    std::vector<HttpRequest> whole;
    std::string rest;  // from the first one on that is cut or malformed
    // False where lines of chunks are not in their form: libmicrohttpd takes some as they are cut.
    bool isProper = true;
};

HttpRequests readRequests(std::string_view bytes);

struct HttpAnswer {
    unsigned status = 0;
    HttpHeaders headers;
    std::string body;
};

// What a server sent in answer to those requests, which has to be whole and well formed. Answers
// that only tell that others follow are left out.
std::vector<HttpAnswer> readAnswers(std::string_view bytes, const HttpRequests& requests);

}  // namespace fuzz

#endif
