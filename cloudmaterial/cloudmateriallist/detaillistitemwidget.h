#pragma once

#include "cloudmaterial/cloudmateriallist/cloudmaterialmodel.h"

#include <QWidget>

#include <memory>

namespace talvor::cloudmaterial {

/**
 * The widget behind one item of the icon grid: it holds the material's row and the string
 * handed to the host on a drag, and shows the download progress over the item. The item
 * itself is drawn by DetailListItemDelegate, so the widget lets mouse events through.
 *
 * Owned by the Qt thread.
 */
class DetailListItemWidget : public QWidget
{
    Q_OBJECT

public:
    DetailListItemWidget(const CloudMaterialModel &model, const QString &materialString, QWidget *parent = nullptr);
    ~DetailListItemWidget() override;

    const CloudMaterialModel &model() const;
    void setDownloadStatus(int status);
    void setApprovalStatus(int approval);
    /** The material's local path: the material folder, "/" and the file name. */
    QString materialString() const;
    /** Shows the progress bar while bytes arrive; total < 0 means unknown. */
    void setProgress(qint64 received, qint64 total);
    /** Percent shown, or -1 while no download is running. */
    int progress() const;

private:
    class Private;
    std::unique_ptr<Private> const d;
};

} // namespace talvor::cloudmaterial
