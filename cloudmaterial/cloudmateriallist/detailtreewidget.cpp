#include "cloudmaterial/cloudmateriallist/detailtreewidget.h"

#include "cloudmaterial/cloudmateriallist/materialpresentation.h"
#include "cloudmaterial/languagechange.h"
#include "cloudmaterial/themeimage.h"
#include "cloudmaterial/translatemanager.h"

#include <QHeaderView>
#include <QIcon>
#include <QPainter>
#include <QPainterPath>
#include <QProgressBar>
#include <QVBoxLayout>

namespace talvor::cloudmaterial {

namespace {

// The picture cropped to fill the tree's icon size, drawn at the screen's density so it stays sharp.
QIcon coverIcon(const QPixmap &picture, const QSize &size, qreal ratio)
{
    QPixmap icon(size * ratio);
    icon.setDevicePixelRatio(ratio);
    icon.fill(Qt::transparent);
    QPainter painter(&icon);
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    painter.setRenderHint(QPainter::Antialiasing);
    QPainterPath clip;
    clip.addRoundedRect(QRectF(QPointF(0, 0), QSizeF(size)), 2, 2);
    painter.setClipPath(clip);
    QSizeF shown = picture.size() / picture.devicePixelRatio();
    shown.scale(QSizeF(size), Qt::KeepAspectRatioByExpanding);
    painter.drawPixmap(QRectF(QPointF((size.width() - shown.width()) / 2, (size.height() - shown.height()) / 2), shown),
                       picture, QRectF(picture.rect()));
    painter.end();
    // A picture keeps its colours in a selected row; the style would tint it otherwise.
    QIcon result;
    result.addPixmap(icon, QIcon::Normal);
    result.addPixmap(icon, QIcon::Selected);
    return result;
}

} // namespace

class DetailTreeWidget::Private
{
public:
    QProgressBar *bar(DetailTreeWidget *tree, QTreeWidgetItem *item) const
    {
        QWidget *cell = item ? tree->itemWidget(item, DownloadColumn) : nullptr;
        return cell ? cell->findChild<QProgressBar *>() : nullptr;
    }

    // The codes behind each row's translated texts, kept on the row for a change of language.
    static constexpr int CodeRole = Qt::UserRole + 4;

    void retranslate(DetailTreeWidget *tree)
    {
        tree->setHeaderLabels({TranslateManager::text("Name"), TranslateManager::text("Thumbnail"),
                               TranslateManager::text("Status"), TranslateManager::text("Download"),
                               TranslateManager::text("Type"), TranslateManager::text("Resolution"),
                               TranslateManager::text("Size")});
        for (int row = 0; row < tree->topLevelItemCount(); ++row) {
            QTreeWidgetItem *item = tree->topLevelItem(row);
            item->setText(TypeColumn, mediaTypeName(item->data(TypeColumn, CodeRole).toInt()));
            item->setText(ApprovalColumn, approvalText(item->data(ApprovalColumn, CodeRole).toInt()));
            const QString tip = materialToolTip(item->text(NameColumn), item->data(StatusColumn, CodeRole).toInt());
            item->setToolTip(NameColumn, tip);
            item->setToolTip(StatusColumn, tip);
        }
    }

    std::function<StarDragCallback()> callbackProvider;
};

DetailTreeWidget::DetailTreeWidget(QWidget *parent)
    : QTreeWidget(parent)
    , d(std::make_unique<Private>())
{
    registerCloudMaterialMetaTypes();
    setObjectName(QStringLiteral("detailTreeWidget"));
    header()->setObjectName(QStringLiteral("detailTreeHeader"));
    setColumnCount(ColumnCount);
    d->retranslate(this);
    onLanguageChange(this, [this] { d->retranslate(this); });
    for (int column : {SizeColumn, IdColumn, PathColumn})
        setColumnHidden(column, true);
    setUniformRowHeights(true);
    setIconSize(QSize(45, 30));
    setRootIsDecorated(false);
    setSelectionMode(QAbstractItemView::ExtendedSelection);
    setDragEnabled(true);
    setDragDropMode(QAbstractItemView::DragOnly);
    // The name takes what the fixed columns leave, so the table fits the panel's width.
    header()->setStretchLastSection(false);
    header()->setSectionResizeMode(NameColumn, QHeaderView::Stretch);
    header()->setMinimumSectionSize(40);
    setColumnWidth(ApprovalColumn, 170); // the preview and "Pending approval" side by side
    setColumnWidth(StatusColumn, 60);
    setColumnWidth(DownloadColumn, 110);
    setColumnWidth(TypeColumn, 90);
    setColumnWidth(ResolutionColumn, 100);
}

DetailTreeWidget::~DetailTreeWidget() = default;

void DetailTreeWidget::setStarDragCallbackProvider(std::function<StarDragCallback()> provider)
{
    d->callbackProvider = std::move(provider);
}

void DetailTreeWidget::addMaterial(const CloudMaterialModel &model, const QString &materialString)
{
    auto *item = new QTreeWidgetItem;
    item->setText(NameColumn, QString::fromStdString(model.mediaName));
    item->setText(TypeColumn, mediaTypeName(model.mediaType));
    item->setData(TypeColumn, Private::CodeRole, model.mediaType);
    // Sounds and documents have no picture size, whatever the record says.
    const bool hasPicture =
        MediaType(model.mediaType) == MediaType::Picture || MediaType(model.mediaType) == MediaType::Video;
    item->setText(ResolutionColumn, hasPicture ? QString::fromStdString(model.resolution) : QStringLiteral("–"));
    item->setText(SizeColumn, sizeText(model.size));
    item->setText(IdColumn, QString::fromStdString(model.mid));
    item->setText(PathColumn, materialString);
    item->setIcon(ApprovalColumn,
                  coverIcon(QPixmap(themeImagePath(placeholderImageName(model.mediaType) + QStringLiteral(".png"))),
                            iconSize(), devicePixelRatioF()));
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
    item->setData(StatusColumn, Private::CodeRole, status);
    const QString tip = materialToolTip(item->text(NameColumn), status);
    item->setToolTip(NameColumn, tip);
    item->setToolTip(StatusColumn, tip);
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
    item->setData(ApprovalColumn, Private::CodeRole, approval);
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

void DetailTreeWidget::setThumbnail(const QString &id, const QPixmap &thumbnail)
{
    QTreeWidgetItem *item = itemById(id);
    if (!item || thumbnail.isNull())
        return;
    item->setIcon(ApprovalColumn, coverIcon(thumbnail, iconSize(), devicePixelRatioF()));
    item->setData(ApprovalColumn, HasThumbnailRole, true);
}

int DetailTreeWidget::progress(const QString &id) const
{
    const QProgressBar *bar = d->bar(const_cast<DetailTreeWidget *>(this), itemById(id));
    if (!bar)
        return -1;
    return bar->maximum() > 0 ? bar->value() : 0;
}

void DetailTreeWidget::startDrag(Qt::DropActions supportedActions)
{
    Q_UNUSED(supportedActions) // the host only ever copies a material
    const QList<QTreeWidgetItem *> selected = selectedItems();
    if (selected.isEmpty())
        return;
    QTreeWidgetItem *item = selected.first();
    dragMaterial(this, item->text(PathColumn), item->icon(ApprovalColumn).pixmap(iconSize()),
                 d->callbackProvider ? d->callbackProvider() : StarDragCallback());
}

} // namespace talvor::cloudmaterial
