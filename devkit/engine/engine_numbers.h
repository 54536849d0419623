/*
 * The development engine's numbers, result codes and formats. They are its own
 * choice: another engine behind the same 34 functions numbers differently. C11 and
 * C++17.
 *
 * Formats
 *   ECB, CBC      padding 0: the data's length must be a multiple of the block; 1:
 *                 PKCS#7 (RFC 5652, 6.3). Other modes never pad: there both values
 *                 of the padding number mean the same.
 *   IV            CBC, CFB, OFB, CTR: one block. ECB: none. GCM: 1 to 128 bytes, 12
 *                 are customary.
 *   CFB           feedback of a whole block. CTR counts in the whole block, high
 *                 byte first.
 *   GCM           SP 800-38D, for every cipher with a 128-bit block; tag of 4 to 16
 *                 bytes, in an argument of its own.
 *   3DES          keys of 24 bytes, parity bits ignored. No CTR and no GCM.
 *   HMAC, CMAC    RFC 2104, SP 800-38B; the whole value, not truncated.
 *   KDF           ANSI X9.63, which is the one of GB/T 32918.4 too: blocks
 *                 hash(input || 32-bit counter from 1), without shared info.
 *   White-box SM4 plain SM4-CBC with PKCS#7. No white-box protection whatever.
 *   Keys          PEM, Base64 of PEM, or Base64 of DER. Private: PKCS#8, plain or
 *                 encrypted (PBES2 and the like), SEC 1 with its curve, PKCS#1.
 *                 Public: SubjectPublicKeyInfo, or an X.509 certificate. SM2 keys
 *                 are id-ecPublicKey on the named curve 1.2.156.10197.1.301. PEM may
 *                 have text before its block, but only blanks behind it. A password
 *                 for a key that is not encrypted is ignored, as is a certificate's.
 *   RSA           2048 to 4096 bits. OAEP: see AVEN_RSA_OAEP.
 *   SM2           GB/T 32918.4 with SM3. ASN.1: SEQUENCE { x INTEGER, y INTEGER, C3
 *                 OCTET STRING, C2 OCTET STRING }, with no_c1c3c2 C2 before C3. Raw:
 *                 04 || x || y || C3 || C2, with no_c1c3c2 C2 before C3.
 *   Envelopes     DER, one recipient, named by issuer and serial number; up to 64
 *                 recipients, and BER, are read.
 *                 RSA: CMS (RFC 5652), AuthEnvelopedData (RFC 5083) in GCM. The
 *                 content key travels under RSAES-OAEP as above; OAEP with other
 *                 hashes and PKCS#1 v1.5 are read, too.
 *                   SM4, ARIA-256   all modes
 *                   AES             all modes but CTR
 *                   CAMELLIA-256    all modes
 *                   3DES            CBC
 *                 SM2: EnvelopedData of GM/T 0010. SM4 in all modes but GCM. Other
 *                 makers' identifiers and forms are read, too: README.md has them.
 *   Key exchange  two certificates, in the manner of TLCP (GB/T 38636-2020): see
 *                 KEY_EXCHANGE.md.
 *   Base64        RFC 4648 alphabet with "+" and "/". Encoding pads and breaks no
 *                 lines. Decoding skips blanks, tabs and line ends, and takes text
 *                 with its "=" or without any.
 */
#ifndef CORVANE_ENGINE_ENGINE_NUMBERS_H
#define CORVANE_ENGINE_ENGINE_NUMBERS_H

#include "engine_interface.h"

/* Cipher numbers: SymmCipherParams.alg, MacParams.alg (CMAC), EnvelopeParams.alg and
   the type of aven_crypto_gen_symmkey. */
