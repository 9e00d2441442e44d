#pragma once

#include "cloudmaterial/cloudmateriallist/cloudmaterialmodel.h"

#include <QObject>

#include <functional>
#include <future>
#include <memory>
#include <string>
#include <vector>

class QDrag;
class QWidget;

namespace talvor::cloudmaterial {

class HttpClientWrapper;
class WorkerPool;

/**
 * The module's picture of the account's cloud materials: refreshes the catalogue, signals
 * which materials came and went, tracks each one's approval and local copy, and runs the
 * downloads. Blocking work runs on worker threads; signals reach the GUI queued.
 */
class CloudMaterialController : public QObject, public std::enable_shared_from_this<CloudMaterialController>
{
    Q_OBJECT

public:
    static constexpr int refreshIntervalMs = 60000;

    explicit CloudMaterialController(HttpClientWrapper *http);
    ~CloudMaterialController() override;

    /** Ties the download and existence signals to their local handlers and starts the clock. */
    void init();
    void setWorkerPool(std::shared_ptr<WorkerPool> pool);

    void setToken(const std::string &token);
    std::string token() const;
    /** The gateway host of the cloud node ("host[:port]", no scheme). */
    void setNode(const std::string &gatewayHost);
    void setCloudMaterialFolderPath(const std::string &folder);
    std::string cloudMaterialFolderPath() const;
    /**
     * On a proxy client the group's proxy server downloads and looks for files, so the
     * download and existence requests are left to the proxy instead of being served here.
     */
    void setServedByProxy(bool servedByProxy);
    bool isServedByProxy() const;

    void setStarDragCallback(const std::function<void(const std::string &, QDrag *)> &callback);
    std::function<void(const std::string &, QDrag *)> starDragCallback() const;
    QWidget *listWidget();

    /** Blocking: fetches the catalogue and signals the differences. Not for the GUI thread. */
    void refreshMaterialList(bool quiet);
    /** Queues a refresh on the worker pool. */
    std::future<void> requestRefresh(bool quiet = true);

    /** Starts downloading a material (from the panel). Unknown ids are ignored. */
    void downloadMaterial(const std::string &id);
    /** A copy of a material's row; false when the id is unknown. */
    bool material(const std::string &id, CloudMaterialModel &model) const;
    std::vector<CloudMaterialModel> materials() const;

    /**
     * Deletes the downloaded file of a material, which goes back to Allowed. False when
     * nothing was removed: unknown id, a running download, or a proxy client (the copy
     * lives on the group's proxy server).
     */
    bool removeLocalCopy(const std::string &id);

    /** Where a material's thumbnail is kept; empty while there is no material folder. */
    std::string thumbnailPath(const std::string &id, const std::string &thumbnailUrl) const;
    CatalogueState catalogueState() const;

    /** Forgets the token and every material (logout). */
    void clear();

    /** True for a plain file name that stays inside the material folder. */
    static bool isSafeFileName(const std::string &name);

Q_SIGNALS:
    void addMaterials(const std::vector<CloudMaterialModel> &models);
    void deleteMaterials(const std::vector<std::string> &ids);
    void materialDownloadStatusChanged(const std::string &id, DownloadStatus status);
    void materialApprovalStatusChanged(const std::string &id, ApprovalStatus status);
    void sigDownloadSuccess(const std::string &id, const std::string &path);
    void sigCloudFileIsExist(const std::string &id, const std::string &name);
    void sigDownloadFile(const std::string &ossDir, const std::string &id, const std::string &name);
    void sigDownloadFileStatusChanged(const std::string &id, const std::string &name, bool isDownload);
    void sigFileExistStatusChanged(const std::string &id, const std::string &name, bool isExist);
    /** Bytes received and the total (-1 if unknown) of a running download. */
    void materialDownloadProgress(const std::string &id, qint64 received, qint64 total);
    /** A material's thumbnail is on disk at @p path (fetched, or found from an earlier run). */
    void materialThumbnailReady(const std::string &id, const std::string &path);
    /** Logged out, or the outcome of the last refresh; sent when it changes. */
    void catalogueStateChanged(CatalogueState state);

private:
    class Private;
    std::unique_ptr<Private> const d;
};

} // namespace talvor::cloudmaterial
