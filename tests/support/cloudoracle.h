#pragma once

#include "support/cloudclient.h"

#include <QByteArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QList>
#include <QPair>
#include <QString>

// The client's side of the exchanges docs/protocol.md fixes, computed from the document and not
// from the module or cloudsim, so that a mistake the two share shows.

/** The slider page's result: session, signature and token. */
struct Triple
{
    QString sessionId, sig, token;
};

/** The page's algorithm: sig = hex HMAC-SHA256 of sessionId + "|" + token under the page key. */
Triple signedTriple(const QString &token);
/** The page's token of a drag: "nc-" and base64url of its summary {"dx":258,"ms":840,"n":37}. */
Triple sliderTriple();
/** What the module does with its built-in key: RSA PKCS#1 v1.5, then Base64. */
QString encryptForCloud(const QByteArray &plain);
/** A device signature record that expires @p fromNow ms from now (negative: already expired). */
QByteArray deviceSignature(qint64 fromNow);
/** A login record with every member, empty or not, as the module sends it; the slider triple when given. */
QJsonObject loginInfo(const QJsonObject &filled, const Triple &t = {});
/** A code request; a phone's country code goes in "parameter"; no address makes it a slider check only. */
QJsonObject codeRequest(const QString &address, const Triple &t, const char *templateCode = "LOGIN");
/** AES-256-ECB with PKCS#7 padding; empty when the padding does not check out. */
QByteArray aesDecrypt(const QByteArray &key, const QByteArray &ciphertext);

/** The catalogue's service, behind "/gateway/cirro?cirro=". */
inline const QString catalogueService = QStringLiteral("Rest/Lite/Medias");

/** Named values in the order they are sent: a query, headers, a record's members. */
using Fields = QList<QPair<QString, QJsonValue>>;
Fields fields(const QJsonObject &object);
QJsonObject object(const Fields &fields);

/** One request to the gateway: the catalogue's query and headers, or a login service's record. */
struct Request
{
    QString service;
    Fields query, headers, body;
    bool wholeValueEncoded = false;

    QString catalogueTarget() const;
    CloudClient::Headers rawHeaders() const;
    /**
     * "name=value" sets a parameter, header or member, "-name" drops it, "name>other" renames it,
     * "name~" changes its first character. False when there is no such name.
     */
    bool change(const QString &op);
};
