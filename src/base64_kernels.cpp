#include "base64_kernels.h"

#include <initializer_list>

// Initialised as a constant: what runs before the library's constructors may use the codecs
// too.
const Base64Kernel* base64_kernel = &base64_scalar;

namespace {

const Base64Kernel* fastestKernel() noexcept
{
    for (const auto kernel :
         {base64_kernel_avx512, base64_kernel_avx2, base64_kernel_ssse3, base64_kernel_neon}) {
        if (kernel() != nullptr)
            return kernel();
    }
    return base64_kernel_scalar();
}

__attribute__((constructor)) void chooseKernel() noexcept
{
    base64_kernel = fastestKernel();
}

}  // namespace
