// The binding to the crypto engine (engine_interface.h): loading it, and one member
// for each of its functions that turns texts into buffers and back.
#ifndef CORVANE_ENGINE_BINDING_H
#define CORVANE_ENGINE_BINDING_H

#include <string>

// Codes of the binding; any other code is the engine's own.
constexpr int AVEN_NOT_LOADED = -20215;  // no engine is loaded, or it lacks the function
constexpr int AVEN_NO_MEMORY = -20000;   // the output buffer could not be allocated

// The handle that a text made by CSoftMoudle_aven::GetStrForInt stands for; 0 if the
// text does not begin with a number.
__attribute__((visibility("default"))) long GetPtrForStr(std::string text);

// The engine and its functions are process-wide; an object holds only the code of its
// last call. Nothing is locked.
//
// Each call returns 0 or a code; with a code it leaves its outputs as they were. No
// exception leaves a call: after one (thrown by the engine, or for want of memory) it
// returns the code held so far, mostly 0, and leaves its outputs as they were too.
class __attribute__((visibility("default"))) CSoftMoudle_aven {
public:
    CSoftMoudle_aven();
    ~CSoftMoudle_aven();

    // Opens the engine and resolves its functions; one that it lacks fails only when it
    // is called. An engine that is already open stays open and is forgotten. Prints
    // "<path> load fail" and returns AVEN_NOT_LOADED if it cannot be opened.
    int loadLibrary(const char* path);
    void unloadLibrary();

    // Whether an engine is loaded; sets the code to 0 or AVEN_NOT_LOADED.
    bool isLoad();
    int get_ErrorCode();

    // Initialises the engine, then has it write its log to `logTarget` whether or not
    // that succeeded.
    int aven_global_init(std::string logTarget);
    int aven_global_cleanup();
    // Empty if the engine has no such text. `code` is read as a decimal number.
    std::string aven_version();
    std::string aven_strerror(std::string code);

    // A handle as the decimal text in which it travels between requests.
    std::string GetStrForInt(long value);

    int aven_crypto_base64_encode(bool encode, std::string in, std::string& out);

    // Key exchange. `ke` is the text of a handle and is not checked. Empty keys,
    // certificates, passwords and paths reach the engine as null.
    int aven_ke_new(std::string& ke);
    int aven_ke_free(std::string ke);
    int aven_ke_set_public_key(std::string ke, std::string sigKey, std::string encKey,
                               std::string password);
    int aven_ke_set_certificate(std::string ke, std::string sigCert, std::string encCert,
                                std::string password);
    int aven_ke_set_root_certificate(std::string ke, std::string caFile, std::string caPath);
    int aven_ke_client_hello(std::string ke, std::string& out);  // at most 32 bytes
    int aven_ke_client_key_exchange(std::string ke, std::string srvrRand, std::string srvrSigCert,
                                    std::string srvrEncCert, std::string srvrSign,
                                    std::string& out);  // at most 256 bytes
    int aven_ke_encrypt(std::string ke, std::string in, std::string& out);
    int aven_ke_decrypt(std::string ke, std::string in, std::string& out);
    int aven_ke_hmac(std::string ke, std::string in, std::string& out);
    int aven_ke_cmac(std::string ke, std::string in, std::string& out);

    // `params` is the PkeyCipherParams, SymmCipherParams, MacParams or EnvelopeParams
    // block of the function. Public encryption sizes its output by the type of the key
    // pair that was last read successfully in the process.
    int aven_crypto_public_encrypt(const void* params, std::string in, std::string& out);
    int aven_crypto_private_decrypt(const void* params, std::string in, std::string& out);
    // In mode 6 `tag` receives tagLen bytes, at most 512.
    int aven_crypto_encrypt(const void* params, std::string in, std::string& out, std::string& tag,
                            int tagLen);
    int aven_crypto_decrypt(const void* params, std::string in, std::string tag, std::string& out);
    int aven_crypto_gen_symmkey(int type, std::string& out);
    int aven_crypto_hmac(const void* params, std::string in, std::string& out);
    int aven_crypto_cmac(const void* params, std::string in, std::string& out);
    int aven_crypto_kdf(int alg, std::string in, int keyLen, std::string& out);
    int aven_crypto_envelope_encrypt(const void* params, std::string in, std::string& out);
    int aven_crypto_envelope_decrypt(const void* params, std::string in, std::string& out);

    // Key pairs and certificates. A successful read hands the caller an object to free;
    // freeing null is allowed.
    int aven_keypair_read(int type, std::string privateKey, std::string publicKey,
                          std::string password, void** keypair);
    int aven_keypair_free(void* keypair);
    int aven_certificate_read(std::string cert, std::string password, void** certificate);
    int aven_certificate_free(void* certificate);

    int aven_wbsm4_encrypt(std::string key, std::string iv, std::string& in, std::string& out);
    int aven_wbsm4_decrypt(std::string key, std::string iv, std::string& in, std::string& out);

private:
    class __attribute__((visibility("hidden"))) Call;

    int m_errorCode;
};

#endif
