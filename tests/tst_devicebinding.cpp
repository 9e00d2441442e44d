// Tests of the device binding against a real broker: the bind sequence, the cloud's replies and
// requests, the volume rule, unknown topics, the unbinding follow-up and a broker restart.

#include "cloudmaterial/devicebinding/devicebinding.h"
#include "cloudmaterial/devicebinding/devicebindingcontroller.h"
#include "cloudmaterial/devicebinding/deviceinformation.h"
#include "cloudmaterial/devicebinding/devicetopics.h"
#include "support/logcapture.h"
#include "support/mosquittofixture.h"

#include <mqtt/async_client.h>

#include <QElapsedTimer>
#include <QFile>
#include <QRegularExpression>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSignalSpy>
#include <QTcpServer>
#include <QUuid>
#include <QtTest>

#include <memory>
#include <mutex>
#include <thread>
#include <vector>

using namespace talvor::cloudmaterial;
namespace t = talvor::cloudmaterial::devicetopics;

namespace {

const std::string ModelId = "M1";

/** A second MQTT client that plays the cloud: sees every device message with its QoS. */
class CloudClient
{
public:
    struct Message
    {
        std::string topic;
        std::string payload;
        int qos;
        bool retained;
    };

    explicit CloudClient(const QString &url)
        : m_client(url.toStdString(), QUuid::createUuid().toString(QUuid::WithoutBraces).toStdString())
    {
        m_client.set_message_callback([this](mqtt::const_message_ptr msg) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_messages.push_back({msg->get_topic(), msg->to_string(), msg->get_qos(), msg->is_retained()});
        });
    }

    ~CloudClient()
    {
        try {
            if (m_client.is_connected())
                m_client.disconnect()->wait_for(std::chrono::seconds(2));
        } catch (const mqtt::exception &) {
        }
    }

    bool start()
    {
        try {
            m_client.connect(mqtt::connect_options_builder().clean_session(true).finalize())->wait();
            m_client.subscribe("orbicloud/#", 2)->wait();
            return true;
        } catch (const mqtt::exception &e) {
            qWarning() << e.what();
            return false;
        }
    }

    void publish(const std::string &topic, const std::string &payload, int qos = 2)
    {
        m_client.publish(topic, payload.data(), payload.size(), qos, false)->wait();
    }

    std::vector<Message> on(const std::string &topic) const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<Message> found;
        for (const Message &m : m_messages) {
            if (m.topic == topic)
                found.push_back(m);
        }
        return found;
    }

    /** Topics of what device @p sn published, in arrival order. */
    std::vector<std::string> topicsFor(const std::string &sn) const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<std::string> topics;
        for (const Message &m : m_messages) {
            if (m.topic.rfind("orbicloud/upstream/", 0) == 0 && m.topic.find("/" + sn + "/") != std::string::npos)
                topics.push_back(m.topic);
        }
        return topics;
    }

private:
    mqtt::async_client m_client;
    mutable std::mutex m_mutex;
    std::vector<Message> m_messages;
};

const QJsonObject json(const std::string &payload)
{
    return QJsonDocument::fromJson(QByteArray::fromStdString(payload)).object();
}

// The keys appear in this order in the text (searched one after the other) and the object holds
// exactly these keys.
bool hasKeysInOrder(const std::string &text, const QJsonObject &object, const QStringList &keys)
{
    std::size_t pos = 0;
    for (const QString &key : keys) {
        pos = text.find("\"" + key.toStdString() + "\":", pos);
        if (pos == std::string::npos)
            return false;
    }
    QStringList sorted = keys;
    sorted.sort();
    return object.keys() == sorted;
}

int logCount(const LogCapture &log, const std::string &text)
{
    int count = 0;
    for (const auto &line : log.lines()) {
        // Every line carries the source-location suffix after the promised text.
        if (line.text.rfind(text + " \n //", 0) == 0)
            ++count;
    }
    return count;
}

