#include "groupfolder.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>
#include <QThread>

namespace {

const QString announcementName = QStringLiteral("group.json");

} // namespace

class GroupFolder::Private
{
public:
    QString announcement() const { return dir.filePath(announcementName); }

    QDir dir;
};

GroupFolder::GroupFolder(const QString &path)
    : d(std::make_unique<Private>())
{
    d->dir.setPath(QDir::cleanPath(QDir(path).absolutePath()));
}

GroupFolder::~GroupFolder() = default;

QString GroupFolder::defaultPath(const QString &group)
{
    return QDir::temp().filePath(QStringLiteral("cloudmaterial-demo-group-") + group);
}

QString GroupFolder::path() const
{
    return d->dir.path();
}

QString GroupFolder::configFolder() const
{
    return d->dir.filePath(QStringLiteral("config"));
}

QString GroupFolder::materialFolder() const
{
    return d->dir.filePath(QStringLiteral("materials"));
}

bool GroupFolder::prepare()
{
    QFile::remove(d->announcement());
    // A session of an earlier run belongs to a cloud that is gone.
    QDir config(configFolder());
    if (config.exists() && !config.removeRecursively())
        return false;
    return d->dir.mkpath(QStringLiteral("config")) && d->dir.mkpath(QStringLiteral("materials"));
}

bool GroupFolder::announce(const Cloud &cloud)
{
    const QJsonObject json{{QStringLiteral("broker"), cloud.brokerUrl},
                           {QStringLiteral("cloud"), cloud.cloudUrl},
                           {QStringLiteral("ca"), cloud.caFile}};
    // Written whole or not at all: a client may be reading it right now.
    QSaveFile file(d->announcement());
    return file.open(QIODevice::WriteOnly) && file.write(QJsonDocument(json).toJson()) > 0 && file.commit();
}

void GroupFolder::withdraw()
{
    QFile::remove(d->announcement());
}

std::optional<GroupFolder::Cloud> GroupFolder::waitForServer(int timeoutMs) const
{
    const QDeadlineTimer deadline(timeoutMs);
    do {
        QFile file(d->announcement());
        if (file.open(QIODevice::ReadOnly)) {
            const QJsonObject json = QJsonDocument::fromJson(file.readAll()).object();
            Cloud cloud{json.value(QStringLiteral("broker")).toString(), json.value(QStringLiteral("cloud")).toString(),
                        json.value(QStringLiteral("ca")).toString()};
            if (!cloud.brokerUrl.isEmpty() && !cloud.cloudUrl.isEmpty() && !cloud.caFile.isEmpty())
                return cloud;
        }
        QThread::msleep(200);
    } while (!deadline.hasExpired());
    return std::nullopt;
}
