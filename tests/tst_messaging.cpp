// From a saved session to a bound device: player authorization, the encrypted messaging
// account, the MQTT session, the binding exchange, and the cloud's unbinding — against the
// local cloud and a real broker.

#include "cloudmaterial/configstore.h"
#include "cloudmaterial/login/logincontroller.h"
#include "cloudmaterial/maincontroller.h"
#include "cloudmaterial/maincontroller_p.h"
#include "cloudmaterial/maincontrollerwrapper.h"
#include "cloudmaterial/workerpool.h"

#include "localcloud/cloudsim.h"
#include "localcloud/mosquitto.h"
#include "support/logcapture.h"

#include <QtTest>

#include <future>

using namespace talvor::cloudmaterial;

namespace {

const QString model = "100001"; // the product code names the model in topics
const QString serial = "SN-0001";

QString topic(const char *root, const char *suffix)
{
    return QLatin1String(root) + model + QLatin1Char('/') + serial + QLatin1String(suffix);
}

const QString online = topic("orbicloud/upstream/report/", "/device/online");
const QString bindingRequest = topic("orbicloud/upstream/post/", "/binding/cirro");
const QString basic = topic("orbicloud/upstream/report/", "/device/basic");

} // namespace

class TestMessaging : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase() { wrapper.clear(); }
    void init();

    void failedStarts(); // first: nothing before it has set a node identity
    void autoLoginBindsTheDevice();
    void clearStopsAStartUnderWay();
    void newestStartWins();
    void clearCancelsAScheduledLogout();

private:
    QStringList upstreamTopics(const QString &topic = {}, QJsonObject *payload = nullptr);
    QJsonArray exchanges();
    void resume(const QString &identity, bool start = true);

    Mosquitto broker;
    CloudSim cloud;
    QTemporaryDir configDir;
    MainControllerWrapper &wrapper = MainControllerWrapper::instance();
    MainController &controller = MainController::instance();
};

void TestMessaging::initTestCase()
{
    QVERIFY(configDir.isValid());
    QVERIFY(broker.start());
    QVERIFY(cloud.start(R"({"accounts":[{"token":"tok-1","name":"ann"}]})"));
    QVERIFY(!cloud.control("POST", "/control/mqtt", QJsonDocument(QJsonObject{{"url", broker.url()}})).isNull());

    wrapper.setRXRuntime(nullptr);
    wrapper.setAppConfigPath(configDir.path().toStdString());
    ConfigJson config = ConfigStore::instance().config();
    config.nodes = cloud.url("/nodes.json").toStdString();
    config.mqttControl = cloud.url("/mqtt/control/v1/").toStdString();
    ConfigStore::instance().setConfig(config);
    wrapper.setSerialNumber(serial.toStdString());
    wrapper.setDeviceName("Lobby wall");
}

void TestMessaging::init()
{
    wrapper.clear();
    cloud.control("DELETE", "/control/mqtt/messages");
    cloud.control("DELETE", "/control/mqtt/auth");
    QVERIFY(cloud.clearFaults());
    QVERIFY(cloud.clearRequests());
}

// What the device service heard, topic by topic; with the payload of @p topic.
QStringList TestMessaging::upstreamTopics(const QString &topic, QJsonObject *payload)
{
    QStringList topics;
    for (const auto &m : cloud.control("GET", "/control/mqtt/messages").array()) {
        topics << m.toObject()["topic"].toString();
        if (payload && topics.last() == topic)
            *payload = QJsonDocument::fromJson(m.toObject()["payload"].toString().toUtf8()).object();
    }
    return topics;
}

QJsonArray TestMessaging::exchanges()
{
    return cloud.control("GET", "/control/mqtt/auth").object().value("exchanges").toArray();
}

// A saved session of the node @p identity, then (when @p start) the messaging start that follows a login.
void TestMessaging::resume(const QString &identity, bool start)
{
    ConfigStore::instance().setTokenInfo(
        {"tok-1", "ann", "", "", "", 1001, identity.toStdString(), cloud.host().toStdString()});
    if (!start)
        return;
    MainControllerInternals::loginController(controller).restoreSession();
    controller.startMqtt();
}

