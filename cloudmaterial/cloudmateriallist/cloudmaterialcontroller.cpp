#include "cloudmaterial/cloudmateriallist/cloudmaterialcontroller.h"

#include "cloudmaterial/cloudmateriallist/detailwidget.h"
#include "cloudmaterial/cloudmateriallist/medialistrequest.h"
#include "cloudmaterial/logging.h"
#include "cloudmaterial/protocol/filedownloader.h"
#include "cloudmaterial/protocol/httpclientwrapper.h"
#include "cloudmaterial/workerpool.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHostAddress>
#include <QLoggingCategory>
#include <QNetworkConfigurationManager>
#include <QPointer>
#include <QRegularExpression>
#include <QTimer>
#include <QUrl>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <unordered_set>

Q_LOGGING_CATEGORY(lcMaterials, "rxcm.materials", QtInfoMsg)

namespace talvor::cloudmaterial {

namespace {

// Set while no refresh runs; a refresh clears it for its duration. One per process,
// so two refreshes never overlap, whichever controller starts them.
std::atomic<bool> refreshGuard{true};

struct RefreshRelease
{
    ~RefreshRelease() { refreshGuard.store(true); }
};

bool isLoopbackHost(const std::string &gatewayHost)
{
    const QUrl url(QStringLiteral("https://") + QString::fromStdString(gatewayHost));
    const QString host = url.host();
    return host == QLatin1String("localhost") || QHostAddress(host).isLoopback();
}

// A cloud on this very machine (the local cloud of tests and demos) needs no network.
bool canReach(const std::string &gatewayHost)
{
    if (isLoopbackHost(gatewayHost))
        return true;
    QT_WARNING_PUSH
    QT_WARNING_DISABLE_DEPRECATED
    return QNetworkConfigurationManager().isOnline();
    QT_WARNING_POP
}

// Thumbnails are kept beside the materials they preview, in a hidden folder of the material
// folder: they go when the host clears that folder, and the configuration folder keeps only
// the module's small settings files.
const char *const thumbnailFolder = "/.thumbnails/";

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

    Private(CloudMaterialController *q, HttpClientWrapper *http)
        : q(q)
        , http(http)
    {
    }

    // Thumbnails still queued are dropped; the pools (last members) then wait for what runs.
    ~Private() { closing = true; }

    void onUpdateFileIsExist(const std::string &id, const std::string &name, bool exists);
    DownloadStatus onDownloadFile(const std::string &address, const std::string &id, const std::string &name);
    void onUpdateFileIsDownload(const std::string &id, const std::string &name, bool downloaded);

    std::string folder() const
    {
        std::lock_guard<std::mutex> lock(settingsMutex);
        return materialFolder;
    }
    std::string localPath(const std::string &name) const { return folder() + "/" + name; }

    void setState(CatalogueState next)
    {
        if (CatalogueState(state.exchange(std::int32_t(next))) != next)
            Q_EMIT q->catalogueStateChanged(next);
    }

    void ensureThumbnail(const MediaInfo &media, bool announce);
    void fetchThumbnail(const std::string &id, const std::string &url, const std::string &path);

    CloudMaterialController *const q;
    HttpClientWrapper *const http;
    std::shared_ptr<WorkerPool> pool;

    mutable std::mutex settingsMutex;
    std::string token;
    std::string gatewayHost;
    std::string materialFolder;
    bool servedByProxy = false;
    std::function<void(const std::string &, QDrag *)> starDragCallback;
    QPointer<DetailWidget> panel; // owned by the host once it embeds it

    mutable std::mutex mutex; // guards media and pendingThumbnails
    std::vector<StoredMedia> media;
    std::unordered_set<std::string> pendingThumbnails;
    std::atomic<std::int32_t> state{std::int32_t(CatalogueState::LoggedOut)};
    std::atomic<bool> closing{false};
    // Thumbnails are for the panel: a controller whose panel was never asked for fetches none.
    std::atomic<bool> thumbnailsWanted{false};

