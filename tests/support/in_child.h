// Work in a process of its own, whose limits and rights are no other test's.
#ifndef CORVANE_TESTS_IN_CHILD_H
#define CORVANE_TESTS_IN_CHILD_H

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

namespace support {

// Its status, as of wait(2): 0 unless an expectation has failed there or it ended otherwise.
inline int inChild(const std::function<void()>& what)
{
    const pid_t pid = fork();
    if (pid == 0) {
        what();
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    waitpid(pid, &status, 0);
    return status;
}

}  // namespace support

#endif
