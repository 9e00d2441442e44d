#pragma once

#include "cloudmaterial/cloudmateriallist/cloudmaterialmodel.h"
#include "cloudmaterial/cloudmateriallist/materialpresentation.h"

#include <QTreeWidget>

#include <functional>
#include <memory>

namespace talvor::cloudmaterial {

/** The materials as a table: one top-level row per material; a drag hands it to the host like the grid's. Qt thread. */
class DetailTreeWidget : public QTreeWidget
{
    Q_OBJECT

public:
    enum Column {
        NameColumn = 0,
        ApprovalColumn = 1, // under the "Thumbnail" header: the preview, then the approval remark
        StatusColumn = 2,
        DownloadColumn = 3, // the progress of a running download
        TypeColumn = 4,
        ResolutionColumn = 5,
        SizeColumn = 6, // hidden: kept for sorting and tool tips
        IdColumn = 7, // hidden: the material id
        PathColumn = 8, // hidden: the material's local path
        ColumnCount = 9,
    };
    static constexpr int StatusImageRole = Qt::UserRole + 2;
    /** On the thumbnail column: true once the material's own thumbnail replaced the stand-in. */
    static constexpr int HasThumbnailRole = Qt::UserRole + 3;

    explicit DetailTreeWidget(QWidget *parent = nullptr);
    ~DetailTreeWidget() override;

    /** Where the host's drag callback is read from at each drag (it may be set later). */
    void setStarDragCallbackProvider(std::function<StarDragCallback()> provider);

    void addMaterial(const CloudMaterialModel &model, const QString &materialString);
    void removeMaterial(const QString &id);
    QTreeWidgetItem *itemById(const QString &id) const;

    void setDownloadStatus(const QString &id, int status);
    void setApprovalStatus(const QString &id, int approval);
    void setProgress(const QString &id, qint64 received, qint64 total);
    void setThumbnail(const QString &id, const QPixmap &thumbnail);
    /** Percent shown in the download column, or -1 while no download is running. */
    int progress(const QString &id) const;

protected:
    void startDrag(Qt::DropActions supportedActions) override;

private:
    class Private;
    std::unique_ptr<Private> const d;
};

} // namespace talvor::cloudmaterial
