// corvane-host, started and driven as a user does, with the libraries of the build.
#ifndef CORVANE_TESTS_HOST_PROGRAM_H
#define CORVANE_TESTS_HOST_PROGRAM_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "files.h"
#include "tested.h"

namespace support {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;
using Arguments = std::vector<std::string>;

enum ExitCode { SUCCESS = 0, REFUSED = 1, USAGE = 2, LOADING = 3 };

struct Ended {
    int code = -1;
    std::string out;
    std::string err;

    Json json() const { return Json::parse(out); }
};

// Starts the program with the arguments as they are; -1 for a stream leaves it alone.
inline pid_t start(const Arguments& arguments, int in, int out, int err,
                   const std::string& program = hostProgram)
{
    std::vector<char*> argv = {const_cast<char*>(program.c_str())};
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    const std::array<int, 3> streams = {in, out, err};
    for (int i = 0; i < 3; ++i)
        if (streams[static_cast<size_t>(i)] >= 0)
            posix_spawn_file_actions_adddup2(&actions, streams[static_cast<size_t>(i)], i);
    pid_t pid = -1;
    EXPECT_EQ(0, posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ));
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

inline int exitCode(pid_t pid)
{
    int status = 0;
    EXPECT_EQ(pid, waitpid(pid, &status, 0));
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// A test with a folder of its own.
class Host : public testing::Test {
protected:
    std::string path(const std::string& name) const { return m_folder.path(name); }

    std::string file(const std::string& name, const std::string& bytes) const
    {
        return m_folder.write(name, bytes);
    }

    // A copy of a library in which one text stands in place of another of its length.
    std::string patched(const std::string& library, const std::string& from, const std::string& to)
    {
        EXPECT_EQ(from.size(), to.size());
        std::string bytes = readWhole(library);
        size_t found = 0;
        for (size_t at = 0; (at = bytes.find(from, at)) != std::string::npos; ++found)
            bytes.replace(at, to.size(), to);
        EXPECT_GT(found, 0U) << from << " in " << library;
        return file("patched-" + std::to_string(++m_copies) + ".so", bytes);
    }

    Ended run(const Arguments& arguments, const std::string& input = "",
              const std::string& program = hostProgram) const
    {
        const int in = open(file("in", input).c_str(), O_RDONLY | O_CLOEXEC);
        const int out = open(path("out").c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        const int err =
            open(path("err").c_str(), O_RDWR | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0600);
        Ended ended;
        ended.code = exitCode(start(arguments, in, out, err, program));
        for (const int descriptor : {in, out, err})
            close(descriptor);
        ended.out = readWhole(path("out"));
        ended.err = readWhole(path("err"));
        return ended;
    }

    Ended call(Arguments arguments, const std::string& input = "") const
    {
        arguments.insert(arguments.begin(),
                         {"--plugin", plugin, "--params", params, "--engine", engine, "call"});
        return run(arguments, input);
    }

    // What the plug-in received as "strIn": the engine's decoded encoding of it.
    std::string received(const std::string& value, const std::string& input = "") const
    {
        const Ended ended =
            call({"QZaven_crypto_base64_encode", "strIn=" + value, "--raw", "Data"}, input);
        EXPECT_EQ(SUCCESS, ended.code) << ended.err;
        return ended.out;
    }

    Ended script(const std::string& text, Arguments more = {}) const
    {
        more.insert(more.begin(), {"script", file("script", text)});
        return run(more);
    }

    Ended lines(const std::string& text) const { return run({"script", "-"}, text); }

private:
    TemporaryFolder m_folder;
    int m_copies = 0;
};

inline bool holds(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

}  // namespace support

#endif
