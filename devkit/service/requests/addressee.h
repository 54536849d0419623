// Which node a request is for, where there are several behind a balancer, which goes by headers.
// Whatever comes to another node by mistake is refused before anything of it is carried out.
#ifndef CORVANE_SERVICE_REQUESTS_ADDRESSEE_H
#define CORVANE_SERVICE_REQUESTS_ADDRESSEE_H

#include <string>

#include "common/secrets.h"

constexpr const char* nodeHeader = "X-Corvane-Node";
constexpr const char* sessionHeader = "X-Corvane-Session";

// As the headers have it; "" where they say nothing. A host without a name looks at neither.
struct Addressee {
    std::string node;
    SecretText session;
};

// All of these throw a Refusal.

// That the headers are of their form and agree with each other.
void checkHeaders(const Addressee& to);
// That the headers agree with a session's token as the request itself has it, and that this one
// is of the node `own`, if it is a token. `field` is where it stands.
void checkSession(const Addressee& to, const std::string& token, const std::string& own,
                  const std::string& field);
// That the headers, which are of their form, mean the node `own`, if they name one.
void checkNode(const Addressee& to, const std::string& own);

#endif
