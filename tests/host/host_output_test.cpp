// corvane-host call -o: a file of results is its owner's alone, is never written over without
// being told to, and is whole or not there.
#include <sys/resource.h>

#include <sys/stat.h>
#include <nlohmann/json.hpp>

#include "support/host_program.h"

namespace {

using namespace std::string_literals;
using namespace support;

const Arguments makeKey = {"QZaven_crypto_gen_symmkey", "strCipherAlg=4", "--raw", "Data"};

class HostOutputFile : public Host {
protected:
    Ended callTo(const std::string& path, Arguments arguments = makeKey) const
    {
        arguments.insert(arguments.end(), {"-o", path});
        return call(arguments);
    }

    Ended force(const std::string& path) const
    {
        Arguments arguments = makeKey;
        arguments.emplace_back("--force");
        return callTo(path, arguments);
    }

    unsigned mode(const std::string& name) const
    {
        struct stat status = {};
        EXPECT_EQ(0, stat(path(name).c_str(), &status));
        return status.st_mode & 07777U;
    }

    // A folder for output alone, so that what is left there is seen.
    std::string inside(const std::string& name) const
    {
        fs::create_directory(path("folder"));
        return path("folder/" + name);
    }

    size_t leftInside() const
    {
        return static_cast<size_t>(std::distance(fs::directory_iterator(path("folder")), {}));
    }
};

// A variable of a shell that was not set must not show a key.
TEST_F(HostOutputFile, HasAName)
{
    for (const char* option : {"-o", "--raw"}) {
        const Ended ended = call({makeKey[0], makeKey[1], option, ""});
        EXPECT_EQ(2, ended.code) << option;
        EXPECT_EQ("", ended.out) << option;
        EXPECT_NE(std::string::npos, ended.err.find("not an empty text")) << ended.err;
    }
}

TEST_F(HostOutputFile, IsItsOwnersAlone)
{
    const mode_t before = umask(0);
    EXPECT_EQ(SUCCESS, callTo(path("key")).code);
    EXPECT_EQ(SUCCESS, callTo(path("json"), {"QZaVen_GetVersion"}).code);
    umask(before);
    EXPECT_EQ(0600U, mode("key"));
    EXPECT_EQ(0600U, mode("json"));
    EXPECT_EQ(32U, readWhole(path("key")).size());
}

TEST_F(HostOutputFile, IsNotReplacedUnlessToldTo)
{
    const std::string kept = file("kept", "before");
    chmod(kept.c_str(), 0644);
    Arguments traced = makeKey;
    traced.emplace_back("--trace");
    const Ended ended = callTo(kept, traced);
    EXPECT_EQ(USAGE, ended.code);
    EXPECT_EQ("before", readWhole(kept));
    EXPECT_TRUE(holds(ended.err, kept) && holds(ended.err, "--force")) << ended.err;
    EXPECT_FALSE(holds(ended.err, "trace: store")) << "it was sent: " << ended.err;

    EXPECT_EQ(SUCCESS, force(kept).code);
    EXPECT_EQ(32U, readWhole(kept).size());
    EXPECT_EQ(0600U, mode("kept"));
}

TEST_F(HostOutputFile, ThatCannotBeMadeIsToldOfBeforeSending)
{
    Arguments traced = makeKey;
    traced.emplace_back("--trace");
    for (const std::string& place : {path("no/folder"), path(""), path("in/x")}) {
        const Ended ended = callTo(place, traced);
        EXPECT_EQ(USAGE, ended.code) << place;
        EXPECT_FALSE(holds(ended.err, "trace: store")) << "it was sent: " << ended.err;
        EXPECT_EQ(USAGE, force(place).code) << place;
    }
}

TEST_F(HostOutputFile, IsNotThereAfterARefusal)
{
    const Arguments refused = {"QZaven_crypto_gen_symmkey", "strCipherAlg=9", "--raw", "Data"};
    EXPECT_EQ(REFUSED, callTo(inside("key"), refused).code);
    EXPECT_EQ(0U, leftInside());

    const std::string kept = file("kept", "before");
    EXPECT_EQ(REFUSED, callTo(kept, {"QZaven_crypto_gen_symmkey", "strCipherAlg=9", "--raw", "Data",
                                     "--force"})
                           .code);
    EXPECT_EQ("before", readWhole(kept));
}

// Programs that are started meanwhile write no more than so many bytes of a file, as on a full
// disk.
class SmallFiles {
public:
    explicit SmallFiles(rlim_t bytes)
    {
        getrlimit(RLIMIT_FSIZE, &m_before);
        const rlimit limit = {bytes, m_before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~SmallFiles() { setrlimit(RLIMIT_FSIZE, &m_before); }
    SmallFiles(const SmallFiles&) = delete;
    SmallFiles& operator=(const SmallFiles&) = delete;

private:
    rlimit m_before = {};
};

TEST_F(HostOutputFile, ThatDoesNotFitIsRemovedAndToldOf)
{
    const std::string input = "strIn=@" + file("input", std::string(100000, 'x'));
    const std::string kept = inside("kept");
    std::ofstream(kept) << "before";
    const SmallFiles small(50000);
    for (const Arguments& more : {Arguments{"-o", inside("new")}, {"-o", kept, "--force"}}) {
        Arguments arguments = {"QZaven_crypto_base64_encode", input};
        arguments.insert(arguments.end(), more.begin(), more.end());
        const Ended ended = call(arguments);
        EXPECT_EQ(USAGE, ended.code);
        EXPECT_TRUE(holds(ended.err, "cannot write " + more[1])) << ended.err;
    }
    EXPECT_EQ(1U, leftInside());
    EXPECT_EQ("before", readWhole(kept));
}

TEST_F(HostOutputFile, ALinkIsNotFollowed)
{
    const std::string target = file("target", "before");
    fs::create_symlink(target, inside("link"));
    fs::create_symlink(path("absent"), inside("dangling"));
    for (const char* name : {"link", "dangling"}) {
        EXPECT_EQ(USAGE, callTo(inside(name)).code) << name;
        EXPECT_EQ(SUCCESS, force(inside(name)).code) << name;
        EXPECT_FALSE(fs::is_symlink(inside(name))) << name;
        EXPECT_EQ(32U, readWhole(inside(name)).size()) << name;
    }
    EXPECT_EQ("before", readWhole(target));
    EXPECT_FALSE(fs::exists(path("absent")));
}

TEST_F(HostOutputFile, ADeviceOrPipeIsWrittenTo)
{
    EXPECT_EQ(SUCCESS, callTo("/dev/null").code);
    EXPECT_EQ(USAGE, callTo("/dev/full").code);
    EXPECT_TRUE(fs::is_character_file("/dev/full"));

    ASSERT_EQ(0, mkfifo(path("pipe").c_str(), 0600));
    const int reader = open(path("pipe").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    EXPECT_EQ(SUCCESS, callTo(path("pipe")).code);
    char bytes[64];
    EXPECT_EQ(32, read(reader, bytes, sizeof bytes));
    close(reader);
    EXPECT_TRUE(fs::is_fifo(path("pipe")));
}

TEST_F(HostOutputFile, StandardOutputHasTwoNames)
{
    for (const char* name : {"-", "/dev/stdout"}) {
        const Ended ended = callTo(name);
        EXPECT_EQ(SUCCESS, ended.code) << name << " " << ended.err;
        EXPECT_EQ(32U, ended.out.size()) << name;
    }
    EXPECT_FALSE(fs::exists("-"));
}

// GCM's ciphertext and tag.
TEST_F(HostOutputFile, SeveralResultsGoToTheirFiles)
{
    const Arguments encrypt = {"QZaven_crypto_encrypt",
                               "strCipherAlg=4",
                               "strMode=6",
                               "strKey=b64:" + std::string(32, 'k'),
                               "strIV=b64:iviviviviviv",
                               "straad=b64:a",
                               "strdata=b64:data"};
    const auto write = [&](Arguments more) {
        more.insert(more.begin(), encrypt.begin(), encrypt.end());
        return call(more);
    };
    const std::string cipher = inside("cipher");
    const std::string tag = inside("tag");
    const Ended ended = write({"--raw", "Data=" + cipher, "--raw", "gcmOutTag=" + tag});
    EXPECT_EQ(SUCCESS, ended.code) << ended.err;
    EXPECT_EQ("", ended.out);
    EXPECT_EQ(4U, readWhole(cipher).size());
    EXPECT_EQ(16U, readWhole(tag).size());
    EXPECT_EQ(0600U, mode("folder/cipher"));
    const std::string lost = "warning: gcmOutTag is not written; without it the data cannot be";
    EXPECT_FALSE(holds(ended.err, lost)) << ended.err;
    EXPECT_TRUE(holds(write({"--raw", "Data=" + path("alone")}).err, lost));
    EXPECT_FALSE(holds(write({}).err, lost));

    // One is in the way, so that none is written.
    fs::remove(cipher);
    EXPECT_EQ(USAGE, write({"--raw", "Data=" + cipher, "--raw", "gcmOutTag=" + tag}).code);
    EXPECT_FALSE(fs::exists(cipher));
    const Ended mixed = write({"--raw", "Data", "--raw", "gcmOutTag=" + tag, "--force", "--hex"});
    EXPECT_EQ(9U, mixed.out.size()) << mixed.err;
    EXPECT_EQ(33U, readWhole(tag).size());

    EXPECT_EQ(USAGE, write({"--raw", "Data="}).code);
    EXPECT_EQ(1U, leftInside());
}

// The second would take the place of the first, which is lost then.
TEST_F(HostOutputFile, OfTwoResultsIsRefusedHoweverItIsWritten)
{
    const auto write = [&](const Arguments& more) {
        Arguments arguments = {"QZaven_crypto_base64_encode", "strIn=x", "--force"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return call(arguments);
    };
    const std::string data = inside("data");
    fs::create_directory_symlink(path("folder"), path("way"));
    for (const std::string& same : {data, path("folder/./data"), path("folder/../folder//data"),
                                    path("way/data"), fs::relative(data).string()})
        for (const Arguments& arguments :
             {Arguments{"--raw", "Data=" + data, "--raw", "errorCode=" + same},
              {"--raw", "Data", "-o", same, "--raw", "errorCode=" + data}}) {
            const Ended ended = write(arguments);
            EXPECT_EQ(USAGE, ended.code) << same;
            EXPECT_TRUE(holds(ended.err, "two results cannot go to the same file")) << ended.err;
            EXPECT_EQ(0U, leftInside()) << same;
        }
    for (const Arguments& arguments :
         {Arguments{"--raw", "Data", "--raw", "errorCode=-"},
          {"--raw", "Data=/dev/stdout", "--raw", "errorCode=-"},
          {"--raw", "Data", "-o", "-", "--raw", "errorCode=/dev/stdout"}}) {
        const Ended ended = write(arguments);
        EXPECT_EQ(USAGE, ended.code);
        EXPECT_EQ("", ended.out);
        EXPECT_TRUE(holds(ended.err, "cannot both go to standard output")) << ended.err;
    }

    // A file of this name is another place than what the name alone stands for.
    const fs::path before = fs::current_path();
    fs::current_path(path("folder"));
    EXPECT_EQ(SUCCESS, write({"--raw", "Data=./-", "--raw", "errorCode=-"}).code);
    fs::current_path(before);
    EXPECT_TRUE(fs::remove(inside("-")));

    // A link is replaced, so that it and its file are two.
    fs::create_symlink(data, inside("link"));
    EXPECT_EQ(SUCCESS,
              write({"--raw", "Data=" + data, "--raw", "errorCode=" + inside("link")}).code);
    EXPECT_EQ("x", readWhole(data));
    EXPECT_EQ("0", readWhole(inside("link")));
}

TEST_F(HostOutputFile, OfSeveralResultsNoneIsThereUnlessAllAre)
{
    const std::string input = "strIn=@" + file("input", std::string(100000, 'x'));
    const SmallFiles small(50000);
    const Ended ended = call({"QZaven_crypto_base64_encode", input, "--raw",
                              "errorCode=" + inside("code"), "--raw", "Data=" + inside("data")});
    EXPECT_EQ(USAGE, ended.code);
    EXPECT_EQ(0U, leftInside()) << ended.err;
}

// The program starts itself a second time, and must not meet its own file.
TEST_F(HostOutputFile, IsMadeOnceBehindLinksToLibraries)
{
    if (emulated)
        GTEST_SKIP() << "NOT TESTED: the host starts itself again, past the emulator";
    const Ended ended =
        run({"--engine", patched(engine, "libSoftModuleaven.so", "libSoftModulexxxx.so"), "call",
             "QZaven_crypto_gen_symmkey", "strCipherAlg=4", "--raw", "Data", "-o", inside("key")});
    EXPECT_EQ(SUCCESS, ended.code) << ended.err;
    EXPECT_EQ(1U, leftInside());
}

}  // namespace
