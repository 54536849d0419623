// corvane-host call: one request, its results as JSON.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "commands.h"
#include "common/codec.h"
#include "common/secrets.h"
#include "help.h"
#include "host/catalogue/catalogue.h"
#include "host/exchange.h"
#include "host/parameters.h"
#include "host/values.h"
#include "options.h"
#include "trace.h"

namespace {

struct CallOptions {
    std::string request;
    WrittenParameters parameters;
    std::vector<std::string> raws;  // RESULT or RESULT=FILE
    std::string file;
    bool hex = false;
    bool time = false;
    bool trace = false;
    bool force = false;
};

std::unique_ptr<HostSession> openSession(Program& program, bool trace)
{
    const auto start = std::chrono::steady_clock::now();
    auto session = program.openSession();
    const std::chrono::duration<double, std::micro> time = std::chrono::steady_clock::now() - start;
    if (trace)
        traceLoading(time.count());
    return session;
}

// The bytes that results stand for, as hex digits. Codes and sessions are no bytes.
SecretPairs inHex(const RequestInfo* request, SecretPairs results)
{
    for (auto& [name, value] : results) {
        const Result* known = request == nullptr ? nullptr : findResult(*request, name);
        const Form form = known == nullptr ? Form::Text : known->form;
        if (name == "errorCode" || form == Form::Handle)
            continue;
        if (const auto bytes = decodeResult(form, value))
            value = toHex(*bytes);
        else
            tell("warning: the result " + name + " is not of its form, and not in hex");
    }
    return results;
}

// A result that is written alone.
struct RawResult {
    std::string name;
    std::string file;  // "" for where all results would go
};

const std::string& pathOf(const RawResult& result, const CallOptions& options)
{
    return result.file.empty() ? options.file : result.file;
}

// Null for standard output. Opened before the request is sent, as some happen only once.
std::unique_ptr<OutputFile> openFile(const std::string& path, bool mayReplace)
{
    if (isStandardOutput(path))
        return nullptr;
    return std::make_unique<OutputFile>(path, mayReplace);
}

void checkResult(const RequestInfo& request, const std::string& name)
{
    if (findResult(request, name) != nullptr)
        return;
    std::string known;
    for (const Result& result : request.results)
        known += (known.empty() ? "" : ", ") + std::string(result.name);
    throw UsageError(std::string(request.name) + " has no result " + name + "; it has " + known);
}

// Whether what is written to both paths ends in one place. Links to files are replaced, so that
// those to one file are two places.
bool isSamePlace(const std::string& one, const std::string& other)
{
    if (isStandardOutput(one) || isStandardOutput(other))
        return isStandardOutput(one) && isStandardOutput(other);
    namespace fs = std::filesystem;
    const auto placeOf = [](const fs::path& path) {
        std::error_code ignored;  // opening the file tells of it
        return fs::weakly_canonical(fs::absolute(path, ignored).parent_path(), ignored) /
               path.filename();
    };
    return placeOf(one) == placeOf(other);
}

void refuseSamePlaces(const std::vector<std::string>& paths)
{
    for (size_t i = 0; i < paths.size(); ++i)
        for (size_t j = 0; j < i; ++j)
            if (isSamePlace(paths[i], paths[j]))
                throw UsageError(isStandardOutput(paths[i])
                                     ? "two results cannot both go to standard output"
                                     : "two results cannot go to the same file");
}

// `request` may be null.
std::vector<RawResult> rawResults(const CallOptions& options, const RequestInfo* request)
{
    std::vector<RawResult> results;
    std::vector<std::string> paths;
    bool isPlain = false;
    for (const std::string& raw : options.raws) {
        const size_t equals = raw.find('=');
        RawResult result = {raw.substr(0, equals), ""};
        if (equals != std::string::npos)
            result.file = raw.substr(equals + 1);
        if (equals != std::string::npos && result.file.empty())
            throw UsageError("--raw " + result.name + "= names no file");
        if (request != nullptr)
            checkResult(*request, result.name);
        if (result.file.empty() && std::exchange(isPlain, true))
            throw UsageError("of several results, each but one takes a file: --raw " + result.name +
                             "=FILE");
        results.push_back(result);
        paths.push_back(pathOf(result, options));
    }
    if (!results.empty() && !isPlain && !options.file.empty())
        throw UsageError("-o is for a --raw without a file, or for none");
    refuseSamePlaces(paths);
    return results;
}

// Where results go: the files are opened at once, and are left in their places when all of them
// are written.
class Results {
public:
    Results(const Program& program, const CallOptions& options, const RequestInfo* request)
        : m_program(program),
          m_options(options),
          m_request(request),
          m_raws(rawResults(options, request))
    {
        if (m_raws.empty())
            m_files.push_back(openFile(options.file, options.force));
        for (const RawResult& raw : m_raws)
            m_files.push_back(openFile(pathOf(raw, options), options.force));
    }

