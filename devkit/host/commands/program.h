// What all subcommands share: the program's output, its libraries and its exit code.
#ifndef CORVANE_HOST_COMMANDS_PROGRAM_H
#define CORVANE_HOST_COMMANDS_PROGRAM_H

#include <memory>
#include <string>

#include "host/bare_names.h"
#include "host/catalogue/layout.h"
#include "host/host_session.h"
#include "host/output.h"

enum ExitCode {
    SUCCESS = 0,
    REFUSED = 1,  // by the plug-in or the engine
    USAGE = 2,    // or a file that cannot be read or written
    LOADING = 3,
};

class Program {
public:
    explicit Program(char** argv) : m_argv(argv) {}

    // Loads the chosen libraries. May start the program again, so that standard input
    // must not have been read. Throws a LoadError.
    std::unique_ptr<HostSession> openSession();

    // Starts the program again, so that the libraries answer to their bare names (see
    // bare_names.h). Returns if that has been done.
    void startAgain() { bareNames.startAgain(withDefaults(paths), m_argv, output); }

    // Starts the program again, so that functions are bound when their libraries are loaded, in
    // the processes that it starts as well. Bound at its first call, a function has the loader
    // put the registers on the stack, with what the call before has copied. Returns if that has
    // been done, or in an emulator. Throws a LoadError.
    void bindAtOnce();

    // How the output shows headings.
    Style style() const { return {hasColours(colours, output.descriptor())}; }

    Output output;
    LibraryPaths paths;          // as given
    std::string names = "auto";  // which numbers' names are known; see known_names.h
    Colours colours = Colours::Auto;
    BareNames bareNames;
    ExitCode exitCode = SUCCESS;  // set by the subcommand

private:
    char** m_argv;
};

#endif
