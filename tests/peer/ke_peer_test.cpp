// The key exchange's peer: its library and its program, on their own and with
// corvane-host.
#include <fcntl.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>

#include "common/version.h"
#include "common/worker_process.h"
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
        EXPECT_EQ(read("err"), "corvane-ke-peer: " + reason + "\n") << arguments;
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
constexpr const char* NO_KEYS = "there are no keys yet: \"finish\" derives them";

// The names and then the extensions of a certificate, a line for each.
std::string described(const Credential& credential)
{
    X509* const certificate = credential.certificate.get();
    const std::unique_ptr<BIO, decltype(&BIO_free_all)> bio(BIO_new(BIO_s_mem()), BIO_free_all);
    X509_NAME_print_ex(bio.get(), X509_get_subject_name(certificate), 0,
                       XN_FLAG_ONELINE & ~XN_FLAG_SPC_EQ);
    BIO_puts(bio.get(), "\n");
    X509_NAME_print_ex(bio.get(), X509_get_issuer_name(certificate), 0,
                       XN_FLAG_ONELINE & ~XN_FLAG_SPC_EQ);
    BIO_puts(bio.get(), "\n");
    for (int i = 0; i < X509_get_ext_count(certificate); ++i) {
        X509_EXTENSION* const extension = X509_get_ext(certificate, i);
        i2a_ASN1_OBJECT(bio.get(), X509_EXTENSION_get_object(extension));
        BIO_puts(bio.get(), X509_EXTENSION_get_critical(extension) != 0 ? ": critical " : ": ");
        X509V3_EXT_print(bio.get(), extension, 0, 0);
        BIO_puts(bio.get(), "\n");
    }
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &data);
    return std::string(data, static_cast<size_t>(size));
}

// The SHA-1 of the public key's bits (RFC 5280, section 4.2.1.2), as extensions show it.
std::string hexOfKeyId(const Credential& credential)
{
    unsigned char hash[20];
    EXPECT_EQ(X509_pubkey_digest(credential.certificate.get(), EVP_sha1(), hash, nullptr), 1);
    std::string text;
    for (const unsigned char byte : hash) {
        char digits[4];
        snprintf(digits, sizeof digits, "%s%02X", text.empty() ? "" : ":", byte);
        text += digits;
    }
    return text;
}

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
        for (const char* name : {"root", "sign", "enc"}) {
            const std::string text = openssl().make(
                "x509 -noout -text -in " + path(directory) + "/" + name + ".crt -out text", "text");
            EXPECT_NE(text.find(kind == KeyKind::Rsa ? "Public-Key: (2048 bit)" : "ASN1 OID: SM2"),
                      std::string::npos)
                << text;
        }
        if (kind == KeyKind::Rsa) {
            // For SM2 the command has no way to set an ID for the issuers.
            openssl().run("verify -CAfile " + path(directory) + "/root.crt " + path(directory) +
                          "/sign.crt " + path(directory) + "/enc.crt >verdict");
        }
    }
    expectRefused("make-certs sm2", "sm2/root.crt exists already");
    expectRefused("make-certs no/such/place",
                  "cannot make no/such/place: No such file or directory");
}

TEST_F(Peer, ExtensionsAreThese)
{
    for (KeyKind kind : kinds) {
        const Credential root = makeRoot(rootPlan(), kind);
        const Credential sign = makeCredential(signingPlan(), kind, root);
        const Credential enc = makeCredential(encryptionPlan(), kind, root);
        // The root names no issuer.
        const auto ids = [&](const Credential& credential) {
            std::string lines = "\nX509v3 Subject Key Identifier: " + hexOfKeyId(credential) + "\n";
            if (&credential != &root)
                lines += "X509v3 Authority Key Identifier: " + hexOfKeyId(root) + "\n";
            return lines;
        };
        EXPECT_EQ(
            described(root),
            "C=CN, O=Corvane test peer, CN=Test root\nC=CN, O=Corvane test peer, CN=Test root\n"
            "X509v3 Basic Constraints: critical CA:TRUE\n"
            "X509v3 Key Usage: critical Certificate Sign, CRL Sign" +
                ids(root));
        EXPECT_EQ(described(sign),
                  "C=CN, O=Corvane test peer, CN=Test server\n"
                  "C=CN, O=Corvane test peer, CN=Test root\n"
                  "X509v3 Basic Constraints: critical CA:FALSE\n"
                  "X509v3 Key Usage: critical Digital Signature" +
                      ids(sign));
        EXPECT_EQ(described(enc),
                  "C=CN, O=Corvane test peer, CN=Test server\n"
                  "C=CN, O=Corvane test peer, CN=Test root\n"
                  "X509v3 Basic Constraints: critical CA:FALSE\n"
                  "X509v3 Key Usage: critical Key Encipherment, Data Encipherment" +
                      ids(enc));
        EXPECT_EQ(EVP_PKEY_get_bits(enc.key.get()), kind == KeyKind::Rsa ? 2048 : 256);
    }
    EXPECT_EQ(described(makeRoot({"No usage", ""}, KeyKind::Sm2)).find("Key Usage"),
              std::string::npos);
}

