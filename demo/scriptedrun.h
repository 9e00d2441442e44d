#pragma once

#include <QObject>
#include <QString>

#include <functional>
#include <memory>

class MainWindow;

/**
 * Walks the demo through a session without a user: logs in through the dialog, waits for
 * the catalogue, downloads three materials, drops one on the playlist and takes pictures.
 * Prints each step as it is reached; finished() carries the exit code.
 */
class ScriptedRun : public QObject
{
    Q_OBJECT

public:
    ScriptedRun(MainWindow *window, const QString &screenshotFolder, QObject *parent = nullptr);
    ~ScriptedRun() override;

    void start();
    /**
     * Replaces the steps after the login with the caller's own, in the order added: @p reached
     * is polled until it returns true; @p missing names the step if it never does.
     */
    void addStepAfterLogin(const QString &missing, std::function<bool()> reached);

Q_SIGNALS:
    void finished(int exitCode);

private:
    class Private;
    std::unique_ptr<Private> const d;
};
