#include "groupservermonitor.h"

#include "bindingwatch.h"
#include "callarguments.h"
#include "groupclientrun.h"
#include "groupruntime.h"

#include "cloudmaterial/maincontrollerwrapper.h"

#include <QFileInfo>
#include <QMap>
#include <QSet>
#include <QStringList>

#include <cstdio>

using talvor::cloudmaterial::MainControllerWrapper;

namespace {

void say(const QString &line)
{
    std::printf("step: %s\n", qPrintable(line));
    std::fflush(stdout);
}

} // namespace

class GroupServerMonitor::Private
{
public:
    void update();
    void received(const QString &sender, const QString &name, const QByteArray &payload);
    void scriptEnded(const QString &sender, int clientCode);

    GroupServerMonitor *q = nullptr;
    GroupRuntime *runtime = nullptr;
    QString serialNumber;
    std::unique_ptr<BindingWatch> binding;
    QSet<QString> clients;
    QMap<QString, QString> requestedBy; // material id -> the client that asked for it
    bool startMqttHeard = false;
    int downloadsDone = 0;
    QString status;
};

void GroupServerMonitor::Private::update()
{
    status = QObject::tr("Proxy server of group \"%1\" (%2)\nClients heard: %3\nDevice %4: %5\n"
                         "Downloads done for clients: %6")
                 .arg(runtime->group(), runtime->isConnected() ? QObject::tr("connected") : QObject::tr("reconnecting"))
                 .arg(clients.size())
                 .arg(serialNumber, binding->isBound() ? QObject::tr("bound") : QObject::tr("not bound"))
                 .arg(downloadsDone);
    Q_EMIT q->statusChanged(status);
}

void GroupServerMonitor::Private::received(const QString &sender, const QString &name, const QByteArray &payload)
{
    clients.insert(sender);
    const QVariantList arguments = callArguments(payload);
    if (name == QLatin1String("StartMqtt")) {
        startMqttHeard = true;
        say(QStringLiteral("StartMqtt from %1").arg(sender));
        binding->watch(serialNumber);
    } else if (name == QLatin1String("DownloadFile") && arguments.size() >= 3) {
        requestedBy.insert(arguments.at(1).toString(), sender);
        say(QStringLiteral("DownloadFile %1 (%2) from %3")
                .arg(arguments.at(1).toString(), arguments.at(2).toString(), sender));
    } else if (name == QString::fromLatin1(GroupClientRun::scriptEndCall)) {
        scriptEnded(sender, payload.toInt());
    }
    update();
}

void GroupServerMonitor::Private::scriptEnded(const QString &sender, int clientCode)
{
    say(QStringLiteral("%1 ended its scripted run with %2").arg(sender).arg(clientCode));
    QStringList missing;
    if (!startMqttHeard)
        missing << QStringLiteral("StartMqtt from a client");
    if (!binding->isBound())
        missing << QStringLiteral("the device bound");
    if (downloadsDone == 0)
        missing << QStringLiteral("a download done for a client");
    for (const QString &what : missing)
        std::printf("missing: %s\n", qPrintable(what));
    const bool passed = clientCode == 0 && missing.isEmpty();
    if (passed)
        say(QStringLiteral("done"));
    std::fflush(stdout);
    Q_EMIT q->scriptFinished(passed ? 0 : 1);
}

GroupServerMonitor::GroupServerMonitor(GroupRuntime *runtime, const QString &cloudUrl, const QString &serialNumber,
                                       QObject *parent)
    : QObject(parent)
    , d(std::make_unique<Private>())
{
    d->q = this;
    d->runtime = runtime;
    d->serialNumber = serialNumber;
    d->binding = std::make_unique<BindingWatch>(cloudUrl);

    // Both arrive on the MQTT client's thread; this object's thread takes them queued.
    connect(runtime, &GroupRuntime::callReceived, this,
            [this](const QString &sender, const QString &name, const QByteArray &payload) {
                d->received(sender, name, payload);
            });
    connect(runtime, &GroupRuntime::connectionChanged, this, [this] { d->update(); });
    connect(d->binding.get(), &BindingWatch::bound, this, [this](const QString &serialNumber) {
        say(QStringLiteral("device %1 bound").arg(serialNumber));
        d->update();
    });
    // A download the server carries out for a client ends in the host's own signal here.
    connect(&MainControllerWrapper::instance(), &MainControllerWrapper::sigDownloadSuccess, this,
            [this](const std::string &id, const std::string &path) {
                const QString client = d->requestedBy.take(QString::fromStdString(id));
                if (client.isEmpty())
                    return;
                ++d->downloadsDone;
                const QString file = QString::fromStdString(path);
                say(QStringLiteral("downloaded %1 for %2 to %3 (%4 bytes)")
                        .arg(QString::fromStdString(id), client, file)
                        .arg(QFileInfo(file).size()));
                d->update();
            });
    d->update();
}

GroupServerMonitor::~GroupServerMonitor() = default;

QString GroupServerMonitor::status() const
{
    return d->status;
}
