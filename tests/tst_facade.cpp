#include "cloudmaterial/cloudmateriallist/cloudmaterialcontroller.h"
#include "cloudmaterial/configstore.h"
#include "cloudmaterial/login/logincontroller.h"
#include "cloudmaterial/maincontroller.h"
#include "cloudmaterial/maincontroller_p.h"
#include "cloudmaterial/maincontrollerwrapper.h"
#include "cloudmaterial/translatemanager.h"

#include "support/fakeruntime.h"
#include "support/logcapture.h"

#include <QtTest>

#include <QPushButton>

#include <QApplication>

using namespace talvor::cloudmaterial;
using Role = FakeRuntime::Role;

class TestFacade : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void defaultThemeWithoutLoadTheme();
    void callsFollowTheRole();
    void sessionReachesTheHost();
    void themeReplacesTheModuleStyleSheet();

private:
    MainControllerWrapper &wrapper = MainControllerWrapper::instance();
    MainController &controller = MainController::instance();
    FakeRuntime runtime;
    QTemporaryDir configDir;
};

void TestFacade::initTestCase()
{
    QVERIFY(configDir.isValid());
    wrapper.setRXRuntime(&runtime);
    LogCapture log;
    wrapper.setAppConfigPath(configDir.path().toStdString());
    const auto lines = log.linesStartingWith("AppConfigPath: ");
    QCOMPARE(lines.size(), std::size_t(1));
    QCOMPARE(lines.front().level, spdlog::level::info);
    const QString text = QString::fromStdString(lines.front().text);
    QVERIFY2(
        QRegularExpression(QStringLiteral("^AppConfigPath: %1 \\n //maincontroller:setAppConfigPath\\(\\)#\\d+\\.$")
                               .arg(QRegularExpression::escape(configDir.path())))
            .match(text)
            .hasMatch(),
        qPrintable(text));
}

void TestFacade::init()
{
    runtime.setRole(Role::Single);
    wrapper.setRXRuntime(&runtime);
    ConfigStore::instance().setTokenInfo({});
}

// A host that never loads a theme gets the one beside its executable when the panel is made.
// The theme and the language stay for the process, so this runs in a fresh one of its own.
void TestFacade::defaultThemeWithoutLoadTheme()
{
    if (qEnvironmentVariableIsEmpty("RXCM_FACADE_FRESH")) {
        QProcess fresh;
        fresh.setProcessChannelMode(QProcess::ForwardedChannels);
        qputenv("RXCM_FACADE_FRESH", "1"); // for the child only
        fresh.start(QCoreApplication::applicationFilePath(), {QString::fromLatin1(QTest::currentTestFunction())});
        qunsetenv("RXCM_FACADE_FRESH");
        QVERIFY(fresh.waitForFinished(60000) && fresh.exitStatus() == QProcess::NormalExit);
        QCOMPARE(fresh.exitCode(), 0);
        return;
    }
    QVERIFY(QFileInfo::exists(QCoreApplication::applicationDirPath() + "/cloudmaterialtheme/cloudmaterial.theme"));
    QVERIFY(qApp->styleSheet().isEmpty());
    QVERIFY(TranslateManager::instance().language().empty());
    QWidget *panel = wrapper.cloudMaterialList();
    QVERIFY(panel);
    // No language from the host: the module's own default, never the translation keys.
    QCOMPARE(TranslateManager::instance().language(), controller.currentLanguage());
    QCOMPARE(panel->findChild<QPushButton *>(QStringLiteral("downloadBtn"))->text(), QStringLiteral("下载"));
    const QString sheet = qApp->styleSheet();
    QCOMPARE(sheet.count(QStringLiteral("QWidget#CloudMaterialList {")), 1);
    QVERIFY2(sheet.contains(QStringLiteral("#2f8cff")) && !sheet.contains(QLatin1Char('@')), qPrintable(sheet));
}

