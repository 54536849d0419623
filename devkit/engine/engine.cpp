#include "engine.h"

#include <openssl/rand.h>

#include <cstdio>
#include <string>

#include "common/library_mark.h"
#include "common/lifetime_gate.h"
#include "exported_call.h"
#include "exports.h"
#include "faults.h"

LIBRARY_MARK(LIBRARY_MARK_DEVELOPMENT_ENGINE);

namespace {

const CipherInfo ciphers[] = {
    {"SM4", 16, 16},           // 1
    {"AES-128", 16, 16},       // 2
    {"AES-192", 24, 16},       // 3
    {"AES-256", 32, 16},       // 4
    {"ARIA-256", 32, 16},      // 5
    {"CAMELLIA-256", 32, 16},  // 6
    {"DES-EDE3", 24, 8},       // 7
};

const char* const modes[] = {"ECB", "CBC", "CFB", "OFB", "CTR", "GCM"};  // 1 to 6

const HashInfo hashes[] = {
    {"SM3", 32},       // 1
    {"SHA1", 20},      // 2
    {"SHA2-224", 28},  // 3
    {"SHA2-256", 32},  // 4
    {"SHA2-384", 48},  // 5
    {"SHA2-512", 64},  // 6
};

// Calls enter `gate`; starting and stopping enter it alone.
LifetimeGate gate;
const Engine* running = nullptr;

void stop()
{
    const std::unique_lock<std::shared_mutex> alone = gate.enterAlone();
    delete running;
    running = nullptr;
}

// Stops the engine of a host that never cleaned up: at unloading, and at exit before
// libcrypto's own clean-up, which is why it is registered behind that one.
void stopAtUnload()
{
    struct Stopper {
        ~Stopper() { stop(); }
    };
    // Loading the error texts changes nothing for the host, and without any option
    // libcrypto may return before it has registered its clean-up.
    OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
    static const Stopper stopper;
}

const char* versionText()
{
    static const struct Version {
        char text[128];
        Version()
        {
            snprintf(text, sizeof text,
                     "SoftModuleaven development engine " CORVANE_VERSION " (%s)",
                     OpenSSL_version(OPENSSL_VERSION));
        }
    } version;
    return version.text;
}

void logBanner()
{
    logLine("*** DEVELOPMENT ENGINE - NOT FOR PRODUCTION USE *** %s", versionText());
}

}  // namespace

const CipherInfo& cipherInfo(int number)
{
    require(number >= AVEN_CIPHER_SM4 && number <= AVEN_CIPHER_3DES, AVEN_E_CIPHER_NUMBER);
    return ciphers[number - 1];
}

const HashInfo& hashInfo(int number)
{
    require(number >= AVEN_HASH_SM3 && number <= AVEN_HASH_SHA512, AVEN_E_HASH_NUMBER);
    return hashes[number - 1];
}

Engine::Engine() : m_library(OSSL_LIB_CTX_new())
{
    require(m_library != nullptr, AVEN_E_START);
    m_provider.reset(OSSL_PROVIDER_load(library(), "default"));
    require(m_provider != nullptr, AVEN_E_START);

    // Some combinations do not exist, but each cipher has its plain modes.
    for (int c = 0; c < CIPHERS; ++c) {
        for (int m = 0; m < MODES; ++m) {
            const std::string name = std::string(ciphers[c].name) + "-" + modes[m];
            m_ciphers[c][m].reset(EVP_CIPHER_fetch(library(), name.c_str(), nullptr));
        }
        for (int m = AVEN_MODE_ECB; m <= AVEN_MODE_OFB; ++m)
            require(m_ciphers[c][m - 1] != nullptr, AVEN_E_START);
    }

    m_hmac.reset(EVP_MAC_fetch(library(), "HMAC", nullptr));
    m_cmac.reset(EVP_MAC_fetch(library(), "CMAC", nullptr));
    m_sm2Curve.reset(EC_GROUP_new_by_curve_name_ex(library(), nullptr, NID_sm2));
    m_primary = RAND_get0_primary(library());
    require(m_hmac != nullptr && m_cmac != nullptr && m_sm2Curve != nullptr, AVEN_E_START);
    require(m_primary != nullptr, AVEN_E_RANDOM);

    for (int h = 0; h < HASHES; ++h)
        m_hmacs[h] = prepareHmac(hmac(), hashes[h].name);
    for (int c = 0; c < CIPHERS; ++c) {
        const std::string cbc = std::string(ciphers[c].name) + "-CBC";
        m_cmacs[c] = prepareCmac(cmac(), cbc.c_str(), ciphers[c].keyLength);
    }
}

const EVP_CIPHER* Engine::cipher(int number, int mode) const
{
    return m_ciphers[number - 1][mode - 1].get();
}

void Engine::random(unsigned char* out, size_t size) const
{
    constexpr unsigned int strength = 256;
    require(EVP_RAND_generate(m_primary, out, size, strength, 0, nullptr, 0) == 1, AVEN_E_RANDOM);
}

EngineUse::EngineUse() : m_alive(gate.enter()), m_engine(running)
{
    require(m_engine != nullptr, AVEN_E_NOT_INITIALISED);
    ERR_set_mark();
}

EngineUse::~EngineUse()
{
    ERR_pop_to_mark();
}

int aven_global_init(void)
{
    return guarded("aven_global_init", nullptr, [] {
        const std::unique_lock<std::shared_mutex> alone = gate.enterAlone();
        if (running != nullptr)
            return;

        logFaults();
        require(faultsReadable(), AVEN_E_FAULTS);
        stopAtUnload();
        ERR_set_mark();
        try {
            running = new Engine;
        } catch (...) {
            ERR_pop_to_mark();
            throw;
        }
        ERR_pop_to_mark();
        logBanner();
    });
}

int aven_global_cleanup(void)
{
    return guarded("aven_global_cleanup", nullptr, [] {
        stop();
        logClose();
    });
}

int aven_global_set_logger(const char* target)
{
    return guarded("aven_global_set_logger", nullptr, [target] {
        require(target != nullptr, AVEN_E_NULL_POINTER);
        require(logOpen(target), AVEN_E_LOG_TARGET);
        logFaults();

        const std::shared_lock<std::shared_mutex> alive = gate.enter();
        if (running != nullptr)
            logBanner();  // the host set the log after starting the engine
    });
}

const char* aven_version(void)
{
    return faultFor("aven_version") ? nullptr : versionText();
}
