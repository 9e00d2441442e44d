#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QString>

#include <memory>

/**
 * Runs the local cloud (build/bin/cloudsim) on a loopback port, and makes the whole process trust
 * the CA it generated, so that plain Qt network code talks to it over real TLS. The scenario
 * format and the endpoints are in docs/protocol.md. The control helpers block until cloudsim
 * answers. Used on one thread, the one that made it.
 */
class CloudSim
{
public:
    CloudSim();
    ~CloudSim();
    CloudSim(const CloudSim &) = delete;
    CloudSim &operator=(const CloudSim &) = delete;

    struct Options
    {
        int port = 0; // 0: the system chooses
        QString mqttUrl; // the broker of the device service; empty: the scenario's
    };

    /** Starts cloudsim on @p scenarioJson (a running one is stopped first). */
    bool start(const QByteArray &scenarioJson);
    bool start(const QByteArray &scenarioJson, const Options &options);
    /** SIGTERM, then a kill if it does not end. Returns true if it ended by itself. */
    bool stop();
    bool isRunning() const;
    qint64 pid() const;
    /** The exit code of the last run that has ended. */
    int exitCode() const;

    int port() const;
    /** "127.0.0.1:<port>": what the module puts after "https://". */
    QString host() const;
    QString url(const QString &path) const;
    QString caFile() const;

    bool addFault(const QJsonObject &fault);
    bool clearFaults();
    /** Posts @p json to /control/media (replace, add or remove an account's media). */
    bool setMedia(const QByteArray &json);
    /** The requests received so far (control requests excluded). */
    QJsonArray requests();
    bool clearRequests();
    /** Any other control endpoint: the answer's JSON, or a null document when it failed. */
    QJsonDocument control(const QByteArray &verb, const QString &path, const QJsonDocument &body = QJsonDocument());

private:
    class Private;
    std::unique_ptr<Private> const d;
};
