#include "cloudmaterial/cloudmateriallist/cloudmaterialcontroller.h"
#include "cloudmaterial/configstore.h"
#include "cloudmaterial/login/logincontroller.h"
#include "cloudmaterial/maincontroller.h"
#include "cloudmaterial/maincontrollerwrapper.h"

#include "support/fakeruntime.h"
#include "support/logcapture.h"

#include <QtTest>

#include <QApplication>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>

using namespace talvor::cloudmaterial;
using Role = FakeRuntime::Role;

Q_DECLARE_METATYPE(FakeRuntime::Role)

class TestFacade : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void settersFollowTheRole_data();
    void settersFollowTheRole();
    void userFacingCallsFollowTheRole_data();
    void userFacingCallsFollowTheRole();
    void roleIsAskedOnEveryCall();
    void languageMapping_data();
    void languageMapping();
    void appConfigPathIsLogged();
    void sessionQueriesReadTheFile();
    void autoLoginWithoutTokenStaysLoggedOut();
    void themeReplacesTheModuleStyleSheet();
    void loginSignalsReachTheHost();

private:
    MainControllerWrapper &wrapper = MainControllerWrapper::instance();
    MainController &controller = MainController::instance();
    FakeRuntime runtime;
    QTemporaryDir configDir;
    int counter = 0;
};

void TestFacade::initTestCase()
{
    QVERIFY(configDir.isValid());
    wrapper.setRXRuntime(&runtime);
    QCOMPARE(controller.runtime(), static_cast<IRXRuntime *>(&runtime));
    wrapper.setAppConfigPath(configDir.path().toStdString());
}

void TestFacade::settersFollowTheRole_data()
{
    QTest::addColumn<FakeRuntime::Role>("role");
    QTest::addColumn<bool>("serverSettingsApply"); // version, name, serial, folder, volume
    QTest::newRow("single") << Role::Single << true;
    QTest::newRow("proxy server") << Role::ProxyServer << true;
    QTest::newRow("proxy client") << Role::ProxyClient << false;
}

void TestFacade::settersFollowTheRole()
{
    QFETCH(FakeRuntime::Role, role);
    QFETCH(bool, serverSettingsApply);
    runtime.setRole(role);

    const std::string before = std::to_string(counter);
    const std::string value = std::to_string(++counter);
    // Start from a known state, whatever the previous row left.
    controller.setAppVersion(before);
    controller.setDeviceName(before);
    controller.setSerialNumber(before);
    controller.setCloudMaterialFolderPath(before);
    controller.updateVolume(counter - 1);

    wrapper.setAppVersion("v" + value);
    wrapper.setDeviceName("d" + value);
    wrapper.setSerialNumber("s" + value);
    wrapper.setCloudMaterialFolderPath("/f" + value);
    wrapper.updateVolume(counter);
    wrapper.setCurrentLanguage("korean");

    QCOMPARE(controller.appVersion(), serverSettingsApply ? "v" + value : before);
    QCOMPARE(controller.deviceName(), serverSettingsApply ? "d" + value : before);
    QCOMPARE(controller.serialNumber(), serverSettingsApply ? "s" + value : before);
    QCOMPARE(controller.cloudMaterialFolderPath(), serverSettingsApply ? "/f" + value : before);
    QCOMPARE(controller.volume(), serverSettingsApply ? counter : counter - 1);
    // Every machine shows its own texts.
    QCOMPARE(controller.currentLanguage(), std::string("ko_KR"));
    wrapper.setCurrentLanguage("en");
    QCOMPARE(controller.currentLanguage(), std::string("en"));
}

void TestFacade::userFacingCallsFollowTheRole_data()
{
    QTest::addColumn<FakeRuntime::Role>("role");
    QTest::addColumn<bool>("passes");
    QTest::newRow("single") << Role::Single << true;
    QTest::newRow("proxy server") << Role::ProxyServer << false;
    QTest::newRow("proxy client") << Role::ProxyClient << true;
}

