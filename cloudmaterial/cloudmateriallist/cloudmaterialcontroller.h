#pragma once

#include "cloudmaterial/cloudmateriallist/cloudmaterialmodel.h"

#include <QObject>

#include <functional>
#include <future>
#include <memory>
#include <string>
#include <vector>

class QDrag;

namespace talvor::cloudmaterial {

class CurrentNode;
class HttpClientWrapper;
class WorkerPool;

/**
 * The module's picture of the account's cloud materials: refreshes the catalogue, signals
 * which materials came and went, tracks each one's approval and local copy, and runs the
 * downloads.
 *
 * Owned by the Qt thread, like its media list and its settings: every call, and every signal,
 * is on that thread. Worker threads only run blocking steps (the catalogue request and its
 * parsing on the shared pool; file look-ups, downloads and thumbnail fetches on pools of its
 * own) on copies taken when the work is queued, and hand the results back by queued calls.
 *
 * setToken() with a token starts a session and clear() ends it: a refresh, an existence check
 * or a thumbnail fetch of an ended session stops at its next step and signals nothing. One
 * download runs per file of the material folder, whoever asks for it.
 */
class CloudMaterialController : public QObject, public std::enable_shared_from_this<CloudMaterialController>
{
    Q_OBJECT

public:
    static constexpr int refreshIntervalMs = 60000;

    /** @p node is the module's current node; it is read on the Qt thread only. */
    CloudMaterialController(HttpClientWrapper *http, const CurrentNode *node);
    /** Shuts down first (see shutdown()). */
    ~CloudMaterialController() override;

    /** Ties the download and existence signals to their local handlers and starts the clock. */
    void init();
    void setWorkerPool(std::shared_ptr<WorkerPool> pool);

    /** A new token starts a session (the same one again keeps it); an empty one ends it. */
    void setToken(const std::string &token);
    std::string token() const;
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
    /**
     * A panel shows the materials: from now on their previews are fetched, those of the materials
     * known already at once. Until then none is fetched.
     */
    void showPreviews();

    /**
     * Queues a refresh of this session on the worker pool. The future is ready when the
     * catalogue has been fetched (or the refresh gave up); the changes are signalled after
     * that, queued on the Qt thread. Not valid without a pool or after shutdown().
     */
    std::future<void> requestRefresh(bool quiet = true);
    /**
     * The refresh that starts a session (a login, a resumed session). A refresh looks for the
     * local copies of the materials it already knew, not of those it adds; so when this one adds
     * materials, the next refresh follows at once and every row shows its real state within
     * moments instead of after the refresh period.
     */
    void requestSessionRefresh();

    /**
     * Starts downloading a material (from the panel). Unknown ids are ignored, and so is a
     * material being downloaded; one whose file is already in the folder is not fetched again.
     */
    void downloadMaterial(const std::string &id);
    /**
     * Looks for a material's file in the folder, off the Qt thread, and answers with
     * sigFileExistStatusChanged. For the group's proxy server: the answer does not depend on
     * this machine's session.
     */
    void lookForFile(const std::string &id, const std::string &name);
    /** A copy of a material's row; false when the id is unknown. */
    bool material(const std::string &id, CloudMaterialModel &model) const;
    std::vector<CloudMaterialModel> materials() const;

    /**
     * Deletes the downloaded file of a material, and the ".temp" a failed download left,
     * after which the material is Allowed and can be downloaded again. False when
     * nothing was removed: unknown id, a running download, or a proxy client (the copy
     * lives on the group's proxy server).
     */
    bool removeLocalCopy(const std::string &id);

    /**
     * Where a material's thumbnail is kept: in the material folder, or in the user's cache
     * while there is none.
     */
    std::string thumbnailPath(const std::string &id, const std::string &thumbnailUrl) const;
    CatalogueState catalogueState() const;

    /** Ends the session and forgets the token and every material (logout). */
    void clear();

    /**
     * For the module's teardown at exit: stops the clock, ends the session, makes every later
     * call a no-op, stops running downloads and thumbnail fetches (removing their ".temp"
     * files) and joins the controller's own threads, all within a fraction of a second.
     * Signals nothing. Safe to call more than once.
     */
    void shutdown();

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
