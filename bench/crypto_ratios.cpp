// Real cryptography: requests through the reference parameter module, the plug-in and the
// development engine, beside the same operation done by OpenSSL directly and by SoftHSM2
// through PKCS#11. A request's time is that of everything a host does for it: storing the
// parameters, sending, reading the result. Logging is off. A request brings its key along,
// so SoftHSM2 is measured with a key that its session holds, and with one that is brought
// in and destroyed again.
//     crypto_ratios <libsofthsm2.so>
// SOFTHSM2_CONF must name a configuration whose token directory is empty.

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/params.h>
#include <p11-kit/pkcs11.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host.h"
#include "measure.h"
#include "requests.h"
#include "row.h"

namespace {

const std::string key16 = noise(16);
const std::string key32 = noise(32);
const std::string iv16 = noise(16);
const std::string iv12 = noise(12);
const std::string aad = noise(16);

constexpr int TAG_LENGTH = 16;

unsigned char* bytes(const std::string& text)
{
    return reinterpret_cast<unsigned char*>(const_cast<char*>(text.data()));
}

void require(bool ok, const char* what)
{
    if (!ok)
        giveUp(std::string(what) + " failed");
}

// ---- OpenSSL, with the algorithms fetched beforehand

struct Free {
    void operator()(EVP_CIPHER* cipher) const { EVP_CIPHER_free(cipher); }
    void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
    void operator()(EVP_MAC* mac) const { EVP_MAC_free(mac); }
    void operator()(EVP_MAC_CTX* context) const { EVP_MAC_CTX_free(context); }
};
template <class Object>
using Owned = std::unique_ptr<Object, Free>;

class Evp {
public:
    size_t cbc(const std::string& in, unsigned char* out) const
    {
        const Owned<EVP_CIPHER_CTX> context(EVP_CIPHER_CTX_new());
        require(EVP_EncryptInit_ex2(context.get(), m_cbc.get(), bytes(key16), bytes(iv16),
                                    nullptr) == 1,
                "EVP_EncryptInit_ex2");
        return encrypt(context.get(), in, out);
    }

    size_t gcm(const std::string& in, unsigned char* out) const
    {
        const Owned<EVP_CIPHER_CTX> context(EVP_CIPHER_CTX_new());
        int length = 0;
        require(EVP_EncryptInit_ex2(context.get(), m_gcm.get(), bytes(key32), bytes(iv12),
                                    nullptr) == 1 &&
                    EVP_EncryptUpdate(context.get(), nullptr, &length, bytes(aad),
                                      static_cast<int>(aad.length())) == 1,
                "EVP_EncryptInit_ex2");
        const size_t written = encrypt(context.get(), in, out);
        require(EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_GET_TAG, TAG_LENGTH,
                                    out + written) == 1,
                "EVP_CTRL_AEAD_GET_TAG");
        return written + TAG_LENGTH;
    }

    size_t hmac(const std::string& in, unsigned char* out) const
    {
        const Owned<EVP_MAC_CTX> context(EVP_MAC_CTX_new(m_hmac.get()));
        char digest[] = "SHA256";
        const OSSL_PARAM params[] = {
            OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest, 0),
            OSSL_PARAM_construct_end()};
        size_t length = 0;
        require(EVP_MAC_init(context.get(), bytes(key32), key32.length(), params) == 1 &&
                    EVP_MAC_update(context.get(), bytes(in), in.length()) == 1 &&
                    EVP_MAC_final(context.get(), out, &length, EVP_MAX_MD_SIZE) == 1,
                "EVP_MAC");
        return length;
    }

private:
    static size_t encrypt(EVP_CIPHER_CTX* context, const std::string& in, unsigned char* out)
    {
        int length = 0;
        int rest = 0;
        require(EVP_EncryptUpdate(context, out, &length, bytes(in),
                                  static_cast<int>(in.length())) == 1 &&
                    EVP_EncryptFinal_ex(context, out + length, &rest) == 1,
                "EVP_EncryptUpdate");
        return static_cast<size_t>(length + rest);
    }

    Owned<EVP_CIPHER> m_cbc{EVP_CIPHER_fetch(nullptr, "AES-128-CBC", nullptr)};
    Owned<EVP_CIPHER> m_gcm{EVP_CIPHER_fetch(nullptr, "AES-256-GCM", nullptr)};
    Owned<EVP_MAC> m_hmac{EVP_MAC_fetch(nullptr, "HMAC", nullptr)};
};

// ---- SoftHSM2: one session; a key is an object that lives as long as that

class Hsm {
public:
    explicit Hsm(const char* library) : m_library(openLibrary(library))
    {
        CK_C_GetFunctionList list = nullptr;
        bindFunction(m_library, list, "C_GetFunctionList");
        require(list(&m_functions) == CKR_OK, "C_GetFunctionList");
        check(m_functions->C_Initialize(nullptr), "C_Initialize");
        openToken();
    }

    ~Hsm() { m_functions->C_Finalize(nullptr); }
    Hsm(const Hsm&) = delete;
    Hsm& operator=(const Hsm&) = delete;