TEST_F(Peer, CertificatesHoldForThirtyDaysFromAnHourAgo)
{
    const time_t start = time(nullptr);
    const Credential root = makeRoot(rootPlan(), KeyKind::Sm2);
    const time_t end = time(nullptr);
    const auto timeOf = [](const ASN1_TIME* time) {
        tm parts = {};
        EXPECT_EQ(ASN1_TIME_to_tm(time, &parts), 1);
        return timegm(&parts);
    };
    const time_t notBefore = timeOf(X509_get0_notBefore(root.certificate.get()));
    const time_t notAfter = timeOf(X509_get0_notAfter(root.certificate.get()));
    EXPECT_GE(notBefore, start - 3600);
    EXPECT_LE(notBefore, end - 3600);
    EXPECT_GE(notAfter, start + 30 * 86400);
    EXPECT_LE(notAfter, end + 30 * 86400);
}

TEST_F(Peer, SerialNumbersArePositiveAndOfSixteenBytes)
{
    int all = 0x7F, any = 0;
    std::set<std::string> numbers;
    bool differ = false;
    for (int i = 0; i < 60; ++i) {
        const Credential root = makeRoot(rootPlan(), KeyKind::Sm2);
        EXPECT_EQ(X509_get_version(root.certificate.get()), X509_VERSION_3);
        const ASN1_INTEGER* number = X509_get0_serialNumber(root.certificate.get());
        ASSERT_EQ(number->length, 16);
        EXPECT_EQ(number->type, V_ASN1_INTEGER);
        all &= number->data[0];
        any |= number->data[0];
        differ = differ || (number->data[0] & 0x3F) != (number->data[1] & 0x3F);
        numbers.insert(std::string(number->data, number->data + 16));
    }
    EXPECT_EQ(all, 0x40);
    EXPECT_EQ(any, 0x7F);
    EXPECT_TRUE(differ);
    EXPECT_EQ(numbers.size(), 60U);
}

template <class Work>
std::string refusal(Work work)
{
    try {
        work();
    } catch (const PeerError& error) {
        return error.what();
    }
    return "";
}

TEST_F(Peer, FilesThatExistAreNotReplaced)
{
    const Credential root = makeRoot(rootPlan(), KeyKind::Sm2);
    for (const char* file :
         {"root.crt", "root.key", "sign.crt", "sign.key", "enc.crt", "enc.key"}) {
        std::filesystem::create_directory(path("d"));
        write(std::string("d/") + file, "own");
        EXPECT_EQ(refusal([&] {
                      writeCredentials(path("d"), root, {root, root});
                  }),
                  path("d/") + file + " exists already");
        EXPECT_EQ(read(std::string("d/") + file), "own");
        const std::filesystem::directory_iterator all(path("d"));
        EXPECT_EQ(std::distance(begin(all), end(all)), 1);
        std::filesystem::remove_all(path("d"));
    }
    // A folder that is there and empty is taken.
    std::filesystem::create_directory(path("d"));
    writeCredentials(path("d"), root, {root, root});
    EXPECT_EQ(read("d/sign.crt"), toPem(root.certificate.get()));
    EXPECT_EQ(read("d/enc.crt"), read("d/root.crt"));
    EXPECT_EQ(read("d/enc.key"), read("d/root.key"));
}

