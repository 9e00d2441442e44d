// The MQTT client wrapper against a real mosquitto: subscriptions and their log lines, publishing
// over TLS and its failures, a publish the broker never confirms, the retained will of a killed
// client, the pause before a reconnect, reconnecting and the retry budget.

#include "cloudmaterial/protocol/mqttclientwrapper.h"
#include "localcloud/mosquitto.h"
#include "support/logcapture.h"
#include "support/modulelog.h"
#include "support/sockettable.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>
#include <QThread>

#include <atomic>
#include <cstdio>
#include <memory>
#include <mutex>
#include <signal.h>
#include <unistd.h>

using talvor::cloudmaterial::MqttClientWrapper;

namespace {

// Index of the first text equal to @p text at or after @p from, or -1.
int indexOf(const std::vector<std::string> &texts, const std::string &text, int from = 0)
{
    const auto it = std::find(texts.begin() + std::min<int>(from, int(texts.size())), texts.end(), text);
    return it == texts.end() ? -1 : int(it - texts.begin());
}

// Publishes through a client no one here wrote.
bool mosquittoPub(int port, const QString &topic, const QString &payload)
{
    QProcess pub;
    pub.start(findMosquittoProgram(QStringLiteral("mosquitto_pub")),
              {"-h", "127.0.0.1", "-p", QString::number(port), "-q", "1", "-t", topic, "-m", payload});
    return pub.waitForFinished(10000) && pub.exitStatus() == QProcess::NormalExit && pub.exitCode() == 0;
}

// Holds a broker's process stopped (SIGSTOP) while it lives: connections stay open, nothing is answered.
class FrozenBroker
{
public:
    explicit FrozenBroker(const Mosquitto &broker)
    {
        // The broker was started with the config file beside its log; that path is unique to it.
        const QByteArray config =
            QFileInfo(broker.logFile()).dir().filePath(QStringLiteral("mosquitto.conf")).toLocal8Bit();
        const auto entries = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
        for (const QString &entry : entries) {
            bool numeric = false;
            const pid_t candidate = entry.toInt(&numeric);
            QFile cmdline(QStringLiteral("/proc/%1/cmdline").arg(entry));
            if (numeric && cmdline.open(QIODevice::ReadOnly) && cmdline.readAll().split('\0').contains(config)) {
                m_pid = candidate;
                break;
            }
        }
        m_frozen = m_pid > 0 && ::kill(m_pid, SIGSTOP) == 0;
    }
    ~FrozenBroker()
    {
        if (m_frozen)
            ::kill(m_pid, SIGCONT);
    }
    FrozenBroker(const FrozenBroker &) = delete;
    FrozenBroker &operator=(const FrozenBroker &) = delete;

    bool isFrozen() const { return m_frozen; }

private:
    pid_t m_pid = 0;
    bool m_frozen = false;
};

// The will test's client: connects with a will, says so, then dies without a DISCONNECT.
int runWillClient(const std::string &url, const std::string &topic)
{
    MqttClientWrapper client(url, "will-client");
    client.setWill(topic, "offline", 2);
    if (!client.start())
        return 2;
    for (int i = 0; i < 500 && !client.is_connected(); ++i)
        QThread::msleep(10);
    std::puts(client.is_connected() ? "connected" : "not connected");
    std::fflush(stdout);
    for (;;)
        pause(); // the test kills this process
}

} // namespace

class TestMqttClient : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QVERIFY(broker.start()); }
    void subscribesInTopicOrderAndReceives();
    void publishAndItsFailures();
    void publishThatIsNeverConfirmed();
    void destroyedWithASubscriptionInFlight();
    void willIsRetainedWhenTheClientDies();
    void reconnectWaitsAfterALoss();
    void reconnectsUpToTheRetryLimit();
    void connectingDoesNotRefillTheRetryBudget();

private:
    Mosquitto broker;
};

