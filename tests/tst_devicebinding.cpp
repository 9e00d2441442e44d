// Tests of the device binding against a real broker, one behaviour each, every test its own
// device: the bind sequence, the cloud's get requests, the volume rule, a broker restart, the
// unbinding follow-up and a clean stop; and the failures that are only logged.
// The exact text of each record is pinned in tst_deviceinfo; here, what the device fills in.

#include "cloudmaterial/devicebinding/devicebinding.h"
#include "cloudmaterial/devicebinding/devicebindingcontroller.h"
#include "cloudmaterial/devicebinding/deviceinformation.h"
#include "cloudmaterial/devicebinding/devicetopics.h"
#include "cloudmaterial/stdstringmetatype_p.h"
#include "localcloud/mosquitto.h"
#include "support/logcapture.h"

#include <mqtt/async_client.h>

#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTcpServer>
#include <QUuid>
#include <QtTest>

#include <memory>
#include <mutex>
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
        std::string topic, payload;
        int qos;
    };

    explicit CloudClient(const QString &url)
        : m_client(url.toStdString(), QUuid::createUuid().toString(QUuid::WithoutBraces).toStdString())
    {
        m_client.set_message_callback([this](mqtt::const_message_ptr msg) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_messages.push_back({msg->get_topic(), msg->to_string(), msg->get_qos()});
        });
        m_client.connect(mqtt::connect_options_builder().clean_session(true).finalize())->wait();
        m_client.subscribe("orbicloud/#", 2)->wait();
    }
    ~CloudClient() { m_client.disconnect()->wait_for(std::chrono::seconds(2)); }

    void publish(const std::string &topic, const std::string &payload, bool retained = false)
    {
        m_client.publish(topic, payload.data(), payload.size(), 2, retained)->wait();
    }

    /** What arrived on @p topic, or every device message when it is empty, in arrival order. */
    std::vector<Message> on(const std::string &topic = {}) const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<Message> found;
        std::copy_if(m_messages.begin(), m_messages.end(), std::back_inserter(found), [&](const Message &m) {
            return topic.empty() ? m.topic.rfind("orbicloud/upstream/", 0) == 0 : m.topic == topic;
        });
        return found;
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

// The body without the byte counts that change while the test runs.
QJsonObject withoutUsage(QJsonObject body)
{
    body.remove(QStringLiteral("used"));
    if (body.contains(QStringLiteral("storage"))) {
        QJsonArray disks;
        for (const auto &disk : body[QStringLiteral("storage")].toArray())
            disks.append(withoutUsage(disk.toObject()));
        body[QStringLiteral("storage")] = disks;
    }
    return body;
}

// A loopback URL where no broker listens: the client is made but never connects.
QString deadBrokerUrl()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return QStringLiteral("tcp://127.0.0.1:%1").arg(probe.serverPort());
}

} // namespace

class TestDeviceBinding : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_broker.start()); }
    void init();
    void cleanup();

    void bindSendsOnlineThenTheBindingRequest();
    void bindingReplyBindsAndReportsBasicInfo();
    void getRequestIsAnsweredAtQos0_data();
    void getRequestIsAnsweredAtQos0();
    void volumeIsReportedOnlyWhenBoundAndChanged();
    void brokerRestartLeavesTheWillAndTheDeviceComesBack();
    void unbindingIsConfirmedThenLogsOut();
    void unconfirmedUnbindingDoesNotLogOut();
    void cleanStopLeavesNoWill();
    void refusedStartStillRunsTheSequence();
    void strayTopicIsOnlyLogged();
    void bindingReplyWithoutClientStillBinds();

private:
    std::string topic(std::string_view root, std::string_view path) const
    {
        return t::topic(root, ModelId, m_sn, path);
    }
    void configure(const QString &url);
    /** bind() against the broker: subscribed, online and binding request seen by the cloud. */
    bool bindDevice();
    /** bindDevice(), then the cloud's binding reply and the reports it brings. */
    bool bindAndConfirm();
    bool waitSubscribed();
    QJsonObject basicBody() const;
    QJsonObject storageBody() const;
    /** The body a get request for @p content is answered with (the volume is set in init()). */
    QJsonObject replyBody(const QString &content) const;

    Mosquitto m_broker;
    std::unique_ptr<CloudClient> m_cloud;
    std::unique_ptr<LogCapture> m_log;
    std::unique_ptr<DeviceBindingController> m_controller;
    std::unique_ptr<DeviceBinding> m_binding;
    std::string m_sn, m_clientId;
};

