#include "base64_kernels.h"

#include <initializer_list>

// Initialised as a constant: what runs before the library's constructors may use the codecs
// too.
const Base64Kernel* base64Kernel = &base64Scalar;

namespace {

const Base64Kernel* fastestKernel() noexcept
{
    for (const auto kernel :
         {base64KernelAvx512, base64KernelAvx2, base64KernelSsse3, base64KernelNeon}) {
        if (kernel() != nullptr)
            return kernel();
    }
    return base64KernelScalar();
}

__attribute__((constructor)) void chooseKernel() noexcept
{
    base64Kernel = fastestKernel();
}

}  // namespace
