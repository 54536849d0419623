// The frames between the front and its workers, and each single fault in them: what a reader
// accepts is what stands in the bytes, and everything else ends it.
#include "common/wire.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <optional>
#include <system_error>
#include <thread>

#include "support/allocation_fault.h"
#include "support/conversation.h"
#include "support/files.h"
#include "support/held.h"
#include "support/longest_frame.h"

namespace {

using support::AllocationFault;
using support::conversationReplies;
using support::conversationRequests;
using support::FRAME_LENGTH_SIZE;
using support::framesOf;
using support::numberAt;
using support::putNumber;
using support::wrongNumbers;

// Where frames are not read by doubles.
const doubles::Journal NO_DOUBLES;

std::string joined(const std::vector<std::string>& frames)
{
    std::string bytes;
    for (const std::string& frame : frames)
        bytes += frame;
    return bytes;
}

// Calls `body` with the bytes as each single fault leaves them: each bit changed, each four bytes
// replaced by numbers that a length must not be, each beginning, a byte more.
void withEachFault(const std::string& bytes, const std::function<void(const std::string&)>& body)
{
    const auto with = [&](const std::string& changed, const std::string& what, size_t place) {
        SCOPED_TRACE(what + " at byte " + std::to_string(place));
        body(changed);
    };
    for (size_t i = 0; i < bytes.size(); ++i)
        for (unsigned bit = 0; bit < 8; ++bit) {
            std::string changed = bytes;
            changed[i] = static_cast<char>(changed[i] ^ (1 << bit));
            with(changed, "bit " + std::to_string(bit), i);
        }
    for (size_t i = 0; i + FRAME_LENGTH_SIZE <= bytes.size(); ++i)
        for (const uint32_t number : wrongNumbers(numberAt(bytes, i))) {
            std::string changed = bytes;
            putNumber(changed, i, number);
            with(changed, "number " + std::to_string(number), i);
        }
    for (size_t size = 0; size < bytes.size(); ++size)
        with(bytes.substr(0, size), "end", size);
    with(bytes + '\0', "a byte more", bytes.size());
}

// ---- One frame

// Decodes what a false length must not make it take memory for.
template <class Decode>
auto withLittleMemory(Decode decode)
{
    const auto fault = AllocationFault::atLeast(NO_DOUBLES, 4096);
    return decode();
}

// What is decoded from a frame, encoded again: the same bytes, or it has accepted another frame.
template <class Message>
void expectNothingElseAccepted(const std::optional<Message>& decoded, const std::string& body)
{
    if (decoded) {
        EXPECT_EQ(std::string(encode(*decoded)).substr(FRAME_LENGTH_SIZE), body);
    }
}

// A time that is too long to be told is told as the longest.
constexpr size_t TIME_PLACE = 2 * FRAME_LENGTH_SIZE;
constexpr uint32_t LONGEST_TIME = 4000000000;

std::string withTimeLimited(std::string body)
{
    if (body.size() >= TIME_PLACE + FRAME_LENGTH_SIZE)
        putNumber(body, TIME_PLACE, std::min(numberAt(body, TIME_PLACE), LONGEST_TIME));
    return body;
}

TEST(WireFrame, RequestsComeBackAsTheyWere)
{
    for (const WireRequest& request : conversationRequests()) {
        const std::string frame = encode(request);
        EXPECT_EQ(frameSize(frame), frame.size());
        const auto decoded = decodeRequest(frame.substr(FRAME_LENGTH_SIZE));
        ASSERT_TRUE(decoded);
        EXPECT_EQ(decoded->name, request.name);
        EXPECT_EQ(decoded->session, request.session);
        EXPECT_EQ(decoded->parameters, request.parameters);
        EXPECT_EQ(decoded->files, request.files);
    }
}

TEST(WireFrame, RepliesComeBackAsTheyWere)
{
    for (const WireReply& reply : conversationReplies()) {
        const std::string frame = encode(reply);
        EXPECT_EQ(frameSize(frame), frame.size());
        const auto decoded = decodeReply(frame.substr(FRAME_LENGTH_SIZE));
        ASSERT_TRUE(decoded);
        EXPECT_EQ(decoded->kind, reply.kind);
        EXPECT_EQ(decoded->ok, reply.ok);
        EXPECT_EQ(decoded->microseconds, reply.microseconds);
        EXPECT_EQ(decoded->code, reply.code);
        EXPECT_EQ(decoded->text, reply.text);
        EXPECT_EQ(decoded->results, reply.results);
    }
}

// Other programs may be workers, so that these are the bytes.
TEST(WireFrame, HasTheseBytes)
{
    using namespace std::string_literals;
    WireRequest request;
    request.name = "ab";
    request.session = "s";
    request.parameters = {{"n", "v\xFF"}};
    request.files = {"n"};
    EXPECT_EQ(encode(request),
              "\x23\0\0\0"
              "\2\0\0\0ab\1\0\0\0s"
              "\1\0\0\0\1\0\0\0n\2\0\0\0v\xFF"
              "\1\0\0\0\1\0\0\0n"s);
    WireReply reply;
    EXPECT_EQ(encode(reply), "\x18\0\0\0\1\0\0\0"s + std::string(20, '\0'));
    reply.kind = WireReply::Failed;
    reply.ok = true;
    reply.microseconds = 65536.3;
    reply.code = "c";
    reply.text = "te";
    reply.results = {{"r", ""}};
    EXPECT_EQ(encode(reply),
              "\x24\0\0\0\3\0\0\0\1\0\0\0\x03\0\x0A\0"
              "\1\0\0\0c\2\0\0\0te"
              "\1\0\0\0\1\0\0\0r\0\0\0\0"s);
    reply.microseconds = 1e12;
    EXPECT_EQ(std::string(encode(reply)).substr(12, 4), "\x00\x28\x6B\xEE"s);
}

TEST(WireFrame, LimitsAreThese)
{
    EXPECT_EQ(size_t{longestFrame}, 536870912U);
    EXPECT_EQ(size_t{mostFiles}, 4U);
}

// Growing would leave copies behind.
TEST(WireFrame, SecretsAreEncodedAndDecodedInOnePlace)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    const std::string marker = "a secret";
    WireRequest request;
    WireReply reply;
    for (size_t i = 0; i < 3000; ++i)
        request.parameters.emplace_back("name", marker);
    request.parameters.emplace_back("large", marker + std::string(100000, 'x'));
    reply.results = request.parameters;
    const support::FreedBlocks blocks(std::string_view(marker).substr(1));
    const SecretText requestFrame = encode(request), replyFrame = encode(reply);
    EXPECT_EQ(blocks.counted(), 0U);
    const auto decodedRequest =
        decodeRequest(std::string_view(requestFrame).substr(FRAME_LENGTH_SIZE));
    const auto decodedReply = decodeReply(std::string_view(replyFrame).substr(FRAME_LENGTH_SIZE));
    EXPECT_EQ(blocks.counted(), 0U);
    ASSERT_TRUE(decodedRequest && decodedReply);
    EXPECT_EQ(decodedRequest->parameters, request.parameters);
    EXPECT_EQ(decodedReply->results, reply.results);
}

