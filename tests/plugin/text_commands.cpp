// Commands that the handler base runs, and what it keeps of their output.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "support/capture.h"
#include "support/files.h"
#include "support/text_handler.h"

namespace {

using support::StdoutCapture;
using support::Text;

using RunCmd = Text;

TEST_F(RunCmd, ReturnsWhatTheCommandPrints)
{
    EXPECT_EQ(handler.runCmd("printf abc"), "abc");
    EXPECT_EQ(handler.runCmd("echo one; echo; echo two"), "one\n\ntwo\n");
    EXPECT_EQ(handler.runCmd("true"), "");
    EXPECT_EQ(handler.runCmd(""), "");
}

TEST_F(RunCmd, LeavesOutErrorsAndExitStatus)
{
    EXPECT_EQ(handler.runCmd("echo out; echo err 2>/dev/null >&2; exit 3"), "out\n");
    EXPECT_EQ(handler.runCmd("/nonexistent/command 2>/dev/null"), "");
}

TEST_F(RunCmd, JoinsLinesOfAnyLength)
{
    for (size_t length : {1022U, 1023U, 1024U, 1025U, 2046U, 2047U, 5000U}) {
        std::string command = "head -c " + std::to_string(length) + " /dev/zero | tr '\\0' x";
        EXPECT_EQ(handler.runCmd(command), std::string(length, 'x'));
        EXPECT_EQ(handler.runCmd(command + "; echo; echo y"), std::string(length, 'x') + "\ny\n");
    }
}

TEST_F(RunCmd, CutsEachLineAtItsFirstZeroByte)
{
    EXPECT_EQ(handler.runCmd("printf 'ab\\0cd\\nef\\n'"), "abef\n");
    EXPECT_EQ(handler.runCmd("printf '\\0ab\\n\\0\\ncd\\0'"), "cd");
    EXPECT_EQ(handler.runCmd("printf 'ab\\0'"), "ab");
}

// Lines are read in parts of 1,023 bytes, and each part counts as a line here.
TEST_F(RunCmd, GoesOnInTheNextPartOfALongLine)
{
    EXPECT_EQ(handler.runCmd("printf 'ab\\0'; head -c 1020 /dev/zero | tr '\\0' x; printf cd"),
              "abcd");
}

TEST_F(RunCmd, KeepsTheFirst10239Bytes)
{
    for (size_t size : {10238U, 10239U, 10240U, 10241U, 11263U, 70000U, 1000000U}) {
        std::string kept(std::min<size_t>(size, 10239), 'x');
        std::string command = "head -c " + std::to_string(size) + " /dev/zero | tr '\\0' x";
        EXPECT_EQ(handler.runCmd(command), kept) << size;
    }
}

TEST_F(RunCmd, KeepsTheFirst10239BytesOfManyLines)
{
    std::string all;
    for (int i = 1; i <= 4000; i++)
        all += std::to_string(i) + "\n";
    EXPECT_EQ(handler.runCmd("seq 4000"), all.substr(0, 10239));
}

TEST_F(RunCmd, WaitsForTheCommand)
{
    char path[] = "/tmp/corvane_test_XXXXXX";
    int file = mkstemp(path);
    ASSERT_GE(file, 0);
    close(file);
    handler.runCmd(std::string("echo begun; sleep 0.2; rm ") + path);
    EXPECT_NE(access(path, F_OK), 0);
    unlink(path);
}

// Its output ends long before the command does.
TEST_F(RunCmd, WaitsForACommandThatHasClosedItsOutput)
{
    char path[] = "/tmp/corvane_test_XXXXXX";
    int file = mkstemp(path);
    ASSERT_GE(file, 0);
    close(file);
    EXPECT_EQ(handler.runCmd(std::string("echo begun; exec >&-; sleep 0.2; rm ") + path),
              "begun\n");
    EXPECT_NE(access(path, F_OK), 0);
    unlink(path);
}

TEST_F(RunCmd, LeavesNoProcessAndNoOpenFileBehind)
{
    int before = dup(STDIN_FILENO);
    ASSERT_GE(before, 0);
    close(before);
    for (const char* command : {"true", "echo abc", "head -c 20000 /dev/zero", "exit 3"})
        handler.runCmd(command);
    int after = dup(STDIN_FILENO);
    close(after);
    EXPECT_EQ(after, before) << "the lowest number that is free";
    EXPECT_LE(waitpid(-1, nullptr, WNOHANG), 0) << "a child that nobody has waited for";
}

TEST_F(RunCmd, PrintsThatACommandCannotBeStarted)
{
    StdoutCapture output;
    std::string result;
    {
        const support::NoNewFiles noPipe;
        result = handler.runCmd("echo abc");
    }
    EXPECT_EQ(result, "");
    EXPECT_EQ(output.text(), "popen error!\n");
}

}  // namespace
