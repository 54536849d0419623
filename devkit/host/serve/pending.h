// STAND-INS, to be replaced by error_codes.h, openapi.h and catalogue.h as they come.
#ifndef CORVANE_HOST_SERVE_PENDING_H
#define CORVANE_HOST_SERVE_PENDING_H

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

struct ErrorCode {
    int code;
    const char *name, *source, *text, *cause, *remedy;
};

const std::vector<ErrorCode>& errorCodes();
const ErrorCode* findCode(int code);
nlohmann::ordered_json catalogueJson();
nlohmann::ordered_json openApi();

#endif