    QTimer refreshTimer;
    // Downloads take their own threads, so a long one holds up neither a refresh nor the
    // next download. Declared last: destroyed first, while the rest is still there.
    WorkerPool downloadPool{2};
    // Thumbnails have a thread of their own: two long downloads must not leave the panel
    // without previews.
    WorkerPool thumbnailPool{1};
};

void CloudMaterialController::Private::ensureThumbnail(const MediaInfo &media, bool announce)
{
    const std::string &url = media.media_entity.thumb_image_url;
    const std::string path = q->thumbnailPath(media.mid, url);
    if (!thumbnailsWanted || path.empty() || url.empty())
        return;
    if (QFileInfo(QString::fromStdString(path)).isFile()) {
        if (announce)
            Q_EMIT q->materialThumbnailReady(media.mid, path);
        return; // fetched once, kept
    }
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (!pendingThumbnails.insert(media.mid).second)
            return;
    }
    // The task does not own the controller: the pool is a member, so it ends before the rest.
    thumbnailPool.enqueue([this, id = media.mid, url, path] {
        if (!closing)
            fetchThumbnail(id, url, path);
    });
}

void CloudMaterialController::Private::fetchThumbnail(const std::string &id, const std::string &url,
                                                      const std::string &path)
{
    const QString file = QString::fromStdString(path);
    const QString scheme = QUrl(QString::fromStdString(url)).scheme();
    DownloadStatus status = Failed;
    if (scheme == QLatin1String("https") || scheme == QLatin1String("http"))
        status = FileDownloader().download(url, file);
    bool known = false;
    {
        std::lock_guard<std::mutex> lock(mutex);
        pendingThumbnails.erase(id);
        known = std::any_of(media.begin(), media.end(), [&](const StoredMedia &m) { return m.info.mid == id; });
    }
    if (status != Successed) {
        // A partial file would be appended to by the next try and fail it again.
        QFile::remove(file + QStringLiteral(".temp"));
        qCWarning(lcMaterials).noquote() << "thumbnail of" << QString::fromStdString(id) << "not fetched from"
                                         << QString::fromStdString(url);
        return;
    }
    if (!known) {
        QFile::remove(file); // the material went while its thumbnail was on the way
        return;
    }
    if (!closing)
        Q_EMIT q->materialThumbnailReady(id, path);
}

void CloudMaterialController::Private::onUpdateFileIsExist(const std::string &id, const std::string &, bool exists)
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        auto it = std::find_if(media.begin(), media.end(), [&](const StoredMedia &m) { return m.info.mid == id; });
        if (it == media.end() || it->status == Downloading)
            return; // unknown, or a running download that an old answer must not override
        if (exists)
            it->status = Successed;
    }
    // "No" is shown but not stored: the material stays as the cloud's approval left it.
    Q_EMIT q->materialDownloadStatusChanged(id, exists ? Successed : Allowed);
}

DownloadStatus CloudMaterialController::Private::onDownloadFile(const std::string &address, const std::string &id,
                                                                const std::string &name)
{
    if (!isSafeFileName(name)) {
        RXCM_LOG_WARN("refused to download {}: the file name \"{}\" would leave the material folder", id, name);
        Q_EMIT q->sigDownloadFileStatusChanged(id, name, false);
        return Failed;
    }
    FileDownloader downloader;
    QObject::connect(&downloader, &FileDownloader::progress, &downloader,
                     [this, &id](qint64 received, qint64 total) {
                         Q_EMIT q->materialDownloadProgress(id, received, total);
                     });
    const DownloadStatus status = downloader.download(address, QString::fromStdString(localPath(name)));
    Q_EMIT q->sigDownloadFileStatusChanged(id, name, status == Successed);
    return status;
}

void CloudMaterialController::Private::onUpdateFileIsDownload(const std::string &id, const std::string &name,
                                                              bool downloaded)
{
    const DownloadStatus status = downloaded ? Successed : Failed;
    const std::string path = localPath(name);
    if (downloaded) {
        RXCM_LOG_INFO("download success, url: {}", path);
        Q_EMIT q->sigDownloadSuccess(id, path);
    }
    Q_EMIT q->materialDownloadStatusChanged(id, status);
    std::lock_guard<std::mutex> lock(mutex);
    auto it = std::find_if(media.begin(), media.end(), [&](const StoredMedia &m) { return m.info.mid == id; });
    if (it != media.end())
        it->status = status;
}

