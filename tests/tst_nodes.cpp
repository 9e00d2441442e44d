// The cloud's nodes as the login finds them, against the local cloud over real TLS: the node
// directory with its labels and flags, and the global DNS entry the messaging start reads.

#include "cloudmaterial/login/logincontroller.h"
#include "cloudmaterial/login/nodedirectory.h"
#include "cloudmaterial/protocol/crypto.h"
#include "cloudmaterial/protocol/httpclientwrapper.h"
#include "cloudmaterial/workerpool.h"

#include "localcloud/cloudsim.h"
#include "support/cloudclient.h"
#include "support/logcapture.h"
#include "support/modulelog.h"

#include <QtTest>

#include <memory>

using namespace talvor::cloudmaterial;

class TestNodes : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void globalDns_data();
    void globalDns();
    void nodeDirectory_data();
    void nodeDirectory();

private:
    CloudSim cloud;
    std::shared_ptr<WorkerPool> pool = std::make_shared<WorkerPool>(1);
    HttpClientWrapper http{pool};
};

void TestNodes::globalDns_data()
{
    QTest::addColumn<QJsonObject>("dns"); // empty: an empty reply
    QTest::addColumn<int>("backups");
    QTest::addColumn<QString>("identity");
    QTest::newRow("one backup") << QJsonObject{{"slave", "one"}} << 1 << "cn-1";
    QTest::newRow("no backups member") << QJsonObject{{"slave", "missing"}, {"identity", "eu-9"}, {"status", 7}} << 0
                                       << "eu-9";
    QTest::newRow("empty reply") << QJsonObject() << 0 << "";
}

void TestNodes::globalDns()
{
    QFETCH(QJsonObject, dns);
    QFETCH(int, backups);
    QFETCH(QString, identity);

    QByteArray served;
    if (!dns.isEmpty()) {
        QVERIFY(cloud.start(QJsonDocument(QJsonObject{{"dns", dns}}).toJson()));
        served = CloudClient(cloud).send(QStringLiteral("/mqtt/control/v1/")).body;
        QVERIFY(!served.isEmpty() && cloud.clearRequests());
    } else {
        QVERIFY(cloud.start("{}"));
        QVERIFY(cloud.addFault({{"kind", "status"}, {"path", "/mqtt/control/v1/"}, {"status", 200}, {"body", ""}}));
    }
    LogCapture log;
    // The messaging start asks from the pool's thread.
    GlobalDNSJson entry;
    pool->enqueue([&] {
            entry =
                LoginController::getGlobalDnsAddr(http, cloud.url(QStringLiteral("/mqtt/control/v1/")).toStdString());
        })
        .wait();

    QCOMPARE(QString::fromStdString(entry.data.main.currentNodeIdentity), identity);
    QCOMPARE(int(entry.data.slave.size()), backups);
    const auto lines = log.linesStartingWith("获取 DNS 地址");
    QCOMPARE(int(lines.size()), 1);
    if (identity.isEmpty()) {
        QCOMPARE(qint64(entry.status), qint64(0));
        QVERIFY(entry.data.main.publicKey.empty() && entry.data.main.mqttAuthUrl.empty());
        QVERIFY2(ModuleLog::is(lines.front(), "获取 DNS 地址失败: 响应消息为空", "logincontroller:getGlobalDnsAddr"),
                 lines.front().text.c_str());
        return;
    }
    // The line holds the reply exactly as it came.
    QVERIFY2(
        ModuleLog::is(lines.front(), "获取 DNS 地址消息: " + served.toStdString(), "logincontroller:getGlobalDnsAddr"),
        lines.front().text.c_str());
    QCOMPARE(qint64(entry.status), qint64(dns.value("status").toInt(200)));
    QCOMPARE(QString::fromStdString(entry.data.main.mqttAuthUrl), cloud.url(QStringLiteral("/mqtt/auth")));
    // The key is a bare SubjectPublicKeyInfo body, wrapped into PEM by the messaging start.
    const std::string pem = "-----BEGIN PUBLIC KEY-----\n" + entry.data.main.publicKey + "\n-----END PUBLIC KEY-----";
    QVERIFY(!rsaPublicEncrypt("probe", pem.c_str()).empty());
    if (backups) {
        QCOMPARE(QString::fromStdString(entry.data.slave.front().mqttAuthUrl),
                 cloud.url(QStringLiteral("/mqtt/auth-backup")));
        QVERIFY(!entry.data.slave.front().publicKey.empty()
                && entry.data.slave.front().publicKey != entry.data.main.publicKey);
    }
}

