// The names by which key-exchange sessions begin, go on and end.
#ifndef CORVANE_SERVICE_WORKERS_SESSION_REQUESTS_H
#define CORVANE_SERVICE_WORKERS_SESSION_REQUESTS_H

constexpr const char* newSessionRequest = "QZaven_ke_new";
constexpr const char* freeSessionRequest = "QZaven_ke_free";
constexpr const char* sessionParameter = "strKe";

#endif