CloudMaterialController::CloudMaterialController(HttpClientWrapper *http)
    : d(std::make_unique<Private>(this, http))
{
    registerCloudMaterialMetaTypes();
}

CloudMaterialController::~CloudMaterialController() = default;

void CloudMaterialController::init()
{
    connect(this, &CloudMaterialController::sigDownloadFile, d.get(),
            [this](const std::string &address, const std::string &id, const std::string &name) {
                {
                    std::lock_guard<std::mutex> lock(d->settingsMutex);
                    if (d->servedByProxy)
                        return;
                }
                std::weak_ptr<CloudMaterialController> self = weak_from_this();
                d->downloadPool.enqueue([self, address, id, name] {
                    if (auto controller = self.lock())
                        controller->d->onDownloadFile(address, id, name);
                });
            });
    connect(this, &CloudMaterialController::sigDownloadFileStatusChanged, d.get(),
            [this](const std::string &id, const std::string &name, bool ok) { d->onUpdateFileIsDownload(id, name, ok); });

    connect(this, &CloudMaterialController::sigCloudFileIsExist, d.get(),
            [this](const std::string &id, const std::string &name) {
                {
                    std::lock_guard<std::mutex> lock(d->settingsMutex);
                    if (d->servedByProxy)
                        return;
                }
                const bool exists = isSafeFileName(name) && QFileInfo(QString::fromStdString(d->localPath(name))).isFile();
                Q_EMIT sigFileExistStatusChanged(id, name, exists);
            });
    connect(this, &CloudMaterialController::sigFileExistStatusChanged, d.get(),
            [this](const std::string &id, const std::string &name, bool exists) {
                d->onUpdateFileIsExist(id, name, exists);
            });

    d->refreshTimer.setInterval(refreshIntervalMs);
    connect(&d->refreshTimer, &QTimer::timeout, d.get(), [this] {
        if (!token().empty() && d->pool)
            requestRefresh(true);
    });
    d->refreshTimer.start();
}

void CloudMaterialController::setWorkerPool(std::shared_ptr<WorkerPool> pool)
{
    d->pool = std::move(pool);
}

void CloudMaterialController::setToken(const std::string &token)
{
    {
        std::lock_guard<std::mutex> lock(d->settingsMutex);
        d->token = token;
    }
    if (token.empty()) {
        d->setState(CatalogueState::LoggedOut);
    } else {
        // A new session has failed nothing yet; an unreachable cloud stays so until a refresh tells.
        auto loggedOut = std::int32_t(CatalogueState::LoggedOut);
        if (d->state.compare_exchange_strong(loggedOut, std::int32_t(CatalogueState::Reachable)))
            Q_EMIT catalogueStateChanged(CatalogueState::Reachable);
    }
}

std::string CloudMaterialController::token() const
{
    std::lock_guard<std::mutex> lock(d->settingsMutex);
    return d->token;
}

void CloudMaterialController::setNode(const std::string &gatewayHost)
{
    std::lock_guard<std::mutex> lock(d->settingsMutex);
    d->gatewayHost = gatewayHost;
}

void CloudMaterialController::setCloudMaterialFolderPath(const std::string &folder)
{
    std::lock_guard<std::mutex> lock(d->settingsMutex);
    d->materialFolder = folder;
}

std::string CloudMaterialController::cloudMaterialFolderPath() const
{
    return d->folder();
}

void CloudMaterialController::setServedByProxy(bool servedByProxy)
{
    std::lock_guard<std::mutex> lock(d->settingsMutex);
    d->servedByProxy = servedByProxy;
}

bool CloudMaterialController::isServedByProxy() const
{
    std::lock_guard<std::mutex> lock(d->settingsMutex);
    return d->servedByProxy;
}

void CloudMaterialController::setStarDragCallback(const std::function<void(const std::string &, QDrag *)> &callback)
{
    std::lock_guard<std::mutex> lock(d->settingsMutex);
    d->starDragCallback = callback;
}

std::function<void(const std::string &, QDrag *)> CloudMaterialController::starDragCallback() const
{
    std::lock_guard<std::mutex> lock(d->settingsMutex);
    return d->starDragCallback;
}

