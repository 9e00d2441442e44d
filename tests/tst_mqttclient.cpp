#include "cloudmaterial/protocol/mqttclientwrapper.h"
#include "support/logcapture.h"
#include "support/mosquittofixture.h"

#include <QCoreApplication>
#include <QProcess>
#include <QTest>
#include <QThread>

#include <atomic>
#include <cstdio>
#include <dirent.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <memory>
#include <mutex>
#include <thread>
#include <unistd.h>

using talvor::cloudmaterial::MqttClientWrapper;

namespace {

// The log text without the location suffix the module's logger adds.
std::string message(const LogCapture::Line &line)
{
    const auto cut = line.text.find(" \n //");
    return line.text.substr(0, cut);
}

std::vector<std::string> messages(const LogCapture &log)
{
    std::vector<std::string> texts;
    for (const auto &line : log.lines())
        texts.push_back(message(line));
    return texts;
}

int count(const LogCapture &log, const std::string &text)
{
    const auto texts = messages(log);
    return int(std::count(texts.begin(), texts.end(), text));
}

// Index of the first line equal to text at or after from, or -1.
int indexOf(const std::vector<std::string> &texts, const std::string &text, int from = 0)
{
    for (int i = from; i < int(texts.size()); ++i)
        if (texts[size_t(i)] == text)
            return i;
    return -1;
}

struct Received
{
    std::mutex mutex;
    std::vector<std::pair<std::string, std::string>> messages;
    std::vector<std::thread::id> threads;

    void add(const std::string &topic, const std::string &payload)
    {
        std::lock_guard lock(mutex);
        messages.emplace_back(topic, payload);
        threads.push_back(std::this_thread::get_id());
    }
    bool contains(const std::string &topic, const std::string &payload)
    {
        std::lock_guard lock(mutex);
        return std::find(messages.begin(), messages.end(), std::make_pair(topic, payload)) != messages.end();
    }
    size_t size()
    {
        std::lock_guard lock(mutex);
        return messages.size();
    }
};

// How this process's TCP connections to @p port stand: {total, with TCP_NODELAY}.
std::pair<int, int> socketsToPort(int port)
{
    std::pair<int, int> found{0, 0};
    DIR *fds = opendir("/proc/self/fd");
    while (const dirent *entry = fds ? readdir(fds) : nullptr) {
        const int fd = std::atoi(entry->d_name);
        sockaddr_in peer{};
        socklen_t length = sizeof peer;
        if (fd <= 0 || getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &length) != 0
            || peer.sin_family != AF_INET || ntohs(peer.sin_port) != port)
            continue;
        int on = 0;
        socklen_t size = sizeof on;
        ++found.first;
        if (getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, &size) == 0 && on)
            ++found.second;
    }
    if (fds)
        closedir(fds);
    return found;
}

// Publishes through a client no one here wrote.
bool mosquittoPub(int port, const QString &topic, const QString &payload, int qos = 1)
{
    QProcess pub;
    pub.start(findMosquittoProgram(QStringLiteral("mosquitto_pub")),
              {QStringLiteral("-h"), QStringLiteral("127.0.0.1"), QStringLiteral("-p"), QString::number(port),
               QStringLiteral("-q"), QString::number(qos), QStringLiteral("-t"), topic, QStringLiteral("-m"), payload});
    return pub.waitForFinished(10000) && pub.exitStatus() == QProcess::NormalExit && pub.exitCode() == 0;
}

// The will test's client: connects with a will, says so, then dies without a DISCONNECT.
int runWillClient(const std::string &url, const std::string &topic)
{
    MqttClientWrapper client(url, "will-client");
    client.setWill(topic, "offline", 2);
    if (!client.start())
        return 2;
    for (int i = 0; i < 500 && !client.is_connected(); ++i)
        QThread::msleep(10);
    if (!client.is_connected())
        return 3;
    std::puts("connected");
    std::fflush(stdout);
    for (;;)
        pause(); // the test kills this process
}

} // namespace

class TestMqttClient : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void connectsSubscribesInTopicOrderAndReceives();
    void publishReachesOtherClients_data();
    void publishReachesOtherClients();
    void publishWhileDisconnected();
    void publishErrorIsLogged();
    void sslConnectsWithoutVerifying();
    void willIsRetainedWhenTheClientDies();
    void reconnectsAfterBrokerRestart();
    void limitOfFiveGivesUp();
    void stopDisconnects();
    void stopWithoutConnection();
    void connectFailureCallsHandler();

private:
    Mosquitto broker;
};

void TestMqttClient::initTestCase()
{
    QVERIFY2(!findMosquittoProgram(QStringLiteral("mosquitto")).isEmpty(), "mosquitto is not installed");
    QVERIFY2(!findMosquittoProgram(QStringLiteral("mosquitto_sub")).isEmpty(), "mosquitto_sub is not installed");
    QVERIFY(broker.start());
}

