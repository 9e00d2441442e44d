#pragma once

#include <QByteArray>
#include <QString>

/**
 * RSA with PKCS#1 v1.5 padding, done here with libcrypto directly so that the module's own
 * helpers and the local cloud are checked against a third party. Empty results on failure.
 */
class TestRsa
{
public:
    /** Encrypts under a public key in PEM ("-----BEGIN PUBLIC KEY-----"). */
    static QByteArray encrypt(const QByteArray &publicPem, const QByteArray &plain);
    /** Decrypts with a private key in PEM. */
    static QByteArray decrypt(const QByteArray &privatePem, const QByteArray &cipher);
    /** A bare Base64 key body, as the DNS reply carries it, wrapped the way the module wraps it. */
    static QByteArray pemFromBody(const QString &body);
    /** The size of an RSA public key in PEM, 0 when it is none. */
    static int bits(const QByteArray &publicPem);
};
