// The scan for traces of secrets: what it finds, where, and that it does not find itself.
#include "support/memory_scan.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <set>
#include <system_error>

#include "support/base64_text.h"

using support::Marks;
using support::MemoryRange;
using support::Trace;

namespace {

constexpr size_t SIZE = 48;

// A secret in memory that no scan of this test looks at.
class Secret {
public:
    Secret()
    {
        m_memory = static_cast<char*>(
            mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        std::random_device random;
        for (size_t i = 0; i < SIZE; ++i)
            m_memory[i] = static_cast<char>(1 + random() % 255);  // what is around it is zero
    }
    ~Secret() { munmap(m_memory, 4096); }
    Secret(const Secret&) = delete;
    Secret& operator=(const Secret&) = delete;

    std::string_view bytes() const { return {m_memory, SIZE}; }
    MemoryRange range() const
    {
        const auto begin = reinterpret_cast<uintptr_t>(m_memory);
        return {begin, begin + 4096};
    }
    // Room behind the secret that is not scanned either.
    char* room() const { return m_memory + 1024; }

private:
    char* m_memory;
};

class MemoryScan : public ::testing::Test {
protected:
    MemoryScan() { marks.add("key", secret.bytes()); }

    std::vector<Trace> traces() const { return tracesHere(marks, {secret.range()}); }

    Secret secret;
    Marks marks;
};

// Memory that is wiped when it is given back.
class Block {
public:
    explicit Block(size_t size) : m_size(size), m_memory(static_cast<char*>(calloc(size, 1))) {}
    ~Block()
    {
        support::wipeByHand(m_memory, m_size);
        free(m_memory);
    }
    Block(const Block&) = delete;
    Block& operator=(const Block&) = delete;
    char* at(size_t offset) const { return m_memory + offset; }

private:
    size_t m_size;
    char* m_memory;
};

uintptr_t address(const void* pointer)
{
    return reinterpret_cast<uintptr_t>(pointer);
}

// Encodes into the room of a secret, to which `before` other bytes are put first.
std::string_view encoded(const Secret& secret, size_t before, bool url)
{
    auto* const plain = reinterpret_cast<unsigned char*>(secret.room());
    auto* const text = plain + 1024;
    memset(plain, 'x', before);
    memcpy(plain + before, secret.bytes().data(), SIZE);
    const int size = EVP_EncodeBlock(text, plain, static_cast<int>(before + SIZE));
    for (int i = 0; url && i < size; ++i)
        text[i] = text[i] == '+' ? '-' : text[i] == '/' ? '_' : text[i];
    return {reinterpret_cast<char*>(text), static_cast<size_t>(size)};
}

TEST_F(MemoryScan, FindsNothingInWhatItHoldsItself)
{
    EXPECT_EQ(textOf(traces()), "");
    {
        Block block(64);
        memcpy(block.at(0), secret.bytes().data(), SIZE);
        const std::vector<Trace> kept = traces();
        ASSERT_EQ(kept.size(), 1U);
        support::wipeByHand(block.at(0), 64);
        EXPECT_EQ(textOf(traces()), "") << "found in the traces that were kept";
    }
    EXPECT_EQ(textOf(traces()), "");
    EXPECT_GT(marks.pieces(), SIZE + 3 * SIZE);
}

TEST_F(MemoryScan, FindsTheBytesAtAnyAddress)
{
    for (size_t offset = 0; offset < 17; ++offset) {
        Block block(128);
        memcpy(block.at(offset), secret.bytes().data(), SIZE);
        const std::vector<Trace> found = traces();
        ASSERT_EQ(found.size(), 1U) << textOf(found);
        EXPECT_EQ(found[0].mark, "key");
        EXPECT_EQ(found[0].form, "raw");
        EXPECT_EQ(found[0].address, address(block.at(offset)));
        EXPECT_EQ(found[0].length, SIZE);
    }
}

TEST_F(MemoryScan, FindsTwelveBytesFromAnywhereInTheSecretAndNoFewer)
{
    for (size_t from = 0; from + Marks::PIECE <= SIZE; ++from) {
        Block block(64);
        memcpy(block.at(from % 5), secret.bytes().data() + from, Marks::PIECE);
        const std::vector<Trace> found = traces();
        ASSERT_EQ(found.size(), 1U) << from;
        EXPECT_EQ(found[0].length, Marks::PIECE);
    }
    Block block(64);
    memcpy(block.at(0), secret.bytes().data(), Marks::PIECE - 1);
    EXPECT_EQ(textOf(traces()), "");
}

TEST_F(MemoryScan, FindsBase64OfLongerDataInBothAlphabets)
{
    for (size_t before = 0; before < 7; ++before)
        for (const bool url : {false, true}) {
            const std::string_view text = encoded(secret, before, url);
            Block block(256);
            memcpy(block.at(before), text.data(), text.size());
            const std::vector<Trace> found = traces();
            ASSERT_EQ(found.size(), 1U) << textOf(found);
            EXPECT_EQ(found[0].form.substr(0, 6), "Base64");
            EXPECT_GE(found[0].length, SIZE * 4 / 3 - 1);
            const bool onlyUrl = text.find_first_of("-_") != std::string_view::npos;
            EXPECT_EQ(found[0].form, onlyUrl ? "Base64 URL" : "Base64");
        }
}

TEST_F(MemoryScan, FindsFreedHeap)
{
    constexpr size_t LARGE = 1000;  // the beginning of a freed block holds the heap's own pointers
    void* volatile memory = calloc(LARGE, 1);
    void* volatile behind = malloc(LARGE);  // the block is not joined with the rest
    char* const at = static_cast<char*>(memory) + 200;
    memcpy(at, secret.bytes().data(), SIZE);
    free(memory);
    const std::vector<Trace> found = traces();
    free(behind);
    ASSERT_EQ(found.size(), 1U) << textOf(found);
    EXPECT_EQ(found[0].address, address(at));
    support::wipeByHand(at, SIZE);
}

[[gnu::noinline]] void leaveOnStack(std::string_view bytes, bool wiped)
{
    volatile char copy[SIZE];
    for (size_t i = 0; i < SIZE; ++i)
        copy[i] = bytes[i];
    if (wiped)
        support::wipeByHand(const_cast<char*>(copy), SIZE);
}

TEST_F(MemoryScan, FindsWhatFunctionsLeftOnTheStack)
{
    support::deeperInStack([this] { leaveOnStack(secret.bytes(), false); });
    const std::vector<Trace> found = traces();
    ASSERT_EQ(found.size(), 1U) << textOf(found);
    EXPECT_EQ(found[0].region, "[stack], below its end");
    support::deeperInStack([this] { leaveOnStack(secret.bytes(), true); });
    EXPECT_EQ(textOf(traces()), "");
}

TEST_F(MemoryScan, FindsTextsAsTheyStand)
{
    const std::string_view text = encoded(secret, 0, false);
    Marks texts;
    texts.addText("password", text.substr(0, 14));
    Block block(64);
    memcpy(block.at(3), text.data(), 14);
    const std::vector<Trace> found = tracesHere(texts, {secret.range()});
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].mark, "password");
    EXPECT_EQ(found[0].form, "text");
    EXPECT_EQ(found[0].length, 14U);
}

