#include "pointerdrag.h"

#include <QTimer>

// Last: Xlib's macros (None, Bool, Status) would clash with Qt's names.
#include <X11/Xlib.h>
#include <X11/extensions/XTest.h>

namespace {
constexpr int moveSteps = 24;
constexpr int stepMs = 25;
} // namespace

class PointerDrag::Private
{
public:
    ~Private()
    {
        if (display)
            XCloseDisplay(display);
    }

    void move(const QPoint &at)
    {
        XTestFakeMotionEvent(display, -1, at.x(), at.y(), CurrentTime);
        XFlush(display);
    }

    void button(bool down)
    {
        XTestFakeButtonEvent(display, 1, down ? True : False, CurrentTime);
        XFlush(display);
    }

    Display *display = nullptr;
    bool extension = false;
};

PointerDrag::PointerDrag(QObject *parent)
    : QObject(parent)
    , d(std::make_unique<Private>())
{
    d->display = XOpenDisplay(nullptr);
    int event = 0, error = 0, major = 0, minor = 0;
    d->extension = d->display && XTestQueryExtension(d->display, &event, &error, &major, &minor);
}

PointerDrag::~PointerDrag() = default;

bool PointerDrag::isAvailable() const
{
    return d->extension;
}

void PointerDrag::drag(const QPoint &from, const QPoint &to)
{
    if (!d->extension) {
        Q_EMIT finished();
        return;
    }
    d->move(from);
    // Each event is its own turn of the event loop: the toolkit's drag runs a loop of its own
    // once the pointer has moved far enough, and must see the rest of the moves there.
    QTimer::singleShot(stepMs, this, [this] { d->button(true); });
    for (int i = 1; i <= moveSteps; ++i) {
        const QPoint at = from + (to - from) * i / moveSteps;
        QTimer::singleShot(stepMs * (i + 2), this, [this, at] { d->move(at); });
    }
    QTimer::singleShot(stepMs * (moveSteps + 6), this, [this] {
        d->button(false);
        Q_EMIT finished();
    });
}
