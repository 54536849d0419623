// The facts that hold for every request, or for all of a kind. A test program says which of
// its requests belong to which family:
//     FAMILY(HandlerFrame, encrypt(), decrypt());
//     FAMILY(EngineCodes,  encrypt(), decrypt());
// The tests are named after the requests: HandlerFrame.<fact>/QZaven_ke_encrypt.
#ifndef CORVANE_TESTS_HANDLER_FAMILIES_H
#define CORVANE_TESTS_HANDLER_FAMILIES_H

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <functional>
#include <locale>
#include <memory>
#include <new>
#include <ostream>
#include <string>
#include <vector>

#include "support/allocation_fault.h"
#include "support/handler_parameters.h"
#include "support/handlers.h"

#define FAMILY(suite, ...) \
    INSTANTIATE_TEST_SUITE_P(, suite, ::testing::Values(__VA_ARGS__), support::testName)

namespace support {

// A host's C++ locale that writes 1.234.567.
class GroupingLocale {
public:
    GroupingLocale() : m_previous(std::locale::global(std::locale(std::locale(), new Digits))) {}
    GroupingLocale(const GroupingLocale&) = delete;
    GroupingLocale& operator=(const GroupingLocale&) = delete;
    ~GroupingLocale() { std::locale::global(m_previous); }

private:
    struct Digits : std::numpunct<char> {
        char do_thousands_sep() const override { return '.'; }
        std::string do_grouping() const override { return "\3"; }
    };

    std::locale m_previous;
};

// A request that succeeds, and how it fails.
struct Handler {
    std::string request;
    Pairs parameters;
    std::string transcript;  // of what it does
    // The engine functions whose failure the request reports; the last does the work.
    std::vector<std::string> calls;
    std::vector<std::string> results = {"Data", "errorCode"};  // written on failure
    std::string engineUnbound = "";  // the engine calls without a parameter module
    int codeIfLacking = NOT_LOADED;
    size_t allocation = 0;          // of AllocatedOutput
    bool writesUnencodable = true;  // of EncodedOutput
    std::string variant = "";       // told behind the name of a request that is there twice

