// The calls of the engine binding, one row each. What they have in common is tested over
// the rows, what a call has of its own behind them.
#include <sys/mman.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <utility>

#include "engine_binding.h"
#include "engine_interface.h"
#include "support/allocation_fault.h"
#include "support/plugin_test.h"

using support::engineDouble;
using support::engineLacking;
using support::Stage;

namespace {

using Functions = std::vector<std::string>;

constexpr int NOT_LOADED = -20215;
constexpr int NO_MEMORY = -20000;

const unsigned char keyBytes[16] = {0x2b, 0x7e};
const SymmCipherParams modeTwo = {1, 2, 0, keyBytes, 16, keyBytes, 16, nullptr, 0};
const SymmCipherParams gcm = {1, 6, 0, keyBytes, 16, keyBytes, 12, keyBytes, 4};
const PkeyCipherParams pkey = {nullptr, 1, 0, 1};
const MacParams mac = {3, keyBytes, 16};
const EnvelopeParams envelope = {2, 2, nullptr, nullptr};

std::string everyByte()
{
    std::string bytes;
    for (int i = 0; i < 256; ++i)
        bytes += static_cast<char>(i);
    return bytes;
}

// What a call takes and gives. Prepared before a call, so that nothing is copied, and no
// memory is needed, between arming a fault and the call itself.
struct Exchange {
    explicit Exchange(std::string input) : in(std::move(input)) {}

    std::string ke = "4096";
    std::string in;
    std::string a = "first argument of its own";
    std::string b = "second argument of its own";
    std::string c = "third argument of its own";
    std::string out = "output as it was before";
    std::string tag = "tag as it was before";
    void* object = nullptr;