std::string freshSn()
{
    return "S" + QUuid::createUuid().toString(QUuid::Id128).left(10).toStdString();
}

quint16 closedPort()
{
    QTcpServer server;
    if (!server.listen(QHostAddress::LocalHost, 0))
        return 0;
    return server.serverPort();
}

} // namespace

class TestDeviceBinding : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void init();
    void cleanup();

    void bindPublishesOnlineThenBindingRequest();
    void bindingReplyBindsAndReports();
    void getRequestsAreAnsweredAtQos0();
    void volumeIsReportedOnlyWhenChangedUntilStopped();
    void unknownTopicIsOnlyLogged();
    void bindingReplyWhileDisconnected();
    void bindWithoutBrokerLogsEachStep();
    void unbindingConfirmsThenLogsOut();
    void brokerRestartReportsOnlineAgain();

private:
    void configure(DeviceBindingController &controller, const QString &url);
    /** Binds through the broker: bind(), the cloud's reply, bound. */
    bool bindAndReply(DeviceBindingController &controller, DeviceBinding &binding);

    /** Waits until the broker has acknowledged all five of the device's subscriptions. */
    bool waitSubscribed();

    Mosquitto m_broker;
    std::unique_ptr<CloudClient> m_cloud;
    std::string m_sn;
    std::string m_clientId;
};

void TestDeviceBinding::initTestCase()
{
    QVERIFY(m_broker.start());
}

void TestDeviceBinding::cleanupTestCase()
{
    m_broker.stop();
}

void TestDeviceBinding::init()
{
    // Every test is its own device, so nothing another test left on the broker can match.
    m_sn = freshSn();
    m_cloud = std::make_unique<CloudClient>(m_broker.url());
    QVERIFY(m_cloud->start());
}

void TestDeviceBinding::cleanup()
{
    m_cloud.reset();
}

void TestDeviceBinding::configure(DeviceBindingController &controller, const QString &url)
{
    controller.setModelId(ModelId);
    controller.setSn(m_sn);
    controller.setServerUri(url.toStdString());
    m_clientId = QUuid::createUuid().toString().toStdString();
    controller.setClientId(m_clientId);
    controller.setUserName("mqtt-user");
    controller.setPassword("mqtt-pass");
    controller.setDeviceName("Hall player");
    controller.setCustomDeviceName("Front desk");
    controller.setSoftwareMainVersion("5.2.1");
}

bool TestDeviceBinding::waitSubscribed()
{
    // The device subscribes from the library's thread; the broker's own log tells when it is done.
    const QByteArray ack = "Sending SUBACK to " + QByteArray::fromStdString(m_clientId);
    return QTest::qWaitFor(
        [&] {
            QFile file(m_broker.logFile());
            return file.open(QIODevice::ReadOnly) && file.readAll().count(ack) >= 5;
        },
        10000);
}

bool TestDeviceBinding::bindAndReply(DeviceBindingController &controller, DeviceBinding &binding)
{
    if (!binding.bind() || !waitSubscribed())
        return false;
    m_cloud->publish(t::topic(t::downstreamReply, ModelId, m_sn, t::binding), R"({"header":{"content":"binding"}})");
    return QTest::qWaitFor([&] { return controller.isBound(); }, 10000)
        && QTest::qWaitFor([&] { return m_cloud->on(t::topic(t::upstreamReport, ModelId, m_sn, t::basic)).size() == 1; },
                           10000);
}

