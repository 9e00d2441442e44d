#pragma once

#include <QListWidget>

/** The player's playlist: materials dropped on it, each shown by name with its path. */
class PlaylistWidget : public QListWidget
{
    Q_OBJECT

public:
    explicit PlaylistWidget(QWidget *parent = nullptr);

    /** Adds the file at @p path; the way every drop ends. */
    void addMaterial(const QString &path);

Q_SIGNALS:
    void materialAdded(const QString &path);

protected:
    void dragEnterEvent(QDragEnterEvent *event) override;
    void dragMoveEvent(QDragMoveEvent *event) override;
    void dropEvent(QDropEvent *event) override;
};
