#include "groupclientrun.h"

#include "bindingwatch.h"
#include "callarguments.h"
#include "groupruntime.h"
#include "scriptedrun.h"

#include "cloudmaterial/maincontrollerwrapper.h"

#include <QDir>
#include <QElapsedTimer>
#include <QListWidget>
#include <QMap>
#include <QPushButton>
#include <QTimer>

#include <cstdio>

using talvor::cloudmaterial::MainControllerWrapper;

namespace {

// The panel keeps a material's id and its status image's name in these item roles.
const int materialIdRole = Qt::UserRole + 1;
const int statusImageRole = Qt::UserRole + 2;
const QString successedImage = QStringLiteral("download_status_successed");
const int settingsWaitMs = 30000;
// An approved material of the local cloud's catalogue.
const QString downloadId = QStringLiteral("d01");
// What the proxy server forwards to its clients.
const QStringList settingCalls{QStringLiteral("SetAppVersion"), QStringLiteral("SetDeviceName"),
                               QStringLiteral("SetSerialNumber"), QStringLiteral("SetCurrentLanguage")};

void say(const QString &line)
{
    std::printf("step: %s\n", qPrintable(line));
    std::fflush(stdout);
}

QListWidgetItem *materialItem(const QString &id)
{
    QWidget *panel = MainControllerWrapper::instance().cloudMaterialList();
    auto *list = panel ? panel->findChild<QListWidget *>() : nullptr;
    for (int row = 0; list && row < list->count(); ++row) {
        if (list->item(row)->data(materialIdRole).toString() == id)
            return list->item(row);
    }
    return nullptr;
}

// The finished files of a material folder.
QStringList filesIn(const QString &folder)
{
    QStringList files = QDir(folder).entryList(QDir::Files);
    files.erase(std::remove_if(files.begin(), files.end(),
                               [](const QString &name) { return name.endsWith(QLatin1String(".temp")); }),
                files.end());
    return files;
}

} // namespace

class GroupClientRun::Private
{
public:
    ScriptedRun *run = nullptr;
    QMap<QString, QString> settings; // call name -> value, as received
    QString settingsSender;
    QTimer settled;
    QElapsedTimer waited;
    std::unique_ptr<BindingWatch> binding;
    bool downloadAsked = false;
};

GroupClientRun::GroupClientRun(ScriptedRun *run, GroupRuntime *runtime, const QString &cloudUrl,
                               const QString &serverMaterials, const QString &ownMaterials, QObject *parent)
    : QObject(parent)
    , d(std::make_unique<Private>())
{
    d->run = run;
    d->binding = std::make_unique<BindingWatch>(cloudUrl);
    // What the module's proxy client applied, as it came over the group's channel.
    connect(runtime, &GroupRuntime::callReceived, this,
            [this](const QString &sender, const QString &name, const QByteArray &payload) {
                const QVariantList arguments = callArguments(payload);
                if (!settingCalls.contains(name) || arguments.isEmpty())
                    return;
                d->settings.insert(name, arguments.first().toString());
                d->settingsSender = sender;
            });
    connect(run, &ScriptedRun::finished, this, [runtime](int exitCode) {
        const QByteArray code = QByteArray::number(exitCode);
        runtime->sendMessage(scriptEndCall, code.constData(), std::uint32_t(code.size()));
    });

    run->addStepAfterLogin(QStringLiteral("the server's four settings"), [this] {
        if (d->settings.size() < settingCalls.size())
            return false;
        for (const QString &name : settingCalls)
            say(QStringLiteral("setting %1 from %2: %3").arg(name, d->settingsSender, d->settings.value(name)));
        d->binding->watch(d->settings.value(QStringLiteral("SetSerialNumber")));
        return true;
    });
    run->addStepAfterLogin(QStringLiteral("the device bound by the server"), [this] {
        if (!d->binding->isBound())
            return false;
        say(QStringLiteral("device %1 bound by the server").arg(d->settings.value(QStringLiteral("SetSerialNumber"))));
        return true;
    });
    run->addStepAfterLogin(QStringLiteral("the catalogue in the panel"), [] {
        QWidget *panel = MainControllerWrapper::instance().cloudMaterialList();
        auto *list = panel ? panel->findChild<QListWidget *>() : nullptr;
        if (!list || list->count() < 20)
            return false;
        say(QStringLiteral("panel lists %1 materials").arg(list->count()));
        return true;
    });
    run->addStepAfterLogin(downloadId + QStringLiteral(" shown as downloaded in the panel"), [this] {
        QListWidgetItem *item = materialItem(downloadId);
        if (!item)
            return false;
        if (!d->downloadAsked) {
            d->downloadAsked = true;
            item->listWidget()->clearSelection();
            item->setSelected(true);
            say(QStringLiteral("downloading %1 through the server").arg(downloadId));
            MainControllerWrapper::instance()
                .cloudMaterialList()
                ->findChild<QPushButton *>(QStringLiteral("downloadBtn"))
                ->click();
            return false;
        }
        if (item->data(statusImageRole).toString() != successedImage)
            return false;
        say(QStringLiteral("panel shows %1 Successed").arg(downloadId));
        return true;
    });
    run->addStepAfterLogin(QStringLiteral("the file in the server's folder only"), [serverMaterials, ownMaterials] {
        const QStringList served = filesIn(serverMaterials);
        if (served.isEmpty())
            return false;
        say(QStringLiteral("server's folder %1 holds %2").arg(serverMaterials, served.join(QStringLiteral(", "))));
        // The client's material folder was dropped by the module, so nothing may land in it.
        const QStringList own = QDir(ownMaterials).entryList(QDir::Files);
        if (!own.isEmpty()) {
            say(QStringLiteral("client's own folder %1 holds %2").arg(ownMaterials, own.join(QStringLiteral(", "))));
            return false;
        }
        say(QStringLiteral("client's own folder %1 stayed empty: setCloudMaterialFolderPath was dropped")
                .arg(ownMaterials));
        return true;
    });
}

GroupClientRun::~GroupClientRun() = default;

void GroupClientRun::start()
{
    d->waited.start();
    connect(&d->settled, &QTimer::timeout, this, [this] {
        // The module's proxy applied each setting before the runtime reported it here.
        if (d->settings.size() < settingCalls.size() && d->waited.elapsed() < settingsWaitMs)
            return;
        d->settled.stop();
        d->run->start();
    });
    d->settled.start(100);
}
