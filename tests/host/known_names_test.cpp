// Names for numbers: what is sent for them, and which are known with which engine.
#include <algorithm>
#include <cctype>
#include <nlohmann/json.hpp>

#include "common/library_mark.h"
#include "host/catalogue/names.h"
#include "host/library_file.h"
#include "host/output.h"
#include "host/parameters.h"
#include "support/held.h"
#include "support/host_program.h"
#include "support/one_line.h"

namespace {

using namespace std::string_literals;
using namespace support;

// ---- Every name of every parameter. This process knows the development engine's.

// As people write a name.
std::vector<std::string> spellings(const std::string& name)
{
    std::string capital = name;
    std::transform(name.begin(), name.end(), capital.begin(),
                   [](unsigned char c) { return static_cast<char>(toupper(c)); });
    std::string joined = name;
    joined.erase(std::remove(joined.begin(), joined.end(), '-'), joined.end());
    std::string blanks = name;
    std::replace(blanks.begin(), blanks.end(), '-', ' ');
    std::string other = name;
    std::replace(other.begin(), other.end(), '-', '_');
    return {name, capital, joined, blanks, other + "#", "/." + name};
}

struct Named {
    const RequestInfo& request;
    const Parameter& parameter;
    std::string written;
    std::string number;
};

std::vector<Named> allNames()
{
    std::vector<Named> all;
    for (const RequestInfo& request : catalogue())
        for (const Parameter& parameter : request.parameters)
            for (const Choice& choice : parameter.choices)
                for (const std::string& name : choice.names)
                    for (const std::string& written : spellings(name))
                        all.push_back({request, parameter, written, choice.value});
    return all;
}

using NamesOfNumbers = Host;

TEST_F(NamesOfNumbers, AreSentAsNumbersFromArgumentsAndFiles)
{
    EXPECT_GT(allNames().size(), 500U);
    for (const Named& row : allNames()) {
        const std::string name = row.parameter.name;
        const std::string line = name + "=" + row.written;
        EXPECT_EQ((Pairs{{name, row.number}}), (WrittenParameters{{line}, ""}.read(&row.request)))
            << row.request.name << " " << line;
        if (row.written != row.parameter.choices.front().names.front())
            continue;  // files take longer
        for (const std::string& text : {line + "\n", Json{{name, row.written}}.dump()})
            EXPECT_EQ((Pairs{{name, row.number}}),
                      (WrittenParameters{{}, file("params", text)}.read(&row.request)))
                << row.request.name << " " << text;
    }
}

TEST_F(NamesOfNumbers, AreSentAsTheyAreIfMarkedSo)
{
    for (const Named& row : allNames())
        for (const char* prefix : {"raw:", "text:"}) {
            const std::string name = row.parameter.name;
            const WrittenParameters given = {{name + "=" + prefix + row.written}, ""};
            EXPECT_EQ((Pairs{{name, row.written}}), given.read(&row.request)) << prefix;
        }
}

TEST_F(NamesOfNumbers, NumbersAreSentAsTheyAreAndOtherTextsRefused)
{
    const RequestInfo& request = *findRequest("QZaven_crypto_encrypt");
    const auto read = [&](const std::string& value) {
        return WrittenParameters{{"strCipherAlg=" + value}, ""}.read(&request);
    };
    for (const char* value : {"4", " 4", "04", "77", "+4", "-4", "4\r\n", ""})
        EXPECT_EQ((Pairs{{"strCipherAlg", value}}), read(value));
    for (const char* value : {"aes", "aes-2567", "-", "aes:256", "oaep", "4 4", "4.", " "}) {
        EXPECT_THROW(read(value), UsageError) << value;
        EXPECT_EQ((Pairs{{"strCipherAlg", value}}), read("raw:"s + value));
    }
    EXPECT_EQ((Pairs{{"strCipherAlg", "aes-256"}}),
              (WrittenParameters{{"strCipherAlg=aes-256"}, ""}.read(nullptr)));
}

// ---- The whole way.

class NamesOnTheWay : public Host {
protected:
    // AES-256-CBC of "hello", by whatever stands for the numbers.
    static Arguments encryption(const std::string& cipher, const std::string& mode,
                                const std::string& padding)
    {
        return {"QZaven_crypto_encrypt",
                "strCipherAlg=" + cipher,
                "strMode=" + mode,
                "strCipherPadding=" + padding,
                "strKey=hex:" + std::string(64, '1'),
                "strIV=hex:" + std::string(32, '2'),
                "strdata=text:hello"};
    }

