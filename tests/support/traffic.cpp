#include "support/traffic.h"

#include <openssl/crypto.h>

#include <utility>

#include "support/traffic_work.h"

namespace support {

TrafficSetting::TrafficSetting() : m_content(new Content) {}

TrafficSetting::~TrafficSetting() = default;

// Of a thousand requests, about one in each of the kinds that use a public key.
const TrafficClient::Work::Kind TrafficClient::Work::KINDS[21] = {
    {200, &Work::version},
    {300, &Work::errorText},
    {900, &Work::base64Encode},
    {900, &Work::base64Decode},
    {3, &Work::renewSession},
    {700, &Work::channelEncrypt},
    {700, &Work::channelDecrypt},
    {700, &Work::channelHmac},
    {700, &Work::channelCmac},
    {10, &Work::publicEncrypt},
    {10, &Work::privateDecrypt},
    {1000, &Work::encrypt},
    {1000, &Work::decrypt},
    {500, &Work::generateKey},
    {700, &Work::hmac},
    {700, &Work::cmac},
    {700, &Work::kdf},
    {10, &Work::envelopeEncrypt},
    {10, &Work::envelopeDecrypt},
    {600, &Work::whiteBoxEncrypt},
    {600, &Work::whiteBoxDecrypt},
};

void TrafficClient::Work::act()
{
    unsigned total = 0;
    for (const Kind& kind : KINDS)
        total += kind.weight;
    uint64_t drawn = below(total);
    for (const Kind& kind : KINDS) {
        if (drawn < kind.weight)
            return run(kind);
        drawn -= kind.weight;
    }
}

void TrafficClient::Work::actInEveryWay()
{
    for (const Kind& kind : KINDS)
        run(kind);
}

void TrafficClient::Work::leave()
{
    if (m_session.empty())
        return;
    ask("QZaven_ke_free", {{"strKe", m_session}}, {{"errorCode", "0"}});
    m_session.clear();
    m_channel.reset();
}

// ---- Texts

void TrafficClient::Work::version()
{
    const std::string text = textOf("QZaVen_GetVersion", {});
    expect(text.find("development engine") != std::string::npos &&
               text.find(OpenSSL_version(OPENSSL_VERSION_STRING)) != std::string::npos,
           "another version");
}

void TrafficClient::Work::errorText()
{
    static const std::pair<int, const char*> texts[] = {
        {0, "success"},
#define ROW(name, code, text, cause, remedy) {code, text},
        AVEN_ENGINE_ERRORS(ROW) AVEN_PLUGIN_ERRORS(ROW)
#undef ROW
    };
    const char* const name = "QZaVen_strerror";
    if (isToErr())
        return ask(name, {}, {{"Data", ""}});
    const auto& [code, text] = texts[below(std::size(texts))];
    ask(name, {{"strErr", number(code)}}, {{"Data", text}});
}

void TrafficClient::Work::base64Encode()
{
    const char* const name = "QZaven_crypto_base64_encode";
    const std::string data = somePayload();
    if (isToErr())
        return err(name, {{"strIn", data}}, {{"strIn", "", MISSING}});
    askFor(name, {{"strIn", data}}, data);
}

void TrafficClient::Work::base64Decode()
{
    const char* const name = "QZaven_crypto_base64_Decode";
    const std::string data = somePayload();
    const std::string text = toUrlBase64(data);
    if (isToErr())
        return err(name, {{"strIn", text}},
                   {{"strIn", "", MISSING},
                    {"strIn", "AA*A" + text, AVEN_E_BASE64_CHARACTER},
                    {"strIn", toUrlBase64("abc") + "A", AVEN_E_BASE64_ENDING}});
    ask(name, {{"strIn", text}}, {{"Data", oracle::escapedTwice(data)}, {"errorCode", "0"}});
}

// ---- The client's outside

TrafficClient::TrafficClient(const DevkitHost& host, const TrafficSetting& setting, uint32_t number,
                             uint64_t seed, size_t smallest)
    : m_work(new Work(host, setting.content(), number, seed, smallest))
{
}

TrafficClient::~TrafficClient() = default;

void TrafficClient::act()
{
    m_work->act();
}

void TrafficClient::actInEveryWay()
{
    m_work->actInEveryWay();
}

void TrafficClient::leave()
{
    m_work->leave();
}

const TrafficCount& TrafficClient::count() const
{
    return m_work->count;
}

}  // namespace support
