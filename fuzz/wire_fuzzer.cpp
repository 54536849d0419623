// Between the front and its workers, from the side of a worker with bad intent: any bytes, in any
// pieces. Every task ends once, and with the reply to it if it is answered; what the front sends
// is what it was given; what is malformed or too long ends the worker, and the next one serves;
// memory stays within what has come, descriptors are not left open; and whatever a reply holds,
// the client's answer is JSON. Input: one byte that chooses frames alone (0), requests as a worker
// reads them (1), or a pool of one worker that is sent one task at a time (2) or several (3); then
// the bytes of a frame, or steps, each a byte and what it takes.

#include "common/wire.h"

#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <deque>
#include <filesystem>
#include <list>
#include <nlohmann/json.hpp>

#include "fuzz.h"
#include "service/requests/answer.h"
#include "worker_stand_ins.h"

// Of the sanitizer.
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*onMalloc)(const volatile void*,
                                                                          size_t),
                                                         void (*onFree)(const volatile void*));

namespace {

using Json = nlohmann::ordered_json;

// ---- Frames, by other means.

class Frame {
public:
    explicit Frame(std::string_view bytes) : m_rest(bytes) {}

    size_t number()
    {
        size_t value = 0;
        for (unsigned shift = 0; shift < 32; shift += 8) {
            if (m_rest.empty())
                return fail();
            value += static_cast<size_t>(static_cast<unsigned char>(m_rest.front())) << shift;
            m_rest.remove_prefix(1);
        }
        return value;
    }
    std::string text()
    {
        const size_t size = number();
        if (size > m_rest.size())
            fail();
        const std::string text(m_rest.substr(0, size));
        m_rest.remove_prefix(text.size());
        return text;
    }
    Pairs pairs()
    {
        Pairs all;
        for (size_t count = number(); m_isGood && count > 0; --count) {
            const std::string name = text();
            all.emplace_back(name, text());
        }
        return all;
    }
    bool isWhole() const { return m_isGood && m_rest.empty(); }

private:
    size_t fail()
    {
        m_isGood = false;
        m_rest = {};
        return 0;
    }

