#include "groupruntime.h"
#include "support/mosquittofixture.h"

#include <QTest>
#include <QUuid>

#include <future>
#include <initializer_list>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

using Role = GroupRuntime::Role;

namespace {

// What one runtime's handlers were called with, written on the MQTT callback thread.
struct Inbox
{
    std::mutex mutex;
    std::vector<std::pair<std::string, std::string>> calls;

    void listen(GroupRuntime &runtime, const std::string &name)
    {
        runtime.registerMessageHandler(name, [this, name](const char *data, std::uint32_t size) {
            std::lock_guard<std::mutex> lock(mutex);
            calls.emplace_back(name, std::string(data, size));
        });
    }
    std::vector<std::pair<std::string, std::string>> all()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return calls;
    }
    int count(const std::string &name)
    {
        int n = 0;
        for (const auto &call : all())
            n += call.first == name ? 1 : 0;
        return n;
    }
    bool has(const std::string &name, const std::string &payload)
    {
        for (const auto &call : all()) {
            if (call.first == name && call.second == payload)
                return true;
        }
        return false;
    }
};

void send(GroupRuntime &runtime, const std::string &name, const std::string &payload)
{
    runtime.sendMessage(name, payload.data(), std::uint32_t(payload.size()));
}

// A process's MQTT clients pick up new connections about once a second: join together.
bool startAll(std::initializer_list<GroupRuntime *> runtimes, const QString &url)
{
    std::vector<std::future<bool>> joins;
    for (GroupRuntime *runtime : runtimes)
        joins.push_back(std::async(std::launch::async, [runtime, url] { return runtime->start(url); }));
    bool joined = true;
    for (auto &join : joins)
        joined = join.get() && joined;
    return joined;
}

QString freshGroup()
{
    return QStringLiteral("group-") + QUuid::createUuid().toString(QUuid::Id128).left(8);
}

} // namespace

class TestGroupRuntime : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void roles();
    void exchangesCallsBothWays_data();
    void exchangesCallsBothWays();
    void otherGroupsHearNothing_data();
    void otherGroupsHearNothing();
    void lateJoinerGetsTheLastSettings();
    void removedHandlerIsNotCalled();
    void callsSurviveABrokerRestart();
    void unreachableBroker();

private:
    Mosquitto m_broker;
};

void TestGroupRuntime::initTestCase()
{
    QVERIFY(m_broker.start());
}

void TestGroupRuntime::roles()
{
    const GroupRuntime server(Role::ProxyServer, QStringLiteral("g"));
    const GroupRuntime client(Role::ProxyClient, QStringLiteral("g"));
    QVERIFY(server.isProxyServer() && !server.isProxyClient() && !server.isSingleMachine());
    QVERIFY(!client.isProxyServer() && client.isProxyClient() && !client.isSingleMachine());
    QVERIFY(server.identity().startsWith(QLatin1String("server-")));
    QVERIFY(client.identity().startsWith(QLatin1String("client-")));
    QVERIFY(server.identity() != GroupRuntime(Role::ProxyServer, QStringLiteral("g")).identity());
    QVERIFY(!client.isConnected());
}

void TestGroupRuntime::exchangesCallsBothWays_data()
{
    QTest::addColumn<QString>("group");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QByteArray>("payload");
    QTest::addColumn<QString>("topic");

    QTest::newRow("no arguments") << QStringLiteral("hall") << QStringLiteral("StartMqtt") << QByteArray()
                                  << QStringLiteral("rxcm-demo/group/hall/call/StartMqtt");
    // msgpack of ["addr", "d01", "a.jpg", true]: zero bytes and high bytes pass untouched.
    QTest::newRow("binary") << QStringLiteral("hall") << QStringLiteral("DownloadFileRes")
                            << QByteArray::fromHex("94a461646472a3643031a5612e6a7067c300ff")
                            << QStringLiteral("rxcm-demo/group/hall/call/DownloadFileRes");
    QTest::newRow("setting") << QStringLiteral("hall") << QStringLiteral("SetDeviceName")
                             << QByteArray::fromHex("91a54c6f626279") << QStringLiteral("rxcm-demo/group/hall/call/SetDeviceName");
    QTest::newRow("wildcards and slashes in names")
        << QStringLiteral("floor 2/+") << QStringLiteral("Odd#/name") << QByteArray("x")
        << QStringLiteral("rxcm-demo/group/floor%202%2F%2B/call/Odd%23%2Fname");
}

