#pragma once

#include <QProcess>
#include <QStringList>
#include <QTemporaryDir>

#include <memory>

/**
 * A mosquitto broker of the process's own on free loopback ports, with a persistence folder of its
 * own (retained messages and wills survive restart()) and optionally a TLS listener whose
 * self-signed certificate no client can verify. Its log goes to mosquitto.log in the temp folder.
 */
class Mosquitto
{
public:
    struct Options
    {
        bool tls = false;
    };

    Mosquitto();
    ~Mosquitto();
    Mosquitto(const Mosquitto &) = delete;
    Mosquitto &operator=(const Mosquitto &) = delete;

    bool start();
    bool start(Options options);
    bool stop();
    /** Same ports, same persistence. */
    bool restart();

    QString url() const;
    QString sslUrl() const;
    int port() const;
    int tlsPort() const;
    QString logFile() const;

private:
    bool writeConfig();
    bool launch();

    Options m_options;
    QTemporaryDir m_dir;
    QProcess m_process;
    int m_port = 0;
    int m_tlsPort = 0;
};

/** mosquitto_sub watching the broker from outside; collects "topic payload" lines. */
class MosquittoSub
{
public:
    explicit MosquittoSub(int port, const QString &filter);
    ~MosquittoSub();

    /** Waits until the subscription is in place (mosquitto_sub has connected). */
    bool waitStarted();
    QStringList lines();

private:
    QProcess m_process;
    QByteArray m_buffer;
    QStringList m_lines;
};

/** The path of a program, or empty when it is not installed. */
QString findMosquittoProgram(const QString &name);
