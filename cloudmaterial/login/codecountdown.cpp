#include "cloudmaterial/login/codecountdown.h"

#include <QTimer>

namespace talvor::cloudmaterial {

class CodeCountdown::Private
{
public:
    QTimer *timer = nullptr;
    int remaining = seconds;
    bool running = false;
};

CodeCountdown::CodeCountdown(QObject *parent)
    : QObject(parent)
    , d(std::make_unique<Private>())
{
    d->timer = new QTimer(this);
    d->timer->setObjectName(QStringLiteral("countdownTimer"));
    d->timer->setInterval(stepMs);
    connect(d->timer, &QTimer::timeout, this, [this] {
        if (d->remaining > 1) {
            --d->remaining;
            Q_EMIT stepped();
            return;
        }
        d->timer->stop();
        d->running = false;
        d->remaining = seconds;
        Q_EMIT stepped();
        Q_EMIT finished();
    });
}

CodeCountdown::~CodeCountdown() = default;

void CodeCountdown::start()
{
    d->running = true;
    d->remaining = seconds;
    d->timer->start();
    Q_EMIT stepped();
}

void CodeCountdown::endAtNextStep()
{
    if (d->running)
        d->remaining = 1;
}

bool CodeCountdown::isRunning() const
{
    return d->running;
}

int CodeCountdown::remaining() const
{
    return d->remaining;
}

QString CodeCountdown::buttonText(const QString &label) const
{
    return d->running ? label + QStringLiteral("(%1s)").arg(d->remaining) : label;
}

} // namespace talvor::cloudmaterial
