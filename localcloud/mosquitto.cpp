#include "localcloud/mosquitto.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QFile>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTcpSocket>
#include <QThread>

#include <unistd.h>

namespace {

int freePort()
{
    QTcpServer server;
    if (!server.listen(QHostAddress::LocalHost, 0))
        return 0;
    return server.serverPort();
}

bool accepts(int port)
{
    QTcpSocket socket;
    socket.connectToHost(QHostAddress::LocalHost, quint16(port));
    return socket.waitForConnected(200);
}

} // namespace

QString findMosquittoProgram(const QString &name)
{
    // mosquitto lives in sbin, which is not always on the PATH.
    return QStandardPaths::findExecutable(name,
                                          {QStringLiteral("/usr/sbin"), QStringLiteral("/usr/bin"),
                                           QStringLiteral("/usr/local/sbin"), QStringLiteral("/usr/local/bin")});
}

Mosquitto::Mosquitto() = default;

Mosquitto::~Mosquitto()
{
    stop();
}

bool Mosquitto::start()
{
    return start(Options());
}

bool Mosquitto::start(Options options)
{
    m_options = options;
    if (!m_dir.isValid() || findMosquittoProgram(QStringLiteral("mosquitto")).isEmpty())
        return false;
    if (m_options.tls) {
        QProcess openssl;
        openssl.start(QStringLiteral("openssl"),
                      {QStringLiteral("req"), QStringLiteral("-x509"), QStringLiteral("-newkey"),
                       QStringLiteral("rsa:2048"), QStringLiteral("-nodes"), QStringLiteral("-subj"),
                       QStringLiteral("/CN=127.0.0.1"), QStringLiteral("-days"), QStringLiteral("2"),
                       QStringLiteral("-keyout"), m_dir.filePath(QStringLiteral("server.key")), QStringLiteral("-out"),
                       m_dir.filePath(QStringLiteral("server.crt"))});
        if (!openssl.waitForFinished(60000) || openssl.exitCode() != 0)
            return false;
    }
    // A port picked free may be taken before mosquitto binds it; then pick again.
    for (int attempt = 0; attempt < 5; ++attempt) {
        m_port = freePort();
        m_tlsPort = m_options.tls ? freePort() : 0;
        if (m_port == 0 || m_port == m_tlsPort)
            continue;
        if (writeConfig() && launch())
            return true;
    }
    return false;
}

bool Mosquitto::writeConfig()
{
    QFile conf(m_dir.filePath(QStringLiteral("mosquitto.conf")));
    if (!conf.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    QByteArray text;
    text += "per_listener_settings false\nallow_anonymous true\n";
    // Small MQTT packets must not wait for delayed ACKs (see sockets/tcpnodelay.h).
    text += "set_tcp_nodelay true\n";
    // As root mosquitto would switch to its own user, which cannot read this private folder.
    if (::geteuid() == 0)
        text += "user root\n";
    text += "persistence true\npersistence_location " + m_dir.path().toUtf8() + "/\n";
    text += "log_dest file " + logFile().toUtf8() + "\nlog_type all\n";
    text += "listener " + QByteArray::number(m_port) + " 127.0.0.1\n";
    if (m_options.tls) {
        text += "listener " + QByteArray::number(m_tlsPort) + " 127.0.0.1\n";
        text += "certfile " + m_dir.filePath(QStringLiteral("server.crt")).toUtf8() + "\n";
        text += "keyfile " + m_dir.filePath(QStringLiteral("server.key")).toUtf8() + "\n";
    }
    return conf.write(text) == text.size();
}

bool Mosquitto::launch()
{
    m_process.setProcessChannelMode(QProcess::MergedChannels);
    m_process.start(findMosquittoProgram(QStringLiteral("mosquitto")),
                    {QStringLiteral("-c"), m_dir.filePath(QStringLiteral("mosquitto.conf"))});
    if (!m_process.waitForStarted(5000))
        return false;
    QDeadlineTimer deadline(10000);
    while (!deadline.hasExpired()) {
        if (m_process.state() != QProcess::Running)
            return false;
        if (accepts(m_port) && (m_tlsPort == 0 || accepts(m_tlsPort)))
            return true;
        QThread::msleep(20);
    }
    stop();
    return false;
}

bool Mosquitto::stop()
{
    if (m_process.state() == QProcess::NotRunning)
        return true;
    // SIGTERM lets mosquitto write its persistence file.
    m_process.terminate();
    if (m_process.waitForFinished(10000))
        return true;
    m_process.kill();
    m_process.waitForFinished(5000);
    return false;
}

bool Mosquitto::restart()
{
    if (!stop())
        return false;
    // The old listening socket may linger for a moment; launch waits for the new one.
    for (int attempt = 0; attempt < 20; ++attempt) {
        if (launch())
            return true;
        QThread::msleep(100);
    }
    return false;
}

QString Mosquitto::url() const
{
    return QStringLiteral("tcp://127.0.0.1:%1").arg(m_port);
}

QString Mosquitto::sslUrl() const
{
    return QStringLiteral("ssl://127.0.0.1:%1").arg(m_tlsPort);
}

int Mosquitto::port() const
{
    return m_port;
}

int Mosquitto::tlsPort() const
{
    return m_tlsPort;
}

QString Mosquitto::logFile() const
{
    return m_dir.filePath(QStringLiteral("mosquitto.log"));
}

MosquittoSub::MosquittoSub(int port, const QString &filter)
{
    // mosquitto_sub does not flush its trace into a pipe; line buffering makes it readable live.
    m_process.start(QStandardPaths::findExecutable(QStringLiteral("stdbuf")),
                    {QStringLiteral("-oL"), findMosquittoProgram(QStringLiteral("mosquitto_sub")), QStringLiteral("-h"),
                     QStringLiteral("127.0.0.1"), QStringLiteral("-p"), QString::number(port), QStringLiteral("-v"),
                     QStringLiteral("-d"), QStringLiteral("-t"), filter});
}

MosquittoSub::~MosquittoSub()
{
    m_process.kill();
    m_process.waitForFinished(5000);
}

bool MosquittoSub::waitStarted()
{
    // With -d mosquitto_sub reports the SUBACK before any message can reach it.
    QDeadlineTimer deadline(10000);
    while (!deadline.hasExpired()) {
        if (m_buffer.contains("received SUBACK"))
            return true;
        if (m_process.state() == QProcess::NotRunning)
            return false;
        m_process.waitForReadyRead(100);
        m_buffer += m_process.readAllStandardOutput();
    }
    return false;
}

QStringList MosquittoSub::lines()
{
    m_process.waitForReadyRead(10);
    m_buffer += m_process.readAllStandardOutput();
    int newline;
    while ((newline = m_buffer.indexOf('\n')) >= 0) {
        const QString line = QString::fromUtf8(m_buffer.left(newline));
        m_buffer.remove(0, newline + 1);
        // -d adds the client's own protocol trace; keep only the "topic payload" lines.
        if (!line.startsWith(QLatin1String("Client ")) && !line.startsWith(QLatin1String("Subscribed")))
            m_lines << line;
    }
    return m_lines;
}