void TestDeviceBinding::init()
{
    // Every test is its own device with a fresh log sink on the host's logger, so nothing another
    // test left on the broker or in the log can match.
    m_sn = "S" + QUuid::createUuid().toString(QUuid::Id128).left(10).toStdString();
    m_log = std::make_unique<LogCapture>();
    m_cloud = std::make_unique<CloudClient>(m_broker.url());
    m_controller = std::make_unique<DeviceBindingController>();
    m_binding = std::make_unique<DeviceBinding>(m_controller.get());
    m_controller->setVolume(37);
}

void TestDeviceBinding::cleanup()
{
    m_binding.reset();
    m_controller.reset();
    m_cloud.reset();
    m_log.reset();
}

void TestDeviceBinding::configure(const QString &url)
{
    m_controller->setModelId(ModelId);
    m_controller->setSn(m_sn);
    m_controller->setServerUri(url.toStdString());
    m_clientId = QUuid::createUuid().toString().toStdString();
    m_controller->setClientId(m_clientId);
    m_controller->setUserName("mqtt-user");
    m_controller->setPassword("mqtt-pass");
    m_controller->setDeviceName("Hall player");
    m_controller->setCustomDeviceName("Front desk");
    m_controller->setSoftwareMainVersion("5.2.1");
}

bool TestDeviceBinding::waitSubscribed()
{
    // The device subscribes from the library's thread; the broker's own log tells when all five are acknowledged.
    const QByteArray ack = "Sending SUBACK to " + QByteArray::fromStdString(m_clientId);
    return QTest::qWaitFor(
        [&] {
            QFile file(m_broker.logFile());
            return file.open(QIODevice::ReadOnly) && file.readAll().count(ack) >= 5;
        },
        10000);
}

bool TestDeviceBinding::bindDevice()
{
    configure(m_broker.url());
    return m_binding->bind() && waitSubscribed() && QTest::qWaitFor([&] { return m_cloud->on().size() == 2; }, 10000);
}

bool TestDeviceBinding::bindAndConfirm()
{
    if (!bindDevice())
        return false;
    m_cloud->publish(topic(t::downstreamReply, t::binding),
                     R"({"header":{"content":"binding","requestId":"x"},"body":{"dummy":""}})");
    return QTest::qWaitFor([&] { return m_cloud->on().size() == 4; }, 10000) && m_controller->isBound();
}

QJsonObject TestDeviceBinding::basicBody() const
{
    return {{"brand", "orbi"},
            {"series", "RM"},
            {"deviceName", "Hall player"},
            {"productName", "Talvor RM5"},
            {"customDeviceName", "Front desk"},
            {"modelId", "M1"},
            {"sn", QString::fromStdString(m_sn)},
            {"mac", QString::fromStdString(localMacAddress())},
            {"localIp", QString::fromStdString(localIpAddress())},
            {"platformSystem", "Linux"},
            {"softwareMainVersion", "5.2.1"}};
}

QJsonObject TestDeviceBinding::storageBody() const
{
    QJsonArray disks;
    qint64 capability = 0;
    for (const DiskJson &disk : diskList()) {
        disks.append(QJsonObject{{"capability", qint64(disk.capability)},
                                 {"name", QString::fromStdString(disk.name)},
                                 {"diskName", QString::fromStdString(disk.diskName)},
                                 {"type", QString::fromStdString(disk.type)}});
        capability += disk.capability;
    }
    return {{"capability", capability}, {"storage", disks}};
}

QJsonObject TestDeviceBinding::replyBody(const QString &content) const
{
    if (content == QLatin1String("basic"))
        return basicBody();
    if (content == QLatin1String("storage"))
        return storageBody();
    return {{"value", 37}};
}

void TestDeviceBinding::bindSendsOnlineThenTheBindingRequest()
{
    QVERIFY(bindDevice());
    QCOMPARE(m_cloud->on().at(0).topic, topic(t::upstreamReport, t::online));
    const auto request = m_cloud->on().at(1);
    QCOMPARE(request.topic, topic(t::upstreamPost, t::binding));
    QCOMPARE(request.qos, 2);
    QCOMPARE(json(request.payload)["body"].toObject(),
             (QJsonObject{{"username", "mqtt-user"},
                          {"password", "mqtt-pass"},
                          {"passwordEncType", 0},
                          {"mac", QString::fromStdString(localMacAddress())},
                          {"sn", QString::fromStdString(m_sn)},
                          {"modelId", "M1"},
                          {"deviceName", "Hall player"},
                          {"customDeviceName", "Front desk"},
                          {"source", 1}}));
    QVERIFY(!m_controller->isBound());
}