void TestFacade::callsFollowTheRole()
{
    const auto setAll = [](auto &target, const std::string &text, int volume, MainController::StarDragCallback drag) {
        target.setAppVersion(text);
        target.setDeviceName(text);
        target.setSerialNumber(text);
        target.setCloudMaterialFolderPath(text);
        target.updateVolume(volume);
        target.setStarDragCallback(drag);
    };
    // One runtime switching roles between calls: the role is asked on every call.
    const struct
    {
        const char *name;
        bool attached;
        Role role;
        bool settingsApply, userFacing;
    } rows[] = {{"no runtime", false, Role::ProxyClient, true, true},
                {"client", true, Role::ProxyClient, false, true},
                {"server", true, Role::ProxyServer, true, false},
                {"client again", true, Role::ProxyClient, false, true},
                {"single", true, Role::Single, true, true}};
    for (const auto &row : rows) {
        runtime.setRole(row.role);
        wrapper.setRXRuntime(row.attached ? &runtime : nullptr);
        const std::string before = row.name, value = before + "+", expected = row.settingsApply ? value : before;
        setAll(controller, before, 1, {});
        setAll(wrapper, value, 2, [](const std::string &, QDrag *) {});
        QCOMPARE(controller.appVersion(), expected);
        QCOMPARE(controller.deviceName(), expected);
        QCOMPARE(controller.serialNumber(), expected);
        QCOMPARE(controller.cloudMaterialFolderPath(), expected);
        QCOMPARE(controller.volume(), row.settingsApply ? 2 : 1);
        QCOMPARE(controller.hasStarDragCallback(), row.userFacing);
        // The wrapper reports success whatever happened: no stored session here.
        QVERIFY(wrapper.autoLogin());
        QCOMPARE(wrapper.cloudMaterialList() != nullptr, row.userFacing);
        // Every machine shows its own texts; only exact names are mapped.
        for (const auto &[host, module] : std::vector<std::pair<std::string, std::string>>{{"zh_CN", "cn"},
                                                                                           {"zh_TW", "tw"},
                                                                                           {"korean", "ko_KR"},
                                                                                           {"russian", "ru_RU"},
                                                                                           {"en", "en"},
                                                                                           {"ZH_CN", "ZH_CN"},
                                                                                           {"zh_CN ", "zh_CN "},
                                                                                           {"de_DE", "de_DE"}}) {
            wrapper.setCurrentLanguage(host);
            QCOMPARE(controller.currentLanguage(), module);
        }
    }
}

void TestFacade::sessionReachesTheHost()
{
    LoginController &login = MainControllerInternals::loginController(controller);
    auto materials = MainControllerInternals::materialController(controller);
    QSignalSpy logins(&wrapper, &MainControllerWrapper::loginSuccess);
    QSignalSpy logouts(&wrapper, &MainControllerWrapper::exitLoginSuccess);

    TokenInfoJson info;
    info.username = "ann"; // a session without a token is no session
    ConfigStore::instance().setTokenInfo(info);
    QVERIFY(!controller.autoLogin());

    info.auth = "token-from-login", info.id = 1234567, info.currentNodeIdentity = "eu-west";
    ConfigStore::instance().setTokenInfo(info);
    QCOMPARE(wrapper.token(), std::string("token-from-login"));
    QCOMPARE(wrapper.userId(), std::string("1234567"));
    QCOMPARE(wrapper.node(), std::string("eu-west"));
    Q_EMIT login.tokenChanged("token-from-login");
    QCOMPARE(materials->token(), std::string("token-from-login"));
    Q_EMIT login.sigLoginSucceeded();
    QCOMPARE(logins.count(), 1);
    QCOMPARE(logins.at(0).at(0).value<std::string>(), std::string("ann"));
    Q_EMIT login.sigLogoutSucceeded();
    QCOMPARE(logouts.count(), 1);
    QVERIFY(materials->token().empty());
}

void TestFacade::themeReplacesTheModuleStyleSheet()
{
    qApp->setStyleSheet(QStringLiteral("QLabel#Host { color: red; }"));
    QTemporaryDir dir;
    // One file per accent: QSettings caches a file it has read within the same second.
    for (const QString &accent : {QStringLiteral("abcdef"), QStringLiteral("123456")}) {
        QFile theme(dir.path() + QLatin1Char('/') + accent + QStringLiteral(".theme"));
        QVERIFY(theme.open(QIODevice::WriteOnly));
        theme.write("[Theme]\nName=default\n[General]\nQSS=cloudmateriallistwidget.qss\n[Colors]\naccent=#"
                    + accent.toLatin1() + "\npanel=#000001\nbackground=#000002\ntext=#000003\nborder=#000004\n");
        theme.close();
        wrapper.loadTheme(theme.fileName().toStdString());
        const QString sheet = qApp->styleSheet();
        QVERIFY(sheet.startsWith(QStringLiteral("QLabel#Host { color: red; }")));
        QVERIFY(sheet.contains(QLatin1Char('#') + accent));
        QVERIFY2(!sheet.contains(QLatin1Char('@')), qPrintable(sheet));
        QCOMPARE(sheet.count(QStringLiteral("QWidget#CloudMaterialList {")), 1);
    }
}

QTEST_MAIN(TestFacade)
#include "tst_facade.moc"
