// What the calls of the engine binding have in common, tested over all of them.
#include <sys/mman.h>

#include <climits>
#include <cstdint>

#include "support/allocation_fault.h"
#include "support/engine_calls.h"

using namespace support;

TEST(EngineCallRows, EveryEngineFunctionHasARow)
{
    for (const std::string& function : doubles::engineFunctions()) {
        // The five lifecycle functions have tests of their own.
        if (function.compare(0, 12, "aven_global_") == 0 || function == "aven_version" ||
            function == "aven_strerror")
            continue;
        bool found = false;
        for (const Row& row : rows)
            found = found || row.function == function;
        EXPECT_TRUE(found) << function;
    }
}

TEST_F(EngineCalls, WithoutAnEngineNothingIsCalled)
{
    engine.unloadLibrary();
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        journal.calls.clear();
        CSoftMoudle_aven fresh;
        Exchange x("input");

        EXPECT_EQ(NOT_LOADED, row.call(fresh, x));
        EXPECT_EQ(NOT_LOADED, fresh.get_ErrorCode());
        expectUntouched(x);
        EXPECT_EQ(nullptr, x.object);
        EXPECT_EQ(Functions(), journal.functions());
    }
}

// Nothing that a pointer points at is looked at before it is known that there is a function to
// give it to.
TEST_F(EngineCalls, WithoutAFunctionNoPointerIsFollowed)
{
    void* unreadable = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, unreadable);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        for (void* pointer : {unreadable, static_cast<void*>(nullptr)}) {
            for (const bool loaded : {false, true}) {
                if (loaded)
                    load(engineLacking(row.function));
                else
                    engine.unloadLibrary();
                Exchange x("input");
                x.instead = pointer;

                EXPECT_EQ(NOT_LOADED, row.call(engine, x));
                expectUntouched(x);
            }
        }
    }
    munmap(unreadable, 4096);
}

TEST_F(EngineCalls, MissingFunctionFailsItsOwnCallsAndNoOthers)
{
    for (const std::string& missing : doubles::engineFunctions()) {
        SCOPED_TRACE("without " + missing);
        load(engineLacking(missing));
        for (const Row& row : rows) {
            SCOPED_TRACE(row.what);
            journal.calls.clear();
            const bool fails = missing == row.function || missing == row.other;
            Exchange x("input");

            EXPECT_EQ(fails ? NOT_LOADED : 0, row.call(engine, x));
            EXPECT_EQ(0, engine.get_ErrorCode()) << "the engine is loaded";
            EXPECT_EQ(fails, journal.calls.empty());
            if (fails)
                expectUntouched(x);
        }
        engine.unloadLibrary();
    }
}

TEST_F(EngineCalls, EnginesCodeIsReturnedAndStoredAndOutputsStay)
{
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        for (const int code : {1, -1, NO_MEMORY, NOT_LOADED, INT_MIN, INT_MAX}) {
            for (const bool writes : {false, true}) {
                start();
                on(row).code = code;
                if (writes) {
                    on(row).output = "written all the same";
                    on(row).tag = "written all the same";
                    on(row).scribble = true;
                }
                Exchange x("input");

                EXPECT_EQ(code, row.call(engine, x));
                EXPECT_EQ(code, engine.get_ErrorCode());
                expectUntouched(x);
            }
        }
    }
}

TEST_F(EngineCalls, SuccessEndsAnEarlierCode)
{
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        start();
        on(row).code = 9;
        Exchange failing("input");
        ASSERT_EQ(9, row.call(engine, failing));
        on(row).code = 0;
        Exchange x("input");

        EXPECT_EQ(0, row.call(engine, x));
        EXPECT_EQ(0, engine.get_ErrorCode());
        EXPECT_EQ(hasBuffer(row) || row.function == "aven_ke_new",
                  x.out != "output as it was before");
    }
}

TEST_F(EngineCalls, ExceptionsEndInTheCallWithTheCodeHeldSoFar)
{
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        for (const bool inQuery : {false, true}) {
            if (inQuery && row.output != ASKED)
                continue;
            start();
            on(row).code = 9;  // what the next call holds is not this
            Exchange failing("input");
            row.call(engine, failing);
            on(row).code = 0;
            (inQuery ? onQuery(row) : on(row)).throws = true;
            Exchange x("input");

            EXPECT_NO_THROW(EXPECT_EQ(0, row.call(engine, x)));
            EXPECT_EQ(0, engine.get_ErrorCode());
            expectUntouched(x);
            EXPECT_TRUE(journal.calls.back().threw);
        }
    }
}

