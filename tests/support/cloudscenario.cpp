#include "support/cloudscenario.h"

#include "localcloud/cloudsim.h"

#include <QJsonDocument>

QJsonObject cloudMedium(const QString &mid, const QString &name, int type, const QString &approval)
{
    QJsonObject medium{
        {"mid", mid}, {"mediaName", name}, {"approvalStatus", approval}, {"file", QJsonObject{{"size", 4000}}}};
    if (type >= 0)
        medium.insert("mediaType", type);
    return medium;
}

QByteArray accountScenario(const char *token, const QJsonArray &media, const QJsonValue &status)
{
    const QJsonObject account{{"token", QLatin1String(token)}, {"status", status}, {"media", media}};
    return QJsonDocument(QJsonObject{{"accounts", QJsonArray{account}}}).toJson();
}

int requestsTo(CloudSim &cloud, const QString &prefix)
{
    int n = 0;
    for (const auto &request : cloud.requests())
        n += request.toObject().value("path").toString().startsWith(prefix);
    return n;
}