    std::string_view m_rest;
    bool m_isGood = true;
};

std::optional<WireReply> replyOracle(std::string_view bytes)
{
    Frame frame(bytes);
    WireReply reply;
    const size_t kind = frame.number();
    const size_t ok = frame.number();
    reply.ok = ok == 1;
    reply.microseconds = static_cast<double>(frame.number()) / 10;
    reply.code = frame.text();
    reply.text = frame.text();
    reply.results = frame.pairs();
    if (!frame.isWhole() || kind > 4 || ok > 1)
        return std::nullopt;
    reply.kind = static_cast<WireReply::Kind>(kind);
    return reply;
}

std::optional<WireRequest> requestOracle(std::string_view bytes)
{
    Frame frame(bytes);
    WireRequest request;
    request.name = frame.text();
    request.session = frame.text();
    request.parameters = frame.pairs();
    const size_t files = frame.number();
    for (size_t i = 0; i < std::min<size_t>(files, 5); ++i)
        request.files.push_back(frame.text());
    return frame.isWhole() && files <= 4 ? std::optional(request) : std::nullopt;
}

bool isSame(const WireReply& a, const WireReply& b)
{
    return a.kind == b.kind && a.ok == b.ok && a.microseconds == b.microseconds &&
           a.code == b.code && a.text == b.text && a.results == b.results;
}

bool isSame(const WireRequest& a, const WireRequest& b)
{
    return a.name == b.name && a.session == b.session && a.parameters == b.parameters &&
           a.files == b.files;
}

std::string lengthOf(size_t size)
{
    std::string bytes;
    for (unsigned shift = 0; shift < 32; shift += 8)
        bytes += static_cast<char>(size >> shift & 0xFF);
    return bytes;
}

template <class Message>
void checkFrame(const std::optional<Message>& read, const std::optional<Message>& expected,
                std::optional<Message> (*decode)(std::string_view))
{
    HOLDS(read.has_value() == expected.has_value());
    if (!read)
        return;
    HOLDS(isSame(*read, *expected));
    const SecretText again = encode(*read);
    HOLDS(frameSize(again) == again.size());
    const auto second = decode(std::string_view(again).substr(4));
    HOLDS(second && isSame(*second, *read));
}

// ---- What clients get of a reply.

void checkAnswer(const WireReply& reply, Ending ending)
{
    for (const bool isPeer : {false, true}) {
        const Answer answer = isPeer ? peerAnswer(reply) : pluginAnswer(reply, "[]");
        const Json json = Json::parse(answer.body, nullptr, false);
        HOLDS(json.is_object() && json["error"].is_null() == reply.ok);
        HOLDS(json["results"].size() <= reply.results.size());
        for (const char c : answer.code)
            HOLDS(c > 0x20 && c < 0x7F);
    }
    const Answer refusal = answerOf(refusalOf(ending, reply));
    HOLDS(refusal.status >= 500 && Json::accept(refusal.body));
}

// ---- Requests as a worker reads them.

WireRequest makeRequest(fuzz::Input& input)
{
    WireRequest request;
    request.name = input.take(input.pick(16));
    request.session = input.take(input.pick(4));
    for (unsigned left = input.pick(4); left > 0; --left) {
        std::string name = input.take(input.pick(4));
        request.parameters.emplace_back(std::move(name), std::string(input.pickWide(65536), 'v'));
    }
    for (unsigned left = input.pick(5); left > 0; --left)
        request.files.push_back(input.take(1));
    return request;
}

Descriptor makeFile()
{
    return Descriptor(memfd_create("file", MFD_CLOEXEC));
}

ino_t numberOf(const Descriptor& file)
{
    struct stat info = {};
    HOLDS(fstat(file.get(), &info) == 0);
    return info.st_ino;
}

void checkReading(fuzz::Input& input)
{
    constexpr size_t mostBytes = 40000;  // fit into a socket, also in pieces
    int pair[2];
    HOLDS(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) == 0);
    Descriptor front(pair[0]);
    const Descriptor worker(pair[1]);
    const size_t piece = input.pickWide(65536) + 1;
    std::vector<WireRequest> sent;
    std::vector<ino_t> numbers;
    size_t size = 0;
    while (!input.empty()) {
        const WireRequest request = makeRequest(input);
        const SecretText frame = encode(request);
        size += frame.size();
        if (size > mostBytes || sent.size() == 16)
            break;
        std::vector<Descriptor> files;
        for (size_t i = 0; i < request.files.size(); ++i) {
            files.push_back(makeFile());
            numbers.push_back(numberOf(files.back()));
        }
        for (size_t at = 0; at < frame.size();) {
            const auto some = std::string_view(frame).substr(at, std::max(piece, frame.size() / 4));
            const ssize_t count = sendSome(front.get(), some, files);
            HOLDS(count > 0);
            files.clear();
            at += static_cast<size_t>(count);
        }
        sent.push_back(request);
    }
    front.reset();

    RequestReader reader(worker.get());
    size_t file = 0;
    for (const WireRequest& request : sent) {
        WireRequest read;
        std::vector<Descriptor> files;
        HOLDS(reader.next(read, files) && isSame(read, request));
        HOLDS(files.size() == request.files.size());
        for (const Descriptor& one : files)
            HOLDS(numberOf(one) == numbers[file++]);
    }
    WireRequest none;
    std::vector<Descriptor> noFiles;
    HOLDS(!reader.next(none, noFiles));
}

// ---- A pool.

// The frames of a stream without their lengths, and whether the next one is too long.
class Frames {
public:
    void add(std::string_view bytes)
    {
        m_rest += bytes;
        size_t begin = 0;
        while (m_rest.size() - begin >= 4) {
            const std::string_view left = std::string_view(m_rest).substr(begin);
            const size_t size = Frame(left).number();
            isTooLong = size > longestFrame;
            if (isTooLong || left.size() < 4 + size)
                break;
            all.emplace_back(left.substr(4, size));
            begin += 4 + size;
        }
        m_rest.erase(0, begin);
    }