    Ended with(const std::string& names, Arguments arguments) const
    {
        arguments.insert(arguments.begin(), {"--names", names, "call"});
        return run(arguments);
    }
};

TEST_F(NamesOnTheWay, ANameIsAsGoodAsItsNumber)
{
    const Ended numbers = call(encryption("4", "2", "1"));
    EXPECT_EQ(SUCCESS, numbers.code) << numbers.err;
    const Ended names = call(encryption("AES_256", "cbc", "PKCS#7"));
    EXPECT_EQ(numbers.out, names.out) << names.err;
    EXPECT_FALSE(holds(names.err, "warning")) << names.err;

    Json step = {{"request", "QZaven_crypto_encrypt"}, {"params", Json::object()}};
    for (const std::string& written : encryption("aes 256", "CBC", "pkcs7"))
        if (const size_t equals = written.find('='); equals != std::string::npos)
            step["params"][written.substr(0, equals)] = written.substr(equals + 1);
    const Ended script = lines(step.dump() + "\n");
    EXPECT_EQ(numbers.json()["Data"], script.json()["results"]["Data"]) << script.err;

    const Ended bench =
        run({"bench", "QZaven_crypto_gen_symmkey", "strCipherAlg=3des", "--count", "3", "--json"});
    EXPECT_EQ(SUCCESS, bench.code) << bench.err;
}

// The plug-in reads a leading number: AES-192.
TEST_F(NamesOnTheWay, ThreeDesIsNotTakenForAThree)
{
    const auto madeKey = [&](const std::string& names, const std::string& cipher) {
        const Ended made = with(names, {"QZaven_crypto_cmac", "strCipherAlg=" + cipher,
                                        "strKey=hex:" + std::string(48, '1'), "strdata=text:x",
                                        "--raw", "Data", "--hex"});
        EXPECT_EQ(SUCCESS, made.code) << made.err;
        return made.out;
    };
    EXPECT_EQ(madeKey("auto", "7"), madeKey("auto", "3des"));
    EXPECT_EQ(madeKey("auto", "3"), madeKey("none", "raw:3des"));
    EXPECT_NE(madeKey("auto", "3"), madeKey("auto", "7"));
}

TEST_F(NamesOnTheWay, AnUnknownNameIsRefusedUnlessItIsRaw)
{
    const std::string unknown =
        "strCipherAlg is no number and no name that is known here; did you mean ";
    // Of the last ones the plug-in would take the number that they begin with.
    for (const auto& [name, nearest] :
         {std::pair("aes-265", "aes-256"), {"3des-cbc", "3des"}, {"4x", "sm4"}, {"raw", "sm4"}}) {
        const Ended ended = call(encryption(name, "2", "1"));
        EXPECT_EQ(USAGE, ended.code) << name;
        EXPECT_EQ("", ended.out) << name;
        EXPECT_TRUE(holds(ended.err, unknown + nearest + "? raw: sends it as it is")) << ended.err;
    }
    const Ended sent = call(encryption("raw:aes-265", "2", "1"));
    EXPECT_EQ(REFUSED, sent.code);
    EXPECT_EQ("-20084", sent.json()["errorCode"]);
    EXPECT_TRUE(holds(sent.err, unknown + "aes-256?")) << sent.err;
}

TEST_F(NamesOnTheWay, NumbersAreWhole)
{
    const auto derive = [&](const std::string& length) {
        return call({"QZaven_crypto_kdf", "HashType=sm3", "srcdata=secret", "OutLen=" + length});
    };
    const std::string whole = "OutLen takes a whole number, 0 to 65535; raw: sends it as it is";
    for (const char* length : {"16K", "1e3", "12.9", "0x10", "abc", "+", "1 2", "1\xc2\xa0"}) {
        const Ended ended = derive(length);
        EXPECT_EQ(USAGE, ended.code) << length;
        EXPECT_TRUE(holds(ended.err, whole)) << ended.err;
    }
    for (const char* length : {"16", "+16", " 16", "16\r\n", "016", "raw:16K"})
        EXPECT_EQ(derive("16").out.size(), derive(length).out.size()) << length;
    const Ended unnamed = with("none", encryption("aes-256", "2", "1"));
    EXPECT_EQ(USAGE, unnamed.code);
    EXPECT_TRUE(holds(unnamed.err, "strCipherAlg takes a whole number, 1 to 7;")) << unnamed.err;
}

// ---- Which are known.

TEST_F(NamesOnTheWay, WithoutNamesNumbersAloneCount)
{
    for (const char* const subcommand : {"list", "describe"}) {
        Arguments arguments = {"--names", "none", subcommand, "--json"};
        if (subcommand == "describe"s)
            arguments.emplace_back("QZaven_crypto_encrypt");
        const std::string json = run(arguments).out;
        for (const char* const member : {"choices", "length", "keyBytes", "wholeBlocks"})
            EXPECT_FALSE(holds(json, "\""s + member + "\"")) << member;
        EXPECT_TRUE(holds(json, "strCipherAlg"));
    }
    EXPECT_FALSE(holds(run({"openapi", "--names", "none"}).out, "aes-256"));
    EXPECT_TRUE(holds(run({"openapi"}).out, "aes-256"));

    EXPECT_EQ(SUCCESS, with("none", encryption("4", "2", "1")).code);
    const Ended named = with("none", encryption("raw:aes-256", "2", "1"));
    EXPECT_TRUE(holds(named.err, "strCipherAlg must be 1 to 7")) << named.err;
    // Of another engine's number 2 nothing is known.
    const Ended longKey = with("none", encryption("2", "2", "1"));
    EXPECT_FALSE(holds(longKey.err, "warning")) << longKey.err;
}

TEST_F(NamesOnTheWay, AFileHasTheNamesOfAnotherEngine)
{
    const std::string names = file("names.json", R"({
        "HashType": {"zero": 0, "six": 6}, "strHashAlg": {"one": 1, "six": 6},
        "strCipherAlg": {"aes-256": 4, "AES": 4, "own cipher": 2, "seventh": 7},
        "strMode": {"chained": 2}})");
    const Ended numbers = call(encryption("4", "2", "1"));
    for (const char* cipher : {"aes256", "aes"})
        EXPECT_EQ(numbers.out, with(names, encryption(cipher, "Chained", "1")).out);
    // What is not in the file is no name.
    EXPECT_TRUE(holds(with(names, encryption("sm4", "2", "1")).err, "did you mean"));
    EXPECT_TRUE(holds(with(names, encryption("4", "2", "pkcs7")).err,
                      "strCipherPadding takes a whole number, one of 0 1;"));
    EXPECT_TRUE(holds(with(names, encryption("11", "2", "1")).err, "must be 1 to 7"));