void TestMqttClient::connectsSubscribesInTopicOrderAndReceives()
{
    LogCapture log;
    Received received;
    std::atomic<int> connectedCalls{0};
    {
        MqttClientWrapper client(broker.url().toStdString(), "subscriber");
        // Added out of order: the broker must be asked in topic order.
        client.addSubscription("rx/zeta", 2);
        client.addSubscription("rx/alpha", 1);
        client.addSubscription("rx/mid/#", 0);
        client.setMessageHandler([&](const std::string &topic, const std::string &payload) {
            received.add(topic, payload);
        });
        client.setConnectedHandler([&] { ++connectedCalls; });
        client.setMessageHandler({}); // an empty handler leaves the one set before

        QVERIFY(client.start());
        QTRY_VERIFY(client.is_connected());
        QTRY_COMPARE(count(log, "Subscription success"), 3);
        QTRY_COMPARE(connectedCalls.load(), 1);

        const auto texts = messages(log);
        const int connecting = indexOf(texts, "Connecting to the MQTT server...");
        const int success = indexOf(texts, "Connection success");
        const int alpha = indexOf(texts, "Subscribing to topic 'rx/alpha', using QoS 1");
        const int mid = indexOf(texts, "Subscribing to topic 'rx/mid/#', using QoS 0");
        const int zeta = indexOf(texts, "Subscribing to topic 'rx/zeta', using QoS 2");
        QVERIFY(connecting >= 0);
        QVERIFY(success > connecting);
        QVERIFY(alpha > success);
        QVERIFY(mid > alpha);
        QVERIFY(zeta > mid);

        // The location suffix names this wrapper's files and functions.
        const auto lines = log.lines();
        QVERIFY(lines[size_t(connecting)].text.find(" \n //mqttclientwrapper:start()#") != std::string::npos);
        QVERIFY(lines[size_t(success)].text.find(" \n //callback:connected()#") != std::string::npos);
        QVERIFY(lines[size_t(success)].level == spdlog::level::info);

        QVERIFY(mosquittoPub(broker.port(), QStringLiteral("rx/alpha"), QStringLiteral("first")));
        QVERIFY(mosquittoPub(broker.port(), QStringLiteral("rx/mid/deep"), QStringLiteral("second")));
        QVERIFY(mosquittoPub(broker.port(), QStringLiteral("rx/other"), QStringLiteral("not for us")));
        QVERIFY(mosquittoPub(broker.port(), QStringLiteral("rx/zeta"), QStringLiteral("third")));
        QTRY_COMPARE(received.size(), size_t(3));
        QVERIFY(received.contains("rx/alpha", "first"));
        QVERIFY(received.contains("rx/mid/deep", "second"));
        QVERIFY(received.contains("rx/zeta", "third"));
        QVERIFY(!received.contains("rx/other", "not for us"));
        // The handler runs on the library's thread, never on the Qt thread.
        for (const auto &id : received.threads)
            QVERIFY(id != std::this_thread::get_id());

        const auto after = messages(log);
        const int arrived = indexOf(after, "Message arrived");
        QVERIFY(arrived >= 0);
        QCOMPARE(after[size_t(arrived + 1)], std::string("topic: 'rx/alpha'"));
        QCOMPARE(after[size_t(arrived + 2)], std::string("msg: 'first'"));
        client.stop();
    }
}

void TestMqttClient::publishReachesOtherClients_data()
{
    QTest::addColumn<int>("qos");
    QTest::newRow("qos 0") << 0;
    QTest::newRow("qos 1") << 1;
    QTest::newRow("qos 2") << 2;
}

void TestMqttClient::publishReachesOtherClients()
{
    QFETCH(int, qos);
    MosquittoSub sub(broker.port(), QStringLiteral("out/#"));
    QVERIFY(sub.waitStarted());

    MqttClientWrapper client(broker.url().toStdString(), "publisher");
    client.setWaitTimeoutSeconds(5);
    QVERIFY(client.start());
    QTRY_VERIFY(client.is_connected());
    const std::string topic = "out/q" + std::to_string(qos);
    const std::string payload = "payload at qos " + std::to_string(qos);
    QVERIFY(client.publish(topic, payload, qos));
    QTRY_VERIFY(sub.lines().contains(QString::fromStdString(topic + " " + payload)));
    client.stop();
}

