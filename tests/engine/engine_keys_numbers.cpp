// Well-formed keys whose numbers make no key, or one of a curve that is spelled out.
#include <string>
#include <vector>

#include "support/key_reading.h"

namespace {

using support::convert;
using support::derOf;
using support::fromHex;
using support::Keys;
using support::openssl;
using support::privatePem;
using support::publicPem;
using support::toBase64;

// ---- Numbers that make no key. The key is that of GB/T 32918.5.

const char SM2_SCALAR[] = "3945208f7b2144b13f36e38ac6d39f95889393692860b51a42fb81ef4df7c5b8";
const char SM2_POINT[] =
    "0409f9df311e5421a150dd7d161e4bc5c672179fad1833fc076bb08ff356f35020"
    "ccea490ce26775a52dc6ea718cc1aa600aed05fbf35e084a6632f6072da9ad13";

std::string sec1(const std::string& scalarHex, const std::string& pointHex)
{
    return toBase64(
        fromHex("30770201010420" + scalarHex + "a00a06082a811ccf5501822da144034200" + pointHex));
}

std::string bareSec1(const std::string& scalarHex)
{
    return toBase64(fromHex("30310201010420" + scalarHex + "a00a06082a811ccf5501822d"));
}

std::string sm2Public(const std::string& pointHex)
{
    return toBase64(fromHex("3059301306072a8648ce3d020106082a811ccf5501822d034200" + pointHex));
}

TEST_F(Keys, TheStandardsExampleKeyIsRead)
{
    EXPECT_EQ(readPrivate(sec1(SM2_SCALAR, SM2_POINT), nullptr, 1), 0);
    EXPECT_EQ(readPublic(sm2Public(SM2_POINT), 1), 0);
    EXPECT_EQ(read(1, sec1(SM2_SCALAR, SM2_POINT), sm2Public(SM2_POINT), nullptr), 0);
}

TEST_F(Keys, AScalarWithoutItsPointIsEnough)
{
    EXPECT_EQ(read(1, bareSec1(SM2_SCALAR), sm2Public(SM2_POINT), nullptr), 0);
}

TEST_F(Keys, AKeyWithoutItsCurveIsRefused)
{
    const std::string text = toBase64(fromHex("30250201010420" + std::string(SM2_SCALAR)));
    EXPECT_EQ(readPrivate(text), AVEN_E_KEY_ALGORITHM);
}

TEST_F(Keys, Sm2NumbersOutOfRangeAreRefused)
{
    const std::string order = "fffffffeffffffffffffffffffffffff7203df6b21c6052b53bbf40939d54123";
    std::string orderLessOne = order;
    orderLessOne.back() = '2';
    for (const std::string& scalar :
         {std::string(64, '0'), order, orderLessOne, std::string(64, 'f')}) {
        EXPECT_EQ(readPrivate(bareSec1(scalar)), AVEN_E_KEY_INVALID) << scalar;
    }
    std::string orderLessTwo = order;
    orderLessTwo.back() = '1';
    EXPECT_EQ(readPrivate(bareSec1(orderLessTwo)), 0);

    std::string offCurve = SM2_POINT;
    offCurve.back() = '4';
    EXPECT_EQ(readPublic(sm2Public(offCurve)), AVEN_E_KEY_INVALID);
    EXPECT_EQ(readPrivate(sec1(SM2_SCALAR, offCurve)), AVEN_E_KEY_INVALID);
    EXPECT_EQ(readPublic(sm2Public("04" + std::string(128, '0'))), AVEN_E_KEY_INVALID);
    const std::string infinity =
        toBase64(fromHex("3019301306072a8648ce3d020106082a811ccf5501822d03020000"));
    EXPECT_EQ(readPublic(infinity), AVEN_E_KEY_INVALID);

    std::string otherScalar = SM2_SCALAR;
    otherScalar.back() = '9';
    EXPECT_EQ(readPrivate(sec1(otherScalar, SM2_POINT)), AVEN_E_KEY_INVALID);
}

// Where the last byte of each number of an RSAPrivateKey (RFC 8017, A.1.2) lies: version, n,
// e, d, p, q, dp, dq, q's inverse.
std::vector<size_t> lastBytes(const std::string& der)
{
    std::vector<size_t> places;
    const auto byteAt = [&](size_t at) { return static_cast<unsigned char>(der.at(at)); };
    for (size_t at = 4; at < der.size();) {
        size_t length = byteAt(at + 1);
        at += 2;
        if (length > 128) {
            const size_t bytes = length - 128;
            length = 0;
            for (size_t i = 0; i < bytes; ++i)
                length = length << 8 | byteAt(at++);
        }
        at += length;
        places.push_back(at - 1);
    }
    return places;
}

TEST_F(Keys, RsaNumbersThatDoNotFitAreRefused)
{
    const std::string der = derOf(convert("rsa -traditional", privatePem("rsa2048")));
    EXPECT_EQ(readPrivate(toBase64(der)), 0);
    const std::vector<size_t> places = lastBytes(der);
    ASSERT_EQ(places.size(), 9u);
    for (size_t number = 1; number < places.size(); ++number) {
        std::string changed = der;
        changed[places[number]] = static_cast<char>(changed[places[number]] ^ 2);
        EXPECT_EQ(readPrivate(toBase64(changed)), AVEN_E_KEY_INVALID) << "number " << number;
    }

    std::string publicDer = derOf(publicPem("rsa2048"));
    publicDer.back() = static_cast<char>(publicDer.back() ^ 1);  // the exponent becomes even
    EXPECT_EQ(readPublic(toBase64(publicDer)), AVEN_E_KEY_INVALID);
}

TEST_F(Keys, ExplicitCurvesAreRefusedEvenIfTheyAreSm2s)
{
    openssl().run("ecparam -name SM2 -genkey -noout -param_enc explicit -out explicit");
    const std::string sec1Text = openssl().read("explicit");
    EXPECT_EQ(readPrivate(sec1Text), AVEN_E_KEY_ALGORITHM);
    EXPECT_EQ(readPrivate(openssl().make("pkcs8 -topk8 -nocrypt -in explicit -out out", "out")),
              AVEN_E_KEY_ALGORITHM);
    EXPECT_EQ(
        readPublic(openssl().make("ec -in explicit -pubout -param_enc explicit -out out", "out")),
        AVEN_E_KEY_ALGORITHM);
}

}  // namespace