    const Json request =
        run({"--names", names, "describe", "QZaven_crypto_gen_symmkey", "--json"}).json();
    EXPECT_EQ(
        (Json::array(
            {{{"value", "4"},
              {"name", "aes-256"},
              {"text", "aes-256"},
              {"names", {"aes-256", "AES"}}},
             {{"value", "2"},
              {"name", "own cipher"},
              {"text", "own cipher"},
              {"names", {"own cipher"}}},
             {{"value", "7"}, {"name", "seventh"}, {"text", "seventh"}, {"names", {"seventh"}}}})),
        request["parameters"][0]["choices"]);
}

// What a schema takes, of the numbers and texts that a person might send.
std::vector<std::string> takenOf(const Json& schema)
{
    std::vector<std::string> taken;
    const auto takes = [&](const Json& value) {
        const auto one = [&](const Json& branch) {
            if ((branch["type"] == "string") != value.is_string())
                return false;
            if (branch.contains("enum"))
                return std::count(branch["enum"].begin(), branch["enum"].end(), value) > 0;
            return value.is_string() ? value.get<std::string>().find_first_not_of("0123456789") ==
                                           std::string::npos
                                     : value >= branch["minimum"] && value <= branch["maximum"];
        };
        return std::any_of(schema["anyOf"].begin(), schema["anyOf"].end(), one);
    };
    for (const Json& value : {Json(0), Json(1), Json(2), Json(3), Json(7), Json(8), Json("0"),
                              Json("2"), Json("aes-256"), Json("aes-128"), Json("chained")})
        if (takes(value))
            taken.push_back(value.dump());
    return taken;
}

