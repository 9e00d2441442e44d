#include "certificates.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <arpa/inet.h>

#include <stdexcept>

namespace cloudsim {
namespace {

PkeyPtr newKey()
{
    // P-256 keys are made in a blink, which keeps every test's start fast.
    PkeyPtr key(EVP_EC_gen("P-256"));
    if (!key)
        throwSslError("cannot generate a key");
    return key;
}

void setName(X509 *cert, const char *commonName, bool issuerToo)
{
    X509_NAME *name = X509_get_subject_name(cert);
    X509_NAME_add_entry_by_txt(name, "O", MBSTRING_UTF8, reinterpret_cast<const unsigned char *>("cloudsim"), -1, -1,
                               0);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8, reinterpret_cast<const unsigned char *>(commonName), -1, -1,
                               0);
    if (issuerToo)
        X509_set_issuer_name(cert, name);
}

void addExtension(X509 *cert, X509 *issuer, int nid, const std::string &value)
{
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
    X509_EXTENSION *ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value.c_str());
    if (!ext || !X509_add_ext(cert, ext, -1)) {
        X509_EXTENSION_free(ext);
        throwSslError("cannot add the extension " + value);
    }
    X509_EXTENSION_free(ext);
}

X509Ptr newCertificate(EVP_PKEY *key)
{
    X509Ptr cert(X509_new());
    if (!cert)
        throwSslError("cannot allocate a certificate");
    X509_set_version(cert.get(), X509_VERSION_3);
    // Random serials: clients that cache certificates must never see two alike.
    BIGNUM *serial = BN_new();
    if (!serial || !BN_rand(serial, 63, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY)
        || !BN_to_ASN1_INTEGER(serial, X509_get_serialNumber(cert.get()))) {
        BN_free(serial);
        throwSslError("cannot make a serial number");
    }
    BN_free(serial);
    // An hour of slack before now, against small clock differences between machines.
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), 30L * 24 * 3600);
    X509_set_pubkey(cert.get(), key);
    return cert;
}

bool isIpAddress(const std::string &name)
{
    unsigned char buf[16];
    return inet_pton(AF_INET, name.c_str(), buf) == 1 || inet_pton(AF_INET6, name.c_str(), buf) == 1;
}

} // namespace

Certificates makeCertificates(const std::vector<std::string> &altNames)
{
    Certificates c;
    c.caKey = newKey();
    c.caCert = newCertificate(c.caKey.get());
    setName(c.caCert.get(), "cloudsim local CA", true);
    addExtension(c.caCert.get(), c.caCert.get(), NID_basic_constraints, "critical,CA:TRUE");
    addExtension(c.caCert.get(), c.caCert.get(), NID_key_usage, "critical,keyCertSign,cRLSign");
    addExtension(c.caCert.get(), c.caCert.get(), NID_subject_key_identifier, "hash");
    if (!X509_sign(c.caCert.get(), c.caKey.get(), EVP_sha256()))
        throwSslError("cannot sign the CA certificate");

    c.serverKey = newKey();
    c.serverCert = newCertificate(c.serverKey.get());
    setName(c.serverCert.get(), altNames.empty() ? "localhost" : altNames.front().c_str(), false);
    X509_set_issuer_name(c.serverCert.get(), X509_get_subject_name(c.caCert.get()));
    std::string san;
    for (const auto &name : altNames) {
        if (!san.empty())
            san += ',';
        san += (isIpAddress(name) ? "IP:" : "DNS:") + name;
    }
    addExtension(c.serverCert.get(), c.caCert.get(), NID_basic_constraints, "critical,CA:FALSE");
    addExtension(c.serverCert.get(), c.caCert.get(), NID_key_usage, "critical,digitalSignature");
    addExtension(c.serverCert.get(), c.caCert.get(), NID_ext_key_usage, "serverAuth");
    addExtension(c.serverCert.get(), c.caCert.get(), NID_subject_key_identifier, "hash");
    addExtension(c.serverCert.get(), c.caCert.get(), NID_authority_key_identifier, "keyid:always");
    if (!san.empty())
        addExtension(c.serverCert.get(), c.caCert.get(), NID_subject_alt_name, san);
    if (!X509_sign(c.serverCert.get(), c.caKey.get(), EVP_sha256()))
        throwSslError("cannot sign the server certificate");
    return c;
}

std::string certificatePem(X509 *cert)
{
    BIO *bio = BIO_new(BIO_s_mem());
    if (!bio || !PEM_write_bio_X509(bio, cert)) {
        BIO_free(bio);
        throwSslError("cannot write the certificate");
    }
    char *data = nullptr;
    const long size = BIO_get_mem_data(bio, &data);
    std::string pem(data, static_cast<std::size_t>(size));
    BIO_free(bio);
    return pem;
}

[[noreturn]] void throwSslError(const std::string &what)
{
    std::string reason = what;
    if (const unsigned long code = ERR_get_error()) {
        char text[256];
        ERR_error_string_n(code, text, sizeof text);
        reason += ": ";
        reason += text;
    }
    throw std::runtime_error(reason);
}

} // namespace cloudsim
