// What people get wrong on the command line, and what they are told: what is wrong, where, and
// what was likely meant. Nothing that may be secret is repeated.
#include "support/held.h"
#include "support/host_program.h"

namespace {

using namespace support;
using namespace std::string_literals;

using Mistakes = Host;

constexpr const char* hmac = "QZaven_crypto_hmac";
constexpr const char* version = "QZaVen_GetVersion";

struct Mistake {
    Arguments arguments;
    int code;
    std::string message;  // after "corvane-host: ", up to the line's end; exact
};

// Values that nobody may find again are "5ecret".
const Mistake commandLines[] = {
    // Subcommands.
    {{}, USAGE, "there is no subcommand"},
    {{"cal", version}, USAGE, "there is no such subcommand; did you mean call?"},
    {{"5ecret"},
     USAGE,
     "there is no such subcommand; there are call, script, serve, list, describe, bench, doctor, "
     "explain, openapi, completion, help, version"},
    {{version},
     USAGE,
     "QZaVen_GetVersion is a request; to send it: corvane-host call " + ""s + version},
    {{"help", "cal"}, USAGE, "there is no such subcommand; did you mean call?"},
    {{"help", "worker"},
     USAGE,
     "there is no such subcommand; there are call, script, serve, list, describe, bench, doctor, "
     "explain, openapi, completion, help, version"},
    {{"openapi", "5ecret"}, USAGE, "argument 2 has no place in openapi"},
    {{"doctor", "secrets"}, USAGE, "argument 2 has no place in doctor"},
    {{"doctor", "ab"}, USAGE, "argument 2 has no place in doctor"},
    // Requests.
    {{"call"},
     USAGE,
     "call: REQUEST is missing (Name of the request, as `corvane-host list` has it)"},
    {{"call", "hmac", "strKey=5ecret"},
     USAGE,
     "there is no request hmac; did you mean QZaven_ke_hmac or QZaven_crypto_hmac?"},
    {{"call", "QZaven_crypto_hmacc"},
     USAGE,
     "there is no request QZaven_crypto_hmacc; did you mean QZaven_crypto_hmac?"},
    {{"describe", "nothing"}, USAGE, "there is no request nothing; `corvane-host list` shows all"},
    {{"call", "strKey=5ecret", hmac},
     USAGE,
     "the name of the request stands before its parameters"},
    {{"call", "5ecret+/=="}, USAGE, "the name of the request stands before its parameters"},
    {{"call", "5ecret+/5ecret"},
     USAGE,
     "there is no request of this name; `corvane-host list` shows all"},
    {{"list", "nothing", "else"},
     USAGE,
     "no request matches nothing else; try fewer or other words, as aes, gcm, rsa, sha256, mac, "
     "cms or session, or list without words for all"},
    {{"list", "strKey=5ecret"}, USAGE, "list takes words to look for, not name=value"},
    {{"list", "nothing", "5ecret+/5ecret"},
     USAGE,
     "no request matches these words; try fewer or other words, as aes, gcm, rsa, sha256, mac, cms "
     "or session, or list without words for all"},
    // Options.
    {{"call", version, "--hexx"}, USAGE, "there is no option --hexx; did you mean --hex?"},
    {{"--engin", "5ecret", "list"}, USAGE, "there is no option --engin; did you mean --engine?"},
    {{"--hepl"}, USAGE, "there is no option --hepl; did you mean --help?"},
    {{"call", version, "-x"}, USAGE, "there is no option -x"},
    {{"call", version, "-O"}, USAGE, "there is no option -O"},
    {{"doctor", "-5"}, USAGE, "argument 2 has no place in doctor"},
    {{"doctor", "--x"}, USAGE, "argument 2 has no place in doctor"},
    {{"doctor", "--ab"}, USAGE, "there is no option --ab"},
    {{"doctor", "--a5ecret"}, USAGE, "argument 2 has no place in doctor"},
    {{"doctor", "--" + std::string(38, 'a')},
     USAGE,
     "there is no option --" + std::string(38, 'a')},
    {{"doctor", "--" + std::string(39, 'a')}, USAGE, "argument 2 has no place in doctor"},
    {{"call", version, "-x5ecret"}, USAGE, "argument 3 has no place in call"},
    {{"----"}, USAGE, "there is no subcommand"},
    {{"doctor", "----"}, USAGE, "argument 2 has no place in doctor"},
    {{"doctor", "---json"}, USAGE, "argument 2 has no place in doctor"},
    {{"call", "--verbos"}, USAGE, "there is no option --verbos"},
    {{"list", "--engine", ""}, USAGE, "--engine: takes a name, not an empty text"},
    {{"explain", "a\033[31mb\xff"},
     USAGE,
     "there is no code a?[31mb?; `corvane-host explain` lists all"},
    {{"call", hmac, "--strKey=5ecret"},
     USAGE,
     "there is no option --strKey; parameters are written without dashes: strKey=VALUE"},
    {{"--json", "list"}, USAGE, "--json is an option of list and stands behind it"},
    {{"serve", "--port", "0"},
     USAGE,
     "there is no option --port; did you mean --listen ADDRESS:PORT?"},
    {{"serve", "--worker=2"}, USAGE, "there is no option --worker; did you mean --workers?"},
    {{"bench", "--port", "0"}, USAGE, "there is no option --port"},
    {{"list", "--raw", "Data"}, USAGE, "--raw is an option of call, not of list"},
    {{"call", version, "--raw"}, USAGE, "--raw lacks its value"},
    {{"call", version, "-o", "a", "-o", "b"}, USAGE, "--output is given more than once"},
    {{"--raw"}, USAGE, "--raw is an option of call"},
    {{"serve", "--listen", "nowhere", "--token-file", "/nonexistent/token", "5ecret"},
     USAGE,
     "argument 6 has no place in serve"},
    {{"list", "--json=no"}, USAGE, "--json takes no value"},
    {{"--quiet=no", "list"}, USAGE, "--quiet takes no value"},
    {{"list", "--json", "--brief"}, USAGE, "--json and --brief exclude each other"},
    // Numbers and words.
    {{"bench", version, "--count", "ten"},
     USAGE,
     "--count: takes a whole number from 1 to 1000000000000, also with K, M or G as in 10K (powers "
     "of 1000)"},
    {{"bench", version, "--count", "0"},
     USAGE,
     "--count: takes a whole number from 1 to 1000000000000, also with K, M or G as in 10K (powers "
     "of 1000)"},
    {{"bench", version, "--count", "1", "--seconds", "1"},
     USAGE,
     "--seconds and --count exclude each other"},
    {{"serve", "--body-bytes", "16MB"},
     USAGE,
     "--body-bytes: takes a whole number from 1 to 268435456, also with K, M or G as in 16M "
     "(powers "
     "of 1024)"},
    {{"serve", "--workers", "2K"}, USAGE, "--workers: takes a whole number from 1 to 256"},
    {{"serve", "--front-threads", "1.5"},
     USAGE,
     "--front-threads: takes a whole number from 1 to 64"},
    {{"bench", version, "--seconds", "1.2.3"},
     USAGE,
     "--seconds: takes a number from 0.01 to 86400"},
    {{"serve", "--listen-mode", "98"}, USAGE, "--listen-mode: takes a mode such as 0660"},
    {{"serve", "--plugin-log", "warn"},
     USAGE,
     "--plugin-log: takes crit, err, warning, notice, info or debug"},
    {{"serve", "--plugin-log", "warnin"},
     USAGE,
     "--plugin-log: takes crit, err, warning, notice, info or debug; did you mean warning?"},
    // Parameters.
    {{"call", hmac, "strHashAlg=4", "strKey=5ecret", "5ecret"},
     USAGE,
     "parameter 3 is not written name=value; a value with blanks has quotes around it"},
    {{"call", hmac, "strKey", "=", "5ecret"},
     USAGE,
     "parameter 1 is not written name=value: strKey has neither \"=\" nor a value; there is no "
     "blank "
     "around \"=\""},
    {{"call", hmac, "strKey=5ecret", "strKey=5ecret"}, USAGE, "strKey is given twice"},
    {{"call", hmac, "strHashAlg=4", "strKey=@/nonexistent/key"},
     USAGE,
     "strKey: cannot read /nonexistent/key: No such file or directory"},
    {{"call", hmac, "--params-file", "/nonexistent/file"},
     USAGE,
     "cannot read /nonexistent/file: No such file or directory"},
    {{"call", hmac, "--params-file", "/"}, USAGE, "cannot read /: Is a directory"},
    {{"call", hmac, "strHashAlg=4", "strKey=hex:5ecret"},
     USAGE,
     "strKey: hex: takes pairs of hex digits"},
    // All of them.
    {{"call", hmac, "strHashAlg=4", "strKey=$5ecret", "strdata=hex:5ecret"},
     USAGE,
     "strKey is not Base64 (URL-safe): write text:TEXT, hex:DIGITS or b64:@FILE, or raw: to send "
     "it "
     "as it is\ncorvane-host: strdata: hex: takes pairs of hex digits"},
    // Results.
    {{"call", hmac, "--raw", "gcmOutTag"},
     USAGE,
     "QZaven_crypto_hmac has no result gcmOutTag; it has Data, errorCode"},
    {{"call", hmac, "--raw", "Data", "--raw", "errorCode"},
     USAGE,
     "of several results, each but one takes a file: --raw errorCode=FILE"},
    {{"call", hmac, "--raw", "Data=f", "-o", "g"},
     USAGE,
     "-o is for a --raw without a file, or for none"},
    // Before libraries are loaded.
    {{"call", version, "--raw", "nothing", "--engine", "/nonexistent/engine.so"},
     USAGE,
     "QZaVen_GetVersion has no result nothing; it has Data, errorCode"},
    {{"call", version, "5ecret", "--engine", "/nonexistent/engine.so"},
     USAGE,
     "parameter 1 is not written name=value; a value with blanks has quotes around it"},
    {{"bench", version, "5ecret", "--engine", "/nonexistent/engine.so"},
     USAGE,
     "parameter 1 is not written name=value; a value with blanks has quotes around it"},
    // Codes.
    {{"explain", "bussy"}, USAGE, "there is no code bussy; did you mean busy?"},
    {{"explain", "xyz"}, USAGE, "there is no code xyz; `corvane-host explain` lists all"},
    {{"explain", "-1..-3"},
     USAGE,
     "there is no code from -1 to -3; `corvane-host explain` lists all"},
    {{"explain", "418"}, USAGE, "418 is no HTTP status that `corvane-host serve` answers with"},
    {{"completion", "tcsh"},
     USAGE,
     "there is no completion for tcsh; the shells are bash, zsh and fish"},
    // Scripts and libraries.
    {{"script", "/nonexistent/script"},
     USAGE,
     "cannot read /nonexistent/script: No such file or directory"},
    {{"--engine", "/nonexistent/engine.so", "call", version},
     LOADING,
     "cannot load a library: /nonexistent/engine.so: No such file or directory; check the path and "
     "the permissions of file and folders"},
    {{"serve", "--engine", "/"},
     LOADING,
     "cannot load a library: / is a folder or device, not a file; give the library's file"},
};

TEST_F(Mistakes, OfCommandLinesAreNamed)
{
    for (const Mistake& row : commandLines) {
        const Ended ended = run(row.arguments);
        EXPECT_EQ(row.code, ended.code) << row.message;
        EXPECT_EQ("", ended.out) << row.message;
        EXPECT_TRUE(holds("\n" + ended.err, "\ncorvane-host: " + row.message + "\n"))
            << row.message << "\n"
            << ended.err;
        EXPECT_FALSE(holds(ended.err, "5ecret")) << ended.err;
    }
}

TEST_F(Mistakes, OfCommandLinesLeadToTheirHelp)
{
    EXPECT_TRUE(holds(run({"cal"}).err, "\ncorvane-host: see corvane-host --help\n"));
    EXPECT_TRUE(holds(run({"list", "-x"}).err, "\ncorvane-host: see corvane-host list --help\n"));
    EXPECT_EQ(0U, run({}).err.find(run({"--help"}).out));
    EXPECT_EQ(
        "\033[1;31mcorvane-host:\033[0m there is no option --hexx; did you mean --help?\n"
        "corvane-host: see corvane-host list --help\n",
        run({"--color", "always", "list", "--hexx"}).err);
}

struct WrongScript {
    std::string text;
    std::string message;  // behind the file's name and a colon
};

const WrongScript scripts[] = {
    {"[{\"request\": \"QZaVen_GetVersion\"},\n {\"request\": 5ecret}]",
     "2:16: not JSON: invalid number; expected '+', '-', or digit after exponent"},
    {"[\n  {\"request\": \"QZaVen_GetVersion\"",
     "2:34: not JSON: unexpected end of input; expected '}'"},
    {"{\"request\": \"QZaVen_GetVersion\"}\n{\"request\": \"5ecret}\n", "2:21: not JSON: "},
    {"[{\"request\": \"QZaVen_GetVersion\"},\n\n  {\"request\": \"QZaven_hmac\"}]",
     "3:3: step 2: there is no request QZaven_hmac; did you mean QZaven_ke_hmac?"},
    {"{\"request\": \"QZaVen_GetVersion\"}\n\n {\"id\": \"x\", \"requst\": \"5ecret\"}",
     "3:2: step 2: member \"requst\" is unknown or of the wrong kind; a step has \"id\", "
     "\"request\", \"params\", \"title\" and \"allowFailure\""},
    {"[{\"id\": \"key\", \"request\": \"QZaVen_GetVersion\"},\n"
     "{\"id\": \"b\", \"request\": \"QZaVen_strerror\", \"params\": {\"strErr\": "
     "\"${kay.Data}\"}}]",
     "2:1: step 2 (b): strErr: ${kay.Data}: there is no earlier step kay; did you mean key?"},
    {"[{\"id\": \"key\", \"request\": \"QZaVen_GetVersion\"},\n"
     "{\"request\": \"QZaVen_strerror\", \"params\": {\"strErr\": \"b64:${key.data}\"}}]",
     "2:1: step 2: strErr: ${key.data}: QZaVen_GetVersion of step key has no result data; did you "
     "mean Data?"},
    {"[{\"request\": \"QZaVen_GetVersion\"},\n]", "2:1: not JSON: a comma too many before it"},
    {"{\"request\": \"QZaVen_GetVersion\" , }", "1:35: not JSON: a comma too many before it"},
    {"[{\"request\": \"QZaVen_strerror\",\n  \"params\": {\"strErr\": \"5ecret\\\"\",\n"
     "    \"strErr\" : \"5ecret\"}}]",
     "3:5: strErr is given twice"},
    {R"([{"request": "x", "\\": 1,)"
     "\n"
     R"(   "\\": 2}])",
     "2:4: \\ is given twice"},
    {R"([{"request": "x", "a\"\\\"": 1, "a\"\\\"": 2}])", "1:33: a\"\\\" is given twice"},
    {"[{\"request\": \"QZaVen_strerror\",\n  \"params\": {\"strErr\": -1e999}}]",
     "2:24: a number is out of range"},
    {"{\"request\": \"QZaVen_GetVersion\"}\n{\"request\": \"QZaVen_strerror\", \"request\": 1}",
     "2:32: request is given twice"},
    {"{\"request\": \"QZaVen_GetVersion\"}\n"
     "{\"request\": \"QZaven_crypto_hmac\", \"params\": {\"strKey\": \"5ecret!\", \"strdata\": "
     "\"hex:5ecret\"}}",
     "2:1: step 2: strKey is not Base64 (URL-safe): write text:TEXT"},
    {"{\"request\": \"QZaVen_GetVersion\"}\n"
     "{\"request\": \"QZaven_crypto_hmac\", \"params\": {\"strKey\": \"5ecret!\", \"strdata\": "
     "\"hex:5ecret\"}}",
     "2:1: step 2: strdata: hex: takes pairs of hex digits"},
    {"[{\"request\": \"QZaVen_strerror\", \"params\": {\"strErr\": \"${5ecret 5ecret}\"}}]",
     "1:2: step 1: strErr: a reference is written ${ID.RESULT}, and a plain ${ is written $${"},
};

