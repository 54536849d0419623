#include "worker.h"

#include <openssl/rand.h>

#include <array>

#include "common/codec.h"

namespace {

// For trying: the oldest exchange makes room for a new one.
constexpr size_t MOST_EXCHANGES = 256;

SecretText valueOf(const WireRequest& request, const char* name)
{
    const std::string* value = nullptr;
    for (const auto& [given, text] : request.parameters)
        if (given == name)
            value = &text;
    if (value == nullptr)
        throw PeerError(std::string(name) + " is missing");
    return *value;
}

SecretText bytesOf(const WireRequest& request, const char* name)
{
    auto bytes = fromBase64(valueOf(request, name));
    if (!bytes)
        throw PeerError(std::string(name) + " is not Base64");
    return *std::move(bytes);
}

std::string makeToken()
{
    std::array<unsigned char, 18> random{};
    if (RAND_bytes(random.data(), static_cast<int>(random.size())) != 1)
        throw PeerError("no random bytes");
    return toUrlBase64({reinterpret_cast<const char*>(random.data()), random.size()});
}

}  // namespace

PeerWorker::PeerWorker() : m_root(makeRoot(rootPlan(), KeyKind::Sm2))
{
    m_server = {makeCredential(signingPlan(), KeyKind::Sm2, m_root),
                makeCredential(encryptionPlan(), KeyKind::Sm2, m_root)};
}

PeerWorker::Exchange& PeerWorker::find(const std::string& token)
{
    for (Exchange& exchange : m_exchanges)
        if (exchange.token == token)
            return exchange;
    throw PeerError("there is no such exchange: it has ended or never was");
}

SecretPairs PeerWorker::begin(const std::string& hello)
{
    const ServerAnswer made = answerHello(m_server, hello);
    if (m_exchanges.size() == MOST_EXCHANGES)
        m_exchanges.pop_front();
    m_exchanges.push_back({makeToken(), hello, made.random, std::nullopt});
    return Pairs{{"exchange", m_exchanges.back().token},
                 {"strSrvr_rand", toUrlBase64(made.random)},
                 {"strSrvr_sig_cert", toUrlBase64(made.signingCertificate)},
                 {"strSrvr_enc_cert", toUrlBase64(made.encryptionCertificate)},
                 {"strSrvr_sign", toUrlBase64(made.signature)},
                 {"root", toUrlBase64(toPem(m_root.certificate.get()))}};
}

SecretPairs PeerWorker::answer(const WireRequest& request)
{
    if (request.name == "root")
        return Pairs{{"root", toUrlBase64(toPem(m_root.certificate.get()))}};
    if (request.name == "answer")
        return begin(bytesOf(request, "hello"));

    Exchange& exchange = find(valueOf(request, "exchange"));
    if (request.name == "finish") {
        if (exchange.keys)
            throw PeerError("the exchange is finished already");
        exchange.keys = acceptKeyExchange(m_server, exchange.hello, exchange.random,
                                          bytesOf(request, "message"));
        return {};
    }
    if (!exchange.keys)
        throw PeerError("there are no keys yet: \"finish\" derives them");
    const SecretText data = bytesOf(request, "data");
    if (request.name == "encrypt")
        return Pairs{{"Data", toUrlBase64(sealMessage(*exchange.keys, data))}};
    if (request.name == "decrypt")
        return Pairs{{"Data", toUrlBase64(SecretText(openMessage(*exchange.keys, data)))}};
    if (request.name == "hmac")
        return Pairs{{"Data", toUrlBase64(channelHmac(*exchange.keys, data))}};
    if (request.name == "cmac")
        return Pairs{{"Data", toUrlBase64(channelCmac(*exchange.keys, data))}};
    throw PeerError("there is no such step");
}

void PeerWorker::serve(int socket)
{
    WireReply ready;
    ready.kind = WireReply::Ready;
    ready.text = "corvane-ke-peer";
    if (!writeFrame(socket, encode(ready)))
        return;

    RequestReader requests(socket);
    WireRequest request;
    std::vector<Descriptor> files;  // no step has any
    while (requests.next(request, files)) {
        WireReply reply;
        reply.code = "peer_refused";
        try {
            reply.results = answer(request);
            reply.ok = true;
        } catch (const PeerError& e) {
            reply.text = e.what();
        } catch (const Failure&) {
            reply.text = "libcrypto failed";
        }
        wipe(request.parameters);
        if (!writeFrame(socket, encode(reply)))
            return;
    }
}
