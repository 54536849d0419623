// Reading a key or a certificate with the development engine, for the code alone.
#ifndef CORVANE_TESTS_KEY_READING_H
#define CORVANE_TESTS_KEY_READING_H

#include <gtest/gtest.h>

#include <string>

#include "support/openssl_tool.h"

namespace support {

class Keys : public KeyedEngineTest {
protected:
    // The code of reading a private or a public key, which is freed at once.
    int readPrivate(const std::string& text, const char* password = nullptr,
                    int type = AVEN_KEY_ANY)
    {
        return read(type, text, "", password);
    }
    int readPublic(const std::string& text, int type = AVEN_KEY_ANY)
    {
        return read(type, "", text, nullptr);
    }
    int read(int type, const std::string& privateText, const std::string& publicText,
             const char* password)
    {
        void* handle = this;
        const int code = unmarshal(type, privateText, publicText, password, &handle);
        EXPECT_EQ(code == 0, handle != nullptr);
        EXPECT_NE(handle, this);
        EXPECT_EQ(engine.aven_keypair_free(handle), 0);
        return code;
    }

    int readCertificate(const std::string& text)
    {
        const Exact bytes(text);
        void* handle = this;
        const int code =
            engine.aven_certificate_unmarshal(bytes.data(), bytes.size(), nullptr, &handle);
        EXPECT_EQ(code == 0, handle != nullptr);
        EXPECT_EQ(engine.aven_certificate_free(handle), 0);
        return code;
    }
};

inline std::string convert(const std::string& command, const std::string& key)
{
    openssl().write("in", key);
    return openssl().make(command + " -in in -out out", "out");
}

}  // namespace support

#endif
