// The numbers by which answers are found in the access log.
#ifndef CORVANE_SERVICE_HTTP_REQUEST_ID_H
#define CORVANE_SERVICE_HTTP_REQUEST_ID_H

#include <string>
#include <string_view>

// A new one: 64 random bits as hex digits.
std::string makeId();

// Whether one that a proxy made can be taken: 1 to 64 letters, digits, "-", "_" and ".".
bool isRequestId(std::string_view text);

#endif
