#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <string>
#include <vector>

namespace cloudsim {

struct PkeyDeleter
{
    void operator()(EVP_PKEY *key) const { EVP_PKEY_free(key); }
};
struct X509Deleter
{
    void operator()(X509 *cert) const { X509_free(cert); }
};
using PkeyPtr = std::unique_ptr<EVP_PKEY, PkeyDeleter>;
using X509Ptr = std::unique_ptr<X509, X509Deleter>;

// A throw-away certificate authority made at every start, and the one server certificate it
// signed. Clients trust the CA file for as long as this run lasts; nothing is kept on disk.
struct Certificates
{
    PkeyPtr caKey;
    X509Ptr caCert;
    PkeyPtr serverKey;
    X509Ptr serverCert;
};

// The server certificate names every entry of altNames: IP addresses become IP entries, the
// rest DNS entries. Throws std::runtime_error with OpenSSL's reason on failure.
Certificates makeCertificates(const std::vector<std::string> &altNames);

std::string certificatePem(X509 *cert);

// Throws std::runtime_error with @p what and the reason OpenSSL gives for its last error.
[[noreturn]] void throwSslError(const std::string &what);

} // namespace cloudsim
