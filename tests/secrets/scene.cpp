#include "scene.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <sstream>

#include "Corvane_plugin.h"
#include "taken_over.h"
#include "vault_libraries.h"

namespace secrets {

namespace {

constexpr size_t KEY_SIZE = 16;
constexpr size_t LONGEST_DERIVED = 65535;
// Passwords are short, and of the sizes around which strings keep them in themselves.
constexpr size_t PASSWORD_SIZES[] = {12, 13, 14, 15, 16, 17};

// Where the scene was set up, registers hold parts of secrets, and the dynamic loader stores them
// on the stack when it binds a function at its first call. Copies of all sizes put zeros there.
void clearVectorRegisters()
{
    constexpr size_t MOST = 8192;
    char* volatile const zeros = take(2 * MOST);
    for (size_t size = 1; size <= MOST; size = size * 3 / 2 + 1)
        memcpy(zeros + MOST, zeros, size);
}

}  // namespace

Scene::Scene(const Request& request, size_t size) : m_request(request), m_size(size)
{
    clearVault();
    for (const char* name : {KEY, LONG_KEY, OTHER_KEY, PASSWORD, DATA, OUTPUT})
        m_secrets.emplace_back(name);
    for (const Secret& secret : m_secrets)
        secret.addTo(m_marks);
    libraries.begin();
    for (const Parameter& parameter : request.parameters)
        libraries.addParameter(parameter.name, valueOf(parameter));
    if (request.output == Output::Secret)
        libraries.output = bytesOf(OUTPUT);
    else if (request.output == Output::DataBase64)
        libraries.output = base64(bytesOf(DATA));
    else
        libraries.output = repeated("what anyone may see", size);
    clearVectorRegisters();
}

std::string_view& Scene::parameter(size_t place)
{
    return libraries.parameters[place].value;
}

std::string_view Scene::bytesOf(const char* secret) const
{
    const auto found = std::find_if(m_secrets.begin(), m_secrets.end(), [&](const Secret& one) {
        return strcmp(one.name, secret) == 0;
    });
    size_t size = m_size;
    if (strcmp(secret, KEY) == 0)
        size = KEY_SIZE;
    else if (strcmp(secret, PASSWORD) == 0)
        size = PASSWORD_SIZES[m_size % std::size(PASSWORD_SIZES)];
    return found->bytes(size);
}

std::string_view Scene::valueOf(const Parameter& parameter) const
{
    switch (parameter.form) {
        case Form::PublicBase64:
            return urlBase64(repeated("what anyone may see", m_size));
        case Form::Length:
            return kept(static_cast<int>(std::min(m_size, LONGEST_DERIVED)));
        case Form::Secret:
            return bytesOf(parameter.value);
        case Form::SecretBase64:
            return urlBase64(bytesOf(parameter.value));
        default:
            return kept(std::string_view(parameter.value));
    }
}

void Scene::send(Heap heap)
{
    const char* const name = m_request.name;
    const auto length = static_cast<unsigned>(strlen(name));
    std::optional<KeptBlocks> kept;
    if (heap == Heap::Kept)
        kept.emplace();
    support::deeperInStack([name, length] { Corvane_plugin_Request(name, length); });
}

std::vector<support::Trace> Scene::traces() const
{
    std::vector<support::Trace> found = tracesHere(m_marks, {vaultRange(), unusedBlocks()});
    wipeFreedBlocks();
    return found;
}

void Findings::add(const std::string& scene, const std::vector<support::Trace>& traces)
{
    ++m_scenes;
    for (const support::Trace& trace : traces) {
        const std::string request = scene.substr(0, scene.find(':'));
        Kind& kind = m_kinds[request + ": " + trace.mark + ", " + trace.form + ", " + trace.region];
        if (kind.count++ > 0)
            continue;
        std::ostringstream example;
        example << "first in \"" << scene << "\": " << trace;
        kind.example = example.str();
    }
}

std::string Findings::text() const
{
    std::ostringstream text;
    for (const auto& [name, kind] : m_kinds)
        text << name << ": " << kind.count << " times, " << kind.example << "\n";
    return text.str();
}

size_t Findings::scenes() const
{
    return m_scenes;
}

}  // namespace secrets
