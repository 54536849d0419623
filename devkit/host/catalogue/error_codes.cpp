#include "error_codes.h"

#include "engine/engine_numbers.h"

namespace {

const std::vector<ErrorCode> codes = {
#define ROW(name, code, text, cause, remedy) {code, #name, "plug-in", text, cause, remedy},
    AVEN_PLUGIN_ERRORS(ROW)
#undef ROW
#define ROW(name, code, text, cause, remedy) {code, #name, "engine", text, cause, remedy},
        AVEN_ENGINE_ERRORS(ROW)
#undef ROW
};

}  // namespace

const std::vector<ErrorCode>& errorCodes()
{
    return codes;
}

const ErrorCode* findErrorCode(int code)
{
    for (const ErrorCode& row : codes)
        if (row.code == code)
            return &row;
    return nullptr;
}
