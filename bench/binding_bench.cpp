// Time from a resumed session to a bound device, and the MQTT round trip of a get request to the
// bound device, against cloudsim and a mosquitto broker of our own on loopback.
//
//     binding_bench [--runs N] [--gets N]
//
// Binding: each run resumes the saved session through MainControllerWrapper::autoLogin() and
// ends when the binding reply reaches the device controller, the moment it becomes bound (seen
// through the controller's log line, stamped as it is written). The figure runs from
// loginSuccess (where messaging starts); the time from the autoLogin() call is shown beside
// it. Other log lines split a run into its stages: the DNS entry (an HTTPS GET; the first run's
// includes the TLS handshake, later runs reuse the connection), the RSA encryption of the key
// message with the entry's key and the authentication exchange (an HTTPS POST), the player
// authorization (a GET), the MQTT library's connect, and the device's online and binding
// messages. The RSA step is also timed alone, on the same key. Between runs
// MainControllerWrapper::clear() ends the session.
//
// Get round trip: with the device bound, the bench's client publishes a get of the volume
// (QoS 2, as the cloud does) and waits for the reply on the same client. No HTTP is involved.

#include "cloudmaterial/configstore.h"
#include "cloudmaterial/maincontroller.h"
#include "cloudmaterial/maincontroller_p.h"
#include "cloudmaterial/maincontrollerwrapper.h"
#include "cloudmaterial/protocol/crypto.h"
#include "cloudmaterial/workerpool.h"
#include "sockets/tcpnodelay.h"

#include "localcloud/cloudsim.h"
#include "localcloud/mosquitto.h"

#include "benchsupport.h"

#include <pwspdlog/spdlogapplication.h>

#include <spdlog/sinks/base_sink.h>

#include <mqtt/async_client.h>

#include <QApplication>
#include <QCommandLineParser>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QTemporaryDir>
#include <QTimer>
#include <QUuid>

#include <algorithm>
#include <array>
#include <cstdio>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

using namespace talvor::cloudmaterial;
using bench::median;

namespace {

const std::string model = "100001"; // the product code names the model in topics
const std::string serial = "SN-BENCH-1";
constexpr double bindingTargetMs = 300;
constexpr double getTargetMs = 20;
constexpr int waitLimitMs = 30000;

std::string topic(const char *root, const char *suffix)
{
    return root + model + '/' + serial + suffix;
}

// One clock for every thread: QElapsedTimer is monotonic and reading it is const.
QElapsedTimer benchClock;

double msSince(qint64 fromNs, qint64 toNs)
{
    return (toNs - fromNs) / 1e6;
}

// The module's log lines that mark the stages of a run, in the order they are written.
enum Stage { MessagingStarted, DnsEntry, AccountDecrypted, Connecting, Connected, BindingReplyHandled, StageCount };
const std::array<const char *, StageCount> stagePrefixes{
    "mqtt client id: ", // handleMqtt began on the worker thread
    "获取 DNS 地址消息: ", // the DNS entry arrived (it carries the key for the exchange)
    "MQTT: ", // RSA, authentication exchange and AES are done
    "Connecting to the MQTT server...", // the player authorization is done too
    "Connection attempt succeeded", // the MQTT library connected
    "binding reply: ", // the reply reached the controller on the GUI thread
};

// Stamps the first line of each stage as it is written; reset before every run.
class StageSink : public spdlog::sinks::base_sink<std::mutex>
{
public:
    void reset()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stamps.fill(-1);
    }
    std::array<qint64, StageCount> copy()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return stamps;
    }
    std::string dnsEntry()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return dnsEntryText;
    }

protected:
    void sink_it_(const spdlog::details::log_msg &msg) override
    {
        const qint64 now = benchClock.nsecsElapsed();
        const std::string_view text(msg.payload.data(), msg.payload.size());
        for (int i = 0; i < StageCount; ++i) {
            const std::size_t length = std::char_traits<char>::length(stagePrefixes[i]);
            if (stamps[i] < 0 && text.substr(0, length) == stagePrefixes[i]) {
                stamps[i] = now;
                if (i == DnsEntry)
                    dnsEntryText = text.substr(length);
            }
        }
    }
    void flush_() override { }

private:
    std::array<qint64, StageCount> stamps{-1, -1, -1, -1, -1, -1};
    std::string dnsEntryText;
};

// The bench's own MQTT client. Arrivals are stamped on the library's thread, so the figures
// do not include the wake-up of the GUI thread that waits for them.
class Watcher
{
public:
    struct Arrival
    {
        std::string topic;
        std::string payload;
        qint64 ns = 0;
    };

