// The host-library stand-ins and the module's logging helper, as the module uses them.
#include "cloudmaterial/logging.h"
#include "cloudmaterial/translatemanager.h"

#include "support/logcapture.h"

#include <hvtheme/theme.h>
#include <rxtranslate/translator.h>

#include <QtTest>

#include <QApplication>
#include <QDir>
#include <QSettings>
#include <QTemporaryDir>

using talvor::cloudmaterial::TranslateManager;

class TestPlatform : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void logLinesCarryTheirSourceLocation();
    void logLevelsAndFilter();
    void baseName_data();
    void baseName();
    void moduleLanguages_data();
    void moduleLanguages();
    void unknownLanguageKeepsTheCurrentOne();
    void themeValuesAndImages();
};

void TestPlatform::logLinesCarryTheirSourceLocation()
{
    LogCapture log;
    const int line = __LINE__ + 1;
    RXCM_LOG_INFO("get reply: {} / {}", "body", 42);
    const auto lines = log.lines();
    QCOMPARE(lines.size(), std::size_t(1));
    QCOMPARE(QString::fromStdString(lines.front().text),
             QStringLiteral("get reply: body / 42 \n //tst_platform:logLinesCarryTheirSourceLocation()#%1.").arg(line));
}

void TestPlatform::logLevelsAndFilter()
{
    LogCapture log;
    RXCM_LOG_WARN("w");
    RXCM_LOG_ERROR("e {}", std::string("x"));
    auto logger = PW::SpdlogApplication::instance().logger();
    const auto previous = logger->level();
    logger->set_level(spdlog::level::warn);
    RXCM_LOG_INFO("filtered {}", 1);
    logger->set_level(previous);

    const auto lines = log.lines();
    QCOMPARE(lines.size(), std::size_t(2));
    QCOMPARE(lines[0].level, spdlog::level::warn);
    QCOMPARE(lines[1].level, spdlog::level::err);
    QVERIFY(QString::fromStdString(lines[1].text).startsWith(QStringLiteral("e x \n //tst_platform:logLevelsAndFilter()#")));
}

void TestPlatform::baseName_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("base");
    QTest::newRow("unix") << QStringLiteral("/src/cloudmaterial/protocol/httpclientwrapper.cpp") << QStringLiteral("httpclientwrapper");
    QTest::newRow("windows") << QStringLiteral("C:\\src\\cloudmaterial\\maincontroller.cpp") << QStringLiteral("maincontroller");
    QTest::newRow("bare") << QStringLiteral("logincontroller.cpp") << QStringLiteral("logincontroller");
    QTest::newRow("no extension") << QStringLiteral("dir/ajsonex") << QStringLiteral("ajsonex");
}

void TestPlatform::baseName()
{
    QFETCH(QString, path);
    const std::string bytes = path.toStdString();
    QTEST(QString::fromStdString(std::string(talvor::cloudmaterial::logging::baseName(bytes))), "base");
}

void TestPlatform::moduleLanguages_data()
{
    QTest::addColumn<QString>("language");
    QTest::addColumn<QString>("login");
    QTest::newRow("cn") << QStringLiteral("cn") << QStringLiteral("登录");
    QTest::newRow("tw") << QStringLiteral("tw") << QStringLiteral("登入");
    QTest::newRow("en") << QStringLiteral("en") << QStringLiteral("Log in");
    QTest::newRow("ko_KR") << QStringLiteral("ko_KR") << QStringLiteral("로그인");
    QTest::newRow("ru_RU") << QStringLiteral("ru_RU") << QStringLiteral("Войти");
}

void TestPlatform::moduleLanguages()
{
    QFETCH(QString, language);
    auto &manager = TranslateManager::instance();
    QVERIFY(manager.setLanguage(language.toStdString()));
    QCOMPARE(QString::fromStdString(manager.language()), language);
    QTEST(TranslateManager::text("Login"), "login");
    // A key without a translation comes back as it is.
    QCOMPARE(TranslateManager::text("NoSuchKey"), QStringLiteral("NoSuchKey"));
}

void TestPlatform::unknownLanguageKeepsTheCurrentOne()
{
    auto &manager = TranslateManager::instance();
    QVERIFY(manager.setLanguage("ru_RU"));
    QVERIFY(!manager.setLanguage("ZH_CN"));
    QCOMPARE(manager.language(), std::string("ru_RU"));
    QCOMPARE(TranslateManager::text("Logout"), QStringLiteral("Выйти"));

    talvor::trans::Translator translator;
    QVERIFY(!translator.load(QStringLiteral("xx"), QStringLiteral("/no/such/file.qm")));
    QVERIFY(!translator.switchLanguage(QStringLiteral("xx")));
}

void TestPlatform::themeValuesAndImages()
{
    QTemporaryDir dir;
    const QString themeFile = dir.path() + QStringLiteral("/t.theme");
    {
        QSettings settings(themeFile, QSettings::IniFormat);
        settings.setValue(QStringLiteral("Theme/Name"), QStringLiteral("dark"));
        settings.setValue(QStringLiteral("Colors/accent"), QStringLiteral("#010203"));
    }
    QSettings settings(themeFile, QSettings::IniFormat);
    HV::Theme::readSettings(settings);
    QCOMPARE(HV::Theme::name(), QStringLiteral("dark"));
    QCOMPARE(HV::Theme::value(QStringLiteral("accent")), QStringLiteral("#010203"));

    QFile qss(dir.path() + QStringLiteral("/a.qss"));
    QVERIFY(qss.open(QIODevice::WriteOnly));
    qss.write("QLabel { color: @accent; background: @unknown; }");
    qss.close();
    QCOMPARE(HV::readStyleSheet(dir.path(), QStringLiteral("a.qss")),
             QStringLiteral("QLabel { color: #010203; background: @unknown; }"));
    QCOMPARE(HV::readStyleSheet(dir.path(), QStringLiteral("missing.qss")), QString());

    QCOMPARE(HV::Theme::imageFile(QStringLiteral("cloudmaterial/x.png")),
             QDir::cleanPath(QCoreApplication::applicationDirPath()
                             + QStringLiteral("/../share/themes/images/dark/cloudmaterial/x.png")));
}

QTEST_MAIN(TestPlatform)
#include "tst_platform.moc"