void TestMqttClient::publishWhileDisconnected()
{
    LogCapture log;
    MosquittoSub sub(broker.port(), QStringLiteral("idle/#"));
    QVERIFY(sub.waitStarted());

    MqttClientWrapper client(broker.url().toStdString(), "idle");
    client.setWaitTimeoutSeconds(5);
    QVERIFY(!client.publish("idle/early", "never sent", 1));
    const auto lines = log.lines();
    QCOMPARE(lines.size(), size_t(1));
    QCOMPARE(message(lines[0]), std::string("MQTT is disconnected!!!"));
    QCOMPARE(lines[0].level, spdlog::level::info);
    QVERIFY(lines[0].text.find("//mqttclientwrapper:publish()#") != std::string::npos);

    // Nothing was queued in the library: once connected, only the later message arrives.
    QVERIFY(client.start());
    QTRY_VERIFY(client.is_connected());
    QVERIFY(client.publish("idle/late", "sent", 1));
    QTRY_VERIFY(sub.lines().contains(QStringLiteral("idle/late sent")));
    QCOMPARE(sub.lines(), QStringList{QStringLiteral("idle/late sent")});
    client.stop();
}

void TestMqttClient::publishErrorIsLogged()
{
    MqttClientWrapper client(broker.url().toStdString(), "bad-publisher");
    QVERIFY(client.start());
    QTRY_VERIFY(client.is_connected());
    LogCapture log;
    // QoS 3 does not exist; the library refuses it and no exception may escape.
    QVERIFY(!client.publish("bad/qos", "body", 3));
    const auto errors = log.lines();
    QCOMPARE(errors.size(), size_t(1));
    QCOMPARE(message(errors[0]), std::string("public msg error, topic: bad/qos, msg: body, qos:3"));
    QCOMPARE(errors[0].level, spdlog::level::err);
    client.stop();
}

void TestMqttClient::sslConnectsWithoutVerifying()
{
    Mosquitto tlsBroker;
    QVERIFY(tlsBroker.start({true}));
    MosquittoSub sub(tlsBroker.port(), QStringLiteral("secure/#"));
    QVERIFY(sub.waitStarted());

    MqttClientWrapper client(tlsBroker.sslUrl().toStdString(), "tls-client");
    client.setWaitTimeoutSeconds(5);
    QVERIFY(client.start());
    QTRY_VERIFY(client.is_connected());
    QVERIFY(client.publish("secure/hello", "over tls", 1));
    QTRY_VERIFY(sub.lines().contains(QStringLiteral("secure/hello over tls")));
    client.stop();

    // The TLS listener really speaks TLS: a plain connect to it never comes up.
    LogCapture log;
    std::atomic<int> failures{0};
    MqttClientWrapper plain(QStringLiteral("tcp://127.0.0.1:%1").arg(tlsBroker.tlsPort()).toStdString(), "plain");
    plain.setFailureHandler([&] { ++failures; });
    QVERIFY(plain.start());
    QTRY_VERIFY(failures.load() >= 1);
    QVERIFY(!plain.is_connected());
}

void TestMqttClient::willIsRetainedWhenTheClientDies()
{
    const QString topic = QStringLiteral("devices/will-client/state");
    QProcess helper;
    helper.start(QCoreApplication::applicationFilePath(),
                 {QStringLiteral("--will-client"), broker.url(), topic});
    QVERIFY(helper.waitForStarted());
    QByteArray output;
    QTRY_VERIFY_WITH_TIMEOUT((output += helper.readAllStandardOutput()).contains("connected")
                                 || helper.state() == QProcess::NotRunning, 15000);
    QVERIFY2(helper.state() == QProcess::Running, output.constData());
    helper.kill();
    QVERIFY(helper.waitForFinished());

    // Subscribed only after the death: seeing the will proves it was retained.
    MosquittoSub sub(broker.port(), topic);
    QVERIFY(sub.waitStarted());
    QTRY_VERIFY(sub.lines().contains(topic + QStringLiteral(" offline")));
}

