// What --help and `help` print.
#ifndef CORVANE_HOST_COMMANDS_HELP_H
#define CORVANE_HOST_COMMANDS_HELP_H

#include <CLI/CLI.hpp>
#include <memory>
#include <string>

// For the subcommands that send requests.
constexpr const char* valueForms =
    R"(Values of parameters:
  text:TEXT     a text            as the parameter takes bytes: as URL-safe
  hex:DIGITS    bytes             Base64, or as they are
  b64:TEXT      URL-safe Base64 of a text, of a file by b64:@FILE, of standard
                input by b64:@-
  TEXT, @FILE   as they are; refused where Base64 is due and they are none, but
                @key.pem is encoded where a key or certificate is due
  raw:TEXT      as it is, whatever it is and whatever is due; raw:@FILE likewise
)";

// Lines of at most 80 columns.
std::shared_ptr<CLI::Formatter> helpFormatter();

// The help of the program, or of one of its subcommands.
std::string helpOf(const CLI::App& app);

// How an argument without a name is called: "REQUEST", "NAME=VALUE".
std::string argumentName(const CLI::Option& option);

#endif
