// Rounds after which a process must hold no more than before.
#ifndef CORVANE_TESTS_ROUNDS_H
#define CORVANE_TESTS_ROUNDS_H

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include "support/held.h"

namespace support {

// Runs `round` so many times, or as often as the environment's `variable` asks for; nothing must
// grow after the first quarter.
template <class Round>
void staysFlat(const char* variable, int rounds, Round round)
{
    if (const char* asked = getenv(variable))
        rounds = atoi(asked);
    else if (sanitized || emulated)
        rounds = emulated ? 8 : 20;
    ASSERT_GE(rounds, 4);

    Held first;
    for (int i = 1; i <= rounds; ++i) {
        round();
        if (i % (rounds / 4) != 0 || testing::Test::HasFatalFailure())
            continue;
        const Held held = Held::now();
        if (first.descriptors == 0)
            first = held;
        printf("round %5d: %zu KiB resident, %zu bytes allocated, %zu descriptors\n", i,
               held.resident >> 10, held.allocated, held.descriptors);
        EXPECT_EQ(held.descriptors, first.descriptors);
        if (!sanitized && !emulated) {
            EXPECT_LT(held.resident, first.resident + (512u << 10));
        }
        if (!sanitized) {
            // Threads make the figure waver a little; less than a byte a round is none.
            EXPECT_LT(held.allocated, first.allocated + 4096 + static_cast<size_t>(rounds));
        }
    }
}

}  // namespace support

#endif