void TestDeviceBinding::bindingReplyBindsAndReportsBasicInfo()
{
    QVERIFY(bindDevice());
    const std::string reply = R"({"header":{"content":"binding","requestId":"x"},"body":{"dummy":""}})";
    m_cloud->publish(topic(t::downstreamReply, t::binding), reply);
    QTRY_COMPARE(m_cloud->on().size(), std::size_t(4));
    QVERIFY(m_controller->isBound());
    QCOMPARE(m_log->count("binding reply: " + reply), 1);
    QCOMPARE(m_cloud->on().at(2).topic, topic(t::upstreamReport, t::online));
    const auto basic = m_cloud->on().at(3);
    QCOMPARE(basic.topic, topic(t::upstreamReport, t::basic));
    QCOMPARE(basic.qos, 2);
    QCOMPARE(json(basic.payload)["body"].toObject(), basicBody());
}

void TestDeviceBinding::getRequestIsAnsweredAtQos0_data()
{
    QTest::addColumn<std::string>("path");
    QTest::addColumn<QString>("content");
    QTest::addColumn<std::string>("logPrefix");
    // "get storage :" with its blank, as promised.
    QTest::newRow("basic") << std::string(t::basic) << "basic" << std::string("get basic: ");
    QTest::newRow("storage") << std::string(t::storage) << "storage" << std::string("get storage : ");
    QTest::newRow("volume") << std::string(t::volume) << "volume" << std::string("get volume: ");
}

void TestDeviceBinding::getRequestIsAnsweredAtQos0()
{
    QFETCH(std::string, path);
    QFETCH(QString, content);
    QFETCH(std::string, logPrefix);
    QVERIFY(bindAndConfirm());
    const std::string request = R"({"header":{"content":")" + content.toStdString() + R"(","requestId":"req-)"
        + content.toStdString() + R"(","version":"1.0"},"body":{}})";
    m_cloud->publish(topic(t::downstreamGet, path), request);
    const std::string reply = topic(t::upstreamReply, path);
    QTRY_COMPARE(m_cloud->on(reply).size(), std::size_t(1));
    QCOMPARE(m_log->count(logPrefix + request), 1);
    // The cloud subscribed at QoS 2, so a QoS 0 arrival means the device published at 0.
    QCOMPARE(m_cloud->on(reply).at(0).qos, 0);
    const QJsonObject answer = json(m_cloud->on(reply).at(0).payload);
    QCOMPARE(answer["header"]["content"].toString(), content);
    QCOMPARE(answer["header"]["requestId"].toString(), "req-" + content);
    QCOMPARE(withoutUsage(answer["body"].toObject()), withoutUsage(replyBody(content)));
}

void TestDeviceBinding::volumeIsReportedOnlyWhenBoundAndChanged()
{
    QVERIFY(bindDevice());
    QVERIFY(!m_controller->reportVolumeInfo()); // not bound yet: no volume goes out
    m_cloud->publish(topic(t::downstreamReply, t::binding), "{}");
    QTRY_VERIFY(m_controller->isBound());
    m_controller->setVolume(40);
    QVERIFY(m_controller->reportVolumeInfo());
    m_controller->setVolume(40);
    QVERIFY(!m_controller->reportVolumeInfo());
    m_controller->setVolume(41);
    QVERIFY(m_controller->reportVolumeInfo());
    QCOMPARE(m_log->count("VolumeInfoJson is not changed"), 1);
    const std::string volume = topic(t::upstreamReport, t::volume);
    QTRY_COMPARE(m_cloud->on(volume).size(), std::size_t(2));
    QCOMPARE(m_cloud->on(volume).at(0).qos, 2);
    // The broker keeps one client's order: had 40 gone out twice it would sit before 41.
    QCOMPARE(json(m_cloud->on(volume).at(1).payload)["body"]["value"].toInt(), 41);
}

