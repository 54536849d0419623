// Content-Type and other headers whose value has parameters (RFC 9110, section 5.6.6).
#ifndef CORVANE_SERVICE_BODIES_CONTENT_TYPE_H
#define CORVANE_SERVICE_BODIES_CONTENT_TYPE_H

#include <optional>
#include <string>
#include <string_view>

// A parameter of a header's value, without quotes: boundary of a Content-Type. Names are
// compared without regard to case. Throws a Refusal if it is given twice, or if quotes are
// not whole.
std::optional<std::string> headerParameter(std::string_view value, std::string_view name);

#endif
