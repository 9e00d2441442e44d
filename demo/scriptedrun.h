#pragma once

#include <QObject>
#include <QString>

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

Q_SIGNALS:
    void finished(int exitCode);

private:
    class Private;
    std::unique_ptr<Private> const d;
};
