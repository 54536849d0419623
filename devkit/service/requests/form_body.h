// The two forms of HTML as bodies: application/x-www-form-urlencoded (WHATWG URL, section
// 5.1) and multipart/form-data (RFC 7578).
#ifndef CORVANE_SERVICE_REQUESTS_FORM_BODY_H
#define CORVANE_SERVICE_REQUESTS_FORM_BODY_H

#include "request_body.h"

// Names are checked, and that none is given twice. Both throw a Refusal. The time that they
// take grows with the body's length; the headers of a part of a form are 16 and 4096 bytes
// at most.
Fields readUrlEncoded(std::string_view body, size_t mostFields);
Fields readMultipart(std::string_view body, const std::string& boundary, size_t mostFields);

#endif
