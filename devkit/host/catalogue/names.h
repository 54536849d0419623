// Names for numbers: "aes-256" for 4. Which number means what is the engine's; the contract between
// plug-in and engine has no names.
#ifndef CORVANE_HOST_CATALOGUE_NAMES_H
#define CORVANE_HOST_CATALOGUE_NAMES_H

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "catalogue.h"

// A name as names are compared: small letters, without the characters - _ . / # and blanks.
std::string foldedName(std::string_view name);

// The number that a parameter's value is sent as, if it is plain and one of the parameter's names;
// else null: it is sent as it is. `request` may be null. Whoever takes values from people asks this
// before anything else looks at them: the plug-in would take "3des" for a 3.
const std::string* numberNamed(const RequestInfo* request, const std::string& parameter,
                               Given given, std::string_view value);

// What a value lacks that is neither a number nor one of the parameter's names.
struct NoNumber {
    std::string nearest;  // as nearestChoices() has it; "" if no names are known
    std::string allowed;  // as allowedText() has it
};

// Nothing if a value can be sent, which is as numberNamed() has left it. One that is plain is
// refused where a number is due: of "3des-cbc" the plug-in would take the 3, of "16K" the 16 and of
// "abc" 0. `request` may be null.
std::optional<NoNumber> noNumber(const RequestInfo* request, const std::string& parameter,
                                 Given given, std::string_view value);

// The choice that a number, as the plug-in reads it, stands for; null if there is none.
const Choice* choiceOf(const Parameter& parameter, const std::string& number);

// What was likely meant by a name that is none of the parameter's: all choices that have it in
// their names, as "aes-128, aes-192 or aes-256" for "aes", else the nearest. There must be names.
std::string nearestChoices(const Parameter& parameter, std::string_view name);

// "a", "a or b", "a, b or c".
std::string anyOf(const std::vector<std::string>& names);

// The one of the known parameters that was most likely meant, or "" if none is near.
std::string nearParameter(const std::vector<std::string>& known, const std::string& name);

// "; did you mean NAME?" for the end of a sentence; "" for no name.
std::string didYouMean(const std::string& name);

// How many letters to insert, remove or replace, or neighbours to swap, to turn one name into the
// other, whatever their case. Takes time by the product of their lengths.
size_t editDistance(std::string_view a, std::string_view b);

// Whether all words stand in what is said of the request: its name, summary, group and keywords,
// its parameters' names, and the names of numbers. Compared as names are. A word may be the
// beginning of one that is said, as "SHA 256" and "sha" are of "sha-256", but not its middle: "aes"
// is not in "RSAES". Capitals within a name begin words. Of a word that is said nowhere, as
// "rsa-oaep", the parts must be.
bool isAbout(const RequestInfo& request, const std::vector<std::string>& words);

// The choices that have one of the words in their names, likewise.
Choices choicesAbout(const Parameter& parameter, const std::vector<std::string>& words);

// Whether a text is shaped like the name of a request or a parameter: letters, digits and "_", not
// too many. One that is not may be a secret typed in the wrong place, so it is not repeated.
bool isNameLike(std::string_view text);
// The name for a refusal: itself if it is shaped like one, else "a name".
std::string toldName(const std::string& name);

// Whether some request has a parameter of that name, which is no secret then.
bool isParameterName(const std::string& text);
// The numbers that a parameter of that name takes, with every request that has it; null if it takes
// none, or if there is no such parameter.
const Allowed* numbersOf(const std::string& parameter);

// Replaces all names by these, by parameter. Without them nothing is known of what numbers mean, so
// that neither sizes of keys nor of initial values are due. Changes what catalogue() gives: only to
// be called when the process starts, before there are other threads.
void useNames(const std::map<std::string, Choices>& names);

#endif
