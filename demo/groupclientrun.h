#pragma once

#include <QObject>
#include <QString>

#include <memory>

class GroupRuntime;
class ScriptedRun;

/**
 * A proxy client's scripted run after the login through the dialog: the server's settings have
 * arrived, the server has bound the device, a material downloaded through the server shows as
 * finished in the panel, and the file is in the server's folder while this machine's own stayed
 * empty. Adds its steps to @p run; the run's end is sent to the group as scriptEndCall.
 */
class GroupClientRun : public QObject
{
    Q_OBJECT

public:
    /** The demo's own call on the group's channel; its payload is the exit code in decimal. */
    static constexpr const char *scriptEndCall = "DemoScriptEnded";

    GroupClientRun(ScriptedRun *run, GroupRuntime *runtime, const QString &cloudUrl, const QString &serverMaterials,
                   const QString &ownMaterials, QObject *parent = nullptr);
    ~GroupClientRun() override;

    /**
     * Starts the run once the server's settings are in, so that the login dialog already speaks
     * the server's language; after 30 s without them it starts anyway and its step fails.
     */
    void start();

private:
    class Private;
    std::unique_ptr<Private> const d;
};
