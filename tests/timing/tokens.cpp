// What clients show: the bearer token, and the token of a session.

#include "service/operation/bearer_tokens.h"
#include "service/operation/nodes.h"
#include "service/requests/sessions.h"
#include "support/files.h"
#include "timing/toolbox.h"

namespace timing {

namespace {

// Characters of a token only, so that no comparison differs in what else they are.
char otherLetter(char letter, Random& random)
{
    for (;;) {
        const char other = static_cast<char>('a' + random() % 26);
        if (other != letter)
            return other;
    }
}

std::string randomLetters(size_t size, Random& random)
{
    std::string letters;
    while (letters.size() < size)
        letters += otherLetter('\0', random);
    return letters;
}

struct Tokens {
    support::TemporaryFolder folder;
    std::string first;
    std::string second;
    std::unique_ptr<BearerTokens> tokens;

    explicit Tokens(Random& random) : first(randomLetters(43, random)), second(first)
    {
        second = randomLetters(43, random);
        tokens = std::make_unique<BearerTokens>(
            std::vector<std::string>{write("first", first), write("second", second)});
    }

    std::string write(const char* name, const std::string& token) const
    {
        const std::string path = folder.write(name, token + "\n");
        std::filesystem::permissions(path, std::filesystem::perms::owner_read);
        return path;
    }
};

using MakeToken = std::function<std::string(unsigned kind)>;

void addToken(std::vector<Comparison>& all, const std::shared_ptr<Tokens>& tokens,
              const char* kinds, int expected, const MakeToken& make)
{
    const auto shown = std::make_shared<Inputs>(make);
    Comparison made =
        compare("bearer token", kinds, expected, shown, [](const Inputs&) { return 0; });
    // The header is a string of its own before the time is taken.
    const auto header = std::make_shared<std::string>();
    made.choose = [shown, header](unsigned kind, Random& from) {
        shown->choose(kind, from);
        header->assign("Bearer ");
        header->append(reinterpret_cast<const char*>(shown->data()), shown->size());
    };
    made.work = [tokens, header] { return tokens->tokens->isShownBy(*header) ? 1 : 0; };
    all.push_back(made);
}

// Tokens of live sessions, altered anew for each call: where a token lies in the table depends on
// all of its characters, so that a few fixed ones would differ by their places.
struct LiveSessions {
    using Token = decltype(makeSessionToken(""));
    static constexpr size_t ALTERED = 4;
    Sessions sessions{1, 1024};
    std::vector<Token> tokens;
    Token shown;

    explicit LiveSessions(size_t count)
    {
        while (tokens.size() < count) {
            tokens.push_back(makeSessionToken(""));
            sessions.reserve({})->add(tokens.back());
        }
    }

    void choose(unsigned kind, Random& random)
    {
        const Token& token = tokens[random() % tokens.size()];
        Token altered[2] = {token, token};
        const size_t start = token.find('_') + 1;
        for (size_t i = 0; i < ALTERED; ++i) {
            for (char* letter : {&altered[0][start + i], &altered[1][token.size() - 1 - i]})
                *letter = otherLetter(*letter, random);
        }
        shown.resize(token.size());
        select(kind, altered[0], altered[1], reinterpret_cast<unsigned char*>(shown.data()));
    }
};

// A table may look at a few in turn, and for many go by their places.
void addSessions(std::vector<Comparison>& all, const char* what, size_t count)
{
    const auto live = std::make_shared<LiveSessions>(count);
    Comparison lookup;
    lookup.what = what;
    lookup.kinds = "first four characters wrong or last";
    lookup.cost = Cost::Microseconds;
    lookup.mustLeak = false;
    lookup.choose = [live](unsigned kind, Random& random) { live->choose(kind, random); };
    lookup.work = [live] { return live->sessions.find(live->shown) != nullptr ? 1 : 0; };
    lookup.expected = 0;
    all.push_back(lookup);
}

}  // namespace

void addTokens(std::vector<Comparison>& all, Random& random)
{
    const auto tokens = std::make_shared<Tokens>(random);
    const std::string right = tokens->first;
    addToken(all, tokens, "first character wrong or last", 0, [&](unsigned kind) {
        std::string token = right;
        char& letter = kind == 0 ? token.front() : token.back();
        letter = otherLetter(letter, random);
        return token;
    });
    addToken(all, tokens, "all characters wrong or last", 0, [&](unsigned kind) {
        std::string token = right;
        for (char& letter : token)
            letter = kind == 0 || &letter == &token.back() ? otherLetter(letter, random) : letter;
        return token;
    });
    addToken(all, tokens, "too short: a right start or not", 0, [&](unsigned kind) {
        std::string token = right.substr(0, right.size() - 1);
        for (char& letter : token)
            letter = kind == 0 ? otherLetter(letter, random) : letter;
        return token;
    });
    addToken(all, tokens, "too long: a right start or not", 0, [&](unsigned kind) {
        std::string token = right + randomLetters(1, random);
        for (char& letter : token)
            letter = kind == 0 ? otherLetter(letter, random) : letter;
        return token;
    });
    addToken(all, tokens, "right, of one file or the other", 1,
             [&](unsigned kind) { return kind == 0 ? tokens->first : tokens->second; });

    addSessions(all, "token of one of 8 sessions", 8);
    addSessions(all, "token of one of 1000 sessions", 1000);
}

}  // namespace timing