    void write(const Outcome& outcome)
    {
        if (m_raws.empty())
            writeJson(outcome);
        else if (outcome.ok)
            writeRaws(outcome);
        else
            return;
        for (const auto& file : m_files)
            if (file != nullptr)
                file->keep();
    }

private:
    void put(size_t index, std::string_view text)
    {
        m_files[index] != nullptr ? m_files[index]->write(text) : m_program.output.write(text);
    }

    void writeJson(const Outcome& outcome)
    {
        auto json = toJson(m_options.hex ? inHex(m_request, outcome.results) : outcome.results);
        if (m_options.time)
            json["microseconds"] = outcome.microseconds;
        put(0, jsonText(json, 2) + "\n");
    }

    void writeRaws(const Outcome& outcome)
    {
        std::vector<SecretText> texts;
        for (const RawResult& raw : m_raws) {
            SecretText bytes = resultBytes(m_request, outcome, raw.name);
            const bool isShown = raw.file.empty() && m_options.file.empty() &&
                                 m_program.output.isTerminal() && !isUtf8(bytes);
            if (isShown && !m_options.hex)
                tell("warning: " + raw.name +
                     " is binary and shown as hex digits; -o FILE writes the bytes");
            if (m_options.hex || isShown)
                bytes = toHex(bytes) + "\n";
            texts.push_back(std::move(bytes));
        }
        for (size_t i = 0; i < texts.size(); ++i)
            put(i, texts[i]);
        warnOfLostTag(outcome);
    }

    // Data alone is of no use then, and the tag is made only once.
    void warnOfLostTag(const Outcome& outcome) const
    {
        constexpr const char* name = "gcmOutTag";
        const std::string* tag = findValue(outcome.results, name);
        const auto isTag = [](const RawResult& raw) { return raw.name == name; };
        if (tag != nullptr && !tag->empty() && std::none_of(m_raws.begin(), m_raws.end(), isTag))
            tell("warning: " + std::string(name) +
                 " is not written; without it the data cannot be decrypted: --raw " + name +
                 "=FILE");
    }

    const Program& m_program;
    const CallOptions& m_options;
    const RequestInfo* m_request;
    std::vector<RawResult> m_raws;
    std::vector<std::unique_ptr<OutputFile>> m_files;  // of each, or the one of JSON
};

ExitCode call(Program& program, const CallOptions& options)
{
    const RequestInfo* request = requestByName(options.request, options.force);
    rawResults(options, request);
    options.parameters.check();

    // Before the values are read: opening may start the program again, and standard
    // input can be read only once.
    const auto session = openSession(program, options.trace);
    const SecretPairs parameters = options.parameters.read(request);
    warn(request, parameters);
    Results results(program, options, request);
    if (options.trace)
        traceParameters(request, options.request, parameters);

    const Outcome outcome = exchange(*session, request, options.request, parameters);
    if (options.trace)
        traceOutcome(request, outcome);
    results.write(outcome);
    if (options.time && !options.raws.empty())
        fprintf(stderr, "microseconds: %.1f\n", outcome.microseconds);

    if (outcome.ok)
        return SUCCESS;
    tell(failureLine(options.request, outcome));
    tell(remedyLine(outcome));
    return REFUSED;
}

}  // namespace

void addCall(CLI::App& app, Program& program)
{
    const auto options = std::make_shared<CallOptions>();
    CLI::App* command =
        app.add_subcommand("call", "Send one request and print its results as JSON");
    addRequestName(*command, options->request);
    addParameterOptions(*command, options->parameters);
    command
        ->add_option("--raw", options->raws,
                     "Write this result's bytes instead of JSON: RESULT where JSON would go, "
                     "RESULT=FILE to a "
                     "new file of its own")
        ->type_name("RESULT")
        ->check(notEmpty())
        ->allow_extra_args(false);
    command
        ->add_option("-o,--output", options->file,
                     "Write what would go to standard output to a new file; - for stdout")
        ->type_name("FILE")
        ->check(notEmpty());
    command->add_flag("--hex", options->hex, "Results' bytes as hex digits");
    command->add_flag("--time", options->time, "Tell the time of the request call");
    command->add_flag("--trace", options->trace,
                      "Tell parameters, results and times; of what may be secret, the length");
    command->add_flag("--force", options->force,
                      "Send a name that is not in the catalogue; replace the file of -o");
    command->footer(std::string(valueForms) + R"(
Examples:
  corvane-host call QZaVen_GetVersion
  corvane-host call QZaven_crypto_gen_symmkey strCipherAlg=aes-256 \
      --raw Data -o key.bin
  corvane-host call QZaven_crypto_hmac strHashAlg=sha-256 \
      strKey=b64:@key.bin strdata=text:hello
  corvane-host call QZaven_crypto_encrypt strCipherAlg=aes-256 strMode=gcm \
      strKey=b64:@key.bin strIV=hex:000102030405060708090a0b \
      straad=text:v1 strdata=text:hello --raw Data=cipher.bin \
      --raw gcmOutTag=tag.bin)");
    command->callback([options, &program] { program.exitCode = call(program, *options); });
}
