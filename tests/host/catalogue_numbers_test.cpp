// The numbers that the catalogue has for parameters, their names, and the sizes that come with
// them, held against each other and against the development engine.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "common/codec.h"
#include "host/catalogue/names.h"
#include "support/host_program.h"

namespace {

using namespace support;

// ---- Against each other.

TEST(NamesInTheCatalogue, NoTwoChoicesShareOneAndNoneIsANumber)
{
    for (const RequestInfo& request : catalogue())
        for (const Parameter& parameter : request.parameters) {
            std::set<std::string> seen;
            for (const Choice& choice : parameter.choices) {
                EXPECT_FALSE(choice.names.empty());
                for (const std::string& name : choice.names) {
                    EXPECT_TRUE(seen.insert(foldedName(name)).second) << name;
                    EXPECT_NE(std::string::npos, name.find_first_not_of("0123456789")) << name;
                }
            }
        }
}

TEST(NamesInTheCatalogue, ParametersOfOneNameTakeTheSameNumbers)
{
    size_t count = 0;
    for (const RequestInfo& request : catalogue())
        for (const Parameter& parameter : request.parameters) {
            EXPECT_TRUE(isParameterName(parameter.name));
            const Allowed& allowed = parameter.allowed;
            const Allowed* numbers = numbersOf(parameter.name);
            const bool takesNumber =
                allowed.kind == Allowed::Range || allowed.kind == Allowed::OneOf;
            ASSERT_EQ(takesNumber, numbers != nullptr) << request.name << " " << parameter.name;
            EXPECT_TRUE(!takesNumber || allowedText(allowed) == allowedText(*numbers))
                << parameter.name;
            count += takesNumber ? 1 : 0;
        }
    EXPECT_GT(count, 20U);
    EXPECT_FALSE(isParameterName("strNothing"));
    EXPECT_EQ(nullptr, numbersOf("strNothing"));
}

TEST(NamesInTheCatalogue, TheNearestIsTheOneMeant)
{
    const Parameter& cipher = *findParameter(*findRequest("QZaven_crypto_encrypt"), "strCipherAlg");
    for (const auto& [written, meant] : {std::pair("aes-265", "aes-256"),
                                         {"AES256CBC", "aes-256"},
                                         {"aes", "aes-128, aes-192 or aes-256"},
                                         {"a", "sm4"},
                                         {"256", "aes-256, aria-256 or camellia-256"},
                                         {"3-des!", "3des"},
                                         {"camelia-256", "camellia-256"},
                                         {"sm-4!", "sm4"}})
        EXPECT_EQ(meant, nearestChoices(cipher, written)) << written;
    EXPECT_NE("", nearestChoices(cipher, std::string(100000, 'x')));
}

// ---- Against the engine, which has a table of its own.

const Choices& choicesOf(const char* parameter)
{
    return findParameter(*findRequest("QZaven_crypto_encrypt"), parameter)->choices;
}

// Encryptions that are told to succeed or to be refused.
class Encryptions {
public:
    struct Sizes {
        size_t key;
        size_t iv;
        size_t data;
    };

    void add(const Choice& cipher, const Choice& mode, const Sizes& sizes, bool isTaken)
    {
        const auto bytes = [](size_t count) { return "hex:" + std::string(2 * count, '1'); };
        Json params = {{"strCipherAlg", cipher.value},
                       {"strMode", mode.value},
                       {"strKey", bytes(sizes.key)},
                       {"strdata", bytes(sizes.data)}};
        if (sizes.iv != 0)
            params["strIV"] = bytes(sizes.iv);
        if (mode.names.front() == "gcm")
            params["straad"] = "text:x";
        m_steps.push_back(
            {{"request", "QZaven_crypto_encrypt"}, {"params", params}, {"allowFailure", true}});
        m_areTaken.push_back(isTaken);
    }

    std::string script() const { return m_steps.dump(); }

    void expect(const Json& answers) const
    {
        ASSERT_EQ(m_steps.size(), answers.size());
        for (size_t i = 0; i < m_steps.size(); ++i)
            EXPECT_EQ(m_areTaken[i], answers[i]["ok"]) << m_steps[i] << answers[i];
    }

private:
    Json m_steps = Json::array();
    std::vector<bool> m_areTaken;
};

// What is taken, and what differs from that by one byte in one size.
void addSizes(Encryptions& all, const Choice& cipher, const Choice& mode)
{
    const size_t key = cipher.keyBytes;
    const size_t block = cipher.blockBytes;
    const IvSizes& iv = *mode.iv;
    const bool isBetween = iv.kind == IvSizes::Between;
    const size_t least = iv.kind == IvSizes::None ? 0 : isBetween ? iv.least : block;
    const size_t most = isBetween ? iv.most : least;
    EXPECT_TRUE(!isBetween || (least <= iv.usual && iv.usual <= most));

    for (const size_t size : {least, most})
        all.add(cipher, mode, {key, size, block}, true);
    for (const size_t size : {key - 1, key + 1})
        all.add(cipher, mode, {size, least, block}, false);
    for (const size_t size : {block - 1, block + 1})
        all.add(cipher, mode, {key, least, size}, !mode.takesWholeBlocks);
    if (iv.kind != IvSizes::None)
        for (const size_t size : {least - 1, most + 1})
            all.add(cipher, mode, {key, size, block}, false);
}

using SizesInTheCatalogue = Host;

TEST_F(SizesInTheCatalogue, OfCiphersAndModesAreTheEngines)
{
    Encryptions all;
    size_t lacked = 0;
    for (const Choice& cipher : choicesOf("strCipherAlg"))
        for (const Choice& mode : choicesOf("strMode")) {
            ASSERT_TRUE(mode.iv) << mode.text;
            const bool isLacked =
                std::string(cipher.lackedModes).find(mode.value) != std::string::npos;
            const size_t iv =
                mode.iv->kind == IvSizes::Between ? mode.iv->usual : cipher.blockBytes;
            if (isLacked)
                all.add(cipher, mode, {cipher.keyBytes, iv, cipher.blockBytes}, false);
            else
                addSizes(all, cipher, mode);
            lacked += isLacked ? 1 : 0;
        }
    EXPECT_EQ(2U, lacked);
    const Ended ended = script(all.script());
    ASSERT_EQ(SUCCESS, ended.code) << ended.err;
    all.expect(ended.json());
}

TEST_F(SizesInTheCatalogue, OfKeysAreThoseThatTheEngineMakes)
{
    Json steps = Json::array();
    for (const Choice& cipher : choicesOf("strCipherAlg"))
        steps.push_back({{"request", "QZaven_crypto_gen_symmkey"},
                         {"params", {{"strCipherAlg", cipher.value}}}});
    const Ended ended = script(steps.dump());
    ASSERT_EQ(SUCCESS, ended.code) << ended.err;
    const Json answers = ended.json();
    ASSERT_EQ(choicesOf("strCipherAlg").size(), answers.size());
    for (size_t i = 0; i < answers.size(); ++i) {
        const Choice& cipher = choicesOf("strCipherAlg")[i];
        const auto key = fromBase64(answers[i]["results"]["Data"].get<std::string>());
        ASSERT_TRUE(key) << cipher.text;
        EXPECT_EQ(cipher.keyBytes, key->size()) << cipher.text;
    }
}

}  // namespace
