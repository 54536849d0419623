#include "ke_certificates.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <filesystem>
#include <fstream>
#include <string_view>
#include <system_error>

#include "engine/engine_log.h"
#include "engine/secret_bytes.h"
#include "ke_protocol.h"

namespace {

namespace fs = std::filesystem;

using Bio = Owned<BIO_free_all, BIO>;

// libcrypto's level of 112 bits: no SHA-1, no RSA below 2048 bits.
constexpr int SECURITY_LEVEL = 2;

// ---- Roots.

// A certificate signed with SM2 carries no ID of its issuer, and libcrypto 3.0 would take
// the empty one.
void setIssuerId(X509* certificate)
{
    if (X509_get_signature_nid(certificate) != NID_SM2_with_SM3)
        return;
    Owned<ASN1_OCTET_STRING_free, ASN1_OCTET_STRING> id(ASN1_OCTET_STRING_new());
    require(id != nullptr && ASN1_OCTET_STRING_set(
                                 id.get(), reinterpret_cast<const unsigned char*>(SM2_DEFAULT_ID),
                                 static_cast<int>(SM2_DEFAULT_ID_SIZE)) == 1,
            AVEN_E_NO_MEMORY);
    X509_set0_distinguishing_id(certificate, id.release());
}

// Certificates as they were read. What they cost is bounded before one of them is parsed.
class RootTexts {
public:
    // Room for a file of `size` bytes.
    SecretBytes fileRoom(uintmax_t size)
    {
        require(size <= AVEN_KE_ROOT_FILE_BYTES_MAX - m_fileBytes, AVEN_E_INPUT_TOO_LONG);
        m_fileBytes += static_cast<size_t>(size);
        return SecretBytes(static_cast<size_t>(size));
    }

    void add(Bytes der)
    {
        require(m_ders.size() < AVEN_KE_ROOTS_MAX, AVEN_E_KE_ROOTS_TOO_MANY);
        require(der.size <= AVEN_KE_ROOT_BYTES_MAX - m_bytes, AVEN_E_KE_ROOTS_TOO_MANY);
        m_bytes += der.size;
        m_ders.emplace_back(der.data, der.data + der.size);
    }

    const std::vector<std::vector<unsigned char>>& ders() const { return m_ders; }
    size_t bytes() const { return m_bytes; }

private:
    std::vector<std::vector<unsigned char>> m_ders;
    size_t m_bytes = 0;  // of DER
    size_t m_fileBytes = 0;
};

// One block of a PEM file. What is no certificate may be a key.
struct PemBlock {
    char* label = nullptr;
    char* header = nullptr;
    unsigned char* data = nullptr;
    long size = 0;

    PemBlock() = default;
    PemBlock(const PemBlock&) = delete;
    PemBlock& operator=(const PemBlock&) = delete;
    ~PemBlock()
    {
        OPENSSL_free(label);
        OPENSSL_free(header);
        OPENSSL_clear_free(data, static_cast<size_t>(size));
    }

    // False at the end of the file.
    bool read(BIO* bio)
    {
        if (PEM_read_bio(bio, &label, &header, &data, &size) == 1)
            return true;
        require(ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE, AVEN_E_KEY_TEXT);
        return false;
    }
};

void addPemRoots(RootTexts& roots, Bytes text)
{
    const Bio bio(BIO_new_mem_buf(text.data, static_cast<int>(text.size)));
    require(bio != nullptr, AVEN_E_NO_MEMORY);
    for (;;) {
        PemBlock block;
        if (!block.read(bio.get()))
            return;
        const std::string_view label = block.label;
        if (label == PEM_STRING_X509 || label == PEM_STRING_X509_OLD)
            roots.add({block.data, static_cast<size_t>(block.size)});
    }
}

// No text begins like this: a SEQUENCE with a length of more than one byte.
bool looksLikeDer(Bytes bytes)
{
    return bytes.size > 2 && bytes.data[0] == (V_ASN1_SEQUENCE | V_ASN1_CONSTRUCTED) &&
           bytes.data[1] > 0x80;
}

bool hasPem(Bytes bytes)
{
    const std::string_view text(reinterpret_cast<const char*>(bytes.data), bytes.size);
    return text.find("-----BEGIN ") != std::string_view::npos;
}

void addRoots(RootTexts& roots, const fs::path& path)
{
    std::error_code error;
    const uintmax_t size = fs::file_size(path, error);
    require(!error, AVEN_E_KE_ROOTS_OPEN);
    SecretBytes content = roots.fileRoom(size);
    std::ifstream file(path, std::ios::binary);
    file.read(reinterpret_cast<char*>(content.data()), static_cast<std::streamsize>(size));
    require(file.good(), AVEN_E_KE_ROOTS_OPEN);

    if (looksLikeDer(view(content)))
        roots.add(view(content));
    else
        addPemRoots(roots, view(content));
}

// Every file counts, whatever its name, so that the directory needs no index. Links to
// files are followed, directories inside are not.
void addRootsInDirectory(RootTexts& roots, const fs::path& directory)
{
    std::error_code error;
    int entries = 0;
    fs::directory_iterator entry(directory, error);
    for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
        require(++entries <= AVEN_KE_ROOT_ENTRIES_MAX, AVEN_E_KE_ROOTS_TOO_MANY);
        std::error_code unreadable;  // a dangling link, for example
        if (entry->is_regular_file(unreadable))
            addRoots(roots, entry->path());
    }
    require(!error, AVEN_E_KE_ROOTS_OPEN);
}

