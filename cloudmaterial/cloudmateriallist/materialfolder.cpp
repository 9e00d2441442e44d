#include "cloudmaterial/cloudmateriallist/materialfolder.h"

#include "cloudmaterial/logging.h"
#include "cloudmaterial/protocol/filedownloader.h"
#include "cloudmaterial/workerpool.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLoggingCategory>

#include <algorithm>
#include <map>
#include <vector>

// The material controller's category: the folder is its part.
Q_LOGGING_CATEGORY(lcFolder, "rxcm.materials", QtInfoMsg)

namespace talvor::cloudmaterial {

class MaterialFolder::Private
{
public:
    // One per file: two downloads into one ".temp" would spoil it.
    struct Transfer
    {
        std::string address;
        std::vector<std::string> askers; // material ids, each answered once when it ends
    };

    explicit Private(MaterialFolder *q)
        : q(q)
    {
        life.begin();
    }

    // For work on this object's own pools only: they are joined before it goes, so it is
    // always there to post to; what is still queued then is dropped with it.
    template<typename Function>
    void post(Function function)
    {
        QMetaObject::invokeMethod(q, std::move(function), Qt::QueuedConnection);
    }

    void refuse(const std::string &id, const std::string &name)
    {
        post([this, id, name] {
            if (!shutDown)
                Q_EMIT q->transferFinished(id, name, false);
        });
    }
    void transfer(const std::string &address, const std::string &name);
    void finish(const std::string &name, DownloadStatus status, bool stopped);

    MaterialFolder *const q;
    std::string folder;
    std::map<std::string, Transfer> transfers; // by file name
    Session life; // ended by shutdown(): running transfers stop with it
    bool shutDown = false;
    WorkerPool lookupPool{1};
    WorkerPool downloadPool{2};
};

void MaterialFolder::Private::transfer(const std::string &address, const std::string &name)
{
    downloadPool.enqueue(
        [this, address, name, path = QString::fromStdString(q->filePath(name)), alive = life.ticket()] {
            DownloadStatus status = Failed;
            bool stopped = !alive.isLive();
            if (!stopped && QFileInfo(path).isFile()) {
                // Already there (downloaded before, or by another machine's request): fetching it
                // again would leave a ".temp" beside it that spoils every later download.
                status = Successed;
            } else if (!stopped) {
                FileDownloader downloader;
                downloader.setStopCondition([alive] { return !alive.isLive(); });
                QObject::connect(&downloader, &FileDownloader::progress, &downloader,
                                 [this, name](qint64 received, qint64 total) {
                                     post([this, name, received, total] {
                                         const auto it = shutDown ? transfers.end() : transfers.find(name);
                                         if (it == transfers.end())
                                             return;
                                         for (const std::string &asker : it->second.askers)
                                             Q_EMIT q->transferProgress(asker, received, total);
                                     });
                                 });
                status = downloader.download(address, path);
                stopped = downloader.wasStopped();
            }
            post([this, name, status, stopped] { finish(name, status, stopped); });
        });
}

void MaterialFolder::Private::finish(const std::string &name, DownloadStatus status, bool stopped)
{
    auto ended = transfers.extract(name);
    if (ended.empty() || stopped || shutDown)
        return; // stopped by shutdown(): not a failure, and nobody is told
    for (const std::string &id : ended.mapped().askers)
        Q_EMIT q->transferFinished(id, name, status == Successed);
}

MaterialFolder::MaterialFolder(QObject *parent)
    : QObject(parent)
    , d(std::make_unique<Private>(this))
{
}

MaterialFolder::~MaterialFolder()
{
    shutdown();
}

void MaterialFolder::setPath(const std::string &folder)
{
    d->folder = folder;
}

std::string MaterialFolder::path() const
{
    return d->folder;
}

std::string MaterialFolder::filePath(const std::string &name) const
{
    return d->folder + "/" + name;
}

void MaterialFolder::lookFor(const std::string &id, const std::string &name, const SessionTicket &ticket)
{
    if (d->shutDown)
        return;
    d->lookupPool.enqueue([this, id, name, path = QString::fromStdString(filePath(name)), ticket] {
        if (!ticket.isLive())
            return;
        bool exists = false;
        if (isSafeFileName(name)) {
            qCDebug(lcFolder).noquote() << "looking for" << path;
            exists = QFileInfo(path).isFile();
        }
        d->post([this, id, name, exists, ticket] {
            if (!d->shutDown && ticket.isLive())
                Q_EMIT fileChecked(id, name, exists);
        });
    });
}

void MaterialFolder::whenChecked(const std::string &name, std::function<void(bool)> answer)
{
    if (d->shutDown)
        return;
    d->lookupPool.enqueue([this, path = QString::fromStdString(filePath(name)), answer, alive = d->life.ticket()] {
        if (!alive.isLive())
            return;
        const bool present = QFileInfo(path).isFile();
        d->post([this, present, answer] {
            if (!d->shutDown)
                answer(present);
        });
    });
}

void MaterialFolder::download(const std::string &address, const std::string &id, const std::string &name)
{
    if (d->shutDown)
        return;
    if (!isSafeFileName(name)) {
        RXCM_LOG_WARN("refused to download {}: the file name \"{}\" would leave the material folder", id, name);
        return d->refuse(id, name);
    }
    const auto running = d->transfers.find(name);
    if (running == d->transfers.end()) {
        d->transfers.emplace(name, Private::Transfer{address, {id}});
        return d->transfer(address, name);
    }
    Private::Transfer &transfer = running->second;
    if (transfer.address != address) {
        RXCM_LOG_WARN("refused to download {}: \"{}\" is being downloaded from another address", id, name);
        d->refuse(id, name);
    } else if (std::find(transfer.askers.begin(), transfer.askers.end(), id) == transfer.askers.end()) {
        transfer.askers.push_back(id);
    }
}

bool MaterialFolder::isDownloading(const std::string &name) const
{
    return d->transfers.count(name) != 0;
}

bool MaterialFolder::removeCopy(const std::string &name)
{
    if (d->shutDown || !isSafeFileName(name))
        return false;
    const QString path = QString::fromStdString(filePath(name));
    // A failed download's ".temp" would be appended to by the next one and spoil it: removing
    // it is the way back from a failure.
    for (const QString &file : {path, path + QStringLiteral(".temp")}) {
        if (QFileInfo(file).isFile() && !QFile::remove(file)) {
            qCWarning(lcFolder).noquote() << "could not remove the local copy" << file;
            return false;
        }
    }
    qCInfo(lcFolder).noquote() << "removed the local copy" << path;
    return true;
}

void MaterialFolder::shutdown()
{
    if (d->shutDown)
        return;
    d->shutDown = true;
    d->life.end();
    // Running transfers notice within FileDownloader::stopPollMs; what is queued returns at once.
    d->downloadPool.stop();
    d->lookupPool.stop();
}

bool MaterialFolder::isSafeFileName(const std::string &name)
{
    if (name.empty() || name == "." || name == "..")
        return false;
    if (name.find_first_of(std::string("/\\\0", 3)) != std::string::npos)
        return false;
    // "C:name" is relative to a drive's current folder on Windows.
    if (name.size() >= 2 && name[1] == ':')
        return false;
    return !QDir::isAbsolutePath(QString::fromStdString(name));
}

} // namespace talvor::cloudmaterial
