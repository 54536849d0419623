// Command lines of corvane-host, completed by the shells themselves.
#include <algorithm>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "support/host_program.h"

namespace {

using namespace support;
using Words = std::vector<std::string>;

Words wordsOf(const std::string& text)
{
    std::istringstream stream(text);
    Words words;
    for (std::string word; stream >> word;)
        words.push_back(word);
    return words;
}

// What a shell is given to run: $1 is the script that `corvane-host completion` printed, $2 the
// line as far as it is typed. It writes the words that it offers, and finds corvane-host in PATH.
struct Shell {
    const char* name;
    const char* start;
    const char* program;
    bool keepsOrder;
    bool repeatsNames;  // a value is offered as name=value

    friend std::ostream& operator<<(std::ostream& out, const Shell& shell)
    {
        return out << shell.name;
    }
};

const Shell bash = {"bash", "bash --norc -eu", R"sh(
. "$1"
COMP_LINE=$2 COMP_POINT=${#2}
_corvane_host corvane-host
printf '%s\n' "${COMPREPLY[@]}"
)sh",
                    true, false};

// An interactive zsh of its own, to which the line and a tab are typed.
const Shell zsh = {"zsh", "zsh -f", R"sh(
zmodload zsh/zpty
zpty -b inner zsh -f -i
zpty -w inner 'PS1= PS2=; unsetopt prompt_cr prompt_sp; zle_bracketed_paste=()'
zpty -w inner 'autoload -Uz compinit; compinit -D -u'
zpty -w inner "source ${(q)1}"
zpty -w inner 'compadd() {
    local -a hits
    builtin compadd -A hits "$@"
    (( ! $#hits )) || print -rl -- $hits
}
_files() { }
offered() { print -r -- "<""<<"; _main_complete; print -r -- ">"">>"; compstate[list]= compstate[insert]= }
zle -C offered complete-word offered; bindkey "^I" offered; print "READ""Y"'
zpty -r inner out '*READY*'
zpty -w -n inner "$2"$'\t'
zpty -r inner out '*>>>*'
print -r -- $out | tr -d '\r' | sed '1,/<<<$/d; />>>/,$d'
)sh",
                   true, false};

const Shell fish = {"fish", "fish --no-config", R"sh(
source $argv[1]
complete -C $argv[2]
)sh",
                    false, true};

class Completion : public Host, public testing::WithParamInterface<Shell> {
protected:
    // The words that the shell offers for the end of the line. In an empty folder, so that none of
    // them is a file's name.
    Words complete(const std::string& line) const
    {
        const std::string script =
            file("corvane-host.script", run({"completion", GetParam().name}).out);
        const std::string driver = file("driver", GetParam().program);
        const fs::path programs = fs::path(hostProgram).parent_path();
        fs::create_directory(path("empty"));
        const std::string command = "cd '" + path("empty") + "' && HOME=$PWD PATH='" +
                                    programs.string() + "':$PATH TERM=dumb " + GetParam().start +
                                    " '" + driver + "' '" + script + "' '" + line + "' >'" +
                                    path("offered") + "'";
        EXPECT_EQ(0, system(command.c_str())) << line;
        return wordsOf(readWhole(path("offered")));
    }

    void expect(const std::string& line, const std::string& words, const std::string& name = "")
    {
        Words expected = wordsOf(words);
        Words offered = complete(line);
        if (GetParam().repeatsNames)
            for (std::string& word : expected)
                word.insert(0, name);
        if (!GetParam().keepsOrder) {
            std::sort(expected.begin(), expected.end());
            std::sort(offered.begin(), offered.end());
        }
        EXPECT_EQ(expected, offered) << line;
    }
};

TEST_P(Completion, FollowsTheLine)
{
    expect("corvane-host de", "describe");
    expect("corvane-host call QZaven_wb", "QZaven_wbsm4_encrypt QZaven_wbsm4_decrypt");
    expect("corvane-host --plugin call describe QZaven_crypto_k", "QZaven_crypto_kdf");
    expect("corvane-host call QZaven_crypto_hmac ", "strHashAlg= strKey= strdata=");
    expect("corvane-host list --", "--help --json --brief --markdown");
    expect("corvane-host -", "--help --version --plugin --params --engine --names --quiet --color");
    expect("corvane-host help exp", "explain");
    expect("corvane-host --color always describe QZaven_crypto_k", "QZaven_crypto_kdf");
    expect("corvane-host explain bu", "busy");
    expect("corvane-host explain -202", "-20215 -20216");
    expect("corvane-host completion ", "bash zsh fish");
    expect("corvane-host list ", "");
    expect("corvane-host nothing QZaven_wb", "");
}

TEST_P(Completion, OffersTheFewValuesOfAParameter)
{
    const std::string encrypt = "corvane-host call QZaven_crypto_public_encrypt strKeyPairType=";
    expect(encrypt, "sm2 rsa", "strKeyPairType=");
    expect(encrypt + "r", "rsa", "strKeyPairType=");
    expect("corvane-host bench QZaven_crypto_encrypt strMode=", "ecb cbc cfb ofb ctr gcm",
           "strMode=");
    if (GetParam().name != std::string("fish"))  // which offers the name itself
        expect("corvane-host call QZaven_crypto_hmac strKey=", "");
}

TEST_P(Completion, OffersEverySubcommand)
{
    const std::string help = run({"--help"}).out;
    const Words offered = complete("corvane-host ");
    for (const std::string& name : offered)
        EXPECT_TRUE(holds(help, "\n  " + name + " ")) << name << "\n" << help;
    EXPECT_GE(offered.size(), 7U);
}

TEST_P(Completion, OffersEveryRequest)
{
    expect("corvane-host call QZ", run({"list", "--brief"}).out);
}

INSTANTIATE_TEST_SUITE_P(Of, Completion, testing::Values(bash, zsh, fish),
                         [](const auto& shell) { return std::string(shell.param.name); });

using CompletionScript = Host;

TEST_F(CompletionScript, IsForBashUnlessAnotherShellIsNamed)
{
    EXPECT_EQ(run({"completion", "bash"}).out, run({"completion"}).out);
    EXPECT_NE(run({"completion", "zsh"}).out, run({"completion", "fish"}).out);
}

TEST_F(CompletionScript, OfAnotherShellIsAWrongCommandLine)
{
    const Ended ended = run({"completion", "tcsh"});
    EXPECT_EQ(USAGE, ended.code);
    EXPECT_EQ("", ended.out);
    EXPECT_TRUE(holds(ended.err, "tcsh")) << ended.err;
}

// The file that an installation has for zsh is loaded by its name, without being sourced.
TEST_F(CompletionScript, OfZshIsLoadedFromAFolder)
{
    fs::create_directory(path("site-functions"));
    file("site-functions/_corvane-host", run({"completion", "zsh"}).out);
    const std::string command = "cd '" + path("site-functions") +
                                "' && HOME=$PWD zsh -f -c 'fpath=($PWD $fpath)\n"
                                "autoload -Uz compinit; compinit -D -u\n"
                                "print -r -- $_comps[corvane-host]' >'" +
                                path("shown") + "'";
    EXPECT_EQ(0, system(command.c_str()));
    EXPECT_EQ("_corvane-host\n", readWhole(path("shown")));
}

}  // namespace
