#include "differential/engine_side.h"

#include <algorithm>

namespace differential::engine {

using support::Exact;
using support::Fenced;
using support::Job;

namespace {

bool blamesTheInput(int code)
{
    constexpr int others[] = {AVEN_E_NOT_INITIALISED, AVEN_E_NULL_POINTER, AVEN_E_BUFFER_TOO_SMALL,
                              AVEN_E_NO_MEMORY,       AVEN_E_INTERNAL,     AVEN_E_RANDOM,
                              AVEN_E_HANDLE,          AVEN_E_CIPHER_NUMBER};
    return std::find(std::begin(others), std::end(others), code) == std::end(others);
}

// Of a function that takes a parameter block.
template <class Function, class Block>
Answer call(Function function, const Block& block, const std::string& data, size_t capacity)
{
    const Exact in(data);
    Fenced out(capacity);
    return answerOf(function(&block, in.data(), in.size(), out.data(), &out.len), out);
}

template <class Function>
Answer callWhiteBox(Function function, const Job& job, const std::string& data, size_t capacity)
{
    const Exact key(job.key), iv(job.iv), in(data);
    Fenced out(capacity);
    return answerOf(function(1, key.data(), key.size(), iv.data(), iv.size(), in.data(), in.size(),
                             out.data(), &out.len),
                    out);
}

constexpr size_t MAC_CAPACITY = 80;

}  // namespace

const support::DevkitEngine& library()
{
    static const support::DevkitEngine engine;
    static const bool runs = engine.aven_global_init() == 0;
    must(runs, "the engine does not start");
    return engine;
}

Answer answerOf(int code, const Fenced& out)
{
    must(out.fenceIntact(), "the engine wrote beside its buffer");
    must(code != 0 || out.lengthFits(), "the engine tells a length beyond its buffer");
    if (code == 0)
        return out.text();
    must(blamesTheInput(code), library().aven_strerror(code));
    return std::nullopt;
}

Answer encrypt(const Job& job, const std::string& data, size_t tagSize)
{
    const Exact key(job.key), iv(job.iv), aad(job.aad), in(data);
    const SymmCipherParams params = support::blockOf(job, key, iv, aad);
    Fenced out(data.size() + 128), tag(tagSize);
    const int code = library().aven_crypto_encrypt(&params, in.data(), in.size(), out.data(),
                                                   &out.len, static_cast<int>(tagSize),
                                                   tagSize == 0 ? nullptr : tag.data());
    must(tag.fenceIntact(), "the engine wrote beside the tag");
    const Answer encrypted = answerOf(code, out);
    return encrypted ? Answer(*encrypted + tag.text()) : std::nullopt;
}

Answer decrypt(const Job& job, const std::string& sealed, size_t tagSize)
{
    const Exact key(job.key), iv(job.iv), aad(job.aad),
        in(sealed.substr(0, sealed.size() - tagSize)), tag(sealed.substr(sealed.size() - tagSize));
    const SymmCipherParams params = support::blockOf(job, key, iv, aad);
    Fenced out(in.size() + size_t{64});
    return answerOf(library().aven_crypto_decrypt(&params, in.data(), in.size(),
                                                  tagSize == 0 ? nullptr : tag.data(), tag.size(),
                                                  out.data(), &out.len),
                    out);
}

Answer whiteBoxEncrypt(const Job& job, const std::string& data)
{
    return callWhiteBox(library().aven_wbsm4_encrypt, job, data, data.size() + 32);
}

Answer whiteBoxDecrypt(const Job& job, const std::string& data)
{
    return callWhiteBox(library().aven_wbsm4_decrypt, job, data, data.size());
}

Answer hmac(int hash, const std::string& key, const std::string& data)
{
    const Exact bytes(key);
    return call(library().aven_crypto_hmac, MacParams{hash, bytes.data(), bytes.size()}, data,
                MAC_CAPACITY);
}

Answer cmac(int cipher, const std::string& key, const std::string& data)
{
    const Exact bytes(key);
    return call(library().aven_crypto_cmac, MacParams{cipher, bytes.data(), bytes.size()}, data,
                MAC_CAPACITY);
}

Answer kdf(int hash, const std::string& secret, size_t size)
{
    const Exact in(secret);
    Fenced out(size);
    return answerOf(library().aven_crypto_kdf(hash, in.data(), in.size(), out.len, out.data()),
                    out);
}

KeyPair::KeyPair(const std::string& privateText, const std::string& publicText,
                 const char* password)
{
    const Exact privateKey(privateText), publicKey(publicText);
    const int code = library().aven_keypair_unmarshal(
        AVEN_KEY_ANY, privateText.empty() ? nullptr : privateKey.data(), privateKey.size(),
        publicText.empty() ? nullptr : publicKey.data(), publicKey.size(), password, &m_handle);
    must(code == 0 || blamesTheInput(code), library().aven_strerror(code));
    must((code == 0) == isThere(), "a code and no key pair, or the reverse");
}

KeyPair::~KeyPair()
{
    library().aven_keypair_free(m_handle);
}

Answer KeyPair::encrypt(PkeyCipherParams form, const std::string& text) const
{
    form.keypair = m_handle;
    return call(library().aven_crypto_public_encrypt, form, text, text.size() + 528);
}

Answer KeyPair::decrypt(PkeyCipherParams form, const std::string& ciphertext) const
{
    form.keypair = m_handle;
    return call(library().aven_crypto_private_decrypt, form, ciphertext, ciphertext.size() + 16);
}

}  // namespace differential::engine
