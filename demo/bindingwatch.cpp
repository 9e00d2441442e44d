#include "bindingwatch.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QTimer>

class BindingWatch::Private
{
public:
    bool answered(const QByteArray &state) const;

    QString cloudUrl;
    QString serialNumber;
    QNetworkAccessManager network;
    QTimer poll;
    QNetworkReply *pending = nullptr;
    bool bound = false;
};

bool BindingWatch::Private::answered(const QByteArray &state) const
{
    const QString suffix = QLatin1Char('/') + serialNumber + QStringLiteral("/binding/cirro");
    const QJsonArray sent = QJsonDocument::fromJson(state).object().value(QStringLiteral("sent")).toArray();
    for (const QJsonValue &message : sent) {
        const QString topic = message.toObject().value(QStringLiteral("topic")).toString();
        if (!topic.startsWith(QLatin1String("orbicloud/downstream/reply/")) || !topic.endsWith(suffix))
            continue;
        const QJsonObject reply =
            QJsonDocument::fromJson(message.toObject().value(QStringLiteral("payload")).toString().toUtf8()).object();
        if (reply.value(QStringLiteral("body")).toObject().value(QStringLiteral("status")).toString()
            == QLatin1String("success"))
            return true;
    }
    return false;
}

BindingWatch::BindingWatch(const QString &cloudUrl, QObject *parent)
    : QObject(parent)
    , d(std::make_unique<Private>())
{
    d->cloudUrl = cloudUrl;
    d->poll.setInterval(500);
    connect(&d->poll, &QTimer::timeout, this, [this] {
        if (d->pending)
            return;
        d->pending = d->network.get(QNetworkRequest(QUrl(d->cloudUrl + QStringLiteral("/control/mqtt"))));
        connect(d->pending, &QNetworkReply::finished, this, [this] {
            QNetworkReply *reply = std::exchange(d->pending, nullptr);
            reply->deleteLater();
            if (d->bound || reply->error() != QNetworkReply::NoError || !d->answered(reply->readAll()))
                return;
            d->bound = true;
            d->poll.stop();
            Q_EMIT bound(d->serialNumber);
        });
    });
}

BindingWatch::~BindingWatch() = default;

void BindingWatch::watch(const QString &serialNumber)
{
    if (d->bound || d->poll.isActive())
        return;
    d->serialNumber = serialNumber;
    d->poll.start();
}

bool BindingWatch::isBound() const
{
    return d->bound;
}
