#include "cloudmaterial/cloudmateriallist/detaillistitemdelegate.h"

#include "cloudmaterial/cloudmateriallist/detaillistwidget.h"

#include <QIcon>
#include <QPainter>
#include <QPainterPath>

namespace talvor::cloudmaterial {

namespace {
constexpr int nameHeight = 22;
constexpr int statusSize = 20;
} // namespace

DetailListItemDelegate::DetailListItemDelegate(QObject *parent)
    : QStyledItemDelegate(parent)
{
}

DetailListItemDelegate::~DetailListItemDelegate() = default;

QSize DetailListItemDelegate::itemSize()
{
    return {124, 104};
}

QSize DetailListItemDelegate::sizeHint(const QStyleOptionViewItem &option, const QModelIndex &index) const
{
    Q_UNUSED(option)
    Q_UNUSED(index)
    return itemSize();
}

void DetailListItemDelegate::paint(QPainter *painter, const QStyleOptionViewItem &option,
                                   const QModelIndex &index) const
{
    painter->save();
    painter->setRenderHint(QPainter::Antialiasing);
    painter->setRenderHint(QPainter::SmoothPixmapTransform);
    const QRectF cell = QRectF(option.rect).adjusted(2.5, 2.5, -2.5, -2.5);
    const QPalette &palette = option.palette;
    const bool selected = option.state & QStyle::State_Selected;

    if (selected) {
        painter->setPen(Qt::NoPen);
        painter->setBrush(palette.color(QPalette::Highlight));
        painter->drawRoundedRect(cell, 4, 4);
    }
    if (option.state & QStyle::State_HasFocus) {
        // The keyboard's place in the grid, also where nothing is selected.
        painter->setPen(QPen(palette.color(QPalette::Highlight).lighter(140), 1));
        painter->setBrush(Qt::NoBrush);
        painter->drawRoundedRect(cell, 4, 4);
    }

    // The preview tile: the thumbnail, or the type's stand-in while there is none, cropped to fill.
    const QRectF tile(cell.left() + 4, cell.top() + 4, cell.width() - 8, cell.height() - nameHeight - 8);
    QPixmap picture = index.data(DetailListWidget::ThumbnailRole).value<QPixmap>();
    if (picture.isNull())
        picture = index.data(DetailListWidget::PlaceholderRole).value<QPixmap>();
    QPainterPath clip;
    clip.addRoundedRect(tile, 3, 3);
    painter->setPen(Qt::NoPen);
    painter->setBrush(QColor(0x16, 0x19, 0x1f));
    painter->drawPath(clip);
    if (!picture.isNull()) {
        QSizeF shown = picture.size() / picture.devicePixelRatio();
        shown.scale(tile.size(), Qt::KeepAspectRatioByExpanding);
        const QRectF target(tile.center().x() - shown.width() / 2, tile.center().y() - shown.height() / 2,
                            shown.width(), shown.height());
        painter->save();
        painter->setClipPath(clip);
        painter->drawPixmap(target, picture, QRectF(picture.rect()));
        painter->restore();
    }

    // The size on a dark strip along the tile's foot, readable on any picture.
    const QString size = index.data(DetailListWidget::SizeRole).toString();
    if (!size.isEmpty()) {
        QFont small = option.font;
        small.setPointSizeF(small.pointSizeF() * 0.85);
        const QFontMetrics metrics(small);
        const QRectF strip(tile.left(), tile.bottom() - metrics.height() - 2, tile.width(), metrics.height() + 2);
        painter->save();
        painter->setClipPath(clip);
        painter->fillRect(strip, QColor(0, 0, 0, 150));
        painter->restore();
        painter->setFont(small);
        painter->setPen(QColor(0xe8, 0xea, 0xee));
        painter->drawText(strip.adjusted(5, 0, -5, 0), Qt::AlignVCenter | Qt::AlignRight, size);
        painter->setFont(option.font);
    }

    const QIcon status = index.data(Qt::DecorationRole).value<QIcon>();
    if (!status.isNull()) {
        const QRect statusRect(int(tile.right()) - statusSize - 3, int(tile.top()) + 3, statusSize, statusSize);
        // A disc behind the status image keeps it visible on light thumbnails.
        painter->setPen(Qt::NoPen);
        painter->setBrush(QColor(0x16, 0x19, 0x1f, 200));
        painter->drawEllipse(QRectF(statusRect).adjusted(-2, -2, 2, 2));
        status.paint(painter, statusRect);
    }

    const QRectF nameRect(cell.left() + 4, cell.bottom() - nameHeight, cell.width() - 8, nameHeight);
    painter->setPen(selected ? palette.color(QPalette::HighlightedText) : palette.color(QPalette::Text));
    const QString name =
        option.fontMetrics.elidedText(index.data(Qt::DisplayRole).toString(), Qt::ElideMiddle, int(nameRect.width()));
    painter->drawText(nameRect, Qt::AlignCenter, name);
    painter->restore();
}

} // namespace talvor::cloudmaterial
