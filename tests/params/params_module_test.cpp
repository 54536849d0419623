// The reference parameter module: its stores, the two-call reads, wrong arguments,
// threads and unloading.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/opened_library.h"
#include "params/params_module.h"
#include "support/rounds.h"

namespace {

class Module : public ParamsFunctions {
public:
    Module() { bind(m_library); }

private:
    OpenedLibrary m_library = openLibrary(CORVANE_PARAMS_LIBRARY);
};

using Add = int (*)(char*, long, char*, long);
using Get = int (*)(char*, long, char*, long*);

// The bytes in a block of their own of exactly that size.
struct Exact {
    explicit Exact(const std::string& text)
        : data(new char[text.size()]), size(static_cast<long>(text.size()))
    {
        memcpy(data.get(), text.data(), text.size());
    }
    std::unique_ptr<char[]> data;
    long size;
};

int add(Add function, const std::string& name, const std::string& value)
{
    const Exact n(name), v(value);
    return function(n.data.get(), n.size, v.data.get(), v.size);
}

// Both calls, as the plug-in makes them.
std::string get(Get function, const std::string& name)
{
    const Exact n(name);
    long len = 0;
    if (function(n.data.get(), n.size, nullptr, &len) != 0)
        return "(absent)";
    std::string value(static_cast<size_t>(len) + 1, '\0');
    EXPECT_EQ(function(n.data.get(), n.size, &value[0], &len), 0);
    EXPECT_EQ(value[static_cast<size_t>(len)], '\0');
    return value.substr(0, static_cast<size_t>(len));
}

class ParamsModule : public testing::Test {
protected:
    std::string nameAt(int index)
    {
        long nameLen = 0, valueLen = 0;
        EXPECT_EQ(m.GetRetParamFromIndex(index, nullptr, &nameLen, nullptr, &valueLen), 0);
        Exact name(std::string(static_cast<size_t>(nameLen), '?'));
        EXPECT_EQ(m.GetRetParamFromIndex(index, name.data.get(), &nameLen, nullptr, &valueLen), 0);
        return std::string(name.data.get(), static_cast<size_t>(nameLen));
    }

    std::string valueAt(int index)
    {
        long nameLen = 0, valueLen = 0;
        EXPECT_EQ(m.GetRetParamFromIndex(index, nullptr, &nameLen, nullptr, &valueLen), 0);
        Exact value(std::string(static_cast<size_t>(valueLen), '?'));
        EXPECT_EQ(m.GetRetParamFromIndex(index, nullptr, &nameLen, value.data.get(), &valueLen), 0);
        return std::string(value.data.get(), static_cast<size_t>(valueLen));
    }

    int count()
    {
        int n = -1;
        EXPECT_EQ(m.GetRetParamsSum(&n), 0);
        return n;
    }

    struct Store {
        Add add;
        Get get;
        int (*clear)();
    };
    std::vector<Store> stores()
    {
        return {{m.AddHttpParams, m.GetHttpParams, m.ClearHttpParams},
                {m.AddRetParams, m.GetRetParams, m.ClearRetParams}};
    }

