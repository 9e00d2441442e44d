#include "crypto.h"

#include <QByteArray>

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace talvor::cloudmaterial {

namespace {

constexpr std::size_t kAes256KeyBytes = 32;
constexpr std::size_t kAesIvBytes = 16;

struct CipherCtxFree
{
    void operator()(EVP_CIPHER_CTX *ctx) const { EVP_CIPHER_CTX_free(ctx); }
};
using CipherCtxPtr = std::unique_ptr<EVP_CIPHER_CTX, CipherCtxFree>;

struct BioFree
{
    void operator()(BIO *bio) const { BIO_free(bio); }
};
using BioPtr = std::unique_ptr<BIO, BioFree>;

unsigned char *uchars(std::string &s)
{
    return reinterpret_cast<unsigned char *>(s.data());
}

const unsigned char *uchars(const std::string &s)
{
    return reinterpret_cast<const unsigned char *>(s.data());
}

// The texts of one AES function's steps, and whether it reports OpenSSL's error on stderr
// (the ECB pair does, the CBC pair stays silent).
struct AesSteps
{
    const char *initialize;
    const char *update;
    const char *finalize;
    bool reportOpenSslError;
};

constexpr AesSteps kEcbEncrypt{"Failed to initialize AES encryption.", "Failed to encrypt data.",
                               "Failed to finalize AES encryption.", true};
constexpr AesSteps kEcbDecrypt{"Failed to initialize AES decryption.", "Failed to decrypt data.",
                               "Failed to finalize AES decryption.", true};
constexpr AesSteps kCbcEncrypt{"Failed to initialize AES encryption.", "Failed to encrypt data.",
                               "Failed to finalize AES encryption.", false};
constexpr AesSteps kCbcDecrypt{"Failed to initialize decryption.", "Decryption failed.",
                               "Failed to finalize decryption.", false};

[[noreturn]] void fail(const AesSteps &steps, const char *message)
{
    if (steps.reportOpenSslError) {
        if (const unsigned long code = ERR_get_error()) {
            char text[130];
            ERR_error_string_n(code, text, sizeof text);
            std::fprintf(stderr, "OpenSSL Error: %s\n", text);
        }
    }
    // Whatever is left would otherwise be reported by the next failing call on this thread.
    ERR_clear_error();
    throw std::runtime_error(message);
}

// EVP reads a fixed 32 key bytes (and 16 iv bytes) from the pointers it is given; a shorter
// buffer is refused instead of being read past its end.
bool keyMaterialFits(const std::string &key, const std::string *iv)
{
    return key.size() >= kAes256KeyBytes && (!iv || iv->size() >= kAesIvBytes);
}

std::string aesEncrypt(const EVP_CIPHER *cipher, const AesSteps &steps, const std::string &plain,
                       const std::string &key, const std::string *iv)
{
    ERR_clear_error(); // a reported error must be this call's own
    CipherCtxPtr ctx(EVP_CIPHER_CTX_new());
    if (!ctx)
        fail(steps, "Failed to create EVP_CIPHER_CTX.");
    if (!keyMaterialFits(key, iv)
        || EVP_EncryptInit_ex(ctx.get(), cipher, nullptr, uchars(key), iv ? uchars(*iv) : nullptr) != 1)
        fail(steps, steps.initialize);

    const int blockSize = EVP_CIPHER_get_block_size(cipher);
    if (plain.size() > static_cast<std::size_t>(INT_MAX - blockSize))
        fail(steps, steps.update);
    std::string out(plain.size() + blockSize, '\0');
    int length = 0;
    if (EVP_EncryptUpdate(ctx.get(), uchars(out), &length, uchars(plain), static_cast<int>(plain.size())) != 1)
        fail(steps, steps.update);
    int finalLength = 0;
    if (EVP_EncryptFinal_ex(ctx.get(), uchars(out) + length, &finalLength) != 1)
        fail(steps, steps.finalize);
    out.resize(static_cast<std::size_t>(length) + finalLength);
    return out;
}

std::string aesDecrypt(const EVP_CIPHER *cipher, const AesSteps &steps, const std::string &in, const std::string &key,
                       const std::string *iv)
{
    ERR_clear_error();
    CipherCtxPtr ctx(EVP_CIPHER_CTX_new());
    if (!ctx)
        fail(steps, "Failed to create EVP_CIPHER_CTX.");
    if (!keyMaterialFits(key, iv)
        || EVP_DecryptInit_ex(ctx.get(), cipher, nullptr, uchars(key), iv ? uchars(*iv) : nullptr) != 1)
        fail(steps, steps.initialize);

    // One block of headroom is what EVP documents for a decrypt update; the result is cut below.
    const int blockSize = EVP_CIPHER_get_block_size(cipher);
    if (in.size() > static_cast<std::size_t>(INT_MAX - blockSize))
        fail(steps, steps.update);
    std::string out(in.size() + blockSize, '\0');
    int length = 0;
    if (EVP_DecryptUpdate(ctx.get(), uchars(out), &length, uchars(in), static_cast<int>(in.size())) != 1)
        fail(steps, steps.update);
    int finalLength = 0;
    if (EVP_DecryptFinal_ex(ctx.get(), uchars(out) + length, &finalLength) != 1)
        fail(steps, steps.finalize);
    out.resize(static_cast<std::size_t>(length) + finalLength);
    return out;
}

// The cloud hands out SubjectPublicKeyInfo PEM keys and expects PKCS#1 v1.5 ciphertext. The
// RSA_* calls below are the documented way to do exactly that; OpenSSL 3 deprecates them in
// favour of EVP_PKEY only, so the warning is silenced for these few lines.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

struct RsaFree
{
    void operator()(RSA *rsa) const { RSA_free(rsa); }
};

// Raw ciphertext of plain under the key read from bio, or empty on any failure.
std::string pkcs1PublicEncrypt(BIO *bio, const std::string &plain)
{
    std::unique_ptr<RSA, RsaFree> rsa(PEM_read_bio_RSA_PUBKEY(bio, nullptr, nullptr, nullptr));
    if (!rsa || plain.size() > static_cast<std::size_t>(INT_MAX))
        return {};
    std::string out(static_cast<std::size_t>(RSA_size(rsa.get())), '\0');
    const int length =
        RSA_public_encrypt(static_cast<int>(plain.size()), uchars(plain), uchars(out), rsa.get(), RSA_PKCS1_PADDING);
    if (length < 0)
        return {};
    out.resize(static_cast<std::size_t>(length));
    return out;
}

#pragma GCC diagnostic pop

} // namespace

std::string generateAesKey(int bits)
{
    if (bits != 128 && bits != 192 && bits != 256)
        throw std::invalid_argument("AES key length must be 128, 192, or 256 bits.");
    std::string key(static_cast<std::size_t>(bits / 8), '\0');
    if (RAND_bytes(uchars(key), static_cast<int>(key.size())) != 1) {
        ERR_clear_error();
        throw std::invalid_argument("RAND_bytes failed, handle the error.");
    }
    return key;
}

std::string generateIv()
{
    std::string iv(kAesIvBytes, '\0');
    if (RAND_bytes(uchars(iv), static_cast<int>(iv.size())) != 1) {
        ERR_clear_error();
        throw std::runtime_error("Failed to generate random IV.");
    }
    return iv;
}

std::string aesEcbEncrypt(const std::string &plain, const std::string &key)
{
    return aesEncrypt(EVP_aes_256_ecb(), kEcbEncrypt, plain, key, nullptr);
}

std::string aesEcbDecrypt(const std::string &cipher, const std::string &key)
{
    return aesDecrypt(EVP_aes_256_ecb(), kEcbDecrypt, cipher, key, nullptr);
}

std::string aesCbcEncrypt(const std::string &plain, const std::string &key, const std::string &iv)
{
    return aesEncrypt(EVP_aes_256_cbc(), kCbcEncrypt, plain, key, &iv);
}

std::string aesCbcDecrypt(const std::string &cipher, const std::string &key, const std::string &iv)
{
    return aesDecrypt(EVP_aes_256_cbc(), kCbcDecrypt, cipher, key, &iv);
}

std::string base64Encode(const std::string &bytes)
{
    return QByteArray::fromStdString(bytes).toBase64().toStdString();
}

std::string base64Decode(const std::string &text)
{
    return QByteArray::fromBase64(QByteArray::fromStdString(text)).toStdString();
}

std::string rsaPublicEncrypt(const std::string &plain, const char *pem)
{
    if (!pem)
        return {};
    const std::size_t pemLength = std::strlen(pem);
    if (pemLength > static_cast<std::size_t>(INT_MAX))
        return {};
    std::string cipher;
    if (BioPtr bio{BIO_new_mem_buf(pem, static_cast<int>(pemLength))})
        cipher = pkcs1PublicEncrypt(bio.get(), plain);
    // A failed read or encryption leaves errors queued; none of them concern later calls.
    ERR_clear_error();
    if (cipher.empty())
        return {};
    return base64Encode(cipher);
}

} // namespace talvor::cloudmaterial