void TestGroupRuntime::exchangesCallsBothWays()
{
    QFETCH(QString, group);
    QFETCH(QString, name);
    QFETCH(QByteArray, payload);
    QFETCH(QString, topic);
    QCOMPARE(GroupRuntime::callTopic(group, name), topic);
    group += freshGroup(); // retained calls of earlier runs stay out

    MosquittoSub wire(m_broker.port(), GroupRuntime::callTopic(group, name));
    QVERIFY(wire.waitStarted());

    GroupRuntime server(Role::ProxyServer, group);
    GroupRuntime client(Role::ProxyClient, group);
    Inbox atServer, atClient;
    const std::string call = name.toStdString();
    const std::string bytes = payload.toStdString();
    // Both register the name: a member must not hear its own calls.
    atServer.listen(server, call);
    atClient.listen(client, call);
    QStringList senders;
    connect(&client, &GroupRuntime::callReceived, this,
            [&senders](const QString &sender, const QString &, const QByteArray &) { senders << sender; });
    connect(&server, &GroupRuntime::callReceived, this,
            [&senders](const QString &sender, const QString &, const QByteArray &) { senders << sender; });
    QVERIFY(startAll({&server, &client}, m_broker.url()));
    QVERIFY(server.isConnected() && client.isConnected());

    send(server, call, bytes);
    QTRY_COMPARE(atClient.count(call), 1);
    QVERIFY(atClient.has(call, bytes));
    send(client, call, bytes);
    QTRY_COMPARE(atServer.count(call), 1);
    QVERIFY(atServer.has(call, bytes));
    // The server's own call reached the broker before the client's answer, so it would be here by now.
    QCOMPARE(atClient.count(call), 1);
    QTRY_COMPARE(senders, QStringList({server.identity(), client.identity()}));

    // On the wire: the call's topic, and the sender's identity before a zero byte.
    const QString expected = GroupRuntime::callTopic(group, name) + QLatin1Char(' ');
    QTRY_COMPARE(wire.lines().size(), 2);
    QCOMPARE(wire.lines(), QStringList({expected + server.identity(), expected + client.identity()}));
}

void TestGroupRuntime::otherGroupsHearNothing_data()
{
    QTest::addColumn<QString>("group");
    QTest::addColumn<QString>("other");
    QTest::newRow("another name") << QStringLiteral("team-a") << QStringLiteral("team-b");
    QTest::newRow("a prefix") << QStringLiteral("team-a") << QStringLiteral("team");
    QTest::newRow("a wildcard") << QStringLiteral("team-a") << QStringLiteral("+");
    QTest::newRow("a multi-level wildcard") << QStringLiteral("team-a") << QStringLiteral("#");
    QTest::newRow("a deeper level") << QStringLiteral("team") << QStringLiteral("team/call/+");
}

void TestGroupRuntime::otherGroupsHearNothing()
{
    QFETCH(QString, group);
    QFETCH(QString, other);
    const QString suffix = freshGroup();
    group.prepend(suffix);
    other.prepend(suffix);

    GroupRuntime sender(Role::ProxyServer, group);
    GroupRuntime member(Role::ProxyClient, group);
    GroupRuntime outsider(Role::ProxyClient, other);
    GroupRuntime outsiderServer(Role::ProxyServer, other);
    Inbox atMember, atSender, atOutsider;
    atMember.listen(member, "Ping");
    atSender.listen(sender, "Pong");
    atOutsider.listen(outsider, "Ping");
    atOutsider.listen(outsider, "Done");
    QVERIFY(startAll({&sender, &member, &outsider, &outsiderServer}, m_broker.url()));

    send(sender, "Ping", "1");
    QTRY_COMPARE(atMember.count("Ping"), 1);
    send(member, "Pong", "2");
    QTRY_COMPARE(atSender.count("Pong"), 1);
    // Published after the group's calls went out: anything of theirs would have arrived first.
    send(outsiderServer, "Done", "3");
    QTRY_COMPARE(atOutsider.count("Done"), 1);
    QCOMPARE(atOutsider.count("Ping"), 0);
}