void TestMessaging::autoLoginBindsTheDevice()
{
    resume("cn-1", false);
    MosquittoSub watcher(broker.port(), "orbicloud/#");
    QVERIFY(watcher.waitStarted());
    QSignalSpy logins(&wrapper, &MainControllerWrapper::loginSuccess);
    LogCapture log;
    const qint64 before = QDateTime::currentMSecsSinceEpoch();
    QVERIFY(wrapper.autoLogin());
    QCOMPARE(logins.count(), 1);
    QCOMPARE(logins.at(0).at(0).value<std::string>(), std::string("ann"));

    // The device comes online, asks to be bound, is answered and reports itself.
    QTRY_VERIFY_WITH_TIMEOUT(upstreamTopics().contains(basic), 30000);
    QJsonObject request;
    const QStringList seen = upstreamTopics(bindingRequest, &request);
    QCOMPARE(seen.count(online), 2);
    QVERIFY(seen.indexOf(online) < seen.indexOf(bindingRequest));
    QVERIFY(seen.indexOf(bindingRequest) < seen.lastIndexOf(online));
    QVERIFY(seen.indexOf(bindingRequest) < seen.indexOf(basic));
    // The binding request carries the account of the player authorization and our identity.
    const QJsonObject body = request["body"].toObject();
    QCOMPARE(body["sn"].toString(), serial);
    QCOMPARE(body["deviceName"].toString(), "Lobby wall");
    QCOMPARE(body["username"].toString(), "rxcm-binding");

    // The key message: our product code, a 256-bit key, and an expiry 6 s after its making.
    const QJsonArray done = exchanges();
    QCOMPARE(done[0]["endpoint"].toString(), "main");
    const QStringList pieces = done[0]["keyMessage"].toString().split("||");
    QCOMPARE(pieces.size(), 3);
    QCOMPARE(pieces[0], model);
    QCOMPARE(QByteArray::fromBase64(pieces[1].toLatin1()).size(), 32);
    QVERIFY(pieces[2].toLongLong() >= before + 6000
            && pieces[2].toLongLong() <= QDateTime::currentMSecsSinceEpoch() + 6000);
    QCOMPARE(log.linesStartingWith("MQTT: {\"password\":\"rxcm-device-pass\"").size(), std::size_t(1));
    QCOMPARE(log.linesStartingWith("mqtt client id: {").size(), std::size_t(1));
    // A resumed session asks for no login at all.
    for (const auto &r : cloud.requests())
        QVERIFY(!r.toObject()["path"].toString().contains("/authenticate/"));

    // The same traffic, as a client no one here wrote sees it.
    QTRY_VERIFY(watcher.lines().join('\n').contains(bindingRequest));
    QVERIFY(watcher.lines().join('\n').contains(topic("orbicloud/downstream/reply/", "/binding/cirro")));

    // The cloud's unbinding logs the user out.
    QSignalSpy logouts(&wrapper, &MainControllerWrapper::exitLoginSuccess);
    QVERIFY(!cloud
                 .control("POST", "/control/mqtt/send",
                          QJsonDocument(QJsonObject{{"kind", "unbinding"}, {"modelId", model}, {"sn", serial}}))
                 .isNull());
    QTRY_COMPARE_WITH_TIMEOUT(logouts.count(), 1, 20000);
    QTRY_VERIFY(upstreamTopics().contains(topic("orbicloud/upstream/delete/", "/unbinding/cirro")));
    QVERIFY(wrapper.token().empty() && wrapper.userId() == "0");
    QVERIFY(QFile::exists(configDir.path() + "/cloud/login.json"));
}