QWidget *CloudMaterialController::listWidget()
{
    if (d->panel)
        return d->panel;
    auto *panel = new DetailWidget(this);
    // The panel is the context: signals from worker threads arrive queued on the GUI thread.
    connect(this, &CloudMaterialController::addMaterials, panel, &DetailWidget::addMaterials);
    connect(this, &CloudMaterialController::deleteMaterials, panel, &DetailWidget::deleteMaterials);
    connect(this, &CloudMaterialController::materialDownloadStatusChanged, panel,
            &DetailWidget::onMaterialDownloadStatusChanged);
    connect(this, &CloudMaterialController::materialApprovalStatusChanged, panel,
            &DetailWidget::onMaterialApprovalStatusChanged);
    connect(this, &CloudMaterialController::materialDownloadProgress, panel, &DetailWidget::onMaterialDownloadProgress);
    connect(this, &CloudMaterialController::materialThumbnailReady, panel, &DetailWidget::onMaterialThumbnailReady);
    connect(this, &CloudMaterialController::catalogueStateChanged, panel, &DetailWidget::setCatalogueState);
    // Materials known before the panel existed, and their thumbnails (from disk, or fetched now).
    panel->addMaterials(materials());
    d->panel = panel;
    d->thumbnailsWanted = true;
    std::vector<MediaInfo> known;
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        for (const auto &m : d->media)
            known.push_back(m.info);
    }
    for (const MediaInfo &media : known)
        d->ensureThumbnail(media, true);
    return panel;
}

void CloudMaterialController::refreshMaterialList(bool quiet)
{
    std::string token;
    std::string gatewayHost;
    {
        std::lock_guard<std::mutex> lock(d->settingsMutex);
        token = d->token;
        gatewayHost = d->gatewayHost;
    }
    if (gatewayHost.empty())
        return; // no node chosen yet
    if (!canReach(gatewayHost)) {
        if (!token.empty())
            d->setState(CatalogueState::Unreachable);
        return;
    }
    if (!refreshGuard.exchange(false))
        return; // another refresh is running
    RefreshRelease release;
    if (token.empty())
        return;

    MediaListResult fetched = requestMediaList(*d->http, token, gatewayHost, !quiet);
    // A failed request reads as an empty catalogue and removes every known material, as the
    // cloud's contract has it; the panel says why its list went empty.
    if (!fetched.answered && !this->token().empty())
        d->setState(CatalogueState::Unreachable);

    std::unordered_set<std::string> fetchedIds;
    for (const MediaInfo &media : fetched.media) {
        fetchedIds.insert(media.mid);
        const MediaEntity &entity = media.media_entity;
        if (entity.width == "0" || entity.height == "0") {
            // Without dimensions the host cannot place it; such media are never shown.
            RXCM_LOG_WARN("cloud media width: {}", static_cast<const std::string &>(entity.width));
            RXCM_LOG_WARN("cloud media height: {}", static_cast<const std::string &>(entity.height));
            continue;
        }

        std::unique_lock<std::mutex> lock(d->mutex);
        auto it = std::find_if(d->media.begin(), d->media.end(),
                               [&](const Private::StoredMedia &m) { return m.info.mid == media.mid; });
        if (it == d->media.end()) {
            d->media.push_back({media, NotAllowed});
            const CloudMaterialModel row = makeRow(media, NotAllowed);
            lock.unlock();
            Q_EMIT addMaterials({row});
            d->ensureThumbnail(media, true);
            continue;
        }
        it->info.approvalStatus = media.approvalStatus;
        lock.unlock();
        d->ensureThumbnail(media, false); // one that failed before is tried again
        // A number the cloud did not send as one throws, and ends this refresh.
        const int approval = std::stoi(media.approvalStatus);
        Q_EMIT materialApprovalStatusChanged(media.mid, ApprovalStatus(approval));
        if (approval == 2 || approval == 5)
            Q_EMIT sigCloudFileIsExist(media.mid, media.mediaName);
    }

    std::vector<std::string> removed;
    std::vector<std::string> staleThumbnails;
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        auto gone = std::stable_partition(d->media.begin(), d->media.end(), [&](const Private::StoredMedia &m) {
            return fetchedIds.count(m.info.mid) != 0;
        });
        for (auto it = gone; it != d->media.end(); ++it) {
            removed.push_back(it->info.mid);
            staleThumbnails.push_back(thumbnailPath(it->info.mid, it->info.media_entity.thumb_image_url));
        }
        d->media.erase(gone, d->media.end());
    }
    for (const std::string &id : removed)
        Q_EMIT deleteMaterials({id});
    // Gone from the cloud, so its preview goes too (a logout keeps them for the next login).
    for (const std::string &path : staleThumbnails) {
        if (!path.empty())
            QFile::remove(QString::fromStdString(path));
    }
    if (fetched.answered && !this->token().empty())
        d->setState(CatalogueState::Reachable);
}