void TestMqttClient::subscribesInTopicOrderAndReceives()
{
    LogCapture log;
    std::mutex mutex;
    std::vector<std::string> received; // "topic payload", filled on the library's thread
    const auto receivedSorted = [&] {
        std::lock_guard lock(mutex);
        auto sorted = received;
        std::sort(sorted.begin(), sorted.end());
        return sorted;
    };
    std::atomic<int> connectedCalls{0};
    MqttClientWrapper client(broker.url().toStdString(), "subscriber");
    // Added out of order: the broker must be asked in topic order.
    client.addSubscription("rx/zeta", 2);
    client.addSubscription("rx/alpha", 1);
    client.addSubscription("rx/mid/#", 0);
    client.setMessageHandler([&](const std::string &t, const std::string &p) {
        std::lock_guard lock(mutex);
        received.push_back(t + " " + p);
    });
    client.setConnectedHandler([&] { ++connectedCalls; });
    client.setMessageHandler({}); // an empty handler leaves the one set before
    // The host's own connection to the same broker keeps its socket options.
    QTcpSocket hostConnection;
    hostConnection.connectToHost(QHostAddress::LocalHost, quint16(broker.port()));
    QVERIFY(hostConnection.waitForConnected(5000));
    QVERIFY(client.start());
    QTRY_COMPARE(log.count("Subscription success"), 3);
    QTRY_COMPARE(connectedCalls.load(), 1);
    // Ours sends small packets at once (no wait for a delayed ACK); the host's is left alone.
    QCOMPARE(socketsToPort(broker.port()), std::make_pair(2, 1));
    const auto texts = log.messages();
    int at = 0;
    for (const char *line :
         {"Connecting to the MQTT server...", "Connection success", "Subscribing to topic 'rx/alpha', using QoS 1",
          "Subscribing to topic 'rx/mid/#', using QoS 0", "Subscribing to topic 'rx/zeta', using QoS 2"}) {
        at = indexOf(texts, line, at);
        QVERIFY2(at >= 0, line);
    }

    for (const char *topic : {"rx/alpha", "rx/mid/deep", "rx/other", "rx/zeta"})
        QVERIFY(mosquittoPub(broker.port(), QString::fromLatin1(topic), QStringLiteral("m")));
    QTRY_COMPARE(receivedSorted(), (std::vector<std::string>{"rx/alpha m", "rx/mid/deep m", "rx/zeta m"}));
    const auto after = log.messages();
    const int arrived = indexOf(after, "Message arrived");
    QVERIFY(arrived >= 0 && arrived + 2 < int(after.size()));
    QCOMPARE(std::vector<std::string>(after.begin() + arrived + 1, after.begin() + arrived + 3),
             (std::vector<std::string>{"topic: 'rx/alpha'", "msg: 'm'"}));

    log.clear();
    client.stop();
    QVERIFY(!client.is_connected());
    QCOMPARE(log.messages(), (std::vector<std::string>{"Disconnecting from the MQTT server...", "OK"}));
}

void TestMqttClient::publishAndItsFailures()
{
    // Over TLS to a listener whose self-signed certificate no client can verify; watched on the plain one.
    Mosquitto tlsBroker;
    QVERIFY(tlsBroker.start({true}));
    LogCapture log;
    MosquittoSub sub(tlsBroker.port(), QStringLiteral("out/#"));
    QVERIFY(sub.waitStarted());
    MqttClientWrapper client(tlsBroker.sslUrl().toStdString(), "publisher");
    client.setWaitTimeoutSeconds(5);
    // Before the connection: refused and said, and nothing is queued in the library.
    QVERIFY(!client.publish("out/early", "never sent", 1));
    QCOMPARE(log.messages(), std::vector<std::string>{"MQTT is disconnected!!!"});
    QVERIFY(client.start());
    QTRY_VERIFY(client.is_connected());
    for (int qos : {0, 1, 2})
        QVERIFY(client.publish("out/q" + std::to_string(qos), "at qos " + std::to_string(qos), qos));
    QTRY_COMPARE(sub.lines(), (QStringList{"out/q0 at qos 0", "out/q1 at qos 1", "out/q2 at qos 2"}));

    // QoS 3 does not exist; the library refuses it and no exception may escape.
    log.clear();
    QVERIFY(!client.publish("out/bad", "body", 3));
    QCOMPARE(log.messages(), std::vector<std::string>{"public msg error, topic: out/bad, msg: body, qos:3"});
    QCOMPARE(log.lines().at(0).level, spdlog::level::err);
    client.stop();

    // Stopping a client that never connected says why, as an error.
    log.clear();
    MqttClientWrapper idle(broker.url().toStdString(), "never-started");
    idle.stop();
    const auto texts = log.messages();
    QCOMPARE(texts.size(), size_t(2));
    QVERIFY(texts[0] == "Disconnecting from the MQTT server..." && texts[1].rfind("stop exception: ", 0) == 0);
    QCOMPARE(log.lines().at(1).level, spdlog::level::err);
}

