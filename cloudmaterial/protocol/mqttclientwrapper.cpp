#include "mqttclientwrapper.h"

#include "callback.h"
#include "cloudmaterial/logging.h"

#include <mqtt/message.h>
#include <mqtt/ssl_options.h>
#include <mqtt/will_options.h>

#include <utility>

namespace talvor::cloudmaterial {

namespace {
constexpr long ConnectWaitMs = 3000;
constexpr long DisconnectWaitMs = 1500;
constexpr int KeepAliveSeconds = 60;
} // namespace

// No persistence object: in-flight messages are kept in memory only.
MqttClientWrapper::MqttClientWrapper(const std::string &serverURI, const std::string &clientId)
    : mqtt::async_client(serverURI, clientId)
    , serverURI(serverURI)
    , clientId(clientId)
{
}

MqttClientWrapper::~MqttClientWrapper()
{
    // The library keeps plain references to the callbacks. They outlive the base class, whose
    // destructor fails the requests still in flight; by then this object's members are gone,
    // so the callbacks must not reach them any more.
    try {
        disable_callbacks();
    } catch (const mqtt::exception &) {
    }
    for (const auto &retired : retiredCallbacks)
        retired->detach();
    if (callback)
        callback->detach();
}

void MqttClientWrapper::setUserName(const std::string &userName)
{
    this->userName = userName;
}

void MqttClientWrapper::setPassword(const std::string &password)
{
    this->password = password;
}

void MqttClientWrapper::setWill(const std::string &topic, const std::string &payload, int qos)
{
    willTopic = topic;
    willPayload = payload;
    willQos = qos;
}

void MqttClientWrapper::addSubscription(const std::string &topic, int qos)
{
    subscriptions[topic] = qos;
}

void MqttClientWrapper::setMaxRetries(int maxRetries)
{
    if (maxRetries >= 0)
        this->maxRetries = maxRetries;
}

void MqttClientWrapper::setWaitTimeoutSeconds(int seconds)
{
    waitTimeout = seconds * 1000;
}

void MqttClientWrapper::setMessageHandler(MessageHandler handler)
{
    if (handler)
        messageHandler = std::move(handler);
}

void MqttClientWrapper::setConnectedHandler(Handler handler)
{
    if (handler)
        connectedHandler = std::move(handler);
}

void MqttClientWrapper::setConnectionLostHandler(Handler handler)
{
    if (handler)
        connectionLostHandler = std::move(handler);
}

void MqttClientWrapper::setFailureHandler(Handler handler)
{
    if (handler)
        failureHandler = std::move(handler);
}

bool MqttClientWrapper::start()
{
    try {
        // A will needs a topic: the broker refuses a connect whose will topic is empty.
        if (!willTopic.empty())
            connectOptions.set_will(mqtt::will_options(willTopic, willPayload, willQos, true));

        if (serverURI.find("ssl:") != std::string::npos) {
            // The cloud's brokers are reached by address, so their certificates are not checked.
            mqtt::ssl_options ssl;
            ssl.set_enable_server_cert_auth(false);
            ssl.set_verify(false);
            ssl.set_error_handler([](const std::string &message) { RXCM_LOG_INFO("SSL Error: {}", message); });
            connectOptions.set_ssl(std::move(ssl));
        }

        connectOptions.set_user_name(userName);
        connectOptions.set_password(password);
        // The protocol version stays at the library's default (3.1.1, falling back to 3.1), so
        // the broker keeps the session: clean session false. Clean start exists in MQTT 5 only,
        // and the C library refuses a 3.x connect that carries it ("Options for wrong MQTT
        // version"), so it is asked for only when a version 5 connect is configured.
        connectOptions.set_clean_session(false);
        if (connectOptions.get_mqtt_version() >= MQTTVERSION_5)
            connectOptions.set_clean_start(true);
        connectOptions.set_keep_alive_interval(KeepAliveSeconds);

        // A new callback means a fresh retry budget; the old one must not reconnect any more.
        if (callback) {
            callback->shutdown();
            // The library may still report an earlier attempt to it.
            retiredCallbacks.push_back(std::move(callback));
        }
        callback = std::make_shared<Callback>(maxRetries, *this, connectOptions);
        set_callback(*callback);

        RXCM_LOG_INFO("Connecting to the MQTT server...");
        const auto token = connect(connectOptions, nullptr, *callback);
        // The outcome arrives through Callback::connected or Callback::on_failure.
        try {
            token->wait_for(ConnectWaitMs);
        } catch (const mqtt::exception &) {
        }
        return true;
    } catch (const mqtt::exception &e) {
        RXCM_LOG_ERROR("start exception: {}", e.what());
    } catch (const std::exception &e) {
        RXCM_LOG_ERROR("start exception: {}", e.what());
    }
    return false;
}

bool MqttClientWrapper::publish(const std::string &topic, const std::string &payload, int qos)
{
    if (!is_connected()) {
        RXCM_LOG_INFO("MQTT is disconnected!!!");
        return false;
    }
    try {
        auto message = mqtt::make_message(topic, payload, qos, false);
        const auto token = mqtt::async_client::publish(message);
        if (token->wait_for(waitTimeout))
            return true;
    } catch (const std::exception &) {
        // Logged below with the same text as a time-out.
    }
    RXCM_LOG_ERROR("public msg error, topic: {}, msg: {}, qos:{}", topic, payload, qos);
    return false;
}

void MqttClientWrapper::stop()
{
    RXCM_LOG_INFO("Disconnecting from the MQTT server...");
    // A pending reconnect would undo the disconnect.
    if (callback)
        callback->shutdown();
    try {
        disconnect()->wait_for(DisconnectWaitMs);
        RXCM_LOG_INFO("OK");
    } catch (const mqtt::exception &e) {
        RXCM_LOG_ERROR("stop exception: {}", e.what());
    }
}

} // namespace talvor::cloudmaterial
