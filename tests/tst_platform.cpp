// The host-library stand-ins and the module's logging helper, as the module uses them.
#include "cloudmaterial/logging.h"
#include "cloudmaterial/translatemanager.h"

#include "support/logcapture.h"

#include <hvtheme/theme.h>

#include <QtTest>

#include <QSettings>
#include <QTemporaryDir>

using talvor::cloudmaterial::TranslateManager;

class TestPlatform : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void logLines()
    {
        LogCapture log;
        auto logger = PW::SpdlogApplication::instance().logger();
        const auto previous = logger->level();
        const int line = __LINE__ + 1;
        RXCM_LOG_INFO("get reply: {} / {}", "body", 42);
        RXCM_LOG_WARN("w");
        logger->set_level(spdlog::level::warn);
        RXCM_LOG_INFO("filtered {}", 1);
        logger->set_level(previous);
        RXCM_LOG_ERROR("e {}", std::string("x"));
        const auto lines = log.lines();
        QCOMPARE(lines.size(), std::size_t(3));
        QCOMPARE(QString::fromStdString(lines[0].text),
                 QStringLiteral("get reply: body / 42 \n //tst_platform:logLines()#%1.").arg(line));
        QCOMPARE(lines[1].level, spdlog::level::warn);
        QCOMPARE(lines[2].level, spdlog::level::err);
        QCOMPARE(QString::fromStdString(std::string(
                     talvor::cloudmaterial::logging::baseName("C:\\src\\cloudmaterial\\maincontroller.cpp"))),
                 QStringLiteral("maincontroller"));
    }

    void languages()
    {
        auto &manager = TranslateManager::instance();
        const QStringList languages{"cn", "tw", "en", "ko_KR", "ru_RU"};
        const QStringList login{"登录", "登入", "Log in", "로그인", "Войти"};
        for (int i = 0; i < languages.size(); ++i) {
            QVERIFY(manager.setLanguage(languages[i].toStdString()));
            QCOMPARE(TranslateManager::text("Login"), login[i]);
        }
        // An unknown language keeps the current one; a key without a translation comes back as it is.
        QVERIFY(!manager.setLanguage("ZH_CN"));
        QCOMPARE(manager.language(), std::string("ru_RU"));
        QCOMPARE(TranslateManager::text("NoSuchKey"), QStringLiteral("NoSuchKey"));
    }

    void themeValuesAndImages()
    {
        QTemporaryDir dir;
        QSettings settings(dir.path() + QStringLiteral("/t.theme"), QSettings::IniFormat);
        settings.setValue(QStringLiteral("Theme/Name"), QStringLiteral("dark"));
        settings.setValue(QStringLiteral("Colors/accent"), QStringLiteral("#010203"));
        HV::Theme::readSettings(settings);
        QFile qss(dir.path() + QStringLiteral("/a.qss"));
        QVERIFY(qss.open(QIODevice::WriteOnly) && qss.write("QLabel { color: @accent; background: @unknown; }") > 0
                && qss.flush());
        QCOMPARE(HV::readStyleSheet(dir.path(), QStringLiteral("a.qss")),
                 QStringLiteral("QLabel { color: #010203; background: @unknown; }"));
        QCOMPARE(HV::Theme::imageFile(QStringLiteral("cloudmaterial/x.png")),
                 QDir::cleanPath(QCoreApplication::applicationDirPath()
                                 + QStringLiteral("/../share/themes/images/dark/cloudmaterial/x.png")));
    }
};

QTEST_MAIN(TestPlatform)
#include "tst_platform.moc"
