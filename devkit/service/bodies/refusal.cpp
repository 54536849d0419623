#include "refusal.h"

#include <nlohmann/json.hpp>

Refusal::Refusal(Reason reason, std::string field, Pairs values)
    : m_reason(textOf(reason)),
      m_code(*findHostCode(m_reason.code)),
      m_field(std::move(field)),
      m_values(std::move(values)),
      m_text(filled(m_reason.text, m_values))
{
}

nlohmann::ordered_json Refusal::json() const
{
    using Json = nlohmann::ordered_json;
    const Json field = m_field.empty() ? Json() : Json(m_field);
    Json values = Json::object();
    for (const auto& [name, value] : m_values)
        values[name] = value;
    const Json error = {{"code", m_code.name},     {"source", m_code.source},
                        {"field", field},          {"text", m_text},
                        {"cause", m_code.cause},   {"remedy", m_code.remedy},
                        {"reason", m_reason.name}, {"values", values}};
    return {{"results", Json::object()}, {"error", error}, {"warnings", Json::array()}};
}
