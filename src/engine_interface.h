/**
 * @file
 * The contract towards the crypto engine, libSoftModuleaven.so: its 34 functions
 * and the four parameter blocks that it takes. C11 and C++17.
 *
 * Common rules
 *
 *   - Every function that returns int returns 0 for success; any other value is
 *     the engine's own code. That of a function which serves a request reaches the
 *     client unchanged; those of the global and the free functions do not.
 *   - Lengths count bytes. A pointer and the length behind it belong together; the
 *     caller owns both and keeps them for the length of the call only.
 *   - `out, out_len` is an output buffer: on entry *out_len is its capacity, on
 *     return the number of bytes written, never more than the capacity. The
 *     caller zero-fills the buffer before the call.
 *   - These inputs are optional, and null with length 0 when there is none: sig_key,
 *     enc_key, sig_cert, enc_cert, private_key, public_key, cert, and the
 *     NUL-terminated texts password, ca_file and ca_path. All other inputs are never
 *     null, also at length 0, but for those of a block and the tag (see there).
 *   - Texts that are returned are NUL-terminated, owned by the engine and not
 *     freed by the caller. They may be null.
 *   - Key-exchange handles, key pairs and certificates are opaque. The two free
 *     functions for key pairs and certificates accept null.
 */
#ifndef CORVANE_ENGINE_INTERFACE_H
#define CORVANE_ENGINE_INTERFACE_H

#include <stddef.h>
#include <stdint.h>

/** The cipher modes that the plug-in tells apart. */
enum {
    AVEN_MODE_WITHOUT_IV = 1, /**< takes no initial value */
    AVEN_MODE_GCM = 6         /**< has additional data and a tag */
};

/** First argument of aven_crypto_encrypt and aven_crypto_decrypt. */
typedef struct SymmCipherParams {
    int32_t alg;              /**< cipher algorithm number, 1 to 7 */
    int32_t mode;             /**< cipher mode number, 1 to 6; 1 has no IV, 6 is GCM */
    int32_t padding;          /**< 0 = none, 1 = padding */
    const unsigned char* key; /**< the key's bytes */
    uint32_t key_len;         /**< bytes at key */
    const unsigned char* iv;  /**< initial value; null in mode 1 */
    uint32_t iv_len;          /**< bytes at iv */
    const unsigned char* aad; /**< additional authenticated data; null unless mode is 6 */
    uint32_t aad_len;         /**< bytes at aad */
} SymmCipherParams;

/** First argument of aven_crypto_public_encrypt and aven_crypto_private_decrypt. */
typedef struct PkeyCipherParams {
    void* keypair;         /**< from aven_keypair_unmarshal */
    int32_t rsa_padding_e; /**< 0 or 1: RSA padding variant */
    int32_t no_asn1;       /**< 1 = ciphertext without ASN.1 encoding */
    int32_t no_c1c3c2;     /**< 1 = a component order other than C1C3C2 */
} PkeyCipherParams;

/** First argument of aven_crypto_hmac and aven_crypto_cmac. */
typedef struct MacParams {
    int32_t alg;              /**< hash number 1 to 6 (HMAC) or cipher number 1 to 7 (CMAC) */
    const unsigned char* key; /**< the key's bytes */
    uint32_t key_len;         /**< bytes at key */
} MacParams;

/** First argument of aven_crypto_pkcs7_encrypt and aven_crypto_pkcs7_decrypt. */
typedef struct EnvelopeParams {
    int32_t alg;       /**< symmetric cipher algorithm number, 1 to 7 */
    int32_t mode;      /**< cipher mode number, 1 to 6 */
    void* keypair;     /**< decryption: the recipient's key pair; else null */
    void* certificate; /**< encryption: the recipient's certificate; else null */
} EnvelopeParams;

/**
 * The engine's functions in the order in which the plug-in resolves them, one row each:
 * X(result, name, parameters). Users expand the list with an X of their own, the plug-in
 * into function pointers. What each function does is told at its declaration, at the end
 * of this file; headers_test holds the two against each other.
 */
