#include "groupruntime.h"

#include "sockets/tcpnodelay.h"

#include <QDeadlineTimer>
#include <QLoggingCategory>
#include <QUrl>
#include <QUuid>

#include <mqtt/async_client.h>

#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

Q_LOGGING_CATEGORY(lcGroup, "rxcm.demo.group", QtInfoMsg)

namespace {

const QString topicRoot = QStringLiteral("rxcm-demo/group/");
// Calls sent while the connection is being re-established go out once it is back.
const int maxBufferedCalls = 1000;
const int disconnectTimeoutMs = 3000;

// The retained calls: a member that joins later needs the last value of each setting.
bool isSetting(const std::string &name)
{
    return name.rfind("Set", 0) == 0;
}

std::string encoded(const QString &name)
{
    return QString::fromLatin1(QUrl::toPercentEncoding(name)).toStdString();
}

} // namespace

class GroupRuntime::Private : public mqtt::iaction_listener
{
public:
    void onConnected();
    void onConnectionLost();
    void onMessage(const mqtt::const_message_ptr &message);
    void setJoined(bool value);
    void waitForDeliveries(std::unique_lock<std::mutex> &lock);

    // The subscription's outcome; the listener is only used for it.
    void on_success(const mqtt::token &) override { setJoined(true); }
    void on_failure(const mqtt::token &token) override
    {
        qCWarning(lcGroup) << "the group's calls could not be subscribed to, code" << token.get_reason_code();
    }

    GroupRuntime *q = nullptr;
    Role role = Role::ProxyClient;
    QString group;
    QString identity;
    std::string callPrefix; // every call's topic up to its name

    mutable std::mutex mutex;
    std::condition_variable changed;
    std::map<std::string, MessageHandler> handlers;
    std::thread::id delivering; // the thread delivering a call, if one is
    bool joined = false;

    // Last: destroyed first, so no callback outlives the state above.
    std::unique_ptr<mqtt::async_client> client;
};

void GroupRuntime::Private::onConnected()
{
    // A call and its answer are small packets: none may wait for a delayed ACK.
    rxcm::sockets::setTcpNoDelay(rxcm::sockets::mqttUriPort(client->get_server_uri()));
    // Also after every automatic reconnection: a broker that lost its sessions forgot the subscription.
    try {
        client->subscribe(callPrefix + "+", 1, nullptr, *this);
    } catch (const mqtt::exception &e) {
        qCWarning(lcGroup) << "cannot subscribe to the group's calls:" << e.what();
    }
}

void GroupRuntime::Private::onConnectionLost()
{
    qCInfo(lcGroup) << identity << "lost the broker; reconnecting";
    setJoined(false);
}

void GroupRuntime::Private::setJoined(bool value)
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (joined == value)
            return;
        joined = value;
    }
    changed.notify_all();
    Q_EMIT q->connectionChanged(value);
}

void GroupRuntime::Private::onMessage(const mqtt::const_message_ptr &message)
{
    const std::string &topic = message->get_topic();
    const std::string &payload = message->get_payload_ref().str();
    // An empty payload is how a retained call is cleared; there is nothing to deliver.
    if (topic.compare(0, callPrefix.size(), callPrefix) != 0 || payload.empty())
        return;
    const auto zero = payload.find('\0');
    if (zero == std::string::npos) {
        qCWarning(lcGroup) << "dropped a call without its sender on" << QString::fromStdString(topic);
        return;
    }
    const QString sender = QString::fromUtf8(payload.data(), int(zero));
    if (sender == identity)
        return;
    const std::string name =
        QByteArray::fromPercentEncoding(QByteArray::fromStdString(topic.substr(callPrefix.size()))).toStdString();
    const char *data = payload.data() + zero + 1;
    const auto size = std::uint32_t(payload.size() - zero - 1);

    MessageHandler handler;
    {
        std::lock_guard<std::mutex> lock(mutex);
        const auto found = handlers.find(name);
        if (found != handlers.end())
            handler = found->second;
        // Until the signal is out: the runtime must not go away under a delivery.
        delivering = std::this_thread::get_id();
    }
    if (handler) {
        try {
            handler(data, size);
        } catch (const std::exception &e) {
            qCWarning(lcGroup) << "the handler of" << QString::fromStdString(name) << "failed:" << e.what();
        }
    }
    Q_EMIT q->callReceived(sender, QString::fromStdString(name), QByteArray(data, int(size)));
    {
        std::lock_guard<std::mutex> lock(mutex);
        delivering = std::thread::id();
    }
    changed.notify_all();
}

void GroupRuntime::Private::waitForDeliveries(std::unique_lock<std::mutex> &lock)
{
    // A handler may remove itself (or another) while it runs; it must not wait for itself.
    changed.wait(lock, [this] { return delivering == std::thread::id() || delivering == std::this_thread::get_id(); });
}