void TestDeviceBinding::bindPublishesOnlineThenBindingRequest()
{
    MosquittoSub sub(m_broker.port(), QStringLiteral("orbicloud/#"));
    QVERIFY(sub.waitStarted());

    DeviceBindingController controller;
    DeviceBinding binding(&controller);
    configure(controller, QString());
    // The binding entry hands over the session's connection details.
    binding.setBrokerUrl(m_broker.url().toStdString());
    binding.setSerialNumber(m_sn);
    binding.setProductCode(ModelId);
    binding.setClientId(QUuid::createUuid().toString().toStdString());
    LogCapture log;
    QVERIFY(binding.bind());
    QCOMPARE(logCount(log, "start MQTT fail!"), 0);
    QCOMPARE(logCount(log, "reportOnline error"), 0);

    const std::string onlineTopic = "orbicloud/upstream/report/" + ModelId + "/" + m_sn + "/device/online";
    const std::string bindingTopic = "orbicloud/upstream/post/" + ModelId + "/" + m_sn + "/binding/cirro";
    QTRY_COMPARE(m_cloud->topicsFor(m_sn), (std::vector<std::string>{onlineTopic, bindingTopic}));
    // An outside subscriber sees the same two messages in the same order.
    QTRY_COMPARE(sub.lines().size(), 2);
    QVERIFY(sub.lines().at(0).startsWith(QString::fromStdString(onlineTopic + " {")));
    QVERIFY(sub.lines().at(1).startsWith(QString::fromStdString(bindingTopic + " {")));

    const auto online = m_cloud->on(onlineTopic).at(0);
    QCOMPARE(online.qos, 2);
    QVERIFY(!online.retained);
    const QJsonObject onlineJson = json(online.payload);
    QVERIFY(hasKeysInOrder(online.payload, onlineJson, {"header", "body"}));
    QVERIFY(hasKeysInOrder(online.payload, onlineJson["header"].toObject(), {"content", "requestId", "version"}));
    QVERIFY(hasKeysInOrder(online.payload, onlineJson["body"].toObject(), {"type", "platform"}));
    QCOMPARE(onlineJson["header"]["content"].toString(), QStringLiteral("online"));
    QCOMPARE(onlineJson["header"]["version"].toString(), QStringLiteral("1.0"));
    QVERIFY(!QUuid::fromString(onlineJson["header"]["requestId"].toString()).isNull());
    QCOMPARE(onlineJson["body"]["type"].toString(), QStringLiteral("online"));
    QCOMPARE(onlineJson["body"]["platform"].toString(), QStringLiteral("Linux"));

    const auto request = m_cloud->on(bindingTopic).at(0);
    QCOMPARE(request.qos, 2);
    const QJsonObject requestJson = json(request.payload);
    const QJsonObject body = requestJson["body"].toObject();
    QVERIFY(hasKeysInOrder(request.payload, body,
                           {"username", "password", "passwordEncType", "mac", "sn", "modelId", "deviceName",
                            "customDeviceName", "source"}));
    QCOMPARE(requestJson["header"]["content"].toString(), QStringLiteral("binding"));
    QVERIFY(requestJson["header"]["requestId"].toString() != onlineJson["header"]["requestId"].toString());
    const QString mac = QString::fromStdString(localMacAddress()), sn = QString::fromStdString(m_sn);
    QCOMPARE(body, (QJsonObject{{"username", "mqtt-user"}, {"password", "mqtt-pass"}, {"passwordEncType", 0},
                                {"mac", mac}, {"sn", sn}, {"modelId", QString::fromStdString(ModelId)},
                                {"deviceName", "Hall player"}, {"customDeviceName", "Front desk"}, {"source", 1}}));
    QVERIFY(!controller.isBound());

    // The broker took the offline will: retained, QoS 2, on the device's offline topic.
    QFile brokerLog(m_broker.logFile());
    QVERIFY(brokerLog.open(QIODevice::ReadOnly));
    const QString willPattern = QStringLiteral(R"(Will message specified \(\d+ bytes\) \(r1, q2\)\.\n\d+: \t%1\n)")
                                    .arg(QRegularExpression::escape(QString::fromStdString(
                                        "orbicloud/upstream/report/" + ModelId + "/" + m_sn + "/device/offline")));
    QVERIFY(QRegularExpression(willPattern).match(QString::fromUtf8(brokerLog.readAll())).hasMatch());
    controller.clear();
}

