#include "addressee.h"

#include "service/bodies/refusal.h"
#include "service/operation/nodes.h"
#include "service/workers/session_requests.h"

namespace {

void requireNode(std::string_view node, const std::string& own, const std::string& field)
{
    if (!node.empty() && node != own)
        throw Refusal(Reason::wrong_node, field, {{"node", std::string(node)}});
}

[[noreturn]] void refuseContradiction(const char* header, const std::string& other,
                                      const char* name)
{
    throw Refusal(Reason::header_contradicts, other, {{"header", header}, {"name", name}});
}

}  // namespace

void checkHeaders(const Addressee& to)
{
    if (!to.node.empty() && !isNodeName(to.node))
        throw Refusal(Reason::bad_node_header, nodeHeader);
    const auto node = nodeOfSession(to.session);
    if (!to.session.empty() && !node)
        throw Refusal(Reason::bad_session_header, sessionHeader);
    if (!to.node.empty() && node && !node->empty() && *node != to.node)
        refuseContradiction(nodeHeader, nodeHeader, sessionHeader);
}

void checkSession(const Addressee& to, const std::string& token, const std::string& own,
                  const std::string& field)
{
    if (!to.session.empty() && token != to.session)
        refuseContradiction(sessionHeader, field, sessionParameter);
    const auto node = nodeOfSession(token);
    if (!node || node->empty())
        return;
    if (!to.node.empty() && *node != to.node)
        refuseContradiction(nodeHeader, field, sessionParameter);
    requireNode(*node, own, field);
}

void checkNode(const Addressee& to, const std::string& own)
{
    requireNode(nodeOfSession(to.session).value_or(""), own, sessionHeader);
    requireNode(to.node, own, nodeHeader);
}
