// The libraries and programs that ship, as they were built.
#ifndef CORVANE_TESTS_SHIPPED_FILES_H
#define CORVANE_TESTS_SHIPPED_FILES_H

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "shell.h"

namespace support {

// As the documents name it.
#if defined(__aarch64__)
constexpr const char* processor = "64-bit ARM";
constexpr const char* systemFolder = "aarch64-linux-gnu";
#else
constexpr const char* processor = "x86-64";
constexpr const char* systemFolder = "x86_64-linux-gnu";
#endif

// Why the built files are not those that ship; null if they are.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr const char* otherBuild = "NOT TESTED: sanitizers bring libraries of their own";
#elif defined(__clang__)
constexpr const char* otherBuild = "NOT TESTED: what ships is built by GCC";
#else
constexpr const char* otherBuild = nullptr;
#endif

// All files in the folders that an installation takes programs and libraries from, by name.
inline std::map<std::string, std::filesystem::path> shippedFiles()
{
    namespace fs = std::filesystem;
    std::map<std::string, fs::path> files;
    for (const fs::path& folder :
         {fs::path(CORVANE_BUILD_DIR "/bin"), fs::path(CORVANE_PLUGIN_LIBRARY).parent_path()})
        for (const auto& entry : fs::recursive_directory_iterator(folder))
            if (entry.is_regular_file())
                files[entry.path().filename()] = entry.path();
    EXPECT_EQ(5U, files.size());
    return files;
}

// What readelf says of a file, line by line.
inline std::vector<std::string> readElf(const std::string& option, const std::string& file)
{
    const ShellOutcome ended = shell(CORVANE_TOOLCHAIN "readelf -W " + option + " '" + file + "'");
    EXPECT_EQ(0, ended.status) << ended.output;
    std::vector<std::string> lines;
    std::istringstream stream(ended.output);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

// The libraries that a file names for the loader: "(NEEDED)  Shared library: [libc.so.6]".
inline std::set<std::string> neededBy(const std::string& file)
{
    std::set<std::string> names;
    for (const std::string& line : readElf("-d", file))
        if (line.find("(NEEDED)") != std::string::npos)
            names.insert(line.substr(line.find('[') + 1, line.find(']') - line.find('[') - 1));
    return names;
}

}  // namespace support

#endif