TEST_F(NamesOnTheWay, NumbersThatTheFileDoesNotNameAreTakenToo)
{
    const std::string names = file("names.json", R"({
        "strCipherAlg": {"aes-256": 4}, "strMode": {"chained": 2},
        "strCipherPadding": {"none": 0, "pkcs7": 1}})");
    const Ended unnamed = with(names, encryption("4", "5", "0"));
    EXPECT_EQ(SUCCESS, unnamed.code) << unnamed.err;
    EXPECT_FALSE(holds(unnamed.err, "warning")) << unnamed.err;

    const Json schemas =
        run({"--names", names, "openapi"})
            .json()["paths"]["/v1/requests/QZaven_crypto_encrypt"]["post"]["requestBody"]["content"]
                   ["application/json"]["schema"]["properties"];
    EXPECT_EQ((std::vector<std::string>{"1", "2", "3", "7", "\"0\"", "\"2\"", "\"aes-256\""}),
              takenOf(schemas["strCipherAlg"]));
    EXPECT_EQ((std::vector<std::string>{"1", "2", "3", "\"2\"", "\"chained\""}),
              takenOf(schemas["strMode"]));
    EXPECT_EQ((std::vector<std::string>{"0", "1", "\"0\""}), takenOf(schemas["strCipherPadding"]));

    // Whoever offers the names to choose from finds the other numbers beside them.
    const Json parameters =
        run({"--names", names, "describe", "QZaven_crypto_encrypt", "--json"}).json()["parameters"];
    EXPECT_EQ(1U, parameters[0]["choices"].size());
    EXPECT_EQ((Json{1, 7}), parameters[0]["range"]);
    EXPECT_EQ(1U, parameters[1]["choices"].size());
    EXPECT_EQ((Json{"1", "2", "3", "4", "5", "6"}), parameters[1]["oneOf"]);
}

TEST_F(NamesOnTheWay, ABrokenFileIsRefusedAtItsPlace)
{
    for (const auto& [text, words] : std::vector<std::pair<std::string, std::string>>{
             {"{", ":1:2: not JSON"},
             {"[]", "must be an object of parameters"},
             {R"({"strCipherAlgo": {}})",
              "there is no parameter strCipherAlgo; did you mean "
              "strCipherAlg?"},
             {R"({"colours": {}})", "there is no parameter colours"},
             {R"({"strKey": {"a": 1}})", "strKey takes no number"},
             {R"({"strMode": 2})", "strMode must be an object"},
             {R"({"strMode": {"gcm": "6"}})", "strMode.gcm must be a number"},
             {R"({"strMode": {"gcm": 6.5}})", "strMode.gcm must be a number"},
             {R"({"strMode": {"gcm": -6}})", "strMode.gcm must be a number"},
             {R"({"strMode": {"gcm": 99999999999}})", "strMode.gcm must be a number"},
             {R"({"strMode": {"gcm": 7}})", "strMode.gcm must be a number, one of 1 2 3 4 5 6"},
             {R"({"strMode": {"gcm": 12}})", "strMode.gcm must be a number"},
             {R"({"strCipherAlg": {"aes": 0}})", "strCipherAlg.aes must be a number, 1 to 7"},
             {R"({"strCipherAlg": {"aes": 9}})", "strCipherAlg.aes must be a number, 1 to 7"},
             {R"({"OutLen": {"long": 65536}})", "OutLen.long must be a number, 0 to 65535"},
             {R"({"strMode": {"gcm": 6, "GCM": 6}})", "strMode.GCM is the same name as gcm"},
             {"{\"strMode\": {\"gcm\": 6,\n\"gcm\": 6}}", ":2:1: gcm is given twice"},
             {"{\"strMode\":\n {\"gcm\": 1e999}}", ":2:10: a number is out of range"},
             {R"({"strMode": {"7": 6}})", "strMode.7: a name has other characters"},
             {R"({"strMode": {"": 6}})", "a name has other characters"},
             {R"({"strMode": {"-_": 6}})", "a name has other characters"}}) {
        const std::string names = file("names.json", text);
        for (const Arguments& arguments :
             {Arguments{"list"}, {"call", "QZaVen_GetVersion"}, {"serve"}}) {
            Arguments all = {"--names", names};
            all.insert(all.end(), arguments.begin(), arguments.end());
            const Ended ended = run(all);
            EXPECT_EQ(USAGE, ended.code) << text;
            EXPECT_EQ("", ended.out) << text;
            EXPECT_TRUE(holds(ended.err, names + ":")) << ended.err;
            EXPECT_TRUE(holds(ended.err, words)) << ended.err;
        }
    }
}

