// corvane-ke-peer: the server's side of a key exchange, a step at a time.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <nlohmann/json.hpp>

#include "common/codec.h"
#include "common/locked_memory.h"
#include "common/secrets.h"
#include "common/version.h"
#include "common/worker_process.h"
#include "state_file.h"
#include "worker.h"

namespace {

enum ExitCode {
    SUCCESS = 0,
    REFUSED = 1,  // a message, or a file
    USAGE = 2,
};

struct Options {
    std::string directory;
    std::string state;
    std::string value;  // of the step's one input
    bool rsa = false;
    bool lockMemory = false;

    std::string statePath() const { return state.empty() ? directory + "/session.json" : state; }
};

// Reads Base64 from the command line, from "@FILE" or, for "-", from standard input.
std::string readValue(const std::string& name, const std::string& written)
{
    std::string text = written;
    if (written == "-") {
        text.assign(std::istreambuf_iterator<char>(std::cin), {});
    } else if (!written.empty() && written[0] == '@') {
        std::ifstream file(written.substr(1));
        if (!file)
            throw PeerError("cannot read " + written.substr(1));
        text.assign(std::istreambuf_iterator<char>(file), {});
    }
    text.erase(text.find_last_not_of(" \t\r\n") + 1);
    const auto bytes = fromBase64(text);
    if (!bytes)
        throw PeerError(name + " is not Base64");
    return *bytes;
}

void printLine(const std::string& line)
{
    std::cout << line << "\n" << std::flush;
    if (!std::cout)
        throw PeerError("cannot write to standard output");
}

void makeCertificates(const Options& options)
{
    const KeyKind kind = options.rsa ? KeyKind::Rsa : KeyKind::Sm2;
    const Credential root = makeRoot(rootPlan(), kind);
    writeCredentials(
        options.directory, root,
        {makeCredential(signingPlan(), kind, root), makeCredential(encryptionPlan(), kind, root)});
}

void answer(const Options& options)
{
    const std::string hello = readValue("--hello", options.value);
    const ServerCredentials server = readCredentials(options.directory);
    const ServerAnswer made = answerHello(server, hello);
    writeState(options.statePath(),
               {kindOf(server.encryption.key.get()), hello, made.random, std::nullopt});

    nlohmann::ordered_json json;
    json["strSrvr_rand"] = toUrlBase64(made.random);
    json["strSrvr_sig_cert"] = toUrlBase64(made.signingCertificate);
    json["strSrvr_enc_cert"] = toUrlBase64(made.encryptionCertificate);
    json["strSrvr_sign"] = toUrlBase64(made.signature);
    printLine(json.dump());
}

void finish(const Options& options)
{
    ExchangeState state = readState(options.statePath());
    if (state.keys)
        throw PeerError("the exchange is finished already");
    const ChannelKeys keys = acceptKeyExchange(readCredentials(options.directory), state.hello,
                                               state.random, readValue("--message", options.value));
    const Bytes block = keys.block();
    state.keys = std::string(reinterpret_cast<const char*>(block.data), block.size);
    writeState(options.statePath(), state);
}

using Operation = std::string (*)(const ChannelKeys& keys, const std::string& data);

void useChannel(const Options& options, Operation operation)
{
    const ExchangeState state = readState(options.statePath());
    if (!state.keys)
        throw PeerError("there are no keys yet: \"finish\" derives them");
    const ChannelKeys keys = restoreKeys(state.kind, *state.keys);
    printLine(toUrlBase64(operation(keys, readValue("--data", options.value))));
}

// The channel's steps, one row each.
const struct Step {
    const char* name;
    const char* text;
    Operation operation;
} channelSteps[] = {
    {"encrypt", "Seal data for the client",
     [](const ChannelKeys& keys, const std::string& data) { return sealMessage(keys, data); }},
    {"decrypt", "Open a message from the client",
     [](const ChannelKeys& keys, const std::string& data) { return openMessage(keys, data); }},
    {"hmac", "HMAC of data", channelHmac},
    {"cmac", "CMAC of data", channelCmac},
};

void run(const CLI::App& app, const Options& options)
{
    // Keys are in it, its own or ones that it reads.
    const Undumpable undumpable;
    const std::string name = app.get_subcommands().front()->get_name();
    if (name == "worker") {
        tieToParent();
        if (options.lockMemory)
            lockMemory();
        return PeerWorker().serve(workerSocket);
    }
    if (name == "make-certs")
        return makeCertificates(options);
    if (name == "answer")
        return answer(options);
    if (name == "finish")
        return finish(options);
    for (const Step& step : channelSteps)
        if (name == step.name)
            return useChannel(options, step.operation);
}

int runCommandLine(int argc, char** argv)
{
    Options options;
    CLI::App app("The server's side of a key exchange, for tests", "corvane-ke-peer");
    app.require_subcommand(1);
    app.set_version_flag("--version", "corvane-ke-peer " + versionWithCommit(),
                         "Print the version");
    app.footer(
        "Values are Base64 in either alphabet, @FILE with such a text, or - for standard input.\n"
        "Exit codes: 0 success, 1 refused or a file failed, 2 usage");

    CLI::App* certificates = app.add_subcommand(
        "make-certs", "Make a root, a signing and an encryption certificate with their keys");
    certificates->add_option("directory", options.directory, "Where to")->required();
    certificates->add_flag("--rsa", options.rsa, "RSA of 2048 bits instead of SM2");

    // For corvane-host serve.
    app.add_subcommand("worker")->group("")->add_flag("--lock-memory", options.lockMemory);

    const auto addStep = [&](const char* name, const char* text, const char* value) {
        CLI::App* step = app.add_subcommand(name, text);
        step->add_option("--dir", options.directory, "Directory from make-certs")->required();
        step->add_option("--state", options.state, "The exchange's file; default: DIR/session.json")
            ->type_name("FILE");
        step->add_option(value, options.value, "Base64, @FILE or -")->required();
    };
    addStep("answer", "Answer a client's hello: prints the four values as JSON", "--hello");
    addStep("finish", "Take the client's key-exchange message and derive the keys", "--message");
    for (const Step& step : channelSteps)
        addStep(step.name, step.text, "--data");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == SUCCESS ? SUCCESS : USAGE;
    }
    run(app, options);
    return SUCCESS;
}

}  // namespace

int main(int argc, char** argv)
{
    try {
        return runCommandLine(argc, argv);
    } catch (const PeerError& e) {
        fprintf(stderr, "corvane-ke-peer: %s\n", e.what());
    } catch (const Failure& failure) {
        fprintf(stderr, "corvane-ke-peer: libcrypto failed (%d)\n", failure.code);
    } catch (const std::exception& e) {
        fprintf(stderr, "corvane-ke-peer: %s\n", e.what());
    }
    return REFUSED;
}