void TestDeviceBinding::bindingReplyBindsAndReports()
{
    DeviceBindingController controller;
    DeviceBinding binding(&controller);
    configure(controller, m_broker.url());
    QVERIFY(binding.bind());
    QVERIFY(waitSubscribed());
    QVERIFY(!controller.isBound());

    LogCapture log;
    const std::string reply = R"({"header":{"content":"binding","requestId":"x"},"body":{"dummy":""}})";
    m_cloud->publish(t::topic(t::downstreamReply, ModelId, m_sn, t::binding), reply);
    QTRY_VERIFY(controller.isBound());
    QCOMPARE(logCount(log, "binding reply: " + reply), 1);

    const std::string onlineTopic = t::topic(t::upstreamReport, ModelId, m_sn, t::online);
    const std::string basicTopic = t::topic(t::upstreamReport, ModelId, m_sn, t::basic);
    QTRY_COMPARE(m_cloud->on(basicTopic).size(), std::size_t(1));
    // Online again, then the basic report, after the binding request.
    const auto topics = m_cloud->topicsFor(m_sn);
    QCOMPARE(topics.size(), std::size_t(4));
    QCOMPARE(topics[2], onlineTopic);
    QCOMPARE(topics[3], basicTopic);

    const auto basic = m_cloud->on(basicTopic).at(0);
    QCOMPARE(basic.qos, 2);
    const QJsonObject basicJson = json(basic.payload);
    const QJsonObject body = basicJson["body"].toObject();
    QVERIFY(hasKeysInOrder(basic.payload, body,
                           {"brand", "series", "deviceName", "productName", "customDeviceName", "modelId", "sn",
                            "mac", "localIp", "platformSystem", "softwareMainVersion"}));
    QCOMPARE(basicJson["header"]["content"].toString(), QStringLiteral("basic"));
    QCOMPARE(body, (QJsonObject{{"brand", "orbi"}, {"series", "RM"}, {"deviceName", "Hall player"},
                                {"productName", "Talvor RM5"}, {"customDeviceName", "Front desk"},
                                {"modelId", QString::fromStdString(ModelId)}, {"sn", QString::fromStdString(m_sn)},
                                {"mac", QString::fromStdString(localMacAddress())},
                                {"localIp", QString::fromStdString(localIpAddress())}, {"platformSystem", "Linux"},
                                {"softwareMainVersion", "5.2.1"}}));
    QCOMPARE(logCount(log, "reportOnline error"), 0);
    QCOMPARE(logCount(log, "reportBasicInfo error"), 0);
    controller.clear();
}

