// An engine that does nothing but copy its input to its output, so that what is left of a
// request's time is the plug-in's. It allocates nothing and checks nothing.

#include <algorithm>
#include <cstring>

#include "engine_interface.h"

#define EXPORT __attribute__((visibility("default")))

// The definitions below must agree with the contract to compile.
extern "C" {
#define DECLARE(result, name, params) EXPORT result name params;
AVEN_ENGINE_FUNCTIONS(DECLARE)
#undef DECLARE
}

namespace {

constexpr uint32_t MAC_LENGTH = 32;

int object;  // what every handle points at

int give(void** handle)
{
    *handle = &object;
    return 0;
}

int copy(const unsigned char* in, uint32_t in_len, unsigned char* out, uint32_t* out_len)
{
    *out_len = std::min(in_len, *out_len);
    memcpy(out, in, *out_len);
    return 0;
}

// With a null output the length is asked for.
int copyInTwoPasses(const unsigned char* in, uint32_t in_len, unsigned char* out, uint32_t* out_len)
{
    if (out != nullptr)
        return copy(in, in_len, out, out_len);
    *out_len = in_len;
    return 0;
}

int fill(unsigned char* out, uint32_t* out_len, uint32_t wanted)
{
    *out_len = std::min(wanted, *out_len);
    memset(out, 0x5A, *out_len);
    return 0;
}

}  // namespace

int aven_global_init()
{
    return 0;
}

int aven_global_cleanup()
{
    return 0;
}

int aven_global_set_logger(const char*)
{
    return 0;
}

const char* aven_version()
{
    return "copying engine";
}

const char* aven_strerror(int)
{
    return "no such error";
}

int aven_ke_new(void** ke)
{
    return give(ke);
}

int aven_ke_free(void*)
{
    return 0;
}

int aven_ke_set_public_key(void*, const unsigned char*, uint32_t, const unsigned char*, uint32_t,
                           const char*)
{
    return 0;
}

int aven_ke_set_certificate(void*, const unsigned char*, uint32_t, const unsigned char*, uint32_t,
                            const char*)
{
    return 0;
}

int aven_ke_set_root_certificate(void*, const char*, const char*)
{
    return 0;
}

int aven_ke_client_hello(void*, unsigned char* out, uint32_t* out_len)
{
    return fill(out, out_len, 32);
}

int aven_ke_client_key_exchange(void*, const unsigned char*, uint32_t, const unsigned char*,
                                uint32_t, const unsigned char*, uint32_t, const unsigned char*,
                                uint32_t, unsigned char* out, uint32_t* out_len)
{
    return fill(out, out_len, 256);
}

// The functions whose parameters differ only in what comes before the input.
#define COPY(name, how, before, length)                                            \
    int name(before, const unsigned char* in, uint32_t in_len, unsigned char* out, \
             uint32_t* out_len)                                                    \
    {                                                                              \
        return how(in, length, out, out_len);                                      \
    }
COPY(aven_ke_encrypt, copy, void*, in_len)
COPY(aven_ke_decrypt, copy, void*, in_len)
COPY(aven_ke_hmac, copyInTwoPasses, void*, std::min(in_len, MAC_LENGTH))
COPY(aven_ke_cmac, copyInTwoPasses, void*, std::min(in_len, MAC_LENGTH))
COPY(aven_crypto_public_encrypt, copy, const void*, in_len)
COPY(aven_crypto_private_decrypt, copy, const void*, in_len)
COPY(aven_crypto_hmac, copy, const void*, std::min(in_len, MAC_LENGTH))
COPY(aven_crypto_cmac, copy, const void*, std::min(in_len, MAC_LENGTH))
COPY(aven_crypto_pkcs7_encrypt, copy, const void*, in_len)
COPY(aven_crypto_pkcs7_decrypt, copy, const void*, in_len)
#undef COPY

int aven_crypto_base64_encode(const unsigned char* in, uint32_t in_len, unsigned char* out,
                              uint32_t* out_len)
{
    return copyInTwoPasses(in, in_len, out, out_len);
}

int aven_crypto_base64_decode(const unsigned char* in, uint32_t in_len, unsigned char* out,
                              uint32_t* out_len)
{
    return copyInTwoPasses(in, in_len, out, out_len);
}

int aven_crypto_encrypt(const void*, const unsigned char* in, uint32_t in_len, unsigned char* out,
                        uint32_t* out_len, int tag_len, unsigned char* tag)
{
    if (tag != nullptr)
        memset(tag, 0, static_cast<size_t>(tag_len));
    return copy(in, in_len, out, out_len);
}

int aven_crypto_decrypt(const void*, const unsigned char* in, uint32_t in_len, const unsigned char*,
                        uint32_t, unsigned char* out, uint32_t* out_len)
{
    return copy(in, in_len, out, out_len);
}

int aven_crypto_gen_symmkey(int, unsigned char* out, uint32_t* out_len)
{
    return fill(out, out_len, 32);
}

int aven_keypair_unmarshal(int, const unsigned char*, uint32_t, const unsigned char*, uint32_t,
                           const char*, void** keypair)
{
    return give(keypair);
}

int aven_keypair_free(void*)
{
    return 0;
}

int aven_certificate_unmarshal(const unsigned char*, uint32_t, const char*, void** certificate)
{
    return give(certificate);
}

int aven_certificate_free(void*)
{
    return 0;
}

int aven_crypto_kdf(int, const unsigned char* in, uint32_t in_len, uint32_t out_len,
                    unsigned char* out)
{
    return copy(in, in_len, out, &out_len);
}

int aven_wbsm4_encrypt(int, const unsigned char*, uint32_t, const unsigned char*, uint32_t,
                       const unsigned char* in, uint32_t in_len, unsigned char* out,
                       uint32_t* out_len)
{
    return copy(in, in_len, out, out_len);
}

int aven_wbsm4_decrypt(int, const unsigned char*, uint32_t, const unsigned char*, uint32_t,
                       const unsigned char* in, uint32_t in_len, unsigned char* out,
                       uint32_t* out_len)
{
    return copy(in, in_len, out, out_len);
}