// Before anything is sent.
TEST_F(Mistakes, OfScriptsAreFoundAtTheirPlaces)
{
    for (const WrongScript& row : scripts) {
        const Ended ended = script(row.text);
        EXPECT_EQ(USAGE, ended.code) << row.message;
        EXPECT_EQ("", ended.out) << row.message;
        EXPECT_TRUE(holds(ended.err, path("script") + ":" + row.message)) << row.message << "\n"
                                                                          << ended.err;
        EXPECT_FALSE(holds(ended.err, "5ecret")) << ended.err;
    }
}

TEST_F(Mistakes, OfAConversationAreFoundAtTheirLines)
{
    const Ended ended =
        lines("{\"request\": \"QZaVen_GetVersion\"}\n\n{\"request\": \"QZaven_hmac\"}\n");
    EXPECT_EQ(USAGE, ended.code);
    EXPECT_NE("", ended.out);
    EXPECT_TRUE(holds(ended.err, "standard input:3:1: step 2: there is no request")) << ended.err;
    EXPECT_TRUE(holds(lines("\n\n [{}, \n5ecret]").err, "standard input:4:3: not JSON: "));
}

TEST_F(Mistakes, OfParameterFilesAreFoundAtTheirPlaces)
{
    const std::string params = file("params", "{\"strErr\":\n 5ecret}");
    const Ended ended = call({"QZaVen_strerror", "--params-file", params});
    EXPECT_EQ(USAGE, ended.code);
    EXPECT_TRUE(holds(ended.err, params + ":2:4: not JSON: ")) << ended.err;
    EXPECT_FALSE(holds(ended.err, "5ecret")) << ended.err;

    file("params", "{\"strErr\": \"1\",\n \"strErr\": \"2\"}");
    const Ended twice = call({"QZaVen_strerror", "--params-file", params});
    EXPECT_TRUE(holds(twice.err, params + ":2:2: strErr is given twice")) << twice.err;
}

