#pragma once

#include <mqtt/async_client.h>
#include <mqtt/connect_options.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace talvor::cloudmaterial {

class Callback;

namespace detail {
// What the MQTT library keeps plain references to: the callback of each start() and, in it, the
// listener of the subscriptions. A base listed before mqtt::async_client, so that it is destroyed
// after the client: the client's destructor fails the requests still in flight and calls their
// listeners.
struct MqttCallbacks
{
    std::shared_ptr<Callback> callback;
    // Earlier starts' callbacks: the library may still report an earlier attempt to them.
    std::vector<std::shared_ptr<Callback>> retiredCallbacks;
};
} // namespace detail

// The module's one MQTT session: connects with the account it is given, keeps its
// subscriptions alive across reconnections, publishes, and hands every arriving message to
// one handler. Owned and called by one thread (the Qt thread in the module); handlers run on
// the library's callback thread, and none runs any more once the destructor has begun. No
// exception leaves it.
class MqttClientWrapper : private detail::MqttCallbacks, public mqtt::async_client
{
public:
    using MessageHandler = std::function<void(const std::string &topic, const std::string &payload)>;
    using Handler = std::function<void()>;

    MqttClientWrapper(const std::string &serverURI, const std::string &clientId);
    ~MqttClientWrapper() override;

    void setUserName(const std::string &userName);
    void setPassword(const std::string &password);
    void setWill(const std::string &topic, const std::string &payload, int qos);
    void addSubscription(const std::string &topic, int qos);
    void setMaxRetries(int maxRetries);
    void setWaitTimeoutSeconds(int seconds);
    void setMessageHandler(MessageHandler handler);
    void setConnectedHandler(Handler handler);
    void setConnectionLostHandler(Handler handler);
    void setFailureHandler(Handler handler);

    bool start();
    bool publish(const std::string &topic, const std::string &payload, int qos);
    void stop();

private:
    friend class Callback;

    std::string serverURI;
    std::string userName;
    std::string password;
    std::string clientId;
    std::string willTopic;
    std::string willPayload;
    std::map<std::string, int> subscriptions;
    MessageHandler messageHandler;
    Handler connectedHandler;
    Handler connectionLostHandler;
    Handler failureHandler;
    mqtt::connect_options connectOptions;
    int maxRetries = 5;
    int willQos = 1;
    int waitTimeout = 10; // milliseconds until setWaitTimeoutSeconds() is called
};

} // namespace talvor::cloudmaterial
