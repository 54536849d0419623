// The steps of the key exchange's bundled other side, as `corvane-host serve` offers them:
// what corvane-ke-peer's worker takes and gives. All members are texts, bytes as URL-safe
// Base64, and all are required.
#ifndef CORVANE_HOST_CATALOGUE_PEER_STEPS_H
#define CORVANE_HOST_CATALOGUE_PEER_STEPS_H

#include <string>
#include <vector>

struct PeerStep {
    const char* name;
    const char* summary;
    std::vector<const char*> members;
    std::vector<const char*> results;
};

const std::vector<PeerStep>& peerSteps();
const PeerStep* findPeerStep(const std::string& name);

#endif
