#include "support/cloudclient.h"

#include "localcloud/cloudsim.h"

#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkRequest>
#include <QSignalSpy>
#include <QSslConfiguration>

class CloudClient::Private
{
public:
    explicit Private(CloudSim &cloud)
        : cloud(cloud)
    {
    }
    CloudSim &cloud;
    QNetworkAccessManager manager;
};

CloudClient::CloudClient(CloudSim &cloud)
    : d(std::make_unique<Private>(cloud))
{
}

CloudClient::~CloudClient() = default;

bool CloudClient::Answer::hasHeader(const QByteArray &name) const
{
    for (const auto &h : headers)
        if (h.first.compare(name, Qt::CaseInsensitive) == 0)
            return true;
    return false;
}

QByteArray CloudClient::Answer::header(const QByteArray &name) const
{
    for (const auto &h : headers)
        if (h.first.compare(name, Qt::CaseInsensitive) == 0)
            return h.second;
    return QByteArray();
}

QJsonObject CloudClient::Answer::json() const
{
    return QJsonDocument::fromJson(body).object();
}

CloudClient::Answer CloudClient::send(const QString &path, const Headers &headers, const QByteArray &verb,
                                      const QByteArray &body)
{
    QNetworkRequest request(QUrl(d->cloud.url(path)));
    for (const auto &h : headers)
        request.setRawHeader(h.first, h.second);
    QNetworkReply *reply = d->manager.sendCustomRequest(request, verb, body);
    QSignalSpy finished(reply, &QNetworkReply::finished);
    if (!reply->isFinished())
        finished.wait(30000);
    Answer answer;
    answer.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    answer.error = reply->error();
    answer.body = reply->readAll();
    answer.headers = reply->rawHeaderPairs();
    answer.peer = reply->sslConfiguration().peerCertificate();
    reply->deleteLater();
    return answer;
}

CloudClient::Answer CloudClient::post(const QString &service, const QJsonObject &body, const Headers &extra)
{
    Headers headers = gatewayHeaders();
    headers.append(qMakePair(QByteArray("Content-Type"), QByteArray("application/json")));
    headers.append(extra);
    return send(QStringLiteral("/gateway/apis?cirro=") + service, headers, "POST",
                QJsonDocument(body).toJson(QJsonDocument::Compact));
}

CloudClient::Headers CloudClient::gatewayHeaders(const QByteArray &token)
{
    Headers headers{{"source", "mediaserver"}, {"version", "V1.0.0"}};
    if (!token.isNull())
        headers += Headers{{"Authorization", token}, {"Token", token}};
    return headers;
}
