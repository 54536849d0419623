// What a terminal shows of the catalogue, and the words that documents have in common with it.
#ifndef CORVANE_HOST_CATALOGUE_LISTINGS_H
#define CORVANE_HOST_CATALOGUE_LISTINGS_H

#include <string>
#include <vector>

#include "catalogue.h"
#include "error_codes.h"
#include "layout.h"

// Whether an absent parameter stands for a value that it may have; else its meaning tells of what.
bool hasDefault(const Parameter& parameter);
// "1 sm4 (16-byte key), 2 aes-128 (16-byte key)" and so on: numbers with their first name; "" for
// a parameter without named values.
std::string choicesText(const Choices& choices);
// "-20001, -20084".
std::string codesText(const std::vector<int>& codes);

std::string describe(const RequestInfo& request, const Style& style);
// Those about all the words (names.h).
std::string listRequests(const std::vector<std::string>& words, const Style& style);
std::string explain(const ErrorCode& code, const Style& style);
// What 0 in errorCode means.
std::string explainSuccess(const Style& style);
// What a status of HTTP means that the host answers with; "" for others.
std::string explainStatus(unsigned status, const Style& style);
std::string listErrorCodes(const Style& style);

#endif
