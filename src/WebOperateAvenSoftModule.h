// The request handlers: one member for each request name.
#ifndef CORVANE_WEBOPERATEAVENSOFTMODULE_H
#define CORVANE_WEBOPERATEAVENSOFTMODULE_H

#include <string>

#include "WebServerBase.h"
#include "engine_binding.h"

// Codes that the handlers raise themselves; any other code comes from the engine
// binding and is passed on.
constexpr int PARAM_MISSING = -20001;  // a required parameter is missing or empty
constexpr int PARAM_INVALID = -20084;  // a parameter is outside its set or range

// Serves one request and is then destroyed. A handler reads its parameters, checks and
// converts them, calls the engine and writes its results; it never throws.
class __attribute__((visibility("default"))) CWebOperateAvenSoftModule : public CWebServerBase {
public:
    CWebOperateAvenSoftModule();
    ~CWebOperateAvenSoftModule() override;

    // The place of a name among the request names, 0 to 26, or -1.
    int GetFunctionID(std::string name);

    // Which handler Request runs; -1 and other numbers run none.
    void SetFunctionID(int id);

    // Empties the results, runs the handler, empties the request parameters. Returns
    // the empty text.
    std::string Request() override;

    void makeaVen_GetVersion();
    void makeaVen_strerror();
    void makeaven_crypto_base64_encode();
    void makeaven_crypto_base64_Decode();
    void makeaven_ke_new();
    void makeaven_ke_free();
    void makeaven_ke_set_public_key();
    void makeaven_ke_set_certificate();
    void makeaven_ke_set_root_certificate();
    void makeaven_ke_client_hello();
    void makeaven_ke_client_key_exchange();
    void makeaven_ke_encrypt();
    void makeaven_ke_decrypt();
    void makeaven_ke_hmac();
    void makeaven_ke_cmac();
    void makeaven_crypto_public_encrypt();
    void makeaven_crypto_private_decrypt();
    void makeaven_crypto_encrypt();
    void makeaven_crypto_decrypt();
    void makeaven_crypto_gen_symmkey();
    void makeaven_crypto_hmac();
    void makeaven_crypto_cmac();
    void makeaven_crypto_kdf();
    void makeaven_crypto_envelope_encrypt();
    void makeaven_crypto_envelope_decrypt();
    void makeaven_wbsm4_encrypt();
    void makeaven_wbsm4_decrypt();

private:
    using SessionKeySetter = int (CSoftMoudle_aven::*)(std::string ke, std::string sig,
                                                       std::string enc, std::string password);
    using ChannelOperation = int (CSoftMoudle_aven::*)(std::string ke, std::string in,
                                                       std::string& out);
    using BlockOperation = int (CSoftMoudle_aven::*)(const void* params, std::string in,
                                                     std::string& out);
    using WhiteBoxOperation = int (CSoftMoudle_aven::*)(std::string key, std::string iv,
                                                        std::string& in, std::string& out);

    // Writing "Data" and "errorCode", or the latter alone. Never throws.
    [[gnu::visibility("hidden")]] void reply(std::string& data, int code);
    [[gnu::visibility("hidden")]] void replyCode(int code);

    // The bodies of requests that differ in these arguments alone.
    [[gnu::visibility("hidden")]] void setSessionKeys(const char* sigName, const char* encName,
                                                      SessionKeySetter set);
    [[gnu::visibility("hidden")]] void useChannel(const char* dataName, ChannelOperation operation);
    template <class ReadKey>
    [[gnu::visibility("hidden")]] void usePublicKey(ReadKey readKey, BlockOperation operation);
    [[gnu::visibility("hidden")]] void useMac(const char* algName, int algs,
                                              BlockOperation operation);
    [[gnu::visibility("hidden")]] void useWhiteBox(WhiteBoxOperation operation);
    [[gnu::visibility("hidden")]] void freeKeypair(void* keypair);

    int m_functionID;
    CSoftMoudle_aven m_softMoudleAven;
};

#endif
