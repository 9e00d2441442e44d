#include "callback.h"

#include "cloudmaterial/logging.h"
#include "mqttclientwrapper.h"

#include <mqtt/message.h>

#include <chrono>

namespace talvor::cloudmaterial {

namespace {
constexpr auto ReconnectPause = std::chrono::milliseconds(2500);
}

Callback::Callback(int maxRetries, MqttClientWrapper &client, mqtt::connect_options &connectOptions)
    : maxRetries(maxRetries)
    , client(client)
    , connectOptions(connectOptions)
    , subListener("Subscription")
    , handlers(&client)
    , reconnector([this] { reconnectLoop(); })
{
    // The owner's first attempt follows at once.
    noDelay.noteSockets();
}

Callback::~Callback()
{
    shutdown();
}

void Callback::connected(const std::string & /*cause*/)
{
    std::lock_guard guard(ownerMutex);
    if (detached)
        return;
    RXCM_LOG_INFO("Connection success");
    noDelay.applyToNewSockets(client.get_server_uri());
    // std::map iterates in topic order, which is the order the broker sees.
    for (const auto &[topic, qos] : handlers->subscriptions) {
        RXCM_LOG_INFO("Subscribing to topic '{}', using QoS {}", topic, qos);
        try {
            client.subscribe(topic, qos, nullptr, subListener);
        } catch (const mqtt::exception &e) {
            RXCM_LOG_ERROR("subscribe exception: {}", e.what());
        }
    }
    if (handlers->connectedHandler)
        handlers->connectedHandler();
}

void Callback::connection_lost(const std::string &cause)
{
    std::lock_guard guard(ownerMutex);
    if (detached)
        return;
    RXCM_LOG_INFO("Connection lost");
    if (!cause.empty())
        RXCM_LOG_INFO("\tcause: {}", cause);
    RXCM_LOG_INFO("Reconnecting...");
    if (handlers->connectionLostHandler)
        handlers->connectionLostHandler();
    reconnect();
}

void Callback::message_arrived(mqtt::const_message_ptr msg)
{
    std::lock_guard guard(ownerMutex);
    if (detached)
        return;
    RXCM_LOG_INFO("Message arrived");
    RXCM_LOG_INFO("topic: '{}'", msg->get_topic());
    RXCM_LOG_INFO("msg: '{}'", msg->to_string());
    // Called on the library's thread; the receiver moves the message to its own thread.
    if (handlers->messageHandler)
        handlers->messageHandler(msg->get_topic(), msg->to_string());
}

void Callback::delivery_complete(mqtt::delivery_token_ptr /*token*/) { }

void Callback::on_failure(const mqtt::token & /*token*/)
{
    std::lock_guard guard(ownerMutex);
    if (detached)
        return;
    if (!takeAttempt())
        return;
    RXCM_LOG_INFO("Connection attempt failed");
    if (handlers->failureHandler)
        handlers->failureHandler();
    if (++retryCount > maxRetries)
        return;
    reconnect();
}

void Callback::on_success(const mqtt::token & /*token*/)
{
    std::lock_guard guard(ownerMutex);
    if (detached)
        return;
    if (!takeAttempt())
        return;
    RXCM_LOG_INFO("Connection attempt succeeded");
}

// With a client callback installed, the library (C++ 1.2.0 over C 1.3.12) reports some connect
// attempts twice to the attempt's listener: every success, and the first failure after a loss.
// Counted twice, one refused connect would spend two retries and start two reconnect chains.
bool Callback::takeAttempt()
{
    std::lock_guard lock(mutex);
    if (!attemptPending)
        return false;
    attemptPending = false;
    return true;
}

void Callback::shutdown()
{
    {
        std::lock_guard lock(mutex);
        closing = true;
    }
    wakeUp.notify_all();
    if (reconnector.joinable() && reconnector.get_id() != std::this_thread::get_id())
        reconnector.join();
}

void Callback::detach()
{
    shutdown();
    std::lock_guard guard(ownerMutex);
    detached = true;
}

void Callback::reconnect()
{
    {
        std::lock_guard lock(mutex);
        if (closing)
            return;
        reconnectRequested = true;
    }
    wakeUp.notify_all();
}

// The library ignores a connect issued while it is still inside the failure callback of the
// previous one ("Connect or disconnect command ignored"), so the pause and the new attempt run
// here rather than on the library's thread; requests made meanwhile fold into one attempt.
void Callback::reconnectLoop()
{
    std::unique_lock lock(mutex);
    for (;;) {
        wakeUp.wait(lock, [this] { return closing || reconnectRequested; });
        if (closing)
            return;
        reconnectRequested = false;
        if (wakeUp.wait_for(lock, ReconnectPause, [this] { return closing; }))
            return;
        attemptPending = true;
        lock.unlock();
        noDelay.noteSockets();
        try {
            client.connect(connectOptions, nullptr, *this);
        } catch (const mqtt::exception &e) {
            RXCM_LOG_ERROR("connect exception: {}", e.what());
        }
        lock.lock();
    }
}

} // namespace talvor::cloudmaterial
