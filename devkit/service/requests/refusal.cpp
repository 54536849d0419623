#include "refusal.h"

#include <nlohmann/json.hpp>

namespace {

// A name that is not in the table is a fault of the caller, and still gives an answer.
const ErrorCode& rowOf(const char* code)
{
    const ErrorCode* row = findHostCode(code);
    return row == nullptr ? hostCodes().front() : *row;
}

}  // namespace

Refusal::Refusal(const char* code, std::string field, std::string text)
    : m_code(rowOf(code)), m_field(std::move(field)), m_text(std::move(text))
{
}

Refusal Refusal::because(const std::string& reason, std::string field)
{
    const Reason* row = findReason(reason);
    if (row == nullptr)
        return {"malformed", std::move(field), reason};
    Refusal refusal(row->code, std::move(field), row->text);
    refusal.m_reason = row->name;
    return refusal;
}

nlohmann::ordered_json Refusal::json() const
{
    using Json = nlohmann::ordered_json;
    const Json field = m_field.empty() ? Json() : Json(m_field);
    Json error = {{"code", m_code.name}, {"source", m_code.source}, {"field", field},
                  {"text", m_text},      {"cause", m_code.cause},   {"remedy", m_code.remedy}};
    if (m_reason != nullptr)
        error["reason"] = m_reason;
    return {{"results", Json::object()}, {"error", error}, {"warnings", Json::array()}};
}