GroupRuntime::GroupRuntime(Role role, const QString &group, QObject *parent)
    : QObject(parent)
    , d(std::make_unique<Private>())
{
    d->q = this;
    d->role = role;
    d->group = group;
    d->identity = (role == Role::ProxyServer ? QStringLiteral("server-") : QStringLiteral("client-"))
        + QUuid::createUuid().toString(QUuid::Id128).left(12);
    d->callPrefix = (topicRoot + QString::fromStdString(encoded(group)) + QStringLiteral("/call/")).toStdString();
}

GroupRuntime::~GroupRuntime()
{
    if (!d->client)
        return;
    const QDeadlineTimer deadline(disconnectTimeoutMs);
    // Calls in flight complete first: left to the disconnect, they would take its whole time-out.
    for (const auto &delivery : d->client->get_pending_delivery_tokens()) {
        try {
            delivery->wait_for(std::chrono::milliseconds(deadline.remainingTime()));
        } catch (const mqtt::exception &e) {
            qCDebug(lcGroup) << "a call was not delivered:" << e.what();
        }
    }
    try {
        d->client->disconnect(0)->wait_for(std::chrono::milliseconds(deadline.remainingTime() + 1000));
    } catch (const mqtt::exception &e) {
        // Not connected at the moment: nothing to leave.
        qCDebug(lcGroup) << "disconnect:" << e.what();
    }
    // A call that arrived just before the disconnect may still be in its handler.
    std::unique_lock<std::mutex> lock(d->mutex);
    d->handlers.clear();
    d->waitForDeliveries(lock);
}

bool GroupRuntime::start(const QString &brokerUrl, int timeoutMs)
{
    if (d->client)
        return isConnected();
    const QDeadlineTimer deadline(timeoutMs);
    try {
        const auto creation = mqtt::create_options_builder()
                                  .send_while_disconnected(true)
                                  .max_buffered_messages(maxBufferedCalls)
                                  .finalize();
        d->client =
            std::make_unique<mqtt::async_client>(brokerUrl.toStdString(), d->identity.toStdString(), creation, nullptr);
        Private *p = d.get();
        d->client->set_connected_handler([p](const std::string &) { p->onConnected(); });
        d->client->set_connection_lost_handler([p](const std::string &) { p->onConnectionLost(); });
        d->client->set_message_callback([p](mqtt::const_message_ptr message) { p->onMessage(message); });
        // A kept session holds the calls sent to this member while it was reconnecting.
        const auto options = mqtt::connect_options_builder()
                                 .clean_session(false)
                                 .keep_alive_interval(std::chrono::seconds(20))
                                 .automatic_reconnect(std::chrono::seconds(1), std::chrono::seconds(8))
                                 .finalize();
        if (!d->client->connect(options)->wait_for(std::chrono::milliseconds(deadline.remainingTime()))) {
            qCWarning(lcGroup) << "no answer from the broker at" << brokerUrl;
            d->client.reset();
            return false;
        }
    } catch (const mqtt::exception &e) {
        qCWarning(lcGroup) << "cannot reach the broker at" << brokerUrl << ":" << e.what();
        d->client.reset();
        return false;
    }
    std::unique_lock<std::mutex> lock(d->mutex);
    return d->changed.wait_for(lock, std::chrono::milliseconds(deadline.remainingTime()), [this] { return d->joined; });
}

bool GroupRuntime::isConnected() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->joined;
}

GroupRuntime::Role GroupRuntime::role() const
{
    return d->role;
}

QString GroupRuntime::group() const
{
    return d->group;
}

QString GroupRuntime::identity() const
{
    return d->identity;
}

QString GroupRuntime::callTopic(const QString &group, const QString &name)
{
    return topicRoot + QString::fromStdString(encoded(group)) + QStringLiteral("/call/")
        + QString::fromStdString(encoded(name));
}

bool GroupRuntime::isProxyServer() const
{
    return d->role == Role::ProxyServer;
}

bool GroupRuntime::isProxyClient() const
{
    return d->role == Role::ProxyClient;
}

bool GroupRuntime::isSingleMachine() const
{
    return false;
}

void GroupRuntime::registerMessageHandler(const std::string &name, MessageHandler handler)
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->handlers[name] = std::move(handler);
}

void GroupRuntime::removeMessageHandler(const std::string &name)
{
    std::unique_lock<std::mutex> lock(d->mutex);
    d->handlers.erase(name);
    // The owner of a removed handler is usually about to go; it must not be running then.
    d->waitForDeliveries(lock);
}

void GroupRuntime::sendMessage(const std::string &name, const char *data, std::uint32_t size)
{
    if (!d->client) {
        qCWarning(lcGroup) << "not in the group yet; dropped" << QString::fromStdString(name);
        return;
    }
    std::string payload = d->identity.toStdString();
    payload.push_back('\0');
    if (size > 0)
        payload.append(data, size);
    try {
        d->client->publish(d->callPrefix + encoded(QString::fromStdString(name)), payload.data(), payload.size(), 1,
                           isSetting(name));
    } catch (const mqtt::exception &e) {
        qCWarning(lcGroup) << "the call" << QString::fromStdString(name) << "was not sent:" << e.what();
    }
}