TEST_F(Peer, PrivateFilesAreReplacedAtOnceOrNotAtAll)
{
    const std::string file = path("file");
    writePrivateFile(file, "first");
    writePrivateFile(file, "second");
    EXPECT_EQ(read("file"), "second");
    EXPECT_EQ(modeOf(file), 0600);
    EXPECT_FALSE(std::filesystem::exists(file + ".new"));

    write("file.new", "of somebody else");
    EXPECT_EQ(refusal([&] { writePrivateFile(file, "third"); }),
              "cannot make " + file + ".new: File exists");
    EXPECT_EQ(read("file.new"), "of somebody else");
    std::filesystem::remove(file + ".new");

    std::filesystem::create_directory(path("folder"));
    EXPECT_EQ(refusal([&] { writePrivateFile(path("folder"), "third"); }),
              "cannot write " + path("folder") + ": Is a directory");
    EXPECT_FALSE(std::filesystem::exists(path("folder.new")));

    // The disk takes a part of it.
    rlimit original = {};
    getrlimit(RLIMIT_FSIZE, &original);
    const rlimit few = {3, original.rlim_max};
    const auto former = signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &few);
    const std::string told = refusal([&] { writePrivateFile(file, "third"); });
    setrlimit(RLIMIT_FSIZE, &original);
    signal(SIGXFSZ, former);
    EXPECT_EQ(told.find("cannot write " + file + ": "), 0U) << told;
    EXPECT_EQ(read("file"), "second");
    EXPECT_FALSE(std::filesystem::exists(file + ".new"));

    // Descriptor 0 is one like others.
    const int kept = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
    close(STDIN_FILENO);
    EXPECT_EQ(refusal([&] { writePrivateFile(file, "third"); }), "");
    if (kept >= 0) {
        dup2(kept, STDIN_FILENO);
        close(kept);
    }
    EXPECT_EQ(read("file"), "third");
}

TEST_F(Peer, WrongSizesAreRefused)
{
    const Credential root = makeRoot(rootPlan(), KeyKind::Sm2);
    const ServerCredentials server = {root, root};
    EXPECT_EQ(refusal([&] { answerHello(server, pattern(33)); }),
              "the client's hello has 33 bytes instead of 32");
    EXPECT_EQ(refusal([&] { acceptKeyExchange(server, pattern(31), pattern(32), ""); }),
              "the client's hello has 31 bytes instead of 32");
    EXPECT_EQ(refusal([&] { acceptKeyExchange(server, pattern(32), "", ""); }),
              "the server's random has 0 bytes instead of 32");
    for (const size_t size : {ChannelKeys::SIZE - 1, ChannelKeys::SIZE + 1})
        EXPECT_EQ(refusal([&] { restoreKeys(KeyKind::Sm2, pattern(size)); }),
                  "the kept keys have the wrong length");
    const ChannelKeys keys = restoreKeys(KeyKind::Sm2, pattern(ChannelKeys::SIZE));
    const std::string empty = sealMessage(keys, "", Direction::ToServer);
    EXPECT_EQ(openMessage(keys, empty), "");
    EXPECT_EQ(refusal([&] { openMessage(keys, empty.substr(1)); }), "the message is too short");
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
    expectRefused("encrypt --dir s --data AAAA", NO_KEYS);

    ASSERT_EQ(run("finish --dir s --message " + toUrlBase64(clientMessage(secret))), 0);
    EXPECT_EQ(modeOf(path("s/session.json")), 0600);
    expectRefused("finish --dir s --message AAAA", "the exchange is finished already");

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
    expectRefused("decrypt --dir s --data " + toClient,
                  "the message is forged, damaged, of another session or of the other direction");
    expectRefused("decrypt --dir s --data AAAA", "the message is too short");

    // Values in files, with a line end, and from standard input.
    write("value", data + "\n");
    EXPECT_EQ(line("hmac --dir s --data @value"), toUrlBase64(channelHmac(keys, text)));
    EXPECT_EQ(line("hmac --dir s --data - <value"), toUrlBase64(channelHmac(keys, text)));
    expectRefused("hmac --dir s --data @missing", "cannot read missing");

    // Two exchanges side by side.
    line("answer --dir s --state other.json --hello " + toUrlBase64(pattern(32, 3)));
    expectRefused("hmac --dir s --state other.json --data AAAA", NO_KEYS);
    EXPECT_EQ(line("hmac --dir s --data @value"), toUrlBase64(channelHmac(keys, text)));
}

