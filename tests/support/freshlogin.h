#pragma once

// What a login needs afresh every time, because the local cloud takes each slider result and
// each code once: a slider triple as the slider page makes it, and a code the cloud "sent".
// Header only; used on the test's GUI thread.

#include "localcloud/cloudsim.h"
#include "support/cloudclient.h"

#include <QCryptographicHash>
#include <QJsonObject>
#include <QMessageAuthenticationCode>
#include <QUuid>

#include <string>

namespace FreshLogin {

struct Triple
{
    std::string sessionId, sig, token;
};

/** A new session signed as the page signs it (docs/protocol.md, section 5). */
inline Triple sliderTriple()
{
    const QByteArray token = "nc-"
        + QByteArrayLiteral(R"({"dx":298,"ms":912,"n":41})")
              .toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals);
    const QByteArray sessionId = QUuid::createUuid().toString(QUuid::WithoutBraces).toLatin1();
    const QByteArray sig =
        QMessageAuthenticationCode::hash(sessionId + '|' + token, "rxcm-slider-v1", QCryptographicHash::Sha256).toHex();
    return {sessionId.toStdString(), sig.toStdString(), token.toStdString()};
}

/**
 * Has @p cloud send a login code to @p address (a phone of country @p countryCode, or an
 * e-mail address) and returns it; empty when the cloud refused.
 */
inline QString sentCode(CloudSim &cloud, const QString &address, const QString &countryCode = QStringLiteral("86"))
{
    const Triple t = sliderTriple();
    const bool email = address.contains(QLatin1Char('@'));
    const QJsonObject request{{"flag", 0},
                              {"key", "fresh-key"},
                              {"parameter", email ? QString() : countryCode},
                              {"phone", address},
                              {"sessionId", QString::fromStdString(t.sessionId)},
                              {"sig", QString::fromStdString(t.sig)},
                              {"templateCode", "LOGIN"},
                              {"token", QString::fromStdString(t.token)},
                              {"type", email ? "EMAIL" : "MOBILE_PHONE"}};
    if (!CloudClient(cloud)
             .post(QStringLiteral("v1/web-backend-service/identity-verify-code/slider"), request)
             .json()
             .value("status")
             .toBool())
        return {};
    return cloud.control("GET", QStringLiteral("/control/codes")).object().value(address).toString();
}

} // namespace FreshLogin