void TestFacade::userFacingCallsFollowTheRole()
{
    QFETCH(FakeRuntime::Role, role);
    QFETCH(bool, passes);
    runtime.setRole(role);

    controller.setStarDragCallback({});
    wrapper.setStarDragCallback([](const std::string &, QDrag *) {});
    QCOMPARE(controller.hasStarDragCallback(), passes);

    // The wrapper reports success whatever happened: no stored session here.
    QVERIFY(wrapper.autoLogin());
    // The panel is for the machines that show materials; a proxy server gets none.
    QCOMPARE(wrapper.cloudMaterialList() != nullptr, passes);
}

void TestFacade::roleIsAskedOnEveryCall()
{
    controller.setAppVersion("none");
    runtime.setRole(Role::ProxyClient);
    wrapper.setAppVersion("from client");
    QCOMPARE(controller.appVersion(), std::string("none"));
    runtime.setRole(Role::ProxyServer);
    wrapper.setAppVersion("from server");
    QCOMPARE(controller.appVersion(), std::string("from server"));
    runtime.setRole(Role::ProxyClient);
    wrapper.setAppVersion("client again");
    QCOMPARE(controller.appVersion(), std::string("from server"));

    // Without a runtime the machine works alone and every call passes.
    wrapper.setRXRuntime(nullptr);
    wrapper.setAppVersion("alone");
    QCOMPARE(controller.appVersion(), std::string("alone"));
    wrapper.setStarDragCallback([](const std::string &, QDrag *) {});
    QVERIFY(controller.hasStarDragCallback());
    wrapper.setRXRuntime(&runtime);
    runtime.setRole(Role::Single);
}

void TestFacade::languageMapping_data()
{
    QTest::addColumn<QString>("host");
    QTest::addColumn<QString>("module");
    QTest::newRow("simplified") << QStringLiteral("zh_CN") << QStringLiteral("cn");
    QTest::newRow("traditional") << QStringLiteral("zh_TW") << QStringLiteral("tw");
    QTest::newRow("korean") << QStringLiteral("korean") << QStringLiteral("ko_KR");
    QTest::newRow("english") << QStringLiteral("en") << QStringLiteral("en");
    QTest::newRow("russian") << QStringLiteral("russian") << QStringLiteral("ru_RU");
    QTest::newRow("case differs") << QStringLiteral("ZH_CN") << QStringLiteral("ZH_CN");
    QTest::newRow("longer") << QStringLiteral("zh_CN ") << QStringLiteral("zh_CN ");
    QTest::newRow("prefix") << QStringLiteral("zh") << QStringLiteral("zh");
    QTest::newRow("unknown") << QStringLiteral("de_DE") << QStringLiteral("de_DE");
    QTest::newRow("empty") << QStringLiteral("") << QStringLiteral("");
}

void TestFacade::languageMapping()
{
    QFETCH(QString, host);
    QFETCH(QString, module);
    runtime.setRole(Role::ProxyClient);
    wrapper.setCurrentLanguage(host.toStdString());
    QCOMPARE(QString::fromStdString(controller.currentLanguage()), module);
    runtime.setRole(Role::Single);
}

void TestFacade::appConfigPathIsLogged()
{
    LogCapture log;
    QTemporaryDir other;
    wrapper.setAppConfigPath(other.path().toStdString());
    const auto lines = log.linesStartingWith("AppConfigPath: ");
    QCOMPARE(lines.size(), std::size_t(1));
    QCOMPARE(lines.front().level, spdlog::level::info);
    const QString text = QString::fromStdString(lines.front().text);
    const QRegularExpression shape(QStringLiteral("^AppConfigPath: (.*) \\n //maincontroller:setAppConfigPath\\(\\)#\\d+\\.$"));
    const auto match = shape.match(text);
    QVERIFY2(match.hasMatch(), qPrintable(text));
    QCOMPARE(match.captured(1), other.path());
    QVERIFY(QFile::exists(other.path() + QStringLiteral("/cloud/config.json")));
    wrapper.setAppConfigPath(configDir.path().toStdString());
}

