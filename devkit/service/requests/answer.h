// The bodies of the answers that clients get, from a worker's reply or from a refusal of the
// host's own.
#ifndef CORVANE_SERVICE_REQUESTS_ANSWER_H
#define CORVANE_SERVICE_REQUESTS_ANSWER_H

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "common/wire.h"
#include "host/catalogue/complaints.h"
#include "service/bodies/refusal.h"
#include "service/workers/worker_pool.h"

struct Answer {
    unsigned status = 200;
    SecretText body;
    const char* type = "application/json";
    // For logs: why it failed, the host's code or the plug-in's; "" if it did not.
    std::string code;
    size_t parts = 0;   // of a batch
    size_t failed = 0;  // of them
};

Answer answerOf(const Refusal& refusal);
Answer answerOf(const nlohmann::ordered_json& json);

// What the plug-in answered; `warnings` as warningsText gave them.
Answer pluginAnswer(const WireReply& reply, const std::string& warnings);
// What the other side of a key exchange answered.
Answer peerAnswer(const WireReply& reply);
// The answers to the parts of a batch, in order.
Answer batchAnswer(const std::vector<Answer>& parts);

// The complaints as a JSON array, for requests that are sent in spite of them.
std::string warningsText(const std::vector<Complaint>& complaints);

// Why a task came to an end without results.
Refusal refusalOf(Ending ending, const WireReply& reply);

#endif
