#include "certificates.h"

#include <fcntl.h>
#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "engine/key_exchange/ke_protocol.h"

namespace {

[[noreturn]] void throwForFile(const char* what, const std::string& path)
{
    throw PeerError(std::string(what) + " " + path + ": " + strerror(errno));
}

using BioPtr = std::unique_ptr<BIO, decltype(&BIO_free_all)>;

BioPtr memoryBio()
{
    BioPtr bio(BIO_new(BIO_s_secmem()), BIO_free_all);
    must(bio != nullptr, "allocate");
    return bio;
}

std::string contentOf(BIO* bio)
{
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio, &data);
    return std::string(data, static_cast<size_t>(size));
}

void addExtension(X509* certificate, X509* issuer, int nid, const std::string& value)
{
    X509V3_CTX context;
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    const std::unique_ptr<X509_EXTENSION, decltype(&X509_EXTENSION_free)> extension(
        X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str()), X509_EXTENSION_free);
    must(extension != nullptr && X509_add_ext(certificate, extension.get(), -1) == 1,
         "make a certificate's extension");
}

void setSerial(X509* certificate)
{
    unsigned char bytes[16];
    must(RAND_bytes(bytes, sizeof bytes) == 1, "draw randomness");
    bytes[0] = static_cast<unsigned char>((bytes[0] & 0x7F) | 0x40);  // positive, never shorter
    const std::unique_ptr<BIGNUM, decltype(&BN_free)> number(
        BN_bin2bn(bytes, sizeof bytes, nullptr), BN_free);
    must(number != nullptr &&
             BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(certificate)) != nullptr,
         "number a certificate");
}

void addName(X509_NAME* name, const char* field, const std::string& text)
{
    must(X509_NAME_add_entry_by_txt(name, field, MBSTRING_UTF8,
                                    reinterpret_cast<const unsigned char*>(text.c_str()), -1, -1,
                                    0) == 1,
         "name a certificate");
}

// With SM2, SM3 and the default ID, which libcrypto 3.0 does not take by itself.
void sign(X509* certificate, EVP_PKEY* key)
{
    const bool isSm2 = kindOf(key) == KeyKind::Sm2;
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                          EVP_MD_CTX_free);
    EVP_PKEY_CTX* keyContext = nullptr;
    must(context != nullptr &&
             EVP_DigestSignInit(context.get(), &keyContext, isSm2 ? EVP_sm3() : EVP_sha256(),
                                nullptr, key) == 1,
         "start a signature");
    if (isSm2)
        must(EVP_PKEY_CTX_set1_id(keyContext, SM2_DEFAULT_ID,
                                  static_cast<int>(SM2_DEFAULT_ID_SIZE)) == 1,
             "set the signer's ID");
    must(X509_sign_ctx(certificate, context.get()) > 0, "sign a certificate");
}

// An issuer without a certificate stands for the certificate itself.
CertificatePtr certify(const CertificatePlan& plan, EVP_PKEY* holder, const Credential& issuer)
{
    CertificatePtr certificate(X509_new(), X509_free);
    must(certificate != nullptr, "allocate");
    X509* x509 = certificate.get();
    X509* issuing = issuer.certificate != nullptr ? issuer.certificate.get() : x509;

    must(X509_set_version(x509, X509_VERSION_3) == 1, "make a certificate");
    setSerial(x509);
    X509_NAME* name = X509_get_subject_name(x509);
    addName(name, "C", "CN");
    addName(name, "O", "Corvane test peer");
    addName(name, "CN", plan.name);
    must(X509_set_issuer_name(x509, X509_get_subject_name(issuing)) == 1 &&
             X509_gmtime_adj(X509_getm_notBefore(x509), plan.notBefore) != nullptr &&
             X509_gmtime_adj(X509_getm_notAfter(x509), plan.notAfter) != nullptr &&
             X509_set_pubkey(x509, holder) == 1,
         "make a certificate");

    addExtension(x509, issuing, NID_basic_constraints,
                 plan.isAuthority ? "critical,CA:TRUE" : "critical,CA:FALSE");
    if (!plan.usage.empty())
        addExtension(x509, issuing, NID_key_usage, plan.usage);
    addExtension(x509, issuing, NID_subject_key_identifier, "hash");
    if (issuing != x509)
        addExtension(x509, issuing, NID_authority_key_identifier, "keyid");
    sign(x509, issuer.key.get());
    return certificate;
}

std::string pathOf(const std::string& directory, const char* file)
{
    return directory + "/" + file;
}

void writeCredential(const std::string& directory, const std::string& name,
                     const Credential& credential)
{
    const BioPtr bio = memoryBio();
    must(PEM_write_bio_PKCS8PrivateKey(bio.get(), credential.key.get(), nullptr, nullptr, 0,
                                       nullptr, nullptr) == 1,
         "write a key");
    writePrivateFile(pathOf(directory, (name + ".key").c_str()), contentOf(bio.get()));
    writePrivateFile(pathOf(directory, (name + ".crt").c_str()),
                     toPem(credential.certificate.get()));
}

