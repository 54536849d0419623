// What is warned of before a request is sent.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "common/codec.h"
#include "host/catalogue/complaints.h"

namespace {

using namespace std::string_literals;

constexpr const char* encrypt = "QZaven_crypto_encrypt";
constexpr const char* decrypt = "QZaven_crypto_decrypt";

std::string bytes(size_t count)
{
    return toUrlBase64(std::string(count, 'x'));
}

// Good ones for AES-256 in CBC, with others in their places, or none for an empty one.
Pairs parametersOf(const char* request, const Pairs& others)
{
    Pairs all = {{"strCipherAlg", "4"},  {"strMode", "2"},      {"strCipherPadding", "1"},
                 {"strKey", bytes(32)},  {"strIV", bytes(16)},  {"strdata", bytes(32)},
                 {"strgcmTagLen", "16"}, {"straad", bytes(5)},  {"strtag", bytes(16)},
                 {"strHashAlg", "4"},    {"strpk", bytes(100)}, {"strKeyPairType", "3"},
                 {"strsk", bytes(100)},  {"strPassword", "x"},  {"strIn", bytes(3)}};
    all.erase(std::remove_if(all.begin(), all.end(),
                             [&](const auto& pair) {
                                 return findParameter(*findRequest(request), pair.first) ==
                                            nullptr ||
                                        findValue(others, pair.first) != nullptr;
                             }),
              all.end());
    for (const auto& other : others)
        if (!other.second.empty())
            all.push_back(other);
    return all;
}

// "code: text" of each.
std::vector<std::string> told(const char* request, const Pairs& others)
{
    std::vector<std::string> all;
    for (const Complaint& complaint :
         complaints(*findRequest(request), parametersOf(request, others)))
        all.push_back(complaint.code + ": " + complaint.text);
    return all;
}

struct Row {
    const char* request;
    Pairs others;
    std::vector<std::string> told;
};

void expectAll(const std::vector<Row>& rows)
{
    for (const Row& row : rows) {
        std::string given;
        for (const auto& [name, value] : row.others)
            given.append(" ").append(name).append("=").append(value);
        EXPECT_EQ(row.told, told(row.request, row.others)) << row.request << given;
    }
}

TEST(Complaints, SizesFollowFromCipherAndMode)
{
    const auto key = [](const char* due, const char* size) {
        return "wrong_size: strKey must be "s + due + " bytes; it has " + size;
    };
    const auto iv = [](const char* due, const char* size) {
        return "wrong_size: strIV must be "s + due + " bytes; it has " + size;
    };
    expectAll({
        {encrypt, {}, {}},
        {decrypt, {}, {}},
        {encrypt, {{"strKey", bytes(16)}}, {key("32", "16")}},
        {decrypt, {{"strKey", bytes(33)}}, {key("32", "33")}},
        {"QZaven_crypto_cmac", {{"strKey", bytes(24)}}, {key("32", "24")}},
        {"QZaven_crypto_cmac", {{"strCipherAlg", "7"}, {"strKey", bytes(24)}}, {}},
        {"QZaven_crypto_hmac", {{"strKey", bytes(1)}}, {}},
        {encrypt, {{"strIV", bytes(12)}}, {iv("16", "12")}},
        {encrypt, {{"strMode", "1"}, {"strIV", bytes(12)}}, {}},
        {encrypt, {{"strMode", "5"}, {"strIV", bytes(12)}}, {iv("16", "12")}},
        {encrypt, {{"strMode", "6"}, {"strIV", bytes(1)}}, {}},
        {encrypt, {{"strMode", "6"}, {"strIV", bytes(128)}}, {}},
        {encrypt, {{"strMode", "6"}, {"strIV", bytes(129)}}, {iv("1 to 128", "129")}},
        {encrypt,
         {{"strCipherAlg", "7"}, {"strKey", bytes(24)}, {"strIV", bytes(16)}},
         {iv("8", "16")}},
        {"QZaven_wbsm4_encrypt",
         {{"strKey", bytes(15)}, {"strIV", bytes(17)}},
         {key("16", "15"), iv("16", "17")}},
        // Whose number is not known, of those nothing is due.
        {encrypt,
         {{"strCipherAlg", "77"}, {"strKey", bytes(3)}, {"strIV", bytes(3)}},
         {"out_of_range: strCipherAlg must be 1 to 7"}},
    });
}

TEST(Complaints, ModesThatTheCipherDoesNotHave)
{
    const std::string lacked = "lacked_mode: strMode is a mode that 3des does not have";
    const auto tripleDes = [](const char* mode) {
        return Pairs{
            {"strCipherAlg", "7"}, {"strMode", mode}, {"strKey", bytes(24)}, {"strIV", bytes(8)}};
    };
    for (const char* mode : {"1", "2", "3", "4"})
        expectAll({{encrypt, tripleDes(mode), {}}});
    for (const char* mode : {"5", "6"})
        expectAll({{encrypt, tripleDes(mode), {lacked}},
                   {"QZaven_crypto_envelope_encrypt",
                    {{"strCipherAlg", "7"}, {"strMode", mode}},
                    {lacked}}});
}

TEST(Complaints, DataOfWholeBlocks)
{
    const std::string advice =
        "not_whole_blocks: strdata must be whole blocks of 16 bytes; strCipherPadding=pkcs7 pads";
    const std::string cut = "cut_block: strdata must be whole blocks of 16 bytes; it has 31";
    expectAll({
        {encrypt, {{"strdata", bytes(31)}}, {}},
        {encrypt, {{"strdata", bytes(31)}, {"strCipherPadding", "0"}}, {advice}},
        {encrypt, {{"strdata", bytes(31)}, {"strCipherPadding", ""}}, {advice}},
        {encrypt, {{"strdata", bytes(32)}, {"strCipherPadding", ""}}, {}},
        {encrypt, {{"strdata", bytes(31)}, {"strCipherPadding", ""}, {"strMode", "1"}}, {advice}},
        {encrypt, {{"strdata", bytes(31)}, {"strCipherPadding", ""}, {"strMode", "3"}}, {}},
        {encrypt, {{"strdata", bytes(31)}, {"strCipherPadding", ""}, {"strMode", "6"}}, {}},
        {decrypt, {{"strdata", bytes(31)}}, {cut}},
        {decrypt, {{"strdata", bytes(31)}, {"strCipherPadding", ""}}, {cut}},
        {decrypt, {{"strdata", bytes(31)}, {"strMode", "5"}}, {}},
    });
}

TEST(Complaints, HexDigitsThatAreReadAsBase64)
{
    const auto hex = [](const char* name, const char* size, const char* hexSize) {
        return "looks_like_hex: "s + name + " looks like hex digits but is read as Base64 (" +
               size + " bytes); as hex digits it is " + hexSize +
               " bytes: write hex:DIGITS, by HTTP {\"hex\": DIGITS}";
    };
    const char* const hmac = "QZaven_crypto_hmac";
    const std::string key64 = "00112233445566778899aabbccddeeff00112233445566778899aabbccddeeff";
    expectAll({
        {hmac, {{"strKey", "00010203"}}, {hex("strKey", "6", "4")}},
        {hmac, {{"strKey", "000102"}}, {hex("strKey", "4", "3")}},
        {hmac, {{"strKey", "abcde1"}}, {hex("strKey", "4", "3")}},
        {hmac, {{"strKey", "00010203\n"}}, {hex("strKey", "6", "4")}},
        {hmac, {{"strdata", "DEADBEEF0102"}}, {hex("strdata", "9", "6")}},
        {hmac, {{"strdata", "abcdabcdabcd1234"}}, {hex("strdata", "12", "8")}},
        {encrypt,
         {{"strKey", key64}},
         {"wrong_size: strKey must be 32 bytes; it has 48", hex("strKey", "48", "32")}},
        {"QZaven_crypto_envelope_encrypt", {{"strpk", "30820122"}}, {hex("strpk", "6", "4")}},
        // Also if the size fits.
        {encrypt,
         {{"strCipherAlg", "7"}, {"strKey", key64.substr(0, 32)}, {"strIV", bytes(8)}},
         {hex("strKey", "24", "16")}},
        {encrypt,
         {{"strMode", "6"}, {"strIV", "00112233445566778899aabb"}},
         {hex("strIV", "18", "12")}},
        {encrypt, {{"strMode", "6"}, {"strIV", "0011223344556677"}}, {hex("strIV", "12", "8")}},
        {decrypt, {{"strMode", "6"}, {"strtag", key64.substr(0, 32)}}, {hex("strtag", "24", "16")}},
        // A single numeral is enough for what people have as hex digits.
        {hmac, {{"strKey", "abcde9"}}, {hex("strKey", "4", "3")}},
        {"QZaven_wbsm4_encrypt",
         {{"strKey", "aabbccddeeffaabbccddeeffaabbccd1"},
          {"strIV", "aabbccddeeffaabbccddeeffaabbccd1"}},
         {"wrong_size: strKey must be 16 bytes; it has 24", hex("strKey", "24", "16"),
          "wrong_size: strIV must be 16 bytes; it has 24", hex("strIV", "24", "16")}},
        {decrypt,
         {{"strMode", "6"}, {"strKey", "abcde0"}, {"strIV", "abcde1"}, {"strtag", "abcde9"}},
         {"wrong_size: strKey must be 32 bytes; it has 4", hex("strKey", "4", "3"),
          hex("strIV", "4", "3"), hex("strtag", "4", "3")}},
        // What must be Base64 text is believed.
        {"QZaven_crypto_base64_Decode", {{"strIn", "00010203"}}, {}},
        // Too short, odd, both cases, hardly a numeral, other characters, zeros.
        {hmac, {{"strKey", "0001"}}, {}},
        {hmac, {{"strdata", "000102"}}, {}},
        {hmac, {{"strKey", "00010203a"}}, {"not_base64: strKey is not Base64 (URL-safe)"}},
        {hmac, {{"strKey", "0001020304a"}}, {}},
        {hmac, {{"strKey", "0001aabbAABB"}}, {}},
        {hmac, {{"strKey", "0001aA"}}, {}},
        {hmac, {{"strKey", "0001fF"}}, {}},
        {hmac, {{"strKey", "0001AF"}}, {hex("strKey", "4", "3")}},
        {hmac, {{"strKey", "abcdefab"}}, {}},
        {hmac, {{"strdata", "abcdefa1"}}, {}},
        {hmac, {{"strdata", "abcdabcdabcda123"}}, {}},
        {hmac, {{"strKey", "0001020g"}}, {}},
        {hmac, {{"strKey", toUrlBase64(std::string(12, '\0'))}}, {}},
        {hmac, {{"strKey", toUrlBase64(std::string(11, '\0') + "\1")}}, {}},
    });
}

TEST(Complaints, WhatIsMissing)
{
    const std::string iv =
        "missing: strIV is missing (required unless the mode is ECB (strMode 1))";
    const auto gcm = [](const char* name) {
        return "missing: "s + name + " is missing (required if the mode is GCM (strMode 6))";
    };
    expectAll({
        {encrypt, {{"strKey", ""}}, {"missing: strKey is missing (required)"}},
        {encrypt, {{"strIV", ""}, {"strCipherPadding", ""}, {"strgcmTagLen", ""}}, {iv}},
        {encrypt, {{"strMode", "1"}, {"strIV", ""}}, {}},
        {encrypt, {{"straad", ""}}, {}},
        {decrypt, {{"strMode", "5"}, {"straad", ""}, {"strtag", ""}}, {}},
        {decrypt,
         {{"strMode", "6"}, {"strIV", ""}, {"straad", ""}, {"strtag", ""}},
         {iv, gcm("straad"), gcm("strtag")}},
        // Without a mode only what no mode but ECB can lack.
        {decrypt,
         {{"strMode", ""}, {"strIV", ""}, {"straad", ""}, {"strtag", ""}},
         {"missing: strMode is missing (required)", iv}},
    });
    EXPECT_EQ(1U, complaints(*findRequest("QZaVen_strerror"), {{"strErr", ""}}).size());
}

TEST(Complaints, NumbersOutOfTheirRange)
{
    const std::string alg = "out_of_range: strHashAlg must be 1 to 6";
    const std::string tag = "out_of_range: strgcmTagLen must be 4 to 16";
    const char* const hmac = "QZaven_crypto_hmac";
    expectAll(
        {{hmac, {{"strHashAlg", "0"}}, {alg}},
         {hmac, {{"strHashAlg", "1"}}, {}},
         {hmac, {{"strHashAlg", "6"}}, {}},
         {hmac, {{"strHashAlg", "7"}}, {alg}},
         {encrypt, {{"strgcmTagLen", "3"}}, {tag}},
         {encrypt, {{"strgcmTagLen", "4"}}, {}},
         {encrypt, {{"strgcmTagLen", "17"}}, {tag}},
         {"QZaven_crypto_kdf", {{"HashType", "0"}, {"srcdata", "x"}, {"OutLen", "65535"}}, {}},
         {"QZaven_crypto_kdf",
          {{"HashType", "7"}, {"srcdata", "x"}, {"OutLen", "65536"}},
          {"out_of_range: HashType must be 0 to 6", "out_of_range: OutLen must be 0 to 65535"}}});
}

// As with the names of a file, which has no sizes.
TEST(Complaints, NamesWithoutSizesMakeNoneDue)
{
    RequestInfo request = *findRequest(encrypt);
    for (Parameter& parameter : request.parameters)
        for (Choice& choice : parameter.choices)
            choice = {choice.value, choice.text, choice.names};
    EXPECT_TRUE(complaints(request, parametersOf(encrypt, {{"strKey", bytes(1)},
                                                           {"strIV", bytes(1)},
                                                           {"strdata", bytes(31)},
                                                           {"strCipherPadding", ""}}))
                    .empty());
}

TEST(Complaints, LineEndsBehindPasswords)
{
    const std::string ending =
        "ends_in_line_end: strPassword ends in a line end, which is sent as a part of it";
    const char* const request = "QZaven_crypto_private_decrypt";
    expectAll({{request, {{"strPassword", "5ecret\n"}}, {ending}},
               {request, {{"strPassword", "5ecret\r\n"}}, {ending}},
               {request, {{"strPassword", "\r"}}, {ending}},
               {request, {{"strPassword", "5ec\nret"}}, {}},
               {request, {{"strPassword", "5ecret "}}, {}}});
}

TEST(Complaints, NamesThatAreNone)
{
    const auto unknown = [](const char* name, const char* nearest) {
        return "unknown_name: "s + name +
               " is no number and no name that is known here; did you mean " + nearest + "?";
    };
    expectAll({
        {encrypt, {{"strCipherAlg", "aes-265"}}, {unknown("strCipherAlg", "aes-256")}},
        {encrypt, {{"strMode", "gmc"}}, {unknown("strMode", "gcm")}},
        {encrypt, {{"strCipherPadding", "pkcs"}}, {unknown("strCipherPadding", "pkcs7")}},
        {encrypt, {{"strMode", "7"}}, {"not_one_of: strMode must be one of 1 2 3 4 5 6"}},
        {encrypt, {{"strMode", "02"}}, {"not_one_of: strMode must be one of 1 2 3 4 5 6"}},
        {encrypt, {{"strMode", "\0"s}}, {unknown("strMode", "ecb")}},
        {encrypt, {{"strgcmTagLen", "x"}}, {"out_of_range: strgcmTagLen must be 4 to 16"}},
        {encrypt, {{"strCipherAlg", " 4"}}, {}},
    });
}

TEST(Complaints, ParametersThatAreNone)
{
    const auto misspelt = [](const std::string& name, const char* nearest) {
        return "misspelt: "s + name +
               " is not a parameter of QZaven_crypto_encrypt; did you mean " + nearest + "?";
    };
    for (const auto& [name, nearest] : {std::pair("strMod", "strMode"),
                                        {"strkey", "strKey"},
                                        {"strKye", "strKey"},
                                        {"key", "strKey"},
                                        {"mode", "strMode"},
                                        {"data", "strdata"},
                                        {"strCipherAl", "strCipherAlg"}})
        expectAll({{encrypt, {{name, "5ecret"}}, {misspelt(name, nearest)}}});
    for (const char* name : {"colour", "strColour", "x", "_"})
        expectAll({{encrypt,
                    {{name, "5ecret"}},
                    {"unknown: "s + name + " is not a parameter of QZaven_crypto_encrypt"}}});
    // What does not look like a name is not told.
    for (const std::string& name : {"5ecret name"s, "{\"strKey\":\"5ecret\"}"s, "k=5ecret"s, ""s,
                                    "5ecr\0et"s, std::string(65, 'x'), "5ecr\xc3\xa9t"s})
        expectAll({{encrypt,
                    {{name, "5ecret"}},
                    {"odd_name: a parameter has a name that no parameter has; it is not told, as "
                     "it may be secret"}}});
    expectAll(
        {{encrypt,
          {{std::string(64, 'x'), "5ecret"}},
          {"unknown: " + std::string(64, 'x') + " is not a parameter of QZaven_crypto_encrypt"}}});
}

// Of what parameters hold, no text tells more than its size.
TEST(Complaints, QuoteNoValues)
{
    for (const RequestInfo& request : catalogue())
        for (const char* value : {"5ecret", "5ecret5ecret\n", "012345678901", "raw!"}) {
            Pairs parameters;
            for (const Parameter& parameter : request.parameters)
                parameters.emplace_back(parameter.name, value);
            for (const Complaint& complaint : complaints(request, parameters)) {
                std::string all = complaint.text;
                for (const auto& filledIn : complaint.values)
                    all += filledIn.second;
                for (const char* part : {"5ecret", "0123456789", "raw!"})
                    EXPECT_EQ(std::string::npos, all.find(part)) << request.name << ": " << all;
            }
        }
}

}  // namespace