// Lengths keep two certificates in one block from being taken for two blocks.
RootTable::Digest digestOf(const Engine& engine, const RootTexts& roots)
{
    const Owned<EVP_MD_free, EVP_MD> hash(EVP_MD_fetch(engine.library(), "SHA2-256", nullptr));
    const Owned<EVP_MD_CTX_free, EVP_MD_CTX> context(EVP_MD_CTX_new());
    require(hash != nullptr && context != nullptr, AVEN_E_NO_MEMORY);
    require(EVP_DigestInit_ex2(context.get(), hash.get(), nullptr) == 1, AVEN_E_INTERNAL);
    for (const std::vector<unsigned char>& der : roots.ders()) {
        const size_t size = der.size();
        require(EVP_DigestUpdate(context.get(), &size, sizeof size) == 1 &&
                    EVP_DigestUpdate(context.get(), der.data(), size) == 1,
                AVEN_E_INTERNAL);
    }
    RootTable::Digest digest;
    require(EVP_DigestFinal_ex(context.get(), digest.data(), nullptr) == 1, AVEN_E_INTERNAL);
    return digest;
}

using Store = Owned<X509_STORE_free, X509_STORE>;

Store storeOf(const Engine& engine, const RootTexts& roots)
{
    Store store(X509_STORE_new());
    require(store != nullptr, AVEN_E_NO_MEMORY);
    for (const std::vector<unsigned char>& der : roots.ders()) {
        X509* made = X509_new_ex(engine.library(), nullptr);
        require(made != nullptr, AVEN_E_NO_MEMORY);
        const unsigned char* p = der.data();
        // Frees what it was given if it fails.
        const X509Certificate root(d2i_X509(&made, &p, static_cast<long>(der.size())));
        require(root != nullptr && p == der.data() + der.size(), AVEN_E_KEY_TEXT);
        setIssuerId(root.get());
        // The library keeps what it reads of the extensions in the certificate: now, not in
        // whichever thread comes first.
        X509_get_extension_flags(root.get());
        require(X509_STORE_add_cert(store.get(), root.get()) == 1, AVEN_E_NO_MEMORY);
    }
    return store;
}

// ---- The server's certificates.

const char* nameOf(ServerRole role)
{
    return role == ServerRole::Signing ? "signing" : "encryption";
}

int codeOfVerification(int error)
{
    switch (error) {
        case X509_V_ERR_CERT_HAS_EXPIRED:
            return AVEN_E_KE_EXPIRED;
        case X509_V_ERR_CERT_NOT_YET_VALID:
            return AVEN_E_KE_NOT_YET_VALID;
        case X509_V_ERR_CERT_SIGNATURE_FAILURE:
            return AVEN_E_KE_CERTIFICATE_FORGED;
        case X509_V_ERR_OUT_OF_MEM:
            return AVEN_E_NO_MEMORY;
    }
    return AVEN_E_KE_UNTRUSTED;
}

