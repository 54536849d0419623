#include "state_file.h"

#include <fstream>
#include <nlohmann/json.hpp>

#include "common/codec.h"

namespace {

using Json = nlohmann::ordered_json;

std::string bytesOf(const Json& json, const char* member)
{
    const auto bytes = fromBase64(json.at(member).get<std::string>());
    if (!bytes)
        throw PeerError("");
    return *bytes;
}

ExchangeState toState(const Json& json)
{
    const std::string kind = json.at("kind");
    if (kind != "SM2" && kind != "RSA")
        throw PeerError("");
    ExchangeState state = {kind == "SM2" ? KeyKind::Sm2 : KeyKind::Rsa, bytesOf(json, "hello"),
                           bytesOf(json, "random"), std::nullopt};
    if (json.contains("keys"))
        state.keys = bytesOf(json, "keys");
    return state;
}

}  // namespace

void writeState(const std::string& path, const ExchangeState& state)
{
    Json json;
    json["kind"] = state.kind == KeyKind::Sm2 ? "SM2" : "RSA";
    json["hello"] = toUrlBase64(state.hello);
    json["random"] = toUrlBase64(state.random);
    if (state.keys)
        json["keys"] = toUrlBase64(*state.keys);
    writePrivateFile(path, json.dump(2) + "\n");
}

ExchangeState readState(const std::string& path)
{
    std::ifstream file(path);
    if (!file)
        throw PeerError("cannot read " + path + ": \"answer\" makes it");
    try {
        return toState(Json::parse(file));
    } catch (const std::exception&) {
        // The parser's own messages quote the text, which is secret.
        throw PeerError(path + " is not a state of this program");
    }
}
