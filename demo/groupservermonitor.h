#pragma once

#include <QObject>
#include <QString>

#include <memory>

class GroupRuntime;

/**
 * What the proxy server's window shows of its group in place of the panel: the clients heard,
 * whether the device is bound, the downloads done for clients. Each event is also printed as a
 * step, and a client's scripted run ends the server's half of it (scriptFinished()).
 */
class GroupServerMonitor : public QObject
{
    Q_OBJECT

public:
    GroupServerMonitor(GroupRuntime *runtime, const QString &cloudUrl, const QString &serialNumber,
                       QObject *parent = nullptr);
    ~GroupServerMonitor() override;

    QString status() const;

Q_SIGNALS:
    void statusChanged(const QString &text);
    /** A client's scripted run ended: 0 when it passed and the server saw its part happen. */
    void scriptFinished(int exitCode);

private:
    class Private;
    std::unique_ptr<Private> const d;
};