    // Given instead of every block, object and place of an object.
    std::optional<void*> instead;
    const void* block(const void* ordinary) const { return instead ? *instead : ordinary; }
    void* given() const { return instead ? *instead : object; }
    void** place() { return instead ? static_cast<void**>(*instead) : &object; }
};

enum Output {
    NONE,          // no output buffer
    HEAP,          // input length and a margin, a zero byte behind
    HEAP_NO_TEST,  // the same; failed allocations are not reported
    HEAP_FIXED,    // a fixed capacity, a zero byte behind
    KDF,           // as HEAP_FIXED; the engine does not tell a length
    ASKED,         // as large as the engine asks for in a first call
    LOCAL,         // a fixed capacity, nothing behind
};

struct Row {
    const char* what;
    Functions needs;  // the first is the one that is called
    Output output;
    uint32_t margin;  // or the fixed capacity
    int (*call)(CSoftMoudle_aven& engine, Exchange& x);
};

const Row rows[] = {
    {"base64 encode",
     {"aven_crypto_base64_encode", "aven_crypto_base64_decode"},
     ASKED,
     0,
     [](CSoftMoudle_aven& e, Exchange& x) {
         return e.aven_crypto_base64_encode(true, std::move(x.in), x.out);
     }},
    {"base64 decode",
     {"aven_crypto_base64_decode", "aven_crypto_base64_encode"},
     ASKED,
     0,
     [](CSoftMoudle_aven& e, Exchange& x) {
         return e.aven_crypto_base64_encode(false, std::move(x.in), x.out);
     }},
    {"ke_new",
     {"aven_ke_new"},
     NONE,
     0,
     [](CSoftMoudle_aven& e, Exchange& x) { return e.aven_ke_new(x.out); }},
    {"ke_free",
     {"aven_ke_free"},
     NONE,
     0,
     [](CSoftMoudle_aven& e, Exchange& x) { return e.aven_ke_free(std::move(x.ke)); }},
    {"ke_set_public_key",
     {"aven_ke_set_public_key"},
     NONE,
     0,
     [](CSoftMoudle_aven& e, Exchange& x) {
         return e.aven_ke_set_public_key(std::move(x.ke), std::move(x.in), std::move(x.a),
                                         std::move(x.b));
     }},
    {"ke_set_certificate",
     {"aven_ke_set_certificate"},
     NONE,
     0,
     [](CSoftMoudle_aven& e, Exchange& x) {
         return e.aven_ke_set_certificate(std::move(x.ke), std::move(x.in), std::move(x.a),
                                          std::move(x.b));
     }},
    {"ke_set_root_certificate",
     {"aven_ke_set_root_certificate"},
     NONE,
     0,
     [](CSoftMoudle_aven& e, Exchange& x) {
         return e.aven_ke_set_root_certificate(std::move(x.ke), std::move(x.a), std::move(x.b));
     }},
    {"ke_client_hello",
     {"aven_ke_client_hello"},
     LOCAL,
     32,
     [](CSoftMoudle_aven& e, Exchange& x) {
         return e.aven_ke_client_hello(std::move(x.ke), x.out);
     }},
    {"ke_client_key_exchange",
     {"aven_ke_client_key_exchange"},
     LOCAL,
     256,
     [](CSoftMoudle_aven& e, Exchange& x) {
         return e.aven_ke_client_key_exchange(std::move(x.ke), std::move(x.in), std::move(x.a),
                                              std::move(x.b), std::move(x.c), x.out);
     }},
    {"ke_encrypt",
     {"aven_ke_encrypt"},
     HEAP_NO_TEST,
     64,
     [](CSoftMoudle_aven& e, Exchange& x) {
         return e.aven_ke_encrypt(std::move(x.ke), std::move(x.in), x.out);
     }},
    {"ke_decrypt",
     {"aven_ke_decrypt"},
     HEAP_NO_TEST,
     64,
     [](CSoftMoudle_aven& e, Exchange& x) {
         return e.aven_ke_decrypt(std::move(x.ke), std::move(x.in), x.out);
     }},
    {"ke_hmac",
     {"aven_ke_hmac"},
     ASKED,
     0,
     [](CSoftMoudle_aven& e, Exchange& x) {
         return e.aven_ke_hmac(std::move(x.ke), std::move(x.in), x.out);
     }},
    {"ke_cmac",
     {"aven_ke_cmac"},
     ASKED,
     0,
     [](CSoftMoudle_aven& e, Exchange& x) {
         return e.aven_ke_cmac(std::move(x.ke), std::move(x.in), x.out);
     }},
    {"crypto_public_encrypt",
     {"aven_crypto_public_encrypt"},
     HEAP,
     528,
     [](CSoftMoudle_aven& e, Exchange& x) {
         return e.aven_crypto_public_encrypt(x.block(&pkey), std::move(x.in), x.out);
     }},
    {"crypto_private_decrypt",
     {"aven_crypto_private_decrypt"},
     HEAP,
     16,
     [](CSoftMoudle_aven& e, Exchange& x) {
         return e.aven_crypto_private_decrypt(x.block(&pkey), std::move(x.in), x.out);
     }},
    {"crypto_encrypt without tag",
     {"aven_crypto_encrypt"},
     HEAP,
     128,
     [](CSoftMoudle_aven& e, Exchange& x) {
         return e.aven_crypto_encrypt(x.block(&modeTwo), std::move(x.in), x.out, x.tag, 16);
     }},
    {"crypto_encrypt with tag",
     {"aven_crypto_encrypt"},
     HEAP,
     128,
     [](CSoftMoudle_aven& e, Exchange& x) {
         return e.aven_crypto_encrypt(x.block(&gcm), std::move(x.in), x.out, x.tag, 16);
     }},
    {"crypto_decrypt without tag",
     {"aven_crypto_decrypt"},
     HEAP,
     64,
     [](CSoftMoudle_aven& e, Exchange& x) {
         return e.aven_crypto_decrypt(x.block(&modeTwo), std::move(x.in), std::move(x.a), x.out);
     }},
    {"crypto_decrypt with tag",
     {"aven_crypto_decrypt"},
     HEAP,
     64,
     [](CSoftMoudle_aven& e, Exchange& x) {
         return e.aven_crypto_decrypt(x.block(&gcm), std::move(x.in), std::move(x.a), x.out);
     }},
    {"crypto_gen_symmkey",
     {"aven_crypto_gen_symmkey"},
     LOCAL,
     1024,
     [](CSoftMoudle_aven& e, Exchange& x) { return e.aven_crypto_gen_symmkey(3, x.out); }},
    {"crypto_hmac",
     {"aven_crypto_hmac"},
     HEAP_FIXED,
     80,
     [](CSoftMoudle_aven& e, Exchange& x) {
         return e.aven_crypto_hmac(x.block(&mac), std::move(x.in), x.out);
     }},
    {"crypto_cmac",
     {"aven_crypto_cmac"},
     HEAP_FIXED,
     80,
     [](CSoftMoudle_aven& e, Exchange& x) {
         return e.aven_crypto_cmac(x.block(&mac), std::move(x.in), x.out);
     }},
    {"keypair_read",
     {"aven_keypair_unmarshal"},
     NONE,
     0,
     [](CSoftMoudle_aven& e, Exchange& x) {
         return e.aven_keypair_read(3, std::move(x.in), std::move(x.a), std::move(x.b), x.place());
     }},
    {"keypair_free",
     {"aven_keypair_free"},
     NONE,
     0,
     [](CSoftMoudle_aven& e, Exchange& x) { return e.aven_keypair_free(x.given()); }},
    {"certificate_read",
     {"aven_certificate_unmarshal"},
     NONE,
     0,
     [](CSoftMoudle_aven& e, Exchange& x) {
         return e.aven_certificate_read(std::move(x.in), std::move(x.a), x.place());
     }},
    {"certificate_free",
     {"aven_certificate_free"},
     NONE,
     0,
     [](CSoftMoudle_aven& e, Exchange& x) { return e.aven_certificate_free(x.given()); }},
    {"crypto_kdf",
     {"aven_crypto_kdf"},
     KDF,
     777,
     [](CSoftMoudle_aven& e, Exchange& x) {
         return e.aven_crypto_kdf(2, std::move(x.in), 777, x.out);
     }},
    {"crypto_envelope_encrypt",
     {"aven_crypto_pkcs7_encrypt"},
     HEAP,
     3072,
     [](CSoftMoudle_aven& e, Exchange& x) {
         return e.aven_crypto_envelope_encrypt(x.block(&envelope), std::move(x.in), x.out);
     }},
    {"crypto_envelope_decrypt",
     {"aven_crypto_pkcs7_decrypt"},
     HEAP,
     64,
     [](CSoftMoudle_aven& e, Exchange& x) {
         return e.aven_crypto_envelope_decrypt(x.block(&envelope), std::move(x.in), x.out);
     }},
    {"wbsm4_encrypt",
     {"aven_wbsm4_encrypt"},
     HEAP,
     32,
     [](CSoftMoudle_aven& e, Exchange& x) {
         return e.aven_wbsm4_encrypt(std::move(x.a), std::move(x.b), x.in, x.out);
     }},
    {"wbsm4_decrypt",
     {"aven_wbsm4_decrypt"},
     HEAP,
     0,
     [](CSoftMoudle_aven& e, Exchange& x) {
         return e.aven_wbsm4_decrypt(std::move(x.a), std::move(x.b), x.in, x.out);
     }},
};

bool hasBuffer(const Row& row)
{
    return row.output != NONE;
}

bool takesInput(const Row& row)
{
    return hasBuffer(row) && row.output != LOCAL;
}

uint32_t capacityFor(const Row& row, size_t inLen)
{
    if (row.output == HEAP || row.output == HEAP_NO_TEST)
        return static_cast<uint32_t>(inLen) + row.margin;
    return row.output == ASKED ? static_cast<uint32_t>(inLen) : row.margin;
}

class EngineCalls : public ::testing::Test {
protected:
    void SetUp() override { load(engineDouble()); }
    void TearDown() override { engine.unloadLibrary(); }

