#include "error_codes.h"

#include "engine/engine_numbers.h"

namespace {

const std::vector<ErrorCode> numbers = {
#define ROW(name, code, text, cause, remedy) {code, #name, "plug-in", text, cause, remedy, 0},
    AVEN_PLUGIN_ERRORS(ROW)
#undef ROW
#define ROW(name, code, text, cause, remedy) {code, #name, "engine", text, cause, remedy, 0},
        AVEN_ENGINE_ERRORS(ROW)
#undef ROW
};

const std::vector<ReasonText> reasons = {
#define ROW(code, name, text) {#code, #name, text},
    HOST_REASONS(ROW)
#undef ROW
};

}  // namespace

const std::vector<ErrorCode>& errorCodes()
{
    return numbers;
}

const ErrorCode* findErrorCode(int code)
{
    for (const ErrorCode& row : numbers)
        if (row.code == code)
            return &row;
    return nullptr;
}

const ErrorCode* findHostCode(const std::string& name)
{
    for (const ErrorCode& row : hostCodes())
        if (row.name == name)
            return &row;
    return nullptr;
}

std::string codeText(const ErrorCode& code)
{
    return code.code == 0 ? code.name : std::to_string(code.code);
}

const std::vector<ReasonText>& hostReasons()
{
    return reasons;
}

const ReasonText& textOf(Reason reason)
{
    return reasons[static_cast<size_t>(reason)];
}
