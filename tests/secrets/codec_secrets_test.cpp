// The codecs and hex dumps that hosts call leave nothing but what they return.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "WebServerBase.h"
#include "base64.h"
#include "base64_stream.h"
#include "log.h"
#include "support/each_kernel.h"
#include "support/memory_scan.h"
#include "taken_over.h"
#include "vault.h"

using secrets::base64;
using secrets::KeptBlocks;
using secrets::Secret;
using secrets::take;

namespace {

constexpr size_t PIECES[] = {1, 7, 100, 3000};
constexpr size_t SIZES[] = {12, 14, 15, 16, 17, 31, 48, 64, 100, 200, 1000, 5000, 20000, 70000};

// What a host does with what it was given.
void wipeByHand(std::string& text)
{
    support::wipeByHand(text.data(), text.capacity());
}

unsigned char* bytes(std::string_view text)
{
    return reinterpret_cast<unsigned char*>(const_cast<char*>(text.data()));
}

unsigned char* takeBytes(size_t size)
{
    return reinterpret_cast<unsigned char*>(take(size));
}

// Something that a host calls, with data and its Base64.
using Use = void (*)(std::string_view data, std::string_view text);

void encodeString(std::string_view data, std::string_view)
{
    std::string text = base64_encode(bytes(data), static_cast<unsigned>(data.size()));
    wipeByHand(text);
    text = base64_encode_url(bytes(data), data.size());
    wipeByHand(text);
}

void decodeString(std::string_view, std::string_view text)
{
    for (const size_t length : {text.size(), text.find_last_not_of('=') + 1}) {
        std::string encoded(text.substr(0, length));
        std::string data = base64_decode(encoded);
        wipeByHand(data);
        base64_decode_url(encoded);
        wipeByHand(encoded);
    }
}

// As handlers of a host's own may.
class Handler : public CWebServerBase {
public:
    std::string Request() override { return ""; }
};

void decodeUri(std::string_view data, std::string_view)
{
    std::string encoded(data);
    std::replace(encoded.begin(), encoded.end(), '%', '_');
    Handler handler;
    std::string decoded = handler.DecodeURIComponent(encoded);
    wipeByHand(decoded);
    wipeByHand(encoded);
}

void encodeAtOnce(std::string_view data, std::string_view text)
{
    unsigned length = 0;
    for (const int lineBreak : {0, 1})
        CV_Base64Encode(bytes(data), static_cast<unsigned>(data.size()), take(2 * text.size()),
                        &length, lineBreak);
}

void decodeAtOnce(std::string_view, std::string_view text)
{
    unsigned length = 0;
    for (const size_t cut : {size_t{0}, size_t{1}, size_t{5}})
        CV_Base64Decode(text.data(), static_cast<unsigned>(text.size() - cut),
                        takeBytes(text.size()), &length);
}

void encodeInPieces(std::string_view data, std::string_view text)
{
    for (const size_t piece : PIECES) {
        unsigned char* const out = takeBytes(text.size());
        unsigned char* state = nullptr;
        encodeini(&state);
        for (size_t i = 0; i < data.size(); i += piece)
            encodeupdate(bytes(data) + i, static_cast<int>(std::min(piece, data.size() - i)), out,
                         state);
        encodefinish(out, state);
        free(state);
    }
}

void decodeInPieces(std::string_view, std::string_view text)
{
    for (const size_t piece : PIECES) {
        unsigned char* const out = takeBytes(text.size());
        unsigned char* state = nullptr;
        decodeini(&state);
        for (size_t i = 0; i < text.size(); i += piece)
            decodeupdate(bytes(text) + i, static_cast<int>(std::min(piece, text.size() - i)), out,
                         state);
        decodefinish(out, &state);
    }
}

// The log takes the lines over.
void dumpToLog(std::string_view data, std::string_view)
{
    log_set_level(5);
    for (const int level : {0, 5})
        print_hex_dump(level, data.data(), data.size());
    log_set_level(4);
}

void dumpToMemory(std::string_view data, std::string_view)
{
    for (const int group : {1, 2, 4, 8})
        hex_dump_to_buffer(data.data(), data.size(), 32, group, take(300), 300, true);
}

struct Case {
    const char* name;
    Use use;
    bool isFound;  // if it does not wipe; what a dump leaves, some compilers' frames cover
};
const Case cases[] = {
    {"EncodeString", encodeString, false},    {"DecodeString", decodeString, false},
    {"DecodeUri", decodeUri, false},          {"EncodeAtOnce", encodeAtOnce, true},
    {"DecodeAtOnce", decodeAtOnce, true},     {"EncodeInPieces", encodeInPieces, false},
    {"DecodeInPieces", decodeInPieces, true}, {"DumpToLog", dumpToLog, false},
    {"DumpToMemory", dumpToMemory, false},
};

// What is left of new secrets of a size.
std::vector<support::Trace> tracesOf(Use use, size_t size)
{
    secrets::clearVault();
    const Secret secret("data");
    support::Marks marks;
    secret.addTo(marks);
    marks.addText("data in hex", secrets::hexDigits(secret.pattern));
    const std::string_view data = secret.bytes(size);
    const std::string_view text = base64(data);
    {
        const KeptBlocks kept;
        support::deeperInStack([&] { use(data, text); });
    }
    auto traces = tracesHere(marks, {secrets::vaultRange(), secrets::unusedBlocks()});
    secrets::wipeFreedBlocks();
    return traces;
}

class CodecSecrets : public ::testing::TestWithParam<Case> {};

std::string nameOf(const ::testing::TestParamInfo<Case>& info)
{
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(Exported, CodecSecrets, ::testing::ValuesIn(cases), nameOf);

TEST_P(CodecSecrets, LeaveNothing)
{
    support::withEachKernel([] {
        for (const size_t size : SIZES)
            EXPECT_EQ("", textOf(tracesOf(GetParam().use, size))) << size << " bytes";
    });
}

// What the test above would find if the codecs did not wipe.
TEST_P(CodecSecrets, AreFoundIfNotWiped)
{
    const secrets::WipingOff off;
    support::withEachKernel(
        [] { EXPECT_TRUE(!GetParam().isFound || !tracesOf(GetParam().use, 1000).empty()); });
}

}  // namespace
