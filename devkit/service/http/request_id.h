// The numbers by which answers are found in the access log.
#ifndef CORVANE_SERVICE_HTTP_REQUEST_ID_H
#define CORVANE_SERVICE_HTTP_REQUEST_ID_H

#include <string>

// A new one: 64 random bits as hex digits.
std::string makeId();

#endif
