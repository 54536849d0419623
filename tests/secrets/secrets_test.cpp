// No request leaves anything of a secret in memory, whatever becomes of it.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "Corvane_plugin.h"
#include "scene.h"
#include "support/request_rows.h"
#include "taken_over.h"
#include "vault_libraries.h"

using secrets::CallMade;
using secrets::Fault;
using secrets::Findings;
using secrets::Form;
using secrets::Heap;
using secrets::libraries;
using secrets::Libraries;
using secrets::Request;
using secrets::Scene;

namespace {

// Each is a program of its own.
#ifdef CORVANE_NO_REUSE
constexpr Heap HEAP = Heap::Kept;
#else
constexpr Heap HEAP = Heap::Ordinary;
#endif

constexpr size_t SIZE = 48;  // of the secrets where the size does not matter

bool isSecret(const secrets::Parameter& parameter)
{
    return parameter.form == Form::Secret || parameter.form == Form::SecretBase64;
}

// The secrets that a request or its answer carries.
std::set<std::string> secretsOf(const Request& request)
{
    std::set<std::string> carried;
    for (const secrets::Parameter& parameter : request.parameters)
        if (isSecret(parameter))
            carried.insert(parameter.value);
    if (request.output == secrets::Output::Secret)
        carried.insert(secrets::OUTPUT);
    return carried;
}

std::vector<Request> requestsWithSecrets()
{
    std::vector<Request> found;
    for (const Request& request : secrets::requests)
        if (!secretsOf(request).empty())
            found.push_back(request);
    return found;
}

class Secrets : public ::testing::Test {
protected:
    // The functions that set a scene up are bound at their first calls: see Scene.
    static void SetUpTestSuite() { Scene(secrets::requests[0], SIZE).traces(); }
    void SetUp() override { initialise(); }
    void TearDown() override { EXPECT_EQ("", findings.text()) << findings.scenes() << " scenes"; }

    // Binds the libraries as they are.
    static void initialise() { Corvane_plugin_Init(); }

    // Sends the request as the scene has it, and scans.
    void play(Scene& scene, const Request& request, const std::string& what)
    {
        scene.send(HEAP);
        findings.add(std::string(request.label) + ": " + what, scene.traces());
    }

    // The calls that the request makes if nothing fails.
    std::vector<CallMade> callsOf(const Request& request)
    {
        Scene scene(request, SIZE);
        play(scene, request, "nothing fails");
        return {libraries.calls, libraries.calls + libraries.callCount};
    }

    Findings findings;
};

TEST_F(Secrets, LeaveNothingIfAParameterIsWrong)
{
    for (const Request& request : requestsWithSecrets())
        for (size_t place = 0; place < request.parameters.size(); ++place) {
            const std::string name = request.parameters[place].name;
            const auto playWith = [&](std::string_view value, const std::string& what) {
                Scene scene(request, SIZE);
                scene.parameter(place) = value;
                play(scene, request, name + " is " + what);
            };
            playWith("", "empty");
            playWith("99", "out of range");
            Scene scene(request, SIZE);
            scene.parameter(place).remove_suffix(1);
            play(scene, request, name + " is cut");
        }
}

TEST_F(Secrets, LeaveNothingIfACallFails)
{
    for (const Request& request : requestsWithSecrets()) {
        const std::vector<CallMade> calls = callsOf(request);
        for (size_t place = 0; place < calls.size(); ++place)
            for (const Fault fault : secrets::faults) {
                if (fault != Fault::Code && fault != Fault::Throws && !calls[place].tells)
                    continue;
                Scene scene(request, SIZE);
                libraries.faultyCall = place;
                libraries.fault = fault;
                play(scene, request,
                     std::string(calls[place].function) + ", call " + std::to_string(place) +
                         (calls[place].query ? ", query: " : ": ") + nameOf(fault));
            }
    }
}

TEST_F(Secrets, LeaveNothingIfALibraryLacksAFunction)
{
    for (const Request& request : requestsWithSecrets()) {
        std::vector<const char*> functions;
        for (const CallMade& call : callsOf(request))
            functions.push_back(call.function);
        std::sort(functions.begin(), functions.end());
        functions.erase(std::unique(functions.begin(), functions.end()), functions.end());
        for (const char* function : functions) {
            libraries.missingFunction = function;
            initialise();
            Scene scene(request, SIZE);
            play(scene, request, std::string("without ") + function);
        }
        libraries.missingFunction = nullptr;
        initialise();
    }
}

TEST_F(Secrets, LeaveNothingWithoutAnEngine)
{
    libraries.engineMissing = true;
    initialise();
    for (const Request& request : secrets::requests) {
        Scene scene(request, SIZE);
        play(scene, request, "without an engine");
    }
    libraries.engineMissing = false;
}

// Small secrets, and ones whose buffers a string outgrows.
TEST_F(Secrets, LeaveNothingIfAnAllocationFails)
{
    for (const Request& request : requestsWithSecrets())
        for (const size_t size : {size_t{14}, SIZE, size_t{20000}}) {
            bool struck = true;
            for (size_t n = 1; struck; ++n) {
                Scene scene(request, size);
                {
                    const secrets::FailedAllocation failed(n);
                    scene.send(HEAP);
                    struck = failed.struck();
                }
                findings.add(std::string(request.label) + ": " + std::to_string(size) +
                                 " bytes, allocation " + std::to_string(n) + " fails",
                             scene.traces());
            }
        }
}

// Around what a string keeps in itself, what vectors take at once and what the heap maps. The last
// of the tests, as the heap stays large.
constexpr size_t SIZES[] = {12, 13, 14, 15, 16, 17, 18,  22,   23,   24,    31,    32,
                            33, 47, 48, 49, 64, 65, 200, 1000, 5000, 20000, 70000, 1 << 20};
TEST_F(Secrets, LeaveNothingAtAnySize)
{
    for (const Request& request : secrets::requests)
        for (const size_t size : SIZES) {
            Scene scene(request, size);
            play(scene, request, std::to_string(size) + " bytes");
            const std::string_view code = libraries.result("errorCode");
            EXPECT_TRUE(code == "0" || request.label == std::string("error text"))
                << request.label << ", " << size << " bytes: " << code;
        }
}

TEST(SecretsTable, HasEveryRequest)
{
    std::set<std::string> names;
    std::set<std::string> known;
    for (const Request& request : secrets::requests)
        names.insert(request.name);
    for (const support::RequestRow& row : support::requestRows)
        known.insert(row.name);
    EXPECT_EQ(names, known);
}

// What the tests above would find if the plug-in did not wipe.
TEST(SecretsScan, FindsEverySecretThatIsNotWiped)
{
    constexpr size_t LONG_SIZE = 100;  // no secret is in a string itself, where others cover it
    Corvane_plugin_Init();
    const secrets::WipingOff off;
    for (const Request& request : secrets::requests) {
        Scene scene(request, LONG_SIZE);
        scene.send(Heap::Kept);
        std::set<std::string> found;
        for (const support::Trace& trace : scene.traces())
            found.insert(trace.mark.substr(0, trace.mark.find(" in ")));
        EXPECT_EQ(found, secretsOf(request)) << request.label;
    }
}

}  // namespace