TEST_F(Peer, ProgramSaysWhatIsWrong)
{
    expectRefused("answer --dir s --hello AAAA",
                  "cannot open s/sign.key: No such file or directory");
    ASSERT_EQ(run("make-certs s"), 0);
    expectRefused("answer --dir s --hello AAAA", "the client's hello has 3 bytes instead of 32");
    expectRefused("answer --dir s --hello no*base64", "--hello is not Base64");
    expectRefused("finish --dir s --message AAAA",
                  "cannot read s/session.json: \"answer\" makes it");
    line("answer --dir s --hello " + toUrlBase64(pattern(32)));
    expectRefused("finish --dir s --message AAAA",
                  "the key-exchange message does not decrypt: it is damaged, or for another "
                  "encryption certificate");
    expectRefused("finish --dir s --message " + toUrlBase64(clientMessage(version + pattern(45))),
                  "the pre-master secret has the wrong length");
    for (const std::string other : {"\x01\x02", "\x02\x01"})
        expectRefused(
            "finish --dir s --message " + toUrlBase64(clientMessage(other + pattern(46, 1))),
            "the pre-master secret has another version");
    const std::string message = toUrlBase64(clientMessage(version + pattern(46)));
    EXPECT_EQ(run("finish --dir s --message " + message), 0);

    for (const char* state : {"", "{}", "[1]", "{\"kind\":\"SM2\",\"hello\":\"*\",\"random\":\"\"}",
                              "{\"kind\":\"DSA\",\"hello\":\"\",\"random\":\"\"}",
                              "{\"kind\":\"SM2\",\"hello\":1,\"random\":\"\"}"}) {
        write("state", state);
        expectRefused("hmac --dir s --state state --data AAAA",
                      "state is not a state of this program");
    }
    write("state", "{\"kind\":\"SM2\",\"hello\":\"\",\"random\":\"\",\"keys\":\"AAAA\"}");
    expectRefused("hmac --dir s --state state --data AAAA", "the kept keys have the wrong length");

    std::filesystem::copy_file(path("s/sign.key"), path("s/enc.key"),
                               std::filesystem::copy_options::overwrite_existing);
    expectRefused("answer --dir s --hello " + toUrlBase64(pattern(32)),
                  "s/enc.key is not the key of s/enc.crt");
    write("s/enc.key", "nonsense");
    expectRefused("answer --dir s --hello " + toUrlBase64(pattern(32)),
                  "no private key in s/enc.key");

    write("s/enc.key", openssl().make("genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 "
                                      "-out ec.key",
                                      "ec.key"));
    openssl().run("req -x509 -new -key ec.key -subj /CN=x -out '" + path("s/enc.crt") + "'");
    expectRefused("answer --dir s --hello " + toUrlBase64(pattern(32)),
                  "a key is neither SM2 nor RSA");
    ASSERT_EQ(run("make-certs rsa --rsa"), 0);
    for (const char* file : {"enc.key", "enc.crt"})
        std::filesystem::copy_file(path("rsa/") + file, path("s/") + file,
                                   std::filesystem::copy_options::overwrite_existing);
    expectRefused("answer --dir s --hello " + toUrlBase64(pattern(32)),
                  "sign.key and enc.key are of two kinds");
    write("s/sign.crt", "nonsense");
    expectRefused("answer --dir s --hello " + toUrlBase64(pattern(32)),
                  "no certificate in s/sign.crt");
    std::filesystem::remove(path("s/sign.crt"));
    expectRefused("answer --dir s --hello " + toUrlBase64(pattern(32)),
                  "cannot open s/sign.crt: No such file or directory");

    for (const char* arguments :
         {"", "nothing", "make-certs", "answer --dir s", "hmac --data AAAA"})
        EXPECT_EQ(run(arguments), 2) << arguments;
}

