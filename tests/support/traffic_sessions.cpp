// The requests of a key exchange and of the channel that it opens.
#include "support/traffic_work.h"

namespace support {

void TrafficClient::Work::renewSession()
{
    const std::string old = m_session;
    leave();
    if (!old.empty())
        ask("QZaven_ke_free", {{"strKe", old}}, {{"errorCode", number(AVEN_E_HANDLE)}});
    const TrafficKeys& keys = this->keys();
    setUpSession(keys);
    exchangeKeys(keys);
}

// Up to the trusted roots.
void TrafficClient::Work::setUpSession(const TrafficKeys& keys)
{
    m_session = textOf("QZaven_ke_new", {});
    ask("QZaven_ke_hmac", {{"strKe", m_session}},
        {{"Data", ""}, {"errorCode", number(AVEN_E_KE_TOO_EARLY)}});

    const char* name = "QZaven_ke_set_public_key";
    Parameters parameters = {{"strKe", m_session},
                             {"strSig_key", keys.lockedText},
                             {"strEnc_key", keys.publicText},
                             {"strPassword", TrafficKeys::PASSWORD}};
    err(name, parameters,
        {{"strKe", "", MISSING},
         {"strSig_key", toUrlBase64("no key"), AVEN_E_KEY_TEXT},
         {"strPassword", "another", AVEN_E_PASSWORD_WRONG}},
        {});
    ask(name, parameters, {{"errorCode", "0"}});

    name = "QZaven_ke_set_certificate";
    parameters = {{"strKe", m_session},
                  {"strSig_cert", keys.certificateText},
                  {"strEnc_cert", keys.certificateText}};
    err(name, parameters,
        {{"strKe", "", MISSING}, {"strEnc_cert", keys.publicText, AVEN_E_KEY_ROLE}}, {});
    ask(name, parameters, {{"errorCode", "0"}});

    name = "QZaven_ke_set_root_certificate";
    parameters = {{"strKe", m_session}, {"strCa_file", keys.rootFile}};
    err(name, parameters,
        {{"strKe", "", MISSING},
         {"strCa_file", "", MISSING},
         {"strCa_file", keys.rootFile + ".none", AVEN_E_KE_ROOTS_OPEN}},
        {});
    ask(name, parameters, {{"errorCode", "0"}});
}

void TrafficClient::Work::exchangeKeys(const TrafficKeys& keys)
{
    const char* name = "QZaven_ke_client_hello";
    const Parameters session = {{"strKe", m_session}};
    const std::string hello = bytesOf(name, session);
    err(name, session, {{"strKe", "", MISSING}, {"strKe", m_session, AVEN_E_KE_TOO_LATE}});

    const ServerAnswer server = answerHello(keys.server, hello);
    name = "QZaven_ke_client_key_exchange";
    const Parameters parameters = {
        {"strKe", m_session},
        {"strSrvr_rand", toUrlBase64(server.random)},
        {"strSrvr_sig_cert", toUrlBase64(server.signingCertificate)},
        {"strSrvr_enc_cert", toUrlBase64(server.encryptionCertificate)},
        {"strSrvr_sign", toUrlBase64(server.signature)},
    };
    err(name, parameters,
        {{"strKe", "", MISSING},
         {"strSrvr_rand", toUrlBase64(server.random + "!"), AVEN_E_KE_SERVER_RANDOM},
         {"strSrvr_rand", toUrlBase64(damaged(server.random)), AVEN_E_KE_SIGNATURE},
         {"strSrvr_sig_cert", keys.certificateText, AVEN_E_KE_UNTRUSTED}});
    m_channel = acceptKeyExchange(keys.server, hello, server.random, bytesOf(name, parameters));
}

TrafficClient::Work::Mistakes TrafficClient::Work::channelMistakes() const
{
    return {{"strKe", "", MISSING},
            {"strKe", "0", AVEN_E_NULL_POINTER},
            {"strKe", number(static_cast<long long>(m_number) + 4096), AVEN_E_HANDLE}};
}

// Data may be empty, too.
void TrafficClient::Work::channelEncrypt()
{
    if (!m_channel)
        renewSession();
    const char* const name = "QZaven_ke_encrypt";
    const std::string data = oneIn(100) ? "" : somePayload();
    const Parameters parameters = {{"strKe", m_session}, {"strdata", toUrlBase64(data)}};
    if (isToErr())
        return err(name, parameters, channelMistakes());
    expect(openMessage(*m_channel, bytesOf(name, parameters)) == data, "another text is sealed");
}

void TrafficClient::Work::channelDecrypt()
{
    if (!m_channel)
        renewSession();
    const char* const name = "QZaven_ke_decrypt";
    const std::string data = somePayload();
    const std::string message = sealMessage(*m_channel, data);
    const Parameters parameters = {{"strKe", m_session}, {"strcipher", toUrlBase64(message)}};
    if (isToErr()) {
        Mistakes mistakes = channelMistakes();
        mistakes.push_back({"strcipher", "", AVEN_E_KE_MESSAGE});
        mistakes.push_back({"strcipher", toUrlBase64(damaged(message)), AVEN_E_TAG_MISMATCH});
        mistakes.push_back({"strcipher",
                            toUrlBase64(sealMessage(*m_channel, data, Direction::ToServer)),
                            AVEN_E_TAG_MISMATCH});
        return err(name, parameters, mistakes);
    }
    askFor(name, parameters, data);
}

void TrafficClient::Work::channelHmac()
{
    if (!m_channel)
        renewSession();
    const char* const name = "QZaven_ke_hmac";
    const std::string data = somePayload();
    const Parameters parameters = {{"strKe", m_session}, {"strdata", toUrlBase64(data)}};
    if (isToErr())
        return err(name, parameters, channelMistakes());
    const Bytes key = m_channel->hmac();
    askFor(name, parameters,
           oracle::hmac(m_channel->hash(),
                        std::string(reinterpret_cast<const char*>(key.data), key.size), data));
}

void TrafficClient::Work::channelCmac()
{
    if (!m_channel)
        renewSession();
    const char* const name = "QZaven_ke_cmac";
    const std::string data = somePayload();
    const Parameters parameters = {{"strKe", m_session}, {"strdata", toUrlBase64(data)}};
    if (isToErr())
        return err(name, parameters, channelMistakes());
    const Bytes key = m_channel->cmac();
    askFor(name, parameters,
           oracle::cmac(AVEN_CIPHER_SM4,
                        std::string(reinterpret_cast<const char*>(key.data), key.size), data));
}

}  // namespace support
