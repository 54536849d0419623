// The two forms of HTML as bodies: application/x-www-form-urlencoded (WHATWG URL, section
// 5.1) and multipart/form-data (RFC 7578).
#ifndef CORVANE_SERVICE_BODIES_FORM_BODY_H
#define CORVANE_SERVICE_BODIES_FORM_BODY_H

#include "request_body.h"

// Both throw a Refusal, also for a name that is given twice or is no name (see isName). Their
// time is linear in the body's length. A part of a multipart body may have 16 headers, of 4096
// bytes in all.
Fields readUrlEncoded(std::string_view body, size_t mostFields);
Fields readMultipart(std::string_view body, const std::string& boundary, size_t mostFields);

#endif
