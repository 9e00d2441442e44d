#include "localcloud/cloudsim.h"

#include <QDeadlineTimer>
#include <QDebug>
#include <QEventLoop>
#include <QFile>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QProcess>
#include <QRegularExpression>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QTemporaryDir>
#include <QTimer>

class CloudSim::Private
{
public:
    // Sends one control request and waits for its answer; false unless it is a 200.
    bool control(const QByteArray &verb, const QString &path, const QByteArray &body = QByteArray(),
                 QByteArray *reply = nullptr);

    std::unique_ptr<QTemporaryDir> dir;
    std::unique_ptr<QProcess> process;
    std::unique_ptr<QNetworkAccessManager> manager;
    int port = 0;
    QString caFile;
    int exitCode = -1;
};

bool CloudSim::Private::control(const QByteArray &verb, const QString &path, const QByteArray &body, QByteArray *reply)
{
    if (!process || port == 0)
        return false;
    if (!manager)
        manager = std::make_unique<QNetworkAccessManager>();
    QNetworkRequest request(QUrl(QStringLiteral("https://127.0.0.1:%1%2").arg(port).arg(path)));
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
    QNetworkReply *r = manager->sendCustomRequest(request, verb, body);
    QEventLoop loop;
    QTimer timer;
    timer.setSingleShot(true);
    QObject::connect(r, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    QObject::connect(&timer, &QTimer::timeout, &loop, &QEventLoop::quit);
    timer.start(10000);
    loop.exec();
    const bool finished = r->isFinished();
    const int status = r->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    const QByteArray answer = finished ? r->readAll() : QByteArray();
    if (!finished)
        r->abort();
    r->deleteLater();
    if (reply)
        *reply = answer;
    if (status != 200)
        qWarning().noquote() << "cloudsim control" << verb << path << "answered" << status << answer;
    return status == 200;
}

CloudSim::CloudSim()
    : d(std::make_unique<Private>())
{
}

CloudSim::~CloudSim()
{
    stop();
}

bool CloudSim::start(const QByteArray &scenarioJson)
{
    return start(scenarioJson, Options());
}

bool CloudSim::start(const QByteArray &scenarioJson, const Options &options)
{
    stop();
    d->dir = std::make_unique<QTemporaryDir>();
    if (!d->dir->isValid())
        return false;
    const QString scenarioPath = d->dir->filePath(QStringLiteral("scenario.json"));
    QFile scenario(scenarioPath);
    if (!scenario.open(QIODevice::WriteOnly) || scenario.write(scenarioJson) != scenarioJson.size())
        return false;
    scenario.close();

    d->process = std::make_unique<QProcess>();
    // Its diagnostics belong in the test's output.
    d->process->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    QStringList arguments{QStringLiteral("--scenario"), scenarioPath, QStringLiteral("--exit-with-parent")};
    if (options.port)
        arguments << QStringLiteral("--port") << QString::number(options.port);
    if (!options.mqttUrl.isEmpty())
        arguments << QStringLiteral("--mqtt") << options.mqttUrl;
    d->process->start(QStringLiteral(RXCM_CLOUDSIM_PATH), arguments);
    if (!d->process->waitForStarted(30000)) {
        qWarning() << "cloudsim did not start:" << d->process->errorString();
        d->process.reset();
        return false;
    }

    // Generous: a loaded machine may take a while to generate the certificates.
    static const QRegularExpression ready(QStringLiteral("^cloudsim ready port=(\\d+) ca=(.+)$"));
    QDeadlineTimer deadline(30000);
    while (!deadline.hasExpired()) {
        if (!d->process->canReadLine()) {
            if (d->process->state() != QProcess::Running)
                break;
            d->process->waitForReadyRead(int(qMax<qint64>(1, deadline.remainingTime())));
            continue;
        }
        const QString line = QString::fromUtf8(d->process->readLine()).trimmed();
        const auto match = ready.match(line);
        if (!match.hasMatch())
            continue;
        d->port = match.captured(1).toInt();
        d->caFile = match.captured(2);
        const auto certificates = QSslCertificate::fromPath(d->caFile, QSsl::Pem);
        if (certificates.isEmpty()) {
            qWarning() << "cloudsim wrote no usable CA file at" << d->caFile;
            break;
        }
        // The library leaves TLS settings to its host, which here trusts the local cloud.
        QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
        configuration.addCaCertificates(certificates);
        QSslConfiguration::setDefaultConfiguration(configuration);
        return true;
    }
    qWarning() << "cloudsim did not report ready; exit code" << d->process->exitCode();
    stop();
    return false;
}

bool CloudSim::stop()
{
    d->manager.reset();
    if (!d->process)
        return true;
    bool clean = true;
    if (d->process->state() != QProcess::NotRunning) {
        d->process->terminate();
        if (!d->process->waitForFinished(15000)) {
            clean = false;
            d->process->kill();
            d->process->waitForFinished(5000);
        }
    }
    clean = clean && d->process->exitStatus() == QProcess::NormalExit;
    d->exitCode = d->process->exitCode();
    d->process.reset();
    d->port = 0;
    return clean;
}

bool CloudSim::isRunning() const
{
    return d->process && d->process->state() == QProcess::Running;
}

qint64 CloudSim::pid() const
{
    return d->process ? d->process->processId() : 0;
}

int CloudSim::exitCode() const
{
    return d->exitCode;
}

int CloudSim::port() const
{
    return d->port;
}

QString CloudSim::host() const
{
    return QStringLiteral("127.0.0.1:%1").arg(d->port);
}

QString CloudSim::url(const QString &path) const
{
    return QStringLiteral("https://") + host() + path;
}

QString CloudSim::caFile() const
{
    return d->caFile;
}

bool CloudSim::addFault(const QJsonObject &fault)
{
    return d->control("POST", QStringLiteral("/control/faults"), QJsonDocument(fault).toJson(QJsonDocument::Compact));
}

bool CloudSim::clearFaults()
{
    return d->control("DELETE", QStringLiteral("/control/faults"));
}

bool CloudSim::setMedia(const QByteArray &json)
{
    return d->control("POST", QStringLiteral("/control/media"), json);
}

QJsonArray CloudSim::requests()
{
    QByteArray reply;
    if (!d->control("GET", QStringLiteral("/control/requests"), QByteArray(), &reply))
        return QJsonArray();
    return QJsonDocument::fromJson(reply).array();
}

bool CloudSim::clearRequests()
{
    return d->control("DELETE", QStringLiteral("/control/requests"));
}

QJsonDocument CloudSim::control(const QByteArray &verb, const QString &path, const QJsonDocument &body)
{
    QByteArray reply;
    if (!d->control(verb, path, body.isNull() ? QByteArray() : body.toJson(QJsonDocument::Compact), &reply))
        return QJsonDocument();
    return QJsonDocument::fromJson(reply);
}
