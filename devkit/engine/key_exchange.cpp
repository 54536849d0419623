// Key-exchange sessions and the channel under their keys. To come.

#include "exports.h"
#include "serve.h"

int aven_ke_new(void**)
{
    return notSupported("aven_ke_new");
}

int aven_ke_free(void*)
{
    return notSupported("aven_ke_free");
}

int aven_ke_set_public_key(void*, const unsigned char*, uint32_t, const unsigned char*, uint32_t,
                           const char*)
{
    return notSupported("aven_ke_set_public_key");
}

int aven_ke_set_certificate(void*, const unsigned char*, uint32_t, const unsigned char*, uint32_t,
                            const char*)
{
    return notSupported("aven_ke_set_certificate");
}

int aven_ke_set_root_certificate(void*, const char*, const char*)
{
    return notSupported("aven_ke_set_root_certificate");
}

int aven_ke_client_hello(void*, unsigned char*, uint32_t*)
{
    return notSupported("aven_ke_client_hello");
}

int aven_ke_client_key_exchange(void*, const unsigned char*, uint32_t, const unsigned char*,
                                uint32_t, const unsigned char*, uint32_t, const unsigned char*,
                                uint32_t, unsigned char*, uint32_t*)
{
    return notSupported("aven_ke_client_key_exchange");
}

int aven_ke_encrypt(void*, const unsigned char*, uint32_t, unsigned char*, uint32_t*)
{
    return notSupported("aven_ke_encrypt");
}

int aven_ke_decrypt(void*, const unsigned char*, uint32_t, unsigned char*, uint32_t*)
{
    return notSupported("aven_ke_decrypt");
}

int aven_ke_hmac(void*, const unsigned char*, uint32_t, unsigned char*, uint32_t*)
{
    return notSupported("aven_ke_hmac");
}

int aven_ke_cmac(void*, const unsigned char*, uint32_t, unsigned char*, uint32_t*)
{
    return notSupported("aven_ke_cmac");
}