void checkTrust(const Engine& engine, const TrustedRoots& roots, X509* certificate, ServerRole role)
{
    const Owned<X509_STORE_CTX_free, X509_STORE_CTX> context(
        X509_STORE_CTX_new_ex(engine.library(), nullptr));
    require(context != nullptr &&
                X509_STORE_CTX_init(context.get(), roots.get(), certificate, nullptr) == 1,
            AVEN_E_NO_MEMORY);
    X509_VERIFY_PARAM* rules = X509_STORE_CTX_get0_param(context.get());
    X509_VERIFY_PARAM_set_auth_level(rules, SECURITY_LEVEL);
    X509_VERIFY_PARAM_set_depth(rules, AVEN_KE_CHAIN_MAX);
    if (X509_verify_cert(context.get()) == 1)
        return;

    const int error = X509_STORE_CTX_get_error(context.get());
    logLine("server's %s certificate, %d up: %s", nameOf(role),
            X509_STORE_CTX_get_error_depth(context.get()), X509_verify_cert_error_string(error));
    throw Failure{codeOfVerification(error)};
}

// A certificate that does not say what it is for is for neither: the two would be
// interchangeable.
void checkUsage(X509* certificate, ServerRole role)
{
    const uint32_t usage = X509_get_key_usage(certificate);
    const uint32_t wanted = role == ServerRole::Signing
                                ? KU_DIGITAL_SIGNATURE
                                : uint32_t{KU_KEY_ENCIPHERMENT} | KU_DATA_ENCIPHERMENT;
    if (usage != UINT32_MAX && (usage & wanted) != 0)
        return;
    logLine("server's %s certificate: key usage is missing or another", nameOf(role));
    throw Failure{AVEN_E_KE_USAGE};
}

}  // namespace

TrustedRoots readTrustedRoots(const Engine& engine, const char* file, const char* directory)
{
    RootTexts texts;
    if (file != nullptr) {
        std::error_code ignored;
        require(fs::is_regular_file(file, ignored), AVEN_E_KE_ROOTS_OPEN);
        addRoots(texts, file);
        require(!texts.ders().empty(), AVEN_E_KE_ROOTS_NONE);
    }
    if (directory != nullptr)
        addRootsInDirectory(texts, directory);
    require(!texts.ders().empty(), AVEN_E_KE_ROOTS_NONE);

    const RootTable::Digest digest = digestOf(engine, texts);
    if (TrustedRoots roots = engine.roots().find(digest))
        return roots;
    return engine.roots().add(digest, storeOf(engine, texts).release(), texts.bytes());
}

std::shared_ptr<Certificate> readServerCertificate(const Engine& engine, Bytes bytes)
{
    require(bytes.size > 0, AVEN_E_KEY_MISSING);
    require(bytes.size <= AVEN_KEY_TEXT_MAX, AVEN_E_INPUT_TOO_LONG);
    const bool isPem = !looksLikeDer(bytes) && hasPem(bytes);
    return isPem ? readCertificate(engine, bytes) : certificateOfDer(engine, bytes);
}

void checkServerCertificate(const Engine& engine, const TrustedRoots& roots,
                            const Certificate& certificate, ServerRole role)
{
    X509* x509 = certificate.x509.get();
    setIssuerId(x509);
    checkTrust(engine, roots, x509, role);
    checkUsage(x509, role);
}

bool signatureFits(const Engine& engine, const Certificate& certificate, Bytes content,
                   Bytes signature)
{
    const bool isSm2 = certificate.key.kind == AVEN_KEY_SM2;
    const Owned<EVP_MD_CTX_free, EVP_MD_CTX> context(EVP_MD_CTX_new());
    require(context != nullptr, AVEN_E_NO_MEMORY);
    EVP_PKEY_CTX* keyContext = nullptr;
    // RSA's padding is PKCS#1 v1.5 unless told.
    require(EVP_DigestVerifyInit_ex(context.get(), &keyContext, keHashName(keHash(isSm2)),
                                    engine.library(), nullptr, certificate.key.pkey.get(),
                                    nullptr) == 1,
            AVEN_E_INTERNAL);
    if (isSm2)
        require(EVP_PKEY_CTX_set1_id(keyContext, SM2_DEFAULT_ID,
                                     static_cast<int>(SM2_DEFAULT_ID_SIZE)) == 1,
                AVEN_E_INTERNAL);
    return EVP_DigestVerify(context.get(), signature.data, signature.size, content.data,
                            content.size) == 1;
}
