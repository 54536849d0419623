// Base64. What the engine takes besides, as text without its padding, is not compared: Botan has
// rules of its own there.

#include <botan/base64.h>

#include "differential/algorithm.h"
#include "differential/botan_side.h"
#include "differential/engine_side.h"

namespace differential {

namespace {

// The two calls that the plug-in makes: for the length, and for the result.
template <class Function>
Answer call(Function function, const std::string& data)
{
    const support::Exact in(data);
    uint32_t size = 0;
    if (function(in.data(), in.size(), nullptr, &size) != 0)
        return std::nullopt;
    support::Fenced out(size);
    return engine::answerOf(function(in.data(), in.size(), out.data(), &out.len), out);
}

Answer engineEncode(const std::string& data)
{
    return call(engine::library().aven_crypto_base64_encode, data);
}

Answer engineDecode(const std::string& text)
{
    return call(engine::library().aven_crypto_base64_decode, text);
}

Answer botanDecode(const std::string& text)
{
    return botan::answerOf([&] { return botan::textOf(Botan::base64_decode(text)); });
}

void compare(Trial& trial)
{
    const std::string data = trial.bytes(trial.size(3));
    const std::string text = Botan::base64_encode(botan::bytesOf(data), data.size());
    trial.expectSame("encoding", engineEncode(data), text);
    trial.expectSame("decoding", engineDecode(text), data);
    if (text.size() <= 4)
        return;

    // Anywhere before the last group, in which padding and left-over bits count.
    constexpr char others[] = "\1!-_.,\x7f\x80\xff";  // and the zero behind them
    std::string wrong = text;
    wrong[trial.below(text.size() - 4)] = others[trial.below(sizeof others)];
    trial.expectSameVerdict("another character", wrong, engineDecode(wrong), botanDecode(wrong));
}

}  // namespace

void addBase64(Algorithms& all)
{
    all.push_back({"Base64", 20, compare});
}

}  // namespace differential
