#include "cloudmaterial/configstore.h"

#include <QtTest>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

using talvor::cloudmaterial::ConfigJson;
using talvor::cloudmaterial::ConfigStore;
using talvor::cloudmaterial::TokenInfoJson;

namespace {

QByteArray readAll(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void writeAll(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(bytes);
}

// Qt log lines written while the object lives.
class QtLogCapture
{
public:
    QtLogCapture()
    {
        s_lines.clear();
        m_previous = qInstallMessageHandler(&QtLogCapture::handler);
    }
    ~QtLogCapture() { qInstallMessageHandler(m_previous); }
    QStringList lines() const { return s_lines; }

private:
    static void handler(QtMsgType, const QMessageLogContext &, const QString &message) { s_lines << message; }
    static QStringList s_lines;
    QtMessageHandler m_previous;
};
QStringList QtLogCapture::s_lines;

} // namespace

class TestConfigStore : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void freshFolderGetsFoldersAndDefaults();
    void emptyUrlsAreReplacedOthersKept_data();
    void emptyUrlsAreReplacedOthersKept();
    void brokenConfigFallsBackToDefaults();
    void sessionRoundTripInKeyOrder();
    void sessionFileIsOwnerOnly();
    void everyReadGoesToDisk();
    void missingSessionIsEmptyAndLogged();

private:
    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<ConfigStore> m_store;
    QString cloud() const { return m_dir->path() + QStringLiteral("/cloud"); }
};

void TestConfigStore::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
    m_store = std::make_unique<ConfigStore>();
}

void TestConfigStore::freshFolderGetsFoldersAndDefaults()
{
    m_store->setConfigPath(m_dir->path().toStdString());

    QVERIFY(QDir(cloud()).exists());
    QVERIFY(QDir(cloud() + QStringLiteral("/nodes")).exists());
    QCOMPARE(QString::fromStdString(m_store->nodesFolder()), cloud() + QStringLiteral("/nodes"));
    QCOMPARE(QString::fromStdString(m_store->configPath()), cloud() + QStringLiteral("/config.json"));
    QCOMPARE(QString::fromStdString(m_store->tokenInfoPath()), cloud() + QStringLiteral("/login.json"));

    // The defaults are the build's cache variables.
    const QByteArray expected = QByteArray("{\"isRecordUsername\":false,\"username\":\"\",\"nodes\":\"")
        + RXCM_DEFAULT_NODES_URL + "\",\"mqttControl\":\"" + RXCM_DEFAULT_MQTT_CONTROL_URL + "\"}";
    QCOMPARE(readAll(cloud() + QStringLiteral("/config.json")), expected);
    QVERIFY(QByteArray(RXCM_DEFAULT_NODES_URL).endsWith("/cirro_api_host/nodes.json"));
    QVERIFY(QByteArray(RXCM_DEFAULT_MQTT_CONTROL_URL).endsWith("/mqtt/control/v1/"));
}

