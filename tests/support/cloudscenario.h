#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>

class CloudSim;

/**
 * A catalogue record for cloudsim's scenario: a file of 4000 bytes with @p approval; @p type is
 * left out when negative (cloudsim then gives a video's).
 */
QJsonObject cloudMedium(const QString &mid, const QString &name, int type = -1,
                        const QString &approval = QStringLiteral("2"));
/** A scenario of one account, known by @p token, whose catalogue is @p media. */
QByteArray accountScenario(const char *token, const QJsonArray &media,
                           const QJsonValue &status = QStringLiteral("success"));
/** How many requests cloudsim received to paths starting with @p prefix. */
int requestsTo(CloudSim &cloud, const QString &prefix);