TEST_F(EngineCalls, BuffersHaveTheirCapacityAndAreZeroFilled)
{
    for (const Row& row : rows) {
        if (!hasBuffer(row))
            continue;
        SCOPED_TRACE(row.what);
        for (const size_t inLen : {0U, 1U, 10U, 127U, 1000U, 65536U, 300000U}) {
            SCOPED_TRACE(inLen);
            start();
            Exchange x(std::string(inLen, 'i'));

            EXPECT_EQ(0, row.call(engine, x));
            const Call& call = engineCall(row);
            EXPECT_EQ(capacityFor(row, inLen), call["out_len"].number);
            EXPECT_FALSE(call["out"].null);
            EXPECT_TRUE(call["out"].zeroed);
        }
    }
}

TEST_F(EngineCalls, InputIsPassedWhole)
{
    for (const Row& row : rows) {
        if (!takesInput(row))
            continue;
        SCOPED_TRACE(row.what);
        for (const std::string& in :
             {everyByte(), std::string(1, '\0'), std::string("\0a", 2), std::string(70000, 'x')}) {
            start();
            Exchange x(in);

            EXPECT_EQ(0, row.call(engine, x));
            for (const Call& call : journal.calls) {
                EXPECT_EQ(in, call["in"].bytes);
                EXPECT_EQ(static_cast<long long>(in.size()), call["in_len"].number);
            }
        }
    }
}

TEST_F(EngineCalls, EmptyInputIsAPointerWithLengthZero)
{
    for (const Row& row : rows) {
        if (!takesInput(row))
            continue;
        SCOPED_TRACE(row.what);
        start();
        Exchange x("");

        EXPECT_EQ(0, row.call(engine, x));
        for (const Call& call : journal.calls) {
            EXPECT_FALSE(call["in"].null);
            EXPECT_EQ(0, call["in_len"].number);
        }
    }
}

TEST_F(EngineCalls, OutputIsAsLongAsTheEngineTells)
{
    for (const Row& row : rows) {
        if (!hasBuffer(row) || row.output == KDF)
            continue;
        SCOPED_TRACE(row.what);
        const uint32_t capacity = capacityFor(row, 100);
        for (const long long reported : {0U, 1U, 31U, 32U, capacity - 1, capacity}) {
            if (reported > capacity)
                continue;
            start();
            on(row).scribble = true;
            on(row).output = std::string("a\0b", 3);
            on(row).reported = reported;
            std::string expected(capacity, '\xAA');
            expected.replace(0, 3, std::string("a\0b", 3));
            Exchange x(std::string(100, 'i'));

            EXPECT_EQ(0, row.call(engine, x));
            EXPECT_EQ(expected.substr(0, static_cast<size_t>(reported)), x.out);
        }
    }
}

TEST_F(EngineCalls, OutputIsCutToTheCapacity)
{
    for (const Row& row : rows) {
        if (!hasBuffer(row) || row.output == KDF)
            continue;
        SCOPED_TRACE(row.what);
        const long long capacity = capacityFor(row, 100);
        for (const long long reported :
             {capacity + 1, capacity + 2, 2 * capacity, 1LL << 31, (1LL << 32) - 1}) {
            start();
            on(row).scribble = true;
            on(row).output = "";
            on(row).reported = reported;
            Exchange x(std::string(100, 'i'));

            EXPECT_EQ(0, row.call(engine, x));
            EXPECT_EQ(std::string(static_cast<size_t>(capacity), '\xAA'), x.out);
        }
    }
}

TEST_F(EngineCalls, SuccessWithoutBytesIsAnEmptyOutput)
{
    for (const Row& row : rows) {
        if (!hasBuffer(row) || row.output == KDF)
            continue;
        SCOPED_TRACE(row.what);
        start();
        on(row).reported = 0;
        Exchange x("input");

        EXPECT_EQ(0, row.call(engine, x));
        EXPECT_EQ(0, engine.get_ErrorCode());
        EXPECT_EQ("", x.out);
    }
}

// ---- Calls that ask for the length first.