enum {
    AVEN_CIPHER_SM4 = 1,          /* key 16, block 16 */
    AVEN_CIPHER_AES_128 = 2,      /* key 16, block 16 */
    AVEN_CIPHER_AES_192 = 3,      /* key 24, block 16 */
    AVEN_CIPHER_AES_256 = 4,      /* key 32, block 16 */
    AVEN_CIPHER_ARIA_256 = 5,     /* key 32, block 16 */
    AVEN_CIPHER_CAMELLIA_256 = 6, /* key 32, block 16 */
    AVEN_CIPHER_3DES = 7          /* key 24 (three keys), block 8 */
};

/* Mode numbers: SymmCipherParams.mode, EnvelopeParams.mode. The contract has
   AVEN_MODE_GCM, which is 6. */
enum {
    AVEN_MODE_ECB = AVEN_MODE_WITHOUT_IV, /* 1 */
    AVEN_MODE_CBC = 2,
    AVEN_MODE_CFB = 3,
    AVEN_MODE_OFB = 4,
    AVEN_MODE_CTR = 5
};

/* Padding numbers: SymmCipherParams.padding. */
enum { AVEN_PADDING_NONE = 0, AVEN_PADDING_PKCS7 = 1 };

/* Hash numbers: MacParams.alg (HMAC) and the first argument of aven_crypto_kdf, which
   alone takes the default. */
enum {
    AVEN_HASH_DEFAULT = 0, /* SM3 */
    AVEN_HASH_SM3 = 1,
    AVEN_HASH_SHA1 = 2,
    AVEN_HASH_SHA224 = 3,
    AVEN_HASH_SHA256 = 4,
    AVEN_HASH_SHA384 = 5,
    AVEN_HASH_SHA512 = 6
};

enum {
    AVEN_GCM_IV_MAX = 128,
    AVEN_GCM_TAG_MIN = 4,
    AVEN_GCM_TAG_MAX = 16,
    AVEN_KDF_MAX = 1 << 30 /* bytes, of input and of output */
};

/* Key pair types: the first argument of aven_keypair_unmarshal. */
enum {
    AVEN_KEY_ANY = 0, /* whatever the key text says */
    AVEN_KEY_SM2 = 1,
    AVEN_KEY_RSA = 3
};

/* RSA padding numbers: PkeyCipherParams.rsa_padding_e. */
enum {
    AVEN_RSA_OAEP = 0, /* RFC 8017 with SHA-256, also in MGF1, and no label */
    AVEN_RSA_PKCS1 = 1 /* RFC 8017, PKCS#1 v1.5 */
};

enum {
    AVEN_RSA_BITS_MIN = 2048,
    AVEN_RSA_BITS_MAX = 4096,
    AVEN_KEY_TEXT_MAX = 64 << 10,     /* bytes of a key's or certificate's text, or DER */
    AVEN_ENVELOPE_RECIPIENTS_MAX = 64 /* read; each may cost a use of the key */
};

/* What trying a password on an encrypted private key may cost: about two seconds. */
enum {
    AVEN_KEY_ITERATIONS_MAX = 2000000,    /* of PBKDF2 and of PBES1 */
    AVEN_KEY_SCRYPT_MAX = 1 << 20,        /* N * r * p */
    AVEN_KEY_SCRYPT_MEMORY_MAX = 32 << 20 /* bytes: 128 * r * (N + p + 2) */
};

/* Key exchange; see KEY_EXCHANGE.md. */
enum {
    AVEN_KE_SESSIONS_MAX = 1024, /* alive at once */
    AVEN_KE_MESSAGE_MAX = 256,   /* bytes of the client's key exchange */
    AVEN_KE_CHAIN_MAX = 10       /* certificates between a server's and its root */
};

/* Trusted roots. Certificates count as they are read, also those that occur again. */
enum {
    AVEN_KE_ROOTS_MAX = 1000,                /* certificates of a session */
    AVEN_KE_ROOT_BYTES_MAX = 2 << 20,        /* their DER */
    AVEN_KE_ROOT_FILE_BYTES_MAX = 16 << 20,  /* what is read for a session */
    AVEN_KE_ROOT_ENTRIES_MAX = 4096,         /* of a directory */
    AVEN_KE_ROOT_BYTES_OF_ALL_MAX = 32 << 20 /* DER in all sessions, the same roots once */
};