    std::vector<std::string> all;
    bool isTooLong = false;

private:
    std::string m_rest;
};

// A worker as both sides know it.
struct Life {
    explicit Life(const WorkerStandIn& standIn) : pid(standIn.pid), claims(standIn.claims) {}

    pid_t pid;
    Claims claims;
    Frames told;      // by the worker
    Frames received;  // from the front
    std::vector<Descriptor> files;
    bool isOver = false;  // the worker has closed its end, or is said to have ended
    bool isBad = false;   // as far as its frames were looked at
    size_t checked = 0;   // how many of them were
    size_t answered = 0;  // requests that were served as they should be
};

struct Given {
    WireRequest request;
    std::vector<ino_t> files;
    bool isBound = false;
    unsigned endings = 0;
    Ending ending = Ending::NotServed;
    WireReply reply;
    WorkerLife life;
};

class Pool {
public:
    explicit Pool(bool sendsAhead) : m_sendsAhead(sendsAhead)
    {
        PoolOptions options;
        options.program = "worker";
        options.command = {"worker"};
        options.taskTime = Seconds(3600);
        options.sendsAhead = sendsAhead;
        m_pool.emplace(
            m_loop, options, [] {}, [](WorkerLife) {});
        settle();
    }

    void step(fuzz::Input& input)
    {
        switch (input.pick(11)) {
            case 0:
                return submit(input, false);
            case 1:
                return submit(input, true);
            case 2:
                return tell(encode(replyOf(input)));
            case 3:
                return tell(input.take(input.pick(64)));
            case 4: {
                constexpr std::array<size_t, 6> sizes = {
                    0, 3, 1000, longestFrame, longestFrame + 1, 0xFFFFFFFF};
                return tell(lengthOf(sizes[input.pick(6)]));
            }
            case 5:
                return close();
            case 6:
                current().isOver = true;
                m_pool->childEnded(current().pid);
                return settle();
            case 7:
                m_isCut = !m_isCut;
                return;
            case 8:
                return tell(encode(ready()));
            case 9:
                return serve();
            default:
                current().claims.begin(input.pick(Claims::most));
        }
    }

    // A worker that does what it should, whatever the ones before it did.
    void checkNext()
    {
        const size_t before = m_lives.size();
        close();
        if (m_lives.size() == before)
            return;  // the front waits a little before it starts another one
        m_isCut = false;
        tell(encode(ready()));
        for (size_t i = 0; i <= m_given.size(); ++i)
            serve();
        HOLDS(m_lives.size() == before + 1 && !standIn().isKilled);
        for (const Given& given : m_given)
            HOLDS(given.endings == 1);
    }

    void checkAll()
    {
        m_pool.reset();
        for (const Life& life : m_lives)
            checkLife(life);
        for (const Given& given : m_given)
            checkTask(given);
    }

private:
    Life& current() { return m_lives.back(); }
    WorkerStandIn& standIn() { return workerStandIns().back(); }

    static WireReply ready()
    {
        WireReply reply;
        reply.kind = WireReply::Ready;
        reply.text = "1.0";
        return reply;
    }

    static WireReply takenBack()
    {
        WireReply reply;
        reply.kind = WireReply::TakenBack;
        return reply;
    }

    static WireReply replyOf(fuzz::Input& input)
    {
        WireReply reply;
        reply.kind = static_cast<WireReply::Kind>(input.pick(6));
        reply.ok = input.pick(2) == 1;
        reply.microseconds = input.pick(100);
        reply.code = input.take(input.pick(8));
        reply.text = input.take(input.pick(8));
        for (unsigned left = input.pick(3); left > 0; --left) {
            std::string name = input.take(input.pick(4));
            reply.results.emplace_back(std::move(name), input.take(input.pick(32)));
        }
        return reply;
    }