void TestDeviceBinding::getRequestsAreAnsweredAtQos0()
{
    DeviceBindingController controller;
    configure(controller, m_broker.url());
    controller.setVolume(37);
    QVERIFY(controller.startMqtt());
    QVERIFY(waitSubscribed());
    LogCapture log;

    // Each request is logged as promised ("get storage :" with its blank) and answered at QoS 0:
    // the cloud subscribed at QoS 2, so a QoS 0 arrival means the device published at 0.
    const struct
    {
        std::string_view path;
        const char *content, *log;
    } gets[] = {{t::basic, "basic", "get basic: "}, {t::storage, "storage", "get storage : "},
                {t::volume, "volume", "get volume: "}};
    for (const auto &get : gets) {
        const std::string request = std::string(R"({"header":{"content":")") + get.content + R"(","requestId":"req-)"
                                    + get.content + R"(","version":"1.0"},"body":{}})";
        m_cloud->publish(t::topic(t::downstreamGet, ModelId, m_sn, get.path), request);
        const std::string reply = "orbicloud/upstream/reply/" + ModelId + "/" + m_sn + std::string(get.path);
        QTRY_COMPARE(m_cloud->on(reply).size(), std::size_t(1));
        QCOMPARE(logCount(log, get.log + request), 1);
        QCOMPARE(m_cloud->on(reply).at(0).qos, 0);
        QCOMPARE(json(m_cloud->on(reply).at(0).payload)["header"]["requestId"].toString(),
                 QStringLiteral("req-") + QLatin1String(get.content));
    }
    const std::string volumeTopic = t::topic(t::upstreamReply, ModelId, m_sn, t::volume);
    const auto basic = m_cloud->on(t::topic(t::upstreamReply, ModelId, m_sn, t::basic)).at(0);
    QCOMPARE(json(basic.payload)["body"]["brand"].toString(), QStringLiteral("orbi"));
    QCOMPARE(json(basic.payload)["body"].toObject().size(), 11);

    const auto storage = m_cloud->on(t::topic(t::upstreamReply, ModelId, m_sn, t::storage)).at(0);
    const QJsonObject storageBody = json(storage.payload)["body"].toObject();
    QVERIFY(hasKeysInOrder(storage.payload, storageBody, {"capability", "used", "storage"}));
    const QJsonArray disks = storageBody["storage"].toArray();
    const auto expected = diskList();
    QCOMPARE(std::size_t(disks.size()), expected.size());
    QVERIFY(!disks.isEmpty());
    qint64 capability = 0;
    qint64 used = 0;
    for (int i = 0; i < disks.size(); ++i) {
        const QJsonObject disk = disks[i].toObject();
        QCOMPARE(disk.keys(), (QStringList{"capability", "diskName", "name", "type", "used"}));
        QCOMPARE(disk["diskName"].toString(), QString::fromStdString(expected[i].diskName));
        QCOMPARE(disk["type"].toString(), QString::fromStdString(expected[i].type));
        capability += disk["capability"].toVariant().toLongLong();
        used += disk["used"].toVariant().toLongLong();
    }
    QCOMPARE(storageBody["capability"].toVariant().toLongLong(), capability);
    QCOMPARE(storageBody["used"].toVariant().toLongLong(), used);

    const auto volume = m_cloud->on(volumeTopic).at(0);
    QCOMPARE(json(volume.payload)["header"]["content"].toString(), QStringLiteral("volume"));
    QCOMPARE(json(volume.payload)["body"]["value"].toInt(), 37);

    // A request without a header still gets an answer, under an id of its own.
    m_cloud->publish(t::topic(t::downstreamGet, ModelId, m_sn, t::volume), "garbage");
    QTRY_COMPARE(m_cloud->on(volumeTopic).size(), std::size_t(2));
    QVERIFY(!QUuid::fromString(json(m_cloud->on(volumeTopic).at(1).payload)["header"]["requestId"].toString()).isNull());
    controller.clear();
}

void TestDeviceBinding::volumeIsReportedOnlyWhenChangedUntilStopped()
{
    DeviceBindingController controller;
    DeviceBinding binding(&controller);
    configure(controller, m_broker.url());
    LogCapture log;
    // Not bound yet: nothing goes out, nothing is said.
    controller.setVolume(10);
    QVERIFY(!controller.reportVolumeInfo());
    QVERIFY(bindAndReply(controller, binding));
    QCOMPARE(logCount(log, "VolumeInfoJson is not changed"), 0);

    controller.setVolume(40);
    QVERIFY(controller.reportVolumeInfo());
    controller.setVolume(40);
    QVERIFY(!controller.reportVolumeInfo());
    QCOMPARE(logCount(log, "VolumeInfoJson is not changed"), 1);
    controller.setVolume(41);
    QVERIFY(controller.reportVolumeInfo());
    QCOMPARE(logCount(log, "VolumeInfoJson is not changed"), 1);

    const std::string volumeTopic = t::topic(t::upstreamReport, ModelId, m_sn, t::volume);
    QTRY_COMPARE(m_cloud->on(volumeTopic).size(), std::size_t(2));
    // The broker keeps one client's order: had 40 gone out twice it would sit before 41.
    const auto reports = m_cloud->on(volumeTopic);
    QCOMPARE(json(reports[0].payload)["body"]["value"].toInt(), 40);
    QCOMPARE(json(reports[1].payload)["body"]["value"].toInt(), 41);
    QCOMPARE(reports[0].qos, 2);
    QCOMPARE(json(reports[0].payload)["header"]["content"].toString(), QStringLiteral("volume"));

    // Stopping ends the binding and the session.
    binding.stop();
    QVERIFY(!controller.isBound());
    QCOMPARE(logCount(log, "stop mqtt"), 1);
    QVERIFY(!controller.reportOnline());
    QVERIFY(!controller.reportOffline());
    // A clean disconnect leaves no offline will behind. The retained messages are delivered at
    // subscription; a marker published after shows the end.
    CloudClient late(m_broker.url());
    QVERIFY(late.start());
    late.publish("orbicloud/marker/" + m_sn, "end");
    QTRY_COMPARE(late.on("orbicloud/marker/" + m_sn).size(), std::size_t(1));
    QVERIFY(late.on(t::topic(t::upstreamReport, ModelId, m_sn, t::offline)).empty());
}

