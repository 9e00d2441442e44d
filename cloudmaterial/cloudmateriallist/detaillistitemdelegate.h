#pragma once

#include <QStyledItemDelegate>

namespace talvor::cloudmaterial {

/**
 * Draws a material of the icon grid: a preview tile (the thumbnail, or the type's stand-in)
 * with the size along its foot and the status image at its top right corner, and the elided
 * name below.
 *
 * Owned by the Qt thread.
 */
class DetailListItemDelegate : public QStyledItemDelegate
{
    Q_OBJECT

public:
    explicit DetailListItemDelegate(QObject *parent = nullptr);
    ~DetailListItemDelegate() override;

    static QSize itemSize();

    void paint(QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const override;
    QSize sizeHint(const QStyleOptionViewItem &option, const QModelIndex &index) const override;
};

} // namespace talvor::cloudmaterial
