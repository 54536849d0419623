// The string codec with each of its kernels, against a model of its own rules and against
// libcrypto. Input: two bytes for a place, one for a character, then the bytes.

#include "base64.h"

#include <initializer_list>
#include <string>

#include "base64_kernels.h"
#include "fuzz.h"
#include "oracles.h"

using fuzz::Exact;

namespace {

std::string decodedByLibcrypto(const std::string& text)
{
    std::string bytes(text.size() / 4 * 3, '\0');
    const int length = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                                       fuzz::bytesOf(text), static_cast<int>(text.size()));
    HOLDS(length == static_cast<int>(bytes.size()));
    size_t padding = 0;
    while (padding < 2 && padding < text.size() && text[text.size() - 1 - padding] == '=')
        ++padding;
    bytes.resize(bytes.size() - padding);  // it does not take it off itself
    return bytes;
}

std::wstring widened(const std::string& text)
{
    std::wstring wide;
    for (const char c : text)
        wide += static_cast<wchar_t>(static_cast<unsigned char>(c));
    return wide;
}

// ---- The functions.

void checkEncoding(const std::string& bytes)
{
    const std::string text = fuzz::toBase64(bytes);
    HOLDS(base64_encode(fuzz::bytesOf(bytes), fuzz::size32(bytes)) == text);
    HOLDS(base64_encode_url(fuzz::bytesOf(bytes), bytes.size()) == fuzz::toUrl(text));
    HOLDS(base64_decode(text) == decodedByLibcrypto(text));
}

void checkDecoding(const std::string& text)
{
    HOLDS(base64_decode(text) == fuzz::base64Decoded(text));
    std::string inPlace = text;
    base64_decode_url(inPlace);
    HOLDS(inPlace == fuzz::base64Decoded(fuzz::fromUrl(text)));
}

void checkWide(const std::string& bytes)
{
    const std::wstring wide = widened(bytes);
    const std::u32string elements(wide.begin(), wide.end());
    HOLDS(base64_encode_w(reinterpret_cast<const unsigned*>(elements.data()),
                          static_cast<unsigned>(elements.size())) ==
          widened(fuzz::toBase64(bytes)));
    HOLDS(base64_decode_w(wide) == widened(fuzz::base64Decoded(bytes)));
}

// ---- The kernels, with no more memory than they may touch.

void checkKernelEncoding(const Base64Kernel& kernel, Base64Alphabet alphabet,
                         const std::string& bytes)
{
    Exact in(bytes);
    Exact out(bytes.size() / 3 * 4);
    const size_t taken = kernel.encode[alphabet](in.data(), in.size(), out.chars());
    HOLDS(taken <= bytes.size() && taken % 3 == 0);
    HOLDS(&kernel != base64KernelScalar() || taken == bytes.size() / 3 * 3);

    const std::string text = fuzz::toBase64(bytes.substr(0, taken));
    HOLDS(out.text(taken / 3 * 4) == (alphabet == BASE64_URL ? fuzz::toUrl(text) : text));
}

void checkKernelDecoding(const Base64Kernel& kernel, Base64Alphabet alphabet,
                         const std::string& text)
{
    const std::string standard = alphabet == BASE64_URL ? fuzz::fromUrl(text) : text;
    const size_t groups = fuzz::lengthOfAlphabet(standard) / 4;
    Exact in(text);
    Exact out(text.size() / 4 * 3);
    const size_t taken = kernel.decode[alphabet](in.data(), in.size(), out.data());
    HOLDS(taken % 4 == 0 && taken / 4 <= groups);
    HOLDS(&kernel != base64KernelScalar() || taken / 4 == groups);
    HOLDS(out.text(taken / 4 * 3) == fuzz::base64Decoded(standard.substr(0, taken)));

    const size_t takenInPlace = kernel.decode[alphabet](in.data(), in.size(), in.data());
    HOLDS(takenInPlace == taken && in.text(taken / 4 * 3) == out.text(taken / 4 * 3));
    HOLDS(in.text().substr(taken) == text.substr(taken));  // what is left is still to be read
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::Input input(data, size);
    const size_t place = input.pickWide(65536);
    const char character = static_cast<char>(input.pick(256));
    const std::string bytes = input.rest();

    // Long texts of the alphabet are rare among random bytes: one with a single character
    // exchanged.
    std::string damaged = fuzz::toBase64(bytes);
    if (!damaged.empty())
        damaged[place % damaged.size()] = character;
    if (place % 2 == 1)
        damaged = fuzz::toUrl(damaged);

    for (const Base64Kernel* kernel :
         {base64KernelScalar(), base64KernelSsse3(), base64KernelAvx2(), base64KernelAvx512(),
          base64KernelNeon()}) {
        if (kernel == nullptr)
            continue;
        base64Kernel = kernel;
        checkEncoding(bytes);
        checkDecoding(bytes);
        checkDecoding(damaged);
        for (const Base64Alphabet alphabet : {BASE64_STANDARD, BASE64_URL}) {
            checkKernelEncoding(*kernel, alphabet, bytes);
            checkKernelDecoding(*kernel, alphabet, bytes);
            checkKernelDecoding(*kernel, alphabet, damaged);
        }
    }
    checkWide(bytes);
    checkWide(damaged);
    return 0;
}
