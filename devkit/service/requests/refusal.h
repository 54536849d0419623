// What the host itself refuses, and how it says so.
#ifndef CORVANE_SERVICE_REQUESTS_REFUSAL_H
#define CORVANE_SERVICE_REQUESTS_REFUSAL_H

#include <exception>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

struct HostCode {
    const char* name;
    unsigned status;  // of HTTP
    const char* cause;
    const char* remedy;
};

const std::vector<HostCode>& hostCodes();
const HostCode& hostCode(const std::string& name);

class Refusal : public std::exception {
public:
    // The text quotes no value. An empty field stands for none.
    Refusal(const char* code, std::string field, std::string text);

    const char* what() const noexcept override { return text_.c_str(); }
    const HostCode& code() const { return code_; }
    // The answer to the request, as the interface shapes it.
    nlohmann::ordered_json json() const;

private:
    const HostCode& code_;
    std::string field_;
    std::string text_;
};

#endif