    explicit Watcher(const QString &url)
        : client(url.toStdString(),
                 "binding-bench-" + QUuid::createUuid().toString(QUuid::Id128).left(12).toStdString(),
                 static_cast<mqtt::iclient_persistence *>(nullptr))
    {
        client.set_message_callback([this](mqtt::const_message_ptr message) {
            const qint64 now = benchClock.nsecsElapsed();
            {
                std::lock_guard<std::mutex> lock(mutex);
                arrivals.push_back({message->get_topic(), message->to_string(), now});
            }
            QMetaObject::invokeMethod(
                &relay,
                [this] {
                    if (waiting)
                        waiting->quit();
                },
                Qt::QueuedConnection);
        });
    }

    ~Watcher()
    {
        try {
            if (client.is_connected())
                client.disconnect()->wait();
        } catch (const mqtt::exception &) {
        }
    }

    bool start(const std::vector<std::string> &topics)
    {
        try {
            mqtt::connect_options options;
            options.set_clean_session(true);
            client.connect(options)->wait();
            // The cloud's side, like the device's, sends its small packets at once.
            rxcm::sockets::setTcpNoDelay(rxcm::sockets::mqttUriPort(client.get_server_uri()));
            for (const std::string &t : topics)
                client.subscribe(t, 2)->wait();
            return true;
        } catch (const mqtt::exception &e) {
            std::fprintf(stderr, "bench client: %s\n", e.what());
            return false;
        }
    }

    void clear()
    {
        std::lock_guard<std::mutex> lock(mutex);
        arrivals.clear();
    }

    // Fire and forget: waiting for the QoS 2 handshake here would hold the GUI thread, which
    // the device needs to answer.
    bool publish(const std::string &t, const std::string &payload, int qos)
    {
        try {
            client.publish(t, payload.data(), payload.size(), qos, false);
            return true;
        } catch (const mqtt::exception &e) {
            std::fprintf(stderr, "bench publish: %s\n", e.what());
            return false;
        }
    }

    // Runs the GUI thread's events until an arrival matches; earlier ones that do not are dropped.
    std::optional<Arrival> waitFor(const std::function<bool(const Arrival &)> &matches, int timeoutMs)
    {
        QElapsedTimer timer;
        timer.start();
        for (;;) {
            {
                std::lock_guard<std::mutex> lock(mutex);
                while (!arrivals.empty()) {
                    Arrival a = std::move(arrivals.front());
                    arrivals.pop_front();
                    if (matches(a))
                        return a;
                }
            }
            const qint64 left = timeoutMs - timer.elapsed();
            if (left <= 0)
                return std::nullopt;
            QEventLoop loop;
            waiting = &loop;
            QTimer::singleShot(int(left), &loop, &QEventLoop::quit);
            loop.exec();
            waiting = nullptr;
        }
    }

private:
    mqtt::async_client client;
    std::mutex mutex;
    std::deque<Arrival> arrivals;
    QObject relay; // lives on the GUI thread; wakes the waiting loop
    QEventLoop *waiting = nullptr; // touched on the GUI thread only
};

void saveSession(const CloudSim &cloud)
{
    TokenInfoJson session;
    session.auth = "tok-1";
    session.username = "ann";
    session.id = 1001;
    session.currentNode = cloud.host().toStdString();
    session.currentNodeIdentity = "cn-1";
    ConfigStore::instance().setTokenInfo(session);
}

bool fetch(const QString &url)
{
    QNetworkAccessManager manager;
    QNetworkReply *reply = manager.get(QNetworkRequest(QUrl(url)));
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    QTimer::singleShot(waitLimitMs, &loop, &QEventLoop::quit);
    loop.exec();
    const bool ok = reply->isFinished() && reply->error() == QNetworkReply::NoError;
    reply->deleteLater();
    return ok;
}

// The RSA step of the exchange alone: the key message encrypted with the DNS entry's key.
double timeRsa(const std::string &dnsEntry)
{
    // The line goes on after the reply with the place it was written from.
    const std::string reply = dnsEntry.substr(0, dnsEntry.rfind('}') + 1);
    const QJsonObject entry = QJsonDocument::fromJson(QByteArray::fromStdString(reply)).object();
    const QString key = entry.value(QStringLiteral("data"))
                            .toObject()
                            .value(QStringLiteral("main"))
                            .toObject()
                            .value(QStringLiteral("publicKey"))
                            .toString();
    const std::string pem = "-----BEGIN PUBLIC KEY-----\n" + key.toStdString() + "\n-----END PUBLIC KEY-----";
    const std::string message = "100001||" + std::string(44, 'k') + "||1700000000000";
    std::vector<double> ms;
    for (int i = 0; i < 50; ++i) {
        const qint64 start = benchClock.nsecsElapsed();
        if (rsaPublicEncrypt(message, pem.c_str()).empty())
            return -1;
        ms.push_back(msSince(start, benchClock.nsecsElapsed()));
    }
    return median(ms);
}