void TestConfigStore::emptyUrlsAreReplacedOthersKept_data()
{
    QTest::addColumn<QByteArray>("stored");
    QTest::addColumn<QString>("nodes");
    QTest::addColumn<QString>("mqttControl");
    QTest::addColumn<bool>("record");
    QTest::addColumn<QString>("username");

    const QString nodesDefault = QStringLiteral(RXCM_DEFAULT_NODES_URL);
    const QString controlDefault = QStringLiteral(RXCM_DEFAULT_MQTT_CONTROL_URL);
    QTest::newRow("both empty") << QByteArray(R"({"isRecordUsername":true,"username":"ann","nodes":"","mqttControl":""})")
                                << nodesDefault << controlDefault << true << QStringLiteral("ann");
    QTest::newRow("nodes kept") << QByteArray(R"({"nodes":"https://127.0.0.1:9/n.json","mqttControl":""})")
                                << QStringLiteral("https://127.0.0.1:9/n.json") << controlDefault << false << QString();
    QTest::newRow("both kept") << QByteArray(R"({"nodes":"https://a/n.json","mqttControl":"https://b/c/"})")
                               << QStringLiteral("https://a/n.json") << QStringLiteral("https://b/c/") << false
                               << QString();
}

void TestConfigStore::emptyUrlsAreReplacedOthersKept()
{
    QFETCH(QByteArray, stored);
    QVERIFY(QDir().mkpath(cloud()));
    writeAll(cloud() + QStringLiteral("/config.json"), stored);

    m_store->setConfigPath(m_dir->path().toStdString());

    // Check the file itself, read back through a fresh store.
    ConfigStore other;
    other.setConfigPath(m_dir->path().toStdString());
    const ConfigJson config = other.config();
    QTEST(QString::fromStdString(config.nodes), "nodes");
    QTEST(QString::fromStdString(config.mqttControl), "mqttControl");
    QTEST(config.isRecordUsername, "record");
    QTEST(QString::fromStdString(config.username), "username");
}

void TestConfigStore::brokenConfigFallsBackToDefaults()
{
    QVERIFY(QDir().mkpath(cloud()));
    writeAll(cloud() + QStringLiteral("/config.json"), "[1, 2]");
    QtLogCapture log;
    m_store->setConfigPath(m_dir->path().toStdString());

    QCOMPARE(m_store->config().nodes, std::string(RXCM_DEFAULT_NODES_URL));
    const QStringList lines = log.lines();
    QVERIFY2(lines.size() == 1, qPrintable(lines.join(QLatin1Char('\n'))));
    QVERIFY(lines.front().startsWith(QStringLiteral("load from file throw exception: e.what() is: error at line :0 col :1 msg:read object must start with {!")));
}

void TestConfigStore::sessionRoundTripInKeyOrder()
{
    m_store->setConfigPath(m_dir->path().toStdString());
    TokenInfoJson info;
    info.auth = "tok-\xC3\xA9";
    info.username = "ann";
    info.countryCode = "86";
    info.phone = "13800000000";
    info.email = "ann@example.org";
    info.id = -42;
    info.currentNodeIdentity = "cn-east";
    info.currentNode = "127.0.0.1:8443";
    m_store->setTokenInfo(info);

    QCOMPARE(readAll(cloud() + QStringLiteral("/login.json")),
             QByteArray(R"({"auth":"tok-\u00E9","username":"ann","countryCode":"86","phone":"13800000000",)"
                        R"("email":"ann@example.org","id":-42,"currentNodeIdentity":"cn-east","currentNode":"127.0.0.1:8443"})"));
    const TokenInfoJson back = m_store->tokenInfo();
    QCOMPARE(back.auth, info.auth);
    QCOMPARE(back.id, -42);
    QCOMPARE(back.currentNode, info.currentNode);
    QCOMPARE(back.currentNodeIdentity, info.currentNodeIdentity);

    // An empty record is how a logout is stored.
    m_store->setTokenInfo(TokenInfoJson());
    QCOMPARE(readAll(cloud() + QStringLiteral("/login.json")),
             QByteArray(R"({"auth":"","username":"","countryCode":"","phone":"","email":"","id":0,"currentNodeIdentity":"","currentNode":""})"));
}

void TestConfigStore::sessionFileIsOwnerOnly()
{
    m_store->setConfigPath(m_dir->path().toStdString());
    const QString path = cloud() + QStringLiteral("/login.json");
    // A file left readable by an older version is tightened on the next write.
    writeAll(path, "{}");
    QVERIFY(QFile::setPermissions(path, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadGroup
                                            | QFileDevice::ReadOther));
    TokenInfoJson info;
    info.auth = "secret";
    m_store->setTokenInfo(info);

    const auto others = QFileDevice::ReadGroup | QFileDevice::WriteGroup | QFileDevice::ExeGroup
        | QFileDevice::ReadOther | QFileDevice::WriteOther | QFileDevice::ExeOther;
    QCOMPARE(QFile::permissions(path) & others, QFileDevice::Permissions());
    QVERIFY(QFile::permissions(path) & QFileDevice::ReadOwner);
    QCOMPARE(m_store->tokenInfo().auth, std::string("secret"));
}

void TestConfigStore::everyReadGoesToDisk()
{
    m_store->setConfigPath(m_dir->path().toStdString());
    TokenInfoJson info;
    info.auth = "first";
    m_store->setTokenInfo(info);
    QCOMPARE(m_store->tokenInfo().auth, std::string("first"));

    writeAll(cloud() + QStringLiteral("/login.json"), R"({"auth":"changed behind our back","id":"7"})");
    QCOMPARE(m_store->tokenInfo().auth, std::string("changed behind our back"));
    QCOMPARE(m_store->tokenInfo().id, 7);

    writeAll(cloud() + QStringLiteral("/config.json"), R"({"isRecordUsername":true,"username":"bob"})");
    QCOMPARE(m_store->config().username, std::string("bob"));
    QVERIFY(m_store->config().isRecordUsername);
}

void TestConfigStore::missingSessionIsEmptyAndLogged()
{
    m_store->setConfigPath(m_dir->path().toStdString());
    TokenInfoJson info;
    info.auth = "token";
    info.id = 5;
    m_store->setTokenInfo(info);
    QVERIFY(QFile::remove(cloud() + QStringLiteral("/login.json")));

    QtLogCapture log;
    const TokenInfoJson after = m_store->tokenInfo();
    QVERIFY(after.auth.empty());
    QCOMPARE(after.id, 0);
    QCOMPARE(log.lines(), QStringList{QStringLiteral("load from file throw exception: e.what() is: can't open file:")
                                      + cloud() + QStringLiteral("/login.json")});
}

QTEST_GUILESS_MAIN(TestConfigStore)
#include "tst_configstore.moc"