void TestNodes::nodeDirectory_data()
{
    QTest::addColumn<QByteArray>("body"); // empty: the directory cloudsim publishes
    // "english|chinese|node|key|icon", %1 the cloud's host, %2 the folder of the local flags
    QTest::addColumn<QStringList>("entries");

    const QString flags = QStringLiteral("|%2icon_");
    QTest::newRow("published") << QByteArray()
                               << QStringList{"China|中国|%1|cn-1" + flags + "china.png",
                                              "Europe|欧洲|%1|eu-1" + flags + "europe.png",
                                              "United States|美国|%1|us-1" + flags + "usa.png",
                                              "Australia|澳大利亚|%1|au-1" + flags + "australia.png",
                                              "India|印度|%1|in-1" + flags + "india.png"};
    const QByteArray china =
        R"({"label":{"en":"China","zh-cn":"中国"},"node":"h1:443","key":"cn-1","icon":"https://x/a/china.png"})";
    QTest::newRow("unknown flag kept as published") << QByteArray(
        R"({"cirro":[)" + china
        + R"(,{"label":{"en":"Mars","zh-cn":"火星"},"node":"h2:443","key":"ma-1","icon":"https://x/a/mars.png"}]})")
                                                    << QStringList{"China|中国|h1:443|cn-1" + flags + "china.png",
                                                                   "Mars|火星|h2:443|ma-1|https://x/a/mars.png"};
    QTest::newRow("only the file name picks the flag") << QByteArray(
        R"({"cirro":[{"label":{"en":"Here","zh-cn":"这里"},"node":"h3","key":"k","icon":"https://x/us.png/usa.png"}]})")
                                                       << QStringList{"Here|这里|h3|k|https://x/us.png/usa.png"};
    QTest::newRow("cut in the second entry")
        << QByteArray(R"({"cirro":[)" + china + R"(,{"label":{"en":"Eur)") << QStringList();
    QTest::newRow("label not an object") << QByteArray(R"({"cirro":[)" + china
                                                       + R"(,{"label":"Europe","node":"h2","key":"eu-1","icon":""}]})")
                                         << QStringList();
    QTest::newRow("not JSON") << QByteArray("<html>moved</html>") << QStringList();
}

void TestNodes::nodeDirectory()
{
    QFETCH(QByteArray, body);
    QFETCH(QStringList, entries);
    QVERIFY(cloud.start("{}"));
    if (!body.isEmpty())
        QVERIFY(cloud.addFault(
            {{"kind", "status"}, {"path", "/nodes.json"}, {"status", 200}, {"body", QString::fromUtf8(body)}}));

    const auto nodes = nodedirectory::download(http, cloud.url(QStringLiteral("/nodes.json")).toStdString());
    const QString flags =
        QCoreApplication::applicationDirPath() + QStringLiteral("/../share/themes/images/default/cloudmaterial/");
    QStringList got;
    for (const NodeEntry &entry : nodes)
        got << QStringList{QString::fromStdString(entry.label.en), QString::fromStdString(entry.label.zh_cn),
                           QString::fromStdString(entry.node), QString::fromStdString(entry.key),
                           QString::fromStdString(entry.icon)}
                   .join('|');
    for (QString &entry : entries)
        entry.replace(QLatin1String("%1"), cloud.host()).replace(QLatin1String("%2"), flags);
    QCOMPARE(got, entries);
    QCOMPARE(cloud.requests().size(), 1);
}

QTEST_MAIN(TestNodes)
#include "tst_nodes.moc"
