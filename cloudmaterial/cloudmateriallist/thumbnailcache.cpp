#include "cloudmaterial/cloudmateriallist/thumbnailcache.h"

#include "cloudmaterial/protocol/filedownloader.h"
#include "cloudmaterial/workerpool.h"

#include <QCryptographicHash>
#include <QFile>
#include <QFileInfo>
#include <QLoggingCategory>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QUrl>

#include <unordered_set>

Q_LOGGING_CATEGORY(lcThumbnails, "rxcm.thumbnails", QtInfoMsg)

namespace talvor::cloudmaterial {

namespace {

const char *const thumbnailFolder = "/.thumbnails/";

std::string thumbnailFolderPath(const std::string &materialFolder)
{
    if (!materialFolder.empty())
        return materialFolder + thumbnailFolder;
    const QString cache = QStandardPaths::writableLocation(QStandardPaths::CacheLocation);
    return cache.isEmpty() ? std::string() : (cache + QStringLiteral("/thumbnails/")).toStdString();
}

// The cloud's id names the file only when it is plain; anything else is hashed, so no text
// from the cloud can steer where a thumbnail is written.
QString thumbnailStem(const std::string &id)
{
    static const QRegularExpression plain(QStringLiteral("^[A-Za-z0-9_-]{1,64}$"));
    const QString text = QString::fromStdString(id);
    if (plain.match(text).hasMatch())
        return text;
    return QString::fromLatin1(
        QCryptographicHash::hash(QByteArray::fromStdString(id), QCryptographicHash::Sha1).toHex());
}

// The URL's path split at ".": the last piece, if it looks like an extension.
QString thumbnailExtension(const std::string &url)
{
    static const QRegularExpression extension(QStringLiteral("^[A-Za-z0-9]{1,5}$"));
    const QStringList pieces = QUrl(QString::fromStdString(url)).path().split(QLatin1Char('.'));
    if (pieces.size() > 1 && extension.match(pieces.last()).hasMatch())
        return pieces.last().toLower();
    return QStringLiteral("img"); // the image reader looks at the content then
}

enum class Outcome { Dropped, OnDisk, Fetched, Failed };

// On the cache's thread: touches nothing but the file.
Outcome fetch(const std::string &id, const std::string &url, const std::string &path, const SessionTicket &ticket)
{
    if (!ticket.isLive())
        return Outcome::Dropped;
    const QString file = QString::fromStdString(path);
    if (QFileInfo(file).isFile())
        return Outcome::OnDisk;
    const QString scheme = QUrl(QString::fromStdString(url)).scheme();
    DownloadStatus status = Failed;
    if (scheme == QLatin1String("https") || scheme == QLatin1String("http")) {
        FileDownloader downloader;
        downloader.setStopCondition([ticket] { return !ticket.isLive(); });
        status = downloader.download(url, file);
        if (downloader.wasStopped())
            return Outcome::Dropped;
    }
    if (status == Successed)
        return Outcome::Fetched;
    // A partial file would be appended to by the next try and fail it again.
    QFile::remove(file + QStringLiteral(".temp"));
    qCWarning(lcThumbnails).noquote() << "thumbnail of" << QString::fromStdString(id) << "not fetched from"
                                      << QString::fromStdString(url);
    return Outcome::Failed;
}

} // namespace

class ThumbnailCache::Private
{
public:
    std::string materialFolder;
    bool wanted = false;
    bool shutDown = false;
    std::unordered_set<std::string> pending; // ids whose fetch is on its way
    WorkerPool pool{1};
};

ThumbnailCache::ThumbnailCache(QObject *parent)
    : QObject(parent)
    , d(std::make_unique<Private>())
{
}

ThumbnailCache::~ThumbnailCache()
{
    shutdown();
}

void ThumbnailCache::setMaterialFolder(const std::string &folder)
{
    d->materialFolder = folder;
}

void ThumbnailCache::setWanted(bool wanted)
{
    d->wanted = wanted;
}

bool ThumbnailCache::isWanted() const
{
    return d->wanted;
}

std::string ThumbnailCache::path(const std::string &id, const std::string &thumbnailUrl) const
{
    const std::string folder = thumbnailFolderPath(d->materialFolder);
    if (folder.empty() || id.empty())
        return {};
    return folder
        + (thumbnailStem(id) + QStringLiteral(".thumbnail.") + thumbnailExtension(thumbnailUrl)).toStdString();
}

void ThumbnailCache::ensure(const std::string &id, const std::string &thumbnailUrl, const SessionTicket &ticket,
                            bool announce)
{
    const std::string file = path(id, thumbnailUrl);
    if (!d->wanted || d->shutDown || file.empty() || thumbnailUrl.empty())
        return;
    if (!d->pending.insert(id).second)
        return;
    d->pool.enqueue([this, id, thumbnailUrl, file, announce, ticket] {
        const Outcome outcome = fetch(id, thumbnailUrl, file, ticket);
        // The pool is joined before this object goes, so it is always there to post to.
        QMetaObject::invokeMethod(
            this,
            [this, id, file, outcome, announce, ticket] {
                if (d->shutDown || !ticket.isLive())
                    return; // the pending entry, if any, is the next session's
                d->pending.erase(id);
                if (outcome == Outcome::Fetched || (outcome == Outcome::OnDisk && announce))
                    Q_EMIT thumbnailReady(id, file);
            },
            Qt::QueuedConnection);
    });
}

void ThumbnailCache::forgetPending()
{
    d->pending.clear();
}

void ThumbnailCache::remove(const QStringList &files)
{
    if (files.isEmpty() || d->shutDown)
        return;
    d->pool.enqueue([files] {
        for (const QString &file : files)
            QFile::remove(file);
    });
}

void ThumbnailCache::shutdown()
{
    d->shutDown = true;
    // A running fetch notices its ended ticket within FileDownloader::stopPollMs.
    d->pool.stop();
}

} // namespace talvor::cloudmaterial