void TestDeviceBinding::brokerRestartLeavesTheWillAndTheDeviceComesBack()
{
    QVERIFY(bindAndConfirm());
    // The offline will stays behind: retained (the cloud subscribes after it), QoS 2, on the
    // device's offline topic. The device reconnects 2.5 s after the loss, resubscribes and, being
    // bound, says it is online again.
    m_cloud.reset();
    QVERIFY(m_broker.restart());
    m_cloud = std::make_unique<CloudClient>(m_broker.url());
    const std::string offline = topic(t::upstreamReport, t::offline);
    QTRY_COMPARE(m_cloud->on(offline).size(), std::size_t(1));
    QCOMPARE(m_cloud->on(offline).at(0).qos, 2);
    QTRY_VERIFY_WITH_TIMEOUT(m_cloud->on(topic(t::upstreamReport, t::online)).size() >= 1, 30000);
    m_cloud->publish(offline, "", true); // the will would otherwise outlive this test's device
}

void TestDeviceBinding::unbindingIsConfirmedThenLogsOut()
{
    QVERIFY(bindAndConfirm());
    QElapsedTimer sinceRequest;
    qint64 waited = -1;
    connect(m_controller.get(), &DeviceBindingController::sigLogout, this, [&] { waited = sinceRequest.elapsed(); });
    const std::string unbind = R"({"header":{"content":"unbinding","requestId":"u-1"}})";
    sinceRequest.start();
    m_cloud->publish(topic(t::downstreamDelete, t::unbinding), unbind);
    const std::string confirm = topic(t::upstreamDelete, t::unbinding);
    QTRY_COMPARE(m_cloud->on(confirm).size(), std::size_t(1));
    QCOMPARE(m_cloud->on(confirm).at(0).qos, 2);
    QCOMPARE(json(m_cloud->on(confirm).at(0).payload)["body"].toObject(), (QJsonObject{{"dummy", ""}}));
    QCOMPARE(m_log->count("unbinding reply: " + unbind), 1);
    // The promised half second, checked once; waited is set when the logout comes.
    QTRY_VERIFY2(waited >= 500, QByteArray::number(waited));
}

void TestDeviceBinding::unconfirmedUnbindingDoesNotLogOut()
{
    // The client exists but never reaches a broker, so the confirmation cannot be published.
    configure(deadBrokerUrl());
    QVERIFY(m_controller->startMqtt());
    QSignalSpy logout(m_controller.get(), &DeviceBindingController::sigLogout);
    const std::string unbind = R"({"header":{"content":"unbinding","requestId":"u-2"}})";
    m_controller->slotHandleMsg(topic(t::downstreamDelete, t::unbinding), unbind);
    QCOMPARE(m_log->count("unbinding reply: " + unbind), 1);
    QCOMPARE(m_log->count("MQTT is disconnected!!!"), 1);
    // Well past the half second a confirmed unbinding waits before its logout.
    QVERIFY(!logout.wait(1500));
}

void TestDeviceBinding::cleanStopLeavesNoWill()
{
    QVERIFY(bindAndConfirm());
    m_binding->stop();
    QVERIFY(!m_controller->isBound());
    CloudClient late(m_broker.url()); // retained messages arrive at subscription, before the marker
    late.publish("orbicloud/marker/" + m_sn, "end");
    QTRY_COMPARE(late.on("orbicloud/marker/" + m_sn).size(), std::size_t(1));
    QVERIFY(late.on(topic(t::upstreamReport, t::offline)).empty());
}

void TestDeviceBinding::refusedStartStillRunsTheSequence()
{
    // A URI the library refuses outright: start fails, the sequence still runs to the end.
    configure(QStringLiteral("nonsense://nowhere"));
    QVERIFY(!m_binding->bind());
    QCOMPARE(m_log->count("start MQTT fail!"), 1);
    QCOMPARE(m_log->count("reportOnline error"), 1);
    QCOMPARE(m_log->count("reportBinding error"), 1);
}

void TestDeviceBinding::strayTopicIsOnlyLogged()
{
    configure(deadBrokerUrl());
    QVERIFY(m_controller->startMqtt());
    // One byte past a registered topic is another topic.
    const std::string stray = topic(t::downstreamReply, t::binding) + "x";
    m_controller->slotHandleMsg(stray, "{}");
    QCOMPARE(m_log->count("not found topic: " + stray), 1);
    QVERIFY(!m_controller->isBound());
}

void TestDeviceBinding::bindingReplyWithoutClientStillBinds()
{
    configure(QStringLiteral("nonsense://nowhere"));
    QVERIFY(!m_controller->startMqtt());
    m_controller->handleBindingReplyMsg("{}");
    QVERIFY(m_controller->isBound());
    QCOMPARE(m_log->count("reportOnline error"), 1);
    QCOMPARE(m_log->count("reportBasicInfo error"), 1);
}

QTEST_GUILESS_MAIN(TestDeviceBinding)
#include "tst_devicebinding.moc"