    void submit(fuzz::Input& input, bool isLarge)
    {
        constexpr size_t most = 40;
        if (m_given.size() == most)
            return;
        const size_t number = m_given.size();
        Given& given = m_given.emplace_back();
        given.request.name = input.take(input.pick(8));
        given.request.parameters = {{"number", std::to_string(number)}};
        Task task;
        if (isLarge) {
            given.request.parameters.emplace_back("large",
                                                  std::string(input.pickWide(1 << 18), 'l'));
            for (unsigned left = input.pick(4); left > 0; --left) {
                given.request.files.emplace_back("number");
                task.files.push_back(makeFile());
                given.files.push_back(numberOf(task.files.back()));
            }
            given.isBound = input.pick(2) == 1;
            if (given.isBound)
                task.bound = WorkerLife{0, m_pool->info(0).generation};
        }
        task.request = given.request;
        task.done = [&given](Ending ending, WireReply& reply, WorkerLife life) {
            ++given.endings;
            given.ending = ending;
            given.reply = reply;
            given.life = life;
        };
        m_pool->submit(std::move(task));
        settle();
    }

    void tell(const std::string& bytes)
    {
        const size_t count = m_lives.size();
        const size_t piece = m_isCut ? bytes.size() / 64 + 1 : bytes.size();
        for (size_t at = 0; at < bytes.size() && m_lives.size() == count && !current().isOver;
             at += piece) {
            const std::string some = bytes.substr(at, piece);
            current().told.add(some);
            send(standIn().socket.get(), some.data(), some.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
            settle();
        }
    }

    void close()
    {
        current().isOver = true;
        shutdown(standIn().socket.get(), SHUT_WR);
        settle();
    }

    // Answers what it has received, as it should be answered.
    void serve()
    {
        const size_t count = m_lives.size();
        for (;;) {
            Life& life = current();
            const std::vector<std::string>& frames = life.received.all;
            if (m_lives.size() != count || life.answered >= frames.size())
                return;
            const size_t number = life.answered++;
            const auto request = requestOracle(frames[number]);
            HOLDS(request);
            WireReply reply;
            reply.ok = true;
            reply.results = request->parameters;
            if (m_sendsAhead && !life.claims.begin(number))
                reply = takenBack();
            tell(encode(reply));
        }
    }

    // Until neither side has anything to do. What the workers get is read meanwhile.
    void settle()
    {
        do {
            unsigned rounds = 0;
            m_loop.run([&] {
                m_pool->flush();
                if (++rounds == 3)
                    m_loop.stop();
                return 0;
            });
        } while (receive());
        HOLDS(!mustEnd(current()) || standIn().isKilled);
    }

    // Whether a worker has told what none may tell.
    static bool mustEnd(Life& life)
    {
        const auto& replies = life.told.all;
        for (; life.checked < replies.size(); ++life.checked) {
            const auto reply = replyOracle(replies[life.checked]);
            const bool isFirst = life.checked == 0;
            life.isBad = life.isBad || !reply || (reply->kind == WireReply::Ready) != isFirst;
        }
        return life.isBad || life.told.isTooLong || replies.size() > life.received.all.size() + 1;
    }

    bool receive()
    {
        bool isAny = false;
        auto& standIns = workerStandIns();
        for (size_t i = 0; i < standIns.size(); ++i) {
            if (i == m_lives.size()) {
                m_lives.emplace_back(standIns[i]);
                isAny = true;
            }
            isAny = receive(standIns[i].socket.get(), m_lives[i]) || isAny;
        }
        return isAny;
    }

    static bool receive(int socket, Life& life)
    {
        static std::array<char, 65536> buffer;
        union {
            cmsghdr header;
            char bytes[CMSG_SPACE(mostFiles * sizeof(int))];
        } control;
        iovec part = {buffer.data(), buffer.size()};
        msghdr message = {};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = &control;
        message.msg_controllen = sizeof control;
        const ssize_t count = recvmsg(socket, &message, MSG_CMSG_CLOEXEC | MSG_DONTWAIT);
        if (count <= 0)
            return false;
        life.received.add({buffer.data(), static_cast<size_t>(count)});
        const cmsghdr* header = CMSG_FIRSTHDR(&message);
        for (size_t i = 0; header != nullptr && CMSG_LEN((i + 1) * sizeof(int)) <= header->cmsg_len;
             ++i) {
            int number;
            memcpy(&number, CMSG_DATA(header) + i * sizeof number, sizeof number);
            life.files.emplace_back(number);
        }
        return true;
    }

    static size_t taskOf(const WireRequest& request)
    {
        return std::stoul(findValue(request.parameters, "number")->c_str());
    }

    // What the front sent is what it was given.
    void checkLife(const Life& life)
    {
        const Frames& requests = life.received;
        size_t file = 0;
        for (const std::string& frame : requests.all) {
            const auto request = requestOracle(frame);
            HOLDS(request);
            const Given& given = *std::next(m_given.begin(), static_cast<long>(taskOf(*request)));
            HOLDS(isSame(*request, given.request));
            for (const ino_t number : given.files)
                HOLDS(file < life.files.size() && numberOf(life.files[file++]) == number);
        }
    }

    void checkTask(const Given& given)
    {
        HOLDS(given.endings == 1);
        if (given.ending != Ending::Answered)
            return;
        HOLDS(given.life.slot == 0 && given.life.generation <= m_lives.size());
        const Life& life = m_lives[given.life.generation - 1];
        const Frames& requests = life.received;
        const Frames& replies = life.told;
        bool isFound = false;
        for (size_t i = 0; i < requests.all.size() && !isFound; ++i) {
            if (!isSame(*requestOracle(requests.all[i]), given.request))
                continue;
            HOLDS(i + 1 < replies.all.size());
            const auto reply = replyOracle(replies.all[i + 1]);
            isFound = reply && isSame(*reply, given.reply);
        }
        HOLDS(isFound);
        HOLDS(given.reply.kind != WireReply::Ready && given.reply.kind != WireReply::TakenBack);
        if (given.request.parameters.size() == 1)  // a large one takes time, and tells nothing new
            checkAnswer(given.reply, given.ending);
    }

    const bool m_sendsAhead;
    EventLoop m_loop;
    std::list<Given> m_given;
    std::deque<Life> m_lives;
    bool m_isCut = false;
    std::optional<WorkerPool> m_pool;
};

// ---- Memory and descriptors.

size_t largest = 0;

void onMalloc(const volatile void*, size_t size)
{
    largest = std::max(largest, size);
}

void onFree(const volatile void*) {}

size_t openFiles()
{
    size_t count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
        ++count;
    return count;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // More than this is only taken for what has come.
    constexpr size_t mostAtOnce = size_t{4} << 20;
    constexpr unsigned mostSteps = 200;
    static const int hooks = __sanitizer_install_malloc_and_free_hooks(onMalloc, onFree);
    HOLDS(hooks > 0);
    const size_t before = openFiles();
    fuzz::Input input(data, size);
    largest = 0;
    switch (const unsigned what = input.pick(4)) {
        case 0: {
            const std::string frame = input.rest();
            checkFrame(decodeReply(frame), replyOracle(frame), decodeReply);
            checkFrame(decodeRequest(frame), requestOracle(frame), decodeRequest);
            if (const auto reply = replyOracle(frame))
                checkAnswer(*reply, Ending::Answered);
            break;
        }
        case 1:
            checkReading(input);
            break;
        default: {
            Pool pool(what == 3);
            for (unsigned step = 0; step < mostSteps && !input.empty(); ++step)
                pool.step(input);
            pool.checkNext();
            pool.checkAll();
        }
    }
    forgetWorkerStandIns();
    HOLDS(openFiles() == before);
    HOLDS(largest <= mostAtOnce);
    return 0;
}
