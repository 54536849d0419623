// What is tested: the build that a test belongs to. A test that is only a client of programs may
// also be another build's, if its environment says where they are and what they are like.
#ifndef CORVANE_TESTS_TESTED_H
#define CORVANE_TESTS_TESTED_H

#include <cstdlib>
#include <string>

namespace support {

// The environment's text of that name, or else the build's own.
inline std::string told(const char* name, const char* own)
{
    const char* text = getenv(name);
    return text == nullptr ? own : text;
}

// The reference libraries, and where programs start that were built beside them.
inline const std::string plugin = told("CORVANE_PLUGIN_LIBRARY", CORVANE_PLUGIN_LIBRARY);
inline const std::string params = told("CORVANE_PARAMS_LIBRARY", CORVANE_PARAMS_LIBRARY);
inline const std::string engine = told("CORVANE_ENGINE_LIBRARY", CORVANE_ENGINE_LIBRARY);
inline const std::string hostProgram = told("CORVANE_HOST_PROGRAM", CORVANE_HOST_PROGRAM);

// A library of the tests that programs load before all others.
inline std::string preloaded(const std::string& name)
{
    return told("CORVANE_PRELOADED_DIR", CORVANE_PRELOADED_DIR) + "/lib" + name + ".so";
}

// Whether an emulator runs it, which makes programs slower and keeps memory of its own.
inline const bool emulated = !told("CORVANE_EMULATOR", CORVANE_EMULATOR).empty();

// Whether memory that was freed is held back for a while.
inline const bool sanitized = !told("CORVANE_SANITIZE", CORVANE_SANITIZE).empty();

}  // namespace support

#endif
