#include "skeleton.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace {

struct Free {
    void operator()(unsigned char* memory) const { free(memory); }
};

std::string read(const Host& host, std::string name)
{
    long length = 0;
    if (host.params.GetHttpParams(name.data(), static_cast<long>(name.length()), nullptr,
                                  &length) != 0)
        return "";
    std::string value(static_cast<size_t>(length) + 1, '\0');
    host.params.GetHttpParams(name.data(), static_cast<long>(name.length()), value.data(), &length);
    value.resize(static_cast<size_t>(length));
    return value;
}

void write(const Host& host, std::string name, std::string value)
{
    host.params.AddRetParams(name.data(), static_cast<long>(name.length()), value.data(),
                             static_cast<long>(value.length()));
}

// In the place of the decoding in place: moves the last bytes to the front.
void shorten(std::string& text, size_t length)
{
    memmove(text.data(), text.data() + (text.length() - length), length);
    text.resize(length);
}

// In the place of the encoding: writes four bytes for each three.
std::string lengthened(const std::string& bytes)
{
    const size_t length = (bytes.length() + 2) / 3 * 4;
    std::string text;
    text.reserve(length);
    text.append(bytes);
    text.append(bytes, 0, length - bytes.length());
    return text;
}

}  // namespace

void encryptionSkeleton(const Host& host, size_t payload)
{
    host.params.ClearRetParams();
    host.params.ClearRetCustomParam();

    const std::string alg = read(host, "strCipherAlg");
    const std::string mode = read(host, "strMode");
    const std::string padding = read(host, "strCipherPadding");
    std::string key = read(host, "strKey");
    std::string iv = read(host, "strIV");
    const std::string aad = read(host, "straad");
    std::string data = read(host, "strdata");
    const std::string tagLength = read(host, "strgcmTagLen");

    SymmCipherParams block = {};
    shorten(key, 16);
    shorten(iv, 16);
    block.alg = atoi(alg.c_str());
    block.mode = atoi(mode.c_str());
    block.key = reinterpret_cast<const unsigned char*>(key.data());
    block.key_len = 16;
    block.iv = reinterpret_cast<const unsigned char*>(iv.data());
    block.iv_len = 16;

    shorten(data, payload);
    auto length = static_cast<uint32_t>(payload) + 128;
    std::unique_ptr<unsigned char, Free> buffer(static_cast<unsigned char*>(malloc(length + 1)));
    if (buffer == nullptr)
        giveUp("no memory");
    memset(buffer.get(), 0, length + 1);
    host.engine.aven_crypto_encrypt(&block, reinterpret_cast<const unsigned char*>(data.data()),
                                    static_cast<uint32_t>(payload), buffer.get(), &length, 0,
                                    nullptr);
    std::string().swap(data);
    std::string out(reinterpret_cast<const char*>(buffer.get()), length);
    buffer.reset();

    std::string text = lengthened(out);
    std::string().swap(out);
    write(host, "Data", std::move(text));
    write(host, "errorCode", "0");
    write(host, "gcmOutTag", "");

    host.params.ClearHttpParams();
}