void TestDeviceBinding::unknownTopicIsOnlyLogged()
{
    DeviceBindingController controller;
    configure(controller, m_broker.url());
    QVERIFY(controller.startMqtt());
    LogCapture log;
    const std::string stray = t::topic(t::downstreamGet, ModelId, m_sn, "/device/other");
    // Arrives the way the MQTT library delivers: from a thread of its own.
    std::thread libraryThread([&] { Q_EMIT controller.sigMessageArrived(stray, "{}"); });
    libraryThread.join();
    // Queued: nothing is handled before the Qt thread runs its events.
    QCOMPARE(logCount(log, "not found topic: " + stray), 0);
    QTRY_COMPARE(logCount(log, "not found topic: " + stray), 1);
    // A known topic with another device's serial is just as unknown.
    controller.slotHandleMsg(t::topic(t::downstreamReply, ModelId, m_sn + "x", t::binding), "{}");
    QCOMPARE(logCount(log, "not found topic: " + t::topic(t::downstreamReply, ModelId, m_sn + "x", t::binding)), 1);
    QVERIFY(!controller.isBound());
    QCOMPARE(logCount(log, "binding reply: {}"), 0);
    controller.clear();
}

void TestDeviceBinding::bindingReplyWhileDisconnected()
{
    DeviceBindingController controller;
    configure(controller, QStringLiteral("tcp://127.0.0.1:%1").arg(closedPort()));
    QVERIFY(controller.startMqtt());
    LogCapture log;
    controller.handleBindingReplyMsg("{}");
    QVERIFY(controller.isBound());
    QCOMPARE(logCount(log, "binding reply: {}"), 1);
    QCOMPARE(logCount(log, "reportOnline error"), 1);
    QCOMPARE(logCount(log, "reportBasicInfo error"), 1);
    // Without a connection no volume report is even tried.
    QVERIFY(!controller.reportVolumeInfo());
    QCOMPARE(logCount(log, "VolumeInfoJson is not changed"), 0);
    controller.clear();
    QVERIFY(!controller.isBound());

    // And with no client at all.
    DeviceBindingController bare;
    bare.handleBindingReplyMsg("{}");
    QVERIFY(bare.isBound());
    QCOMPARE(logCount(log, "reportOnline error"), 2);
    QCOMPARE(logCount(log, "reportBasicInfo error"), 2);
    QVERIFY(!bare.reportOnline());
    QVERIFY(!bare.stopMqtt());
    QVERIFY(!bare.isBound());
}