    CK_OBJECT_HANDLE makeKey(const std::string& value, CK_KEY_TYPE type,
                             CK_ATTRIBUTE_TYPE use) const
    {
        CK_OBJECT_CLASS kind = CKO_SECRET_KEY;
        CK_BBOOL yes = CK_TRUE;
        CK_BBOOL no = CK_FALSE;
        CK_ATTRIBUTE attributes[] = {{CKA_CLASS, &kind, sizeof kind},
                                     {CKA_KEY_TYPE, &type, sizeof type},
                                     {CKA_TOKEN, &no, sizeof no},
                                     {use, &yes, sizeof yes},
                                     {CKA_VALUE, bytes(value), value.length()}};
        CK_OBJECT_HANDLE key = 0;
        check(m_functions->C_CreateObject(m_session, attributes,
                                          sizeof attributes / sizeof attributes[0], &key),
              "C_CreateObject");
        return key;
    }

    void destroyKey(CK_OBJECT_HANDLE key) const
    {
        check(m_functions->C_DestroyObject(m_session, key), "C_DestroyObject");
    }

    size_t cbc(CK_OBJECT_HANDLE key, const std::string& in, unsigned char* out) const
    {
        CK_MECHANISM mechanism = {CKM_AES_CBC_PAD, bytes(iv16), iv16.length()};
        return encrypt(mechanism, key, in, out);
    }

    size_t gcm(CK_OBJECT_HANDLE key, const std::string& in, unsigned char* out) const
    {
        CK_GCM_PARAMS params = {};
        params.pIv = bytes(iv12);
        params.ulIvLen = iv12.length();
        params.ulIvBits = 8 * iv12.length();
        params.pAAD = bytes(aad);
        params.ulAADLen = aad.length();
        params.ulTagBits = 8 * TAG_LENGTH;
        CK_MECHANISM mechanism = {CKM_AES_GCM, &params, sizeof params};
        return encrypt(mechanism, key, in, out);
    }

    size_t hmac(CK_OBJECT_HANDLE key, const std::string& in, unsigned char* out) const
    {
        CK_MECHANISM mechanism = {CKM_SHA256_HMAC, nullptr, 0};
        CK_ULONG length = EVP_MAX_MD_SIZE;
        check(m_functions->C_SignInit(m_session, &mechanism, key), "C_SignInit");
        check(m_functions->C_Sign(m_session, bytes(in), in.length(), out, &length), "C_Sign");
        return length;
    }

private:
    static void check(CK_RV code, const char* what) { require(code == CKR_OK, what); }

    size_t encrypt(CK_MECHANISM& mechanism, CK_OBJECT_HANDLE key, const std::string& in,
                   unsigned char* out) const
    {
        CK_ULONG length = in.length() + 64;
        check(m_functions->C_EncryptInit(m_session, &mechanism, key), "C_EncryptInit");
        check(m_functions->C_Encrypt(m_session, bytes(in), in.length(), out, &length), "C_Encrypt");
        return length;
    }

    // Makes the free slot a token of ours and logs in.
    void openToken()
    {
        std::string pin = "1234";
        std::string label(32, ' ');
        CK_SLOT_ID slot = 0;
        CK_ULONG count = 1;

        check(m_functions->C_GetSlotList(CK_TRUE, &slot, &count), "C_GetSlotList");
        check(m_functions->C_InitToken(slot, bytes(pin), pin.length(), bytes(label)),
              "C_InitToken");
        count = 8;  // the token has moved to a slot of its own, and a free one follows
        CK_SLOT_ID slots[8] = {};
        check(m_functions->C_GetSlotList(CK_TRUE, slots, &count), "C_GetSlotList");
        check(m_functions->C_OpenSession(slots[0], CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr,
                                         nullptr, &m_session),
              "C_OpenSession");
        check(m_functions->C_Login(m_session, CKU_SO, bytes(pin), pin.length()), "C_Login");
        check(m_functions->C_InitPIN(m_session, bytes(pin), pin.length()), "C_InitPIN");
        check(m_functions->C_Logout(m_session), "C_Logout");
        check(m_functions->C_Login(m_session, CKU_USER, bytes(pin), pin.length()), "C_Login");
    }

    OpenedLibrary m_library;
    CK_FUNCTION_LIST* m_functions = nullptr;
    CK_SESSION_HANDLE m_session = 0;
};

// ---- The operations

struct Operation {
    const char* name;
    const char* request;
    Pairs parameters;  // but for "strdata"
    size_t (Evp::*evp)(const std::string& in, unsigned char* out) const;
    size_t (Hsm::*hsm)(CK_OBJECT_HANDLE key, const std::string& in, unsigned char* out) const;
    const std::string& key;
    CK_KEY_TYPE keyType;
    CK_ATTRIBUTE_TYPE keyUse;
};