TEST_F(Mistakes, OfAStepsParametersAreWarnedOfWithTheStep)
{
    const Ended ended = script(R"([{"request": "QZaVen_GetVersion"},
                   {"id": "e", "request": "QZaVen_strerror", "params": {"strEr": "5ecret"}}])");
    EXPECT_TRUE(
        holds(ended.err, "warning: " + path("script") +
                             ":2:20: step 2 (e): QZaVen_strerror: strEr is not a parameter"))
        << ended.err;
    EXPECT_TRUE(holds(ended.err, "2:20: step 2 (e): QZaVen_strerror failed")) << ended.err;
}

TEST_F(Mistakes, AFileOfBytesIsAdvisedFirst)
{
    const Ended ended =
        call({hmac, "strHashAlg=4", "strKey=AAAA", "strdata=@" + file("bytes", "\xFF\1\2")});
    EXPECT_EQ(USAGE, ended.code);
    EXPECT_TRUE(holds(ended.err, "strdata is not Base64 (URL-safe): write b64:@FILE for a file's"))
        << ended.err;
}

TEST_F(Mistakes, OfRequestsAreFollowedByWhatToDo)
{
    const Arguments wrong = {"call", "QZaven_crypto_gen_symmkey", "strCipherAlg=8"};
    const Ended ended = run(wrong);
    const Json row = run({"explain", "-20084", "--json"}).json();
    EXPECT_TRUE(holds(ended.err, "corvane-host: what to do: " + row["remedy"].get<std::string>() +
                                     "; more: corvane-host explain -20084\n"))
        << ended.err;
    Arguments quiet = wrong;
    quiet.insert(quiet.begin(), "--quiet");
    const std::string errors = run(quiet).err;
    EXPECT_TRUE(holds(errors, "what to do")) << errors;
    EXPECT_TRUE(holds(errors, "failed with -20084")) << errors;
}

