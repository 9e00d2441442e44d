#include "cloudmaterial/cloudmateriallist/cloudmaterialcontroller.h"

#include "cloudmaterial/cloudmateriallist/materialfolder.h"
#include "cloudmaterial/cloudmateriallist/medialistrequest.h"
#include "cloudmaterial/cloudmateriallist/thumbnailcache.h"
#include "cloudmaterial/currentnode.h"
#include "cloudmaterial/logging.h"
#include "cloudmaterial/protocol/httpclientwrapper.h"
#include "cloudmaterial/protocol/reachability.h"
#include "cloudmaterial/sessionticket.h"
#include "cloudmaterial/workerpool.h"

#include <QLoggingCategory>
#include <QPointer>
#include <QTimer>

#include <algorithm>
#include <atomic>
#include <iterator>
#include <unordered_set>
#include <utility>

Q_LOGGING_CATEGORY(lcMaterials, "rxcm.materials", QtInfoMsg)

namespace talvor::cloudmaterial {

namespace {

// Set while no refresh runs; a refresh clears it from its request until its changes have been
// applied (or dropped). One per process, so two refreshes never overlap, whichever controller
// starts them.
std::atomic<bool> refreshGuard{true};

struct RefreshRelease
{
    ~RefreshRelease() { refreshGuard.store(true); }
};

int toInt(const std::string &text)
{
    try {
        return std::stoi(text);
    } catch (const std::exception &) {
        return 0;
    }
}

CloudMaterialModel makeRow(const MediaInfo &media, DownloadStatus status)
{
    CloudMaterialModel row;
    row.mid = media.mid;
    row.mediaName = media.mediaName;
    row.mediaType = toInt(media.mediaType);
    row.approvalStatus = toInt(media.approvalStatus);
    row.downloadStatus = status;
    row.thumbnailUrl = media.media_entity.thumb_image_url;
    try {
        row.size = std::stoll(media.media_entity.size);
    } catch (const std::exception &) {
        row.size = 0;
    }
    row.resolution = media.media_entity.width + "x" + media.media_entity.height;
    return row;
}

} // namespace

class CloudMaterialController::Private : public QObject
{
public:
    struct StoredMedia
    {
        MediaInfo info;
        DownloadStatus status = NotAllowed;
    };

    Private(CloudMaterialController *q, HttpClientWrapper *http, const CurrentNode *node)
        : q(q)
        , http(http)
        , node(node)
    {
        life.begin();
    }

    void onUpdateFileIsExist(const std::string &id, const std::string &name, bool exists);
    void onUpdateFileIsDownload(const std::string &id, const std::string &name, bool downloaded);

    // Queues a refresh; with followNewMaterials, one that adds materials is followed by the next.
    std::future<void> refresh(bool quiet, bool followNewMaterials);
    // True when the catalogue brought materials the list did not hold.
    bool applyCatalogue(const MediaListResult &fetched, const SessionTicket &ticket);
    void verifyThenDownload(const std::string &id);
    void startDownload(const std::string &id);
    void ensureThumbnail(const MediaInfo &media, bool announce)
    {
        thumbnails.ensure(media.mid, media.media_entity.thumb_image_url, session.ticket(), announce);
    }

    StoredMedia *find(const std::string &id)
    {
        auto it = std::find_if(media.begin(), media.end(), [&](const StoredMedia &m) { return m.info.mid == id; });
        return it == media.end() ? nullptr : &*it;
    }

    // Work still under way for the old session drops its results; thumbnails are asked anew.
    void restartSession(bool begin)
    {
        session.end();
        if (begin)
            session.begin();
        thumbnails.forgetPending();
    }

    void setState(CatalogueState next)
    {
        if (std::exchange(state, next) != next)
            Q_EMIT q->catalogueStateChanged(next);
    }

    CloudMaterialController *const q;
    HttpClientWrapper *const http;
    const CurrentNode *const node;
    std::shared_ptr<WorkerPool> pool;

    std::string token;
    bool servedByProxy = false;
    std::function<void(const std::string &, QDrag *)> starDragCallback;

    std::vector<StoredMedia> media;
    CatalogueState state = CatalogueState::LoggedOut;
    MaterialFolder folder;
    ThumbnailCache thumbnails;

    Session session; // the login's
    Session life; // ended by shutdown(): the group's look-ups stop with it
    bool shutDown = false;
    // Where refreshes on the shared pool, which may outlive this object, hand their results:
    // they hold it, it is deleted on this thread once none needs it.
    std::shared_ptr<QObject> inbox{new QObject, [](QObject *object) { object->deleteLater(); }};

