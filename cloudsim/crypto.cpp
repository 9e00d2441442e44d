#include "crypto.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/hmac.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>

#include <cstring>
#include <memory>
#include <stdexcept>
#include <vector>

namespace cloudsim {
namespace {

struct CtxDeleter
{
    void operator()(EVP_PKEY_CTX *ctx) const { EVP_PKEY_CTX_free(ctx); }
};

const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int base64Value(char c)
{
    if (c >= 'A' && c <= 'Z')
        return c - 'A';
    if (c >= 'a' && c <= 'z')
        return c - 'a' + 26;
    if (c >= '0' && c <= '9')
        return c - '0' + 52;
    if (c == '+' || c == '-')
        return 62;
    if (c == '/' || c == '_')
        return 63;
    return -1;
}

} // namespace

PkeyPtr generateRsaKey(int bits, const std::atomic<bool> *cancel)
{
    std::unique_ptr<EVP_PKEY_CTX, CtxDeleter> ctx(EVP_PKEY_CTX_new_id(EVP_PKEY_RSA, nullptr));
    if (!ctx || EVP_PKEY_keygen_init(ctx.get()) <= 0 || EVP_PKEY_CTX_set_rsa_keygen_bits(ctx.get(), bits) <= 0)
        throwSslError("cannot set up RSA key generation");
    // The prime search reports progress often; answering 0 ends it.
    EVP_PKEY_CTX_set_app_data(ctx.get(), const_cast<std::atomic<bool> *>(cancel));
    EVP_PKEY_CTX_set_cb(ctx.get(), [](EVP_PKEY_CTX *c) -> int {
        const auto *flag = static_cast<const std::atomic<bool> *>(EVP_PKEY_CTX_get_app_data(c));
        return flag && flag->load() ? 0 : 1;
    });
    EVP_PKEY *key = nullptr;
    if (EVP_PKEY_generate(ctx.get(), &key) <= 0)
        throwSslError("cannot generate an RSA key");
    return PkeyPtr(key);
}

PkeyPtr privateKeyFromPem(const std::string &pem)
{
    std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), &BIO_free);
    PkeyPtr key(bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr) : nullptr);
    if (!key)
        throwSslError("cannot read the private key");
    return key;
}

std::string publicKeyBase64(EVP_PKEY *key)
{
    unsigned char *der = nullptr;
    const int length = i2d_PUBKEY(key, &der);
    if (length <= 0)
        throwSslError("cannot encode the public key");
    const std::string bytes(reinterpret_cast<const char *>(der), static_cast<std::size_t>(length));
    OPENSSL_free(der);
    return base64Encode(bytes);
}

std::optional<std::string> rsaDecrypt(EVP_PKEY *key, const std::string &ciphertext)
{
    std::unique_ptr<EVP_PKEY_CTX, CtxDeleter> ctx(EVP_PKEY_CTX_new(key, nullptr));
    if (!ctx || EVP_PKEY_decrypt_init(ctx.get()) <= 0
        || EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) <= 0)
        return std::nullopt;
    // Newer OpenSSL answers a bad block with random bytes instead of an error; a simulator
    // wants to say plainly that the ciphertext was wrong. Older versions lack the switch.
    EVP_PKEY_CTX_ctrl_str(ctx.get(), "rsa_pkcs1_implicit_rejection", "0");
    const auto *in = reinterpret_cast<const unsigned char *>(ciphertext.data());
    std::size_t outLength = 0;
    if (EVP_PKEY_decrypt(ctx.get(), nullptr, &outLength, in, ciphertext.size()) <= 0)
        return std::nullopt;
    std::vector<unsigned char> out(outLength);
    if (EVP_PKEY_decrypt(ctx.get(), out.data(), &outLength, in, ciphertext.size()) <= 0) {
        ERR_clear_error();
        return std::nullopt;
    }
    return std::string(reinterpret_cast<const char *>(out.data()), outLength);
}