/*
 * The engine's result codes, one row each: X(name, code, text, likely cause, what to
 * do). aven_strerror returns the text.
 */
/* clang-format off */
#define AVEN_ENGINE_ERRORS(X)                                                             \
    X(AVEN_E_NOT_INITIALISED, -30001, "engine is not initialised",                        \
      "aven_global_init was not called, has failed, or aven_global_cleanup came first",   \
      "call aven_global_init and check its result")                                       \
    X(AVEN_E_NULL_POINTER, -30002, "null pointer where bytes or a length are required",   \
      "an input, a parameter block, an output buffer or its length is null",              \
      "pass valid pointers; null input is fine with length 0 only")                       \
    X(AVEN_E_BUFFER_TOO_SMALL, -30003, "output buffer is too small",                      \
      "the capacity passed in is below the result's length",                              \
      "offer the length that the call has stored")                                        \
    X(AVEN_E_INPUT_TOO_LONG, -30004, "input is too long",                                 \
      "the result's length would not fit in 32 bits, or a limit in engine_numbers.h is passed", \
      "send less at once")                                                                \
    X(AVEN_E_INPUT_EMPTY, -30005, "input is empty",                                       \
      "nothing to derive a key from, or to encrypt with SM2",                             \
      "pass at least one byte")                                                           \
    X(AVEN_E_OUTPUT_LENGTH, -30006, "requested output length is not possible",            \
      "key derivation was asked for no bytes or for more than 2^30",                      \
      "ask for 1 to 2^30 bytes")                                                          \
    X(AVEN_E_NO_MEMORY, -30007, "out of memory",                                          \
      "the process has no memory left for the call",                                      \
      "free memory and repeat the call")                                                  \
    X(AVEN_E_INTERNAL, -30008, "internal error of the cryptographic library",             \
      "libcrypto refused a call that should work",                                        \
      "report it with the engine's and libcrypto's versions")                             \
    X(AVEN_E_START, -30010, "engine could not be started",                                \
      "libcrypto's default provider or one of its algorithms is missing",                 \
      "install a complete OpenSSL 3")                                                     \
    X(AVEN_E_RANDOM, -30011, "random generator failed",                                   \
      "the system's source of randomness is not available",                               \
      "check that getrandom works in this environment")                                   \
    X(AVEN_E_LOG_TARGET, -30012, "log target could not be opened",                        \
      "the path does not exist or may not be written",                                    \
      "pass a writable path, /dev/stderr, or an empty text for no log")                   \
    X(AVEN_E_FAULTS, -30013, "faults on request are malformed",                           \
      "the environment variable CORVANE_ENGINE_FAULTS does not read as README.md describes",\
      "mend or remove the variable; the log names the entry")                             \
    X(AVEN_E_BASE64_CHARACTER, -30020, "character outside the Base64 alphabet",           \
      "the text is not Base64, or is in the URL-safe alphabet",                           \
      "rewrite \"-\" to \"+\" and \"_\" to \"/\" before the call")                        \
    X(AVEN_E_BASE64_ENDING, -30021, "Base64 text ends wrongly",                           \
      "the text is cut, has wrong padding, or has bits set behind its last byte",         \
      "send the text as the encoder produced it")                                         \
    X(AVEN_E_CIPHER_NUMBER, -30030, "unknown cipher number",                              \
      "the cipher number is outside 1 to 7",                                              \
      "corvane-host describe QZaven_crypto_encrypt lists the ciphers") \
    X(AVEN_E_MODE_NUMBER, -30031, "unknown cipher mode number",                           \
      "the mode number is outside 1 to 6",                                                \
      "corvane-host describe QZaven_crypto_encrypt lists the modes") \
    X(AVEN_E_PADDING_NUMBER, -30032, "unknown padding number",                            \
      "the padding number is neither 0 nor 1",                                            \
      "pass 0 for no padding or 1 for PKCS#7")                                            \
    X(AVEN_E_HASH_NUMBER, -30033, "unknown hash number",                                  \
      "the hash number is outside 1 to 6 (key derivation: 0 to 6)",                       \
      "corvane-host describe QZaven_crypto_hmac lists the hashes") \
    X(AVEN_E_WHITEBOX_KIND, -30034, "unknown kind of white-box cipher",                   \
      "the first argument is not 1",                                                      \
      "pass 1")                                                                           \
    X(AVEN_E_COMBINATION, -30035, "cipher is not available in this mode",                 \
      "3DES was asked for CTR or GCM",                                                    \
      "take another mode, or a cipher with a 128-bit block")                              \
    X(AVEN_E_KEY_LENGTH, -30040, "wrong key length",                                      \
      "the key does not have the cipher's length, or a MAC key is empty; hex digits that are read as Base64 give another length", \
      "16 bytes for SM4 and AES-128, 24 for AES-192 and 3DES, 32 for AES-256, ARIA-256 and Camellia-256; check the encoding, too") \
    X(AVEN_E_IV_LENGTH, -30041, "wrong IV length",                                        \
      "the IV is not one block long (GCM: 1 to 128 bytes; ECB: none)",                    \
      "check the IV and its encoding")                                                    \
    X(AVEN_E_DATA_LENGTH, -30042, "data length does not suit the cipher mode",            \
      "ECB or CBC data is not a multiple of the block (encrypted data, or no padding)",   \
      "to encrypt, pad: strCipherPadding=pkcs7, which is 1; to decrypt, check that the data is whole") \
    X(AVEN_E_TAG_LENGTH, -30043, "wrong tag length",                                      \
      "a GCM tag must have 4 to 16 bytes",                                                \
      "pass the tag and its length as encryption gave them")                              \
    X(AVEN_E_NOT_AUTHENTICATED, -30044, "mode does not authenticate",                     \
      "a tag or additional data was passed with a mode other than GCM",                   \
      "take GCM, or leave out the tag and the additional data")                                                     \
    X(AVEN_E_BAD_PADDING, -30045, "decrypted data is not padded correctly",               \
      "wrong key or IV, damaged data, or data that was encrypted without padding",        \
      "check key, IV, padding and data")                                                  \
    X(AVEN_E_TAG_MISMATCH, -30046, "authentication failed",                               \
      "data, additional data, tag, IV or key is not what was encrypted",                  \
      "treat the data as forged or damaged")                                              \
    X(AVEN_E_KEY_TYPE, -30050, "unknown key pair type",                                   \
      "the type is none of 0, 1 and 3",                                                   \
      "pass 1 for SM2, 3 for RSA, or 0 for whatever the key is")                          \
    X(AVEN_E_KEY_KIND, -30051, "key is not of the named type",                            \
      "an RSA key was named as SM2, or an SM2 key as RSA",                                \
      "pass the key's own type, or 0")                                                    \
    X(AVEN_E_KEY_ALGORITHM, -30052, "key is neither SM2 nor RSA",                         \
      "a key on another curve, an RSA-PSS key, or another algorithm altogether",          \
      "make a key on the SM2 curve or a plain RSA key")                                   \
    X(AVEN_E_RSA_SIZE, -30053, "RSA key has the wrong size",                              \
      "the modulus has fewer than 2048 or more than 4096 bits",                           \
      "make an RSA key of 2048 to 4096 bits")                                             \
    X(AVEN_E_KEY_MISSING, -30054, "no key",                                               \
      "neither a private nor a public key was passed, or no certificate",                 \
      "pass the text of one")                                                             \
    X(AVEN_E_KEY_TEXT, -30055, "key or certificate cannot be read",                       \
      "the text is none of the accepted forms, or is cut or damaged",                     \
      "send PEM or DER as a file has it (@FILE); openssl pkey -in FILE -noout shows whether the key is whole") \
    X(AVEN_E_KEY_TRAILING, -30056, "more follows behind the key or certificate",          \
      "a second PEM block, or bytes behind the end of the DER",                           \
      "pass one key or certificate and nothing behind it")                                \
    X(AVEN_E_KEY_ROLE, -30057, "key text is of another role",                             \
      "a public key or certificate where a private key goes, or the reverse",             \
      "strsk takes the private key, strpk the public key or certificate, strSig_cert and strEnc_cert certificates") \
    X(AVEN_E_KEY_INVALID, -30058, "key's values do not make a key",                       \
      "the point is not on the curve, or the numbers do not fit each other",              \
      "the key is damaged: export it again")                                              \
    X(AVEN_E_KEY_MISMATCH, -30059, "private and public key do not belong together",       \
      "the texts come from two different keys",                                           \
      "pass the two halves of one key, or one of them alone")                             \
    X(AVEN_E_PASSWORD_MISSING, -30060, "private key is encrypted, but there is no password", \
      "the password is null",                                                             \
      "pass the key's password")                                                          \
    X(AVEN_E_PASSWORD_WRONG, -30061, "private key does not open with this password",      \
      "wrong password, perhaps by the line end of the file that it stands in, or the encrypted key is damaged", \
      "check the password, also for a line end or blanks behind it")                      \
    X(AVEN_E_KEY_ENCRYPTION, -30062, "private key is encrypted in an unsupported way",    \
      "encrypted PEM older than PKCS#8, or a cipher that libcrypto's default provider lacks", \
      "convert it: openssl pkcs8 -topk8 -v2 aes-256-cbc")                                 \
    X(AVEN_E_HANDLE, -30063, "not a handle of this kind",                                 \
      "the handle is freed, foreign, or of another kind, or the engine was restarted since", \
      "pass a handle that the engine gave out and that is not freed")                     \
    X(AVEN_E_KEY_NOT_PRIVATE, -30064, "key pair has no private key",                      \
      "the key pair was made from a public key",                                          \
      "make the key pair from the private key")                                           \
    X(AVEN_E_RSA_PADDING, -30065, "unknown RSA padding number",                           \
      "the padding number is neither 0 nor 1",                                            \
      "pass 0 for OAEP or 1 for PKCS#1 v1.5")                                             \
    X(AVEN_E_SM2_FORM, -30066, "unknown SM2 ciphertext form",                             \
      "a flag of the form is neither 0 nor 1",                                            \
      "pass 0 or 1 in both flags")                                                        \
    X(AVEN_E_SM2_FORM_DIFFERS, -30067, "SM2 ciphertext's form does not match",            \
      "the ciphertext is raw instead of ASN.1 or the reverse, or C1C2C3 instead of C1C3C2 or the reverse", \
      "pass the flags with which it was encrypted")                                       \
    X(AVEN_E_DECRYPTION, -30068, "ciphertext does not decrypt",                           \
      "wrong key, wrong padding number, OAEP with another hash than SHA-256 in both places, or damaged ciphertext", \
      "check key, padding and ciphertext; OAEP by openssl's defaults has SHA-1: openssl pkeyutl -decrypt -pkeyopt rsa_padding_mode:oaep opens it, -pkeyopt rsa_oaep_md:sha256 at both ends avoids it") \
    X(AVEN_E_KEY_COST, -30069, "private key's password is too costly to try",             \
      "more than 2000000 iterations, or scrypt with N * r * p above 2^20 or with more than 32 MiB",\
      "encrypt the key anew: openssl pkcs8 -topk8 -iter 600000")                          \
    X(AVEN_E_ENVELOPE_ALGORITHM, -30070, "envelopes have no such cipher and mode",        \
      "the combination has no object identifier, or does not go with the kind of the key", \
      "for RSA: SM4, ARIA-256 and Camellia-256 in all modes, AES in all but CTR, 3DES in CBC; for SM2: SM4 in all but GCM") \
    X(AVEN_E_ENVELOPE_TEXT, -30071, "envelope cannot be read",                            \
      "the bytes are cut, damaged, or something other than an envelope in DER, as one in PEM or S/MIME", \
      "send it in DER: openssl cms -cmsout -outform DER turns the others into it, with -inform PEM or -inform SMIME") \
    X(AVEN_E_ENVELOPE_TRAILING, -30072, "more follows behind the envelope",               \
      "bytes were added at the end",                                                      \
      "send the envelope and nothing behind it")                                          \
    X(AVEN_E_ENVELOPE_UNKNOWN, -30073, "envelope uses an algorithm that is not supported", \
      "its content cipher, parameters or key transport are none that this engine knows",  \
      "make it with a cipher and mode that go with the key (see -30070), and RSA with PKCS#1 v1.5 or OAEP with SHA-1 or SHA-2; openssl cms -cmsout -print -inform DER shows them") \
    X(AVEN_E_ENVELOPE_DIFFERS, -30074, "envelope's cipher and mode are not the named ones", \
      "it was made with another cipher or mode",                                          \
      "name its own, which openssl cms -cmsout -print -inform DER shows as contentEncryptionAlgorithm") \
    X(AVEN_E_ENVELOPE_RECIPIENT, -30075, "envelope has no recipient with this kind of key", \
      "an SM2 key for an envelope to RSA keys, or the reverse",                           \
      "open it with the recipient's key")                                                 \
    X(AVEN_E_ENVELOPE_OPEN, -30076, "envelope does not open with this key",               \
      "wrong key, or damaged envelope",                                                   \
      "check the key and the envelope")                                                   \
    X(AVEN_E_ENVELOPE_SIGNED, -30077, "envelope is a signed one",                         \
      "its type is signedAndEnvelopedData, which this engine does not open",              \
      "have the sender make envelopedData; a signature can go inside")                    \
    X(AVEN_E_ENVELOPE_RECIPIENTS, -30078, "envelope has too many recipients",             \
      "more than 64 are listed",                                                          \
      "make several envelopes with fewer recipients each")                                \
    X(AVEN_E_KE_SESSIONS, -30080, "too many key-exchange sessions",                       \
      "1024 sessions are alive, perhaps because they are not freed",                      \
      "free sessions that are no longer used")                                            \
    X(AVEN_E_KE_TOO_EARLY, -30081, "key-exchange session has not come this far",          \
      "no trusted roots before the hello, no hello before the key exchange, or no key exchange before the channel",\
      "keep the order: set roots, client hello, client key exchange, channel")            \
    X(AVEN_E_KE_TOO_LATE, -30082, "key-exchange session is past this",                    \
      "settings are fixed by the hello, and hello and key exchange happen once",          \
      "make a new session")                                                               \
    X(AVEN_E_KE_ROOTS_OPEN, -30083, "trusted roots cannot be opened",                     \
      "the file or directory does not exist, is of another kind, or may not be read",     \
      "check the paths as the host's process sees them")                                  \
    X(AVEN_E_KE_ROOTS_NONE, -30084, "no trusted root certificate",                        \
      "neither file nor directory was named, or they hold no certificate",                \
      "name a file or directory with certificates in PEM or DER")                         \
    X(AVEN_E_KE_SERVER_RANDOM, -30085, "server's random has the wrong length",            \
      "it does not have 32 bytes",                                                        \
      "pass the server's random as the server sent it")                                   \
    X(AVEN_E_KE_UNTRUSTED, -30086, "server's certificate does not lead to a trusted root",\
      "its issuer is not among the roots or may not issue, or a signature on the way is too weak; the log says which",\
      "set the server's root and the certificates between")                               \
    X(AVEN_E_KE_EXPIRED, -30087, "server's certificate or an issuer's has expired",       \
      "the log says which one",                                                           \
      "renew the certificate, or set this machine's clock")                               \
    X(AVEN_E_KE_NOT_YET_VALID, -30088, "server's certificate or an issuer's is not valid yet",\
      "the log says which one",                                                           \
      "wait for its time, or set this machine's clock")                                   \
    X(AVEN_E_KE_CERTIFICATE_FORGED, -30089, "issuer's signature on server's certificate is wrong",\
      "damaged or forged, another issuer of the same name, or an SM2 signature with an ID other than the default one",\
      "use the certificate as it was issued; openssl needs -sigopt distid:1234567812345678")\
    X(AVEN_E_KE_USAGE, -30090, "server's certificate is for another use",                 \
      "its key usage is missing or another, or the two certificates were swapped",        \
      "signing needs digitalSignature, encryption keyEncipherment or dataEncipherment")   \
    X(AVEN_E_KE_KINDS, -30091, "server's certificates are of two kinds",                  \
      "one key is SM2, the other RSA",                                                    \
      "pass two certificates of one kind")                                                \
    X(AVEN_E_KE_SIGNATURE, -30092, "server's signature is wrong",                         \
      "it was made with another key, or over other randoms or another certificate",       \
      "pass the values that belong to this session's hello")                              \
    X(AVEN_E_KE_RSA_SIZE, -30093, "server's RSA encryption key is too large",             \
      "the key-exchange message has room for 256 bytes, a 2048-bit key's ciphertext",     \
      "give the server an encryption certificate with a 2048-bit key")                    \
    X(AVEN_E_KE_MESSAGE, -30094, "channel message is too short",                          \
      "it has fewer than the 28 bytes of nonce and tag",                                  \
      "pass the message as the other side sent it")                                       \
    X(AVEN_E_KE_ROOTS_TOO_MANY, -30095, "too many trusted roots for one session",         \
      "more than 1000 certificates or 2 MiB of them, or a directory with more than 4096 entries",\
      "name a file or directory with those roots alone that servers need")                \
    X(AVEN_E_KE_ROOTS_MEMORY, -30096, "too many different trusted roots in all sessions", \
      "the sessions that are alive hold 32 MiB of them",                                  \
      "free sessions that are no longer used, or give all the same roots")
