// A player-like host of the cloud material module: by default against a local cloud
// (cloudsim and mosquitto started here), or against the cloud an existing config folder names.

#include "localcloud.h"
#include "mainwindow.h"
#include "scriptedrun.h"

#include "cloudmaterial/maincontrollerwrapper.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QDrag>
#include <QFile>
#include <QTemporaryDir>
#include <QTimer>

#include <csignal>
#include <cstdio>
#include <cstdlib>

using talvor::cloudmaterial::MainControllerWrapper;

namespace {

volatile std::sig_atomic_t stopRequested = 0;

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
                                                     "take screenshots, then exit."));
    parser.addOptions({cloudConfig, language, scripted});
    parser.process(app);

    const QString appDir = QCoreApplication::applicationDirPath();
    QTemporaryDir work;
    if (!work.isValid()) {
        std::fprintf(stderr, "no temporary folder\n");
        return 1;
    }

    LocalCloud cloud;
    QString configFolder = parser.value(cloudConfig);
    if (configFolder.isEmpty()) {
        configFolder = work.filePath(QStringLiteral("config"));
        if (!cloud.start(configFolder)) {
            std::fprintf(stderr, "the local cloud did not start: %s\n", qPrintable(cloud.error()));
            return 1;
        }
        // The country list of the login dialog lives in the host's config folder.
        QFile::copy(appDir + QStringLiteral("/countrycode.json"),
                    configFolder + QStringLiteral("/cloud/config/countrycode.json"));
        std::printf("step: local cloud running, config in %s\n", qPrintable(configFolder));
        std::fflush(stdout);
    }

    MainWindow window;
    auto &wrapper = MainControllerWrapper::instance();
    // The host's call order: runtime and config folder first, then the settings, then the session.
    wrapper.setRXRuntime(nullptr);
    wrapper.setAppConfigPath(configFolder.toStdString());
    wrapper.setAppVersion(QCoreApplication::applicationVersion().isEmpty()
                              ? std::string("1.0.0")
                              : QCoreApplication::applicationVersion().toStdString());
    wrapper.setDeviceName("Demo player");
    wrapper.setSerialNumber("DEMO-0001");
    const QString materials = work.filePath(QStringLiteral("materials"));
    QDir().mkpath(materials);
    wrapper.setCloudMaterialFolderPath(materials.toStdString());
    wrapper.setStarDragCallback([&window](const std::string &path, QDrag *drag) {
        window.materialDragged(QString::fromStdString(path), drag);
    });
    wrapper.setCurrentLanguage(parser.value(language).toStdString());
    wrapper.loadTheme((appDir + QStringLiteral("/cloudmaterial.theme")).toStdString());
    wrapper.autoLogin();

    window.setMaterialPanel(wrapper.cloudMaterialList());
    window.show();

    int exitCode = 0;
    std::unique_ptr<ScriptedRun> run;
    if (parser.isSet(scripted)) {
        run = std::make_unique<ScriptedRun>(&window, appDir + QStringLiteral("/../screenshots"));
        QObject::connect(run.get(), &ScriptedRun::finished, &app, [&exitCode](int code) {
            exitCode = code;
            QApplication::exit(code);
        });
        QTimer::singleShot(0, run.get(), [&run] { run->start(); });
    }
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
    cloud.stop();
    return run ? exitCode : loopCode;
}