TEST(WireFrame, SizeIsToldOnceTheLengthIsWhole)
{
    const std::string head("\x01\x02\x03\x04", 4);
    for (size_t size = 0; size < FRAME_LENGTH_SIZE; ++size)
        EXPECT_EQ(frameSize(head.substr(0, size)), std::nullopt);
    EXPECT_EQ(frameSize(head), 0x04030201U + FRAME_LENGTH_SIZE);
    EXPECT_EQ(frameSize("\xFF\xFF\xFF\xFF"), size_t{0xFFFFFFFF} + FRAME_LENGTH_SIZE);
}

TEST(WireFrame, EachFaultInARequestIsRefusedOrReadAsItStands)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    for (const std::string& frame : framesOf(conversationRequests()))
        withEachFault(frame.substr(FRAME_LENGTH_SIZE), [](const std::string& body) {
            const auto decoded = withLittleMemory([&] { return decodeRequest(body); });
            expectNothingElseAccepted(decoded, body);
        });
}

TEST(WireFrame, EachFaultInAReplyIsRefusedOrReadAsItStands)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    for (const std::string& frame : framesOf(conversationReplies()))
        withEachFault(frame.substr(FRAME_LENGTH_SIZE), [](const std::string& body) {
            const auto decoded = withLittleMemory([&] { return decodeReply(body); });
            expectNothingElseAccepted(decoded, withTimeLimited(body));
        });
}

TEST(WireFrame, MoreFilesThanMayComeAreRefused)
{
    WireRequest request;
    request.files.assign(mostFiles, "strdata");
    EXPECT_TRUE(decodeRequest(std::string(encode(request)).substr(FRAME_LENGTH_SIZE)));
    request.files.emplace_back("strdata");
    EXPECT_FALSE(decodeRequest(std::string(encode(request)).substr(FRAME_LENGTH_SIZE)));
}

// ---- A stream of frames

