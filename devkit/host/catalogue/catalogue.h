// The catalogue: every request that the plug-in serves, with its parameters, results and
// codes. Lists, help, documents, forms, parameter checks and the decoding of results come
// from it; error_codes.h has the codes' texts.
#ifndef CORVANE_HOST_CATALOGUE_CATALOGUE_H
#define CORVANE_HOST_CATALOGUE_CATALOGUE_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/pairs.h"

// What the bytes of a value mean.
enum class Form {
    Text,        // as they are
    Handle,      // the decimal text of a key-exchange session, good in one process only
    Path,        // a file or folder of the host
    Base64,      // URL-safe Base64 of bytes
    Base64Text,  // the same, which the engine receives as text
    KeyText,     // Base64 of a key or certificate, which the engine receives as text
    Escaped,     // bytes, percent-escaped twice
};

// Whether bytes are Base64 on their way.
bool isBase64(Form form);

// How many bytes a text of such a form stands for; nothing if it is no Base64 to whoever
// decodes it. The plug-in's decoder stops at the first character that is none: of line ends
// it takes those at the end. Engines take them everywhere.
std::optional<size_t> base64Size(Form form, std::string_view text);

// How a value was given.
enum class Given {
    Plain,  // text, sent as it is; where Base64 is due it must be that
    Text,   // a text, whose bytes are sent as the parameter takes bytes
    Bytes,  // bytes, likewise
    Raw,    // sent as it is, whatever the parameter takes
};

// Whether a value is sent as Base64 of what was given.
bool isEncoded(Form form, Given given);
// Whether a value must be refused. An empty one is not given.
bool isMisencoded(Form form, Given given, std::string_view value);
constexpr const char* notBase64 = "is not Base64 (URL-safe)";

// When a parameter must be given. One given empty counts as not given.
// Outside of mode 6, InMode6 and MayInMode6 are of no use.
enum class Need { Always, Never, UnlessMode1, InMode6, MayInMode6 };

// The values that a parameter may have.
struct Allowed {
    enum Kind {
        Any,
        Range,
        OneOf,
        Size,
        CipherKey,           // the size that the chosen cipher needs
        ModeIv,              // or that cipher and mode need
        BlocksUnlessPadded,  // whole blocks of the cipher, if the mode has no others
        Blocks,              // the same, padded or not
        OneLine,             // a line end at its end was hardly meant
    } kind;
    int low;                  // Range: a leading number counts, text behind it does not
    int high;                 //
    const char* digits;       // OneOf: exactly one of these digits
    size_t size;              // Size: of the decoded bytes
    bool isOftenHex = false;  // a key, an initial value or a tag, which people have as hex digits
};

// The sizes in bytes of the initial value that a mode takes.
struct IvSizes {
    enum Kind { None, Block, Between } kind;
    size_t least;  // Between
    size_t most;   //
    size_t usual;  //
};

// What the engine takes a value for: the development engine, unless useNames (names.h) says
// otherwise. Another engine may number otherwise.
struct Choice {
    std::string value;
    std::string text;
    std::vector<std::string>
        names;              // that may be written for the value; the first is the one shown
    size_t keyBytes = 0;    // of a cipher, else 0
    size_t blockBytes = 0;  //
    std::optional<IvSizes> iv = {};  // of a mode
    const char* lackedModes = "";    // of a cipher: the digits of those that it does not have
    bool takesWholeBlocks = false;   // of a mode
};
using Choices = std::vector<Choice>;

struct Parameter {
    const char* name;
    Form form;
    Need need;
    Allowed allowed;
    const char* ifAbsent;  // the value that an absent parameter stands for, or ""
    const char* meaning;
    Choices choices = {};
};

// Whether a value is to be kept out of what people see by the way: all but numbers and
// paths may hold keys or plaintext.
bool isSecret(const Parameter& parameter);

struct Result {
    const char* name;
    Form form;
    const char* meaning;
};

// A call whose answer is known, with the development engine's numbers.
struct Sample {
    Pairs parameters;
    const char* data;    // what "Data" is then
    const char* source;  // who says so
};

// What comes of sending a request again when its answer was lost.
enum class Retry { Safe, LeavesASession, Once, No };

struct RequestInfo {
    const char* name;
    const char* group;
    const char* summary;
    const char* keywords;               // by which people search who do not know its name
    std::vector<Parameter> parameters;  // in the order in which the plug-in reads them
    std::vector<Result> results;        // in the order in which it writes them
    std::vector<int> codes;             // its own that it may write; the engine's come on top
    std::optional<Sample> sample = {};  // of those whose answers are the same each time
    Retry inSession = Retry::No;        // of those that take a session
};

// All requests, in the order of their function IDs, 0 to 26.
const std::vector<RequestInfo>& catalogue();

const RequestInfo* findRequest(const std::string& name);
const Result* findResult(const RequestInfo& request, const std::string& name);

// The one of the known names, of which there are some, that is nearest to a mistyped one. Takes
// time by the product of the names' lengths.
std::string nearestName(const std::vector<std::string>& known, const std::string& name);
// The one of the known names that was most likely meant, or "" if none is near.
std::string nearName(const std::vector<std::string>& known, const std::string& name);
// The nearest of the requests' names.
std::string nearestRequest(const std::string& name);

// The requests that were most likely meant by a name that is none's: those that end so, as
// QZaven_crypto_hmac and QZaven_ke_hmac by "hmac", else the one that is near. Maybe none.
std::vector<std::string> likelyRequests(const std::string& name);

const Parameter* findParameter(const RequestInfo& request, const std::string& name);

// Whether a request belongs to a key-exchange session.
bool takesSession(const RequestInfo& request);

Retry retryOf(const RequestInfo& request);

// How programs know a kind, and what it means, as a sentence without its period.
struct RetryKind {
    Retry retry;
    const char* name;
    const char* text;
};
const std::vector<RetryKind>& retryKinds();
const RetryKind& kindOf(Retry retry);

// A parameter's form; text if the request, which may be null, does not know it.
Form formOf(const RequestInfo* request, const std::string& name);

// Whether the results tell of success.
bool succeeded(const RequestInfo* request, const Pairs& results);

// How forms, needs and sets are called.
const char* formName(Form form);
const char* needText(Need need);
std::string allowedText(const Allowed& allowed);  // "" if any

#endif
