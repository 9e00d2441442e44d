#pragma once

#include <QString>

#include <memory>

/**
 * The cloud of the demo on this machine: a mosquitto broker and cloudsim serving a catalogue
 * of sample materials, both on loopback and stopped with the object.
 */
class LocalCloud
{
public:
    LocalCloud();
    ~LocalCloud();

    /** Starts both, trusts cloudsim's CA and writes "<configFolder>/cloud/config.json". */
    bool start(const QString &configFolder);
    void stop();
    /** What went wrong in start(). */
    QString error() const;
    /** Where the broker listens, "tcp://127.0.0.1:<port>"; for the group's channel as well. */
    QString brokerUrl() const;
    /** The gateway's base, "https://127.0.0.1:<port>", and the CA file that signs its certificate. */
    QString cloudUrl() const;
    QString caFile() const;

private:
    class Private;
    std::unique_ptr<Private> const d;
};
