// What the reference parameter module leaves in memory of values that are gone.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "common/opened_library.h"
#include "params/params_module.h"
#include "support/allocation_fault.h"
#include "support/memory_scan.h"
#include "support/vault.h"
#include "support/wiping.h"

namespace {

using namespace support;

// Two of them would fit into a short std::string.
constexpr size_t SIZES[] = {12, 15, 16, 40, 1000, 1 << 20};

char* textOf(Held held)
{
    return reinterpret_cast<char*>(held.data);
}

class ParamsTraces : public testing::Test {
protected:
    void SetUp() override { m.bind(library); }

    Held secret(size_t size)
    {
        const Held held = vault.random(size);
        markAgain(held);
        return held;
    }

    // Of long ones the beginning and the end.
    void markAgain(Held held)
    {
        const std::string_view bytes = held.view();
        marks.add("value's beginning", bytes.substr(0, 2000));
        marks.add("value's end", bytes.substr(bytes.size() - std::min<size_t>(bytes.size(), 2000)));
    }

    // Does something far down the stack, so that looking for traces of it overwrites none.
    template <class Work>
    void doing(Work work)
    {
        if (!m_kept)
            m_kept.emplace();
        deeperInStack(work);
    }

    int add(Held value, const char* called = "strKey")
    {
        return m.AddHttpParams(const_cast<char*>(called), static_cast<long>(strlen(called)),
                               textOf(value), value.size);
    }
    int addResult(Held value, const char* called = "Data")
    {
        return m.AddRetParams(const_cast<char*>(called), static_cast<long>(strlen(called)),
                              textOf(value), value.size);
    }

    std::vector<Trace> traces() const { return tracesHere(marks, {vault.range()}); }

    void expectNoTraces()
    {
        const std::vector<Trace> found = traces();
        EXPECT_TRUE(found.empty()) << support::textOf(found);
        m_kept.reset();
        marks = Marks();
    }

    OpenedLibrary library = openLibrary(CORVANE_PARAMS_LIBRARY);
    ParamsFunctions m;
    Vault vault;
    Marks marks;
    char name[7] = "strKey";

private:
    std::optional<KeptBlocks> m_kept;  // freed blocks, until they have been looked at
};

TEST_F(ParamsTraces, NoneRemainOfReplacedValues)
{
    for (size_t size : SIZES) {
        SCOPED_TRACE(size);
        doing([&] {
            EXPECT_EQ(add(secret(size)), 0);
            EXPECT_EQ(addResult(secret(size)), 0);
            const Held changed = secret(size);
            EXPECT_EQ(m.ChangeHttpParams(name, 6, textOf(changed), changed.size), 0);
            const Held custom = secret(size);
            EXPECT_EQ(m.SetRetCustomParam(textOf(custom), custom.size), 0);
        });
        EXPECT_GE(traces().size(), 3U);  // they are there while they are valid
        doing([&] {
            const Held other = vault.hold("other");
            EXPECT_EQ(add(other), 0);
            EXPECT_EQ(addResult(other), 0);
            EXPECT_EQ(m.SetRetCustomParam(textOf(other), other.size), 0);
        });
        expectNoTraces();
    }
}

TEST_F(ParamsTraces, NoneRemainOfClearedValues)
{
    for (size_t size : SIZES) {
        SCOPED_TRACE(size);
        doing([&] {
            // So many that the store moves.
            for (int i = 0; i < 20; ++i) {
                EXPECT_EQ(add(secret(size), std::to_string(i).c_str()), 0);
                EXPECT_EQ(addResult(secret(size), std::to_string(i).c_str()), 0);
            }
            const Held custom = secret(size);
            EXPECT_EQ(m.SetRetCustomParam(textOf(custom), custom.size), 0);
            EXPECT_EQ(m.ClearHttpParams(), 0);
            EXPECT_EQ(m.ClearRetParams(), 0);
            EXPECT_EQ(m.ClearRetCustomParam(), 0);
        });
        expectNoTraces();
    }
}

TEST_F(ParamsTraces, NoneRemainOfReading)
{
    for (size_t size : SIZES) {
        SCOPED_TRACE(size);
        doing([&] {
            const Held value = secret(size), room = vault.room(size);
            long length = static_cast<long>(size), nameLength = 6;
            EXPECT_EQ(add(value), 0);
            EXPECT_EQ(m.GetHttpParams(name, 6, textOf(room), &length), 0);
            EXPECT_EQ(room.view(), value.view());
            length = 1;
            EXPECT_EQ(m.GetHttpParams(name, 6, textOf(room), &length), PARAMS_BUFFER_TOO_SMALL);
            EXPECT_EQ(addResult(value, "strKey"), 0);
            EXPECT_EQ(m.GetRetParams(name, 6, textOf(room), &length), 0);
            EXPECT_EQ(m.GetRetParamFromIndex(0, name, &nameLength, textOf(room), &length), 0);
            EXPECT_EQ(m.SetRetCustomParam(textOf(value), value.size), 0);
            EXPECT_EQ(m.GetRetCustomParam(textOf(room), &length), 0);
            EXPECT_EQ(m.ClearHttpParams(), 0);
            EXPECT_EQ(m.ClearRetParams(), 0);
            EXPECT_EQ(m.ClearRetCustomParam(), 0);
        });
        expectNoTraces();
    }
}

TEST_F(ParamsTraces, NoneRemainOfRefusedCalls)
{
    doing([&] {
        const Held value = secret(40);
        EXPECT_EQ(m.ChangeHttpParams(name, 6, textOf(value), value.size), PARAMS_UNKNOWN_NAME);
        EXPECT_EQ(m.AddHttpParams(nullptr, 6, textOf(value), value.size), PARAMS_NULL_POINTER);
        EXPECT_EQ(m.AddRetParams(name, -1, textOf(value), value.size), PARAMS_NEGATIVE_LENGTH);
    });
    expectNoTraces();
}

// Every allocation of a call fails once.
TEST_F(ParamsTraces, NoneRemainWithoutMemory)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    const doubles::Journal journal = {};
    const Held value = secret(15);
    char longName[] = "a name that does not fit into a short text";
    bool struck = true;
    for (size_t n = 1; struck; ++n) {
        ASSERT_EQ(m.ClearHttpParams(), 0);
        doing([&] {
            const AllocationFault fault = AllocationFault::nth(journal, n);
            const int code = m.AddHttpParams(longName, 40, textOf(value), value.size);
            struck = fault.struck();
            EXPECT_EQ(code, struck ? PARAMS_NO_MEMORY : 0);
        });
        if (struck) {
            expectNoTraces();
            markAgain(value);
        }
    }
    EXPECT_EQ(m.ClearHttpParams(), 0);
    expectNoTraces();
}

