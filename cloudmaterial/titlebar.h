#pragma once

#include <QWidget>

#include <memory>

namespace talvor::cloudmaterial {

/**
 * The title bar of the module's frameless windows: a title, minimise, maximise/restore and
 * close buttons ("ButtonMin", "ButtonMax", "ButtonRestore", "ButtonClose", "TitleLabel" for
 * the style sheet). Dragging it moves the window it belongs to.
 *
 * Owned by the Qt thread.
 */
class TitleBar : public QWidget
{
    Q_OBJECT

public:
    explicit TitleBar(QWidget *parent = nullptr);
    ~TitleBar() override;

    void setTitle(const QString &title);
    QString title() const;

    /** Dialogs usually offer neither; both are shown by default. */
    void setMinimizeVisible(bool visible);
    void setMaximizeVisible(bool visible);

protected:
    void mousePressEvent(QMouseEvent *event) override;
    void mouseMoveEvent(QMouseEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;
    void mouseDoubleClickEvent(QMouseEvent *event) override;
    bool eventFilter(QObject *watched, QEvent *event) override;
    void showEvent(QShowEvent *event) override;

private:
    class Private;
    std::unique_ptr<Private> const d;
};

} // namespace talvor::cloudmaterial
