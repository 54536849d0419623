// An error of the host's own, which ends a request without the plug-in.
#ifndef CORVANE_SERVICE_BODIES_REFUSAL_H
#define CORVANE_SERVICE_BODIES_REFUSAL_H

#include <exception>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "common/pairs.h"
#include "host/catalogue/error_codes.h"

class Refusal : public std::exception {
public:
    // `field` is what the error is about, or "". `values` fill the places of the reason's text;
    // they must not be values of parameters.
    explicit Refusal(Reason reason, std::string field = "", Pairs values = {});

    const char* what() const noexcept override { return m_text.c_str(); }
    const ErrorCode& code() const { return m_code; }
    // The body of the answer.
    nlohmann::ordered_json json() const;

private:
    const ReasonText& m_reason;
    const ErrorCode& m_code;
    std::string m_field;
    Pairs m_values;
    std::string m_text;
};

#endif