void TestMqttClient::reconnectsAfterBrokerRestart()
{
    Mosquitto restarting;
    QVERIFY(restarting.start());
    LogCapture log;
    Received received;
    std::atomic<int> lost{0};
    std::atomic<int> connectedCalls{0};
    MqttClientWrapper client(restarting.url().toStdString(), "survivor");
    client.setMaxRetries(10000);
    client.setMaxRetries(-3); // ignored
    client.addSubscription("re/zz", 1);
    client.addSubscription("re/aa", 1);
    client.setMessageHandler([&](const std::string &topic, const std::string &payload) { received.add(topic, payload); });
    client.setConnectionLostHandler([&] { ++lost; });
    client.setConnectedHandler([&] { ++connectedCalls; });
    QVERIFY(client.start());
    QTRY_COMPARE(count(log, "Subscription success"), 2);

    log.clear();
    QVERIFY(restarting.stop());
    QTRY_COMPARE(lost.load(), 1);
    QVERIFY(!client.is_connected());
    // Several attempts fail while the broker is away: more than the five the default allows
    // would not reach, so the limit of 10000 is in force and -3 was ignored.
    QTRY_VERIFY_WITH_TIMEOUT(count(log, "Connection attempt failed") >= 2, 30000);
    QVERIFY(restarting.restart());
    QTRY_VERIFY_WITH_TIMEOUT(client.is_connected(), 30000);
    QTRY_COMPARE(count(log, "Subscription success"), 2);
    QTRY_COMPARE(connectedCalls.load(), 2);
    // The new connection's small packets go out at once too: a get reply would otherwise wait
    // for the broker's delayed ACK.
    QCOMPARE(socketsToPort(restarting.port()), std::make_pair(1, 1));

    const auto texts = messages(log);
    const int lostAt = indexOf(texts, "Connection lost");
    QVERIFY(lostAt >= 0);
    QCOMPARE(texts[size_t(lostAt + 1)].rfind("\tcause: ", 0) == 0 ? texts[size_t(lostAt + 2)] : texts[size_t(lostAt + 1)],
             std::string("Reconnecting..."));
    const int success = indexOf(texts, "Connection success", lostAt);
    QVERIFY(success > lostAt);
    const int aa = indexOf(texts, "Subscribing to topic 're/aa', using QoS 1", success);
    const int zz = indexOf(texts, "Subscribing to topic 're/zz', using QoS 1", success);
    QVERIFY(aa > success);
    QVERIFY(zz > aa);

    QVERIFY(mosquittoPub(restarting.port(), QStringLiteral("re/aa"), QStringLiteral("back again")));
    QTRY_VERIFY(received.contains("re/aa", "back again"));
    client.stop();
}

void TestMqttClient::limitOfFiveGivesUp()
{
    Mosquitto refusing;
    QVERIFY(refusing.start());
    std::atomic<int> limitedFailures{0};
    std::atomic<int> patientFailures{0};
    MqttClientWrapper limited(refusing.url().toStdString(), "limited");
    limited.setFailureHandler([&] { ++limitedFailures; });
    MqttClientWrapper patient(refusing.url().toStdString(), "patient");
    patient.setMaxRetries(10000);
    patient.setFailureHandler([&] { ++patientFailures; });
    QVERIFY(limited.start());
    QVERIFY(patient.start());
    QTRY_VERIFY(limited.is_connected() && patient.is_connected());

    QVERIFY(refusing.stop());
    // Both lost the connection at the same moment and retry on the same 2.5 s rhythm; by the
    // time the patient client has failed three times the limited one would have retried too.
    QTRY_VERIFY_WITH_TIMEOUT(patientFailures.load() >= 3, 30000);
    QCOMPARE(limitedFailures.load(), 1);

    QVERIFY(refusing.restart());
    QTRY_VERIFY_WITH_TIMEOUT(patient.is_connected(), 30000);
    QVERIFY(!limited.is_connected());
    QCOMPARE(limitedFailures.load(), 1);

    // Only a new start brings it back.
    QVERIFY(limited.start());
    QTRY_VERIFY(limited.is_connected());
    limited.stop();
    patient.stop();
}

void TestMqttClient::stopDisconnects()
{
    MqttClientWrapper client(broker.url().toStdString(), "stopper");
    QVERIFY(client.start());
    QTRY_VERIFY(client.is_connected());
    LogCapture log;
    client.stop();
    QVERIFY(!client.is_connected());
    QCOMPARE(messages(log), (std::vector<std::string>{"Disconnecting from the MQTT server...", "OK"}));
    // A stopped client may start again.
    QVERIFY(client.start());
    QTRY_VERIFY(client.is_connected());
    client.stop();
}

void TestMqttClient::stopWithoutConnection()
{
    LogCapture log;
    MqttClientWrapper client(broker.url().toStdString(), "never-started");
    client.stop();
    const auto lines = log.lines();
    QCOMPARE(lines.size(), size_t(2));
    QCOMPARE(message(lines[0]), std::string("Disconnecting from the MQTT server..."));
    QVERIFY(message(lines[1]).rfind("stop exception: ", 0) == 0);
    QVERIFY(message(lines[1]).size() > std::string("stop exception: ").size());
    QCOMPARE(lines[1].level, spdlog::level::err);
}

void TestMqttClient::connectFailureCallsHandler()
{
    // A port nobody listens on: the broker was stopped, so the connect is refused.
    Mosquitto gone;
    QVERIFY(gone.start());
    const std::string url = gone.url().toStdString();
    QVERIFY(gone.stop());

    LogCapture log;
    std::atomic<int> failures{0};
    MqttClientWrapper client(url, "refused");
    client.setFailureHandler([&] { ++failures; });
    QVERIFY(client.start()); // the connect was issued; its failure is reported later
    QTRY_COMPARE(failures.load(), 1);
    QVERIFY(!client.is_connected());
    QTRY_COMPARE(count(log, "Connection attempt failed"), 1);
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
