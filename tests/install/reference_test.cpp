// The pages of the target `reference`: what they must name, and that they stand alone.
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "engine_interface.h"
#include "params_interface.h"
#include "support/files.h"

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;
using support::readWhole;

const fs::path folder = CORVANE_BUILD_DIR "/share/doc/corvane/reference";

class Reference : public testing::Test {
protected:
    void SetUp() override
    {
        for (const fs::path& page : {http, headers})
            if (!fs::exists(page))
                GTEST_SKIP() << "NOT TESTED: there was no doxygen or no python3";
    }

    // The first group of each match.
    static std::vector<std::string> all(const std::string& text, const std::string& expression)
    {
        const std::regex wanted(expression);
        std::vector<std::string> found;
        for (std::sregex_iterator hit(text.begin(), text.end(), wanted), end; hit != end; ++hit)
            found.push_back((*hit)[1]);
        return found;
    }

    static bool has(const std::string& page, const std::string& words)
    {
        return page.find(words) != std::string::npos;
    }

    const fs::path http = folder / "http.html";
    const fs::path headers = folder / "headers.html";
};

TEST_F(Reference, HeadersPageDeclaresEveryFunction)
{
    const std::string page = readWhole(headers);
    for (const char* name : {"Corvane_plugin_Init", "Corvane_plugin_Request", "Corvane_plugin_Free",
                             "log_open", "log_set_level", "hex_dump_to_buffer", "SymmCipherParams",
                             "PkeyCipherParams", "MacParams", "EnvelopeParams", "_log_level"})
        EXPECT_TRUE(has(page, std::string("<h3 id=\"") + name + "\">")) << name;
#define EXPECT_NAMED(name) EXPECT_TRUE(has(page, "<h3 id=\"" #name "\">")) << #name;
#define ENGINE_FUNCTION(result, name, parameters) EXPECT_NAMED(name)
#define MODULE_FUNCTION(name, parameters) EXPECT_NAMED(name)
    AVEN_ENGINE_FUNCTIONS(ENGINE_FUNCTION)
    CORVANE_PARAMS_FUNCTIONS(MODULE_FUNCTION)
}

TEST_F(Reference, HttpPageHasEveryPathParameterStatusAndCode)
{
    const std::string page = readWhole(http);
    const Json document = Json::parse(readWhole(CORVANE_SOURCE_DIR "/docs/openapi.json"));
    size_t parameters = 0;
    for (const auto& [path, item] : document["paths"].items()) {
        const std::string method = item.contains("post") ? "POST " : "GET ";
        EXPECT_TRUE(has(page, "<code>" + method + path + "</code>")) << path;
        const Json& body = item.begin()->value("requestBody", Json::object());
        if (!body.contains("content"))
            continue;
        for (const auto& parameter :
             body["content"]["application/json"]["schema"]["properties"].items()) {
            EXPECT_TRUE(has(page, "<code>" + parameter.key() + "</code>")) << path;
            ++parameters;
        }
    }
    EXPECT_LT(80U, parameters);
    for (const auto& [status, response] : document["components"]["responses"].items()) {
        EXPECT_TRUE(has(page, "id=\"status-" + status + "\"")) << status;
        for (const std::string& code :
             all(response["description"].get<std::string>(), "(?:^|; )([a-z_]+): "))
            EXPECT_TRUE(has(page, "<code>" + code + "</code>")) << code;
    }
}

TEST_F(Reference, PagesLeadOnlyToPlacesThatTheyHave)
{
    for (const fs::path& path : {http, headers}) {
        const std::string page = readWhole(path);
        std::set<std::string> places;
        for (const std::string& place : all(page, " id=\"([^\"]*)\""))
            EXPECT_TRUE(places.insert(place).second) << path << " has " << place << " twice";
        const std::vector<std::string> links = all(page, " href=\"([^\"]*)\"");
        EXPECT_LT(40U, links.size());
        for (const std::string& link : links)
            EXPECT_TRUE(link[0] == '#' && places.count(link.substr(1)) == 1) << path << link;
    }
}

TEST_F(Reference, PagesNeedNothingElse)
{
    for (const fs::path& path : {http, headers}) {
        const std::string page = readWhole(path);
        for (const char* words : {"<script", "<link", "<img", " src=", "@import", "url(",
                                  CORVANE_SOURCE_DIR, CORVANE_BUILD_DIR})
            EXPECT_FALSE(has(page, words)) << path << " has " << words;
        EXPECT_TRUE(has(page, "prefers-color-scheme: dark"));
    }
}

}  // namespace