    QTimer refreshTimer;
};

void CloudMaterialController::Private::onUpdateFileIsExist(const std::string &id, const std::string &, bool exists)
{
    StoredMedia *m = find(id);
    if (!m || m->status == Downloading)
        return; // unknown, or a running download that an old answer must not override
    if (exists)
        m->status = Successed;
    // "No" is shown but not stored: the material stays as the cloud's approval left it.
    Q_EMIT q->materialDownloadStatusChanged(id, exists ? Successed : Allowed);
}

void CloudMaterialController::Private::verifyThenDownload(const std::string &id)
{
    folder.whenChecked(find(id)->info.mediaName, [this, id](bool present) {
        const StoredMedia *m = shutDown ? nullptr : find(id);
        if (!m)
            return;
        if (present && m->status == Successed)
            RXCM_LOG_INFO("{} is already in the material folder; not downloading it again", id);
        else
            startDownload(id);
    });
}

void CloudMaterialController::Private::startDownload(const std::string &id)
{
    StoredMedia *m = find(id);
    if (!m)
        return;
    if (m->status == Downloading) {
        RXCM_LOG_INFO("{} is being downloaded already; the new request is ignored", id);
        return;
    }
    m->status = Downloading;
    const std::string address = m->info.ossDir;
    const std::string name = m->info.mediaName;
    Q_EMIT q->materialDownloadStatusChanged(id, Downloading);
    Q_EMIT q->sigDownloadFile(address, id, name);
}

void CloudMaterialController::Private::onUpdateFileIsDownload(const std::string &id, const std::string &name,
                                                              bool downloaded)
{
    StoredMedia *m = find(id);
    if (!m || m->status != Downloading) {
        // A second answer to one request (the group's channel reaches every machine), or one
        // for a material that went.
        RXCM_LOG_INFO("download answer for {} ignored: it is not being downloaded here", id);
        return;
    }
    const DownloadStatus status = downloaded ? Successed : Failed;
    m->status = status;
    const std::string path = folder.filePath(name);
    if (downloaded) {
        RXCM_LOG_INFO("download success, url: {}", path);
        Q_EMIT q->sigDownloadSuccess(id, path);
    }
    Q_EMIT q->materialDownloadStatusChanged(id, status);
}

bool CloudMaterialController::Private::applyCatalogue(const MediaListResult &fetched, const SessionTicket &ticket)
{
    bool added = false;
    // A failed request reads as an empty catalogue and removes every known material, as the
    // cloud's contract has it; the panel says why its list went empty.
    if (!fetched.answered)
        setState(CatalogueState::Unreachable);

    std::unordered_set<std::string> fetchedIds;
    for (const MediaInfo &fetchedMedia : fetched.media) {
        if (!ticket.isLive())
            return added; // a receiver ended the session
        fetchedIds.insert(fetchedMedia.mid);
        const MediaEntity &entity = fetchedMedia.media_entity;
        if (entity.width == "0" || entity.height == "0") {
            // Without dimensions the host cannot place it; such media are never shown.
            RXCM_LOG_WARN("cloud media width: {}", static_cast<const std::string &>(entity.width));
            RXCM_LOG_WARN("cloud media height: {}", static_cast<const std::string &>(entity.height));
            continue;
        }
        StoredMedia *known = find(fetchedMedia.mid);
        if (!known) {
            media.push_back({fetchedMedia, NotAllowed});
            Q_EMIT q->addMaterials({makeRow(fetchedMedia, NotAllowed)});
            ensureThumbnail(fetchedMedia, true);
            added = true;
            continue;
        }
        known->info.approvalStatus = fetchedMedia.approvalStatus;
        ensureThumbnail(fetchedMedia, false); // one that failed before is tried again
        // A number the cloud did not send as one throws, and ends this refresh.
        const int approval = std::stoi(fetchedMedia.approvalStatus);
        Q_EMIT q->materialApprovalStatusChanged(fetchedMedia.mid, ApprovalStatus(approval));
        if (mayHaveLocalCopy(approval))
            Q_EMIT q->sigCloudFileIsExist(fetchedMedia.mid, fetchedMedia.mediaName);
    }
    if (!ticket.isLive())
        return added;

    const auto gone = std::stable_partition(media.begin(), media.end(),
                                            [&](const StoredMedia &m) { return fetchedIds.count(m.info.mid) != 0; });
    std::vector<StoredMedia> removed(std::make_move_iterator(gone), std::make_move_iterator(media.end()));
    media.erase(gone, media.end());
    // Gone from the cloud, so its preview goes too (a logout keeps them for the next login).
    QStringList staleThumbnails;
    for (const StoredMedia &m : removed) {
        const std::string path = thumbnails.path(m.info.mid, m.info.media_entity.thumb_image_url);
        if (!path.empty())
            staleThumbnails << QString::fromStdString(path);
    }
    thumbnails.remove(staleThumbnails);
    for (const StoredMedia &m : removed)
        Q_EMIT q->deleteMaterials({m.info.mid});
    if (fetched.answered && ticket.isLive())
        setState(CatalogueState::Reachable);
    return added;
}

CloudMaterialController::CloudMaterialController(HttpClientWrapper *http, const CurrentNode *node)
    : d(std::make_unique<Private>(this, http, node))
{
    registerCloudMaterialMetaTypes();
}

CloudMaterialController::~CloudMaterialController()
{
    shutdown();
}

void CloudMaterialController::init()
{
    connect(&d->folder, &MaterialFolder::fileChecked, this, &CloudMaterialController::sigFileExistStatusChanged);
    connect(&d->folder, &MaterialFolder::transferFinished, this,
            &CloudMaterialController::sigDownloadFileStatusChanged);
    connect(&d->folder, &MaterialFolder::transferProgress, this, &CloudMaterialController::materialDownloadProgress);
    connect(&d->thumbnails, &ThumbnailCache::thumbnailReady, d.get(),
            [this](const std::string &id, const std::string &path) {
                if (d->find(id))
                    Q_EMIT materialThumbnailReady(id, path);
                else
                    d->thumbnails.remove({QString::fromStdString(path)}); // the material went meanwhile
            });
    // On a proxy client the group's proxy server downloads and looks instead.
    connect(this, &CloudMaterialController::sigDownloadFile, d.get(),
            [this](const std::string &address, const std::string &id, const std::string &name) {
                if (!d->servedByProxy)
                    d->folder.download(address, id, name);
            });
    connect(
        this, &CloudMaterialController::sigDownloadFileStatusChanged, d.get(),
        [this](const std::string &id, const std::string &name, bool ok) { d->onUpdateFileIsDownload(id, name, ok); });
    connect(this, &CloudMaterialController::sigCloudFileIsExist, d.get(),
            [this](const std::string &id, const std::string &name) {
                if (!d->servedByProxy)
                    d->folder.lookFor(id, name, d->session.ticket());
            });
    connect(this, &CloudMaterialController::sigFileExistStatusChanged, d.get(),
            [this](const std::string &id, const std::string &name, bool exists) {
                d->onUpdateFileIsExist(id, name, exists);
            });

    d->refreshTimer.setInterval(refreshIntervalMs);
    connect(&d->refreshTimer, &QTimer::timeout, d.get(), [this] {
        if (d->session.isRunning())
            requestRefresh(true);
    });
    if (!d->shutDown)
        d->refreshTimer.start();
}

void CloudMaterialController::setWorkerPool(std::shared_ptr<WorkerPool> pool)
{
    d->pool = std::move(pool);
}

void CloudMaterialController::setToken(const std::string &token)
{
    if (d->shutDown)
        return;
    if (token.empty()) {
        d->restartSession(false);
        d->token.clear();
        d->setState(CatalogueState::LoggedOut);
        return;
    }
    if (token != d->token || !d->session.isRunning())
        d->restartSession(true);
    d->token = token;
    // A new session has failed nothing yet; an unreachable cloud stays so until a refresh tells.
    if (d->state == CatalogueState::LoggedOut)
        d->setState(CatalogueState::Reachable);
}

std::string CloudMaterialController::token() const
{
    return d->token;
}

void CloudMaterialController::setCloudMaterialFolderPath(const std::string &folder)
{
    d->folder.setPath(folder);
    d->thumbnails.setMaterialFolder(folder);
}

std::string CloudMaterialController::cloudMaterialFolderPath() const
{
    return d->folder.path();
}

void CloudMaterialController::setServedByProxy(bool servedByProxy)
{
    d->servedByProxy = servedByProxy;
}

bool CloudMaterialController::isServedByProxy() const
{
    return d->servedByProxy;
}

void CloudMaterialController::setStarDragCallback(const std::function<void(const std::string &, QDrag *)> &callback)
{
    d->starDragCallback = callback;
}

std::function<void(const std::string &, QDrag *)> CloudMaterialController::starDragCallback() const
{
    return d->starDragCallback;
}

void CloudMaterialController::showPreviews()
{
    d->thumbnails.setWanted(true);
    for (const Private::StoredMedia &m : d->media)
        d->ensureThumbnail(m.info, true);
}

std::future<void> CloudMaterialController::requestRefresh(bool quiet)
{
    return d->refresh(quiet, false);
}

void CloudMaterialController::requestSessionRefresh()
{
    d->refresh(true, true);
}

std::future<void> CloudMaterialController::Private::refresh(bool quiet, bool followNewMaterials)
{
    if (!pool || !http || shutDown)
        return {};
    // Everything the refresh needs, taken now: it must not read this object on the worker.
    const std::string gatewayHost = node ? node->host() : std::string();
    return pool->enqueue([http = http, token = token, gatewayHost, quiet, followNewMaterials, ticket = session.ticket(),
                          inbox = inbox, self = QPointer<Private>(this)] {
        if (!ticket.isLive() || gatewayHost.empty())
            return; // the session ended, or no node chosen yet
        if (!reachability::canReach(gatewayHost)) {
            QMetaObject::invokeMethod(
                inbox.get(),
                [self, ticket] {
                    if (self && !self->shutDown && ticket.isLive())
                        self->setState(CatalogueState::Unreachable);
                },
                Qt::QueuedConnection);
            return;
        }
        if (!refreshGuard.exchange(false))
            return; // another refresh is running
        // Released where the changes are applied, or where they are dropped unseen.
        auto release = std::make_shared<RefreshRelease>();
        if (!ticket.isLive())
            return;
        MediaListResult fetched = requestMediaList(*http, token, gatewayHost, !quiet);
        if (!ticket.isLive())
            return;
        QMetaObject::invokeMethod(
            inbox.get(),
            [self, ticket, release, followNewMaterials, fetched = std::move(fetched)] {
                if (!self || self->shutDown || !ticket.isLive())
                    return;
                bool added = false;
                try {
                    added = self->applyCatalogue(fetched, ticket);
                } catch (const std::exception &e) {
                    qCWarning(lcMaterials) << "material refresh stopped:" << e.what();
                }
                // Queued: by then this refresh has let go of the guard.
                if (added && followNewMaterials) {
                    QMetaObject::invokeMethod(
                        self.data(),
                        [self, ticket] {
                            if (self && !self->shutDown && ticket.isLive())
                                self->refresh(true, false);
                        },
                        Qt::QueuedConnection);
                }
            },
            Qt::QueuedConnection);
    });
}

void CloudMaterialController::downloadMaterial(const std::string &id)
{
    const Private::StoredMedia *m = d->shutDown ? nullptr : d->find(id);
    if (!m)
        return;
    // On a proxy client the copy is the proxy server's, which looks for itself.
    if (m->status == Successed && !d->servedByProxy)
        d->verifyThenDownload(id);
    else
        d->startDownload(id);
}

void CloudMaterialController::lookForFile(const std::string &id, const std::string &name)
{
    d->folder.lookFor(id, name, d->life.ticket());
}

bool CloudMaterialController::material(const std::string &id, CloudMaterialModel &model) const
{
    const Private::StoredMedia *m = d->find(id);
    if (!m)
        return false;
    model = makeRow(m->info, m->status);
    return true;
}

std::vector<CloudMaterialModel> CloudMaterialController::materials() const
{
    std::vector<CloudMaterialModel> rows;
    rows.reserve(d->media.size());
    for (const auto &m : d->media)
        rows.push_back(makeRow(m.info, m.status));
    return rows;
}

bool CloudMaterialController::removeLocalCopy(const std::string &id)
{
    Private::StoredMedia *m = d->find(id);
    if (d->servedByProxy || d->shutDown || !m || m->status == Downloading || !d->folder.removeCopy(m->info.mediaName))
        return false;
    m->status = Allowed;
    Q_EMIT materialDownloadStatusChanged(id, Allowed);
    return true;
}

std::string CloudMaterialController::thumbnailPath(const std::string &id, const std::string &thumbnailUrl) const
{
    return d->thumbnails.path(id, thumbnailUrl);
}

CatalogueState CloudMaterialController::catalogueState() const
{
    return d->state;
}

void CloudMaterialController::clear()
{
    if (d->shutDown)
        return;
    setToken(std::string());
    const std::vector<Private::StoredMedia> removed = std::exchange(d->media, {});
    for (const auto &m : removed)
        Q_EMIT deleteMaterials({m.info.mid});
}

void CloudMaterialController::shutdown()
{
    if (d->shutDown)
        return;
    d->shutDown = true;
    d->refreshTimer.stop();
    d->session.end();
    d->life.end();
    d->folder.shutdown();
    d->thumbnails.shutdown();
}

} // namespace talvor::cloudmaterial
