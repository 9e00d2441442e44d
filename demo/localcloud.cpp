#include "localcloud.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>

namespace {

const QString mosquittoProgram = QStringLiteral("/usr/sbin/mosquitto");

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

QJsonObject medium(const QString &mid, const QString &name, int type, qint64 size, const QString &approval = "2")
{
    return QJsonObject{{QStringLiteral("mid"), mid},
                       {QStringLiteral("mediaName"), name},
                       {QStringLiteral("mediaType"), type},
                       {QStringLiteral("approvalStatus"), approval},
                       {QStringLiteral("file"), QJsonObject{{QStringLiteral("size"), size}}}};
}

// Materials of all four kinds (0 picture, 1 video, 2 audio, 3 document); most approved, a
// few pending ("1") or rejected ("3") so their states show in the panel.
QByteArray scenario()
{
    const QJsonArray media{
        medium("d01", "harbour-sunrise.jpg", 0, 412000),
        medium("d02", "spring-campaign.mp4", 1, 2400000),
        medium("d03", "welcome-chime.mp3", 2, 96000),
        medium("d04", "menu-board.pdf", 3, 180000),
        medium("d05", "city-skyline.png", 0, 530000),
        medium("d06", "product-teaser.mp4", 1, 3100000),
        medium("d07", "lobby-ambience.mp3", 2, 1200000),
        medium("d08", "price-list.pdf", 3, 64000),
        medium("d09", "summer-sale-banner.jpg", 0, 280000, "1"),
        medium("d10", "store-opening.mp4", 1, 1800000, "1"),
        medium("d11", "safety-notice.pdf", 3, 42000, "3"),
        medium("d12", "mountain-lake.jpg", 0, 610000),
        medium("d13", "coffee-pour.mp4", 1, 2200000),
        medium("d14", "jingle-short.mp3", 2, 48000),
        medium("d15", "opening-hours.pdf", 3, 30000),
        medium("d16", "team-photo.jpg", 0, 350000, "3"),
        medium("d17", "loop-background.mp4", 1, 4000000),
        medium("d18", "announcement.mp3", 2, 150000, "1"),
        medium("d19", "floor-plan.pdf", 3, 220000),
        medium("d20", "autumn-leaves.jpg", 0, 470000),
    };
    const QJsonObject account{{QStringLiteral("id"), 1001},
                              {QStringLiteral("name"), QStringLiteral("demo")},
                              {QStringLiteral("password"), QStringLiteral("demo1234")},
                              {QStringLiteral("token"), QStringLiteral("demo-token")},
                              {QStringLiteral("media"), media}};
    return QJsonDocument(QJsonObject{{QStringLiteral("accounts"), QJsonArray{account}}}).toJson();
}

void terminate(QProcess &process)
{
    if (process.state() == QProcess::NotRunning)
        return;
    process.terminate();
    if (!process.waitForFinished(15000)) {
        process.kill();
        process.waitForFinished(5000);
    }
}

} // namespace

class LocalCloud::Private
{
public:
    bool startBroker();
    bool startCloudSim();
    bool writeConfig(const QString &configFolder);

    QTemporaryDir dir;
    QProcess broker;
    QProcess cloudsim;
    int brokerPort = 0;
    int cloudPort = 0;
    QString error;
};

bool LocalCloud::Private::startBroker()
{
    // A port found free may be taken before mosquitto binds it; then try another.
    for (int attempt = 0; attempt < 5; ++attempt) {
        brokerPort = freePort();
        if (brokerPort == 0)
            continue;
        const QString confPath = dir.filePath(QStringLiteral("mosquitto.conf"));
        QFile conf(confPath);
        if (!conf.open(QIODevice::WriteOnly | QIODevice::Truncate))
            break;
        conf.write(QStringLiteral("listener %1 127.0.0.1\nallow_anonymous true\n").arg(brokerPort).toUtf8());
        conf.close();
        broker.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        broker.setStandardOutputFile(QProcess::nullDevice());
        broker.start(mosquittoProgram, {QStringLiteral("-c"), confPath});
        if (!broker.waitForStarted(10000)) {
            error = QStringLiteral("mosquitto did not start: ") + broker.errorString();
            return false;
        }
        QDeadlineTimer deadline(10000);
        while (!deadline.hasExpired() && broker.state() == QProcess::Running) {
            if (accepts(brokerPort))
                return true;
            broker.waitForFinished(100);
        }
        terminate(broker);
    }
    error = QStringLiteral("mosquitto did not listen");
    return false;
}

