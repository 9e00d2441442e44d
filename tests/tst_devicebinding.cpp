// Tests of the device binding against a real broker, one device's life: the bind sequence, the
// cloud's get requests, the volume rule, a broker restart, the unbinding follow-up; and the
// failures that are only logged.
// The exact text of each record is pinned in tst_deviceinfo; here, what the device fills in.

#include "cloudmaterial/devicebinding/devicebinding.h"
#include "cloudmaterial/devicebinding/devicebindingcontroller.h"
#include "cloudmaterial/devicebinding/deviceinformation.h"
#include "cloudmaterial/devicebinding/devicetopics.h"
#include "support/logcapture.h"
#include "support/mosquittofixture.h"

#include <mqtt/async_client.h>

#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
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
    struct Message { std::string topic, payload; int qos; };

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

int logCount(const LogCapture &log, const std::string &text)
{
    // Every line carries the source-location suffix after the promised text.
    int count = 0;
    for (const auto &line : log.lines())
        count += line.text.rfind(text + " \n //", 0) == 0;
    return count;
}

} // namespace

class TestDeviceBinding : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_broker.start()); }
    void init()
    {
        // Every test is its own device, so nothing another test left on the broker can match.
        m_sn = "S" + QUuid::createUuid().toString(QUuid::Id128).left(10).toStdString();
        m_cloud = std::make_unique<CloudClient>(m_broker.url());
    }
    void cleanup() { m_cloud.reset(); }

    void bindGetReportAndUnbind();
    void failuresAreOnlyLogged();

private:
    std::string topic(std::string_view root, std::string_view path) const { return t::topic(root, ModelId, m_sn, path); }
    void configure(DeviceBindingController &controller, const QString &url)
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
    /** Waits until the broker has acknowledged all five of the device's subscriptions. */
    bool waitSubscribed()
    {
        // The device subscribes from the library's thread; the broker's own log tells when it is done.
        const QByteArray ack = "Sending SUBACK to " + QByteArray::fromStdString(m_clientId);
        return QTest::qWaitFor([&] {
            QFile file(m_broker.logFile());
            return file.open(QIODevice::ReadOnly) && file.readAll().count(ack) >= 5;
        }, 10000);
    }

    Mosquitto m_broker;
    std::unique_ptr<CloudClient> m_cloud;
    std::string m_sn, m_clientId;
};