TEST_F(ParamsTraces, NoneRemainOfThreadsThatHaveEnded)
{
    for (size_t size : SIZES) {
        const Held first = secret(size), second = secret(size), third = secret(size);
        std::thread([&] {
            EXPECT_EQ(add(first), 0);
            EXPECT_EQ(addResult(second), 0);
            EXPECT_EQ(m.SetRetCustomParam(textOf(third), third.size), 0);
        }).join();
        expectNoTraces();
    }
}

TEST_F(ParamsTraces, NoneRemainOnceUnloaded)
{
    const Held own = secret(15), others = secret(40);
    // The other thread does no more than wait: its registers still hold bytes of its value, which
    // the dynamic linker would write onto the stack.
    int added[2], ended[2];
    ASSERT_EQ(pipe(added), 0);
    ASSERT_EQ(pipe(ended), 0);
    char byte = 0;
    std::thread other([&] {
        const int code = add(others);
        EXPECT_EQ(write(added[1], "", 1), 1);
        EXPECT_EQ(read(ended[0], &byte, 1), 1);
        EXPECT_EQ(code, 0);
    });
    doing([&] {
        EXPECT_EQ(addResult(own), 0);
        EXPECT_EQ(m.SetRetCustomParam(textOf(own), own.size), 0);
        EXPECT_EQ(read(added[0], &byte, 1), 1);
        library.reset();
    });
    EXPECT_FALSE(isLibraryOpen(CORVANE_PARAMS_LIBRARY));
    expectNoTraces();
    EXPECT_EQ(write(ended[1], "", 1), 1);
    other.join();
    for (int end : {added[0], added[1], ended[0], ended[1]})
        close(end);
}

// The proof that the tests above can fail.
TEST_F(ParamsTraces, ManyAreFoundWithoutWiping)
{
    const WithoutWiping off;
    size_t found = 0;
    for (size_t size : SIZES) {
        doing([&] {
            EXPECT_EQ(add(secret(size)), 0);
            EXPECT_EQ(addResult(secret(size)), 0);
            const Held custom = secret(size);
            EXPECT_EQ(m.SetRetCustomParam(textOf(custom), custom.size), 0);
            EXPECT_EQ(m.ClearHttpParams(), 0);
            EXPECT_EQ(m.ClearRetParams(), 0);
            EXPECT_EQ(m.ClearRetCustomParam(), 0);
        });
        found += traces().size();
        marks = Marks();
    }
    EXPECT_GE(found, 10U);  // the allocator overwrites short ones
}

}  // namespace
