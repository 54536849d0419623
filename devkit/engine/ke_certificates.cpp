#include "ke_certificates.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <filesystem>
#include <fstream>
#include <string_view>
#include <system_error>

#include "engine_log.h"
#include "ke_protocol.h"
#include "secret_bytes.h"

namespace {

namespace fs = std::filesystem;

using Bio = Owned<BIO_free_all, BIO>;

constexpr uintmax_t ROOT_FILE_MAX = 16 << 20;
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

void addRoot(const Engine& engine, X509_STORE* roots, Bytes der)
{
    X509* made = X509_new_ex(engine.library(), nullptr);
    require(made != nullptr, AVEN_E_NO_MEMORY);
    const unsigned char* p = der.data;
    // Frees what it was given if it fails.
    const X509Certificate root(d2i_X509(&made, &p, static_cast<long>(der.size)));
    require(root != nullptr && p == der.data + der.size, AVEN_E_KEY_TEXT);
    setIssuerId(root.get());
    require(X509_STORE_add_cert(roots, root.get()) == 1, AVEN_E_NO_MEMORY);
}

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

// Returns how many certificates there were.
size_t addPemRoots(const Engine& engine, X509_STORE* roots, Bytes text)
{
    const Bio bio(BIO_new_mem_buf(text.data, static_cast<int>(text.size)));
    require(bio != nullptr, AVEN_E_NO_MEMORY);
    size_t count = 0;
    for (;;) {
        PemBlock block;
        if (!block.read(bio.get()))
            return count;
        const std::string_view label = block.label;
        if (label != PEM_STRING_X509 && label != PEM_STRING_X509_OLD)
            continue;
        addRoot(engine, roots, {block.data, static_cast<size_t>(block.size)});
        ++count;
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

size_t addRoots(const Engine& engine, X509_STORE* roots, const fs::path& path)
{
    std::error_code error;
    const uintmax_t size = fs::file_size(path, error);
    require(!error, AVEN_E_KE_ROOTS_OPEN);
    require(size <= ROOT_FILE_MAX, AVEN_E_INPUT_TOO_LONG);
    SecretBytes content(static_cast<size_t>(size));
    std::ifstream file(path, std::ios::binary);
    file.read(reinterpret_cast<char*>(content.data()), static_cast<std::streamsize>(size));
    require(file.good(), AVEN_E_KE_ROOTS_OPEN);

    if (!looksLikeDer(view(content)))
        return addPemRoots(engine, roots, view(content));
    addRoot(engine, roots, view(content));
    return 1;
}

// Every file counts, whatever its name, so that the directory needs no index. Links to
// files are followed, directories inside are not.
size_t addRootsInDirectory(const Engine& engine, X509_STORE* roots, const fs::path& directory)
{
    std::error_code error;
    size_t count = 0;
    fs::directory_iterator entry(directory, error);
    for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
        std::error_code unreadable;  // a dangling link, for example
        if (entry->is_regular_file(unreadable))
            count += addRoots(engine, roots, entry->path());
    }
    require(!error, AVEN_E_KE_ROOTS_OPEN);
    return count;
}

// ---- The server's certificates.

const char* nameOf(ServerRole role)
{
    return role == ServerRole::signing ? "signing" : "encryption";
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
    X509_VERIFY_PARAM_set_auth_level(X509_STORE_CTX_get0_param(context.get()), SECURITY_LEVEL);
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
    const uint32_t wanted = role == ServerRole::signing
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
    TrustedRoots roots(X509_STORE_new());
    require(roots != nullptr, AVEN_E_NO_MEMORY);
    size_t count = 0;
    if (file != nullptr) {
        std::error_code ignored;
        require(fs::is_regular_file(file, ignored), AVEN_E_KE_ROOTS_OPEN);
        count = addRoots(engine, roots.get(), file);
        require(count > 0, AVEN_E_KE_ROOTS_NONE);
    }
    if (directory != nullptr)
        count += addRootsInDirectory(engine, roots.get(), directory);
    require(count > 0, AVEN_E_KE_ROOTS_NONE);
    return roots;
}

std::shared_ptr<Certificate> readServerCertificate(const Engine& engine, Bytes bytes)
{
    require(bytes.size > 0, AVEN_E_KEY_MISSING);
    require(bytes.size <= 2 * KE_CERTIFICATE_MAX, AVEN_E_INPUT_TOO_LONG);
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