TEST_F(NamesOnTheWay, AFileThatCannotBeReadIsToldWithTheReason)
{
    for (const auto& [name, words] :
         {std::pair("missing", "No such file"), {".", "it is no file"}, {"/dev/null", "no file"}}) {
        const Ended ended = run({"list", "--names", name});
        EXPECT_EQ(USAGE, ended.code);
        EXPECT_TRUE(holds(ended.err, words)) << ended.err;
        EXPECT_TRUE(holds(ended.err, "auto, development, none")) << ended.err;
    }
    EXPECT_EQ(USAGE, run({"list", "--names", ""}).code);
}

// ---- The engine's mark.

const std::string mark = "Corvane\0development engine"s;

bool knowsNames(const Ended& listed)
{
    EXPECT_EQ(SUCCESS, listed.code) << listed.err;
    return holds(listed.out, "aes-256");
}

TEST_F(NamesOnTheWay, TheDevelopmentEngineIsKnownByItsFile)
{
    EXPECT_EQ(LIBRARY_MARK_DEVELOPMENT_ENGINE, inspectLibrary(engine).mark);
    EXPECT_EQ("", inspectLibrary(plugin).mark);
    EXPECT_EQ("", inspectLibrary(params).mark);
    EXPECT_TRUE(knowsNames(run({"list", "--json"})));
    EXPECT_TRUE(knowsNames(run({"--engine", engine, "list", "--json"})));
    // An engine is any file, as far as names go.
    for (const std::string& other : {plugin, path("missing"), file("empty", "")}) {
        EXPECT_FALSE(knowsNames(run({"--engine", other, "list", "--json"}))) << other;
        EXPECT_TRUE(
            knowsNames(run({"--engine", other, "--names", "development", "list", "--json"})));
    }
}

TEST_F(NamesOnTheWay, ADamagedMarkIsNone)
{
    std::string bytes = readWhole(engine);
    const size_t owner = bytes.find(mark);
    ASSERT_NE(std::string::npos, owner);
    ASSERT_EQ(std::string::npos, bytes.find(mark, owner + 1));
    const size_t head = owner - 12;  // lengths of owner and description, type
    for (const size_t at : {head, head + 1, head + 3, head + 5, head + 7, head + 8, owner,
                            owner + 7, owner + mark.size()}) {
        std::string damaged = bytes;
        damaged[at] = static_cast<char>(damaged[at] ^ 0x7E);
        const LibraryFile seen = inspectLibrary(file("damaged.so", damaged));
        EXPECT_EQ("", seen.mark) << at - head;
        EXPECT_EQ("", seen.fault) << at - head;
    }
    // Another word in its place is another mark.
    std::string other = bytes;
    other[owner + 8] = 'D';
    EXPECT_EQ("Development engine", inspectLibrary(file("other.so", other)).mark);
    EXPECT_FALSE(knowsNames(run({"--engine", path("other.so"), "list", "--json"})));
}

// ---- What is made of the catalogue.

using NamesInDocuments = Host;

TEST_F(NamesInDocuments, NamesStandBesideNumbers)
{
    const Json document = run({"openapi"}).json();
    size_t count = 0;
    for (const Json& request : run({"list", "--json"}).json()) {
        const std::string name = request["name"];
        const std::string described = inOneLine(run({"describe", name}).out);
        const Json& schemas = document["paths"]["/v1/requests/" + name]["post"]["requestBody"]
                                      ["content"]["application/json"]["schema"]["properties"];
        for (const Json& parameter : request["parameters"]) {
            Json texts = Json::array();
            Json numbers = Json::array();
            for (const Json& choice : parameter.value("choices", Json::array())) {
                const std::string value = choice["value"];
                EXPECT_EQ(choice["names"][0], choice["name"]);
                EXPECT_TRUE(holds(described, value + " " + choice["name"].get<std::string>()));
                numbers.push_back(std::stoi(value));
                texts.push_back(value);
                texts.insert(texts.end(), choice["names"].begin(), choice["names"].end());
                ++count;
            }
            if (!parameter.contains("choices"))
                continue;
            const Json& schema = schemas[parameter["name"].get<std::string>()];
            EXPECT_EQ((Json{{"type", "string"}, {"enum", texts}}), schema["anyOf"][0]);
            EXPECT_EQ((Json{{"type", "integer"}, {"enum", numbers}}), schema["anyOf"][1]);
        }
    }
    EXPECT_GT(count, 50U);
}

