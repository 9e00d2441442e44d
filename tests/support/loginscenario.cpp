#include "support/loginscenario.h"

#include "cloudmaterial/login/loginkeys.h"
#include "cloudmaterial/protocol/crypto.h"
#include "localcloud/cloudsim.h"
#include "support/freshlogin.h"

#include <QJsonDocument>

#include <algorithm>

using namespace talvor::cloudmaterial;

QByteArray scenario(const char *member, const QJsonValue &value)
{
    QJsonObject root = QJsonDocument::fromJson(accounts).object();
    if (member)
        root.insert(QLatin1String(member), value);
    return QJsonDocument(root).toJson(QJsonDocument::Compact);
}

LoginInfo loginFor(Mode mode, const char *identify, const char *password)
{
    LoginInfo info;
    info.mobilePhone = mode == Mode::Phone ? alicePhone : "";
    info.countryCode = mode == Mode::Phone ? "+86" : "";
    info.email = mode == Mode::Email ? aliceEmail : "";
    info.identityVerifyCode = mode == Mode::Password ? "" : aliceCode;
    if (mode != Mode::Password)
        return info;
    info.identify = identify;
    info.password = rsaPublicEncrypt(password, loginPublicKey);
    const FreshLogin::Triple triple = FreshLogin::sliderTriple();
    info.sessionId = triple.sessionId;
    info.sig = triple.sig;
    info.token = triple.token;
    return info;
}

bool armCodes(CloudSim &cloud)
{
    return FreshLogin::sentCode(cloud, QLatin1String(alicePhone)) == QLatin1String(aliceCode)
        && FreshLogin::sentCode(cloud, QLatin1String(aliceEmail)) == QLatin1String(aliceCode) && cloud.clearRequests();
}

AliVerifyCodeInfo codeRequestFor(const char *address)
{
    const bool email = QByteArray(address).contains('@');
    const FreshLogin::Triple triple = FreshLogin::sliderTriple();
    AliVerifyCodeInfo info;
    info.key = "k-9";
    info.phone = address;
    info.parameter = email ? "" : "+86";
    info.type = email ? "EMAIL" : "MOBILE_PHONE";
    info.templateCode = "LOGIN";
    info.sessionId = triple.sessionId;
    info.sig = triple.sig;
    info.token = triple.token;
    return info;
}

QString gatewayPath(const QString &service)
{
    return QStringLiteral("/gateway/apis?cirro=") + service;
}

QString headerOf(const QJsonObject &request, const char *name)
{
    const QJsonObject headers = request.value("headers").toObject();
    for (auto it = headers.begin(); it != headers.end(); ++it)
        if (it.key().compare(QLatin1String(name), Qt::CaseInsensitive) == 0)
            return it.value().toString();
    return {};
}

QJsonObject bodyOf(const QJsonObject &request)
{
    return QJsonDocument::fromJson(request.value("body").toString().toUtf8()).object();
}

QStringList gatewayPaths(CloudSim &cloud, QList<QJsonObject> *requests)
{
    QStringList paths;
    for (const auto &value : cloud.requests())
        if (value.toObject().value("path").toString().startsWith(QLatin1String("/gateway/apis"))) {
            paths << value.toObject().value("path").toString();
            if (requests)
                requests->append(value.toObject());
        }
    return paths;
}

QStringList keysInOrder(const QJsonObject &request)
{
    const QString raw = request.value("body").toString();
    QStringList keys = bodyOf(request).keys();
    std::sort(keys.begin(), keys.end(), [&](const QString &a, const QString &b) {
        return raw.indexOf('"' + a + "\":") < raw.indexOf('"' + b + "\":");
    });
    return keys;
}