/* clang-format off */
#define AVEN_ENGINE_FUNCTIONS(X)                                                          \
    X(int,         aven_global_init,            (void))                                   \
    X(int,         aven_global_cleanup,         (void))                                   \
    X(int,         aven_global_set_logger,      (const char* target))                     \
    X(const char*, aven_version,                (void))                                   \
    X(const char*, aven_strerror,               (int code))                               \
    X(int,         aven_crypto_base64_encode,   (const unsigned char* in, uint32_t in_len, \
                                                 unsigned char* out, uint32_t* out_len))  \
    X(int,         aven_crypto_base64_decode,   (const unsigned char* in, uint32_t in_len, \
                                                 unsigned char* out, uint32_t* out_len))  \
    X(int,         aven_ke_new,                 (void** ke))                              \
    X(int,         aven_ke_free,                (void* ke))                               \
    X(int,         aven_ke_set_public_key,      (void* ke,                                \
                                                 const unsigned char* sig_key, uint32_t sig_key_len, \
                                                 const unsigned char* enc_key, uint32_t enc_key_len, \
                                                 const char* password))                   \
    X(int,         aven_ke_set_certificate,     (void* ke,                                \
                                                 const unsigned char* sig_cert, uint32_t sig_cert_len, \
                                                 const unsigned char* enc_cert, uint32_t enc_cert_len, \
                                                 const char* password))                   \
    X(int,         aven_ke_set_root_certificate, (void* ke, const char* ca_file, const char* ca_path)) \
    X(int,         aven_ke_client_hello,        (void* ke, unsigned char* out, uint32_t* out_len)) \
    X(int,         aven_ke_client_key_exchange, (void* ke,                                \
                                                 const unsigned char* srvr_rand, uint32_t srvr_rand_len, \
                                                 const unsigned char* srvr_sig_cert, uint32_t srvr_sig_cert_len, \
                                                 const unsigned char* srvr_enc_cert, uint32_t srvr_enc_cert_len, \
                                                 const unsigned char* srvr_sign, uint32_t srvr_sign_len, \
                                                 unsigned char* out, uint32_t* out_len))  \
    X(int,         aven_ke_encrypt,             (void* ke, const unsigned char* in, uint32_t in_len, \
                                                 unsigned char* out, uint32_t* out_len))  \
    X(int,         aven_ke_decrypt,             (void* ke, const unsigned char* in, uint32_t in_len, \
                                                 unsigned char* out, uint32_t* out_len))  \
    X(int,         aven_ke_hmac,                (void* ke, const unsigned char* in, uint32_t in_len, \
                                                 unsigned char* out, uint32_t* out_len))  \
    X(int,         aven_ke_cmac,                (void* ke, const unsigned char* in, uint32_t in_len, \
                                                 unsigned char* out, uint32_t* out_len))  \
    X(int,         aven_crypto_public_encrypt,  (const void* params, const unsigned char* in, uint32_t in_len, \
                                                 unsigned char* out, uint32_t* out_len))  \
    X(int,         aven_crypto_private_decrypt, (const void* params, const unsigned char* in, uint32_t in_len, \
                                                 unsigned char* out, uint32_t* out_len))  \
    X(int,         aven_crypto_encrypt,         (const void* params, const unsigned char* in, uint32_t in_len, \
                                                 unsigned char* out, uint32_t* out_len,   \
                                                 int tag_len, unsigned char* tag))        \
    X(int,         aven_crypto_decrypt,         (const void* params, const unsigned char* in, uint32_t in_len, \
                                                 const unsigned char* tag, uint32_t tag_len, \
                                                 unsigned char* out, uint32_t* out_len))  \
    X(int,         aven_crypto_gen_symmkey,     (int type, unsigned char* out, uint32_t* out_len)) \
    X(int,         aven_crypto_hmac,            (const void* params, const unsigned char* in, uint32_t in_len, \
                                                 unsigned char* out, uint32_t* out_len))  \
    X(int,         aven_keypair_unmarshal,      (int type,                                \
                                                 const unsigned char* private_key, uint32_t private_key_len, \
                                                 const unsigned char* public_key, uint32_t public_key_len, \
                                                 const char* password, void** keypair))   \
    X(int,         aven_keypair_free,           (void* keypair))                          \
    X(int,         aven_crypto_cmac,            (const void* params, const unsigned char* in, uint32_t in_len, \
                                                 unsigned char* out, uint32_t* out_len))  \
    X(int,         aven_certificate_unmarshal,  (const unsigned char* cert, uint32_t cert_len, \
                                                 const char* password, void** certificate)) \
    X(int,         aven_certificate_free,       (void* certificate))                      \
    X(int,         aven_crypto_kdf,             (int alg, const unsigned char* in, uint32_t in_len, \
                                                 uint32_t out_len, unsigned char* out))   \
    X(int,         aven_crypto_pkcs7_encrypt,   (const void* params, const unsigned char* in, uint32_t in_len, \
                                                 unsigned char* out, uint32_t* out_len))  \
    X(int,         aven_crypto_pkcs7_decrypt,   (const void* params, const unsigned char* in, uint32_t in_len, \
                                                 unsigned char* out, uint32_t* out_len))  \
    X(int,         aven_wbsm4_encrypt,          (int kind,                                \
                                                 const unsigned char* key, uint32_t key_len, \
                                                 const unsigned char* iv, uint32_t iv_len, \
                                                 const unsigned char* in, uint32_t in_len, \
                                                 unsigned char* out, uint32_t* out_len))  \
    X(int,         aven_wbsm4_decrypt,          (int kind,                                \
                                                 const unsigned char* key, uint32_t key_len, \
                                                 const unsigned char* iv, uint32_t iv_len, \
                                                 const unsigned char* in, uint32_t in_len, \
                                                 unsigned char* out, uint32_t* out_len))
