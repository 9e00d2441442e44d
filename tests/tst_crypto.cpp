#include "cloudmaterial/protocol/crypto.h"

#include <QRegularExpression>
#include <QTemporaryFile>
#include <QtTest>

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <unistd.h>

#include <functional>
#include <memory>

using namespace talvor::cloudmaterial;

namespace {

// SP 800-38A, appendix F.1.5 (ECB-AES256) and F.2.5 (CBC-AES256).
const char kNistKey[] = "603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4";
const char kNistIv[] = "000102030405060708090a0b0c0d0e0f";
const char kNistPlain[] = "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
                          "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710";
const char kNistEcb[] = "f3eed1bdb5d2a03c064b5a7e3db181f8591ccb10d410ed26dc5ba74a31362870"
                        "b6ed21b99ca6f4f9f153e7b1beafed1d23304b7a39f9f3ff067d8d8f9e24ecc7";
const char kNistCbc[] = "f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d"
                        "39f23369a9d9bacfa530e26304231461b2eb05e2c39be9fcda6c19078c6a9d1b";
const char kKey[] = "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f";
const char kOtherKey[] = "8f1c22a7d0b94e3365aa01f7c2d85e9b3147e6a00c9d52b8fa1763e4094dbc26";
const char kIv[] = "f0e1d2c3b4a5968778695a4b3c2d1e0f";

std::string fromHex(const char *hex)
{
    return QByteArray::fromHex(hex).toStdString();
}
QByteArray toHex(const std::string &bytes)
{
    return QByteArray::fromStdString(bytes).toHex();
}

// Bytes 0, 7, 14, ... modulo 256: every length has NULs and high bytes in it.
std::string pattern(int length)
{
    std::string s(static_cast<std::size_t>(length), '\0');
    for (int i = 0; i < length; ++i)
        s[std::size_t(i)] = static_cast<char>((i * 7) & 0xff);
    return s;
}

std::string crypt(bool ecb, bool encrypt, const std::string &data, const std::string &key, const std::string &iv)
{
    if (ecb)
        return encrypt ? aesEcbEncrypt(data, key) : aesEcbDecrypt(data, key);
    return encrypt ? aesCbcEncrypt(data, key, iv) : aesCbcDecrypt(data, key, iv);
}

using PkeyPtr = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using BioPtr = std::unique_ptr<BIO, decltype(&BIO_free)>;

// The what() of the exception that call throws, or what happened instead; with what fd 2 got meanwhile.
QString thrownBy(const std::function<void()> &call, QByteArray *written)
{
    // An unrelated error left in this thread's OpenSSL queue must not be what gets reported.
    BioPtr garbage(BIO_new_mem_buf("not a key", -1), BIO_free);
    EVP_PKEY_free(PEM_read_bio_PUBKEY(garbage.get(), nullptr, nullptr, nullptr));
    QTemporaryFile file;
    std::fflush(stderr);
    const int saved = ::dup(STDERR_FILENO);
    if (!file.open() || ERR_peek_error() == 0 || saved < 0 || ::dup2(file.handle(), STDERR_FILENO) < 0)
        return QStringLiteral("no set-up");
    QString result = QStringLiteral("nothing thrown");
    try {
        call();
    } catch (const std::exception &e) {
        result = QString::fromStdString(e.what());
    }
    std::fflush(stderr);
    ::dup2(saved, STDERR_FILENO);
    ::close(saved);
    ERR_clear_error();
    QFile reader(file.fileName());
    *written = reader.open(QIODevice::ReadOnly) ? reader.readAll() : QByteArray("unreadable");
    return result;
}

std::string pemOf(EVP_PKEY *key, bool privateHalf = false)
{
    BioPtr bio(BIO_new(BIO_s_mem()), BIO_free);
    char *data = nullptr;
    if (!bio
        || (privateHalf ? PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr)
                        : PEM_write_bio_PUBKEY(bio.get(), key))
            != 1)
        return {};
    const long length = BIO_get_mem_data(bio.get(), &data);
    return std::string(data, std::size_t(length));
}

std::string privateDecrypt(EVP_PKEY *key, const std::string &cipher)
{
    std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> ctx(EVP_PKEY_CTX_new(key, nullptr), EVP_PKEY_CTX_free);
    const auto *in = reinterpret_cast<const unsigned char *>(cipher.data());
    std::size_t length = 512;
    std::string out(length, '\0');
    if (!ctx || EVP_PKEY_decrypt_init(ctx.get()) != 1 || EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) != 1
        || EVP_PKEY_decrypt(ctx.get(), reinterpret_cast<unsigned char *>(out.data()), &length, in, cipher.size()) != 1)
        return "<decryption failed>";
    out.resize(length);
    return out;
}

} // namespace