TEST_F(EngineCalls, LengthIsAskedForWithANullBuffer)
{
    for (const Row& row : rows) {
        if (row.output != ASKED)
            continue;
        SCOPED_TRACE(row.what);
        for (const long long needed : {0, 1, 44, 5000}) {
            start();
            onQuery(row).reported = needed;
            Exchange x("some input");

            EXPECT_EQ(0, row.call(engine, x));
            ASSERT_EQ((Functions{row.function, row.function}), journal.functions());
            EXPECT_TRUE(journal.calls[0]["out"].null);
            EXPECT_EQ(0, journal.calls[0]["out_len"].number);
            EXPECT_EQ("some input", journal.calls[0]["in"].bytes);
            EXPECT_FALSE(journal.calls[1]["out"].null);
            EXPECT_EQ(needed, journal.calls[1]["out_len"].number);
            EXPECT_TRUE(journal.calls[1]["out"].zeroed);
            EXPECT_EQ("some input", journal.calls[1]["in"].bytes);
            EXPECT_EQ(std::string("some input").substr(0, static_cast<size_t>(needed)), x.out);
        }
    }
}

TEST_F(EngineCalls, FailedQuestionEndsTheCall)
{
    for (const Row& row : rows) {
        if (row.output != ASKED)
            continue;
        SCOPED_TRACE(row.what);
        start();
        onQuery(row).code = -31;
        onQuery(row).reported = 10;
        Exchange x("input");

        EXPECT_EQ(-31, row.call(engine, x));
        EXPECT_EQ(-31, engine.get_ErrorCode());
        expectUntouched(x);
        EXPECT_EQ(1U, journal.calls.size());
    }
}

TEST_F(EngineCalls, LargestLengthDoesNotWrapTheAllocation)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    for (const Row& row : rows) {
        if (row.output != ASKED)
            continue;
        SCOPED_TRACE(row.what);
        start();
        onQuery(row).reported = UINT32_MAX;
        Exchange x("input");
        const auto fault = support::AllocationFault::exactly(journal, size_t{UINT32_MAX} + 1);

        EXPECT_EQ(0, row.call(engine, x));
        EXPECT_TRUE(fault.struck());
        expectUntouched(x);
        EXPECT_EQ(1U, journal.calls.size()) << "there was no buffer to pass";
    }
}

// ---- Memory.

TEST_F(EngineCalls, FailedAllocationIsReportedByTheGeneralCallsOnly)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    // 1019 and any margin are sizes that nothing else allocates.
    const std::string in(1019, 'i');
    size_t reporting = 0;
    for (const Row& row : rows) {
        if (!hasBuffer(row) || row.output == LOCAL)
            continue;
        SCOPED_TRACE(row.what);
        const bool reports = row.output != HEAP_NO_TEST && row.output != ASKED;
        const bool stores = row.function.compare(0, 17, "aven_crypto_pkcs7") == 0;
        reporting += reports;
        start();
        Exchange x(in);
        const auto fault =
            support::AllocationFault::exactly(journal, capacityFor(row, in.size()) + 1);
        const int code = row.call(engine, x);

        EXPECT_TRUE(fault.struck());
        EXPECT_EQ(reports ? NO_MEMORY : 0, code);
        EXPECT_EQ(stores ? NO_MEMORY : 0, engine.get_ErrorCode());
        expectUntouched(x);
        EXPECT_EQ(row.output == ASKED ? 1U : 0U, journal.calls.size())
            << "the engine is not called without a buffer";
    }
    // 11 calls; encryption and decryption have two rows each.
    EXPECT_EQ(13U, reporting);
}

TEST_F(EngineCalls, NoAllocationFailureEscapes)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        bool struck = true;
        for (size_t n = 1; struck && n < 50; ++n) {
            start();
            Exchange x(std::string(200, 'i'));
            const auto fault = support::AllocationFault::nth(journal, n);
            int code = 0;
            ASSERT_NO_THROW(code = row.call(engine, x));
            struck = fault.struck();
            if (struck && code != 0) {
                EXPECT_EQ(NO_MEMORY, code);
                expectUntouched(x);
            }
        }
        EXPECT_FALSE(struck);
    }
}

// A failing copy of the output must not leave one output written and the other not.
TEST_F(EngineCalls, TaggedEncryptionWritesBothOutputsOrNone)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    bool struck = true;
    for (size_t n = 1; struck && n < 50; ++n) {
        SCOPED_TRACE(n);
        start();
        Exchange x(std::string(200, 'i'));
        std::string out;
        std::string tag;
        const auto fault = support::AllocationFault::nth(journal, n);
        engine.aven_crypto_encrypt(&gcm, std::move(x.in), out, tag, 300);
        struck = fault.struck();
        EXPECT_EQ(out.empty(), tag.empty());
    }
}
