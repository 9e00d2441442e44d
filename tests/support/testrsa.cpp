#include "support/testrsa.h"

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <memory>

namespace {

struct KeyFree
{
    void operator()(EVP_PKEY *key) const { EVP_PKEY_free(key); }
};
struct ContextFree
{
    void operator()(EVP_PKEY_CTX *context) const { EVP_PKEY_CTX_free(context); }
};
using Key = std::unique_ptr<EVP_PKEY, KeyFree>;

Key readKey(const QByteArray &pem, bool isPrivate)
{
    BIO *bio = BIO_new_mem_buf(pem.constData(), int(pem.size()));
    EVP_PKEY *key = isPrivate ? PEM_read_bio_PrivateKey(bio, nullptr, nullptr, nullptr)
                              : PEM_read_bio_PUBKEY(bio, nullptr, nullptr, nullptr);
    BIO_free(bio);
    return Key(key);
}

QByteArray run(const Key &key, bool encrypt, const QByteArray &in)
{
    if (!key)
        return QByteArray();
    std::unique_ptr<EVP_PKEY_CTX, ContextFree> context(EVP_PKEY_CTX_new(key.get(), nullptr));
    const auto step = encrypt ? EVP_PKEY_encrypt : EVP_PKEY_decrypt;
    const auto *data = reinterpret_cast<const unsigned char *>(in.constData());
    std::size_t length = 0;
    if (!context || (encrypt ? EVP_PKEY_encrypt_init(context.get()) : EVP_PKEY_decrypt_init(context.get())) <= 0
        || EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) <= 0
        || step(context.get(), nullptr, &length, data, std::size_t(in.size())) <= 0)
        return QByteArray();
    QByteArray out(int(length), '\0');
    if (step(context.get(), reinterpret_cast<unsigned char *>(out.data()), &length, data, std::size_t(in.size())) <= 0)
        return QByteArray();
    out.resize(int(length));
    return out;
}

} // namespace

QByteArray TestRsa::encrypt(const QByteArray &publicPem, const QByteArray &plain)
{
    return run(readKey(publicPem, false), true, plain);
}

QByteArray TestRsa::decrypt(const QByteArray &privatePem, const QByteArray &cipher)
{
    return run(readKey(privatePem, true), false, cipher);
}

QByteArray TestRsa::pemFromBody(const QString &body)
{
    // A body that carries its own markers or line breaks is not the bare form.
    if (body.contains(QLatin1Char('-')) || body.contains(QLatin1Char('\n')))
        return QByteArray();
    return "-----BEGIN PUBLIC KEY-----\n" + body.toLatin1() + "\n-----END PUBLIC KEY-----";
}

int TestRsa::bits(const QByteArray &publicPem)
{
    const Key key = readKey(publicPem, false);
    return key && EVP_PKEY_get_base_id(key.get()) == EVP_PKEY_RSA ? EVP_PKEY_get_bits(key.get()) : 0;
}