void TestMessaging::failedStarts()
{
    // Without a node identity nothing is asked, not even the DNS entry.
    LogCapture log;
    resume(QString(), false);
    MainControllerInternals::loginController(controller).resetNodeState();
    controller.startMqtt();
    QTRY_COMPARE(log.linesStartingWith("_currentNodeIdentity is empty, mqtt create fail!!!").size(), std::size_t(1));
    QCOMPARE(log.linesStartingWith("_currentNodeIdentity").front().level, spdlog::level::err);
    MainControllerInternals::workerPool(controller)->enqueue([] {}).wait();
    QCOMPARE(cloud.requests().size(), 0);

    // The main exchange endpoint fails, so the backup is asked; its account does not decrypt.
    QVERIFY(cloud.addFault(QJsonObject{{"kind", "status"}, {"path", "/mqtt/auth"}, {"status", 503}}));
    QVERIFY(!cloud.control("POST", "/control/mqtt/auth", QJsonDocument(QJsonObject{{"wrongKey", true}, {"times", 1}}))
                 .isNull());
    resume("cn-1");
    QTRY_COMPARE_WITH_TIMEOUT(exchanges().size(), 1, 20000);
    QCOMPARE(exchanges()[0].toObject()["endpoint"].toString(), "backup");
    MainControllerInternals::workerPool(controller)->enqueue([] {}).wait();
    // A wrong key almost always breaks the padding, said as an error; on the rare pass the account is garbage.
    const auto failed = log.linesStartingWith("aesEcbDecrypt exception: ");
    QVERIFY(failed.empty() ? log.linesStartingWith("MQTT: {\"password\"").empty()
                           : failed.front().level == spdlog::level::err);
    QVERIFY(!upstreamTopics().contains(bindingRequest));
}

// A clear() while the worker waits for the DNS entry: the start goes no further.
void TestMessaging::clearStopsAStartUnderWay()
{
    LogCapture log;
    // A DNS reply that takes about a second to arrive.
    QVERIFY(cloud.addFault(
        QJsonObject{{"kind", "slow"}, {"prefix", "/mqtt/control"}, {"bytes_per_second", 1500}, {"times", 1}}));
    resume("cn-1");
    const auto dnsAsked = [this] {
        for (const auto &r : cloud.requests()) {
            if (r.toObject()["path"].toString().startsWith("/mqtt/control"))
                return true;
        }
        return false;
    };
    QTRY_VERIFY(dnsAsked());
    wrapper.clear();
    MainControllerInternals::workerPool(controller)->enqueue([] {}).wait();
    QTest::qWait(100); // what the worker might have handed to this thread
    QVERIFY(exchanges().isEmpty());
    QVERIFY(log.linesStartingWith("Connecting to the MQTT server...").empty());
    QVERIFY(upstreamTopics().isEmpty());
}

// Starts asked for one after another: only the last one exchanges keys and binds.
void TestMessaging::newestStartWins()
{
    resume("cn-1", false);
    MainControllerInternals::loginController(controller).restoreSession();
    // The worker is held until all three are asked for, as when a busy worker meets a second press.
    std::promise<void> gate;
    MainControllerInternals::workerPool(controller)->enqueue([opened = gate.get_future().share()] { opened.wait(); });
    for (int i = 0; i < 3; ++i)
        controller.startMqtt();
    gate.set_value();
    QTRY_VERIFY_WITH_TIMEOUT(upstreamTopics().contains(basic), 30000);
    MainControllerInternals::workerPool(controller)->enqueue([] {}).wait();
    QCOMPARE(exchanges().size(), 1);
    QCOMPARE(upstreamTopics().count(bindingRequest), 1);
}

// The logout that a confirmed unbinding schedules does not outlive a clear().
void TestMessaging::clearCancelsAScheduledLogout()
{
    resume("cn-1");
    QTRY_VERIFY_WITH_TIMEOUT(upstreamTopics().contains(basic), 30000);
    QSignalSpy logouts(&wrapper, &MainControllerWrapper::exitLoginSuccess);
    LogCapture log;
    QVERIFY(!cloud
                 .control("POST", "/control/mqtt/send",
                          QJsonDocument(QJsonObject{{"kind", "unbinding"}, {"modelId", model}, {"sn", serial}}))
                 .isNull());
    // Handled, the confirmation sent: the logout is due half a second later.
    QTRY_VERIFY(!log.linesStartingWith("unbinding reply: ").empty());
    wrapper.clear();
    QTRY_VERIFY(upstreamTopics().contains(topic("orbicloud/upstream/delete/", "/unbinding/cirro")));
    QTest::qWait(1000);
    QCOMPARE(logouts.count(), 0);
    QCOMPARE(wrapper.token(), std::string("tok-1"));
}

QTEST_MAIN(TestMessaging)
#include "tst_messaging.moc"
