#include "cloudmaterial/cloudmateriallist/detailtreewidget.h"

#include "cloudmaterial/cloudmateriallist/materialpresentation.h"
#include "cloudmaterial/translatemanager.h"

#include <QHeaderView>
#include <QIcon>
#include <QProgressBar>
#include <QVBoxLayout>

namespace talvor::cloudmaterial {

class DetailTreeWidget::Private
{
public:
    QProgressBar *bar(DetailTreeWidget *tree, QTreeWidgetItem *item) const
    {
        QWidget *cell = item ? tree->itemWidget(item, DownloadColumn) : nullptr;
        return cell ? cell->findChild<QProgressBar *>() : nullptr;
    }
};

DetailTreeWidget::DetailTreeWidget(QWidget *parent)
    : QTreeWidget(parent)
    , d(std::make_unique<Private>())
{
    registerCloudMaterialMetaTypes();
    setObjectName(QStringLiteral("detailTreeWidget"));
    header()->setObjectName(QStringLiteral("detailTreeHeader"));
    setColumnCount(ColumnCount);
    setHeaderLabels({TranslateManager::text("Name"), TranslateManager::text("Thumbnail"),
                     TranslateManager::text("Status"), TranslateManager::text("Download"),
                     TranslateManager::text("Type"), TranslateManager::text("Resolution"),
                     TranslateManager::text("Size")});
    for (int column : {SizeColumn, IdColumn, PathColumn})
        setColumnHidden(column, true);
    setUniformRowHeights(true);
    setIconSize(QSize(45, 30));
    setRootIsDecorated(false);
    setSelectionMode(QAbstractItemView::ExtendedSelection);
    setColumnWidth(NameColumn, 200);
    setColumnWidth(ApprovalColumn, 130);
    setColumnWidth(StatusColumn, 60);
    setColumnWidth(DownloadColumn, 110);
}

DetailTreeWidget::~DetailTreeWidget() = default;

void DetailTreeWidget::addMaterial(const CloudMaterialModel &model, const QString &materialString)
{
    auto *item = new QTreeWidgetItem;
    item->setText(NameColumn, QString::fromStdString(model.mediaName));
    item->setToolTip(NameColumn, QString::fromStdString(model.mediaName));
    item->setText(TypeColumn, mediaTypeName(model.mediaType));
    item->setText(ResolutionColumn, QString::fromStdString(model.resolution));
    item->setText(SizeColumn, sizeText(model.size));
    item->setText(IdColumn, QString::fromStdString(model.mid));
    item->setText(PathColumn, materialString);
    addTopLevelItem(item);
    const QString id = QString::fromStdString(model.mid);
    setApprovalStatus(id, model.approvalStatus);
    setDownloadStatus(id, model.downloadStatus);
}

void DetailTreeWidget::removeMaterial(const QString &id)
{
    delete itemById(id);
}

QTreeWidgetItem *DetailTreeWidget::itemById(const QString &id) const
{
    for (int row = 0; row < topLevelItemCount(); ++row) {
        if (topLevelItem(row)->text(IdColumn) == id)
            return topLevelItem(row);
    }
    return nullptr;
}

void DetailTreeWidget::setDownloadStatus(const QString &id, int status)
{
    QTreeWidgetItem *item = itemById(id);
    if (!item)
        return;
    const QString image = statusImageName(status);
    item->setData(StatusColumn, StatusImageRole, image);
    item->setIcon(StatusColumn, image.isEmpty() ? QIcon() : QIcon(themeImagePath(image + QStringLiteral(".png"))));
    if (status != Downloading && d->bar(this, item))
        removeItemWidget(item, DownloadColumn);
}

void DetailTreeWidget::setApprovalStatus(const QString &id, int approval)
{
    QTreeWidgetItem *item = itemById(id);
    if (!item)
        return;
    item->setText(ApprovalColumn, approvalText(approval));
    item->setForeground(ApprovalColumn, approvalColor(approval));
}

void DetailTreeWidget::setProgress(const QString &id, qint64 received, qint64 total)
{
    QTreeWidgetItem *item = itemById(id);
    if (!item)
        return;
    QProgressBar *bar = d->bar(this, item);
    if (!bar) {
        // A holder keeps the thin bar centred in the row.
        auto *cell = new QWidget;
        auto *layout = new QVBoxLayout(cell);
        layout->setContentsMargins(4, 0, 8, 0);
        bar = new QProgressBar(cell);
        bar->setObjectName(QStringLiteral("materialProgress"));
        bar->setTextVisible(false);
        bar->setFixedHeight(6);
        layout->addWidget(bar, 0, Qt::AlignVCenter);
        setItemWidget(item, DownloadColumn, cell);
    }
    if (total > 0) {
        bar->setRange(0, 100);
        bar->setValue(int(received * 100 / total));
    } else {
        bar->setRange(0, 0); // the size is unknown: a busy indicator
    }
}

int DetailTreeWidget::progress(const QString &id) const
{
    const QProgressBar *bar = d->bar(const_cast<DetailTreeWidget *>(this), itemById(id));
    if (!bar)
        return -1;
    return bar->maximum() > 0 ? bar->value() : 0;
}

} // namespace talvor::cloudmaterial
