// Comparisons that end at the first difference: by themselves, and behind a call of the engine.

#include "timing/toolbox.h"

namespace timing {

namespace {

constexpr size_t SIZE = 16;

// Written so that no compiler makes a memcmp of it, which may read many bytes at once.
__attribute__((noinline)) int leakyCompare(const unsigned char* a, const unsigned char* b)
{
    for (size_t i = 0; i < SIZE; ++i) {
        if (a[i] != b[i])
            return 1;
        asm volatile("" : : : "memory");
    }
    return 0;
}

}  // namespace

void addLeaks(std::vector<Comparison>& all, Random& random)
{
    const std::string right = randomBytes(SIZE, random);
    const auto make = [&](unsigned kind) {
        std::string wrong = right;
        damage(wrong, kind == 0 ? 0 : SIZE - 1, random);
        return wrong;
    };
    all.push_back(compare("a leaky comparison of 16 bytes", "first byte wrong or last", 1,
                          std::make_shared<Inputs>(make), [right](const Inputs& inputs) {
                              return leakyCompare(inputs.data(), bytes(right));
                          }));
    all.push_back(compare("the same behind a MAC by the engine", "first byte wrong or last", 1,
                          std::make_shared<Inputs>(make), [right](const Inputs& inputs) {
                              unsigned char digest[32];
                              uint32_t size = sizeof digest;
                              const MacParams params = {4, bytes(right), size32(right)};
                              engine().aven_crypto_hmac(&params, bytes(right), size32(right),
                                                        digest, &size);
                              return leakyCompare(inputs.data(), bytes(right));
                          }));
    for (Comparison& leak : all)
        leak.mustLeak = true;
}

}  // namespace timing
