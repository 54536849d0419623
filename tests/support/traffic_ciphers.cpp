// The requests with keys that both sides have: ciphers, MACs, key derivation, white box.
#include "support/traffic_work.h"

namespace support {

namespace {

// Which ciphers and modes there are.
bool isCipher(int cipher, int mode)
{
    return cipher != AVEN_CIPHER_3DES || mode < AVEN_MODE_CTR;
}

}  // namespace

// ---- Ciphers

oracle::CipherSetup TrafficClient::Work::cipherSetup(Parameters& parameters)
{
    oracle::CipherSetup setup;
    do {
        setup.cipher = from(1, 7);
        setup.mode = from(1, 6);
    } while (!isCipher(setup.cipher, setup.mode));
    setup.padded = oneIn(2);
    setup.key = random(oracle::keySize(setup.cipher));
    parameters = {{"strCipherAlg", number(setup.cipher)},
                  {"strMode", number(setup.mode)},
                  {"strKey", toUrlBase64(setup.key)}};
    if (setup.padded || oneIn(2))
        parameters.emplace_back("strCipherPadding", setup.padded ? "1" : "0");
    if (setup.mode == AVEN_MODE_GCM) {
        setup.iv = random(oneIn(2) ? 12 : 1 + below(128));
        setup.aad = somePayload();
        parameters.emplace_back("straad", toUrlBase64(setup.aad));
    } else if (setup.mode != AVEN_MODE_ECB) {
        setup.iv = random(oracle::blockSize(setup.cipher));
    }
    if (!setup.iv.empty())
        parameters.emplace_back("strIV", toUrlBase64(setup.iv));
    return setup;
}

// In whole blocks where nothing pads.
std::string TrafficClient::Work::cipherData(const oracle::CipherSetup& setup)
{
    size_t length = size(SIZE_MAX);
    if (setup.mode <= AVEN_MODE_CBC && !setup.padded) {
        const size_t block = oracle::blockSize(setup.cipher);
        length = (length + block - 1) / block * block;
    }
    return payload(length);
}

TrafficClient::Work::Mistakes TrafficClient::Work::cipherMistakes(const oracle::CipherSetup& setup)
{
    Mistakes mistakes = {{"strCipherAlg", "", MISSING},
                         {"strMode", "", MISSING},
                         {"strKey", "", MISSING},
                         {"strdata", "", MISSING},
                         {"strCipherAlg", "0", INVALID},
                         {"strCipherAlg", "8", INVALID},
                         {"strMode", "7", INVALID},
                         {"strMode", "1 ", INVALID},
                         {"strCipherPadding", "2", INVALID},
                         {"strKey", toUrlBase64(setup.key + "!"), AVEN_E_KEY_LENGTH}};
    if (setup.mode != AVEN_MODE_ECB) {
        mistakes.push_back({"strIV", "", MISSING});
        mistakes.push_back({"strIV", toUrlBase64(random(129)), AVEN_E_IV_LENGTH});
    }
    if (setup.mode == AVEN_MODE_GCM)
        mistakes.push_back({"straad", "", MISSING});
    else if (setup.mode != AVEN_MODE_ECB && setup.cipher == AVEN_CIPHER_3DES)
        mistakes.push_back({"strMode", "5", AVEN_E_COMBINATION});
    return mistakes;
}

void TrafficClient::Work::encrypt()
{
    const char* const name = "QZaven_crypto_encrypt";
    Parameters parameters;
    const oracle::CipherSetup setup = cipherSetup(parameters);
    const std::string data = cipherData(setup);
    const bool isGcm = setup.mode == AVEN_MODE_GCM;
    const int tagSize = oneIn(2) ? 16 : from(4, 16);
    parameters.emplace_back("strdata", toUrlBase64(data));
    if (isGcm && (tagSize != 16 || oneIn(2)))
        parameters.emplace_back("strgcmTagLen", number(tagSize));
    if (isToErr()) {
        Mistakes mistakes = cipherMistakes(setup);
        if (isGcm) {
            mistakes.push_back({"strgcmTagLen", "3", INVALID});
            mistakes.push_back({"strgcmTagLen", "17", INVALID});
        } else if (setup.mode <= AVEN_MODE_CBC && !setup.padded) {
            mistakes.push_back({"strdata", toUrlBase64(data + "!"), AVEN_E_DATA_LENGTH});
        }
        return err(name, parameters, mistakes, {{"Data", ""}, {"gcmOutTag", ""}});
    }
    const oracle::Sealed sealed = isGcm ? oracle::sealGcm(setup, data, static_cast<size_t>(tagSize))
                                        : oracle::Sealed{oracle::encrypt(setup, data), ""};
    ask(name, parameters,
        {{"Data", toUrlBase64(sealed.data)},
         {"gcmOutTag", toUrlBase64(sealed.tag)},
         {"errorCode", "0"}});
}

void TrafficClient::Work::decrypt()
{
    const char* const name = "QZaven_crypto_decrypt";
    Parameters parameters;
    const oracle::CipherSetup setup = cipherSetup(parameters);
    const std::string data = cipherData(setup);
    const bool isGcm = setup.mode == AVEN_MODE_GCM;
    const oracle::Sealed sealed =
        isGcm ? oracle::sealGcm(setup, data, static_cast<size_t>(from(4, 16)))
              : oracle::Sealed{oracle::encrypt(setup, data), ""};
    parameters.emplace_back("strdata", toUrlBase64(sealed.data));
    if (isGcm)
        parameters.emplace_back("strtag", toUrlBase64(sealed.tag));
    if (isToErr()) {
        Mistakes mistakes = cipherMistakes(setup);
        if (isGcm) {
            mistakes.push_back({"strtag", "", MISSING});
            mistakes.push_back({"strtag", toUrlBase64(damaged(sealed.tag)), AVEN_E_TAG_MISMATCH});
            mistakes.push_back({"strdata", toUrlBase64(damaged(sealed.data)), AVEN_E_TAG_MISMATCH});
            mistakes.push_back({"strtag", toUrlBase64("abc"), AVEN_E_TAG_LENGTH});
        } else if (setup.mode <= AVEN_MODE_CBC) {
            mistakes.push_back({"strdata", toUrlBase64(sealed.data + "!"), AVEN_E_DATA_LENGTH});
        }
        return err(name, parameters, mistakes);
    }
    askFor(name, parameters, data);
}

void TrafficClient::Work::generateKey()
{
    const char* const name = "QZaven_crypto_gen_symmkey";
    const int cipher = from(1, 7);
    const Parameters parameters = {{"strCipherAlg", number(cipher)}};
    if (isToErr())
        return err(name, parameters,
                   {{"strCipherAlg", "", MISSING},
                    {"strCipherAlg", "0", INVALID},
                    {"strCipherAlg", "8", INVALID}});
    const std::string key = bytesOf(name, parameters);
    expect(key.size() == oracle::keySize(cipher), "a key of another length");
    expect(key.substr(0, 16) != m_lastKey.substr(0, 16), "the same key again");
    if (cipher == AVEN_CIPHER_3DES) {
        for (const char c : key) {
            unsigned ones = 0;
            for (unsigned rest = static_cast<unsigned char>(c); rest != 0; rest &= rest - 1)
                ++ones;
            expect(ones % 2 == 1, "a key of even parity");
        }
    }
    m_lastKey = key;
}

// ---- MACs and key derivation

void TrafficClient::Work::mac(const char* name, const char* algName, int algs, size_t keySize,
                              int alg,
                              std::string (*compute)(int, const std::string&, const std::string&))
{
    const std::string key = random(keySize);
    const std::string data = somePayload();
    const Parameters parameters = {
        {algName, number(alg)}, {"strKey", toUrlBase64(key)}, {"strdata", toUrlBase64(data)}};
    if (isToErr()) {
        Mistakes mistakes = {{algName, "", MISSING},
                             {"strKey", "", MISSING},
                             {"strdata", "", MISSING},
                             {algName, "0", INVALID},
                             {algName, number(algs + 1), INVALID}};
        if (compute == oracle::cmac)
            mistakes.push_back({"strKey", toUrlBase64(key + "!"), AVEN_E_KEY_LENGTH});
        return err(name, parameters, mistakes);
    }
    askFor(name, parameters, compute(alg, key, data));
}

void TrafficClient::Work::hmac()
{
    mac("QZaven_crypto_hmac", "strHashAlg", 6, 1 + below(oneIn(8) ? 300 : 64), from(1, 6),
        oracle::hmac);
}

void TrafficClient::Work::cmac()
{
    const int cipher = from(1, 7);
    mac("QZaven_crypto_cmac", "strCipherAlg", 7, oracle::keySize(cipher), cipher, oracle::cmac);
}

void TrafficClient::Work::kdf()
{
    const char* const name = "QZaven_crypto_kdf";
    const int hash = from(0, 6);
    const std::string data = somePayload();
    const size_t length = size(0xFFFF);
    const Parameters parameters = {{"HashType", number(hash)},
                                   {"srcdata", data},
                                   {"OutLen", number(static_cast<long long>(length))}};
    if (isToErr())
        return err(name, parameters,
                   {{"HashType", "", MISSING},
                    {"srcdata", "", MISSING},
                    {"OutLen", "", MISSING},
                    {"HashType", "7", INVALID},
                    {"OutLen", "-1", INVALID},
                    {"OutLen", "65536", INVALID},
                    {"OutLen", "0", AVEN_E_OUTPUT_LENGTH}});
    // Each block of the output hashes all of the input again.
    if (length > 4096 && data.size() > 4096)
        return;
    askFor(name, parameters, oracle::kdf(hash, data, length));
}

// ---- White box

TrafficClient::Work::WhiteBox TrafficClient::Work::whiteBox()
{
    WhiteBox box;
    box.setup = {AVEN_CIPHER_SM4, AVEN_MODE_CBC, true, random(16), random(16), ""};
    box.parameters = {{"strKey", toUrlBase64(box.setup.key)}, {"strIV", toUrlBase64(box.setup.iv)}};
    return box;
}

void TrafficClient::Work::whiteBoxMistake(const char* name, Parameters parameters,
                                          const std::string& data)
{
    parameters.emplace_back("strdata", toUrlBase64(data));
    err(name, parameters,
        {{"strKey", "", MISSING},
         {"strIV", "", MISSING},
         {"strdata", "", MISSING},
         {"strKey", toUrlBase64(random(15)), INVALID},
         {"strIV", toUrlBase64(random(17)), INVALID}});
}

void TrafficClient::Work::whiteBoxEncrypt()
{
    const char* const name = "QZaven_wbsm4_encrypt";
    WhiteBox box = whiteBox();
    const std::string data = somePayload();
    if (isToErr())
        return whiteBoxMistake(name, box.parameters, data);
    box.parameters.emplace_back("strdata", toUrlBase64(data));
    askFor(name, box.parameters, oracle::encrypt(box.setup, data));
}

void TrafficClient::Work::whiteBoxDecrypt()
{
    const char* const name = "QZaven_wbsm4_decrypt";
    WhiteBox box = whiteBox();
    const std::string data = somePayload();
    const std::string encrypted = oracle::encrypt(box.setup, data);
    if (isToErr())
        return whiteBoxMistake(name, box.parameters, encrypted);
    box.parameters.emplace_back("strdata", toUrlBase64(encrypted));
    askFor(name, box.parameters, data);
}

}  // namespace support
