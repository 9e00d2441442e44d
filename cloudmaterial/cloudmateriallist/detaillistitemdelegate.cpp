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
    const QRect cell = option.rect.adjusted(2, 2, -2, -2);
    const QPalette &palette = option.palette;

    if (option.state & QStyle::State_Selected) {
        painter->setPen(Qt::NoPen);
        painter->setBrush(palette.color(QPalette::Highlight));
        painter->drawRoundedRect(cell, 4, 4);
    }

    // The preview tile; thumbnails are not fetched yet, so the type name stands in.
    const QRect tile(cell.left() + 4, cell.top() + 4, cell.width() - 8, cell.height() - nameHeight - 8);
    painter->setPen(QColor(0x3a, 0x3f, 0x4a));
    painter->setBrush(QColor(0x16, 0x19, 0x1f));
    painter->drawRoundedRect(tile, 3, 3);
    painter->setPen(QColor(0x8a, 0x90, 0x9c));
    painter->drawText(tile, Qt::AlignCenter, index.data(DetailListWidget::TypeRole).toString() + QLatin1Char('\n')
                                                 + index.data(DetailListWidget::SizeRole).toString());

    const QIcon status = index.data(Qt::DecorationRole).value<QIcon>();
    if (!status.isNull()) {
        const QRect statusRect(tile.right() - statusSize - 3, tile.top() + 3, statusSize, statusSize);
        status.paint(painter, statusRect);
    }

    const QRect nameRect(cell.left() + 4, cell.bottom() - nameHeight, cell.width() - 8, nameHeight);
    painter->setPen(option.state & QStyle::State_Selected ? palette.color(QPalette::HighlightedText)
                                                          : palette.color(QPalette::Text));
    const QString name = option.fontMetrics.elidedText(index.data(Qt::DisplayRole).toString(), Qt::ElideMiddle,
                                                       nameRect.width());
    painter->drawText(nameRect, Qt::AlignCenter, name);
    painter->restore();
}

} // namespace talvor::cloudmaterial