bool LocalCloud::Private::startCloudSim()
{
    const QString scenarioPath = dir.filePath(QStringLiteral("scenario.json"));
    QFile file(scenarioPath);
    const QByteArray json = scenario();
    if (!file.open(QIODevice::WriteOnly) || file.write(json) != json.size()) {
        error = QStringLiteral("cannot write ") + scenarioPath;
        return false;
    }
    file.close();
    cloudsim.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    cloudsim.start(QCoreApplication::applicationDirPath() + QStringLiteral("/cloudsim"),
                   {QStringLiteral("--scenario"), scenarioPath, QStringLiteral("--exit-with-parent"),
                    QStringLiteral("--mqtt"), QStringLiteral("tcp://127.0.0.1:%1").arg(brokerPort)});
    if (!cloudsim.waitForStarted(30000)) {
        error = QStringLiteral("cloudsim did not start: ") + cloudsim.errorString();
        return false;
    }
    // Generous: making the certificates takes a while on a busy machine.
    static const QRegularExpression ready(QStringLiteral("^cloudsim ready port=(\\d+) ca=(.+)$"));
    QDeadlineTimer deadline(30000);
    while (!deadline.hasExpired()) {
        if (!cloudsim.canReadLine()) {
            if (cloudsim.state() != QProcess::Running)
                break;
            cloudsim.waitForReadyRead(int(qMax<qint64>(1, deadline.remainingTime())));
            continue;
        }
        const auto match = ready.match(QString::fromUtf8(cloudsim.readLine()).trimmed());
        if (!match.hasMatch())
            continue;
        cloudPort = match.captured(1).toInt();
        const auto certificates = QSslCertificate::fromPath(match.captured(2), QSsl::Pem);
        if (certificates.isEmpty())
            break;
        // The module leaves TLS settings to its host.
        QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
        configuration.addCaCertificates(certificates);
        QSslConfiguration::setDefaultConfiguration(configuration);
        return true;
    }
    error = QStringLiteral("cloudsim did not report ready");
    return false;
}

bool LocalCloud::Private::writeConfig(const QString &configFolder)
{
    const QString cloudFolder = configFolder + QStringLiteral("/cloud");
    if (!QDir().mkpath(cloudFolder + QStringLiteral("/config"))) {
        error = QStringLiteral("cannot create ") + cloudFolder;
        return false;
    }
    const QString base = QStringLiteral("https://127.0.0.1:%1").arg(cloudPort);
    const QJsonObject config{{QStringLiteral("nodes"), base + QStringLiteral("/nodes.json")},
                             {QStringLiteral("mqttControl"), base + QStringLiteral("/mqtt/control/v1/")}};
    QFile file(cloudFolder + QStringLiteral("/config.json"));
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        error = QStringLiteral("cannot write ") + file.fileName();
        return false;
    }
    file.write(QJsonDocument(config).toJson());
    return true;
}

LocalCloud::LocalCloud()
    : d(std::make_unique<Private>())
{
}

LocalCloud::~LocalCloud()
{
    stop();
}

bool LocalCloud::start(const QString &configFolder)
{
    if (!d->dir.isValid()) {
        d->error = QStringLiteral("no temporary folder");
        return false;
    }
    return d->startBroker() && d->startCloudSim() && d->writeConfig(configFolder);
}

void LocalCloud::stop()
{
    // cloudsim first: it is the broker's client.
    terminate(d->cloudsim);
    terminate(d->broker);
}

QString LocalCloud::error() const
{
    return d->error;
}