// What else people need to know who send it.
TEST_F(NamesInDocuments, TellSizesAndForms)
{
    for (const auto& [request, words] :
         {std::pair("QZaven_crypto_encrypt", "4 aes-256 (32-byte key)"),
          {"QZaven_crypto_encrypt", "must not be empty"},
          {"QZaven_crypto_private_decrypt", "OAEP is with SHA-256, also in MGF1"},
          {"QZaven_crypto_envelope_encrypt", "the envelope, in DER"},
          {"QZaven_crypto_envelope_decrypt", "the envelope, in DER"}}) {
        EXPECT_TRUE(holds(inOneLine(run({"describe", request}).out), words)) << words;
        EXPECT_TRUE(holds(run({"list", "--markdown"}).out, words)) << words;
    }
}

// ---- Searches.

TEST_F(NamesOnTheWay, WordsFindRequests)
{
    const auto found = [&](Arguments words) {
        words.insert(words.begin(), {"list", "--brief"});
        const Ended ended = run(words);
        EXPECT_EQ(SUCCESS, ended.code) << ended.err;
        return ended.out;
    };
    EXPECT_EQ("QZaven_crypto_encrypt\nQZaven_crypto_decrypt\n", found({"gcm", "aead"}));
    EXPECT_EQ("QZaven_crypto_cmac\n", found({"aes_256", "omac"}));
    EXPECT_EQ("QZaven_crypto_hmac\n", found({"SHA 256", "rfc2104"}));
    EXPECT_EQ("QZaven_crypto_envelope_encrypt\nQZaven_crypto_envelope_decrypt\n", found({"cms"}));
    EXPECT_EQ(found({}), found({"QZ"}));
    // Beginnings of words alone, as "aes" is within "RSAES" and "encrypt" within "aven_crypto".
    EXPECT_EQ(0U, found({"aes"}).find("QZaven_crypto_encrypt\n"));
    EXPECT_EQ(found({"encrypt"}).npos, found({"encrypt"}).find("hmac"));
    EXPECT_EQ(
        "QZaven_crypto_public_encrypt\nQZaven_crypto_private_decrypt\nQZaven_crypto_encrypt\n"
        "QZaven_crypto_decrypt\n",
        found({"padding"}));
    EXPECT_TRUE(holds(found({"password"}), "QZaven_crypto_private_decrypt"));
    for (const char* word : {"aes", "gcm", "rsa", "sha256", "mac", "cms", "session"})
        EXPECT_NE("", found({word})) << word;  // the advice for those who find nothing

    const Json json = run({"list", "cms", "--json"}).json();
    EXPECT_EQ(2U, json.size());
    const std::string text = run({"list", "cms"}).out;
    EXPECT_TRUE(holds(text, "QZaven_crypto_envelope_encrypt")) << text;
    EXPECT_FALSE(holds(text, "QZaven_crypto_hmac")) << text;

    const std::string ciphers = inOneLine(run({"list", "aes"}).out);
    EXPECT_TRUE(holds(ciphers, "4 aes-256 (32-byte key)")) << ciphers;
    EXPECT_FALSE(holds(ciphers, "aria")) << ciphers;

    const Ended none = run({"list", "md5", "aes"});
    EXPECT_EQ(USAGE, none.code);
    EXPECT_EQ("", none.out);
    EXPECT_TRUE(holds(none.err, "no request matches md5 aes; try")) << none.err;
    // A subcommand's name is a word like others here.
    EXPECT_TRUE(holds(run({"list", "doctor"}).err, "no request matches doctor"));
}

}  // namespace