void TestMqttClient::publishThatIsNeverConfirmed()
{
    Mosquitto stalling;
    QVERIFY(stalling.start());
    MqttClientWrapper client(stalling.url().toStdString(), "stalled");
    client.setWaitTimeoutSeconds(1);
    QVERIFY(client.start());
    QTRY_VERIFY(client.is_connected());
    LogCapture log;
    bool published = true;
    {
        // Still connected as far as the client knows, but no PUBACK ever comes within the wait.
        FrozenBroker frozen(stalling);
        QVERIFY(frozen.isFrozen());
        published = client.publish("out/stalled", "late", 1);
    }
    QVERIFY(!published);
    QCOMPARE(ModuleLog::count(log, spdlog::level::err, "public msg error, topic: out/stalled, msg: late, qos:1",
                              "mqttclientwrapper:publish"),
             1);
    QCOMPARE(log.lines().size(), std::size_t(1));
    client.stop();
}

// A session ended while the broker had not yet answered a subscription: the library fails the
// request while the client is being destroyed, and its listener must still be there.
void TestMqttClient::destroyedWithASubscriptionInFlight()
{
    // A broker that accepts the session and then answers nothing.
    QTcpServer mute;
    QVERIFY(mute.listen(QHostAddress::LocalHost));
    std::unique_ptr<QTcpSocket> peer;
    QObject::connect(&mute, &QTcpServer::newConnection, &mute, [&] {
        peer.reset(mute.nextPendingConnection());
        QObject::connect(peer.get(), &QTcpSocket::readyRead, peer.get(), [&] {
            if (peer->readAll().startsWith('\x10')) // CONNECT: accepted, no session present
                peer->write(QByteArray("\x20\x02\x00\x00", 4));
        });
    });
    LogCapture log;
    std::atomic<int> failures{0};
    {
        MqttClientWrapper client(QStringLiteral("tcp://127.0.0.1:%1").arg(mute.serverPort()).toStdString(),
                                 "unanswered");
        client.addSubscription("rx/in", 1);
        client.setFailureHandler([&] { ++failures; });
        QVERIFY(client.start());
        QTRY_COMPARE(log.count("Subscribing to topic 'rx/in', using QoS 1"), 1);
        QVERIFY(client.is_connected());
    }
    // The listener heard the failure; nothing of the gone client did.
    QCOMPARE(log.count("Subscription failure"), 1);
    QCOMPARE(failures.load(), 0);
}

void TestMqttClient::willIsRetainedWhenTheClientDies()
{
    const QString topic = QStringLiteral("devices/will-client/state");
    QProcess helper;
    helper.start(QCoreApplication::applicationFilePath(), {QStringLiteral("--will-client"), broker.url(), topic});
    QVERIFY(helper.waitForStarted());
    QByteArray output;
    QTRY_VERIFY_WITH_TIMEOUT((output += helper.readAllStandardOutput()).contains("connected"), 15000);
    QCOMPARE(output.trimmed(), QByteArray("connected"));
    helper.kill();
    QVERIFY(helper.waitForFinished());
    // Subscribed only after the death: seeing the will proves it was retained.
    MosquittoSub sub(broker.port(), topic);
    QVERIFY(sub.waitStarted());
    QTRY_COMPARE(sub.lines(), QStringList{topic + QStringLiteral(" offline")});
}

void TestMqttClient::reconnectsUpToTheRetryLimit()
{
    Mosquitto restarting;
    QVERIFY(restarting.start());
    LogCapture log;
    std::atomic<int> lost{0}, connectedCalls{0}, patientFailures{0}, limitedFailures{0};
    MqttClientWrapper patient(restarting.url().toStdString(), "patient");
    patient.setMaxRetries(10000);
    patient.setMaxRetries(-3); // ignored
    patient.addSubscription("re/zz", 1);
    patient.addSubscription("re/aa", 1);
    patient.setConnectionLostHandler([&] { ++lost; });
    patient.setConnectedHandler([&] { ++connectedCalls; });
    patient.setFailureHandler([&] { ++patientFailures; });
    // The default limit is five attempts.
    MqttClientWrapper limited(restarting.url().toStdString(), "limited");
    limited.setFailureHandler([&] { ++limitedFailures; });
    QVERIFY(patient.start());
    QVERIFY(limited.start());
    QTRY_VERIFY(limited.is_connected());
    QTRY_COMPARE(log.count("Subscription success"), 2);

    log.clear();
    QVERIFY(restarting.stop());
    QTRY_COMPARE(lost.load(), 1);
    // Both lost the connection at once and retry on the same 2.5 s rhythm; by the time the patient
    // client has failed three times the limited one would have retried too: the limit of 10000 is
    // in force, -3 was ignored, and the default client gave up.
    QTRY_VERIFY_WITH_TIMEOUT(patientFailures.load() >= 3, 30000);
    QVERIFY(log.count("Connection attempt failed") >= 3);
    QCOMPARE(limitedFailures.load(), 1);
    QVERIFY(restarting.restart());
    QTRY_VERIFY_WITH_TIMEOUT(patient.is_connected(), 30000);
    QTRY_COMPARE(log.count("Subscription success"), 2);
    QTRY_COMPARE(connectedCalls.load(), 2);
    QVERIFY(!limited.is_connected());
    // The new socket sends small packets at once: a get's reply must not wait for a delayed ACK.
    QCOMPARE(socketsToPort(restarting.port()), std::make_pair(1, 1));

    const auto texts = log.messages();
    const int lostAt = indexOf(texts, "Connection lost");
    // Two clients lost their connection at once: their lines may interleave.
    QVERIFY(lostAt >= 0 && indexOf(texts, "Reconnecting...", lostAt) > lostAt);
}

