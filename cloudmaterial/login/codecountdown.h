#pragma once

#include <QObject>
#include <QString>

#include <memory>

namespace talvor::cloudmaterial {

/**
 * The wait after a code was sent, counted down on a dialog's "get code" button: 60 seconds, one
 * step a second, one code request per countdown. Its timer is named "countdownTimer".
 *
 * Lives on the Qt thread with its dialog, which is its parent.
 */
class CodeCountdown : public QObject
{
    Q_OBJECT

public:
    static constexpr int seconds = 60;
    static constexpr int stepMs = 1000;

    explicit CodeCountdown(QObject *parent);
    ~CodeCountdown() override;

    void start();
    /** A running countdown ends at its next step, the usual way. */
    void endAtNextStep();
    bool isRunning() const;
    /** The seconds left; seconds when none runs. */
    int remaining() const;
    /** @p label, followed by "(Ns)" while the countdown runs. */
    QString buttonText(const QString &label) const;

Q_SIGNALS:
    /** Every step, the last one included. */
    void stepped();
    void finished();

private:
    class Private;
    std::unique_ptr<Private> const d;
};

} // namespace talvor::cloudmaterial
