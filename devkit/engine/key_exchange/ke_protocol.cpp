#include "ke_protocol.h"

#include <algorithm>
#include <cstring>

#include "engine/mac.h"

namespace {

template <class Container>
void append(Container& to, Bytes bytes)
{
    to.insert(to.end(), bytes.data, bytes.data + bytes.size);
}

Bytes textBytes(const char* text)
{
    return {reinterpret_cast<const unsigned char*>(text), strlen(text)};
}

}  // namespace

std::vector<unsigned char> keSignedContent(const KeRandoms& randoms, Bytes encryptionCertificate)
{
    const size_t size = encryptionCertificate.size;
    require(size <= KE_CERTIFICATE_MAX, AVEN_E_INPUT_TOO_LONG);
    std::vector<unsigned char> content;
    append(content, randoms.client);
    append(content, randoms.server);
    for (int shift : {16, 8, 0})
        content.push_back(static_cast<unsigned char>(size >> shift));
    append(content, encryptionCertificate);
    return content;
}

// A(0) = seed, A(i) = HMAC(secret, A(i-1)); the result is the row of all
// HMAC(secret, A(i) || seed), cut to size.
SecretBytes kePrf(const EVP_MAC_CTX* preparedHmac, Bytes secret, const char* label, Bytes first,
                  Bytes second, size_t size)
{
    SecretBytes seed;
    append(seed, textBytes(label));
    append(seed, first);
    append(seed, second);

    SecretBytes a(KE_HASH);
    mac(preparedHmac, secret, view(seed), a.data(), KE_HASH);
    SecretBytes out(size);
    for (size_t at = 0; at < size; at += KE_HASH) {
        SecretBytes input = a;
        append(input, view(seed));
        SecretBytes block(KE_HASH);
        mac(preparedHmac, secret, view(input), block.data(), KE_HASH);
        memcpy(out.data() + at, block.data(), std::min(KE_HASH, size - at));

        mac(preparedHmac, secret, view(a), block.data(), KE_HASH);
        a = block;
    }
    return out;
}

ChannelKeys::ChannelKeys(int hash, const EVP_MAC_CTX* preparedHmac, Bytes preMaster,
                         const KeRandoms& randoms)
    : m_hash(hash)
{
    const SecretBytes master =
        kePrf(preparedHmac, preMaster, "master secret", randoms.client, randoms.server, KE_SECRET);
    m_block =
        kePrf(preparedHmac, view(master), "key expansion", randoms.server, randoms.client, SIZE);
}

Bytes keClientLabel()
{
    return textBytes("client write");
}

Bytes keServerLabel()
{
    return textBytes("server write");
}