void TestMqttClient::reconnectWaitsAfterALoss()
{
    // The promised 2.5 s from the loss to the next attempt, once, with a generous margin; the
    // broker stays down, so the attempt fails at once and its failure marks when it was made.
    Mosquitto dropping;
    QVERIFY(dropping.start());
    QElapsedTimer clock;
    clock.start();
    std::atomic<qint64> lostAt{-1}, failedAt{-1};
    MqttClientWrapper client(dropping.url().toStdString(), "pausing");
    client.setMaxRetries(10000);
    client.setConnectionLostHandler([&] { lostAt = clock.elapsed(); });
    client.setFailureHandler([&] {
        qint64 none = -1;
        failedAt.compare_exchange_strong(none, clock.elapsed());
    });
    QVERIFY(client.start());
    QTRY_VERIFY(client.is_connected());
    QVERIFY(dropping.stop());
    QTRY_VERIFY_WITH_TIMEOUT(failedAt.load() >= 0, 20000);
    const qint64 pause = failedAt.load() - lostAt.load();
    QVERIFY2(lostAt.load() >= 0 && pause >= 2450 && pause < 6000, QByteArray::number(pause));
    client.stop();
}

void TestMqttClient::connectingDoesNotRefillTheRetryBudget()
{
    // A limit of 7 allows 7 - 5 = 2 retried failures over the life of one start(), however many
    // times the client connects in between. A patient client beside it shares every loss and
    // retries on the same 2.5 s rhythm, so it tells how long to watch.
    Mosquitto flaky;
    QVERIFY(flaky.start());
    std::atomic<int> limitedFailures{0}, patientFailures{0};
    MqttClientWrapper limited(flaky.url().toStdString(), "budget-7");
    limited.setMaxRetries(7);
    limited.setFailureHandler([&] { ++limitedFailures; });
    MqttClientWrapper patient(flaky.url().toStdString(), "budget-10000");
    patient.setMaxRetries(10000);
    patient.setFailureHandler([&] { ++patientFailures; });
    QVERIFY(limited.start());
    QVERIFY(patient.start());
    QTRY_VERIFY(limited.is_connected() && patient.is_connected());

    // First loss: one failed attempt, retried 2.5 s later against the broker that is back by then.
    QVERIFY(flaky.stop());
    QTRY_VERIFY_WITH_TIMEOUT(limitedFailures.load() == 1, 20000);
    QVERIFY(flaky.restart());
    QTRY_VERIFY_WITH_TIMEOUT(limited.is_connected() && patient.is_connected(), 20000);
    QCOMPARE(limitedFailures.load(), 1);

    // Second loss: one retry is left, so two more failures and then no attempt. Had the
    // connection refilled the budget, a third would come 2.5 s before the patient's fourth.
    const int patientBefore = patientFailures.load();
    QVERIFY(flaky.stop());
    QTRY_VERIFY_WITH_TIMEOUT(patientFailures.load() - patientBefore >= 4, 40000);
    QCOMPARE(limitedFailures.load(), 3);
    limited.stop();
    patient.stop();
}

int main(int argc, char *argv[])
{
    if (argc == 4 && std::string(argv[1]) == "--will-client")
        return runWillClient(argv[2], argv[3]);
    QCoreApplication app(argc, argv);
    TestMqttClient test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_mqttclient.moc"