void TestFacade::sessionQueriesReadTheFile()
{
    TokenInfoJson info;
    info.auth = "access-token";
    info.id = 1234567;
    info.currentNodeIdentity = "eu-west";
    info.currentNode = "127.0.0.1:4443";
    ConfigStore::instance().setTokenInfo(info);

    QCOMPARE(wrapper.token(), std::string("access-token"));
    QCOMPARE(wrapper.userId(), std::string("1234567"));
    QCOMPARE(wrapper.node(), std::string("eu-west"));

    QVERIFY(QFile::remove(configDir.path() + QStringLiteral("/cloud/login.json")));
    QCOMPARE(wrapper.token(), std::string());
    QCOMPARE(wrapper.userId(), std::string("0"));
    QCOMPARE(wrapper.node(), std::string());
}

void TestFacade::autoLoginWithoutTokenStaysLoggedOut()
{
    QSignalSpy logins(&wrapper, &MainControllerWrapper::loginSuccess);
    TokenInfoJson info;
    info.username = "ann"; // a session without a token is no session
    ConfigStore::instance().setTokenInfo(info);
    QVERIFY(!controller.autoLogin());
    QFile::remove(configDir.path() + QStringLiteral("/cloud/login.json"));
    QVERIFY(!controller.autoLogin());
    QCOMPARE(logins.count(), 0);
}

void TestFacade::themeReplacesTheModuleStyleSheet()
{
    qApp->setStyleSheet(QStringLiteral("QLabel#Host { color: red; }"));
    QTemporaryDir dir;
    // Two files: QSettings caches a file it has read within the same second.
    auto writeTheme = [&](const QString &accent) {
        QFile theme(dir.path() + QStringLiteral("/%1.theme").arg(accent.mid(1)));
        QVERIFY(theme.open(QIODevice::WriteOnly | QIODevice::Truncate));
        theme.write("[Theme]\nName=default\n[General]\nQSS=cloudmateriallistwidget.qss\n[Colors]\naccent=");
        theme.write(accent.toLatin1());
        theme.write("\npanel=#000001\nbackground=#000002\ntext=#000003\nborder=#000004\n");
    };
    writeTheme(QStringLiteral("#abcdef"));
    wrapper.loadTheme((dir.path() + QStringLiteral("/abcdef.theme")).toStdString());
    QString sheet = qApp->styleSheet();
    QVERIFY(sheet.startsWith(QStringLiteral("QLabel#Host { color: red; }")));
    QVERIFY(sheet.contains(QStringLiteral("#abcdef")));
    QVERIFY2(!sheet.contains(QLatin1Char('@')), qPrintable(sheet));

    writeTheme(QStringLiteral("#123456"));
    wrapper.loadTheme((dir.path() + QStringLiteral("/123456.theme")).toStdString());
    sheet = qApp->styleSheet();
    QVERIFY(sheet.contains(QStringLiteral("#123456")));
    QVERIFY(!sheet.contains(QStringLiteral("#abcdef")));
    QCOMPARE(sheet.count(QStringLiteral("QWidget#CloudMaterialList {")), 1);
    QVERIFY(sheet.contains(QStringLiteral("QLabel#Host")));
}

void TestFacade::loginSignalsReachTheHost()
{
    runtime.setRole(Role::Single);
    LoginController &login = controller.loginController();
    auto materials = controller.materialController();
    QSignalSpy logins(&wrapper, &MainControllerWrapper::loginSuccess);
    QSignalSpy logouts(&wrapper, &MainControllerWrapper::exitLoginSuccess);

    Q_EMIT login.tokenChanged("token-from-login");
    QCOMPARE(materials->token(), std::string("token-from-login"));

    TokenInfoJson info;
    info.auth = "token-from-login";
    info.username = "ann";
    ConfigStore::instance().setTokenInfo(info);
    Q_EMIT login.sigLoginSucceeded();
    QCOMPARE(logins.count(), 1);
    QCOMPARE(logins.at(0).at(0).value<std::string>(), std::string("ann"));

    Q_EMIT login.sigLogoutSucceeded();
    QCOMPARE(logouts.count(), 1);
    QVERIFY(materials->token().empty());
    QFile::remove(configDir.path() + QStringLiteral("/cloud/login.json"));
}

QTEST_MAIN(TestFacade)
#include "tst_facade.moc"