struct SocketPair {
    SocketPair()
    {
        int numbers[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, numbers) != 0)
            throw std::system_error(errno, std::generic_category(), "socketpair");
        front = Descriptor(numbers[0]);
        worker = Descriptor(numbers[1]);
    }
    // Nothing more comes from the front.
    void end() { front.reset(); }

    Descriptor front;
    Descriptor worker;
};

// The frames that a worker reads before it stops, one after the other as encoded again.
std::string readAll(SocketPair& sockets)
{
    RequestReader reader(sockets.worker.get());
    WireRequest request;
    std::vector<Descriptor> files;
    std::string read;
    while (reader.next(request, files))
        read += encode(request);
    return read;
}

// The same of bytes that are there at once and then end.
std::string readAllOf(const std::string& bytes)
{
    SocketPair sockets;
    EXPECT_TRUE(writeFrame(sockets.front.get(), bytes));
    sockets.end();
    return readAll(sockets);
}

size_t openFiles()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

TEST(WriteFrame, TellsThatNobodyReads)
{
    SocketPair sockets;
    sockets.worker.reset();
    EXPECT_FALSE(writeFrame(sockets.front.get(), "frame"));
}

// Some system calls before may have been interrupted.
TEST(WriteFrame, WritesOnceWhateverFailedBefore)
{
    const SocketPair sockets;
    errno = EINTR;
    EXPECT_TRUE(writeFrame(sockets.front.get(), "frame"));
    char bytes[16];
    EXPECT_EQ(5, recv(sockets.worker.get(), bytes, sizeof bytes, MSG_DONTWAIT));
}

TEST(RequestReader, ReadsARightConversation)
{
    const std::string bytes = joined(framesOf(conversationRequests()));
    EXPECT_EQ(readAllOf(bytes), bytes);
}

TEST(RequestReader, ReadsAConversationThatComesByteByByte)
{
    const std::string bytes = joined(framesOf(conversationRequests()));
    SocketPair sockets;
    std::thread front([&] {
        for (const char byte : bytes)
            writeFrame(sockets.front.get(), std::string_view(&byte, 1));
        sockets.end();
    });
    EXPECT_EQ(readAll(sockets), bytes);
    front.join();
}

// It reads what stands in the bytes, frame by frame, and ends where they are no frame any more.
TEST(RequestReader, StopsAtEachFaultInAConversation)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    const std::string right = joined(framesOf(conversationRequests()));
    withEachFault(right, [](const std::string& bytes) {
        std::string read;
        bool isTooLarge = false;
        {
            const auto fault = AllocationFault::atLeast(NO_DOUBLES, 2 * longestFrame);
            read = readAllOf(bytes);
            isTooLarge = fault.struck();
        }
        EXPECT_EQ(bytes.substr(0, read.size()), read);
        EXPECT_FALSE(isTooLarge) << "a false length took more memory than the longest frame does";
    });
}

TEST(RequestReader, ReadsWhatCameBeforeAFault)
{
    const std::vector<std::string> frames = framesOf(conversationRequests());
    std::string wrong = frames[1];
    const size_t filesPlace = wrong.size() - 2 * FRAME_LENGTH_SIZE - strlen("strdata");
    putNumber(wrong, filesPlace, mostFiles + 1);
    EXPECT_EQ(readAllOf(frames[0] + wrong + frames[2]), frames[0]);
    EXPECT_EQ(readAllOf(frames[0] + frames[1].substr(0, frames[1].size() - 1)), frames[0]);
    EXPECT_EQ(readAllOf(frames[0] + frames[1].substr(1) + frames[2]), frames[0]);
}

// Frames have no numbers: one that comes twice, elsewhere or not at all is a request like others.
TEST(RequestReader, ReadsFramesInAnyOrder)
{
    const std::vector<std::string> frames = framesOf(conversationRequests());
    for (const std::string& bytes :
         {frames[0] + frames[0] + frames[1], frames[1] + frames[0], frames[0] + frames[2]})
        EXPECT_EQ(readAllOf(bytes), bytes);
}