TEST_F(Peer, ProgramTellsOfItself)
{
    const std::string footer =
        "\nValues are Base64 in either alphabet, @FILE with such a text, or - for standard input.\n"
        "Exit codes: 0 success, 1 refused or a file failed, 2 usage\n";
    const auto help = [&](const std::string& step) {
        EXPECT_EQ(run(step + " --help"), 0);
        EXPECT_EQ(read("err"), "");
        return read("out");
    };
    EXPECT_EQ(help(""),
              "The server's side of a key exchange, for tests\n"
              "Usage: corvane-ke-peer [OPTIONS] SUBCOMMAND\n\n"
              "Options:\n"
              "  -h,--help                   Print this help message and exit\n"
              "  --version                   Print the version\n\n"
              "Subcommands:\n"
              "  make-certs                  Make a root, a signing and an encryption certificate "
              "with their keys\n"
              "  answer                      Answer a client's hello: prints the four values as "
              "JSON\n"
              "  finish                      Take the client's key-exchange message and derive the "
              "keys\n"
              "  encrypt                     Seal data for the client\n"
              "  decrypt                     Open a message from the client\n"
              "  hmac                        HMAC of data\n"
              "  cmac                        CMAC of data\n" +
                  footer);
    EXPECT_EQ(help("encrypt"),
              "Seal data for the client\n"
              "Usage: corvane-ke-peer encrypt [OPTIONS]\n\n"
              "Options:\n"
              "  -h,--help                   Print this help message and exit\n"
              "  --dir TEXT REQUIRED         Directory from make-certs\n"
              "  --state FILE                The exchange's file; default: DIR/session.json\n"
              "  --data TEXT REQUIRED        Base64, @FILE or -\n" +
                  footer);
    EXPECT_EQ(help("make-certs"),
              "Make a root, a signing and an encryption certificate with their keys\n"
              "Usage: corvane-ke-peer make-certs [OPTIONS] directory\n\n"
              "Positionals:\n"
              "  directory TEXT REQUIRED     Where to\n\n"
              "Options:\n"
              "  -h,--help                   Print this help message and exit\n"
              "  --rsa                       RSA of 2048 bits instead of SM2\n" +
                  footer);
    EXPECT_EQ(run("--version"), 0);
    EXPECT_EQ(read("out"), "corvane-ke-peer " + versionWithCommit() + "\n");
}

TEST_F(Peer, StateIsATextOfTheseMembers)
{
    ASSERT_EQ(run("make-certs s"), 0);
    line("answer --dir s --hello " + toUrlBase64(pattern(32)));
    const std::string state = read("s/session.json");
    const std::string begin = "{\n  \"kind\": \"SM2\",\n  \"hello\": \"" +
                              toUrlBase64(pattern(32)) + "\",\n  \"random\": \"";
    EXPECT_EQ(state.substr(0, begin.size()), begin);
    EXPECT_EQ(state.size(), begin.size() + 44 + 4);
    EXPECT_EQ(state.substr(begin.size() + 44), "\"\n}\n");

    write("state", "{\"kind\":\"SM2\",\"hello\":\"\",\"random\":\"\",\"keys\":\"" +
                       toUrlBase64(pattern(ChannelKeys::SIZE)) + "\"}");
    line("hmac --dir s --state state --data AAAA");
    EXPECT_EQ(runCommand("('" CORVANE_KE_PEER_PROGRAM
                         "' hmac --dir s --state state --data AAAA >/dev/full)"),
              1);
    EXPECT_EQ(read("err"), "corvane-ke-peer: cannot write to standard output\n");
}

// ---- For the service

class PeerProcess {
public:
    PeerProcess() : m_worker(CORVANE_KE_PEER_PROGRAM, {"corvane-ke-peer", "worker"}) {}
    ~PeerProcess()
    {
        m_worker.hangUp();
        int status = -1;
        EXPECT_EQ(waitpid(m_worker.pid(), &status, 0), m_worker.pid());
        EXPECT_EQ(status, 0);
    }

    WireReply next()
    {
        WireReply reply;
        bool good = true;
        while (!m_worker.take(reply, good)) {
            pollfd waiting = {m_worker.socket(), POLLIN, 0};
            poll(&waiting, 1, -1);
            if (!good || !m_worker.receive()) {
                ADD_FAILURE() << "no reply";
                break;
            }
        }
        return reply;
    }

    WireReply ask(const std::string& name, const Pairs& parameters)
    {
        WireRequest request;
        request.name = name;
        request.parameters = parameters;
        m_worker.post(encode(request), {});
        EXPECT_TRUE(m_worker.send());
        return next();
    }

    Pairs results(const std::string& name, const Pairs& parameters)
    {
        const WireReply reply = ask(name, parameters);
        EXPECT_TRUE(reply.ok) << name << ": " << reply.text;
        EXPECT_EQ(reply.kind, WireReply::Answer);
        EXPECT_EQ(reply.text, "");
        return reply.results;
    }

    void expectRefused(const std::string& name, const Pairs& parameters, const std::string& text)
    {
        const WireReply reply = ask(name, parameters);
        EXPECT_FALSE(reply.ok) << name;
        EXPECT_EQ(reply.kind, WireReply::Answer);
        EXPECT_EQ(reply.code, "peer_refused");
        EXPECT_EQ(reply.text, text);
        EXPECT_TRUE(reply.results.empty());
    }

private:
    WorkerProcess m_worker;
};