    Module m;
};

// ---- Stores

TEST_F(ParamsModule, KeepsAnyBytesAndLengths)
{
    const std::string odd("a\0b\xff", 4);
    for (const Store& store : stores()) {
        EXPECT_EQ(add(store.add, "name", odd), 0);
        EXPECT_EQ(add(store.add, odd, "value"), 0);
        EXPECT_EQ(add(store.add, "empty", ""), 0);
        EXPECT_EQ(add(store.add, "", "nameless"), 0);
        EXPECT_EQ(add(store.add, "large", std::string(3 << 20, 'x')), 0);
        EXPECT_EQ(get(store.get, "name"), odd);
        EXPECT_EQ(get(store.get, odd), "value");
        EXPECT_EQ(get(store.get, std::string("a\0b", 3)), "(absent)");
        EXPECT_EQ(get(store.get, "a"), "(absent)");
        EXPECT_EQ(get(store.get, "empty"), "");
        EXPECT_EQ(get(store.get, ""), "nameless");
        EXPECT_EQ(get(store.get, "large"), std::string(3 << 20, 'x'));
    }
}

TEST_F(ParamsModule, TheStoresAreApartAndAreClearedApart)
{
    add(m.AddHttpParams, "n", "request");
    add(m.AddRetParams, "n", "result");
    char text[] = "custom";
    m.SetRetCustomParam(text, 6);
    EXPECT_EQ(get(m.GetHttpParams, "n"), "request");
    EXPECT_EQ(get(m.GetRetParams, "n"), "result");
    EXPECT_EQ(m.ClearHttpParams(), 0);
    EXPECT_EQ(get(m.GetHttpParams, "n"), "(absent)");
    EXPECT_EQ(get(m.GetRetParams, "n"), "result");
    EXPECT_EQ(m.ClearRetParams(), 0);
    EXPECT_EQ(get(m.GetRetParams, "n"), "(absent)");
    long len = 0;
    EXPECT_EQ(m.GetRetCustomParam(nullptr, &len), 0);
    EXPECT_EQ(len, 6);
    EXPECT_EQ(m.ClearRetCustomParam(), 0);
    EXPECT_EQ(m.GetRetCustomParam(nullptr, &len), 0);
    EXPECT_EQ(len, 0);
}

TEST_F(ParamsModule, AddingAnExistingNameReplacesInPlace)
{
    for (const char* name : {"first", "second", "third"})
        add(m.AddRetParams, name, std::string("1 ") + name);
    add(m.AddRetParams, "second", "2");
    EXPECT_EQ(count(), 3);
    EXPECT_EQ(nameAt(0), "first");
    EXPECT_EQ(nameAt(1), "second");
    EXPECT_EQ(valueAt(1), "2");
    EXPECT_EQ(nameAt(2), "third");
    EXPECT_EQ(valueAt(2), "1 third");
    add(m.AddHttpParams, "n", "1");
    add(m.AddHttpParams, "n", "2");
    EXPECT_EQ(get(m.GetHttpParams, "n"), "2");
}

TEST_F(ParamsModule, ChangeReplacesExistingNamesOnly)
{
    EXPECT_EQ(add(m.ChangeHttpParams, "n", "1"), PARAMS_UNKNOWN_NAME);
    EXPECT_EQ(get(m.GetHttpParams, "n"), "(absent)");
    add(m.AddHttpParams, "n", "1");
    EXPECT_EQ(add(m.ChangeHttpParams, "n", ""), 0);
    EXPECT_EQ(get(m.GetHttpParams, "n"), "");
    EXPECT_EQ(add(m.ChangeHttpParams, "n", "2"), 0);
    EXPECT_EQ(get(m.GetHttpParams, "n"), "2");
    add(m.AddRetParams, "r", "1");
    EXPECT_EQ(add(m.ChangeHttpParams, "r", "2"), PARAMS_UNKNOWN_NAME);
}

TEST_F(ParamsModule, IndexRunsFromZeroToCountMinusOne)
{
    long a = 7, b = 8;
    EXPECT_EQ(count(), 0);
    EXPECT_EQ(m.GetRetParamFromIndex(0, nullptr, &a, nullptr, &b), PARAMS_BAD_INDEX);
    add(m.AddRetParams, "n", "v");
    EXPECT_EQ(count(), 1);
    for (int index : {-1, 1, INT_MAX, INT_MIN})
        EXPECT_EQ(m.GetRetParamFromIndex(index, nullptr, &a, nullptr, &b), PARAMS_BAD_INDEX);
    EXPECT_EQ(a, 7);
    EXPECT_EQ(b, 8);
    EXPECT_EQ(nameAt(0), "n");
    m.ClearRetParams();
    EXPECT_EQ(count(), 0);
}

// ---- Reading

TEST_F(ParamsModule, ReadsNeverWriteMoreThanTheLengthSays)
{
    for (const Store& store : stores()) {
        add(store.add, "n", "12345");
        char name[] = "n";
        for (long room = 0; room < 8; ++room) {
            char buffer[16];
            memset(buffer, '#', sizeof buffer);
            long len = room;
            const int code = store.get(name, 1, buffer, &len);
            EXPECT_EQ(len, 5);
            if (room < 5) {
                EXPECT_EQ(code, PARAMS_BUFFER_TOO_SMALL);
                EXPECT_EQ(std::string(buffer, 16), std::string(16, '#'));
            } else {
                EXPECT_EQ(code, 0);
                EXPECT_EQ(std::string(buffer, 16), "12345###########");
            }
        }
        long len = 1;  // a null buffer asks for the length whatever is in it
        EXPECT_EQ(store.get(name, 1, nullptr, &len), 0);
        EXPECT_EQ(len, 5);
    }
}

TEST_F(ParamsModule, AbsentNamesLeaveTheLengthAlone)
{
    char name[] = "n", buffer[4] = "xyz";
    long len = 3;
    EXPECT_EQ(m.GetHttpParams(name, 1, buffer, &len), PARAMS_UNKNOWN_NAME);
    EXPECT_EQ(m.GetRetParams(name, 1, nullptr, &len), PARAMS_UNKNOWN_NAME);
    EXPECT_EQ(len, 3);
    EXPECT_STREQ(buffer, "xyz");
}

TEST_F(ParamsModule, IndexReadsBothOrNeither)
{
    add(m.AddRetParams, "name", "value!");
    char name[8], value[8];
    const auto read = [&](long nameRoom, long valueRoom) {
        memset(name, '#', sizeof name);
        memset(value, '#', sizeof value);
        long nameLen = nameRoom, valueLen = valueRoom;
        const int code = m.GetRetParamFromIndex(0, name, &nameLen, value, &valueLen);
        EXPECT_EQ(nameLen, 4);
        EXPECT_EQ(valueLen, 6);
        return code;
    };
    EXPECT_EQ(read(4, 6), 0);
    EXPECT_EQ(std::string(name, 8), "name####");
    EXPECT_EQ(std::string(value, 8), "value!##");
    for (auto rooms : {std::make_pair(3, 6), std::make_pair(4, 5), std::make_pair(0, 0)}) {
        EXPECT_EQ(read(rooms.first, rooms.second), PARAMS_BUFFER_TOO_SMALL);
        EXPECT_EQ(std::string(name, 8), "########");
        EXPECT_EQ(std::string(value, 8), "########");
    }
}

TEST_F(ParamsModule, CustomTextIsReadInTwoCalls)
{
    const std::string text("a\0b", 3);
    Exact set(text);
    EXPECT_EQ(m.SetRetCustomParam(set.data.get(), set.size), 0);
    long len = 0;
    EXPECT_EQ(m.GetRetCustomParam(nullptr, &len), 0);
    EXPECT_EQ(len, 3);
    Exact buffer("???");
    len = 2;
    EXPECT_EQ(m.GetRetCustomParam(buffer.data.get(), &len), PARAMS_BUFFER_TOO_SMALL);
    EXPECT_EQ(len, 3);
    EXPECT_EQ(std::string(buffer.data.get(), 3), "???");
    EXPECT_EQ(m.GetRetCustomParam(buffer.data.get(), &len), 0);
    EXPECT_EQ(std::string(buffer.data.get(), 3), text);
    EXPECT_EQ(m.SetRetCustomParam(nullptr, 0), 0);
    EXPECT_EQ(m.GetRetCustomParam(nullptr, &len), 0);
    EXPECT_EQ(len, 0);
}

// ---- Wrong arguments

TEST_F(ParamsModule, CodesAreTheseNumbers)
{
    EXPECT_EQ(int{PARAMS_OK}, 0);
    EXPECT_EQ(int{PARAMS_UNKNOWN_NAME}, -31001);
    EXPECT_EQ(int{PARAMS_BAD_INDEX}, -31002);
    EXPECT_EQ(int{PARAMS_BUFFER_TOO_SMALL}, -31003);
    EXPECT_EQ(int{PARAMS_NULL_POINTER}, -31004);
    EXPECT_EQ(int{PARAMS_NEGATIVE_LENGTH}, -31005);
    EXPECT_EQ(int{PARAMS_NO_MEMORY}, -31006);
    EXPECT_EQ(int{PARAMS_CLOSED}, -31007);
}

TEST_F(ParamsModule, WrongArgumentsHaveCodesAndChangeNothing)
{
    char text[] = "n";
    long len = 1;
    for (Add function : {m.AddHttpParams, m.ChangeHttpParams, m.AddRetParams}) {
        EXPECT_EQ(function(nullptr, 1, text, 1), PARAMS_NULL_POINTER);
        EXPECT_EQ(function(text, 1, nullptr, 1), PARAMS_NULL_POINTER);
        for (long bad : {-1L, LONG_MIN}) {
            EXPECT_EQ(function(text, bad, text, 1), PARAMS_NEGATIVE_LENGTH);
            EXPECT_EQ(function(text, 1, text, bad), PARAMS_NEGATIVE_LENGTH);
            EXPECT_EQ(function(nullptr, bad, nullptr, bad), PARAMS_NEGATIVE_LENGTH);
        }
    }
    for (const Store& store : stores()) {
        EXPECT_EQ(get(store.get, "n"), "(absent)");
        EXPECT_EQ(store.add(text, 1, nullptr, 0), 0);
        EXPECT_EQ(store.get(nullptr, 1, text, &len), PARAMS_NULL_POINTER);
        EXPECT_EQ(store.get(text, -1, text, &len), PARAMS_NEGATIVE_LENGTH);
        EXPECT_EQ(store.get(text, 1, text, nullptr), PARAMS_NULL_POINTER);
        EXPECT_EQ(store.get(text, 1, nullptr, nullptr), PARAMS_NULL_POINTER);
        EXPECT_EQ(store.get(text, 1, text, &(len = -1)), PARAMS_NEGATIVE_LENGTH);
        EXPECT_EQ(len, -1);
    }
    EXPECT_EQ(m.GetRetParamsSum(nullptr), PARAMS_NULL_POINTER);
    long room = 1;
    EXPECT_EQ(m.GetRetParamFromIndex(0, text, nullptr, text, &room), PARAMS_NULL_POINTER);
    EXPECT_EQ(m.GetRetParamFromIndex(0, text, &room, text, nullptr), PARAMS_NULL_POINTER);
    EXPECT_EQ(m.GetRetParamFromIndex(0, text, &len, text, &room), PARAMS_NEGATIVE_LENGTH);
    EXPECT_EQ(m.GetRetParamFromIndex(0, text, &room, text, &len), PARAMS_NEGATIVE_LENGTH);
    EXPECT_EQ(m.SetRetCustomParam(nullptr, 1), PARAMS_NULL_POINTER);
    EXPECT_EQ(m.SetRetCustomParam(text, -1), PARAMS_NEGATIVE_LENGTH);
    EXPECT_EQ(m.GetRetCustomParam(text, nullptr), PARAMS_NULL_POINTER);
    EXPECT_EQ(m.GetRetCustomParam(text, &(len = LONG_MIN)), PARAMS_NEGATIVE_LENGTH);
}

TEST_F(ParamsModule, NoMemoryIsACodeAndKeepsTheOldValue)
{
    // The copy is allocated before the bytes are read, so they need not exist.
    add(m.AddHttpParams, "n", "old");
    char text[] = "n";
    EXPECT_EQ(m.AddHttpParams(text, 1, text, LONG_MAX), PARAMS_NO_MEMORY);
    EXPECT_EQ(m.ChangeHttpParams(text, 1, text, LONG_MAX), PARAMS_NO_MEMORY);
    EXPECT_EQ(m.SetRetCustomParam(text, LONG_MAX), PARAMS_NO_MEMORY);
    if (!support::sanitized) {
        EXPECT_EQ(m.AddHttpParams(text, 1, text, 1L << 46), PARAMS_NO_MEMORY);
    }
    EXPECT_EQ(get(m.GetHttpParams, "n"), "old");
}

// ---- Threads

TEST_F(ParamsModule, EachThreadHasItsOwnStores)
{
    add(m.AddHttpParams, "n", "main");
    std::thread([this] {
        EXPECT_EQ(get(m.GetHttpParams, "n"), "(absent)");
        add(m.AddHttpParams, "n", "other");
        EXPECT_EQ(get(m.GetHttpParams, "n"), "other");
        add(m.AddRetParams, "r", "other");
        EXPECT_EQ(count(), 1);
    }).join();
    EXPECT_EQ(get(m.GetHttpParams, "n"), "main");
    EXPECT_EQ(count(), 0);
}

TEST_F(ParamsModule, EightThreadsAtOnce)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([this, t] {
            for (int round = 0; round < 500; ++round) {
                const std::string value = std::to_string(t * 1000 + round);
                add(m.AddHttpParams, "n", value);
                ASSERT_EQ(get(m.GetHttpParams, "n"), value);
                if (round % 50 == 0)
                    m.ClearHttpParams();
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
}

// ---- Unloading

TEST(ParamsModuleUnload, RoundsStayFlat)
{
    support::staysFlat("CORVANE_PARAMS_ROUNDS", 10000, [] {
        {
            Module m;
            add(m.AddHttpParams, "n", std::string(20000, 'x'));
            add(m.AddRetParams, "n", std::string(20000, 'x'));
        }
        ASSERT_FALSE(isLibraryOpen(CORVANE_PARAMS_LIBRARY));
    });
}

TEST(ParamsModuleUnload, ThreadsThatEndLeaveNothing)
{
    Module m;
    support::staysFlat("CORVANE_PARAMS_ROUNDS", 2000, [&] {
        std::thread([&] { add(m.AddHttpParams, "n", std::string(50000, 'x')); }).join();
    });
}

TEST(ParamsModuleUnload, AThreadThatUsedItMayEndLater)
{
    std::atomic<int> step{0};
    auto m = std::make_unique<Module>();
    std::thread user([&] {
        add(m->AddHttpParams, "n", std::string(50000, 'x'));
        step = 1;
        while (step != 2)
            std::this_thread::yield();
    });
    while (step != 1)
        std::this_thread::yield();
    m.reset();
    EXPECT_FALSE(isLibraryOpen(CORVANE_PARAMS_LIBRARY));
    step = 2;
    user.join();
}

// In any order, and some of them after the library.
TEST(ParamsModuleUnload, ThreadsLeaveNothingWhateverTheirOrder)
{
    constexpr size_t COUNT = 4;
    size_t order[COUNT] = {0, 1, 2, 3};
    support::staysFlat("CORVANE_PARAMS_ROUNDS", 24, [&] {
        for (size_t ended : {size_t{2}, size_t{3}, COUNT}) {
            auto m = std::make_unique<Module>();
            std::atomic<size_t> added{0};
            std::atomic<bool> mayEnd[COUNT] = {};
            std::thread threads[COUNT];
            for (size_t i = 0; i < COUNT; ++i) {
                threads[i] = std::thread([&, i] {
                    add(m->AddHttpParams, "n", std::string(5000, 'x'));
                    ++added;
                    while (!mayEnd[i])
                        std::this_thread::yield();
                });
                while (added != i + 1)
                    std::this_thread::yield();
            }
            for (size_t i = 0; i < COUNT; ++i) {
                if (i == ended)
                    m.reset();
                mayEnd[order[i]] = true;
                threads[order[i]].join();
            }
        }
        std::next_permutation(std::begin(order), std::end(order));
    });
}

TEST(ParamsModuleUnload, AThreadStartsAfreshInALaterLoad)
{
    {
        Module m;
        EXPECT_TRUE(isLibraryOpen(CORVANE_PARAMS_LIBRARY));
        add(m.AddHttpParams, "n", "old");
    }
    ASSERT_FALSE(isLibraryOpen(CORVANE_PARAMS_LIBRARY));
    Module m;
    EXPECT_EQ(get(m.GetHttpParams, "n"), "(absent)");
}

TEST(ParamsModuleUnload, ProcessMayExitWhileThreadsCall)
{
    const pid_t child = fork();
    if (child == 0) {
        Module& m = *new Module;
        for (int t = 0; t < 8; ++t) {
            std::thread([&m] {
                char name[] = "n";
                for (;;) {
                    const int code = m.AddHttpParams(name, 1, name, 1);
                    if (code != 0 && code != PARAMS_CLOSED)
                        abort();
                }
            }).detach();
        }
        usleep(20000);
        exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

// The last streams are written once libraries have ended.
TEST(ParamsModuleUnload, EveryCallIsRefusedOnceTheProcessHasEndedTheModule)
{
    const pid_t child = fork();
    if (child == 0) {
        static Module* const m = new Module;
        add(m->AddHttpParams, "n", "value");
        cookie_io_functions_t functions = {};
        functions.write = [](void*, const char*, size_t) -> ssize_t {
            char text[] = "n";
            long len = 1;
            int count = 0;
            for (const int code :
                 {m->AddHttpParams(text, 1, text, 1), m->GetHttpParams(text, 1, nullptr, &len),
                  m->ChangeHttpParams(text, 1, text, 1), m->ClearHttpParams(),
                  m->AddRetParams(text, 1, text, 1), m->GetRetParams(text, 1, nullptr, &len),
                  m->GetRetParamsSum(&count),
                  m->GetRetParamFromIndex(0, nullptr, &len, nullptr, &len), m->ClearRetParams(),
                  m->SetRetCustomParam(text, 1), m->GetRetCustomParam(nullptr, &len),
                  m->ClearRetCustomParam()})
                if (code != PARAMS_CLOSED)
                    _exit(1);
            _exit(42);
        };
        FILE* const last = fopencookie(nullptr, "w", functions);
        setvbuf(last, nullptr, _IOFBF, 64);
        fputs("text", last);
        exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 42);
}

}  // namespace