void TestDeviceBinding::bindGetReportAndUnbind()
{
    DeviceBindingController controller;
    DeviceBinding binding(&controller);
    configure(controller, m_broker.url());
    controller.setVolume(37);
    LogCapture log;
    QVERIFY(binding.bind());
    QVERIFY(waitSubscribed());
    const std::string online = topic(t::upstreamReport, t::online);
    QTRY_COMPARE(m_cloud->on().size(), std::size_t(2));
    QCOMPARE(m_cloud->on().at(0).topic, online);
    const auto request = m_cloud->on().at(1);
    QCOMPARE(request.topic, topic(t::upstreamPost, t::binding));
    QCOMPARE(request.qos, 2);
    const QString mac = QString::fromStdString(localMacAddress()), sn = QString::fromStdString(m_sn);
    QCOMPARE(json(request.payload)["body"].toObject(),
             (QJsonObject{{"username", "mqtt-user"}, {"password", "mqtt-pass"}, {"passwordEncType", 0}, {"mac", mac},
                          {"sn", sn}, {"modelId", "M1"}, {"deviceName", "Hall player"}, {"customDeviceName", "Front desk"},
                          {"source", 1}}));
    QVERIFY(!controller.isBound());
    QVERIFY(!controller.reportVolumeInfo()); // not bound: no volume goes out

    // The cloud's reply binds: online again, then the basic report.
    const std::string reply = R"({"header":{"content":"binding","requestId":"x"},"body":{"dummy":""}})";
    m_cloud->publish(topic(t::downstreamReply, t::binding), reply);
    QTRY_COMPARE(m_cloud->on().size(), std::size_t(4));
    QVERIFY(controller.isBound());
    QCOMPARE(logCount(log, "binding reply: " + reply), 1);
    QCOMPARE(m_cloud->on().at(2).topic, online);
    const auto basic = m_cloud->on().at(3);
    QCOMPARE(basic.topic, topic(t::upstreamReport, t::basic));
    QCOMPARE(basic.qos, 2);
    const QJsonObject basicBody{{"brand", "orbi"}, {"series", "RM"}, {"deviceName", "Hall player"}, {"productName", "Talvor RM5"},
                                {"customDeviceName", "Front desk"}, {"modelId", "M1"}, {"sn", sn}, {"mac", mac},
                                {"localIp", QString::fromStdString(localIpAddress())}, {"platformSystem", "Linux"},
                                {"softwareMainVersion", "5.2.1"}};
    QCOMPARE(json(basic.payload)["body"].toObject(), basicBody);

    // Each get request is logged as promised ("get storage :" with its blank) and answered at QoS 0:
    // the cloud subscribed at QoS 2, so a QoS 0 arrival means the device published at 0.
    const struct { std::string_view path; const char *content, *log; } gets[] = {
        {t::basic, "basic", "get basic: "}, {t::storage, "storage", "get storage : "}, {t::volume, "volume", "get volume: "}};
    QJsonObject replies;
    for (const auto &get : gets) {
        const std::string request = std::string(R"({"header":{"content":")") + get.content + R"(","requestId":"req-)"
                                    + get.content + R"(","version":"1.0"},"body":{}})";
        m_cloud->publish(topic(t::downstreamGet, get.path), request);
        const std::string reply = topic(t::upstreamReply, get.path);
        QTRY_COMPARE(m_cloud->on(reply).size(), std::size_t(1));
        QCOMPARE(logCount(log, get.log + request), 1);
        QCOMPARE(m_cloud->on(reply).at(0).qos, 0);
        const QJsonObject answer = json(m_cloud->on(reply).at(0).payload);
        QCOMPARE(answer["header"]["requestId"].toString(), QStringLiteral("req-") + QLatin1String(get.content));
        replies.insert(QLatin1String(get.content), answer["body"]);
    }
    const QJsonObject &bodies = replies;
    QCOMPARE(bodies["basic"].toObject(), basicBody);
    QCOMPARE(bodies["volume"].toObject(), (QJsonObject{{"value", 37}}));
    const QJsonArray disks = bodies["storage"]["storage"].toArray();
    QCOMPARE(std::size_t(disks.size()), diskList().size());
    qint64 capability = 0;
    for (const auto &disk : disks)
        capability += disk["capability"].toVariant().toLongLong();
    QCOMPARE(bodies["storage"]["capability"].toVariant().toLongLong(), capability);

    // The volume is reported only when it changed.
    controller.setVolume(40);
    QVERIFY(controller.reportVolumeInfo());
    controller.setVolume(40);
    QVERIFY(!controller.reportVolumeInfo());
    controller.setVolume(41);
    QVERIFY(controller.reportVolumeInfo());
    QCOMPARE(logCount(log, "VolumeInfoJson is not changed"), 1);
    const std::string volume = topic(t::upstreamReport, t::volume);
    QTRY_COMPARE(m_cloud->on(volume).size(), std::size_t(2));
    // The broker keeps one client's order: had 40 gone out twice it would sit before 41.
    QCOMPARE(json(m_cloud->on(volume).at(1).payload)["body"]["value"].toInt(), 41);

    // A broker restart leaves the offline will standing: retained (the cloud subscribed after it),
    // QoS 2, on the device's offline topic. The device reconnects 2.5 s after the loss, resubscribes
    // and is online again.
    m_cloud.reset();
    QVERIFY(m_broker.restart());
    m_cloud = std::make_unique<CloudClient>(m_broker.url());
    const std::string offline = topic(t::upstreamReport, t::offline);
    QTRY_COMPARE(m_cloud->on(offline).size(), std::size_t(1));
    QCOMPARE(m_cloud->on(offline).at(0).qos, 2);
    m_cloud->publish(offline, "", true); // cleared, so that the clean stop below can be seen to leave none
    QTRY_VERIFY_WITH_TIMEOUT(m_cloud->on(topic(t::upstreamReport, t::online)).size() >= 1, 30000);

    // The cloud's unbinding is confirmed, then the user is logged out half a second later.
    QElapsedTimer sinceRequest;
    qint64 waited = -1;
    connect(&controller, &DeviceBindingController::sigLogout, this, [&] { waited = sinceRequest.elapsed(); });
    const std::string unbind = R"({"header":{"content":"unbinding","requestId":"u-1"}})";
    sinceRequest.start();
    m_cloud->publish(topic(t::downstreamDelete, t::unbinding), unbind);
    const std::string confirm = topic(t::upstreamDelete, t::unbinding);
    QTRY_COMPARE(m_cloud->on(confirm).size(), std::size_t(1));
    QCOMPARE(m_cloud->on(confirm).at(0).qos, 2);
    QCOMPARE(json(m_cloud->on(confirm).at(0).payload)["body"].toObject(), (QJsonObject{{"dummy", ""}}));
    QCOMPARE(logCount(log, "unbinding reply: " + unbind), 1);
    QTRY_VERIFY2(waited >= 500, QByteArray::number(waited)); // set once, when the logout comes

    // Stopping ends the binding and the session; a clean disconnect leaves no offline will behind.
    binding.stop();
    QVERIFY(!controller.isBound());
    CloudClient late(m_broker.url()); // retained messages arrive at subscription, before the marker
    late.publish("orbicloud/marker/" + m_sn, "end");
    QTRY_COMPARE(late.on("orbicloud/marker/" + m_sn).size(), std::size_t(1));
    QVERIFY(late.on(offline).empty());
}

void TestDeviceBinding::failuresAreOnlyLogged()
{
    LogCapture log;
    // A URI the library refuses outright: start fails, the sequence still runs to the end.
    DeviceBindingController refused;
    DeviceBinding refusedBinding(&refused);
    configure(refused, QStringLiteral("nonsense://nowhere"));
    QVERIFY(!refusedBinding.bind());
    QCOMPARE(logCount(log, "start MQTT fail!"), 1);
    QCOMPARE(logCount(log, "reportOnline error"), 1);
    QCOMPARE(logCount(log, "reportBinding error"), 1);

    // A topic no handler was registered for is only logged.
    const std::string stray = topic(t::downstreamReply, t::binding) + "x";
    refused.slotHandleMsg(stray, "{}");
    QCOMPARE(logCount(log, "not found topic: " + stray), 1);
    QVERIFY(!refused.isBound());
    // A binding reply without a client still binds and says what could not be reported.
    refused.handleBindingReplyMsg("{}");
    QVERIFY(refused.isBound());
    QCOMPARE(logCount(log, "reportOnline error"), 2);
    QCOMPARE(logCount(log, "reportBasicInfo error"), 1);
}

QTEST_GUILESS_MAIN(TestDeviceBinding)
#include "tst_devicebinding.moc"