TEST_F(Peer, WorkerTakesTheSameSteps)
{
    PeerProcess peer;
    const WireReply ready = peer.next();
    EXPECT_EQ(ready.kind, WireReply::Ready);
    EXPECT_EQ(ready.text, "corvane-ke-peer");

    const std::string hello = pattern(32), secret = version + pattern(46, 2);
    peer.expectRefused("answer", {}, "hello is missing");
    peer.expectRefused("answer", {{"hello", "no*base64"}}, "hello is not Base64");
    peer.expectRefused("answer", {{"hello", "AAAA"}},
                       "the client's hello has 3 bytes instead of 32");
    const Pairs begun = peer.results("answer", {{"hello", toUrlBase64(hello)}});
    std::vector<std::string> names;
    for (const auto& pair : begun)
        names.push_back(pair.first);
    EXPECT_EQ(names, (std::vector<std::string>{"exchange", "strSrvr_rand", "strSrvr_sig_cert",
                                               "strSrvr_enc_cert", "strSrvr_sign", "root"}));
    ASSERT_EQ(begun.size(), 6U);
    EXPECT_EQ(peer.results("root", {}), (Pairs{{"root", begun[5].second}}));
    const std::string token = begun[0].second;
    EXPECT_EQ(support::fromUrlBase64(token).size(), 18U);

    peer.expectRefused("hmac", {{"data", "AAAA"}}, "exchange is missing");
    peer.expectRefused("hmac", {{"exchange", "AAAA"}, {"data", "AAAA"}},
                       "there is no such exchange: it has ended or never was");
    peer.expectRefused("hmac", {{"exchange", token}, {"data", "AAAA"}}, NO_KEYS);
    peer.expectRefused("finish", {{"exchange", token}}, "message is missing");
    std::filesystem::create_directory(path("s"));
    write("s/enc.der", support::fromUrlBase64(begun[3].second));
    openssl().run("x509 -inform DER -in " + path("s/enc.der") + " -out " + path("s/enc.crt"));
    const std::string message = toUrlBase64(clientMessage(secret));
    EXPECT_EQ(peer.results("finish", {{"exchange", token}, {"message", message}}), Pairs());
    peer.expectRefused("finish", {{"exchange", token}, {"message", message}},
                       "the exchange is finished already");

    const std::unique_ptr<EVP_MAC, decltype(&EVP_MAC_free)> kind(
        EVP_MAC_fetch(nullptr, "HMAC", nullptr), EVP_MAC_free);
    const auto view = [](const std::string& bytes) {
        return Bytes{reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size()};
    };
    const std::string random = support::fromUrlBase64(begun[1].second);
    const ChannelKeys keys(AVEN_HASH_SM3, prepareHmac(kind.get(), "SM3").get(), view(secret),
                           {view(hello), view(random)});
    const std::string text = pattern(100);
    const auto step = [&](const char* name, const std::string& data) {
        const Pairs given = peer.results(name, {{"exchange", token}, {"data", toUrlBase64(data)}});
        if (given.size() != 1 || given[0].first != "Data")
            return std::string("other results");
        return support::fromUrlBase64(given[0].second);
    };
    EXPECT_EQ(step("hmac", text), channelHmac(keys, text));
    EXPECT_EQ(step("cmac", text), channelCmac(keys, text));
    EXPECT_EQ(step("decrypt", sealMessage(keys, text, Direction::ToServer)), text);
    EXPECT_EQ(openMessage(keys, step("encrypt", text), Direction::ToClient), text);
    peer.expectRefused("other", {{"exchange", token}, {"data", "AAAA"}}, "there is no such step");
    peer.expectRefused("decrypt", {{"exchange", token}, {"data", "AAAA"}},
                       "the message is too short");
}

TEST_F(Peer, WorkerKeepsTheLast256Exchanges)
{
    PeerProcess peer;
    peer.next();
    const Pairs hello = {{"hello", toUrlBase64(pattern(32))}};
    std::vector<std::string> tokens;
    const auto begin = [&] { tokens.push_back(peer.results("answer", hello).at(0).second); };
    const auto expectKept = [&](size_t place, bool isKept) {
        peer.expectRefused(
            "hmac", {{"exchange", tokens[place]}},
            isKept ? NO_KEYS : "there is no such exchange: it has ended or never was");
    };
    for (int i = 0; i < 256; ++i)
        begin();
    expectKept(0, true);
    begin();
    expectKept(0, false);
    expectKept(1, true);
    expectKept(256, true);
    EXPECT_EQ(std::set<std::string>(tokens.begin(), tokens.end()).size(), 257U);
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
