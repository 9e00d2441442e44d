#include "support/cloudoracle.h"

#include "cloudmaterial/login/loginkeys.h"
#include "support/testrsa.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QJsonDocument>
#include <QMessageAuthenticationCode>
#include <QRegularExpression>
#include <QUrl>
#include <QUuid>

#include <openssl/evp.h>

Triple signedTriple(const QString &token)
{
    Triple t{QUuid::createUuid().toString(QUuid::WithoutBraces), QString(), token};
    t.sig = QString::fromLatin1(QMessageAuthenticationCode::hash((t.sessionId + "|" + token).toUtf8(), "rxcm-slider-v1",
                                                                 QCryptographicHash::Sha256)
                                    .toHex());
    return t;
}

Triple sliderTriple()
{
    return signedTriple(QStringLiteral("nc-eyJkeCI6MjU4LCJtcyI6ODQwLCJuIjozN30"));
}

QString encryptForCloud(const QByteArray &plain)
{
    return QString::fromLatin1(TestRsa::encrypt(talvor::cloudmaterial::loginPublicKey, plain).toBase64());
}

QByteArray deviceSignature(qint64 fromNow)
{
    return QJsonDocument(QJsonObject{{"source", "rxcm"},
                                     {"deviceSignature", "dev-42"},
                                     {"timestamp", QDateTime::currentMSecsSinceEpoch() + fromNow}})
        .toJson(QJsonDocument::Compact);
}

QJsonObject loginInfo(const QJsonObject &filled, const Triple &t)
{
    QJsonObject body{{"sessionId", t.sessionId}, {"sig", t.sig}, {"token", t.token}};
    for (const char *key : {"identityVerifyCode", "oauthConfiguration", "mobilePhone", "countryCode", "creditSignature",
                            "email", "identify", "password"})
        body.insert(QLatin1String(key), filled.value(QLatin1String(key)).toString());
    return body;
}

QJsonObject codeRequest(const QString &address, const Triple &t, const char *templateCode)
{
    const bool email = address.contains(QLatin1Char('@')), none = address.isEmpty();
    const char *type = none ? "" : email ? "EMAIL" : "MOBILE_PHONE";
    return QJsonObject{{"flag", 0},
                       {"key", "key-7"},
                       {"phone", address},
                       {"parameter", email || none ? "" : "86"},
                       {"sessionId", t.sessionId},
                       {"sig", t.sig},
                       {"token", t.token},
                       {"templateCode", none ? "" : templateCode},
                       {"type", type}};
}

QByteArray aesDecrypt(const QByteArray &key, const QByteArray &ciphertext)
{
    EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
    QByteArray out(ciphertext.size() + 32, '\0');
    int first = 0, last = 0;
    auto *o = reinterpret_cast<unsigned char *>(out.data());
    const bool ok =
        EVP_DecryptInit_ex(ctx, EVP_aes_256_ecb(), nullptr, reinterpret_cast<const uchar *>(key.data()), nullptr)
        && EVP_DecryptUpdate(ctx, o, &first, reinterpret_cast<const uchar *>(ciphertext.data()), ciphertext.size())
        && EVP_DecryptFinal_ex(ctx, o + first, &last);
    EVP_CIPHER_CTX_free(ctx);
    out.resize(ok ? first + last : 0);
    return out;
}

Fields fields(const QJsonObject &object)
{
    Fields out;
    for (auto it = object.begin(); it != object.end(); ++it)
        out.append({it.key(), it.value()});
    return out;
}

QJsonObject object(const Fields &fields)
{
    QJsonObject out;
    for (const auto &[key, value] : fields)
        out.insert(key, value);
    return out;
}

QString Request::catalogueTarget() const
{
    QStringList parts;
    for (const auto &[key, value] : query)
        parts << QString(key).replace('[', "%5B").replace(']', "%5D") + '=' + value.toString();
    const QString value = catalogueService + '?' + parts.join('&');
    return "/gateway/cirro?cirro=" + (wholeValueEncoded ? QString::fromLatin1(QUrl::toPercentEncoding(value)) : value);
}

CloudClient::Headers Request::rawHeaders() const
{
    CloudClient::Headers out;
    for (const auto &[key, value] : headers)
        out.append({key.toUtf8(), value.toString().toUtf8()});
    return out;
}

bool Request::change(const QString &op)
{
    const int at = int(op.indexOf(QRegularExpression(QStringLiteral("[=>~]"))));
    const bool drop = op.startsWith('-');
    const QString name = op.mid(drop ? 1 : 0, at < 0 ? -1 : at - (drop ? 1 : 0));
    for (Fields *list : {&query, &headers, &body}) {
        for (int i = 0; i < list->size(); ++i) {
            auto &[key, value] = (*list)[i];
            if (key != name)
                continue;
            if (drop)
                list->removeAt(i);
            else if (op.at(at) == '=')
                value = op.mid(at + 1);
            else if (op.at(at) == '>')
                key = op.mid(at + 1);
            else
                value = QString(value.toString()).replace(0, 1, value.toString().startsWith('0') ? "1" : "0");
            return true;
        }
    }
    return false;
}
