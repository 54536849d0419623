// The codes that requests can end with, in words.
#ifndef CORVANE_HOST_CATALOGUE_ERROR_CODES_H
#define CORVANE_HOST_CATALOGUE_ERROR_CODES_H

#include <vector>

struct ErrorCode {
    int code;
    const char* name;    // the constant's
    const char* source;  // "plug-in", or "engine" for the development engine
    const char* text;    // what QZaVen_strerror answers with the development engine
    const char* cause;   // the likely one
    const char* remedy;  // what to do
};

// The plug-in's codes, then the development engine's, without the 0 of success.
const std::vector<ErrorCode>& errorCodes();

// Null for a code that is neither's: another engine has its own.
const ErrorCode* findErrorCode(int code);

#endif
