// The codes that requests can end with, in words: the plug-in's and the engine's, which are
// numbers, and those of `corvane-host serve` itself, which are names.
#ifndef CORVANE_HOST_CATALOGUE_ERROR_CODES_H
#define CORVANE_HOST_CATALOGUE_ERROR_CODES_H

#include <string>
#include <vector>

#include "host_reasons.h"

struct ErrorCode {
    int code;            // 0 for the host's
    const char* name;    // the constant's
    const char* source;  // "plug-in", "engine" for the development engine, or "host"
    const char* text;    // the meaning; a number's is QZaVen_strerror's with that engine
    const char* cause;   // the likely one
    const char* remedy;  // what to do
    unsigned status;     // of HTTP, with which the host refuses; 0 for numbers
};

// The plug-in's codes, then the development engine's, without the 0 of success.
const std::vector<ErrorCode>& errorCodes();
// The host's, by their status.
const std::vector<ErrorCode>& hostCodes();

// What a status of HTTP means that is no refusal of the host's own, or not always.
struct StatusText {
    unsigned status;
    const char* text;
};
const std::vector<StatusText>& otherStatuses();

// Null for a code that is neither's: another engine has its own.
const ErrorCode* findErrorCode(int code);
const ErrorCode* findHostCode(const std::string& name);

// As answers have it: the number, or the host's name.
std::string codeText(const ErrorCode& code);

// A row of HOST_REASONS.
struct ReasonText {
    const char* code;
    const char* name;
    const char* text;
};

// In the order of Reason.
const std::vector<ReasonText>& hostReasons();
const ReasonText& textOf(Reason reason);

#endif
