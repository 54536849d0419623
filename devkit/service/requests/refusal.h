// What the host itself refuses, and how it says so.
#ifndef CORVANE_SERVICE_REQUESTS_REFUSAL_H
#define CORVANE_SERVICE_REQUESTS_REFUSAL_H

#include <exception>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "host/catalogue/error_codes.h"

class Refusal : public std::exception {
public:
    // The text quotes no value. An empty field stands for none.
    Refusal(const char* code, std::string field, std::string text);
    // For a reason of hostReasons(), which has code and text.
    static Refusal because(const std::string& reason, std::string field = "");

    const char* what() const noexcept override { return m_text.c_str(); }
    const ErrorCode& code() const { return m_code; }
    // The answer to the request, as the interface shapes it.
    nlohmann::ordered_json json() const;

private:
    const ErrorCode& m_code;
    std::string m_field;
    std::string m_text;
    const char* m_reason = nullptr;  // the reason's name, if there is one
};

#endif
