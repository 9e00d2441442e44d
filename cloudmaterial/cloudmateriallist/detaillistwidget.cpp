#include "cloudmaterial/cloudmateriallist/detaillistwidget.h"

#include "cloudmaterial/cloudmateriallist/detaillistitemdelegate.h"
#include "cloudmaterial/cloudmateriallist/detaillistitemwidget.h"
#include "cloudmaterial/cloudmateriallist/materialpresentation.h"
#include "cloudmaterial/languagechange.h"
#include "cloudmaterial/themeimage.h"

#include <QIcon>

namespace talvor::cloudmaterial {

class DetailListWidget::Private
{
public:
    std::function<StarDragCallback()> callbackProvider;
};

DetailListWidget::DetailListWidget(QWidget *parent)
    : QListWidget(parent)
    , d(std::make_unique<Private>())
{
    registerCloudMaterialMetaTypes();
    setObjectName(QStringLiteral("detailListWidget"));
    setViewMode(QListView::IconMode);
    setFlow(QListView::LeftToRight);
    setWrapping(true);
    setResizeMode(QListView::Adjust);
    setMovement(QListView::Static);
    setSpacing(6);
    setUniformItemSizes(true);
    setSelectionMode(QAbstractItemView::ExtendedSelection);
    setDragEnabled(true);
    setDragDropMode(QAbstractItemView::DragOnly);
    setItemDelegate(new DetailListItemDelegate(this));
    onLanguageChange(this, [this] {
        for (int row = 0; row < count(); ++row) {
            QListWidgetItem *it = item(row);
            if (const DetailListItemWidget *widget = materialWidget(it)) {
                it->setData(TypeRole, mediaTypeName(widget->model().mediaType));
                it->setToolTip(materialToolTip(it->text(), widget->model().downloadStatus));
            }
        }
    });
}

DetailListWidget::~DetailListWidget() = default;

void DetailListWidget::setStarDragCallbackProvider(std::function<StarDragCallback()> provider)
{
    d->callbackProvider = std::move(provider);
}

void DetailListWidget::addMaterial(const CloudMaterialModel &model, const QString &materialString)
{
    auto *item = new QListWidgetItem(QString::fromStdString(model.mediaName));
    item->setData(IdRole, QString::fromStdString(model.mid));
    item->setData(TypeRole, mediaTypeName(model.mediaType));
    item->setData(SizeRole, sizeText(model.size));
    item->setData(PlaceholderRole,
                  QPixmap(themeImagePath(placeholderImageName(model.mediaType) + QStringLiteral(".png"))));
    item->setSizeHint(DetailListItemDelegate::itemSize());
    addItem(item);
    setItemWidget(item, new DetailListItemWidget(model, materialString));
    setDownloadStatus(QString::fromStdString(model.mid), model.downloadStatus);
}

void DetailListWidget::removeMaterial(const QString &id)
{
    delete itemById(id);
}

QListWidgetItem *DetailListWidget::itemById(const QString &id) const
{
    for (int row = 0; row < count(); ++row) {
        if (item(row)->data(IdRole).toString() == id)
            return item(row);
    }
    return nullptr;
}

DetailListItemWidget *DetailListWidget::materialWidget(QListWidgetItem *item) const
{
    return item ? qobject_cast<DetailListItemWidget *>(itemWidget(item)) : nullptr;
}

void DetailListWidget::setDownloadStatus(const QString &id, int status)
{
    QListWidgetItem *item = itemById(id);
    if (!item)
        return;
    const QString image = statusImageName(status);
    item->setData(StatusImageRole, image);
    item->setToolTip(materialToolTip(item->text(), status));
    item->setData(Qt::DecorationRole,
                  image.isEmpty() ? QIcon() : QIcon(themeImagePath(image + QStringLiteral(".png"))));
    if (DetailListItemWidget *widget = materialWidget(item))
        widget->setDownloadStatus(status);
}

void DetailListWidget::setApprovalStatus(const QString &id, int approval)
{
    if (DetailListItemWidget *widget = materialWidget(itemById(id)))
        widget->setApprovalStatus(approval);
}

void DetailListWidget::setProgress(const QString &id, qint64 received, qint64 total)
{
    if (DetailListItemWidget *widget = materialWidget(itemById(id)))
        widget->setProgress(received, total);
}

void DetailListWidget::setThumbnail(const QString &id, const QPixmap &thumbnail)
{
    if (QListWidgetItem *item = itemById(id))
        item->setData(ThumbnailRole, thumbnail);
}

void DetailListWidget::startDrag(Qt::DropActions supportedActions)
{
    Q_UNUSED(supportedActions) // the host only ever copies a material
    const QList<QListWidgetItem *> selected = selectedItems();
    if (selected.isEmpty())
        return;
    DetailListItemWidget *widget = materialWidget(selected.first());
    if (!widget)
        return;
    // The preview the user sees in the grid follows the pointer.
    QPixmap preview = selected.first()->data(ThumbnailRole).value<QPixmap>();
    if (preview.isNull())
        preview = selected.first()->data(PlaceholderRole).value<QPixmap>();
    dragMaterial(this, widget->materialString(), preview,
                 d->callbackProvider ? d->callbackProvider() : StarDragCallback());
}

} // namespace talvor::cloudmaterial