void TestGroupRuntime::lateJoinerGetsTheLastSettings()
{
    const QString group = freshGroup();
    GroupRuntime server(Role::ProxyServer, group);
    GroupRuntime early(Role::ProxyClient, group);
    Inbox atEarly;
    for (const char *name : {"SetDeviceName", "SetCurrentLanguage", "DownloadFileRes"})
        atEarly.listen(early, name);
    QVERIFY(startAll({&server, &early}, m_broker.url()));

    send(server, "SetDeviceName", "first");
    send(server, "SetDeviceName", "second");
    send(server, "SetCurrentLanguage", "en");
    send(server, "DownloadFileRes", "answer");
    // Once the early member has them all, the broker holds what it retains.
    QTRY_COMPARE(atEarly.all().size(), std::size_t(4));

    GroupRuntime late(Role::ProxyClient, group);
    Inbox atLate;
    for (const char *name : {"SetDeviceName", "SetCurrentLanguage", "DownloadFileRes", "Marker"})
        atLate.listen(late, name);
    QVERIFY(late.start(m_broker.url()));
    QTRY_VERIFY(atLate.has("SetDeviceName", "second") && atLate.has("SetCurrentLanguage", "en"));
    send(server, "Marker", "live");
    QTRY_VERIFY(atLate.has("Marker", "live"));

    const auto calls = atLate.all();
    const std::set<std::pair<std::string, std::string>> got(calls.begin(), calls.end());
    const std::set<std::pair<std::string, std::string>> expected{
        {"SetDeviceName", "second"}, {"SetCurrentLanguage", "en"}, {"Marker", "live"}};
    QCOMPARE(calls.size(), std::size_t(3));
    QVERIFY(got == expected);
}

void TestGroupRuntime::removedHandlerIsNotCalled()
{
    const QString group = freshGroup();
    GroupRuntime server(Role::ProxyServer, group);
    GroupRuntime client(Role::ProxyClient, group);
    Inbox atClient;
    atClient.listen(client, "Gone");
    atClient.listen(client, "After");
    QStringList heard;
    connect(&client, &GroupRuntime::callReceived, this,
            [&heard](const QString &, const QString &name, const QByteArray &) { heard << name; });
    QVERIFY(startAll({&server, &client}, m_broker.url()));

    client.removeMessageHandler("Gone");
    client.removeMessageHandler("never registered");
    send(server, "Gone", "x");
    send(server, "After", "y");
    QTRY_COMPARE(atClient.count("After"), 1);
    QCOMPARE(atClient.count("Gone"), 0);
    // Still heard by the host; only the handler is gone.
    QTRY_COMPARE(heard, QStringList({QStringLiteral("Gone"), QStringLiteral("After")}));
}

void TestGroupRuntime::callsSurviveABrokerRestart()
{
    Mosquitto broker;
    QVERIFY(broker.start());
    const QString group = freshGroup();
    GroupRuntime server(Role::ProxyServer, group);
    GroupRuntime client(Role::ProxyClient, group);
    Inbox atServer, atClient;
    atServer.listen(server, "StartMqtt");
    atClient.listen(client, "DownloadFileRes");
    QVERIFY(startAll({&server, &client}, broker.url()));
    bool lost = false;
    connect(&client, &GroupRuntime::connectionChanged, this, [&lost](bool connected) { lost = lost || !connected; });

    QVERIFY(broker.stop());
    QTRY_VERIFY(!server.isConnected() && !client.isConnected());
    QTRY_VERIFY(lost);
    // Sent while the broker is away: held until the connection is back.
    send(server, "DownloadFileRes", "while away");
    QVERIFY(broker.restart());
    QTRY_VERIFY_WITH_TIMEOUT(server.isConnected() && client.isConnected(), 30000);
    QTRY_VERIFY_WITH_TIMEOUT(atClient.has("DownloadFileRes", "while away"), 15000);
    send(client, "StartMqtt", "");
    QTRY_VERIFY(atServer.has("StartMqtt", ""));
}

void TestGroupRuntime::unreachableBroker()
{
    Mosquitto gone;
    QVERIFY(gone.start());
    const QString url = gone.url();
    QVERIFY(gone.stop());
    GroupRuntime runtime(Role::ProxyClient, freshGroup());
    QVERIFY(!runtime.start(url, 3000));
    QVERIFY(!runtime.isConnected());
    // Sending before joining is dropped, not a crash.
    send(runtime, "StartMqtt", "");
}

QTEST_GUILESS_MAIN(TestGroupRuntime)
#include "tst_groupruntime.moc"