// The development engine's numbers: cipher 2 is AES-128, 4 is AES-256; mode 2 is CBC, 6 is
// GCM; hash 4 is SHA-256.
const std::vector<Operation>& operations()
{
    static const std::vector<Operation> all = {
        {"AES-128-CBC",
         "QZaven_crypto_encrypt",
         {{"strCipherAlg", "2"},
          {"strMode", "2"},
          {"strCipherPadding", "1"},
          {"strKey", url64(key16)},
          {"strIV", url64(iv16)}},
         &Evp::cbc,
         &Hsm::cbc,
         key16,
         CKK_AES,
         CKA_ENCRYPT},
        {"AES-256-GCM",
         "QZaven_crypto_encrypt",
         {{"strCipherAlg", "4"},
          {"strMode", "6"},
          {"strKey", url64(key32)},
          {"strIV", url64(iv12)},
          {"straad", url64(aad)}},
         &Evp::gcm,
         &Hsm::gcm,
         key32,
         CKK_AES,
         CKA_ENCRYPT},
        {"HMAC-SHA-256",
         "QZaven_crypto_hmac",
         {{"strHashAlg", "4"}, {"strKey", url64(key32)}},
         &Evp::hmac,
         &Hsm::hmac,
         key32,
         CKK_GENERIC_SECRET,
         CKA_SIGN},
    };
    return all;
}

// Sends the operation as a request and returns what it gave, as text.
std::string viaPlugin(const Host& host, const Operation& operation, const Pairs& parameters)
{
    host.store(parameters);
    host.send(operation.request);
    return host.result("Data");
}

struct Times {
    double plugin;
    double sending;
    double evp;
    double hsm;
    double hsmWithKey;
};

Times measure(const Host& host, const Evp& evp, const Hsm& hsm, const Operation& operation,
              size_t size)
{
    const std::string in = noise(size);
    std::vector<unsigned char> out(size + 128);
    Pairs parameters = operation.parameters;
    parameters.emplace_back("strdata", url64(in));

    // All three must do the same; the plug-in's "Data" has no tag.
    const auto text = [&](size_t length) {
        return url64(std::string(reinterpret_cast<const char*>(out.data()), length));
    };
    const CK_OBJECT_HANDLE key = hsm.makeKey(operation.key, operation.keyType, operation.keyUse);
    const size_t tag = operation.evp == &Evp::gcm ? TAG_LENGTH : 0;
    const std::string given = viaPlugin(host, operation, parameters);
    require(given == text((evp.*operation.evp)(in, out.data()) - tag), "comparing with OpenSSL");
    require(given == text((hsm.*operation.hsm)(key, in, out.data()) - tag),
            "comparing with SoftHSM2");

    Contender plugin([&] { touched(viaPlugin(host, operation, parameters).data()); });
    Contender sending([&] { host.send(operation.request); }, [&] { host.store(parameters); });
    Contender direct([&] { (evp.*operation.evp)(in, out.data()); });
    Contender token([&] { (hsm.*operation.hsm)(key, in, out.data()); });
    Contender tokenWithKey([&] {
        const auto own = hsm.makeKey(operation.key, operation.keyType, operation.keyUse);
        (hsm.*operation.hsm)(own, in, out.data());
        hsm.destroyKey(own);
    });
    race({&plugin, &sending, &direct, &token, &tokenWithKey}, 2);
    hsm.destroyKey(key);
    return {plugin.time() / 1e3, sending.time() / 1e3, direct.time() / 1e3, token.time() / 1e3,
            tokenWithKey.time() / 1e3};
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 2)
        giveUp("usage: crypto_ratios <libsofthsm2.so>");
    const Hsm hsm(argv[1]);
    const Evp evp;
    const Host host(BENCH_PARAMS_LIBRARY, BENCH_ENGINE_LIBRARY);
    double worst = 0;
    double worstWithKey = 0;

    fprintf(stderr,
            "operation|bytes|plug-in|of it the request call|OpenSSL|"
            "SoftHSM2|SoftHSM2, key brought along\n");
    const auto show = [&](const Operation& operation, size_t size) {
        const Times times = measure(host, evp, hsm, operation, size);
        fprintf(stderr, "%s|%zu|%.2f|%.2f|%.2f|%.2f|%.2f\n", operation.name, size, times.plugin,
                times.sending, times.evp, times.hsm, times.hsmWithKey);
        return times;
    };
    for (const Operation& operation : operations()) {
        for (const size_t size : {size_t{32}, size_t{1024}}) {
            const Times times = show(operation, size);
            worst = std::max(worst, times.plugin / times.hsm);
            worstWithKey = std::max(worstWithKey, times.plugin / times.hsmWithKey);
        }
    }
    printRow("an operation of 32 B or 1 KiB, worst of six, x SoftHSM2 that holds the key",
             {{worst, 0.25, 0.25}});
    printRow("the same, x SoftHSM2 that is given the key, as the plug-in is",
             {{worstWithKey, 0.25, 0.25}});

    const Times large = show(operations()[1], 1 << 20);
    printf("AES-256-GCM of 1 MiB through all layers, x OpenSSL alone|||%.2f|\n",
           large.plugin / large.evp);
}
