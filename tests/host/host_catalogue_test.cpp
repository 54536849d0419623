// The catalogue of requests and codes, held against the plug-in, and what is made from it.
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "doubles/engine_double.h"
#include "support/held.h"
#include "support/host_program.h"
#include "support/one_line.h"
#include "support/openssl_tool.h"
#include "support/plugin_test.h"
#include "support/request_rows.h"

namespace {

using namespace support;

using HostCatalogue = Host;
using HostDocuments = Host;

// ---- Against the plug-in.

Json catalogue(const Ended& listed)
{
    EXPECT_EQ(SUCCESS, listed.code);
    Json requests = listed.json();
    EXPECT_EQ(std::size(support::requestRows), requests.size());
    return requests;
}

TEST_F(HostCatalogue, HasAllRequestsInOrder)
{
    const Json requests = catalogue(run({"list", "--json"}));
    const std::string text = run({"list"}).out;
    for (size_t i = 0; i < requests.size(); ++i) {
        const Json& request = requests[i];
        const std::string name = request["name"];
        EXPECT_EQ(support::requestRows[i].name, name);
        EXPECT_TRUE(holds(text, "  " + name + "\n"));
        EXPECT_EQ(request, run({"describe", name, "--json"}).json());
        const std::string description = run({"describe", name}).out;
        Arguments parameters;
        for (const Json& parameter : request["parameters"]) {
            EXPECT_TRUE(holds(description, parameter["name"])) << description;
            parameters.push_back(parameter["name"]);
        }
        EXPECT_EQ(support::requestRows[i].read, parameters) << name;
    }
}

// A value that the catalogue allows. Keys are no real ones.
Json allowedValue(const Json& parameter)
{
    if (parameter.contains("range"))
        return parameter["range"][1];
    if (parameter.contains("oneOf"))
        return parameter["oneOf"].back();
    return parameter["form"] == "text" || parameter["form"] == "handle" ? "7"
                                                                        : "b64:0123456789abcdef";
}

Json allowedParameters(const Json& request)
{
    Json parameters = Json::object();
    for (const Json& parameter : request["parameters"])
        parameters[parameter["name"].get<std::string>()] = allowedValue(parameter);
    return parameters;
}

Json step(const Json& request, const Json& parameters)
{
    return {{"request", request["name"]}, {"params", parameters}, {"allowFailure", true}};
}

// Sends the steps; each must fail with `code`, or give an empty text if it has no code.
void expectAll(const Ended& ended, const Json& steps, const std::string& code)
{
    ASSERT_EQ(SUCCESS, ended.code) << ended.err;
    const Json answers = ended.json();
    ASSERT_EQ(steps.size(), answers.size());
    ASSERT_GT(steps.size(), 0U);
    for (size_t i = 0; i < steps.size(); ++i) {
        const Json results = answers[i]["results"];
        if (steps[i]["request"] == "QZaVen_strerror")
            EXPECT_EQ((Json{{"Data", ""}}), results);
        else
            EXPECT_EQ(code, results["errorCode"]) << steps[i];
    }
}

TEST_F(HostCatalogue, RequiredParametersAreRequired)
{
    Json steps = Json::array();
    for (const Json& request : catalogue(run({"list", "--json"})))
        for (const Json& parameter : request["parameters"]) {
            if (parameter["need"] == "optional")
                continue;
            Json parameters = allowedParameters(request);  // the last mode, which needs all
            parameters.erase(parameter["name"].get<std::string>());
            steps.push_back(step(request, parameters));
            parameters[parameter["name"].get<std::string>()] = "";
            steps.push_back(step(request, parameters));
        }
    expectAll(script(steps.dump()), steps, "-20001");
}

// Whatever becomes of it, a request is not refused for the lack of what it may lack.
TEST_F(HostCatalogue, OthersAreNot)
{
    const std::map<std::string, std::set<std::string>> neededBy = {
        {"1", {"required"}},
        {"2", {"required", "required unless the mode is ECB (strMode 1)"}},
        {"6",
         {"required", "required unless the mode is ECB (strMode 1)",
          "required if the mode is GCM (strMode 6)"}}};
    Json steps = Json::array();
    for (const Json& request : catalogue(run({"list", "--json"})))
        for (const auto& [mode, needs] : neededBy) {
            Json parameters = allowedParameters(request);
            if (parameters.contains("strMode"))
                parameters["strMode"] = mode;
            for (const Json& parameter : request["parameters"])
                if (needs.count(parameter["need"]) == 0)
                    parameters.erase(parameter["name"].get<std::string>());
            steps.push_back(step(request, parameters));
        }
    const Ended ended = script(steps.dump());
    ASSERT_EQ(SUCCESS, ended.code) << ended.err;
    for (const Json& answer : ended.json())
        EXPECT_NE("-20001", answer["results"].value("errorCode", "0")) << answer;
}

TEST_F(HostCatalogue, ValuesBesideTheAllowedOnesAreRefused)
{
    // The envelopes read a certificate or a key before they check numbers.
    const OpensslTool openssl;
    openssl.run("req -x509 -newkey rsa:2048 -nodes -subj /CN=test -keyout key.pem -out cert.pem");
    const std::map<std::string, Json> readKeysFirst = {
        {"QZaven_crypto_envelope_encrypt", {{"strpk", "b64:@" + openssl.path("cert.pem")}}},
        {"QZaven_crypto_envelope_decrypt", {{"strsk", "b64:@" + openssl.path("key.pem")}}}};
    Json steps = Json::array();
    for (const Json& request : catalogue(run({"list", "--json"})))
        for (const Json& parameter : request["parameters"]) {
            const std::string name = parameter["name"];
            Json wrong = Json::array();
            if (parameter.contains("range"))
                wrong = {parameter["range"][0].get<int>() - 1,
                         parameter["range"][1].get<int>() + 1};
            if (parameter.contains("oneOf"))
                wrong = {"9", "01", " 1", "1 ", "raw:x"};
            if (parameter.contains("bytes"))
                wrong = {"b64:0123456789abcde", "b64:0123456789abcdefg"};
            for (const Json& value : wrong) {
                Json parameters = allowedParameters(request);
                const auto key = readKeysFirst.find(request["name"]);
                if (key != readKeysFirst.end())
                    parameters.update(key->second);
                parameters[name] = value;
                steps.push_back(step(request, parameters));
            }
        }
    expectAll(script(steps.dump()), steps, "-20084");
}

// Whatever becomes of it, an allowed value is not refused as one outside its set.
TEST_F(HostCatalogue, AllowedValuesAreTaken)
{
    Json steps = Json::array();
    for (const Json& request : catalogue(run({"list", "--json"})))
        for (const Json& parameter : request["parameters"]) {
            const Json values = parameter.contains("range")
                                    ? parameter["range"]
                                    : parameter.value("oneOf", Json::array());
            for (const Json& value : values) {
                Json parameters = allowedParameters(request);
                parameters[parameter["name"].get<std::string>()] = value;
                steps.push_back(step(request, parameters));
            }
        }
    // Sizes are not looked at without names.
    const Ended ended = script(steps.dump(), {"--names", "none"});
    ASSERT_EQ(SUCCESS, ended.code) << ended.err;
    EXPECT_FALSE(holds(ended.err, "warning")) << ended.err;
    for (const Json& answer : ended.json()) {
        EXPECT_NE("-20084", answer["results"]["errorCode"]) << answer;
        EXPECT_NE("-20001", answer["results"]["errorCode"]) << answer;
    }
}

TEST_F(HostCatalogue, ResultsAreThoseThatArrive)
{
    Json steps = Json::array();
    const Json requests = catalogue(run({"list", "--json"}));
    for (const Json& request : requests)
        steps.push_back(step(request, allowedParameters(request)));
    const Ended ended = script(steps.dump());
    ASSERT_EQ(SUCCESS, ended.code) << ended.err;
    const Json answers = ended.json();
    ASSERT_EQ(requests.size(), answers.size());
    for (size_t i = 0; i < requests.size(); ++i) {
        Arguments expected;
        for (const Json& result : requests[i]["results"])
            expected.push_back(result["name"]);
        Arguments arrived;
        for (const auto& [name, value] : answers[i]["results"].items())
            arrived.push_back(name);
        EXPECT_EQ(expected, arrived) << requests[i]["name"];
    }
}

// ---- Codes.

std::set<int> numbers(const Json& list)
{
    return list.get<std::set<int>>();
}

TEST_F(HostCatalogue, CodesFollowFromTheParameters)
{
    size_t refusing = 0;
    for (const Json& request : catalogue(run({"list", "--json"}))) {
        bool required = false;
        bool bounded = false;
        for (const Json& parameter : request["parameters"]) {
            required |= parameter["need"] != "optional";
            bounded |= parameter.contains("range") || parameter.contains("oneOf") ||
                       parameter.contains("bytes");
        }
        if (request["name"] == "QZaVen_strerror") {  // reports no code
            EXPECT_EQ(std::set<int>{}, numbers(request["codes"]));
            continue;
        }
        EXPECT_EQ(required, numbers(request["codes"]).count(-20001) == 1) << request["name"];
        EXPECT_EQ(bounded, numbers(request["codes"]).count(-20084) == 1) << request["name"];
        EXPECT_EQ(1U, numbers(request["codes"]).count(-20215)) << request["name"];
        refusing += bounded ? 1 : 0;
    }
    EXPECT_GT(refusing, 0U);
}

// One engine for each function that is missing: every request meets the one it needs.
TEST_F(HostCatalogue, AnEngineThatLacksAFunctionIsToldByEachRequestsCode)
{
    if (emulated || sanitized)
        GTEST_SKIP() << "starts the host dozens of times, each a second here";
    const Json requests = catalogue(run({"list", "--json"}));
    Json steps = Json::array();
    for (const Json& request : requests)
        steps.push_back(step(request, allowedParameters(request)));

    std::map<std::string, std::set<int>> seen;
    for (const std::string& function : doubles::engineFunctions()) {
        if (function == "aven_global_init")
            continue;  // without it no host starts
        const std::string name = '\0' + function + '\0';
        std::string other = name;
        other[1] = 'x';
        const std::string library = patched(engine, name, other);
        const Ended ended = run({"--engine", library, "script", file("script", steps.dump())});
        ASSERT_EQ(SUCCESS, ended.code) << function << "\n" << ended.err;
        for (const Json& answer : ended.json())
            if (answer["results"].contains("errorCode"))
                seen[answer["request"]].insert(
                    std::stoi(answer["results"]["errorCode"].get<std::string>()));
    }
    for (const Json& request : requests) {
        const std::string name = request["name"];
        if (numbers(request["codes"]).empty())
            continue;
        // That an engine tells no version is no failure of its own.
        EXPECT_EQ(name == "QZaVen_GetVersion" ? 0U : 1U, seen[name].count(-20215)) << name;
        for (const int code : seen[name])
            EXPECT_TRUE(code == 0 || code <= -30000 || numbers(request["codes"]).count(code) != 0)
                << name << " gave " << code;
    }
}

// The same for the plug-in itself.
Pairs allowedPairs(const Json& request)
{
    Pairs given;
    const Json parameters = allowedParameters(request);
    for (const auto& [name, value] : parameters.items())
        given.emplace_back(name, value.is_number()      ? value.dump()
                                 : holds(value, "b64:") ? "MDEyMzQ1Njc4OWFiY2RlZg=="
                                                        : value.get<std::string>());
    return given;
}

// corvane-host needs an engine; in another host the plug-in may be asked without one.
TEST_F(HostCatalogue, WithoutAnEngineEachRequestHasItsCode)
{
    PluginHost host("", paramsDouble());
    host.init();
    for (const Json& request : catalogue(run({"list", "--json"})))
        for (const auto& [name, value] : host.request(request["name"], allowedPairs(request)))
            EXPECT_EQ(name == "errorCode" ? "-20215" : "", value) << request["name"];
    host.free();
}

// ---- Sent again.

TEST_F(HostCatalogue, RequestsSayWhetherTheyMayBeSentAgain)
{
    const std::map<std::string, std::set<std::string>> exceptions = {
        {"leaves-a-session", {"QZaven_ke_new"}},
        {"once", {"QZaven_ke_client_hello", "QZaven_ke_client_key_exchange"}},
        {"no",
         {"QZaven_ke_free", "QZaven_ke_set_public_key", "QZaven_ke_set_certificate",
          "QZaven_ke_set_root_certificate", "QZaven_ke_encrypt", "QZaven_ke_decrypt",
          "QZaven_ke_hmac", "QZaven_ke_cmac"}}};
    std::map<std::string, std::set<std::string>> told;
    for (const Json& request : catalogue(run({"list", "--json"}))) {
        const std::string name = request["name"];
        const std::string code = request["retry"]["code"];
        EXPECT_TRUE(holds(inOneLine(run({"describe", name}).out),
                          code + ": " + request["retry"]["text"].get<std::string>()))
            << name;
        told[code].insert(name);
    }
    EXPECT_EQ(16U, told["safe"].size());
    told.erase("safe");
    EXPECT_EQ(exceptions, told);
}

// A request that may be sent again asks nothing of the engine that belongs to a session, and the
// second time is like the first.
TEST_F(HostCatalogue, WhatMayBeSentAgainKeepsNothingInTheEngine)
{
    PluginHost host;
    host.init();
    for (const Json& request : catalogue(run({"list", "--json"}))) {
        const std::string name = request["name"];
        const Pairs first = host.request(name, allowedPairs(request));
        const std::vector<std::string> calls = host.journal.functions("aven_");
        ASSERT_FALSE(calls.empty()) << name;
        const bool isSafe = request["retry"]["code"] == "safe";
        EXPECT_EQ(isSafe, host.journal.functions("aven_ke_").empty()) << name;
        if (!isSafe)
            continue;
        EXPECT_EQ(first, host.request(name, allowedPairs(request))) << name;
        EXPECT_EQ(calls, host.journal.functions("aven_")) << name;
    }
    host.free();
}

// ---- Documents.

TEST_F(HostDocuments, RequestsDocumentIsTheCatalogues)
{
    EXPECT_EQ(readWhole(CORVANE_SOURCE_DIR "/docs/requests.md"), run({"list", "--markdown"}).out)
        << "corvane-host list --markdown >docs/requests.md";
}

// Too long to show where they differ.
TEST_F(HostDocuments, OpenApiDocumentIsTheHosts)
{
    EXPECT_TRUE(readWhole(CORVANE_SOURCE_DIR "/docs/openapi.json") == run({"openapi"}).out)
        << "corvane-host openapi >docs/openapi.json";
}

TEST_F(HostDocuments, OpenApiHasEveryRequestWithItsParameters)
{
    const Json document = run({"openapi"}).json();
    EXPECT_EQ("3.1.0", document["openapi"]);
    for (const Json& request : catalogue(run({"list", "--json"}))) {
        const std::string path = "/v1/requests/" + request["name"].get<std::string>();
        ASSERT_TRUE(document["paths"].contains(path)) << path;
        const Json& post = document["paths"][path]["post"];
        EXPECT_EQ(request["name"], post["operationId"]);
        const Json& schema = post["requestBody"]["content"]["application/json"]["schema"];
        EXPECT_EQ(request["parameters"].size(), schema["properties"].size()) << path;
        Json required = Json::array();
        for (const Json& parameter : request["parameters"]) {
            EXPECT_TRUE(schema["properties"].contains(parameter["name"])) << parameter;
            if (parameter["required"].get<bool>())
                required.push_back(parameter["name"]);
        }
        EXPECT_EQ(required, schema["required"]) << path;
    }
}

TEST_F(HostDocuments, OpenApiSaysOfEachOperationWhetherItMayBeSentAgain)
{
    std::map<std::string, std::string> retries;
    for (const Json& request : catalogue(run({"list", "--json"})))
        retries[request["name"]] = request["retry"]["code"];
    const Json document = run({"openapi"}).json();
    for (const auto& [path, item] : document["paths"].items())
        for (const auto& [method, operation] : item.items()) {
            const auto request = retries.find(operation["operationId"]);
            const std::string other = method == "get" ? "safe" : "no";
            EXPECT_EQ(request == retries.end() ? other : request->second,
                      operation["x-corvane-retry"])
                << path;
        }
}

TEST_F(HostDocuments, ConditionsAndSecretsAreForPrograms)
{
    const Json request = run({"describe", "QZaven_crypto_encrypt", "--json"}).json();
    EXPECT_EQ(17, request["id"]);
    std::map<std::string, Json> parameters;
    for (const Json& parameter : request["parameters"])
        parameters[parameter["name"]] = parameter;
    EXPECT_EQ((Json{{"parameter", "strMode"}, {"isNot", "1"}}),
              parameters["strIV"]["requiredWhen"]);
    EXPECT_EQ((Json{{"parameter", "strMode"}, {"is", "6"}}), parameters["straad"]["requiredWhen"]);
    EXPECT_FALSE(parameters["strKey"].contains("requiredWhen"));
    EXPECT_EQ((Json{{"parameter", "strMode"}, {"is", "6"}}),
              parameters["strgcmTagLen"]["usedWhen"]);
    EXPECT_FALSE(parameters["strgcmTagLen"].contains("requiredWhen"));
    EXPECT_FALSE(parameters["strCipherPadding"].contains("usedWhen"));
    EXPECT_EQ((Json{{"value", "4"},
                    {"name", "aes-256"},
                    {"text", "AES-256"},
                    {"names", {"aes-256"}},
                    {"keyBytes", 32},
                    {"blockBytes", 16}}),
              parameters["strCipherAlg"]["choices"][3]);
    EXPECT_EQ("block", parameters["strMode"]["choices"][1]["iv"]);
    EXPECT_EQ(true, parameters["strMode"]["choices"][1]["wholeBlocks"]);
    EXPECT_FALSE(parameters["strMode"]["choices"][2].contains("wholeBlocks"));
    EXPECT_EQ("unless-padded", parameters["strdata"]["wholeBlocks"]);
    EXPECT_EQ("key", parameters["strKey"]["length"]);
    EXPECT_EQ("iv", parameters["strIV"]["length"]);
    EXPECT_EQ(true, parameters["strKey"]["secret"]);
    EXPECT_EQ(true, parameters["strdata"]["secret"]);
    EXPECT_EQ(false, parameters["strMode"]["secret"]);
    EXPECT_EQ(false, parameters["strgcmTagLen"]["secret"]);
}

}  // namespace
