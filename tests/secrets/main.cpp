// Has all functions bound at once. The dynamic loader otherwise stores the vector registers on the
// stack when a library calls a function for the first time, whatever they hold: it is the first
// request with an exception, say, that leaves a part of a secret then, and no other.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>

int main(int count, char** arguments)
{
    if (getenv("LD_BIND_NOW") == nullptr) {
        setenv("LD_BIND_NOW", "1", 1);
        execv("/proc/self/exe", arguments);  // fails in an emulator, and the test goes on
    }
    ::testing::InitGoogleTest(&count, arguments);
    return RUN_ALL_TESTS();
}