TEST_F(MemoryScan, LeavesOutWhatItIsTold)
{
    Block block(256);
    const uintptr_t begin = address(block.at(0));
    memcpy(block.at(0), secret.bytes().data(), SIZE);
    memcpy(block.at(128), secret.bytes().data(), SIZE);
    EXPECT_EQ(tracesHere(marks, {secret.range()}).size(), 2U);
    EXPECT_EQ(tracesHere(marks, {secret.range(), {begin, begin + 128}}).size(), 1U);
    EXPECT_EQ(tracesHere(marks, {{begin + 128, begin + 256}, secret.range()}).size(), 1U);
    EXPECT_EQ(
        tracesHere(marks, {{begin + 128, begin + 256}, secret.range(), {begin, begin + 99}}).size(),
        0U);
    // Of one that is cut, what is left.
    const auto cut = tracesHere(marks, {secret.range(), {begin, begin + 128 + 30}});
    ASSERT_EQ(cut.size(), 1U);
    EXPECT_EQ(cut[0].length, SIZE - 30);
}

TEST_F(MemoryScan, ShowsTheTraceAndWhatIsAround)
{
    Block block(64);
    memcpy(block.at(8), "before: ", 8);
    memcpy(block.at(16), secret.bytes().data(), 12);
    memcpy(block.at(29), "behind", 6);
    const std::vector<Trace> found = traces();
    ASSERT_EQ(found.size(), 1U);
    EXPECT_NE(found[0].around.find("66 6f 72 65 3a 20 ["), std::string::npos) << found[0].around;
    EXPECT_NE(found[0].around.find("] 00 62 65 68 69 6e 64"), std::string::npos);
    EXPECT_EQ(textOf(found).substr(0, 26),
              "key, raw: 12 bytes at 0x" + textOf(found).substr(24, 2));
}

TEST_F(MemoryScan, FindsWhatAnotherProcessHolds)
{
    int ready[2];
    int end[2];
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(end), 0);
    const pid_t child = fork();
    if (child == 0) {
        close(end[1]);
        char* const copy = static_cast<char*>(
            mmap(nullptr, 3 << 20, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        char* const at = copy + (1 << 20) - 7;  // across the border of what is read at once
        memcpy(at, secret.bytes().data(), SIZE);
        munmap(const_cast<char*>(secret.bytes().data()), 4096);
        const bool told = write(ready[1], &at, sizeof at) == sizeof at;
        char none;
        const ssize_t ended = read(end[0], &none, 1);
        _exit(told && ended == 0 ? 0 : 1);
    }
    uintptr_t at = 0;
    ASSERT_EQ(read(ready[0], &at, sizeof at), static_cast<ssize_t>(sizeof at));
    const std::vector<Trace> found = tracesIn(child, marks);
    close(end[1]);
    int status = -1;
    waitpid(child, &status, 0);
    for (const int file : {ready[0], ready[1], end[0]})
        close(file);
    EXPECT_EQ(status, 0);
    // An emulator also holds the vector registers of its program, which were used to copy.
    const bool emulated = CORVANE_EMULATOR[0] != '\0';
    size_t whole = 0;
    for (const Trace& trace : found) {
        EXPECT_EQ(trace.mark, "key");
        EXPECT_TRUE(emulated || trace.address == at) << trace;
        whole += trace.length == SIZE;
    }
    EXPECT_EQ(whole, 1U) << textOf(found);
    EXPECT_THROW(tracesIn(child, marks), std::system_error);
}

}  // namespace