std::future<void> CloudMaterialController::requestRefresh(bool quiet)
{
    if (!d->pool)
        return {};
    std::weak_ptr<CloudMaterialController> self = weak_from_this();
    return d->pool->enqueue([self, quiet] {
        auto controller = self.lock();
        if (!controller)
            return;
        try {
            controller->refreshMaterialList(quiet);
        } catch (const std::exception &e) {
            qCWarning(lcMaterials) << "material refresh stopped:" << e.what();
        }
    });
}

void CloudMaterialController::downloadMaterial(const std::string &id)
{
    std::string address;
    std::string name;
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        auto it = std::find_if(d->media.begin(), d->media.end(),
                               [&](const Private::StoredMedia &m) { return m.info.mid == id; });
        if (it == d->media.end())
            return;
        it->status = Downloading;
        address = it->info.ossDir;
        name = it->info.mediaName;
    }
    Q_EMIT materialDownloadStatusChanged(id, Downloading);
    Q_EMIT sigDownloadFile(address, id, name);
}

bool CloudMaterialController::material(const std::string &id, CloudMaterialModel &model) const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    auto it = std::find_if(d->media.begin(), d->media.end(),
                           [&](const Private::StoredMedia &m) { return m.info.mid == id; });
    if (it == d->media.end())
        return false;
    model = makeRow(it->info, it->status);
    return true;
}

std::vector<CloudMaterialModel> CloudMaterialController::materials() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    std::vector<CloudMaterialModel> rows;
    rows.reserve(d->media.size());
    for (const auto &m : d->media)
        rows.push_back(makeRow(m.info, m.status));
    return rows;
}

bool CloudMaterialController::removeLocalCopy(const std::string &id)
{
    if (isServedByProxy())
        return false;
    std::string name;
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        auto it = std::find_if(d->media.begin(), d->media.end(),
                               [&](const Private::StoredMedia &m) { return m.info.mid == id; });
        if (it == d->media.end() || it->status == Downloading)
            return false;
        name = it->info.mediaName;
    }
    if (!isSafeFileName(name))
        return false;
    const QString path = QString::fromStdString(d->localPath(name));
    if (QFileInfo(path).isFile() && !QFile::remove(path)) {
        qCWarning(lcMaterials).noquote() << "could not remove the local copy" << path;
        return false;
    }
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        auto it = std::find_if(d->media.begin(), d->media.end(),
                               [&](const Private::StoredMedia &m) { return m.info.mid == id; });
        if (it != d->media.end())
            it->status = Allowed;
    }
    qCInfo(lcMaterials).noquote() << "removed the local copy" << path;
    Q_EMIT materialDownloadStatusChanged(id, Allowed);
    return true;
}

std::string CloudMaterialController::thumbnailPath(const std::string &id, const std::string &thumbnailUrl) const
{
    const std::string folder = d->folder();
    if (folder.empty() || id.empty())
        return {};
    return folder + thumbnailFolder
           + (thumbnailStem(id) + QStringLiteral(".thumbnail.") + thumbnailExtension(thumbnailUrl)).toStdString();
}

CatalogueState CloudMaterialController::catalogueState() const
{
    return CatalogueState(d->state.load());
}

void CloudMaterialController::clear()
{
    setToken(std::string());
    std::vector<std::string> removed;
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        for (const auto &m : d->media)
            removed.push_back(m.info.mid);
        d->media.clear();
    }
    for (const std::string &id : removed)
        Q_EMIT deleteMaterials({id});
}

bool CloudMaterialController::isSafeFileName(const std::string &name)
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