    Pairs failed(int code) const { return failure(code, results); }
};

inline std::ostream& operator<<(std::ostream& to, const Handler& handler)
{
    return to << handler.request << handler.variant;
}

inline std::string testName(const ::testing::TestParamInfo<Handler>& info)
{
    return ::testing::PrintToString(info.param);
}

class HandlerFrame : public ::testing::TestWithParam<Handler> {
protected:
    const Handler& handler = GetParam();
};

TEST_P(HandlerFrame, ReadsThenCallsThenWrites)
{
    Plugin plugin;
    EXPECT_EQ(handler.transcript, plugin.play(handler.request, handler.parameters));
}

TEST_P(HandlerFrame, NothingIsLeftForTheNextRequest)
{
    Plugin plugin;
    const std::string last = handler.calls.back();
    plugin.play(handler.request, handler.parameters);
    plugin.engine.on(last).code = -7;
    plugin.engine.on(last).nullText = true;
    plugin.play(handler.request, handler.parameters);
    plugin.engine.forget();
    plugin.engine.sessions.next = FIRST_SESSION;
    EXPECT_EQ(handler.transcript, plugin.play(handler.request, handler.parameters));
}

TEST_P(HandlerFrame, LocaleOfTheHostChangesNothing)
{
    Plugin plugin;
    const GroupingLocale locale;
    EXPECT_EQ(handler.transcript, plugin.play(handler.request, handler.parameters));
}

TEST_P(HandlerFrame, EngineThatIsNotLoadedIsReported)
{
    Plugin plugin("", paramsDouble());
    EXPECT_EQ(handler.failed(NOT_LOADED), plugin.reply(handler.request, handler.parameters));
}

TEST_P(HandlerFrame, EachFunctionThatTheEngineLacksIsReported)
{
    for (const std::string& function : handler.calls) {
        SCOPED_TRACE(function);
        Plugin plugin(engineLacking(function));
        EXPECT_EQ(handler.failed(handler.codeIfLacking),
                  plugin.reply(handler.request, handler.parameters));
    }
}

TEST_P(HandlerFrame, ExceptionOfTheEngineEndsWithCodeZero)
{
    Plugin plugin;
    plugin.engine.on(handler.calls.back()).throws = true;
    EXPECT_EQ(handler.failed(0), plugin.reply(handler.request, handler.parameters));
    EXPECT_TRUE(std::any_of(plugin.journal.calls.begin(), plugin.journal.calls.end(),
                            [](const Call& call) { return call.threw; }));
}

// Sends the request once for each parameter that it reads, with the module scripted for that
// one's first or second read. The request must end there: no further parameter is read, the
// engine is called only to free nothing, and the code is 0.
template <class Script>
void expectReadsThatEndTheRequest(const Handler& handler, bool query, Script script)
{
    Plugin plugin;
    plugin.reply(handler.request, handler.parameters);
    const std::vector<std::string> names = plugin.parametersRead();
    for (size_t i = 0; i < names.size(); ++i) {
        SCOPED_TRACE(names[i]);
        const bool stored =
            with(handler.parameters, names[i], "").size() == handler.parameters.size();
        if (!query && !stored)
            continue;  // an absent parameter is not read for a second time
        plugin.params.forget();
        script(query ? plugin.params.onQuery("GetHttpParams", names[i])
                     : plugin.params.on("GetHttpParams", names[i]));
        EXPECT_EQ(handler.failed(0), plugin.reply(handler.request, handler.parameters));
        EXPECT_EQ(std::vector<std::string>(names.begin(), names.begin() + static_cast<long>(i) + 1),
                  plugin.parametersRead());
        EXPECT_EQ(handler.engineUnbound, plugin.engineCalls());
    }
}

TEST_P(HandlerFrame, ExceptionInTheFirstReadOfAParameterEndsWithCodeZero)
{
    expectReadsThatEndTheRequest(handler, true, [](doubles::Step& step) { step.throws = true; });
}

TEST_P(HandlerFrame, ExceptionInTheSecondReadOfAParameterEndsWithCodeZero)
{
    // The module has written the value by then.
    expectReadsThatEndTheRequest(handler, false, [](doubles::Step& step) { step.throws = true; });
    expectReadsThatEndTheRequest(
        handler, false, [](doubles::Step& step) { step.during = [] { throw std::bad_alloc(); }; });
}

TEST_P(HandlerFrame, ParameterLongerThanATextCanBeEndsWithCodeZero)
{
    expectReadsThatEndTheRequest(handler, true,
                                 [](doubles::Step& step) { step.reported = LONG_MAX; });
}

TEST_P(HandlerFrame, WithoutAParameterModuleNothingHappens)
{
    Plugin plugin(engineDouble(), "");
    EXPECT_EQ(0, plugin.requestBytes(handler.request.data(),
                                     static_cast<unsigned int>(handler.request.size())));
    EXPECT_EQ(handler.engineUnbound, plugin.transcript());
    EXPECT_EQ("", plugin.printed);
    plugin.expectNoObjects();
}

TEST_P(HandlerFrame, ResultThatCannotBeStoredIsLostWithoutNotice)
{
    for (const std::string& name : handler.results) {
        SCOPED_TRACE(name);
        for (const bool throws : {false, true}) {
            Plugin plugin;
            plugin.params.on("AddRetParams", name).code = 5;
            plugin.params.on("AddRetParams", name).throws = throws;
            const Pairs stored = plugin.request(handler.request, handler.parameters);
            EXPECT_EQ(handler.transcript, plugin.transcript());
            EXPECT_EQ(without(plugin.resultsWritten(), name), stored);
            plugin.expectNoObjects();
        }
    }
}

TEST_P(HandlerFrame, FailureThatCannotBeStoredIsLostWithoutNotice)
{
    Plugin plugin("", paramsDouble());
    for (const bool throws : {false, true}) {
        plugin.params.on("AddRetParams").code = 5;
        plugin.params.on("AddRetParams").throws = throws;
        EXPECT_EQ(Pairs(), plugin.request(handler.request, handler.parameters));
        EXPECT_EQ(handler.failed(NOT_LOADED), plugin.resultsWritten());
    }
}

// Sends the request with a fault that is armed when the handler starts and taken away
// when it has ended. Tells whether the fault struck.
inline bool requestWithFault(Plugin& plugin, const std::string& request, const Pairs& parameters,
                             const std::function<AllocationFault*()>& arm)
{
    std::unique_ptr<AllocationFault> fault;
    bool struck = false;
    plugin.params.on("ClearRetCustomParam").during = [&] { fault.reset(arm()); };
    plugin.params.on("ClearHttpParams").during = [&] {
        struck = fault->struck();
        fault.reset();
    };
    EXPECT_NO_THROW(plugin.request(request, parameters));
    EXPECT_EQ(1u, plugin.journal.count("ClearHttpParams"));
    plugin.params.forget();
    return struck;
}

TEST_P(HandlerFrame, ParameterThatCannotBeStoredEndsWithCodeZero)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    for (const auto& parameter : handler.parameters) {
        SCOPED_TRACE(parameter.first);
        Plugin plugin;
        EXPECT_TRUE(requestWithFault(
            plugin, handler.request,
            with(handler.parameters, parameter.first, std::string(4000, 'A')),
            [&] { return new AllocationFault(AllocationFault::atLeast(plugin.journal, 4000)); }));
        const std::string transcript = plugin.transcript();
        EXPECT_EQ(written(handler.failed(0)) + handler.engineUnbound,
                  transcript.substr(transcript.find('\n') + 1))
            << "after the reads";
    }
}

