#include "peer_steps.h"

// clang-format off
const std::vector<PeerStep>& peerSteps()
{
    static const std::vector<PeerStep> steps = {
        {"root",    "The root certificate, which the client must trust.",
            {}, {"root"}},
        {"answer",  "Answers a client hello.",
            {"hello"}, {"exchange", "strSrvr_rand", "strSrvr_sig_cert", "strSrvr_enc_cert", "strSrvr_sign", "root"}},
        {"finish",  "Takes the client's message; then both sides have keys.",
            {"exchange", "message"}, {}},
        {"encrypt", "Encrypts for the client.",             {"exchange", "data"}, {"Data"}},
        {"decrypt", "Decrypts what the client encrypted.",  {"exchange", "data"}, {"Data"}},
        {"hmac",    "HMAC with the exchange's keys.",       {"exchange", "data"}, {"Data"}},
        {"cmac",    "CMAC with the exchange's keys.",       {"exchange", "data"}, {"Data"}},
    };
    return steps;
}
// clang-format on

const PeerStep* findPeerStep(const std::string& name)
{
    for (const PeerStep& step : peerSteps())
        if (step.name == name)
            return &step;
    return nullptr;
}
