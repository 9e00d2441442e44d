#pragma once

#include <QMainWindow>

#include <memory>

class PlaylistWidget;
class QDrag;

/** A player's main window: the cloud material panel, a playlist and the account status. */
class MainWindow : public QMainWindow
{
    Q_OBJECT

public:
    explicit MainWindow(QWidget *parent = nullptr);
    ~MainWindow() override;

    /** Embeds the module's panel on the left. */
    void setMaterialPanel(QWidget *panel);
    PlaylistWidget *playlist() const;
    /** What the star-drag callback does: remembers the material until the drag ends. */
    void materialDragged(const QString &path, QDrag *drag);
    void showStatus(const QString &text);
    /** A line above the panel, or in its place where there is none, on the machine's group. */
    void showGroupStatus(const QString &text);

private:
    class Private;
    std::unique_ptr<Private> const d;
};
