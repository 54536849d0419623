#include "key_exchange_answers.h"

#include <sys/mman.h>
#include <unistd.h>

#include "common/codec.h"
#include "samples.h"

namespace {

// A key-exchange session, freed at the end.
class KeySession {
public:
    explicit KeySession(Client& client)
        : m_client(client), m_handle(client.bytes("QZaven_ke_new", {}))
    {
    }
    ~KeySession()
    {
        if (!m_freed)
            m_client.ask("QZaven_ke_free", {{"strKe", m_handle}});
    }
    KeySession(const KeySession&) = delete;
    KeySession& operator=(const KeySession&) = delete;

    const std::string& handle() const { return m_handle; }

    Pairs with(Pairs more) const
    {
        more.emplace(more.begin(), "strKe", m_handle);
        return more;
    }

    void free()
    {
        m_freed = true;
        m_client.get("QZaven_ke_free", {{"strKe", m_handle}});
    }

    // The sample certificate as the only root, in a file without a name.
    void setRoots()
    {
        std::string base64 = toBase64(fromBase64(samples::rsaCertificate).value());
        std::string pem = "-----BEGIN CERTIFICATE-----\n";
        for (size_t at = 0; at < base64.size(); at += 64)
            pem += base64.substr(at, 64) + "\n";
        pem += "-----END CERTIFICATE-----\n";

        const int file = memfd_create("roots", MFD_CLOEXEC);
        const bool written =
            write(file, pem.data(), pem.size()) == static_cast<ssize_t>(pem.size());
        const std::string path = "/proc/self/fd/" + std::to_string(file);
        const Outcome outcome =
            m_client.ask("QZaven_ke_set_root_certificate", with({{"strCa_file", path}}));
        close(file);
        if (!written || !outcome.ok)
            throw Refused{"QZaven_ke_set_root_certificate", outcome.code, outcome.text};
    }

    std::string hello() { return m_client.bytes("QZaven_ke_client_hello", with({})); }

private:
    Client& m_client;
    std::string m_handle;
    bool m_freed = false;
};

// What must be refused, with a code of the engine's.
Verdict mustRefuse(const Outcome& outcome, const std::string& what)
{
    if (outcome.code == "-20215")
        return {Status::Fail, "refused with -20215: the engine lacks the function",
                "take an engine that has it"};
    if (!outcome.ok)
        return fine("refuses " + what + ": " + outcome.code + ", " + outcome.text);
    const std::string* data = findValue(outcome.results, "Data");
    if (data != nullptr && data->empty())
        return {Status::Note, "neither result nor error code for " + what,
                "a host must take empty Data for a failure"};
    return {Status::Fail, "succeeds with " + what, "do not use this engine's key exchange"};
}

}  // namespace

Verdict keNew(Client& client)
{
    const KeySession session(client);
    return session.handle().empty()
               ? Verdict{Status::Fail, "success without a session", "replace the engine"}
               : fine("a session");
}

Verdict keFree(Client& client)
{
    KeySession session(client);
    session.free();
    return fine("freed");
}

Verdict keSetKeys(Client& client)
{
    const KeySession session(client);
    client.get("QZaven_ke_set_public_key", session.with({{"strSig_key", samples::sm2PrivateKey},
                                                         {"strEnc_key", samples::sm2PrivateKey}}));
    return fine("takes an SM2 key, PKCS#8");
}

Verdict keSetCertificates(Client& client)
{
    const KeySession session(client);
    client.get("QZaven_ke_set_certificate",
               session.with({{"strSig_cert", samples::rsaCertificate},
                             {"strEnc_cert", samples::rsaCertificate}}));
    return fine("takes an X.509 certificate");
}

Verdict keSetRoots(Client& client)
{
    KeySession(client).setRoots();
    return fine("takes a file with a root certificate, PEM");
}

Verdict keHello(Client& client)
{
    KeySession first(client);
    KeySession second(client);
    first.setRoots();
    second.setRoots();
    const std::string hello = first.hello();
    if (hello.empty() || hello.size() > 32)
        return {Status::Fail, "a hello of " + std::to_string(hello.size()) + " bytes",
                "it must have 1 to 32: replace the engine"};
    if (hello == second.hello())
        return {Status::Fail, "two sessions say the same hello",
                "the engine's random numbers are none: replace it"};
    return fine(std::to_string(hello.size()) + " bytes, others in each session");
}

Verdict keExchange(Client& client)
{
    KeySession session(client);
    session.setRoots();
    session.hello();
    const std::string zeros = toUrlBase64(std::string(32, '\0'));
    return mustRefuse(client.ask("QZaven_ke_client_key_exchange",
                                 session.with({{"strSrvr_rand", zeros},
                                               {"strSrvr_sig_cert", samples::rsaCertificate},
                                               {"strSrvr_enc_cert", samples::rsaCertificate},
                                               {"strSrvr_sign", zeros}})),
                      "a server without a valid signature");
}

// The channel, whose keys come from the other side.
Test keChannel(const std::string& name)
{
    return [name](Client& client) {
        const KeySession session(client);
        const std::string data = toUrlBase64(samples::message);
        return mustRefuse(client.ask(name, session.with({{"strdata", data}, {"strcipher", data}})),
                          "a session without keys");
    };
}