// Whichever allocation fails, the handler ends in order: no exception, nothing left in
// the engine, and a code of the two that stand for it. Returns how many failed; the last
// request that is sent is one without a fault.
inline size_t failEachAllocation(Plugin& plugin, const std::string& request,
                                 const Pairs& parameters)
{
    size_t failed = 0;
    for (size_t n = 1; n < 1000; ++n) {
        SCOPED_TRACE("allocation " + std::to_string(n));
        plugin.engine.sessions.next = FIRST_SESSION;
        const bool struck = requestWithFault(plugin, request, parameters, [&] {
            return new AllocationFault(AllocationFault::nth(plugin.journal, n));
        });
        plugin.expectNoObjects();
        for (const auto& [name, value] : plugin.resultsWritten())
            if (name == "errorCode") {
                EXPECT_TRUE(value == "0" || value == "-20000") << value;
            }
        if (!struck)
            return failed;
        ++failed;
    }
    ADD_FAILURE() << "the allocations do not end";
    return failed;
}

TEST_P(HandlerFrame, FailedAllocationStopsInTheHandler)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    Plugin plugin;
    const size_t failed = failEachAllocation(plugin, handler.request, handler.parameters);
    const bool allocates = std::any_of(handler.parameters.begin(), handler.parameters.end(),
                                       [](const auto& pair) { return pair.second.size() > 15; });
    if (allocates) {
        EXPECT_LT(0u, failed);
    }
    EXPECT_EQ(handler.transcript, plugin.transcript());
}

// Requests whose engine functions return codes.
class EngineCodes : public HandlerFrame {};

TEST_P(EngineCodes, CodeOfEachCallIsPassedThrough)
{
    for (const std::string& function : handler.calls) {
        for (const int code : {-7, 5, -20001, INT_MIN, INT_MAX}) {
            SCOPED_TRACE(function + " returns " + std::to_string(code));
            Plugin plugin;
            plugin.engine.on(function).code = code;
            EXPECT_EQ(handler.failed(code), plugin.reply(handler.request, handler.parameters));
        }
    }
}

TEST_P(EngineCodes, CodeHasNoDigitGroups)
{
    Plugin plugin;
    const GroupingLocale locale;
    plugin.engine.on(handler.calls.back()).code = -1234567;
    EXPECT_EQ(handler.failed(-1234567), plugin.reply(handler.request, handler.parameters));
}

TEST_P(EngineCodes, OutputOfAFailingCallIsDropped)
{
    Plugin plugin;
    doubles::Step& step = plugin.engine.on(handler.calls.back());
    step.code = -7;
    step.output = "half";
    step.reported = 4;
    step.tag = "half a tag";
    step.scribble = true;
    EXPECT_EQ(handler.failed(-7), plugin.reply(handler.request, handler.parameters));
}

// Requests that encode the engine's output. The code is 0 by then, and most write the
// output as the engine left it if it cannot be encoded.
class EncodedOutput : public HandlerFrame {};
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(EncodedOutput);

TEST_P(EncodedOutput, FailureToEncodeEndsWithCodeZero)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    Plugin plugin;
    std::unique_ptr<AllocationFault> fault;
    // Encoded, it is the first text of 24 bytes or more after the engine's call.
    const std::string output = "output as it was.";
    doubles::Step& step = plugin.engine.on(handler.calls.back());
    plugin.engine.onQuery(handler.calls.back()).reported = static_cast<long long>(output.size());
    step.output = output;
    step.during = [&] {
        fault.reset(new AllocationFault(AllocationFault::atLeast(plugin.journal, 24)));
    };
    bool struck = false;
    plugin.params.on("AddRetParams").during = [&] { struck = fault->struck(); };
    const Pairs reply = plugin.reply(handler.request, handler.parameters);
    fault.reset();
    EXPECT_TRUE(struck);
    EXPECT_EQ(handler.writesUnencodable ? output : "", reply.at(0).second);
    EXPECT_EQ("0", reply.at(1).second);
}

// Requests whose output buffer is allocated, in the size told by `allocation`, and
// tested.
class AllocatedOutput : public HandlerFrame {};
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(AllocatedOutput);

TEST_P(AllocatedOutput, FailedAllocationIsReported)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    Plugin plugin;
    EXPECT_TRUE(requestWithFault(plugin, handler.request, handler.parameters, [&] {
        return new AllocationFault(AllocationFault::exactly(plugin.journal, handler.allocation));
    }));
    EXPECT_EQ(handler.failed(NO_MEMORY), plugin.resultsWritten());
    for (const Call& call : plugin.journal.calls)
        if (call.function == handler.calls.back()) {
            EXPECT_TRUE(call["out"].null);  // at most the query was made
        }
    plugin.expectNoObjects();
}

}  // namespace support

#endif
