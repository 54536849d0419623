#include "worker.h"

#include "common/secrets.h"
#include "host/exchange.h"
#include "session_requests.h"

namespace {

std::string& parameter(Pairs& parameters, const std::string& name)
{
    for (auto& pair : parameters)
        if (pair.first == name)
            return pair.second;
    return parameters.emplace_back(name, "").second;
}

}  // namespace

WireReply Worker::answer(WireRequest& request, const std::vector<Descriptor>& files)
{
    WireReply reply;
    const RequestInfo* info = findRequest(request.name);
    const bool makesSession = request.name == newSessionRequest;

    if (!request.session.empty() && !makesSession) {
        const auto handle = m_handles.find(request.session);
        if (handle == m_handles.end()) {
            reply.kind = WireReply::SessionGone;
            return reply;
        }
        parameter(request.parameters, sessionParameter) = handle->second;
        // Whatever the engine answers: a handle that it was told to free is never used again.
        if (request.name == freeSessionRequest)
            m_handles.erase(handle);
    }
    for (size_t i = 0; i < request.files.size() && i < files.size(); ++i)
        parameter(request.parameters, request.files[i]) =
            "/proc/self/fd/" + std::to_string(files[i].get());

    try {
        Outcome outcome = exchange(m_session, info, request.name, request.parameters);
        reply.ok = outcome.ok;
        reply.code = outcome.code;
        reply.text = outcome.text;
        reply.microseconds = outcome.microseconds;
        reply.results = std::move(outcome.results);
    } catch (const LoadError& e) {
        reply.kind = WireReply::Failed;
        reply.text = e.what();
        return reply;
    }

    if (makesSession) {
        std::string& handle = parameter(reply.results, "Data");
        reply.ok = reply.ok && !handle.empty();
        if (reply.ok)
            m_handles[request.session] = std::exchange(handle, std::string(request.session));
    }
    return reply;
}

void Worker::serve(int socket)
{
    WireReply ready;
    ready.kind = WireReply::Ready;
    Pairs version = m_session.send("QZaVen_GetVersion", {}).results;
    if (const std::string* text = findValue(version, "Data"))
        ready.text = *text;
    if (!writeFrame(socket, encode(ready)))
        return;

    RequestReader requests(socket);
    WireRequest request;
    std::vector<Descriptor> files;
    for (uint64_t number = 0; requests.next(request, files); ++number) {
        WireReply reply;
        if (m_claims.begin(number))
            reply = answer(request, files);
        else
            reply.kind = WireReply::TakenBack;
        wipe(request.parameters);
        files.clear();
        const SecretText bytes = encode(reply);
        wipe(reply.results);
        if (!writeFrame(socket, bytes))
            return;
    }
}
