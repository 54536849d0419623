// The Base64 kernels of this processor, for programs that are linked to the plug-in's objects.
#ifndef CORVANE_TESTS_EACH_KERNEL_H
#define CORVANE_TESTS_EACH_KERNEL_H

#include <gtest/gtest.h>

#include <vector>

#include "base64_kernels.h"

namespace support {

// From the slowest to the fastest.
inline std::vector<const Base64Kernel*> kernels()
{
    std::vector<const Base64Kernel*> found;
    for (const auto kernel : {base64KernelScalar, base64KernelSsse3, base64KernelAvx2,
                              base64KernelAvx512, base64KernelNeon}) {
        if (kernel() != nullptr)
            found.push_back(kernel());
    }
    return found;
}

// More characters, and more bytes, than four steps of any kernel take. (The one of 64-bit ARM
// has a loop of its own for four.)
constexpr size_t LONGER_THAN_ANY_VECTOR = 400;

// Runs `body` with each kernel in turn as that of the codecs.
template <class Body>
void withEachKernel(Body body)
{
    const Base64Kernel* usual = base64Kernel;
    for (const Base64Kernel* kernel : kernels()) {
        SCOPED_TRACE(kernel->name);
        base64Kernel = kernel;
        body();
    }
    base64Kernel = usual;
}

}  // namespace support

#endif