void TestDeviceBinding::bindWithoutBrokerLogsEachStep()
{
    DeviceBindingController controller;
    DeviceBinding binding(&controller);
    configure(controller, QStringLiteral("tcp://127.0.0.1:%1").arg(closedPort()));
    LogCapture log;
    // The connect is issued (start succeeds), but nothing can be published.
    QVERIFY(!binding.bind());
    QCOMPARE(logCount(log, "start MQTT fail!"), 0);
    QCOMPARE(logCount(log, "reportOnline error"), 1);
    QCOMPARE(logCount(log, "reportBinding error"), 1);
    binding.stop();

    // A URI the library refuses outright: start fails, the sequence still runs to the end.
    DeviceBindingController refused;
    DeviceBinding refusedBinding(&refused);
    configure(refused, QStringLiteral("nonsense://nowhere"));
    QVERIFY(!refusedBinding.bind());
    QCOMPARE(logCount(log, "start MQTT fail!"), 1);
    QCOMPARE(logCount(log, "reportOnline error"), 2);
    QCOMPARE(logCount(log, "reportBinding error"), 2);
    refusedBinding.stop();
}

void TestDeviceBinding::unbindingConfirmsThenLogsOut()
{
    DeviceBindingController controller;
    DeviceBinding binding(&controller);
    configure(controller, m_broker.url());
    QVERIFY(bindAndReply(controller, binding));
    QSignalSpy logout(&controller, &DeviceBindingController::sigLogout);
    LogCapture log;

    QElapsedTimer sinceRequest;
    qint64 waited = -1;
    connect(&controller, &DeviceBindingController::sigLogout, this, [&] { waited = sinceRequest.elapsed(); });
    const std::string request = R"({"header":{"content":"unbinding","requestId":"u-1"}})";
    sinceRequest.start();
    m_cloud->publish(t::topic(t::downstreamDelete, ModelId, m_sn, t::unbinding), request);

    const std::string confirmTopic = "orbicloud/upstream/delete/" + ModelId + "/" + m_sn + "/unbinding/cirro";
    QTRY_COMPARE(m_cloud->on(confirmTopic).size(), std::size_t(1));
    const auto confirm = m_cloud->on(confirmTopic).at(0);
    QCOMPARE(confirm.qos, 2);
    QCOMPARE(json(confirm.payload)["header"]["content"].toString(), QStringLiteral("unbinding"));
    QVERIFY(json(confirm.payload)["body"].toObject().contains(QStringLiteral("dummy")));
    QCOMPARE(logCount(log, "unbinding reply: " + request), 1);

    QTRY_COMPARE(logout.count(), 1);
    // The follow-up waits its half second after the request was handled.
    QVERIFY2(waited >= 500, QByteArray::number(waited));
    controller.clear();

    // Without a session the confirmation cannot go out; that is logged.
    DeviceBindingController bare;
    bare.handleUnbindingMsg("{}");
    QCOMPARE(logCount(log, "reportUnbinding error"), 1);
}

void TestDeviceBinding::brokerRestartReportsOnlineAgain()
{
    DeviceBindingController controller;
    DeviceBinding binding(&controller);
    configure(controller, m_broker.url());
    QVERIFY(bindAndReply(controller, binding));
    const std::string onlineTopic = t::topic(t::upstreamReport, ModelId, m_sn, t::online);
    QCOMPARE(m_cloud->on(onlineTopic).size(), std::size_t(2)); // after connecting and after the reply

    m_cloud.reset();
    QVERIFY(m_broker.restart());
    // The device reconnects 2.5 s after the loss; the cloud is back long before.
    m_cloud = std::make_unique<CloudClient>(m_broker.url());
    QVERIFY(m_cloud->start());
    QTRY_VERIFY_WITH_TIMEOUT(m_cloud->on(onlineTopic).size() >= 1, 30000);
    QVERIFY(controller.isBound());
    // Subscriptions are back too: a get request is answered.
    m_cloud->publish(t::topic(t::downstreamGet, ModelId, m_sn, t::volume), "{}");
    QTRY_COMPARE(m_cloud->on(t::topic(t::upstreamReply, ModelId, m_sn, t::volume)).size(), std::size_t(1));
    controller.clear();
}

QTEST_GUILESS_MAIN(TestDeviceBinding)
#include "tst_devicebinding.moc"
