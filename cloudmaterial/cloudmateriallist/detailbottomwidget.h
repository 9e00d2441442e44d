#pragma once

#include <QWidget>

#include <memory>

class QLabel;
class QPushButton;

namespace talvor::cloudmaterial {

/**
 * The panel's bottom bar: add (materials are uploaded in the cloud's web console, so it stays
 * disabled and says so), delete of downloaded copies, the view mode switch, download, and a
 * status line.
 *
 * A widget: owned by the Qt thread, like every widget of the panel.
 */
class DetailBottomWidget : public QWidget
{
    Q_OBJECT

public:
    explicit DetailBottomWidget(QWidget *parent = nullptr);
    ~DetailBottomWidget() override;

    QPushButton *addButton() const;
    QPushButton *deleteButton() const;
    QPushButton *modeButton() const;
    QPushButton *downloadButton() const;
    QLabel *label() const;

    /** True when the table view is shown. */
    bool isTreeMode() const;
    void setTreeMode(bool tree);

Q_SIGNALS:
    void treeModeChanged(bool tree);
    void downloadRequested();
    void deleteRequested();

private:
    class Private;
    std::unique_ptr<Private> const d;
};

} // namespace talvor::cloudmaterial
