#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QNetworkReply>
#include <QPair>
#include <QSslCertificate>
#include <QString>

#include <memory>

class CloudSim;

/**
 * Plain Qt HTTPS requests to a running CloudSim, made the way docs/protocol.md describes them
 * and independently of the module's own client: for checking the local cloud's side.
 */
class CloudClient
{
public:
    using Headers = QList<QPair<QByteArray, QByteArray>>;

    struct Answer
    {
        int status = 0;
        QNetworkReply::NetworkError error = QNetworkReply::NoError;
        QByteArray body;
        QList<QNetworkReply::RawHeaderPair> headers;
        QSslCertificate peer;

        bool hasHeader(const QByteArray &name) const;
        QByteArray header(const QByteArray &name) const;
        QJsonObject json() const;
    };

    explicit CloudClient(CloudSim &cloud);
    ~CloudClient();
    CloudClient(const CloudClient &) = delete;
    CloudClient &operator=(const CloudClient &) = delete;

    Answer send(const QString &path, const Headers &headers = {}, const QByteArray &verb = "GET",
                const QByteArray &body = QByteArray());
    /** POSTs @p body to the login gateway's @p service with the two gateway headers. */
    Answer post(const QString &service, const QJsonObject &body, const Headers &extra = {});
    /** The gateway headers, with "Token" and "Authorization" when a token is given. */
    static Headers gatewayHeaders(const QByteArray &token = QByteArray());

private:
    class Private;
    std::unique_ptr<Private> const d;
};