std::optional<std::string> aesEcbEncrypt(const std::string &key, const std::string &plain)
{
    if (key.size() != 32)
        return std::nullopt;
    std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> ctx(EVP_CIPHER_CTX_new(), &EVP_CIPHER_CTX_free);
    std::vector<unsigned char> out(plain.size() + 16);
    int first = 0;
    int last = 0;
    // Padding is on by default: PKCS#7, a whole block when the text fills its last one.
    if (!ctx
        || EVP_EncryptInit_ex(ctx.get(), EVP_aes_256_ecb(), nullptr,
                              reinterpret_cast<const unsigned char *>(key.data()), nullptr)
            != 1
        || EVP_EncryptUpdate(ctx.get(), out.data(), &first, reinterpret_cast<const unsigned char *>(plain.data()),
                             static_cast<int>(plain.size()))
            != 1
        || EVP_EncryptFinal_ex(ctx.get(), out.data() + first, &last) != 1) {
        ERR_clear_error();
        return std::nullopt;
    }
    return std::string(reinterpret_cast<const char *>(out.data()), static_cast<std::size_t>(first + last));
}

std::string base64Encode(const std::string &bytes)
{
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 2 < bytes.size(); i += 3) {
        const std::uint32_t n = (std::uint32_t(std::uint8_t(bytes[i])) << 16)
            | (std::uint32_t(std::uint8_t(bytes[i + 1])) << 8) | std::uint8_t(bytes[i + 2]);
        out += alphabet[(n >> 18) & 63];
        out += alphabet[(n >> 12) & 63];
        out += alphabet[(n >> 6) & 63];
        out += alphabet[n & 63];
    }
    if (i < bytes.size()) {
        std::uint32_t n = std::uint32_t(std::uint8_t(bytes[i])) << 16;
        if (i + 1 < bytes.size())
            n |= std::uint32_t(std::uint8_t(bytes[i + 1])) << 8;
        out += alphabet[(n >> 18) & 63];
        out += alphabet[(n >> 12) & 63];
        out += i + 1 < bytes.size() ? alphabet[(n >> 6) & 63] : '=';
        out += '=';
    }
    return out;
}

std::optional<std::string> base64Decode(const std::string &text)
{
    std::string trimmed = text;
    while (!trimmed.empty() && trimmed.back() == '=')
        trimmed.pop_back();
    if (text.size() - trimmed.size() > 2 || trimmed.size() % 4 == 1)
        return std::nullopt;
    std::string out;
    std::uint32_t bits = 0;
    int count = 0;
    for (char c : trimmed) {
        const int v = base64Value(c);
        if (v < 0)
            return std::nullopt;
        bits = (bits << 6) | std::uint32_t(v);
        count += 6;
        if (count >= 8) {
            count -= 8;
            out += static_cast<char>((bits >> count) & 0xff);
        }
    }
    return out;
}

std::string hmacSha256Hex(const std::string &key, const std::string &message)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (!HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
              reinterpret_cast<const unsigned char *>(message.data()), message.size(), digest, &length))
        throwSslError("cannot compute an HMAC");
    static const char digits[] = "0123456789abcdef";
    std::string hex;
    for (unsigned int i = 0; i < length; ++i) {
        hex += digits[digest[i] >> 4];
        hex += digits[digest[i] & 15];
    }
    return hex;
}

std::string randomHex(std::size_t bytes)
{
    std::vector<unsigned char> data(bytes);
    if (RAND_bytes(data.data(), static_cast<int>(bytes)) != 1)
        throwSslError("no random bytes");
    static const char digits[] = "0123456789abcdef";
    std::string hex;
    for (unsigned char b : data) {
        hex += digits[b >> 4];
        hex += digits[b & 15];
    }
    return hex;
}

std::uint32_t randomBelow(std::uint32_t bound)
{
    std::uint32_t value = 0;
    if (RAND_bytes(reinterpret_cast<unsigned char *>(&value), sizeof value) != 1)
        throwSslError("no random bytes");
    return value % bound; // the bias is far below anything a test could see
}

} // namespace cloudsim
