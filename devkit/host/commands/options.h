// Options that several subcommands have, and checks of options' values. Each check refuses
// with a sentence that follows the option's name.
#ifndef CORVANE_HOST_COMMANDS_OPTIONS_H
#define CORVANE_HOST_COMMANDS_OPTIONS_H

#include <CLI/CLI.hpp>
#include <cstdint>
#include <string>
#include <vector>

#include "host/parameters.h"

// Numbers as people write them.
struct NumberKind {
    enum Unit {
        Plain,
        Counts,  // K is 1000, M and G the next powers of it
        Bytes,   // K or KiB is 1024, M, MiB, G and GiB the next powers of it
    } unit;
    double low;
    double high;
    bool isWhole;
};

// The text with the range, "1 to 256", before what follows a semicolon.
std::string withRange(const std::string& text, const NumberKind& kind);

// Replaces what is written by plain digits, for --count 10K and --count 010, which is ten. No
// number passes that a type could not hold, and neither does NaN.
CLI::Validator numberOf(const NumberKind& kind);

// One of the words.
CLI::Validator oneOf(const std::vector<std::string>& words);

// An empty text is a variable that was not set, rather than a wish to do without.
CLI::Validator notEmpty();

// As chmod takes it, without bits that have no meaning for a socket.
CLI::Validator octalMode();

// An option with a number, whose help tells the range.
template <class Value>
CLI::Option* addNumber(CLI::App& command, const char* name, Value& value, const NumberKind& kind,
                       const std::string& text)
{
    return command.add_option(name, value, withRange(text, kind))
        ->type_name(kind.unit == NumberKind::Bytes ? "SIZE" : "NUMBER")
        ->transform(numberOf(kind));
}

// The argument of a subcommand that is about one request.
void addRequestName(CLI::App& command, std::string& name);

// The options of a subcommand that sends a request. The parameters must outlive it.
void addParameterOptions(CLI::App& command, WrittenParameters& parameters);

#endif
