// Keys that both libraries hold.
#ifndef CORVANE_TESTS_DIFFERENTIAL_PREPARED_KEYS_H
#define CORVANE_TESTS_DIFFERENTIAL_PREPARED_KEYS_H

#include <botan/pubkey.h>
#include <botan/rsa.h>
#include <botan/sm2.h>

#include <map>
#include <memory>

#include "differential/botan_side.h"
#include "differential/engine_side.h"

namespace differential {

// What is made when it is first asked for. It is never destroyed: when the program's own are,
// memory of Botan and functions of the engine that they need are gone.
template <class Value, class Name, class Make>
const Value& kept(const Name& name, Make make)
{
    static auto& all = *new std::map<Name, std::unique_ptr<const Value>>;
    std::unique_ptr<const Value>& value = all[name];
    if (value == nullptr)
        value = make();
    return *value;
}

// The engine reads SM2 keys as keys of id-ecPublicKey on SM2's curve, which is how Botan writes
// those of ECDSA. PKCS#8 in PEM.
std::string privatePem(const Botan::SM2_PrivateKey& key);
std::string privatePem(const Botan::RSA_PrivateKey& key);

template <class BotanKey>
struct SharedKey {
    explicit SharedKey(std::unique_ptr<BotanKey> key)
        : botan(std::move(key)), engine(privatePem(*botan), "")
    {
        must(engine.isThere(), "the engine does not take Botan's key");
    }

    std::unique_ptr<BotanKey> botan;
    engine::KeyPair engine;
};
using Sm2Key = SharedKey<Botan::SM2_PrivateKey>;
using RsaKey = SharedKey<Botan::RSA_PrivateKey>;

// The same in all runs.
const Sm2Key& sm2Key();
const RsaKey& rsaKey(size_t bits);

const Botan::EC_Group& sm2Curve();

namespace botan {

// Both with the padding or hash that Botan's name for it says.
std::string encrypt(const Botan::Public_Key& key, const std::string& padding,
                    const std::string& text, Trial& trial);
Answer decrypt(const Botan::PK_Decryptor& key, const std::string& ciphertext);

}  // namespace botan

}  // namespace differential

#endif