void printSummary(const char *what, const std::vector<double> &ms, const char *target, double targetMs)
{
    const double m = median(ms);
    std::printf("%s: median %.1f ms (min %.1f, max %.1f, %zu runs) target %s %.0f ms: %s\n", what, m,
                *std::min_element(ms.begin(), ms.end()), *std::max_element(ms.begin(), ms.end()), ms.size(), target,
                targetMs, m < targetMs ? "holds" : "MISSED");
}

void printRuns(const char *what, const std::vector<double> &ms)
{
    std::printf("  %s (ms):", what);
    for (const double v : ms)
        std::printf(" %.1f", v);
    std::printf("\n");
}

} // namespace

int main(int argc, char **argv)
{
    // The module builds widgets; no display is needed to time it.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Device binding and get round trip benchmark against cloudsim"));
    parser.addHelpOption();
    const QCommandLineOption runsOption = bench::addCountOption(parser, "runs", "Bindings timed", 20);
    const QCommandLineOption getsOption = bench::addCountOption(parser, "gets", "Get round trips timed", 50);
    const QCommandLineOption qosOption(QStringLiteral("get-qos"),
                                       QStringLiteral("QoS of the get requests (default 2, as the cloud sends them)."),
                                       QStringLiteral("qos"), QStringLiteral("2"));
    parser.addOption(qosOption);
    parser.process(app);
    const int runs = parser.value(runsOption).toInt();
    const int gets = parser.value(getsOption).toInt();
    bool qosOk = false;
    const int getQos = parser.value(qosOption).toInt(&qosOk);
    if (runs < 1 || gets < 1 || !qosOk || getQos < 0 || getQos > 2) {
        std::fprintf(stderr, "--runs and --gets need positive numbers, --get-qos 0, 1 or 2\n");
        return 2;
    }
    benchClock.start();

    Mosquitto broker;
    if (!broker.start())
        return bench::fail("mosquitto did not start");
    CloudSim cloud; // also makes this process trust its CA
    const QJsonObject account{{QStringLiteral("token"), QStringLiteral("tok-1")},
                              {QStringLiteral("name"), QStringLiteral("ann")}};
    if (!cloud.start(QJsonDocument(QJsonObject{{QStringLiteral("accounts"), QJsonArray{account}}}).toJson()))
        return bench::fail("cloudsim did not start");
    if (cloud
            .control("POST", QStringLiteral("/control/mqtt"),
                     QJsonDocument(QJsonObject{{QStringLiteral("url"), broker.url()}}))
            .isNull())
        return bench::fail("cloudsim's device service did not reach the broker");
    QTemporaryDir configDir;
    if (!configDir.isValid())
        return bench::fail("no temporary folder");
    // cloudsim makes the DNS entry's keys in the background after it starts; a real cloud has
    // them, so the first run must not wait for them.
    if (!fetch(cloud.url(QStringLiteral("/mqtt/control/v1/"))))
        return bench::fail("cloudsim's DNS entry did not come");

    MainControllerWrapper &wrapper = MainControllerWrapper::instance();
    MainController &controller = MainController::instance();
    wrapper.setRXRuntime(nullptr);
    wrapper.setAppConfigPath(configDir.path().toStdString());
    ConfigJson config = ConfigStore::instance().config();
    config.nodes = cloud.url(QStringLiteral("/nodes.json")).toStdString();
    config.mqttControl = cloud.url(QStringLiteral("/mqtt/control/v1/")).toStdString();
    ConfigStore::instance().setConfig(config);
    wrapper.setSerialNumber(serial);
    wrapper.setDeviceName("Bench wall");
    wrapper.setAppVersion("2.4.1");
    saveSession(cloud);

    const auto sink = std::make_shared<StageSink>();
    PW::SpdlogApplication::instance().logger()->sinks().push_back(sink);

    qint64 loginNs = -1;
    QObject::connect(&wrapper, &MainControllerWrapper::loginSuccess, &app,
                     [&](const std::string &) { loginNs = benchClock.nsecsElapsed(); });

    std::vector<double> bindingMs;
    std::vector<double> totalMs;
    std::array<std::vector<double>, StageCount> stageMs;
    for (int run = 0; run < runs; ++run) {
        if (run > 0) {
            wrapper.clear();
            // The previous run's catalogue refresh must not share the worker with this one.
            MainControllerInternals::workerPool(controller)->enqueue([] {}).wait();
        }
        sink->reset();
        loginNs = -1;
        const qint64 startNs = benchClock.nsecsElapsed();
        wrapper.autoLogin();
        if (loginNs < 0)
            return bench::fail("run %d: the saved session was not resumed", run + 1);
        // The stamp is taken as the line is written, so the polling does not enter the figure.
        QElapsedTimer waited;
        waited.start();
        // Checked every millisecond without spinning: a busy GUI thread would take a core from
        // the threads being timed.
        QEventLoop wait;
        QTimer poll;
        QObject::connect(&poll, &QTimer::timeout, &wait, [&] {
            if (sink->copy()[BindingReplyHandled] >= 0 || waited.elapsed() >= waitLimitMs)
                wait.quit();
        });
        poll.start(1);
        wait.exec();
        const auto stamps = sink->copy();
        if (stamps[BindingReplyHandled] < 0)
            return bench::fail("run %d: no binding reply within %d ms", run + 1, waitLimitMs);
        if (std::any_of(stamps.begin(), stamps.end(), [](qint64 s) { return s < 0; })) {
            std::fprintf(stderr, "run %d: a stage's log line is missing\n", run + 1);
            return 1;
        }
        bindingMs.push_back(msSince(loginNs, stamps[BindingReplyHandled]));
        totalMs.push_back(msSince(startNs, stamps[BindingReplyHandled]));
        qint64 previous = loginNs;
        for (int i = 0; i < StageCount; ++i) {
            stageMs[i].push_back(msSince(previous, stamps[i]));
            previous = stamps[i];
        }
    }
    printRuns("binding runs", bindingMs);
    printSummary("binding", bindingMs, "median <", bindingTargetMs);
    std::printf("  from the autoLogin() call: median %.1f ms (min %.1f, max %.1f)\n", median(totalMs),
                *std::min_element(totalMs.begin(), totalMs.end()), *std::max_element(totalMs.begin(), totalMs.end()));
    // Stage i runs from the previous stamp to stamp i; later runs reuse the gateway connection.
    const auto laterRuns = [&](Stage stage) {
        return median(std::vector<double>(stageMs[stage].begin() + (runs > 1 ? 1 : 0), stageMs[stage].end()));
    };
    const double rsaMs = timeRsa(sink->dnsEntry());
    std::printf("  stages, median ms: to the worker %.1f | DNS entry (GET) %.1f | RSA + auth exchange (POST) + AES "
                "%.1f | player authorization (GET) %.1f | MQTT library's connect %.1f | online + binding request + "
                "reply %.1f\n",
                median(stageMs[MessagingStarted]), laterRuns(DnsEntry), laterRuns(AccountDecrypted),
                laterRuns(Connecting), laterRuns(Connected), laterRuns(BindingReplyHandled));
    std::printf("  first run's DNS entry, TLS handshake to the gateway included: %.1f ms; the RSA encryption of the "
                "key message alone: median %.2f ms\n",
                stageMs[DnsEntry].front(), rsaMs);
    std::fflush(stdout);

    // The bench's client joins only now: a second MQTT client in the process slows the first
    // one's connect (the library serves all of them from one network thread).
    const std::string getTopic = topic("orbicloud/downstream/get/", "/device/volume");
    const std::string replyTopic = topic("orbicloud/upstream/reply/", "/device/volume");
    Watcher watcher(broker.url());
    const qint64 watcherStartNs = benchClock.nsecsElapsed();
    if (!watcher.start({replyTopic}))
        return 1;
    std::printf("bench client connect + subscription: %.1f ms\n", msSince(watcherStartNs, benchClock.nsecsElapsed()));

    // The device stays bound from the last run.
    std::vector<double> roundTripMs;
    for (int i = 0; i < gets; ++i) {
        const std::string requestId = "rq-bench-" + std::to_string(i);
        const std::string payload = "{\"header\":{\"content\":\"get-volume\",\"requestId\":\"" + requestId
            + "\",\"version\":\"1.0\"},\"body\":{\"dummy\":\"\"}}";
        watcher.clear();
        const qint64 startNs = benchClock.nsecsElapsed();
        if (!watcher.publish(getTopic, payload, getQos))
            return 1;
        const auto reply = watcher.waitFor(
            [&](const Watcher::Arrival &a) {
                if (a.topic != replyTopic)
                    return false;
                const QJsonObject header = QJsonDocument::fromJson(QByteArray::fromStdString(a.payload))
                                               .object()
                                               .value(QStringLiteral("header"))
                                               .toObject();
                return header.value(QStringLiteral("requestId")).toString().toStdString() == requestId;
            },
            waitLimitMs);
        if (!reply)
            return bench::fail("get %d: no reply within %d ms", i + 1, waitLimitMs);
        roundTripMs.push_back(msSince(startNs, reply->ns));
    }
    printRuns("get round trips", roundTripMs);
    const std::string label = "get round trip (request QoS " + std::to_string(getQos) + ")";
    printSummary(label.c_str(), roundTripMs, "median <", getTargetMs);

    auto &sinks = PW::SpdlogApplication::instance().logger()->sinks();
    sinks.erase(std::remove(sinks.begin(), sinks.end(), sink), sinks.end());
    wrapper.clear();
    return 0;
}
