// A player-like host of the cloud material module: by default against a local cloud
// (cloudsim and mosquitto started here), or against the cloud an existing config folder names.

#include "groupclientrun.h"
#include "groupfolder.h"
#include "groupruntime.h"
#include "groupservermonitor.h"
#include "localcloud.h"
#include "mainwindow.h"
#include "scriptedrun.h"

#include "cloudmaterial/maincontrollerwrapper.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QDrag>
#include <QFile>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QTemporaryDir>
#include <QTimer>

#include <csignal>
#include <cstdio>
#include <cstdlib>

using talvor::cloudmaterial::MainControllerWrapper;

namespace {

volatile std::sig_atomic_t stopRequested = 0;
// How long a client waits for its server's cloud, and a scripted server for its client.
const int serverWaitMs = 120000;
const int scriptedServerMs = 170000;

void requestStop(int)
{
    stopRequested = 1;
}

} // namespace

int main(int argc, char *argv[])
{
    // The login dialog's slider page runs in the web engine, which wants shared contexts.
    QCoreApplication::setAttribute(Qt::AA_ShareOpenGLContexts);
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("cloudmaterial-demo"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("A player window hosting the cloud material panel."));
    parser.addHelpOption();
    const QCommandLineOption cloudConfig(QStringLiteral("cloud-config"),
                                         QStringLiteral("Use this existing config folder (and its cloud) "
                                                        "instead of starting a local cloud."),
                                         QStringLiteral("folder"));
    const QCommandLineOption language(QStringLiteral("language"),
                                      QStringLiteral("UI language: zh_CN, zh_TW, en, korean or russian."),
                                      QStringLiteral("code"), QStringLiteral("en"));
    const QCommandLineOption scripted(QStringLiteral("scripted"),
                                      QStringLiteral("Log in, download and drop a material without a user, "
                                                     "take screenshots, then exit. In a group the client logs in "
                                                     "and downloads through the server, which exits with it."));
    const QCommandLineOption role(QStringLiteral("role"),
                                  QStringLiteral("This machine's part in a group: single (alone), server (runs the "
                                                 "cloud, binds the device, downloads for its clients) or client."),
                                  QStringLiteral("role"), QStringLiteral("single"));
    const QCommandLineOption group(QStringLiteral("group"), QStringLiteral("The group's name."), QStringLiteral("name"),
                                   QStringLiteral("demo"));
    const QCommandLineOption groupFolder(QStringLiteral("group-folder"),
                                         QStringLiteral("The folder the machines of the group share "
                                                        "(default: <temp>/cloudmaterial-demo-group-<name>)."),
                                         QStringLiteral("folder"));
    // What a host knows of its machine; on a proxy server these reach the clients as well.
    const QCommandLineOption deviceName(QStringLiteral("device-name"), QStringLiteral("The device's name."),
                                        QStringLiteral("name"), QStringLiteral("Demo player"));
    const QCommandLineOption serialNumberOption(QStringLiteral("serial-number"),
                                                QStringLiteral("The device's serial number."), QStringLiteral("sn"),
                                                QStringLiteral("DEMO-0001"));
    const QCommandLineOption appVersion(QStringLiteral("app-version"), QStringLiteral("The host's version."),
                                        QStringLiteral("version"), QStringLiteral("1.0.0"));
    parser.addOptions(
        {cloudConfig, language, scripted, role, group, groupFolder, deviceName, serialNumberOption, appVersion});
    parser.process(app);
    const QString roleName = parser.value(role);
    if (roleName != QLatin1String("single") && roleName != QLatin1String("server")
        && roleName != QLatin1String("client"))
        parser.showHelp(1);
    const QString serialNumber = parser.value(serialNumberOption);
    const bool single = roleName == QLatin1String("single");
    const bool server = roleName == QLatin1String("server");
    if (!single && parser.isSet(cloudConfig)) {
        std::fprintf(stderr, "--cloud-config is for a single machine; a group runs its server's local cloud\n");
        return 1;
    }

    const QString appDir = QCoreApplication::applicationDirPath();
    QTemporaryDir work;
    if (!work.isValid()) {
        std::fprintf(stderr, "no temporary folder\n");
        return 1;
    }

    LocalCloud cloud;
    QString configFolder = parser.value(cloudConfig);
    QString materials = work.filePath(QStringLiteral("materials"));
    // A group's machines share one folder: configuration (so the session too) and the server's materials.
    const QString groupName = parser.value(group);
    std::unique_ptr<GroupFolder> shared;
    GroupFolder::Cloud groupCloud;
    if (!single) {
        shared = std::make_unique<GroupFolder>(parser.isSet(groupFolder) ? parser.value(groupFolder)
                                                                         : GroupFolder::defaultPath(groupName));
        configFolder = shared->configFolder();
        if (server) {
            materials = shared->materialFolder();
            if (!shared->prepare()) {
                std::fprintf(stderr, "cannot prepare the group folder %s\n", qPrintable(shared->path()));
                return 1;
            }
        } else {
            std::printf("step: waiting for the server of group %s in %s\n", qPrintable(groupName),
                        qPrintable(shared->path()));
            std::fflush(stdout);
            const auto found = shared->waitForServer(serverWaitMs);
            if (!found) {
                std::fprintf(stderr, "no server of group %s announced itself in %s\n", qPrintable(groupName),
                             qPrintable(shared->path()));
                return 1;
            }
            groupCloud = *found;
            // The module leaves TLS settings to its host.
            QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
            tls.addCaCertificates(QSslCertificate::fromPath(groupCloud.caFile, QSsl::Pem));
            QSslConfiguration::setDefaultConfiguration(tls);
            std::printf("step: joining the cloud of group %s at %s\n", qPrintable(groupName),
                        qPrintable(groupCloud.cloudUrl));
            std::fflush(stdout);
        }
    }
    // Alone without a cloud of its own choosing, or as a group's server: this process runs the cloud.
    if (single ? configFolder.isEmpty() : server) {
        if (configFolder.isEmpty())
            configFolder = work.filePath(QStringLiteral("config"));
        if (!cloud.start(configFolder)) {
            std::fprintf(stderr, "the local cloud did not start: %s\n", qPrintable(cloud.error()));
            return 1;
        }
        std::printf("step: local cloud running, config in %s\n", qPrintable(configFolder));
        std::fflush(stdout);
        groupCloud = {cloud.brokerUrl(), cloud.cloudUrl(), cloud.caFile()};
    }

    MainWindow window;
    auto &wrapper = MainControllerWrapper::instance();
    std::unique_ptr<GroupRuntime> runtime;
    if (!single)
        runtime = std::make_unique<GroupRuntime>(
            server ? GroupRuntime::Role::ProxyServer : GroupRuntime::Role::ProxyClient, groupName);
    // The host's call order: runtime and config folder first, then the settings, then the session.
    // The module registers its calls before the group is joined, so no retained setting passes it by.
    wrapper.setRXRuntime(runtime.get());
    std::unique_ptr<GroupServerMonitor> monitor;
    if (server) {
        monitor = std::make_unique<GroupServerMonitor>(runtime.get(), groupCloud.cloudUrl, serialNumber);
        // Logging in is the clients' part.
        if (QWidget *loginButton = window.findChild<QWidget *>(QStringLiteral("demoLoginButton")))
            loginButton->hide();
        QObject::connect(monitor.get(), &GroupServerMonitor::statusChanged, &window, &MainWindow::showGroupStatus);
        window.showGroupStatus(monitor->status());
    }
    int exitCode = 0;
    std::unique_ptr<ScriptedRun> run;
    std::unique_ptr<GroupClientRun> clientRun;
    QTimer serverDeadline;
    if (parser.isSet(scripted) && server) {
        // The server's half ends with its client's run, or fails without one.
        exitCode = 1;
        QObject::connect(monitor.get(), &GroupServerMonitor::scriptFinished, &app,
                         [&exitCode, &window, &appDir](int code) {
                             // The window as the group left it: its status in place of the panel.
                             const QString folder = QDir::cleanPath(appDir + QStringLiteral("/../screenshots"));
                             QDir().mkpath(folder);
                             if (window.grab().save(folder + QStringLiteral("/demo-group-server.png")))
                                 std::printf("step: screenshot %s/demo-group-server.png\n", qPrintable(folder));
                             std::fflush(stdout);
                             exitCode = code;
                             QApplication::exit(code);
                         });
        serverDeadline.setSingleShot(true);
        QObject::connect(&serverDeadline, &QTimer::timeout, &app, [] {
            std::printf("missing: the end of a client's scripted run (not within %d s)\n", scriptedServerMs / 1000);
            std::fflush(stdout);
            QApplication::exit(1);
        });
        serverDeadline.start(scriptedServerMs);
    } else if (parser.isSet(scripted)) {
        // Before the group is joined: the settings retained there arrive as soon as it is.
        run = std::make_unique<ScriptedRun>(
            &window,
            appDir + (single ? QStringLiteral("/../screenshots") : QStringLiteral("/../screenshots/group-client")));
        if (!single)
            clientRun = std::make_unique<GroupClientRun>(run.get(), runtime.get(), groupCloud.cloudUrl,
                                                         shared->materialFolder(), materials);
        QObject::connect(run.get(), &ScriptedRun::finished, &app, [&exitCode](int code) {
            exitCode = code;
            QApplication::exit(code);
        });
        if (clientRun)
            QTimer::singleShot(0, clientRun.get(), [&clientRun] { clientRun->start(); });
        else
            QTimer::singleShot(0, run.get(), [&run] { run->start(); });
    }
    if (runtime) {
        if (!runtime->start(groupCloud.brokerUrl)) {
            std::fprintf(stderr, "cannot join group %s on %s\n", qPrintable(groupName),
                         qPrintable(groupCloud.brokerUrl));
            wrapper.setRXRuntime(nullptr);
            return 1;
        }
        std::printf("step: joined group %s as %s\n", qPrintable(groupName), qPrintable(runtime->identity()));
        std::fflush(stdout);
        if (!server)
            window.showGroupStatus(
                QObject::tr("Client of group \"%1\"; the group's server downloads the materials.").arg(groupName));
    }
    wrapper.setAppConfigPath(configFolder.toStdString());
    wrapper.setAppVersion(parser.value(appVersion).toStdString());
    wrapper.setDeviceName(parser.value(deviceName).toStdString());
    wrapper.setSerialNumber(serialNumber.toStdString());
    QDir().mkpath(materials);
    wrapper.setCloudMaterialFolderPath(materials.toStdString());
    wrapper.setStarDragCallback([&window](const std::string &path, QDrag *drag) {
        window.materialDragged(QString::fromStdString(path), drag);
    });
    wrapper.setCurrentLanguage(parser.value(language).toStdString());
    wrapper.loadTheme((appDir + QStringLiteral("/cloudmaterial.theme")).toStdString());
    wrapper.autoLogin();

    QWidget *panel = wrapper.cloudMaterialList();
    if (server) {
        std::printf("step: proxy server: cloudMaterialList() returned %s\n", panel ? "a panel" : "null");
        std::fflush(stdout);
        if (!shared->announce(groupCloud)) {
            std::fprintf(stderr, "cannot write to the group folder %s\n", qPrintable(shared->path()));
            wrapper.setRXRuntime(nullptr);
            return 1;
        }
        std::printf("step: group %s open in %s, materials in %s\n", qPrintable(groupName), qPrintable(shared->path()),
                    qPrintable(materials));
        std::fflush(stdout);
    }
    window.setMaterialPanel(panel);
    window.show();

    // Ctrl+C or a kill ends the event loop, so the local cloud is still stopped below.
    std::signal(SIGINT, requestStop);
    std::signal(SIGTERM, requestStop);
    QTimer stopPoll;
    QObject::connect(&stopPoll, &QTimer::timeout, &app, [&exitCode] {
        if (stopRequested) {
            exitCode = 1;
            QApplication::exit(1);
        }
    });
    stopPoll.start(200);

    const int loopCode = app.exec();
    wrapper.clear();
    if (runtime) {
        // The module keeps the runtime's pointer; it goes before the module's statics do.
        wrapper.setRXRuntime(nullptr);
        runtime.reset();
    }
    if (server)
        shared->withdraw();
    cloud.stop();
    return parser.isSet(scripted) ? exitCode : loopCode;
}
