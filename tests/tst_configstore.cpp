#include "cloudmaterial/configstore.h"

#include <QtTest>

using talvor::cloudmaterial::ConfigStore;
using talvor::cloudmaterial::TokenInfoJson;

static QByteArray readAll(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

static bool writeAll(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    return QDir().mkpath(QFileInfo(path).path()) && file.open(QIODevice::WriteOnly)
        && file.write(bytes) == bytes.size();
}

static QStringList s_lines; // Qt log lines, while a test installs the handler below
static void collect(QtMsgType, const QMessageLogContext &, const QString &message)
{
    s_lines << message;
}

class TestConfigStore : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        m_store = std::make_unique<ConfigStore>();
        s_lines.clear();
        QVERIFY(m_dir->isValid());
    }

    void config_data();

    void config()
    {
        QFETCH(QByteArray, stored);
        QFETCH(QString, log);
        QVERIFY(QByteArray(RXCM_DEFAULT_NODES_URL).endsWith("/cirro_api_host/nodes.json")
                && QByteArray(RXCM_DEFAULT_MQTT_CONTROL_URL).endsWith("/mqtt/control/v1/"));
        QVERIFY(stored.isNull() || writeAll(cloud() + "/config.json", stored));
        const QtMessageHandler previous = qInstallMessageHandler(collect);
        m_store->setConfigPath(m_dir->path().toStdString());
        qInstallMessageHandler(previous);
        QVERIFY(QDir(cloud() + "/nodes").exists());
        QCOMPARE(QString::fromStdString(m_store->nodesFolder() + "|" + m_store->configPath() + "|"
                                        + m_store->tokenInfoPath()),
                 cloud() + "/nodes|" + cloud() + "/config.json|" + cloud() + "/login.json");
        QTEST(readAll(cloud() + "/config.json"), "expected");
        QVERIFY2(log.isEmpty() ? s_lines.isEmpty() : s_lines.size() == 1 && s_lines.front().startsWith(log),
                 qPrintable(s_lines.join('\n')));
        // Every read goes to the disk.
        QVERIFY(writeAll(cloud() + "/config.json", R"({"isRecordUsername":true,"username":"bob"})"));
        QVERIFY(m_store->config().username == "bob" && m_store->config().isRecordUsername);
    }

    void session()
    {
        m_store->setConfigPath(m_dir->path().toStdString());
        const QString path = cloud() + "/login.json";
        // A file left readable by an older version is tightened on the next write.
        QVERIFY(
            writeAll(path, "{}")
            && QFile::setPermissions(path, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadOther));
        TokenInfoJson info{"tok-\xC3\xA9",    "ann", "86",      "13800000000",
                           "ann@example.org", -42,   "cn-east", "127.0.0.1:8443"};
        m_store->setTokenInfo(info);
        QCOMPARE(
            readAll(path),
            QByteArray(
                R"({"auth":"tok-\u00E9","username":"ann","countryCode":"86","phone":"13800000000",)"
                R"("email":"ann@example.org","id":-42,"currentNodeIdentity":"cn-east","currentNode":"127.0.0.1:8443"})"));
        QCOMPARE(
            QFile::permissions(path)
                & ~(QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadUser | QFileDevice::WriteUser),
            QFileDevice::Permissions());
        QCOMPARE(m_store->tokenInfo().auth, info.auth);
        QVERIFY(writeAll(path, R"({"auth":"changed behind our back","id":"7"})"));
        QVERIFY(m_store->tokenInfo().auth == "changed behind our back" && m_store->tokenInfo().id == 7);
        // An empty record is how a logout is stored.
        m_store->setTokenInfo(TokenInfoJson());
        QCOMPARE(
            readAll(path),
            QByteArray(
                R"({"auth":"","username":"","countryCode":"","phone":"","email":"","id":0,"currentNodeIdentity":"","currentNode":""})"));
        QVERIFY(QFile::remove(path));
        const QtMessageHandler previous = qInstallMessageHandler(collect);
        const TokenInfoJson after = m_store->tokenInfo();
        qInstallMessageHandler(previous);
        QVERIFY(after.auth.empty() && after.id == 0);
        QCOMPARE(s_lines, QStringList{"load from file throw exception: e.what() is: can't open file:" + path});
    }

    // The login dialog's calling codes: the module's table in a fresh folder, the host's own kept.
    void countryCodes()
    {
        const QString path = cloud() + "/config/countrycode.json";
        m_store->setConfigPath(m_dir->path().toStdString());
        const QByteArray shipped = readAll(RXCM_COUNTRY_CODES_SOURCE);
        QVERIFY(shipped.contains("\"country_code\""));
        QCOMPARE(readAll(path), shipped);
        QVERIFY(QFileInfo(path).isWritable());
        const QByteArray own = R"({"country_code":[{"code":"+44","label":"英国","enLabel":"United Kingdom"}]})";
        QVERIFY(writeAll(path, own));
        m_store->setConfigPath(m_dir->path().toStdString());
        QCOMPARE(readAll(path), own);
    }

private:
    QString cloud() const { return m_dir->path() + QStringLiteral("/cloud"); }
    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<ConfigStore> m_store;
};

void TestConfigStore::config_data()
{
    QTest::addColumn<QByteArray>("stored"); // null: no file yet
    QTest::addColumn<QByteArray>("expected");
    QTest::addColumn<QString>("log");
    const QByteArray nodes = RXCM_DEFAULT_NODES_URL, control = RXCM_DEFAULT_MQTT_CONTROL_URL;
    const QByteArray defaults =
        R"({"isRecordUsername":false,"username":"","nodes":")" + nodes + R"(","mqttControl":")" + control + "\"}";
    QTest::newRow("fresh folder") << QByteArray() << defaults
                                  << "load from file throw exception: e.what() is: can't open file:";
    QTest::newRow("broken")
        << QByteArray("[1, 2]") << defaults
        << "load from file throw exception: e.what() is: error at line :0 col :1 msg:read object must start with {!";
    QTest::newRow("both empty") << QByteArray(
        R"({"isRecordUsername":true,"username":"ann","nodes":"","mqttControl":""})")
                                << R"({"isRecordUsername":true,"username":"ann","nodes":")" + nodes
            + R"(","mqttControl":")" + control + "\"}"
                                << QString();
    QTest::newRow("both kept")
        << QByteArray(R"({"nodes":"https://a/n.json","mqttControl":""})")
        << R"({"isRecordUsername":false,"username":"","nodes":"https://a/n.json","mqttControl":")" + control + "\"}"
        << QString();
}

QTEST_GUILESS_MAIN(TestConfigStore)
#include "tst_configstore.moc"
