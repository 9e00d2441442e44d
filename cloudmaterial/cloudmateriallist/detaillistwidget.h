#pragma once

#include "cloudmaterial/cloudmateriallist/cloudmaterialmodel.h"
#include "cloudmaterial/cloudmateriallist/materialpresentation.h"

#include <QListWidget>

#include <functional>
#include <memory>
#include <string>

namespace talvor::cloudmaterial {

class DetailListItemWidget;

/** The icon grid of the materials; a drag hands the material's local path to the host. Qt thread. */
class DetailListWidget : public QListWidget
{
    Q_OBJECT

public:
    enum Role {
        IdRole = Qt::UserRole + 1, // the material id (QString)
        StatusImageRole, // the status image's name, empty when none
        TypeRole, // translated type name
        SizeRole, // size text
        ThumbnailRole, // the thumbnail (QPixmap), unset while there is none
        PlaceholderRole, // the type's stand-in picture (QPixmap)
    };

    explicit DetailListWidget(QWidget *parent = nullptr);
    ~DetailListWidget() override;

    /** Where the host's drag callback is read from at each drag (it may be set later). */
    void setStarDragCallbackProvider(std::function<StarDragCallback()> provider);

    void addMaterial(const CloudMaterialModel &model, const QString &materialString);
    void removeMaterial(const QString &id);
    QListWidgetItem *itemById(const QString &id) const;
    DetailListItemWidget *materialWidget(QListWidgetItem *item) const;

    void setDownloadStatus(const QString &id, int status);
    void setApprovalStatus(const QString &id, int approval);
    void setProgress(const QString &id, qint64 received, qint64 total);
    void setThumbnail(const QString &id, const QPixmap &thumbnail);

protected:
    void startDrag(Qt::DropActions supportedActions) override;

private:
    class Private;
    std::unique_ptr<Private> const d;
};

} // namespace talvor::cloudmaterial