    void load(const std::string& path)
    {
        stage.changeEngine(path);
        ASSERT_EQ(0, engine.loadLibrary(path.c_str()));
        stage.journal.calls.clear();
    }

    // Each row starts afresh; the last key pair of the process is then of type 3.
    void start()
    {
        stage.engine.forget();
        void* object = nullptr;
        engine.aven_keypair_read(3, "k", "", "", &object);
        stage.journal.calls.clear();
    }

    doubles::Step& on(const Row& row) { return stage.engine.on(row.needs.front()); }
    doubles::Step& onQuery(const Row& row) { return stage.engine.onQuery(row.needs.front()); }

    // The call that is made, the second one where the first asks for the length.
    const Call& engineCall(const Row& row)
    {
        return journal.at(row.needs.front(), row.output == ASKED ? 1 : 0);
    }

    void expectUntouched(const Exchange& x)
    {
        EXPECT_EQ("output as it was before", x.out);
        EXPECT_EQ("tag as it was before", x.tag);
    }

    Stage stage{"", ""};
    doubles::Journal& journal = stage.journal;
    CSoftMoudle_aven engine;
};

}  // namespace

TEST(EngineCallRows, EveryEngineFunctionHasARow)
{
    for (const std::string& function : doubles::engineFunctions()) {
        // The five lifecycle functions have tests of their own.
        if (function.compare(0, 12, "aven_global_") == 0 || function == "aven_version" ||
            function == "aven_strerror")
            continue;
        bool found = false;
        for (const Row& row : rows)
            found = found || row.needs.front() == function;
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
                    load(engineLacking(row.needs.front()));
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
            const bool fails =
                std::find(row.needs.begin(), row.needs.end(), missing) != row.needs.end();
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
        EXPECT_EQ(hasBuffer(row) || row.needs.front() == "aven_ke_new",
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
            ASSERT_EQ((Functions{row.needs.front(), row.needs.front()}), journal.functions());
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
        const bool stores = row.needs.front().compare(0, 17, "aven_crypto_pkcs7") == 0;
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

// ---- Handles.

TEST_F(EngineCalls, HandleTextIsNotChecked)
{
    const struct {
        std::string text;
        long long handle;
    } handles[] = {
        {"4096", 4096},
        {"0", 0},
        {"abc", 0},
        {"", 0},
        {"-1", -1},
        {" 17", 17},
        {"12x", 12},
        {"9223372036854775807", LONG_MAX},
        {std::string("7\0"
                     "8",
                     3),
         7},
    };
    for (const Row& row : rows) {
        if (row.needs.front().compare(0, 8, "aven_ke_") != 0 || row.needs.front() == "aven_ke_new")
            continue;
        SCOPED_TRACE(row.what);
        for (const auto& handle : handles) {
            start();
            Exchange x("input");
            x.ke = handle.text;

            EXPECT_EQ(0, row.call(engine, x));
            for (const Call& call : journal.calls)
                EXPECT_EQ(handle.handle, call["ke"].number);
        }
    }
}

TEST_F(EngineCalls, NewHandleBecomesDecimalText)
{
    const struct {
        intptr_t handle;
        const char* text;
    } handles[] = {{4096, "4096"}, {0, "0"}, {-1, "-1"}, {INTPTR_MAX, "9223372036854775807"}};
    for (const auto& row : handles) {
        journal.calls.clear();
        stage.engine.on("aven_ke_new").object = reinterpret_cast<void*>(row.handle);
        std::string ke = "before";
        EXPECT_EQ(0, engine.aven_ke_new(ke));
        EXPECT_EQ(row.text, ke);
        EXPECT_EQ(0, journal.only("aven_ke_new")["ke"].number) << "zero before the call";
    }
}

TEST_F(EngineCalls, FailedNewGivesNoText)
{
    stage.engine.on("aven_ke_new").code = 4;
    stage.engine.on("aven_ke_new").object = reinterpret_cast<void*>(16);
    std::string ke = "before";
    EXPECT_EQ(4, engine.aven_ke_new(ke));
    EXPECT_EQ("before", ke);
}

// ---- Optional texts.

TEST_F(EngineCalls, OptionalTextsAreNullWhenEmpty)
{
    using Set = int (CSoftMoudle_aven::*)(std::string, std::string, std::string, std::string);
    const struct {
        const char* function;
        Set set;
        const char* names[2];
    } setters[] = {
        {"aven_ke_set_public_key",
         &CSoftMoudle_aven::aven_ke_set_public_key,
         {"sig_key", "enc_key"}},
        {"aven_ke_set_certificate",
         &CSoftMoudle_aven::aven_ke_set_certificate,
         {"sig_cert", "enc_cert"}},
    };
    for (const auto& setter : setters) {
        SCOPED_TRACE(setter.function);
        for (const unsigned given : {0U, 1U, 2U, 3U, 4U, 5U, 6U, 7U}) {
            SCOPED_TRACE(given);
            journal.calls.clear();
            const std::string texts[3] = {given & 1 ? std::string("s\0g", 3) : "",
                                          given & 2 ? std::string("e\0c", 3) : "",
                                          given & 4 ? "password" : ""};
            EXPECT_EQ(0, (engine.*setter.set)("16", texts[0], texts[1], texts[2]));
            const Call& call = journal.only(setter.function);
            EXPECT_EQ(16, call["ke"].number);
            for (int i = 0; i < 2; ++i) {
                const std::string name = setter.names[i];
                EXPECT_EQ(texts[i].empty(), call[name].null);
                EXPECT_EQ(texts[i], call[name].bytes);
                EXPECT_EQ(static_cast<long long>(texts[i].size()), call[name + "_len"].number);
            }
            EXPECT_EQ(texts[2].empty(), call["password"].null);
            EXPECT_EQ(texts[2], call["password"].bytes);
        }
    }
}

TEST_F(EngineCalls, OptionalPathsAreNullWhenEmpty)
{
    for (const unsigned given : {0U, 1U, 2U, 3U}) {
        journal.calls.clear();
        const std::string file = given & 1 ? "/etc/ca.pem" : "";
        const std::string path = given & 2 ? "/etc/ca" : "";
        EXPECT_EQ(0, engine.aven_ke_set_root_certificate("16", file, path));
        const Call& call = journal.only("aven_ke_set_root_certificate");
        EXPECT_EQ(file.empty(), call["ca_file"].null);
        EXPECT_EQ(file, call["ca_file"].bytes);
        EXPECT_EQ(path.empty(), call["ca_path"].null);
        EXPECT_EQ(path, call["ca_path"].bytes);
    }
}

TEST_F(EngineCalls, OptionalKeyTextsAreNullWhenEmpty)
{
    for (const unsigned given : {0U, 1U, 2U, 3U, 4U, 5U, 6U, 7U}) {
        SCOPED_TRACE(given);
        journal.calls.clear();
        const std::string sk = given & 1 ? std::string("s\0k", 3) : "";
        const std::string pk = given & 2 ? std::string("p\0k", 3) : "";
        const std::string password = given & 4 ? "password" : "";
        void* keypair = nullptr;
        EXPECT_EQ(0, engine.aven_keypair_read(7, sk, pk, password, &keypair));
        const Call& pair = journal.only("aven_keypair_unmarshal");
        EXPECT_EQ(7, pair["type"].number);
        EXPECT_EQ(sk.empty(), pair["private_key"].null);
        EXPECT_EQ(sk, pair["private_key"].bytes);
        EXPECT_EQ(static_cast<long long>(sk.size()), pair["private_key_len"].number);
        EXPECT_EQ(pk.empty(), pair["public_key"].null);
        EXPECT_EQ(pk, pair["public_key"].bytes);
        EXPECT_EQ(static_cast<long long>(pk.size()), pair["public_key_len"].number);
        EXPECT_EQ(password.empty(), pair["password"].null);
        EXPECT_EQ(password, pair["password"].bytes);

        void* certificate = nullptr;
        EXPECT_EQ(0, engine.aven_certificate_read(sk, password, &certificate));
        const Call& cert = journal.only("aven_certificate_unmarshal");
        EXPECT_EQ(sk.empty(), cert["cert"].null);
        EXPECT_EQ(sk, cert["cert"].bytes);
        EXPECT_EQ(static_cast<long long>(sk.size()), cert["cert_len"].number);
        EXPECT_EQ(password.empty(), cert["password"].null);
        EXPECT_EQ(password, cert["password"].bytes);
    }
}

TEST_F(EngineCalls, TextThatBeginsWithNulIsNotEmpty)
{
    const std::string nul("\0secret", 7);
    void* object = nullptr;
    engine.aven_ke_set_public_key("16", "", "", nul);
    engine.aven_ke_set_certificate("16", "", "", nul);
    engine.aven_keypair_read(1, "", "", nul, &object);
    engine.aven_certificate_read("", nul, &object);
    ASSERT_EQ(4U, journal.calls.size());
    for (const Call& call : journal.calls) {
        EXPECT_FALSE(call["password"].null) << call.function;
        EXPECT_EQ("", call["password"].bytes) << call.function;
    }
    engine.aven_ke_set_root_certificate("16", nul, nul);
    EXPECT_FALSE(journal.calls.back()["ca_file"].null);
    EXPECT_FALSE(journal.calls.back()["ca_path"].null);
}

// ---- Key exchange.

TEST_F(EngineCalls, ServersFourValuesArePassedInOrder)
{
    std::string out;
    const std::string sign = everyByte();
    EXPECT_EQ(0, engine.aven_ke_client_key_exchange("16", "random", std::string("s\0c", 3), "enc",
                                                    sign, out));
    const Call& call = journal.only("aven_ke_client_key_exchange");
    const std::pair<const char*, std::string> arguments[] = {{"srvr_rand", "random"},
                                                             {"srvr_sig_cert", {"s\0c", 3}},
                                                             {"srvr_enc_cert", "enc"},
                                                             {"srvr_sign", sign}};
    for (const auto& [name, bytes] : arguments) {
        EXPECT_EQ(bytes, call[name].bytes) << name;
        EXPECT_EQ(static_cast<long long>(bytes.size()), call[std::string(name) + "_len"].number);
    }
    EXPECT_EQ(doubles::pattern(200), out);
}

TEST_F(EngineCalls, ServersEmptyValuesAreNotNull)
{
    std::string out;
    engine.aven_ke_client_key_exchange("16", "", "", "", "", out);
    const Call& call = journal.only("aven_ke_client_key_exchange");
    for (const std::string name : {"srvr_rand", "srvr_sig_cert", "srvr_enc_cert", "srvr_sign"}) {
        EXPECT_FALSE(call[name].null) << name;
        EXPECT_EQ(0, call[name + "_len"].number) << name;
    }
}

TEST_F(EngineCalls, TenBytesUnderASessionAreOfferedSeventyFour)
{
    std::string out = "before";
    stage.engine.on("aven_ke_encrypt").reported = 0;
    EXPECT_EQ(0, engine.aven_ke_encrypt("16", "0123456789", out));
    EXPECT_EQ(74, journal.only("aven_ke_encrypt")["out_len"].number);
    EXPECT_EQ("", out);
}

// ---- The key pair type, which the process remembers.

class KeyPairType : public EngineCalls {
protected:
    // The margin that public encryption now offers.
    long long margin(CSoftMoudle_aven& binding)
    {
        std::string out;
        binding.aven_crypto_public_encrypt(&pkey, std::string(100, 'i'), out);
        return journal
                   .at("aven_crypto_public_encrypt",
                       journal.count("aven_crypto_public_encrypt") - 1)["out_len"]
                   .number -
               100;
    }

    int read(CSoftMoudle_aven& binding, int type)
    {
        void* keypair = nullptr;
        return binding.aven_keypair_read(type, "key", "", "", &keypair);
    }
};

TEST_F(KeyPairType, OneHasASmallMarginAllOthersALargeOne)
{
    for (const int type : {0, 1, 2, 3, -1, 4, 1, 1, 257, INT_MIN, INT_MAX, 1}) {
        ASSERT_EQ(0, read(engine, type));
        EXPECT_EQ(type == 1 ? 129 : 528, margin(engine)) << type;
        EXPECT_EQ(type == 1 ? 129 : 528, margin(engine)) << type << " again";
    }
}

TEST_F(KeyPairType, IsTheProcesssAndNotTheObjects)
{
    CSoftMoudle_aven other;
    ASSERT_EQ(0, read(other, 1));
    EXPECT_EQ(129, margin(engine));
    ASSERT_EQ(0, read(engine, 3));
    EXPECT_EQ(528, margin(other));
}

TEST_F(KeyPairType, OnlySuccessfulReadsCount)
{
    ASSERT_EQ(0, read(engine, 1));
    stage.engine.on("aven_keypair_unmarshal").code = 5;
    EXPECT_EQ(5, read(engine, 3));
    EXPECT_EQ(129, margin(engine));
    stage.engine.on("aven_keypair_unmarshal").code = 0;
    stage.engine.on("aven_keypair_unmarshal").throws = true;
    EXPECT_EQ(0, read(engine, 3));
    EXPECT_EQ(129, margin(engine));
}

TEST_F(KeyPairType, OutlivesTheKeyPairAndTheEngine)
{
    ASSERT_EQ(0, read(engine, 1));
    engine.aven_keypair_free(nullptr);
    EXPECT_EQ(129, margin(engine));
    engine.unloadLibrary();
    load(engineDouble());
    EXPECT_EQ(129, margin(engine));
    ASSERT_EQ(0, read(engine, 3));
}

TEST_F(KeyPairType, IsNotTouchedByKeyGeneration)
{
    ASSERT_EQ(0, read(engine, 3));
    std::string out;
    engine.aven_crypto_gen_symmkey(1, out);
    EXPECT_EQ(1, journal.only("aven_crypto_gen_symmkey")["type"].number);
    EXPECT_EQ(528, margin(engine));
}

// ---- Objects.

TEST_F(EngineCalls, ObjectsGoFromTheEngineToTheCallerAndBack)
{
    void* keypair = nullptr;
    void* certificate = nullptr;
    ASSERT_EQ(0, engine.aven_keypair_read(1, "k", "", "", &keypair));
    ASSERT_EQ(0, engine.aven_certificate_read("c", "", &certificate));
    EXPECT_EQ(1U, stage.engine.keypairs.live.count(keypair));
    EXPECT_EQ(1U, stage.engine.certificates.live.count(certificate));
    EXPECT_EQ(0, engine.aven_keypair_free(keypair));
    EXPECT_EQ(0, engine.aven_certificate_free(certificate));
    EXPECT_EQ(1, stage.engine.keypairs.freed);
    EXPECT_EQ(1, stage.engine.certificates.freed);
    EXPECT_EQ(0, engine.aven_keypair_free(nullptr));
    EXPECT_EQ(0, engine.aven_certificate_free(nullptr));
    EXPECT_EQ(1, stage.engine.keypairs.nullsFreed);
    EXPECT_EQ(1, stage.engine.certificates.nullsFreed);
}

TEST_F(EngineCalls, PlaceOfTheObjectIsTheCallers)
{
    void* keypair = reinterpret_cast<void*>(0x77);
    stage.engine.on("aven_keypair_unmarshal").code = 5;
    EXPECT_EQ(5, engine.aven_keypair_read(1, "k", "", "", &keypair));
    EXPECT_EQ(0x77, journal.only("aven_keypair_unmarshal")["keypair"].number);
    EXPECT_EQ(reinterpret_cast<void*>(0x77), keypair);

    void* certificate = reinterpret_cast<void*>(0x78);
    stage.engine.on("aven_certificate_unmarshal").code = 5;
    EXPECT_EQ(5, engine.aven_certificate_read("c", "", &certificate));
    EXPECT_EQ(0x78, journal.only("aven_certificate_unmarshal")["certificate"].number);
    EXPECT_EQ(reinterpret_cast<void*>(0x78), certificate);
}

// ---- Symmetric ciphers.

TEST_F(EngineCalls, BlocksArePassedAsTheyAre)
{
    std::string out;
    std::string tag;
    engine.aven_crypto_encrypt(&gcm, "in", out, tag, 16);
    engine.aven_crypto_decrypt(&modeTwo, "in", "", out);
    engine.aven_crypto_public_encrypt(&pkey, "in", out);
    engine.aven_crypto_private_decrypt(&pkey, "in", out);
    engine.aven_crypto_hmac(&mac, "in", out);
    engine.aven_crypto_cmac(&mac, "in", out);
    engine.aven_crypto_envelope_encrypt(&envelope, "in", out);
    engine.aven_crypto_envelope_decrypt(&envelope, "in", out);
    const void* const blocks[] = {&gcm, &modeTwo, &pkey, &pkey, &mac, &mac, &envelope, &envelope};
    ASSERT_EQ(std::size(blocks), journal.calls.size());
    for (size_t i = 0; i < std::size(blocks); ++i)
        EXPECT_EQ(static_cast<long long>(reinterpret_cast<intptr_t>(blocks[i])),
                  journal.calls[i]["params"].number)
            << journal.calls[i].function;
}

TEST_F(EngineCalls, TagIsWrittenInModeSixOnly)
{
    for (const int mode : {-6, 0, 1, 2, 3, 4, 5, 6, 7, 262}) {
        SCOPED_TRACE(mode);
        journal.calls.clear();
        SymmCipherParams block = gcm;
        block.mode = mode;
        std::string out;
        std::string tag = "before";

        EXPECT_EQ(0, engine.aven_crypto_encrypt(&block, "in", out, tag, 12));
        const Call& call = journal.only("aven_crypto_encrypt");
        EXPECT_EQ(mode == 6 ? 12 : 0, call["tag_len"].number);
        EXPECT_EQ(mode != 6, call["tag"].null);
        EXPECT_EQ(mode == 6, call["tag"].zeroed);
        EXPECT_EQ(mode == 6 ? doubles::pattern(12) : "before", tag);
        EXPECT_EQ("in", out);
    }
}

TEST_F(EngineCalls, WithoutABlockThereIsNoTag)
{
    std::string out;
    std::string tag = "before";
    EXPECT_EQ(0, engine.aven_crypto_encrypt(nullptr, "in", out, tag, 12));
    const auto& encrypted = journal.only("aven_crypto_encrypt");
    EXPECT_EQ(0, encrypted["tag_len"].number);
    EXPECT_TRUE(encrypted["tag"].null);
    EXPECT_EQ("before", tag);
    EXPECT_EQ("in", out);

    journal.calls.clear();
    EXPECT_EQ(0, engine.aven_crypto_decrypt(nullptr, "in", "tag", out));
    const auto& decrypted = journal.only("aven_crypto_decrypt");
    EXPECT_EQ(0, decrypted["tag_len"].number);
    EXPECT_TRUE(decrypted["tag"].null);
}

TEST_F(EngineCalls, TagHasTheLengthAskedForWhateverTheEngineWrote)
{
    const struct {
        int tagLen;
        size_t size;
    } lengths[] = {{4, 4}, {16, 16}, {0, 0}, {511, 511}, {512, 512}};
    for (const auto& row : lengths) {
        SCOPED_TRACE(row.tagLen);
        journal.calls.clear();
        stage.engine.on("aven_crypto_encrypt").tag = "\1\2";
        std::string out;
        std::string tag = "before";
        EXPECT_EQ(0, engine.aven_crypto_encrypt(&gcm, "in", out, tag, row.tagLen));
        EXPECT_EQ(row.tagLen, journal.only("aven_crypto_encrypt")["tag_len"].number);
        std::string expected = "\1\2";
        expected.resize(row.size, '\0');
        EXPECT_EQ(expected, tag);
    }
}

TEST_F(EngineCalls, TagBeyondItsBufferIsNeitherOfferedNorRead)
{
    for (const int tagLen : {513, 1024, 1 << 20, INT_MAX}) {
        std::string out;
        std::string tag;
        journal.calls.clear();
        EXPECT_EQ(0, engine.aven_crypto_encrypt(&gcm, "in", out, tag, tagLen));
        EXPECT_EQ(512, journal.only("aven_crypto_encrypt")["tag_len"].number) << tagLen;
        EXPECT_LE(tag.size(), 512U) << tagLen;
        EXPECT_EQ("in", out);
    }
    for (const int tagLen : {-1, INT_MIN}) {
        std::string out;
        std::string tag = "before";
        journal.calls.clear();
        EXPECT_NO_THROW(engine.aven_crypto_encrypt(&gcm, "in", out, tag, tagLen));
        EXPECT_EQ(0, journal.only("aven_crypto_encrypt")["tag_len"].number) << tagLen;
        EXPECT_EQ("", tag) << tagLen;
    }
}

TEST_F(EngineCalls, TagIsVerifiedInModeSixOnly)
{
    for (const int mode : {1, 2, 5, 6, 7}) {
        for (const std::string& tag : {std::string("t\0g", 3), std::string()}) {
            SCOPED_TRACE(mode);
            journal.calls.clear();
            SymmCipherParams block = gcm;
            block.mode = mode;
            std::string out;
            EXPECT_EQ(0, engine.aven_crypto_decrypt(&block, "in", tag, out));
            const Call& call = journal.only("aven_crypto_decrypt");
            EXPECT_EQ(mode != 6, call["tag"].null) << "an empty tag is no null in mode 6";
            EXPECT_EQ(mode == 6 ? tag : "", call["tag"].bytes);
            EXPECT_EQ(mode == 6 ? static_cast<long long>(tag.size()) : 0, call["tag_len"].number);
        }
    }
}

TEST_F(EngineCalls, KeyTypeIsPassedUnchecked)
{
    for (const int type : {0, 1, 7, 8, -1, INT_MIN}) {
        journal.calls.clear();
        std::string out;
        EXPECT_EQ(0, engine.aven_crypto_gen_symmkey(type, out));
        EXPECT_EQ(type, journal.only("aven_crypto_gen_symmkey")["type"].number);
        EXPECT_EQ(doubles::pattern(16), out);
    }
}

// ---- Key derivation.

TEST_F(EngineCalls, KdfFillsExactlyTheLengthAsked)
{
    const struct {
        int keyLen;
        uint32_t asked;
    } lengths[] = {{0, 0}, {1, 1}, {32, 32}, {65535, 65535}, {-1, 0}, {-5, 0}, {INT_MIN, 0}};
    for (const auto& row : lengths) {
        SCOPED_TRACE(row.keyLen);
        journal.calls.clear();
        std::string out = "before";
        EXPECT_EQ(0, engine.aven_crypto_kdf(-3, std::string("s\0d", 3), row.keyLen, out));
        const Call& call = journal.only("aven_crypto_kdf");
        EXPECT_EQ(-3, call["alg"].number);
        EXPECT_EQ(std::string("s\0d", 3), call["in"].bytes);
        EXPECT_EQ(row.asked, call["out_len"].number);
        EXPECT_FALSE(call["out"].null);
        EXPECT_TRUE(call["out"].zeroed);
        EXPECT_EQ(doubles::pattern(row.asked), out);
    }
}

TEST_F(EngineCalls, KdfThatWritesLessIsFilledUpWithZeros)
{
    stage.engine.on("aven_crypto_kdf").output = "ab";
    std::string out;
    EXPECT_EQ(0, engine.aven_crypto_kdf(1, "in", 5, out));
    EXPECT_EQ(std::string("ab\0\0\0", 5), out);
}

// ---- White box.

TEST_F(EngineCalls, WhiteBoxPassesItsKindKeyAndIv)
{
    using Cipher = int (CSoftMoudle_aven::*)(std::string, std::string, std::string&, std::string&);
    const struct {
        const char* function;
        Cipher cipher;
        long long margin;
    } ciphers[] = {
        {"aven_wbsm4_encrypt", &CSoftMoudle_aven::aven_wbsm4_encrypt, 32},
        {"aven_wbsm4_decrypt", &CSoftMoudle_aven::aven_wbsm4_decrypt, 0},
    };
    for (const auto& row : ciphers) {
        for (const std::string& text : {std::string("k\0y", 3), std::string(), everyByte()}) {
            SCOPED_TRACE(row.function);
            journal.calls.clear();
            std::string in = "some input";
            std::string out;
            EXPECT_EQ(0, (engine.*row.cipher)(text, text, in, out));
            const Call& call = journal.only(row.function);
            EXPECT_EQ(1, call["kind"].number);
            for (const std::string name : {"key", "iv"}) {
                EXPECT_FALSE(call[name].null);
                EXPECT_EQ(text, call[name].bytes);
                EXPECT_EQ(static_cast<long long>(text.size()), call[name + "_len"].number);
            }
            EXPECT_EQ(10 + row.margin, call["out_len"].number);
            EXPECT_EQ("some input", in);
            EXPECT_EQ("some input", out);
        }
    }
}

TEST_F(EngineCalls, OneTextMayBeInputAndOutputOfTheWhiteBox)
{
    std::string text = "in place";
    EXPECT_EQ(0, engine.aven_wbsm4_encrypt("key", "iv", text, text));
    EXPECT_EQ("in place", text);
}
