// The engine's ciphers with right and wrong numbers and lengths: what is encrypted comes
// back, GCM refuses whatever was changed, and no output exceeds its room. Input: a byte
// each for cipher, mode, padding, the lengths of key, IV, additional data and tag, what to
// change, and the room that is missing; three for a change; then key, IV, additional data
// and the rest as data.

#include "engine_fuzz.h"

using fuzz::Damage;
using fuzz::Exact;
using fuzz::Outcome;

namespace {

struct Setup {
    int cipher;
    int mode;
    int padding;
    std::string key;
    std::string iv;
    std::string aad;
};

// The call's own copies of everything, each of its exact size.
class Block {
public:
    explicit Block(const Setup& setup) : m_key(setup.key), m_iv(setup.iv), m_aad(setup.aad)
    {
        m_params.alg = setup.cipher;
        m_params.mode = setup.mode;
        m_params.padding = setup.padding;
        m_params.key = m_key.data();
        m_params.key_len = m_key.size32();
        m_params.iv = m_iv.size() == 0 ? nullptr : m_iv.data();
        m_params.iv_len = m_iv.size32();
        m_params.aad = m_aad.size() == 0 ? nullptr : m_aad.data();
        m_params.aad_len = m_aad.size32();
    }

    const SymmCipherParams* params() const { return &m_params; }

private:
    Exact m_key, m_iv, m_aad;
    SymmCipherParams m_params = {};
};

Outcome encrypt(const Setup& setup, const std::string& data, size_t room, Exact& tag)
{
    const Block block(setup);
    Exact in(data);
    return fuzz::withRoom(room, [&](unsigned char* out, uint32_t* length) {
        return aven_crypto_encrypt(block.params(), in.data(), in.size32(), out, length,
                                   static_cast<int>(tag.size()),
                                   tag.size() == 0 ? nullptr : tag.data());
    });
}

Outcome decrypt(const Setup& setup, const std::string& data, size_t room, const std::string& tag)
{
    const Block block(setup);
    Exact in(data);
    Exact exactTag(tag);
    return fuzz::withRoom(room, [&](unsigned char* out, uint32_t* length) {
        return aven_crypto_decrypt(block.params(), in.data(), in.size32(),
                                   tag.empty() ? nullptr : exactTag.data(), exactTag.size32(), out,
                                   length);
    });
}

// One of the four authenticated things, changed.
void checkForgery(const Setup& setup, const std::string& sealed, const std::string& tag,
                  unsigned what, const Damage& damage)
{
    Setup forged = setup;
    std::string text = sealed;
    std::string forgedTag = tag;
    std::string* const target[] = {&text, &forgedTag, &forged.aad, &forged.iv};
    if (target[what]->empty())
        return;
    *target[what] = damage.in(*target[what]);
    HOLDS(decrypt(forged, text, text.size(), forgedTag).code == AVEN_E_TAG_MISMATCH);
}

void checkWhiteBox(const Setup& setup, const std::string& data)
{
    const auto use = [&](auto function, const std::string& text, size_t room) {
        Exact key(setup.key);
        Exact iv(setup.iv);
        Exact in(text);
        return fuzz::withRoom(room, [&](unsigned char* out, uint32_t* length) {
            return function(setup.padding, key.data(), key.size32(), iv.data(), iv.size32(),
                            in.data(), in.size32(), out, length);
        });
    };
    const Outcome sealed = use(aven_wbsm4_encrypt, data, data.size() + 16);
    HOLDS(isSuccess(sealed) ==
          (setup.padding == 1 && setup.key.size() == 16 && setup.iv.size() == 16));
    if (isSuccess(sealed))
        HOLDS(use(aven_wbsm4_decrypt, sealed.bytes, sealed.bytes.size()).bytes == data);
    use(aven_wbsm4_decrypt, data, data.size());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::startEngine();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    constexpr size_t keyLengths[] = {16, 24, 32, 0, 15, 17};
    constexpr size_t ivLengths[] = {0, 8, 12, 16, 1, 128, 129};
    constexpr size_t tagLengths[] = {0, 4, 12, 16, 3, 17};
    fuzz::Input input(data, size);
    Setup setup;
    setup.cipher = static_cast<int>(input.pick(9));
    setup.mode = static_cast<int>(input.pick(8));
    setup.padding = static_cast<int>(input.pick(3));
    const size_t keyLength = keyLengths[input.pick(6)];
    const size_t ivLength = ivLengths[input.pick(7)];
    const size_t aadLength = input.pick(32);
    const size_t tagLength = tagLengths[input.pick(6)];
    const unsigned what = input.pick(4);
    const size_t missing = input.pick(20);
    const Damage damage(input);
    setup.key = input.take(keyLength);
    setup.iv = input.take(ivLength);
    setup.aad = input.take(aadLength);
    const std::string text = input.rest();

    Exact tag(tagLength);
    const Outcome sealed = encrypt(setup, text, text.size() + 16, tag);
    if (isSuccess(sealed)) {
        const std::string tagBytes = tag.text();
        HOLDS(decrypt(setup, sealed.bytes, sealed.bytes.size(), tagBytes).bytes == text);
        if (missing > 0 && missing <= sealed.length) {
            const Outcome tooSmall = encrypt(setup, text, sealed.length - missing, tag);
            HOLDS(tooSmall.code == AVEN_E_BUFFER_TOO_SMALL && tooSmall.length == sealed.length);
        }
        if (setup.mode == AVEN_MODE_GCM)
            checkForgery(setup, sealed.bytes, tagBytes, what, damage);
    } else {
        HOLDS(tag.text() == std::string(tagLength, '\0'));
    }
    const Outcome opened = decrypt(setup, text, text.size(), std::string(tagLength, 't'));
    HOLDS(!isSuccess(opened) || setup.mode != AVEN_MODE_GCM);
    checkWhiteBox(setup, text);
    return 0;
}
