// Several hosts behind a balancer: how they are told apart, and which of them a session lives on.
#ifndef CORVANE_SERVICE_OPERATION_NODES_H
#define CORVANE_SERVICE_OPERATION_NODES_H

#include <optional>
#include <string>
#include <string_view>

#include "common/secrets.h"

// 1 to 63 of a-z, 0-9 and "-", which is not at an end: a label of DNS (RFC 1123), so that a
// machine's or a pod's name will do.
bool isNodeName(std::string_view text);

// A new token of a session, of 192 random bits: ke_<node>.<random>, or ke_<random> if the node
// has no name.
SecretText makeSessionToken(const std::string& node);

// The node in a session's token, "" if it names none. Nothing if the text is no such token.
std::optional<std::string_view> nodeOfSession(std::string_view token);

#endif
