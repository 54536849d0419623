// The openssl command, which makes the keys and certificates of the engine's tests and
// checks the engine's results as an independent party.
#ifndef CORVANE_TESTS_OPENSSL_TOOL_H
#define CORVANE_TESTS_OPENSSL_TOOL_H

#include <openssl/evp.h>
#include <stdlib.h>

#include <string>

#include "base64_text.h"
#include "devkit_engine.h"
#include "files.h"

namespace support {

// The command, in a folder of its own.
class OpensslTool : public TemporaryFolder {
public:
    // Runs "openssl <arguments>", which may redirect its output, and returns whether it
    // succeeded.
    bool tries(const std::string& arguments) const
    {
        const std::string command =
            "cd '" + path().string() + "' && openssl " + arguments + " 2>log";
        return system(command.c_str()) == 0;
    }

    void run(const std::string& arguments) const
    {
        ASSERT_TRUE(tries(arguments)) << "openssl " << arguments << "\n" << read("log");
    }

    // Runs the command and returns the file that it was to write.
    std::string make(const std::string& arguments, const std::string& file) const
    {
        run(arguments);
        return read(file);
    }
};

// The test program's, so that a key is made once.
inline const OpensslTool& openssl()
{
    static const OpensslTool tool;
    return tool;
}

// The bytes of a text's only PEM block.
inline std::string derOf(const std::string& pem)
{
    const size_t begin = pem.find("-----\n", pem.find("-----BEGIN")) + 6;
    std::string text = pem.substr(begin, pem.find("-----END") - begin);
    text.erase(std::remove(text.begin(), text.end(), '\n'), text.end());
    return fromBase64(text);
}

// Private keys in PKCS#8, in files of the tool's directory; made when first asked for.
// `name` is "sm2", "sm2-other", or "rsa" with the number of bits and what makes it
// different from others: "rsa2048", "rsa2048-other".
inline std::string keyFile(const std::string& name)
{
    const std::string file = name + ".key";
    if (openssl().tries("pkey -noout -in " + file))
        return file;
    const std::string algorithm =
        name.rfind("sm2", 0) == 0
            ? "SM2"
            : "RSA -pkeyopt rsa_keygen_bits:" + std::to_string(std::stoi(name.substr(3)));
    openssl().run("genpkey -algorithm " + algorithm + " -out " + file);
    return file;
}

inline std::string privatePem(const std::string& name)
{
    return openssl().read(keyFile(name));
}

inline std::string publicPem(const std::string& name)
{
    return openssl().make("pkey -in " + keyFile(name) + " -pubout -out " + name + ".pub",
                          name + ".pub");
}

// A file with a certificate that the key has signed for itself.
inline std::string certificateFile(const std::string& name)
{
    const std::string file = name + ".crt";
    if (!openssl().tries("x509 -noout -in " + file)) {
        openssl().run("req -x509 -new -key " + keyFile(name) + " -out " + file +
                      " -days 30 -subj '/C=CN/O=Corvane tests/CN=" + name + "'" +
                      (name.rfind("sm2", 0) == 0 ? " -sm3" : ""));
    }
    return file;
}

inline std::string certificatePem(const std::string& name)
{
    return openssl().read(certificateFile(name));
}

// An initialised engine with keys.
class KeyedEngineTest : public EngineTest {
protected:
    int unmarshal(int type, const std::string& privateText, const std::string& publicText,
                  const char* password, void** handle)
    {
        const Exact privateKey(privateText), publicKey(publicText);
        return engine.aven_keypair_unmarshal(
            type, privateText.empty() ? nullptr : privateKey.data(), privateKey.size(),
            publicText.empty() ? nullptr : publicKey.data(), publicKey.size(), password, handle);
    }

    // Freed by the engine's clean-up.
    void* privateKey(const std::string& name)
    {
        const Exact text(privatePem(name));
        void* handle = nullptr;
        EXPECT_EQ(engine.aven_keypair_unmarshal(AVEN_KEY_ANY, text.data(), text.size(), nullptr, 0,
                                                nullptr, &handle),
                  0);
        return handle;
    }

    void* publicKey(const std::string& name)
    {
        const Exact text(publicPem(name));
        void* handle = nullptr;
        EXPECT_EQ(engine.aven_keypair_unmarshal(AVEN_KEY_ANY, nullptr, 0, text.data(), text.size(),
                                                nullptr, &handle),
                  0);
        return handle;
    }

    void* certificate(const std::string& name)
    {
        const Exact text(certificatePem(name));
        void* handle = nullptr;
        EXPECT_EQ(engine.aven_certificate_unmarshal(text.data(), text.size(), nullptr, &handle), 0);
        return handle;
    }
};

}  // namespace support

#endif
