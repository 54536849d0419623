// The key exchange's peer: its library and its program, on their own and with
// corvane-host.
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "engine/mac.h"
#include "peer/ke_server.h"
#include "support/openssl_tool.h"

namespace {

using support::openssl;
using support::pattern;
using support::toHex;
using support::toUrlBase64;

const KeyKind kinds[] = {KeyKind::Sm2, KeyKind::Rsa};

// The program, in a folder of its own.
class Peer : public testing::Test, protected support::TemporaryFolder {
protected:
    // Runs a command in the directory; its output is in "out", its errors are in "err".
    int runCommand(const std::string& command) const
    {
        const int status =
            system(("cd " + path().string() + " && " + command + " >out 2>err").c_str());
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    int run(const std::string& arguments) const
    {
        return runCommand("'" CORVANE_KE_PEER_PROGRAM "' " + arguments);
    }

    // The one line that the program prints when it succeeds.
    std::string line(const std::string& arguments) const
    {
        EXPECT_EQ(run(arguments), 0) << arguments << "\n" << read("err");
        EXPECT_EQ(read("err"), "");
        std::string text = read("out");
        EXPECT_EQ(text.find('\n'), text.size() - 1);
        text.pop_back();
        return text;
    }

    void expectRefused(const std::string& arguments, const std::string& reason) const
    {
        EXPECT_EQ(run(arguments), 1) << arguments;
        EXPECT_EQ(read("out"), "");
        EXPECT_NE(read("err").find(reason), std::string::npos) << read("err");
    }

    // A key-exchange message as a client makes it.
    std::string clientMessage(const std::string& secret) const
    {
        write("secret", secret);
        openssl().run("pkeyutl -encrypt -certin -inkey " + path("s/enc.crt") + " -in " +
                      path("secret") + " -out " + path("message"));
        return read("message");
    }
};

const std::string version = "\x01\x01";

int modeOf(const std::string& file)
{
    struct stat status = {};
    EXPECT_EQ(stat(file.c_str(), &status), 0) << file;
    return status.st_mode & 0777;
}

TEST_F(Peer, CertificatesAreWhatOpensslExpects)
{
    for (KeyKind kind : kinds) {
        const std::string directory = kind == KeyKind::Sm2 ? "sm2" : "rsa";
        ASSERT_EQ(run("make-certs " + directory + (kind == KeyKind::Rsa ? " --rsa" : "")), 0);
        EXPECT_EQ(modeOf(path(directory)), 0700);
        for (const char* name : {"root", "sign", "enc"}) {
            const std::string file = path(directory) + "/" + name;
            EXPECT_EQ(modeOf(file + ".key"), 0600);
            EXPECT_EQ(
                openssl().make("x509 -noout -pubkey -in " + file + ".crt -out public", "public"),
                openssl().make("pkey -pubout -in " + file + ".key -out public", "public"));
        }
        const auto text = [&](const std::string& name) {
            return openssl().make(
                "x509 -noout -text -in " + path(directory) + "/" + name + ".crt -out text", "text");
        };
        EXPECT_NE(text("root").find("CA:TRUE"), std::string::npos);
        EXPECT_NE(text("sign").find("Digital Signature\n"), std::string::npos);
        EXPECT_NE(text("enc").find("Key Encipherment, Data Encipherment\n"), std::string::npos);
        if (kind == KeyKind::Rsa) {
            // For SM2 the command has no way to set an ID for the issuers.
            openssl().run("verify -CAfile " + path(directory) + "/root.crt " + path(directory) +
                          "/sign.crt " + path(directory) + "/enc.crt >verdict");
        }
    }
    expectRefused("make-certs sm2", "exists already");
    expectRefused("make-certs no/such/place", "cannot make");
}

TEST_F(Peer, ExchangeWithTheProgram)
{
    ASSERT_EQ(run("make-certs s"), 0);
    const std::string hello = pattern(32), secret = version + pattern(46, 2);
    const std::string answer = line("answer --dir s --hello " + toUrlBase64(hello));
    for (const char* name :
         {"strSrvr_rand", "strSrvr_sig_cert", "strSrvr_enc_cert", "strSrvr_sign"})
        EXPECT_NE(answer.find(std::string("\"") + name + "\":\""), std::string::npos);
    EXPECT_EQ(modeOf(path("s/session.json")), 0600);
    expectRefused("encrypt --dir s --data AAAA", "no keys yet");

    ASSERT_EQ(run("finish --dir s --message " + toUrlBase64(clientMessage(secret))), 0);
    EXPECT_EQ(modeOf(path("s/session.json")), 0600);
    expectRefused("finish --dir s --message AAAA", "finished already");

    // The keys as a client has them.
    const std::string random = support::fromHex([&] {
        const size_t at = answer.find("strSrvr_rand\":\"") + 15;
        write("random", answer.substr(at, 44));
        EXPECT_EQ(runCommand("tr -- '-_' '+/' <random | base64 -d | od -An -v -tx1 | "
                             "tr -d ' \\n'"),
                  0);
        return read("out");
    }());
    const std::unique_ptr<EVP_MAC, decltype(&EVP_MAC_free)> kind(
        EVP_MAC_fetch(nullptr, "HMAC", nullptr), EVP_MAC_free);
    const auto view = [](const std::string& bytes) {
        return Bytes{reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size()};
    };
    const ChannelKeys keys(AVEN_HASH_SM3, prepareHmac(kind.get(), "SM3").get(), view(secret),
                           {view(hello), view(random)});

    const std::string text = pattern(100), data = toUrlBase64(text);
    EXPECT_EQ(line("hmac --dir s --data " + data), toUrlBase64(channelHmac(keys, text)));
    EXPECT_EQ(line("cmac --dir s --data " + data), toUrlBase64(channelCmac(keys, text)));
    const std::string fromClient = toUrlBase64(sealMessage(keys, text, Direction::ToServer));
    EXPECT_EQ(line("decrypt --dir s --data " + fromClient), data);
    const std::string toClient = line("encrypt --dir s --data " + data);
    EXPECT_NE(toClient, line("encrypt --dir s --data " + data));
    expectRefused("decrypt --dir s --data " + toClient, "the other direction");
    expectRefused("decrypt --dir s --data AAAA", "too short");

    // Values in files, with a line end, and from standard input.
    write("value", data + "\n");
    EXPECT_EQ(line("hmac --dir s --data @value"), toUrlBase64(channelHmac(keys, text)));
    EXPECT_EQ(line("hmac --dir s --data - <value"), toUrlBase64(channelHmac(keys, text)));
    expectRefused("hmac --dir s --data @missing", "cannot read missing");

    // Two exchanges side by side.
    line("answer --dir s --state other.json --hello " + toUrlBase64(pattern(32, 3)));
    expectRefused("hmac --dir s --state other.json --data AAAA", "no keys yet");
    EXPECT_EQ(line("hmac --dir s --data @value"), toUrlBase64(channelHmac(keys, text)));
}

TEST_F(Peer, ProgramSaysWhatIsWrong)
{
    expectRefused("answer --dir s --hello AAAA", "cannot open s/sign.key");
    ASSERT_EQ(run("make-certs s"), 0);
    expectRefused("answer --dir s --hello AAAA", "has 3 bytes instead of 32");
    expectRefused("answer --dir s --hello no*base64", "--hello is not Base64");
    expectRefused("finish --dir s --message AAAA", "cannot read s/session.json");
    line("answer --dir s --hello " + toUrlBase64(pattern(32)));
    expectRefused("finish --dir s --message AAAA", "does not decrypt");
    expectRefused("finish --dir s --message " + toUrlBase64(clientMessage(version + pattern(45))),
                  "wrong length");
    expectRefused("finish --dir s --message " + toUrlBase64(clientMessage(pattern(48))),
                  "another version");
    const std::string message = toUrlBase64(clientMessage(version + pattern(46)));
    EXPECT_EQ(run("finish --dir s --message " + message), 0);

    for (const char* state : {"", "{}", "[1]", "{\"kind\":\"SM2\",\"hello\":\"*\",\"random\":\"\"}",
                              "{\"kind\":\"DSA\",\"hello\":\"\",\"random\":\"\"}",
                              "{\"kind\":\"SM2\",\"hello\":1,\"random\":\"\"}"}) {
        write("state", state);
        expectRefused("hmac --dir s --state state --data AAAA", "not a state");
    }
    write("state", "{\"kind\":\"SM2\",\"hello\":\"\",\"random\":\"\",\"keys\":\"AAAA\"}");
    expectRefused("hmac --dir s --state state --data AAAA", "wrong length");

    std::filesystem::copy_file(path("s/sign.key"), path("s/enc.key"),
                               std::filesystem::copy_options::overwrite_existing);
    expectRefused("answer --dir s --hello " + toUrlBase64(pattern(32)), "not the key of");
    write("s/enc.key", "nonsense");
    expectRefused("answer --dir s --hello " + toUrlBase64(pattern(32)), "no private key in");

    for (const char* arguments :
         {"", "nothing", "make-certs", "answer --dir s", "hmac --data AAAA"})
        EXPECT_EQ(run(arguments), 2) << arguments;
    EXPECT_EQ(run("--help"), 0);
}

TEST_F(Peer, TamperedAndCutMessagesAreRefused)
{
    for (KeyKind kind : kinds) {
        const ChannelKeys keys = restoreKeys(kind, pattern(ChannelKeys::SIZE));
        const std::string message = sealMessage(keys, pattern(40));
        EXPECT_EQ(openMessage(keys, message, Direction::ToClient), pattern(40));
        for (size_t i = 0; i < message.size(); ++i) {
            std::string bad = message;
            bad[i] = static_cast<char>(bad[i] ^ 1);
            EXPECT_THROW(openMessage(keys, bad, Direction::ToClient), PeerError) << i;
            EXPECT_THROW(openMessage(keys, message.substr(0, i), Direction::ToClient), PeerError)
                << i;
        }
    }
}

TEST_F(Peer, TalksWithTheHostThroughPlugInAndEngine)
{
    for (const char* kind : {"", " --rsa"}) {
        const std::string prefix =
            std::filesystem::path(CORVANE_HOST_PROGRAM).parent_path().parent_path();
        EXPECT_EQ(runCommand("'" CORVANE_SOURCE_DIR "/devkit/demo.sh' '" + prefix + "' --exchange" +
                             kind),
                  0)
            << read("out") << read("err");
        std::string checks;
        std::istringstream out(read("out"));
        for (std::string line; std::getline(out, line);)
            if (line.find(" us") == std::string::npos)
                checks += line + "\n";
        EXPECT_EQ(checks,
                  "    ok      the server derives its keys\n"
                  "    ok      the server decrypts it\n"
                  "    ok      gives the message back\n"
                  "    ok      the server computes the same\n"
                  "    ok      the server computes the same\n"
                  "\n5 checks: 5 passed, 0 failed\n");
    }
}

}  // namespace
