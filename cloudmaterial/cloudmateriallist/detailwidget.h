#pragma once

#include "cloudmaterial/cloudmateriallist/cloudmaterialmodel.h"

#include <QWidget>

#include <memory>
#include <string>
#include <vector>

class QLabel;

namespace talvor::cloudmaterial {

class CloudMaterialController;
class DetailBottomWidget;
class DetailListWidget;
class DetailTitleWidget;
class DetailTreeWidget;

/**
 * The material panel that the host embeds: search and refresh on top, the materials as an
 * icon grid or a table, and the bottom bar. It follows the material controller's signals.
 * Keys: Ctrl+F searches, F5 refreshes, and in a view Enter downloads and Delete removes the
 * downloaded copies of the selection.
 *
 * Owned by the Qt thread, where the controller emits its signals.
 */
class DetailWidget : public QWidget
{
    Q_OBJECT

public:
    /**
     * Shows the materials of @p controller and follows its signals; the controller serves refresh,
     * download and the host's drag callback, and must outlive the panel.
     */
    explicit DetailWidget(CloudMaterialController *controller, QWidget *parent = nullptr);
    ~DetailWidget() override;

    DetailTitleWidget *titleWidget() const;
    DetailListWidget *listView() const;
    DetailTreeWidget *treeView() const;
    DetailBottomWidget *bottomWidget() const;
    /** Shown instead of the views while there are no materials to show (or no session). */
    QWidget *emptyLabel() const;
    /** The line above the views that says the cloud cannot be reached. */
    QLabel *banner() const;

    /** Ids of the materials selected in the view shown. */
    std::vector<std::string> selectedIds() const;

    void addMaterials(const std::vector<CloudMaterialModel> &models);
    void deleteMaterials(const std::vector<std::string> &ids);
    void onMaterialDownloadStatusChanged(const std::string &id, DownloadStatus status);
    void onMaterialApprovalStatusChanged(const std::string &id, ApprovalStatus status);
    void onMaterialDownloadProgress(const std::string &id, qint64 received, qint64 total);
    void onMaterialThumbnailReady(const std::string &id, const std::string &path);
    void setCatalogueState(CatalogueState state);
    CatalogueState catalogueState() const;

    /**
     * Asks whether to delete the downloaded copies of the selected materials, and does so
     * on "yes". The question is window-modal and does not block.
     */
    void removeSelectedLocalCopies();

    /** Shows only the materials whose name contains the text (case-insensitive). */
    void setFilter(const QString &text);

private:
    class Private;
    std::unique_ptr<Private> const d;
};

} // namespace talvor::cloudmaterial