/* clang-format on */

/* The engine reads the blocks by offset; these are the 64-bit target's. */
#ifdef __cplusplus
#define AVEN_LAYOUT(block, field, offset) \
    static_assert(offsetof(block, field) == (offset), #block "." #field " has moved")
#else
#define AVEN_LAYOUT(block, field, offset) \
    _Static_assert(offsetof(block, field) == (offset), #block "." #field " has moved")
#endif
AVEN_LAYOUT(SymmCipherParams, alg, 0);
AVEN_LAYOUT(SymmCipherParams, mode, 4);
AVEN_LAYOUT(SymmCipherParams, padding, 8);
AVEN_LAYOUT(SymmCipherParams, key, 16);
AVEN_LAYOUT(SymmCipherParams, key_len, 24);
AVEN_LAYOUT(SymmCipherParams, iv, 32);
AVEN_LAYOUT(SymmCipherParams, iv_len, 40);
AVEN_LAYOUT(SymmCipherParams, aad, 48);
AVEN_LAYOUT(SymmCipherParams, aad_len, 56);
AVEN_LAYOUT(PkeyCipherParams, keypair, 0);
AVEN_LAYOUT(PkeyCipherParams, rsa_padding_e, 8);
AVEN_LAYOUT(PkeyCipherParams, no_asn1, 12);
AVEN_LAYOUT(PkeyCipherParams, no_c1c3c2, 16);
AVEN_LAYOUT(MacParams, alg, 0);
AVEN_LAYOUT(MacParams, key, 8);
AVEN_LAYOUT(MacParams, key_len, 16);
AVEN_LAYOUT(EnvelopeParams, alg, 0);
AVEN_LAYOUT(EnvelopeParams, mode, 4);
AVEN_LAYOUT(EnvelopeParams, keypair, 8);
AVEN_LAYOUT(EnvelopeParams, certificate, 16);
#undef AVEN_LAYOUT

#endif

/*
 * The declarations of the same functions, for who writes an engine: the source defines
 * AVEN_ENGINE_PROTOTYPES and includes this header. A definition with a wrong signature
 * then does not compile, and the functions are exported under -fvisibility=hidden too.
 * Others go without: the plug-in finds the functions at run time.
 */
#if defined(AVEN_ENGINE_PROTOTYPES) && !defined(AVEN_ENGINE_PROTOTYPES_DECLARED)
#define AVEN_ENGINE_PROTOTYPES_DECLARED
#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** @name The engine as a whole
 *  Called by Corvane_plugin_Init and Corvane_plugin_Free.
 *  @{ */

/** Starts the engine. A code other than 0 is printed by Corvane_plugin_Init; requests reach
    the engine all the same, and get the codes that it then returns. */
int aven_global_init(void);

/** Ends the engine, which is closed next. The result is ignored. */
int aven_global_cleanup(void);

/** Names the file that the engine writes its log to; called behind aven_global_init also if
    that failed. The result is ignored. */
int aven_global_set_logger(const char* target);

/** The engine's own version, for people. */
const char* aven_version(void);

/** The text of one of the engine's codes; any number may be asked for. */
const char* aven_strerror(int code);

/** @} */

/** @name Base64
 *  In the standard alphabet; the plug-in turns it into the URL-safe one and back. Each function
 *  is called twice: with out = null and *out_len = 0 it stores the length that it needs in
 *  *out_len, then it gets a buffer of that capacity.
 *  @{ */

/** Bytes to Base64. */
int aven_crypto_base64_encode(const unsigned char* in, uint32_t in_len, unsigned char* out,
                              uint32_t* out_len);

/** Base64 to bytes. */
int aven_crypto_base64_decode(const unsigned char* in, uint32_t in_len, unsigned char* out,
                              uint32_t* out_len);

/** @} */

/** @name Key exchange, the client's side
 *  A handle travels to the client and back as a number that the plug-in does not check: an
 *  engine should look it up, not follow it.
 *  @{ */

/** Stores the handle of a new session in *ke; the client frees it by aven_ke_free. */
int aven_ke_new(void** ke);

/** Ends a session. Its handle is not used again. */
int aven_ke_free(void* ke);

/** The client's own keys, for signing and for encryption, each in a text form of the engine's
    choice. `password` is that of the private keys. */
int aven_ke_set_public_key(void* ke, const unsigned char* sig_key, uint32_t sig_key_len,
                           const unsigned char* enc_key, uint32_t enc_key_len,
                           const char* password);

/** The client's own certificates, for signing and for encryption, likewise. */
int aven_ke_set_certificate(void* ke, const unsigned char* sig_cert, uint32_t sig_cert_len,
                            const unsigned char* enc_cert, uint32_t enc_cert_len,
                            const char* password);

/** The roots that the server's certificates must lead to: a file, a folder, or both. */
int aven_ke_set_root_certificate(void* ke, const char* ca_file, const char* ca_path);

/** The client's first message. The capacity is 32 bytes. */
int aven_ke_client_hello(void* ke, unsigned char* out, uint32_t* out_len);

/** Takes the server's answer, whose parts may be empty, and writes the client's second
    message. From then on the session has keys. The capacity is 256 bytes. */
int aven_ke_client_key_exchange(void* ke, const unsigned char* srvr_rand, uint32_t srvr_rand_len,
                                const unsigned char* srvr_sig_cert, uint32_t srvr_sig_cert_len,
                                const unsigned char* srvr_enc_cert, uint32_t srvr_enc_cert_len,
                                const unsigned char* srvr_sign, uint32_t srvr_sign_len,
                                unsigned char* out, uint32_t* out_len);

/** To the server, under the session's keys. The capacity is in_len + 64 bytes. */
int aven_ke_encrypt(void* ke, const unsigned char* in, uint32_t in_len, unsigned char* out,
                    uint32_t* out_len);

/** From the server, under the session's keys. The capacity is in_len + 64 bytes. */
int aven_ke_decrypt(void* ke, const unsigned char* in, uint32_t in_len, unsigned char* out,
                    uint32_t* out_len);

/** HMAC under the session's keys. Called twice: with out = null and *out_len = 0 it stores the
    length that it needs in *out_len, then it gets a buffer of that capacity. */
int aven_ke_hmac(void* ke, const unsigned char* in, uint32_t in_len, unsigned char* out,
                 uint32_t* out_len);

/** CMAC under the session's keys, in two calls as aven_ke_hmac. */
int aven_ke_cmac(void* ke, const unsigned char* in, uint32_t in_len, unsigned char* out,
                 uint32_t* out_len);

/** @} */

/** @name Cryptography without a session
 *  @{ */

/** Encrypts under a public key. params: a PkeyCipherParams. The capacity is in_len + 129 bytes
    if the key pair that the process read last had type 1, and in_len + 528 otherwise. */
int aven_crypto_public_encrypt(const void* params, const unsigned char* in, uint32_t in_len,
                               unsigned char* out, uint32_t* out_len);

/** Decrypts under a private key. params: a PkeyCipherParams. The capacity is in_len + 16
    bytes. */
int aven_crypto_private_decrypt(const void* params, const unsigned char* in, uint32_t in_len,
                                unsigned char* out, uint32_t* out_len);

/** Encrypts. params: a SymmCipherParams. In GCM mode the engine writes exactly tag_len bytes to
    tag, the caller's zero-filled buffer; in others tag is null and tag_len 0. The capacity of
    out is in_len + 128 bytes. */
int aven_crypto_encrypt(const void* params, const unsigned char* in, uint32_t in_len,
                        unsigned char* out, uint32_t* out_len, int tag_len, unsigned char* tag);

/** Decrypts. params: a SymmCipherParams. In GCM mode a tag that does not verify is a failure;
    in others tag is null and tag_len 0. The capacity of out is in_len + 64 bytes. */
int aven_crypto_decrypt(const void* params, const unsigned char* in, uint32_t in_len,
                        const unsigned char* tag, uint32_t tag_len, unsigned char* out,
                        uint32_t* out_len);

/** A random key for cipher algorithm `type`, 1 to 7. The capacity is 1,024 bytes. */
int aven_crypto_gen_symmkey(int type, unsigned char* out, uint32_t* out_len);

/** HMAC. params: a MacParams with a hash number. The capacity is 80 bytes. */
int aven_crypto_hmac(const void* params, const unsigned char* in, uint32_t in_len,
                     unsigned char* out, uint32_t* out_len);

/** Reads a key pair from the text of its private key, of its public key, or of both, and
    stores it in *keypair; the caller frees it by aven_keypair_free. `type` is what the
    request named, 0 if it named none. */
int aven_keypair_unmarshal(int type, const unsigned char* private_key, uint32_t private_key_len,
                           const unsigned char* public_key, uint32_t public_key_len,
                           const char* password, void** keypair);

/** Frees a key pair; null is none. */
int aven_keypair_free(void* keypair);

/** CMAC. params: a MacParams with a cipher algorithm number. The capacity is 80 bytes. */
int aven_crypto_cmac(const void* params, const unsigned char* in, uint32_t in_len,
                     unsigned char* out, uint32_t* out_len);

/** Reads a certificate's text and stores the certificate in *certificate; the caller frees
    it by aven_certificate_free. */
int aven_certificate_unmarshal(const unsigned char* cert, uint32_t cert_len, const char* password,
                               void** certificate);

/** Frees a certificate; null is none. */
int aven_certificate_free(void* certificate);

/** Derives a key with hash `alg`, 1 to 6, or 0 for the engine's default: fills exactly
    out_len bytes of out. */
int aven_crypto_kdf(int alg, const unsigned char* in, uint32_t in_len, uint32_t out_len,
                    unsigned char* out);

/** Seals for the holder of a certificate. params: an EnvelopeParams with the certificate. The
    capacity is in_len + 3,072 bytes. */
int aven_crypto_pkcs7_encrypt(const void* params, const unsigned char* in, uint32_t in_len,
                              unsigned char* out, uint32_t* out_len);

/** Opens what was sealed. params: an EnvelopeParams with the key pair. The capacity is
    in_len + 64 bytes. */
int aven_crypto_pkcs7_decrypt(const void* params, const unsigned char* in, uint32_t in_len,
                              unsigned char* out, uint32_t* out_len);

/** White-box SM4, which encrypts. kind is always 1. The capacity is in_len + 32 bytes. */
int aven_wbsm4_encrypt(int kind, const unsigned char* key, uint32_t key_len,
                       const unsigned char* iv, uint32_t iv_len, const unsigned char* in,
                       uint32_t in_len, unsigned char* out, uint32_t* out_len);

/** White-box SM4, which decrypts. kind is always 1. The capacity is in_len bytes. */
int aven_wbsm4_decrypt(int kind, const unsigned char* key, uint32_t key_len,
                       const unsigned char* iv, uint32_t iv_len, const unsigned char* in,
                       uint32_t in_len, unsigned char* out, uint32_t* out_len);

/** @} */

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
