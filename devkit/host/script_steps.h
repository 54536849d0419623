// The steps of a script, and what can be known of them before they are sent.
#ifndef CORVANE_HOST_SCRIPT_STEPS_H
#define CORVANE_HOST_SCRIPT_STEPS_H

#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "host/catalogue/catalogue.h"

struct Step {
    std::string title;  // "step 2 (k): ", for messages; a script puts the place before it
    std::string id;
    std::string request;
    nlohmann::ordered_json params = nlohmann::ordered_json::object();
    bool allowFailure = false;
    const RequestInfo* info = nullptr;  // null for a request that is not known here
};

// What a reference ${ID.RESULT} stands for: gets the text between the braces.
using Resolve = std::function<std::string(const std::string& reference)>;
// Replaces the references in a text. Throws a UsageError for one that does not end.
std::string expandReferences(const std::string& text, const Resolve& resolve);
// The id and the result of a reference. Throws a UsageError.
std::pair<std::string, std::string> splitReference(const std::string& reference);

// Takes steps in their order, each of which may refer to those before it.
class StepReader {
public:
    // Whether requests that are not in the catalogue are taken.
    explicit StepReader(bool force) : m_force(force) {}

    // Checks the members, the request's name, the id, that there are the steps and results that
    // values refer to, and the form of values that refer to none and are in no file. Throws a
    // UsageError with the step's title that quotes no value.
    Step read(const nlohmann::ordered_json& json);

private:
    void check(const Step& step) const;
    void checkValue(const Step& step, const std::string& name, const std::string& written) const;
    void checkReference(const std::string& reference) const;

    bool m_force;
    size_t m_number = 0;
    std::vector<Step> m_named;  // those with an id
};

#endif
