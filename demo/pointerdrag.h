#pragma once

#include <QObject>
#include <QPoint>

#include <memory>

/**
 * Drags with the display's real pointer, through the X test extension: presses at one screen
 * point, moves in small steps to another and releases there. The toolkit sees the same events
 * as from a mouse, so its own drag and drop runs end to end (used by the scripted run under Xvfb).
 */
class PointerDrag : public QObject
{
    Q_OBJECT

public:
    explicit PointerDrag(QObject *parent = nullptr);
    ~PointerDrag() override;

    /** False when there is no X display with the test extension (Wayland, say). */
    bool isAvailable() const;
    /** Starts the drag; it goes on while the event loop runs and ends with finished(). */
    void drag(const QPoint &fromGlobal, const QPoint &toGlobal);

Q_SIGNALS:
    void finished();

private:
    class Private;
    std::unique_ptr<Private> const d;
};