TEST(RequestReader, GivesEachFrameItsFilesAndKeepsNone)
{
    const size_t before = openFiles();
    {
        const support::TemporaryFolder folder;
        const std::vector<WireRequest> requests = conversationRequests();
        SocketPair sockets;
        std::vector<Descriptor> sent;
        sent.emplace_back(open(folder.write("file", "content").c_str(), O_RDONLY | O_CLOEXEC));
        const std::string bytes = joined(framesOf(requests));
        EXPECT_EQ(sendSome(sockets.front.get(), bytes, sent), static_cast<ssize_t>(bytes.size()));
        sockets.end();

        RequestReader reader(sockets.worker.get());
        WireRequest request;
        std::vector<Descriptor> files;
        for (const WireRequest& expected : requests) {
            ASSERT_TRUE(reader.next(request, files));
            ASSERT_EQ(files.size(), expected.files.size());
            char text[16] = {};
            if (!files.empty()) {
                EXPECT_EQ(read(files[0].get(), text, sizeof text), 7);
                EXPECT_STREQ(text, "content");
            }
        }
        EXPECT_FALSE(reader.next(request, files));
        EXPECT_TRUE(files.empty());
    }
    {
        // A file of which no frame tells.
        SocketPair sockets;
        std::vector<Descriptor> sent;
        sent.emplace_back(dup(STDERR_FILENO));
        EXPECT_EQ(sendSome(sockets.front.get(), "\x01", sent), 1);
        sockets.end();
        EXPECT_EQ(readAll(sockets), "");
    }
    EXPECT_EQ(openFiles(), before);
}

TEST(RequestReader, GivesUpToFourFilesInTheirOrder)
{
    const size_t before = openFiles();
    {
        const support::TemporaryFolder folder;
        WireRequest first, second;
        first.files = {"a", "b", "c"};
        second.files = {"d"};
        std::vector<Descriptor> sent;
        for (const char* content : {"1", "22", "333", "4444"})
            sent.emplace_back(open(folder.write(content, content).c_str(), O_RDONLY | O_CLOEXEC));
        const std::string bytes = joined(framesOf(std::vector<WireRequest>{first, second}));
        SocketPair sockets;
        EXPECT_EQ(sendSome(sockets.front.get(), bytes, sent), static_cast<ssize_t>(bytes.size()));
        sent.clear();
        sockets.end();

        RequestReader reader(sockets.worker.get());
        WireRequest request;
        std::vector<Descriptor> files;
        std::string contents;
        for (const size_t count : {3, 1}) {
            ASSERT_TRUE(reader.next(request, files));
            ASSERT_EQ(files.size(), count);
            for (const Descriptor& file : files) {
                EXPECT_NE(fcntl(file.get(), F_GETFD) & FD_CLOEXEC, 0);
                char text[16];
                const ssize_t size = read(file.get(), text, sizeof text);
                contents +=
                    std::string(text, static_cast<size_t>(std::max<ssize_t>(size, 0))) + " ";
            }
        }
        EXPECT_EQ(contents, "1 22 333 4444 ");
        EXPECT_FALSE(reader.next(request, files));
        EXPECT_TRUE(files.empty());
    }
    EXPECT_EQ(openFiles(), before);
}

// What comes in one piece of its own may begin and end anywhere.
TEST(RequestReader, ReadsAConversationInPiecesOfEachSize)
{
    const std::string bytes = joined(framesOf(conversationRequests()));
    for (size_t piece = 1; piece <= bytes.size(); ++piece) {
        int numbers[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, numbers), 0);
        SocketPair sockets;
        sockets.front = Descriptor(numbers[0]);
        sockets.worker = Descriptor(numbers[1]);
        for (size_t at = 0; at < bytes.size(); at += piece)
            writeFrame(sockets.front.get(), std::string_view(bytes).substr(at, piece));
        sockets.end();
        EXPECT_EQ(readAll(sockets), bytes) << piece;
    }
}

TEST(RequestReader, ReadsLargeFramesBetweenSmallOnesAndKeepsNoRoomForThem)
{
    std::vector<WireRequest> requests = conversationRequests();
    for (const size_t size : {65000, 65536, 100000, 5000000}) {
        requests.push_back(requests[0]);
        requests.back().parameters.emplace_back("strdata", std::string(size, 'd'));
        requests.push_back(requests[1]);
    }
    const std::vector<std::string> frames = framesOf(requests);
    SocketPair sockets;
    std::thread front([&] {
        for (const std::string& frame : frames)
            writeFrame(sockets.front.get(), frame);
    });
    RequestReader reader(sockets.worker.get());
    std::vector<Descriptor> files;
    for (const std::string& frame : frames) {
        WireRequest request;
        ASSERT_TRUE(reader.next(request, files));
        EXPECT_TRUE(encode(request) == frame);
    }
    front.join();
    if (!support::sanitized && !support::emulated) {
        WireRequest request;
        request.parameters.emplace_back("strdata", std::string(size_t{2} << 20, 'd'));
        const size_t before = support::Held::now().allocated;
        std::thread again([&] { writeFrame(sockets.front.get(), encode(request)); });
        WireRequest read;
        EXPECT_TRUE(reader.next(read, files));
        again.join();
        read = WireRequest();
        EXPECT_LT(support::Held::now().allocated, before + (size_t{1} << 20));
    }
}

