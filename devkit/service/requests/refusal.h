// What the host itself refuses, and how it says so.
#ifndef CORVANE_SERVICE_REQUESTS_REFUSAL_H
#define CORVANE_SERVICE_REQUESTS_REFUSAL_H

#include <exception>
#include <nlohmann/json.hpp>
#include <string>

#include "host/catalogue/error_codes.h"

class Refusal : public std::exception {
public:
    // The text quotes no value. An empty field stands for none.
    Refusal(const char* code, std::string field, std::string text);
    // For a reason of hostReasons(), which has code and text.
    static Refusal because(const std::string& reason, std::string field = "");

    const char* what() const noexcept override { return text_.c_str(); }
    const ErrorCode& code() const { return code_; }
    // The answer to the request, as the interface shapes it.
    nlohmann::ordered_json json() const;

private:
    const ErrorCode& code_;
    std::string field_;
    std::string text_;
    const char* reason_ = nullptr;  // the reason's name, if there is one
};

#endif