// Of another engine's codes nothing is known.
TEST_F(Mistakes, OfUnknownCodesHaveNoAdvice)
{
    setenv("CORVANE_ENGINE_FAULTS", "aven_crypto_gen_symmkey:*=-4711", 1);
    const Ended ended = run({"call", "QZaven_crypto_gen_symmkey", "strCipherAlg=1"});
    unsetenv("CORVANE_ENGINE_FAULTS");
    EXPECT_TRUE(holds(ended.err, "failed with -4711")) << ended.err;
    EXPECT_FALSE(holds(ended.err, "what to do")) << ended.err;
}

// Of a help, which is written while a command line is read.
TEST_F(Mistakes, AnOutputThatIsFullIsASentence)
{
    const std::string command = "'" + hostProgram + "' --help >/dev/full 2>'" + path("err") + "'";
    EXPECT_EQ(USAGE << 8, system(command.c_str()));
    EXPECT_EQ("corvane-host: cannot write to standard output: No space left on device\n",
              readWhole(path("err")));
}

TEST_F(Mistakes, AFileThatIsTooLargeForTheMemoryIsASentence)
{
    if (emulated || sanitized)
        GTEST_SKIP() << "NOT TESTED: the program takes more address space than the limit";
    fs::resize_file(file("large", ""), 400'000'000);
    const std::string command = "ulimit -v 300000; '" + hostProgram + "' call " + hmac +
                                " strHashAlg=4 strKey=AAAA strdata=b64:@'" + path("large") +
                                "' >'" + path("out") + "' 2>'" + path("err") + "'";
    EXPECT_EQ(USAGE << 8, system(command.c_str()));
    EXPECT_TRUE(holds(readWhole(path("err")), "corvane-host: not enough memory: "))
        << readWhole(path("err"));
}

}  // namespace