// Some system calls before may have been interrupted.
TEST(RequestReader, ReadsWhateverFailedBefore)
{
    const std::string bytes = joined(framesOf(conversationRequests()));
    SocketPair sockets;
    EXPECT_TRUE(writeFrame(sockets.front.get(), bytes));
    sockets.end();
    RequestReader reader(sockets.worker.get());
    WireRequest request;
    std::vector<Descriptor> files;
    for (const int before : {EINTR, EAGAIN, EINTR}) {
        errno = before;
        EXPECT_TRUE(reader.next(request, files));
    }
    errno = EINTR;
    EXPECT_FALSE(reader.next(request, files));
    errno = EAGAIN;
    EXPECT_FALSE(reader.next(request, files));
}

TEST(RequestReader, ASignalDoesNotEndTheWait)
{
    static std::atomic<int> signals;
    signals = 0;
    struct sigaction action = {}, original = {};
    action.sa_handler = [](int) { ++signals; };
    sigaction(SIGALRM, &action, &original);
    sigset_t alarm;
    sigemptyset(&alarm);
    sigaddset(&alarm, SIGALRM);
    SocketPair sockets;
    const std::string frame = framesOf(conversationRequests())[0];
    pthread_sigmask(SIG_BLOCK, &alarm, nullptr);
    std::thread front([&] {
        while (signals < 3)
            std::this_thread::yield();
        writeFrame(sockets.front.get(), frame);
    });
    pthread_sigmask(SIG_UNBLOCK, &alarm, nullptr);
    const itimerval often = {{0, 5000}, {0, 5000}}, never = {};
    setitimer(ITIMER_REAL, &often, nullptr);
    RequestReader reader(sockets.worker.get());
    WireRequest request;
    std::vector<Descriptor> files;
    EXPECT_TRUE(reader.next(request, files));
    setitimer(ITIMER_REAL, &never, nullptr);
    front.join();
    sigaction(SIGALRM, &original, nullptr);
    EXPECT_EQ(std::string(encode(request)), frame);
}

// ---- The longest frame

// A request whose frame has so many bytes behind its length, most of them in one value: all that
// stands before that value.
std::string headOfRequest(size_t size)
{
    WireRequest request;
    request.parameters = {{"", ""}};
    std::string frame = encode(request);
    const size_t lengthPlace = frame.size() - 2 * FRAME_LENGTH_SIZE;  // before the number of files
    const size_t value = size - (frame.size() - FRAME_LENGTH_SIZE);
    putNumber(frame, 0, static_cast<uint32_t>(size));
    putNumber(frame, lengthPlace, static_cast<uint32_t>(value));
    return frame.substr(0, frame.size() - FRAME_LENGTH_SIZE);
}

TEST(RequestReader, ReadsTheLongestFrame)
{
    SKIP_WITHOUT_MEMORY_FOR_THE_LONGEST_FRAME();
    SocketPair sockets;
    std::thread front([&] {
        const std::string head = headOfRequest(longestFrame);
        writeFrame(sockets.front.get(), head);
        const std::string zeros(size_t{1} << 20, '\0');
        for (size_t left = longestFrame + FRAME_LENGTH_SIZE - head.size(); left > 0;) {
            const size_t part = std::min(left, zeros.size());
            if (!writeFrame(sockets.front.get(), std::string_view(zeros).substr(0, part)))
                break;
            left -= part;
        }
        sockets.end();
    });
    WireRequest request;
    std::vector<Descriptor> files;
    {
        RequestReader reader(sockets.worker.get());
        EXPECT_TRUE(reader.next(request, files));
        WireRequest none;
        EXPECT_FALSE(reader.next(none, files));
    }
    sockets.worker.reset();
    front.join();
    ASSERT_EQ(request.parameters.size(), 1U);
    // The name's, session's, pairs', name's, value's and files' numbers.
    EXPECT_EQ(request.parameters[0].second.size(), longestFrame - 6 * FRAME_LENGTH_SIZE);
}

// At once: the other side has more to send and waits.
TEST(RequestReader, RefusesAFrameThatIsOneByteLonger)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    SocketPair sockets;
    EXPECT_TRUE(writeFrame(sockets.front.get(), headOfRequest(longestFrame + 1)));
    const auto fault = AllocationFault::atLeast(NO_DOUBLES, size_t{1} << 20);
    EXPECT_EQ(readAll(sockets), "");
    EXPECT_FALSE(fault.struck());
}

}  // namespace
