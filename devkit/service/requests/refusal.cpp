#include "refusal.h"

namespace {

// A name that is not in the table is a fault of the caller, and still gives an answer.
const ErrorCode& rowOf(const char* code)
{
    const ErrorCode* row = findHostCode(code);
    return row == nullptr ? hostCodes().front() : *row;
}

}  // namespace

Refusal::Refusal(const char* code, std::string field, std::string text)
    : code_(rowOf(code)), field_(std::move(field)), text_(std::move(text))
{
}

Refusal Refusal::because(const std::string& reason, std::string field)
{
    const Reason* row = findReason(reason);
    if (row == nullptr)
        return {"malformed", std::move(field), reason};
    Refusal refusal(row->code, std::move(field), row->text);
    refusal.reason_ = row->name;
    return refusal;
}

nlohmann::ordered_json Refusal::json() const
{
    using Json = nlohmann::ordered_json;
    const Json field = field_.empty() ? Json() : Json(field_);
    Json error = {{"code", code_.name}, {"source", code_.source}, {"field", field},
                  {"text", text_},      {"cause", code_.cause},   {"remedy", code_.remedy}};
    if (reason_ != nullptr)
        error["reason"] = reason_;
    return {{"results", Json::object()}, {"error", error}, {"warnings", Json::array()}};
}
