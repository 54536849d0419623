#include "answer.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "common/codec.h"
#include "common/secrets.h"
#include "host/catalogue/error_codes.h"
#include "host/values.h"
#include "service/operation/json_text.h"
#include "service/operation/metrics.h"

namespace {

using Json = nlohmann::ordered_json;

Json errorOf(const WireReply& reply)
{
    const auto number = static_cast<int>(strtol(reply.code.c_str(), nullptr, 10));
    const ErrorCode* known = findErrorCode(number);
    const bool isOwn = number <= 0 && number > -30000;
    return {{"code", reply.code},
            {"source", known != nullptr ? known->source : (isOwn ? "plug-in" : "engine")},
            {"name", known != nullptr ? known->name : ""},
            {"text", reply.text},
            {"cause", known != nullptr ? known->cause : ""},
            {"remedy", known != nullptr ? known->remedy : ""}};
}

std::string codeOf(const WireReply& reply)
{
    return reply.ok ? "" : plainCode(reply.code);
}

// A result: its text, or what its bytes are in Base64 if they are not UTF-8.
void appendValue(std::string& out, const std::string& value)
{
    if (isUtf8(value))
        return appendJsonText(out, value);
    const SecretText bytes = toBase64(value);
    appendSecret(out, "{\"base64\":");
    appendJsonText(out, bytes);
    appendSecret(out, "}");
}

// Of a name that is given more than once, the last value counts.
void appendResults(std::string& out, const Pairs& results)
{
    const auto named = [](const std::string& name) {
        return [&name](const auto& pair) { return pair.first == name; };
    };
    appendSecret(out, "{");
    for (auto pair = results.begin(); pair != results.end(); ++pair) {
        if (std::any_of(results.begin(), pair, named(pair->first)))
            continue;
        if (pair != results.begin())
            appendSecret(out, ",");
        appendJsonText(out, pair->first);
        appendSecret(out, ":");
        appendValue(out,
                    std::find_if(results.rbegin(), results.rend(), named(pair->first))->second);
    }
    appendSecret(out, "}");
}

// Without its end, so that more members can follow.
SecretText beginningOf(const WireReply& reply, const Json& error, const std::string& warnings)
{
    size_t size = 256;
    for (const auto& [name, value] : reply.results)
        size += name.size() + value.size() + 8;
    SecretText out;
    out.reserve(size);
    out += "{\"results\":";
    appendResults(out, reply.results);
    appendSecret(out, ",\"error\":");
    appendSecret(out, error.is_null() ? "null" : jsonText(error, -1));
    appendSecret(out, ",\"warnings\":");
    appendSecret(out, warnings);
    return out;
}

}  // namespace

Answer answerOf(const Refusal& refusal)
{
    Answer answer = answerOf(refusal.json());
    answer.status = refusal.code().status;
    answer.code = refusal.code().name;
    return answer;
}

Answer answerOf(const Json& json)
{
    Answer answer;
    answer.body = jsonText(json, -1);
    return answer;
}

Answer pluginAnswer(const WireReply& reply, const std::string& warnings)
{
    Answer answer;
    answer.body = beginningOf(reply, reply.ok ? Json() : errorOf(reply), warnings);
    answer.code = codeOf(reply);
    const std::string tenths = std::to_string(std::lround(reply.microseconds * 10));
    appendSecret(answer.body, ",\"microseconds\":");
    appendSecret(answer.body, tenths.size() > 1 ? tenths.substr(0, tenths.size() - 1) : "0");
    appendSecret(answer.body, "." + tenths.substr(tenths.size() - 1) + "}");
    return answer;
}

Answer peerAnswer(const WireReply& reply)
{
    Json error;
    if (!reply.ok) {
        error = errorOf(reply);
        error["source"] = "peer";
    }
    Answer answer;
    answer.body = beginningOf(reply, error, "[]");
    answer.code = codeOf(reply);
    appendSecret(answer.body, "}");
    return answer;
}

Answer batchAnswer(const std::vector<Answer>& parts)
{
    size_t size = 32;
    for (const Answer& part : parts)
        size += part.body.size() + 1;
    Answer answer;
    answer.body.reserve(size);
    answer.body += "{\"answers\":[";
    answer.parts = parts.size();
    for (const Answer& part : parts) {
        answer.failed += part.code.empty() ? 0 : 1;
        answer.body += &part == parts.data() ? "" : ",";
        answer.body += part.body;
    }
    answer.body += "]}";
    return answer;
}

std::string warningsText(const std::vector<Complaint>& complaints)
{
    std::string out = "[";
    for (const Complaint& complaint : complaints) {
        out += out.size() > 1 ? ",{\"field\":" : "{\"field\":";
        appendJsonText(out, complaint.field);
        out += ",\"text\":";
        appendJsonText(out, complaint.text);
        out += ",\"code\":";
        appendJsonText(out, complaint.code);
        out += ",\"values\":{";
        for (const auto& value : complaint.values) {
            out += &value == complaint.values.data() ? "" : ",";
            appendJsonText(out, value.first);
            out += ":";
            appendJsonText(out, value.second);
        }
        out += "}}";
    }
    return out + "]";
}

Refusal refusalOf(Ending ending, const WireReply& reply)
{
    switch (ending) {
        case Ending::Answered:
            return Refusal(Reason::not_carried_out, "", {{"why", reply.text}});
        case Ending::Died:
            return Refusal(Reason::worker_ended);
        case Ending::TimedOut:
            return Refusal(Reason::too_slow);
        case Ending::LifeIsOver:
        case Ending::NotServed:
            break;
    }
    return Refusal(Reason::no_worker);
}
