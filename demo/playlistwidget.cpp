#include "playlistwidget.h"

#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFileInfo>
#include <QMimeData>
#include <QUrl>

namespace {

// The panel's drags carry the local path both as a file URL and as text; other programs
// send one or the other.
QStringList droppedPaths(const QMimeData *mime)
{
    QStringList paths;
    for (const QUrl &url : mime->urls()) {
        if (url.isLocalFile())
            paths << url.toLocalFile();
    }
    if (paths.isEmpty() && mime->hasText() && !mime->text().trimmed().isEmpty())
        paths << mime->text().trimmed();
    return paths;
}

} // namespace

PlaylistWidget::PlaylistWidget(QWidget *parent)
    : QListWidget(parent)
{
    setObjectName(QStringLiteral("playlist"));
    setAcceptDrops(true);
    setDropIndicatorShown(true);
    setDragDropMode(QAbstractItemView::DropOnly);
}

void PlaylistWidget::addMaterial(const QString &path)
{
    auto *item = new QListWidgetItem(QFileInfo(path).fileName(), this);
    item->setToolTip(path);
    item->setData(Qt::UserRole, path);
    Q_EMIT materialAdded(path);
}

void PlaylistWidget::dragEnterEvent(QDragEnterEvent *event)
{
    if (droppedPaths(event->mimeData()).isEmpty())
        event->ignore();
    else
        event->acceptProposedAction();
}

void PlaylistWidget::dragMoveEvent(QDragMoveEvent *event)
{
    if (droppedPaths(event->mimeData()).isEmpty())
        event->ignore();
    else
        event->acceptProposedAction();
}

void PlaylistWidget::dropEvent(QDropEvent *event)
{
    const QStringList paths = droppedPaths(event->mimeData());
    if (paths.isEmpty()) {
        event->ignore();
        return;
    }
    for (const QString &path : paths)
        addMaterial(path);
    event->acceptProposedAction();
}