// The key files have no password; without this, libcrypto would ask at the terminal.
int noPassword(char*, int, int, void*)
{
    return -1;
}

Credential readCredential(const std::string& directory, const std::string& name)
{
    const std::string keyPath = pathOf(directory, (name + ".key").c_str());
    const std::string certificatePath = pathOf(directory, (name + ".crt").c_str());
    errno = 0;
    const BioPtr keyBio(BIO_new_file(keyPath.c_str(), "r"), BIO_free_all);
    if (keyBio == nullptr)
        throwForFile("cannot open", keyPath);
    const BioPtr certificateBio(BIO_new_file(certificatePath.c_str(), "r"), BIO_free_all);
    if (certificateBio == nullptr)
        throwForFile("cannot open", certificatePath);

    Credential credential = {
        KeyPtr(PEM_read_bio_PrivateKey(keyBio.get(), nullptr, noPassword, nullptr), EVP_PKEY_free),
        CertificatePtr(PEM_read_bio_X509(certificateBio.get(), nullptr, noPassword, nullptr),
                       X509_free)};
    if (credential.key == nullptr)
        throw PeerError("no private key in " + keyPath);
    if (credential.certificate == nullptr)
        throw PeerError("no certificate in " + certificatePath);
    if (X509_check_private_key(credential.certificate.get(), credential.key.get()) != 1)
        throw PeerError(keyPath + " is not the key of " + certificatePath);
    kindOf(credential.key.get());
    return credential;
}

}  // namespace

CertificatePlan rootPlan()
{
    return {"Test root", "critical,keyCertSign,cRLSign", true};
}

CertificatePlan signingPlan()
{
    return {"Test server", "critical,digitalSignature"};
}

CertificatePlan encryptionPlan()
{
    return {"Test server", "critical,keyEncipherment,dataEncipherment"};
}

KeyPtr makeKey(KeyKind kind, unsigned rsaBits)
{
    KeyPtr key(kind == KeyKind::Sm2 ? EVP_PKEY_Q_keygen(nullptr, nullptr, "SM2")
                                    : EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", size_t{rsaBits}),
               EVP_PKEY_free);
    must(key != nullptr, "make a key");
    return key;
}

KeyKind kindOf(const EVP_PKEY* key)
{
    if (EVP_PKEY_is_a(key, "SM2") == 1)
        return KeyKind::Sm2;
    if (EVP_PKEY_is_a(key, "RSA") == 1)
        return KeyKind::Rsa;
    throw PeerError("a key is neither SM2 nor RSA");
}

Credential makeCredential(const CertificatePlan& plan, KeyKind kind, const Credential& issuer,
                          unsigned rsaBits)
{
    const KeyPtr key = makeKey(kind, rsaBits);
    return {key, certify(plan, key.get(), issuer)};
}

Credential makeRoot(const CertificatePlan& plan, KeyKind kind)
{
    const KeyPtr key = makeKey(kind);
    return {key, certify(plan, key.get(), {key, nullptr})};
}

void writeCredentials(const std::string& directory, const Credential& root,
                      const ServerCredentials& server)
{
    if (mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST)
        throwForFile("cannot make", directory);
    for (const char* file : {"root.crt", "root.key", "sign.crt", "sign.key", "enc.crt", "enc.key"})
        if (access(pathOf(directory, file).c_str(), F_OK) == 0)
            throw PeerError(pathOf(directory, file) + " exists already");
    writeCredential(directory, "root", root);
    writeCredential(directory, "sign", server.signing);
    writeCredential(directory, "enc", server.encryption);
}

ServerCredentials readCredentials(const std::string& directory)
{
    ServerCredentials server = {readCredential(directory, "sign"),
                                readCredential(directory, "enc")};
    if (kindOf(server.signing.key.get()) != kindOf(server.encryption.key.get()))
        throw PeerError("sign.key and enc.key are of two kinds");
    return server;
}

std::string toDer(X509* certificate)
{
    std::string der(static_cast<size_t>(i2d_X509(certificate, nullptr)), '\0');
    unsigned char* p = reinterpret_cast<unsigned char*>(der.data());
    must(i2d_X509(certificate, &p) > 0, "write a certificate");
    return der;
}

std::string toPem(X509* certificate)
{
    const BioPtr bio = memoryBio();
    must(PEM_write_bio_X509(bio.get(), certificate) == 1, "write a certificate");
    return contentOf(bio.get());
}

void writePrivateFile(const std::string& path, const std::string& content)
{
    const std::string temporary = path + ".new";
    const int file = open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (file < 0)
        throwForFile("cannot make", temporary);
    const bool written =
        write(file, content.data(), content.size()) == static_cast<ssize_t>(content.size());
    const bool closed = close(file) == 0;
    if (!written || !closed || rename(temporary.c_str(), path.c_str()) != 0) {
        const int error = errno;
        unlink(temporary.c_str());
        errno = error;
        throwForFile("cannot write", path);
    }
}