class TestCrypto : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void randomMaterial()
    {
        for (const int bits : {128, 192, 256}) {
            const std::string first = generateAesKey(bits);
            QCOMPARE(int(first.size()), bits / 8);
            QVERIFY(first != generateAesKey(bits) && first != std::string(first.size(), '\0'));
        }
        QByteArray written;
        for (const int bits : {0, 64, 255, 512, -256})
            QCOMPARE(thrownBy([&] { generateAesKey(bits); }, &written),
                     QStringLiteral("AES key length must be 128, 192, or 256 bits."));
        const std::string iv = generateIv();
        QVERIFY(iv.size() == 16 && iv != generateIv());
    }

    void aes()
    {
        for (const bool ecb : {true, false}) {
            QByteArray written;
            // Known answers: the published ciphertext, then one whole PKCS#7 block of 0x10 bytes, as
            // checked by decrypting it back with padding removed.
            const std::string nistKey = fromHex(kNistKey), nistIv = fromHex(kNistIv), plain = fromHex(kNistPlain);
            const std::string cipher = crypt(ecb, true, plain, nistKey, nistIv);
            QCOMPARE(toHex(cipher.substr(0, 64)), QByteArray(ecb ? kNistEcb : kNistCbc));
            QCOMPARE(cipher.size(), std::size_t(80));
            QCOMPARE(toHex(crypt(ecb, false, cipher, nistKey, nistIv)), toHex(plain));
            // Without the padding block the last published block is not valid padding.
            QCOMPARE(thrownBy([&] { crypt(ecb, false, cipher.substr(0, 64), nistKey, nistIv); }, &written),
                     ecb ? QStringLiteral("Failed to finalize AES decryption.")
                         : QStringLiteral("Failed to finalize decryption."));

            // Round trips; no hidden randomness; key and iv both take part; a long key or iv is cut to 32 or 16 bytes.
            const std::string key = fromHex(kKey), iv = fromHex(kIv);
            for (const int length : {0, 1, 15, 16, 17, 1000}) {
                const std::string data = pattern(length), sealed = crypt(ecb, true, data, key, iv);
                QCOMPARE(int(sealed.size()), (length / 16 + 1) * 16);
                QCOMPARE(toHex(crypt(ecb, false, sealed, key, iv)), toHex(data));
                QCOMPARE(toHex(crypt(ecb, true, data, key + "trailing bytes", iv + "extra")), toHex(sealed));
                QVERIFY(crypt(ecb, true, data, fromHex(kOtherKey), iv) != sealed);
                QCOMPARE(crypt(ecb, true, data, key, std::string(16, 'x')) == sealed, ecb);
            }
        }
    }

    void aesFailures_data()
    {
        QTest::addColumn<int>("function"); // 0 ECB encrypt, 1 ECB decrypt, 2 CBC encrypt, 3 CBC decrypt
        QTest::addColumn<int>("keyLength");
        QTest::addColumn<int>("ivLength");
        QTest::addColumn<QByteArray>("cipher"); // hex; null: a good 48-byte ciphertext of 40 bytes
        QTest::addColumn<QString>("message");
        QTest::addColumn<QString>("reason"); // in the one stderr line; null: nothing written
        // A short key or iv is refused at the initialize step: no OpenSSL error, nothing on stderr.
        QTest::newRow("ECB encrypt, 31-byte key")
            << 0 << 31 << 0 << QByteArray() << "Failed to initialize AES encryption." << QString();
        QTest::newRow("ECB decrypt, 16-byte key")
            << 1 << 16 << 0 << QByteArray() << "Failed to initialize AES decryption." << QString();
        QTest::newRow("CBC encrypt, 24-byte key")
            << 2 << 24 << 16 << QByteArray() << "Failed to initialize AES encryption." << QString();
        QTest::newRow("CBC encrypt, 15-byte iv")
            << 2 << 32 << 15 << QByteArray() << "Failed to initialize AES encryption." << QString();
        QTest::newRow("CBC decrypt, 31-byte key")
            << 3 << 31 << 16 << QByteArray() << "Failed to initialize decryption." << QString();
        QTest::newRow("CBC decrypt, empty iv")
            << 3 << 32 << 0 << QByteArray() << "Failed to initialize decryption." << QString();
        // At the finalize step the ECB pair reports OpenSSL's own reason, the CBC pair stays silent.
        const QString ecbFinal = QStringLiteral("Failed to finalize AES decryption."),
                      cbcFinal = QStringLiteral("Failed to finalize decryption.");
        QTest::newRow("ECB, wrong key") << 1 << -1 << 0 << QByteArray() << ecbFinal << "bad decrypt";
        QTest::newRow("ECB, one byte cut off")
            << 1 << 32 << 0 << QByteArray(94, 'a') << ecbFinal << "wrong final block length";
        QTest::newRow("ECB, empty") << 1 << 32 << 0 << QByteArray("") << ecbFinal << "wrong final block length";
        QTest::newRow("CBC, wrong key") << 3 << -1 << 16 << QByteArray() << cbcFinal << QString();
        QTest::newRow("CBC, empty") << 3 << 32 << 16 << QByteArray("") << cbcFinal << QString();
    }

    void aesFailures()
    {
        QFETCH(int, function);
        QFETCH(int, keyLength);
        QFETCH(int, ivLength);
        QFETCH(QByteArray, cipher);
        QFETCH(QString, reason);
        const std::string key = keyLength < 0 ? fromHex(kOtherKey) : fromHex(kKey).substr(0, std::size_t(keyLength));
        const std::string iv = fromHex(kIv).substr(0, std::size_t(ivLength));
        const std::string data = cipher.isNull() ? crypt(function < 2, true, pattern(40), fromHex(kKey), fromHex(kIv))
                                                 : fromHex(cipher.constData());
        QByteArray written;
        QTEST(thrownBy([&] { crypt(function < 2, function % 2 == 0, data, key, iv); }, &written), "message");
        QCOMPARE(written.isEmpty(), reason.isNull());
        if (reason.isNull())
            return;
        const QString line = QString::fromLatin1(written);
        QVERIFY2(
            QRegularExpression(QStringLiteral("^OpenSSL Error: error:[0-9A-F]{8}:[^\n]*\n$")).match(line).hasMatch(),
            qPrintable(line));
        QVERIFY2(line.contains(reason), qPrintable(line));
        // The error text comes from a 130-character buffer, its terminating NUL included.
        QVERIFY(line.size() <= int(sizeof("OpenSSL Error: ") - 1) + 129 + 1);
    }

    void base64()
    {
        // RFC 4648, section 10, the alphabet's last two letters, and NUL bytes carried through.
        const QList<QPair<QByteArray, QByteArray>> pairs{{"", ""},
                                                         {"f", "Zg=="},
                                                         {"fo", "Zm8="},
                                                         {"foo", "Zm9v"},
                                                         {"foob", "Zm9vYg=="},
                                                         {"fooba", "Zm9vYmE="},
                                                         {"foobar", "Zm9vYmFy"},
                                                         {QByteArray::fromHex("fbffbf"), "+/+/"},
                                                         {QByteArray(2, '\0'), "AAA="}};
        for (const auto &[bytes, text] : pairs) {
            QCOMPARE(QByteArray::fromStdString(base64Encode(bytes.toStdString())), text);
            QCOMPARE(QByteArray::fromStdString(base64Decode(text.toStdString())), bytes);
        }
    }

    void rsa_data()
    {
        QTest::addColumn<int>("keyBits");
        QTest::addColumn<QByteArray>("plain");
        QTest::addColumn<QByteArray>("pem"); // null: the key's public PEM
        QTest::addColumn<bool>("works");
        QTest::newRow("2048, password") << 2048 << QByteArray("s3cret-Passw0rd") << QByteArray() << true;
        QTest::newRow("2048, UTF-8 text") << 2048 << QStringLiteral("密码 ✓").toUtf8() << QByteArray() << true;
        QTest::newRow("2048, empty") << 2048 << QByteArray() << QByteArray() << true;
        // PKCS#1 v1.5 takes 11 bytes of every block.
        QTest::newRow("2048, 245 bytes") << 2048 << QByteArray::fromStdString(pattern(245)) << QByteArray() << true;
        QTest::newRow("2048, 246 bytes") << 2048 << QByteArray::fromStdString(pattern(246)) << QByteArray() << false;
        QTest::newRow("1024, 117 bytes") << 1024 << QByteArray::fromStdString(pattern(117)) << QByteArray() << true;
        QTest::newRow("1024, 118 bytes") << 1024 << QByteArray::fromStdString(pattern(118)) << QByteArray() << false;
        QTest::newRow("not PEM") << 0 << QByteArray("secret") << QByteArray("this is not a key") << false;
        QTest::newRow("no key at all") << 0 << QByteArray("secret") << QByteArray("null") << false;
        QTest::newRow("private key block") << 2048 << QByteArray("secret") << QByteArray("private") << false;
        QTest::newRow("EC public key") << 256 << QByteArray("secret") << QByteArray() << false;
    }

    void rsa()
    {
        QFETCH(int, keyBits);
        QFETCH(QByteArray, plain);
        QFETCH(QByteArray, pem);
        QFETCH(bool, works);
        PkeyPtr key(keyBits == 256 ? EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256")
                                   : EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", std::size_t(keyBits ? keyBits : 1024)),
                    EVP_PKEY_free);
        QVERIFY(key);
        const std::string keyText = pem.isNull() ? pemOf(key.get())
            : pem == "private"                   ? pemOf(key.get(), true)
                                                 : pem.toStdString();
        std::string text = "<threw>";
        QByteArray written;
        QCOMPARE(
            thrownBy([&] { text = rsaPublicEncrypt(plain.toStdString(), pem == "null" ? nullptr : keyText.c_str()); },
                     &written),
            QStringLiteral("nothing thrown"));
        QVERIFY2(text.empty() != works, text.c_str());
        if (!works)
            return;
        const std::string cipher = base64Decode(text);
        QCOMPARE(int(cipher.size()), keyBits / 8);
        QCOMPARE(QByteArray::fromStdString(base64Encode(cipher)),
                 QByteArray::fromStdString(text)); // canonical, padding included
        QCOMPARE(QByteArray::fromStdString(privateDecrypt(key.get(), cipher)), plain);
        // The padding is random: the same text never gives the same ciphertext twice.
        QVERIFY(rsaPublicEncrypt(plain.toStdString(), keyText.c_str()) != text);
    }
};

QTEST_GUILESS_MAIN(TestCrypto)

#include "tst_crypto.moc"
