#include "groupruntime.h"
#include "localcloud/mosquitto.h"

#include <QTest>
#include <QUuid>

#include <algorithm>
#include <future>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

using Role = GroupRuntime::Role;
using Call = std::pair<std::string, std::string>;

namespace {

// What one runtime's handlers were called with, written on the MQTT callback thread.
struct Inbox
{
    std::mutex mutex;
    std::vector<Call> calls;

    void listen(GroupRuntime &runtime, std::initializer_list<std::string> names)
    {
        for (const std::string &name : names)
            runtime.registerMessageHandler(name, [this, name](const char *data, std::uint32_t size) {
                std::lock_guard<std::mutex> lock(mutex);
                calls.emplace_back(name, std::string(data, size));
            });
    }
    std::vector<Call> all()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return calls;
    }
    int count(const std::string &name, const std::string &payload)
    {
        const auto got = all();
        return int(std::count(got.begin(), got.end(), Call(name, payload)));
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
    return std::all_of(joins.begin(), joins.end(), [](std::future<bool> &join) { return join.get(); });
}

// Retained calls of earlier runs stay out of a fresh group.
QString freshGroup()
{
    return QStringLiteral("group-") + QUuid::createUuid().toString(QUuid::Id128).left(8);
}

} // namespace

class TestGroupRuntime : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_broker.start()); }
    void exchangesCallsBothWays_data();
    void exchangesCallsBothWays();
    void otherGroupsHearNothing_data();
    void otherGroupsHearNothing();
    void lateJoinerGetsTheLastSettings();
    void unreachableBroker();

private:
    Mosquitto m_broker;
};

void TestGroupRuntime::exchangesCallsBothWays_data()
{
    QTest::addColumn<QString>("group");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QByteArray>("payload");
    QTest::addColumn<QString>("topic");
    // msgpack of ["addr", "d01", "a.jpg", true]: zero bytes and high bytes pass untouched.
    QTest::newRow("binary") << "hall"
                            << "DownloadFileRes" << QByteArray::fromHex("94a461646472a3643031a5612e6a7067c300ff")
                            << "rxcm-demo/group/hall/call/DownloadFileRes";
    QTest::newRow("wildcards and slashes in names")
        << "floor 2/+"
        << "Odd#/name" << QByteArray("x") << "rxcm-demo/group/floor%202%2F%2B/call/Odd%23%2Fname";
}

void TestGroupRuntime::exchangesCallsBothWays()
{
    QFETCH(QString, group);
    QFETCH(QString, name);
    QFETCH(QByteArray, payload);
    QFETCH(QString, topic);
    QCOMPARE(GroupRuntime::callTopic(group, name), topic);
    group += freshGroup();
    MosquittoSub wire(m_broker.port(), GroupRuntime::callTopic(group, name));
    QVERIFY(wire.waitStarted());

    GroupRuntime server(Role::ProxyServer, group), client(Role::ProxyClient, group);
    Inbox atServer, atClient;
    const std::string call = name.toStdString(), bytes = payload.toStdString();
    // Both register the name: a member must not hear its own calls.
    atServer.listen(server, {call});
    atClient.listen(client, {call, "After"});
    QStringList heard;
    QObject scope; // queued reports must not outlive the list they fill
    for (GroupRuntime *runtime : {&server, &client})
        connect(runtime, &GroupRuntime::callReceived, &scope,
                [&heard](const QString &sender, const QString &name, const QByteArray &) { heard << sender + name; });
    QVERIFY(startAll({&server, &client}, m_broker.url()));

    send(server, call, bytes);
    QTRY_COMPARE(atClient.count(call, bytes), 1);
    send(client, call, bytes);
    QTRY_COMPARE(atServer.count(call, bytes), 1);
    // On the wire: the call's topic, and the sender's identity before a zero byte.
    const QString onWire = GroupRuntime::callTopic(group, name) + QLatin1Char(' ');
    QTRY_COMPARE(wire.lines(), QStringList({onWire + server.identity(), onWire + client.identity()}));

    // A removed handler is no longer called, but the host still hears the call.
    client.removeMessageHandler(call);
    client.removeMessageHandler("never registered");
    send(server, call, bytes);
    send(server, "After", "y");
    QTRY_COMPARE(atClient.count("After", "y"), 1);
    QCOMPARE(atClient.all().size(), std::size_t(2));
    QTRY_COMPARE(heard,
                 QStringList({server.identity() + name, client.identity() + name, server.identity() + name,
                              server.identity() + QStringLiteral("After")}));
}

void TestGroupRuntime::otherGroupsHearNothing_data()
{
    QTest::addColumn<QString>("group");
    QTest::addColumn<QString>("other");
    QTest::newRow("a prefix") << "team-a"
                              << "team";
    QTest::newRow("a multi-level wildcard") << "team-a"
                                            << "#";
    QTest::newRow("a deeper level") << "team"
                                    << "team/call/+";
}

void TestGroupRuntime::otherGroupsHearNothing()
{
    QFETCH(QString, group);
    QFETCH(QString, other);
    const QString prefix = freshGroup();
    GroupRuntime sender(Role::ProxyServer, prefix + group), member(Role::ProxyClient, prefix + group);
    GroupRuntime outsider(Role::ProxyClient, prefix + other), outsiderServer(Role::ProxyServer, prefix + other);
    Inbox atMember, atOutsider;
    atMember.listen(member, {"Ping"});
    atOutsider.listen(outsider, {"Ping", "Done"});
    QVERIFY(startAll({&sender, &member, &outsider, &outsiderServer}, m_broker.url()));

    send(sender, "Ping", "1");
    QTRY_COMPARE(atMember.count("Ping", "1"), 1);
    // Published after the group's call went out: anything of theirs would have arrived first.
    send(outsiderServer, "Done", "3");
    QTRY_COMPARE(atOutsider.count("Done", "3"), 1);
    QCOMPARE(atOutsider.all().size(), std::size_t(1));
}

void TestGroupRuntime::lateJoinerGetsTheLastSettings()
{
    const QString group = freshGroup();
    GroupRuntime server(Role::ProxyServer, group), early(Role::ProxyClient, group), late(Role::ProxyClient, group);
    Inbox atEarly, atLate;
    atEarly.listen(early, {"SetDeviceName", "SetCurrentLanguage", "DownloadFileRes"});
    atLate.listen(late, {"SetDeviceName", "SetCurrentLanguage", "DownloadFileRes", "Marker"});
    QVERIFY(startAll({&server, &early}, m_broker.url()));

    send(server, "SetDeviceName", "first");
    send(server, "SetDeviceName", "second");
    send(server, "SetCurrentLanguage", "en");
    send(server, "DownloadFileRes", "answer");
    // Once the early member has them all, the broker holds what it retains.
    QTRY_COMPARE(atEarly.all().size(), std::size_t(4));

    QVERIFY(late.start(m_broker.url()));
    QTRY_VERIFY(atLate.count("SetDeviceName", "second") && atLate.count("SetCurrentLanguage", "en"));
    send(server, "Marker", "live");
    QTRY_COMPARE(atLate.count("Marker", "live"), 1);
    QCOMPARE(atLate.all().size(), std::size_t(3));
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
