#pragma once

#include "cloudmaterial/cloudmateriallist/cloudmaterialmodel.h"

#include <QWidget>

#include <memory>
#include <string>
#include <vector>

namespace talvor::cloudmaterial {

class CloudMaterialController;
class DetailBottomWidget;
class DetailListWidget;
class DetailTitleWidget;
class DetailTreeWidget;

/**
 * The material panel that the host embeds: search and refresh on top, the materials as an
 * icon grid or a table, and the bottom bar. It follows the material controller's signals.
 */
class DetailWidget : public QWidget
{
    Q_OBJECT

public:
    /** The controller serves refresh, download and the host's drag callback; it must outlive the panel. */
    explicit DetailWidget(CloudMaterialController *controller, QWidget *parent = nullptr);
    ~DetailWidget() override;

    DetailTitleWidget *titleWidget() const;
    DetailListWidget *listView() const;
    DetailTreeWidget *treeView() const;
    DetailBottomWidget *bottomWidget() const;
    /** Shown instead of the views while there are no materials to show. */
    QWidget *emptyLabel() const;

    /** Ids of the materials selected in the view shown. */
    std::vector<std::string> selectedIds() const;

    void addMaterials(const std::vector<CloudMaterialModel> &models);
    void deleteMaterials(const std::vector<std::string> &ids);
    void onMaterialDownloadStatusChanged(const std::string &id, DownloadStatus status);
    void onMaterialApprovalStatusChanged(const std::string &id, ApprovalStatus status);
    void onMaterialDownloadProgress(const std::string &id, qint64 received, qint64 total);

    /** Shows only the materials whose name contains the text (case-insensitive). */
    void setFilter(const QString &text);

private:
    class Private;
    std::unique_ptr<Private> const d;
};

} // namespace talvor::cloudmaterial
