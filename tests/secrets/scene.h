// One request with fresh secrets, and the scan after it.
#ifndef CORVANE_TESTS_SECRETS_SCENE_H
#define CORVANE_TESTS_SECRETS_SCENE_H

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "requests.h"
#include "support/memory_scan.h"
#include "vault.h"

namespace secrets {

// Where the plug-in's memory comes from.
enum class Heap {
    Ordinary,
    Kept,  // no block is used twice, and what is freed stays as it is
};

// Begins with the vault empty, and puts the request's parameters and the engine's output there.
class Scene {
public:
    Scene(const Request& request, size_t size);

    // The value of a parameter, for who puts another in its place.
    std::string_view& parameter(size_t place);

    // Sends the request.
    void send(Heap heap);

    // What is left of the secrets.
    std::vector<support::Trace> traces() const;

private:
    std::string_view bytesOf(const char* secret) const;
    std::string_view valueOf(const Parameter& parameter) const;

    const Request& m_request;
    size_t m_size;
    std::vector<Secret> m_secrets;
    support::Marks m_marks;
};

// What was found in many scenes: each kind of trace once, with the first scene that left it.
class Findings {
public:
    void add(const std::string& scene, const std::vector<support::Trace>& traces);
    std::string text() const;
    size_t scenes() const;

private:
    struct Kind {
        size_t count = 0;
        std::string example;
    };
    std::map<std::string, Kind> m_kinds;  // by the secret, its form and the region
    size_t m_scenes = 0;
};

}  // namespace secrets

#endif
