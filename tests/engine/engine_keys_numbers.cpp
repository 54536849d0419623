// Well-formed keys whose numbers make no key, or one of a curve that is spelled out.
#include <openssl/bn.h>

#include <string>
#include <vector>

#include "support/der.h"
#include "support/key_reading.h"

namespace {

using support::convert;
using support::derOf;
using support::fromHex;
using support::Keys;
using support::oid;
using support::openssl;
using support::privatePem;
using support::publicPem;
using support::tlv;
using support::toBase64;
using support::toHex;

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

// SEC 1 without the point.
std::string sec1Of(const std::string& version, const std::string& scalar, const std::string& curve)
{
    return toBase64(tlv(0x30, tlv(0x02, version) + tlv(0x04, scalar) + tlv(0xA0, curve)));
}

std::string publicOf(const std::string& algorithm, const std::string& curve)
{
    return toBase64(tlv(0x30, tlv(0x30, oid(algorithm) + curve) +
                                  tlv(0x03, std::string(1, '\0') + fromHex(SM2_POINT))));
}

TEST_F(Keys, Sec1IsVersionOne)
{
    const std::string scalar = fromHex(SM2_SCALAR), curve = oid("1.2.156.10197.1.301");
    EXPECT_EQ(readPrivate(sec1Of("\1", scalar, curve)), 0);
    EXPECT_EQ(readPrivate(sec1Of("\2", scalar, curve)), AVEN_E_KEY_TEXT);
    EXPECT_EQ(readPrivate(sec1Of(std::string(1, '\0'), scalar, curve)), AVEN_E_KEY_TEXT);
}

TEST_F(Keys, AScalarHas32BytesAtTheMost)
{
    const std::string curve = oid("1.2.156.10197.1.301"), zero(1, '\0');
    EXPECT_EQ(readPrivate(sec1Of("\1", zero + fromHex(SM2_SCALAR), curve)), AVEN_E_KEY_INVALID);
    EXPECT_EQ(readPrivate(sec1Of("\1", std::string(31, '\1'), curve)), 0);
}

TEST_F(Keys, ACurveIsNamedByItsIdentifierAndNothingElse)
{
    const std::string sm2 = oid("1.2.156.10197.1.301"), ecPublicKey = "1.2.840.10045.2.1";
    EXPECT_EQ(readPublic(publicOf(ecPublicKey, sm2)), 0);
    for (const std::string& curve : {std::string(), tlv(0x05, ""), tlv(0x01, "\xFF"),
                                     tlv(0x04, sm2), oid("1.2.840.10045.3.1.7")}) {
        EXPECT_EQ(readPublic(publicOf(ecPublicKey, curve)), AVEN_E_KEY_ALGORITHM) << toHex(curve);
        if (!curve.empty()) {
            EXPECT_EQ(readPrivate(sec1Of("\1", fromHex(SM2_SCALAR), curve)), AVEN_E_KEY_ALGORITHM)
                << toHex(curve);
        }
    }
    // Diffie-Hellman's identifier, in place of that for all uses.
    EXPECT_EQ(readPublic(publicOf("1.3.132.1.12", sm2)), AVEN_E_KEY_ALGORITHM);
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

// Where a number's bytes lie, the last one included.
struct Place {
    size_t first;
    size_t last;
};

// Those of an RSAPrivateKey (RFC 8017, A.1.2): version, n, e, d, p, q, dp, dq, q's inverse.
std::vector<Place> placesOf(const std::string& der)
{
    std::vector<Place> places;
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
        places.push_back({at, at + length - 1});
        at += length;
    }
    return places;
}

TEST_F(Keys, RsaNumbersThatDoNotFitAreRefused)
{
    const std::string der = derOf(convert("rsa -traditional", privatePem("rsa2048")));
    EXPECT_EQ(readPrivate(toBase64(der)), 0);
    const std::vector<Place> places = placesOf(der);
    ASSERT_EQ(places.size(), 9u);
    for (size_t number = 1; number < places.size(); ++number) {
        std::string changed = der;
        char& last = changed[places[number].last];
        last = static_cast<char>(last ^ 2);
        EXPECT_EQ(readPrivate(toBase64(changed)), AVEN_E_KEY_INVALID) << "number " << number;
    }

    std::string otherVersion = der;
    otherVersion[places[0].last] = 1;  // of a key of more than two factors
    EXPECT_EQ(readPrivate(toBase64(otherVersion)), AVEN_E_KEY_ALGORITHM);

    std::string publicDer = derOf(publicPem("rsa2048"));
    publicDer.back() = static_cast<char>(publicDer.back() ^ 1);  // the exponent becomes even
    EXPECT_EQ(readPublic(toBase64(publicDer)), AVEN_E_KEY_INVALID);
}

using Number = std::unique_ptr<BIGNUM, decltype(&BN_free)>;

Number numberAt(const std::string& der, const Place& place)
{
    return {BN_bin2bn(reinterpret_cast<const unsigned char*>(&der[place.first]),
                      static_cast<int>(place.last + 1 - place.first), nullptr),
            BN_free};
}

// d and any number of times (p - 1)(q - 1) / 2 more do the same.
TEST_F(Keys, AnRsaKeysExponentHasNoMoreBitsThanItsModulus)
{
    const std::string der = derOf(convert("rsa -traditional", privatePem("rsa2048")));
    const std::vector<Place> places = placesOf(der);
    ASSERT_EQ(places.size(), 9u);
    const Number d = numberAt(der, places[3]);
    const Number p = numberAt(der, places[4]);
    const Number q = numberAt(der, places[5]);
    BN_sub_word(p.get(), 1);
    BN_sub_word(q.get(), 1);
    const Number order(BN_new(), BN_free);
    const std::unique_ptr<BN_CTX, decltype(&BN_CTX_free)> numbers(BN_CTX_new(), BN_CTX_free);
    BN_mul(order.get(), p.get(), q.get(), numbers.get());
    BN_rshift1(order.get(), order.get());
    ASSERT_LT(BN_num_bits(d.get()), 2049);

    const auto withExponent = [&](const BIGNUM* number) {
        std::string bytes(static_cast<size_t>(BN_num_bytes(number)), '\0');
        BN_bn2bin(number, reinterpret_cast<unsigned char*>(bytes.data()));
        const std::string content = der.substr(4, places[2].last + 1 - 4) +
                                    tlv(0x02, std::string(1, '\0') + bytes) +
                                    der.substr(places[3].last + 1);
        return toBase64(tlv(0x30, content));
    };
    EXPECT_EQ(readPrivate(withExponent(d.get())), 0);
    while (BN_num_bits(d.get()) < 2048)
        BN_add(d.get(), d.get(), order.get());
    EXPECT_EQ(BN_num_bits(d.get()), 2048);
    EXPECT_EQ(readPrivate(withExponent(d.get())), 0);
    while (BN_num_bits(d.get()) < 2049)
        BN_add(d.get(), d.get(), order.get());
    EXPECT_EQ(readPrivate(withExponent(d.get())), AVEN_E_KEY_INVALID);
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
