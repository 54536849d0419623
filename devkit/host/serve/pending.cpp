// STAND-INS, to be replaced by error_codes.cpp, openapi.cpp and catalogue.cpp as they come.
#include "pending.h"

#include "catalogue.h"

const std::vector<ErrorCode>& errorCodes()
{
    static const std::vector<ErrorCode> codes = {
        {-20001, "PARAM_MISSING", "plug-in", "required parameter is missing or empty",
         "a required parameter was not given", "give all required parameters"},
    };
    return codes;
}

const ErrorCode* findCode(int code)
{
    for (const ErrorCode& row : errorCodes())
        if (row.code == code)
            return &row;
    return nullptr;
}

nlohmann::ordered_json catalogueJson()
{
    auto requests = nlohmann::ordered_json::array();
    for (const RequestInfo& request : catalogue())
        requests.push_back(toJson(request));
    return {
        {"version", "1.0.0"}, {"requests", requests}, {"codes", nlohmann::ordered_json::array()}};
}

nlohmann::ordered_json openApi()
{
    return {{"openapi", "3.1.0"},
            {"info", {{"title", "corvane-host"}, {"version", "1.0.0"}}},
            {"paths", nlohmann::ordered_json::object()}};
}