/* clang-format on */

#define AVEN_ENGINE_ERROR_CODE(name, code, text, cause, remedy) name = (code),
enum { AVEN_ENGINE_ERRORS(AVEN_ENGINE_ERROR_CODE) AVEN_OK = 0 };
#undef AVEN_ENGINE_ERROR_CODE

/*
 * The plug-in's own codes, which its clients see in the same place, in rows of the same
 * shape. aven_strerror knows them too.
 */
/* clang-format off */
#define AVEN_PLUGIN_ERRORS(X)                                                             \
    X(AVEN_NO_MEMORY, -20000, "plug-in: output buffer could not be allocated",            \
      "the host's process has no memory for the engine's output",                         \
      "send smaller data, or give the process more memory")                               \
    X(PARAM_MISSING, -20001, "plug-in: required parameter is missing or empty",           \
      "a required parameter is not there under its exact name, or is empty",            \
      "give every required parameter; names are case-sensitive")                          \
    X(BASE64_INCOMPLETE, -20002, "plug-in: streaming Base64 input ends inside a group",   \
      "the text was cut: the number of its characters is not a multiple of four",         \
      "pass the whole text; no request gives this code, only the exported decoder does")  \
    X(PARAM_INVALID, -20084, "plug-in: parameter value is outside its allowed set or range", \
      "a number is out of range, or a flag, mode or type is none of its allowed digits",  \
      "corvane-host describe REQUEST lists the allowed values; blanks and leading zeros do not pass in flags")\
    X(AVEN_NOT_LOADED, -20215, "plug-in: library could not be opened, or the engine is not loaded or lacks the function", \
      "the crypto engine was not found, or is older than the plug-in; or Init was not called", \
      "check the loader's path and what Init printed; corvane-host doctor names what is missing") \
    X(PARAMS_FUNCTION_MISSING, -20216, "plug-in: function of the parameter module is missing", \
      "the host's parameter module is older than the plug-in, or another library of its name", \
      "install the right parameter module; corvane-host doctor names what is missing")
/* clang-format on */

#endif
