#pragma once

#include "json.h"

#include <deque>
#include <memory>
#include <mutex>
#include <string>

namespace mqtt {
class async_client;
}

namespace cloudsim {

// The cloud's side of the device messages: one MQTT client on the broker that the tests (or
// the demo) started. It hears everything devices send upstream, keeps it for the control
// endpoints, answers binding requests and sends get and unbinding requests on command.
class DeviceService
{
public:
    DeviceService();
    ~DeviceService();
    DeviceService(const DeviceService &) = delete;
    DeviceService &operator=(const DeviceService &) = delete;

    // The accounts a binding request may carry ("mqtt" member of the scenario): a request
    // with one of them is answered as bound, any other as refused.
    void setAccounts(const std::string &mqttUser, const std::string &mqttPassword, const std::string &bindingUser,
                     const std::string &bindingPassword);

    // Connects to url ("tcp://127.0.0.1:<port>") and subscribes to everything upstream before
    // returning; a previous connection is closed first. Throws std::runtime_error.
    void connect(const std::string &url);
    void disconnect();
    // The broker's address as given, empty before the first connect.
    std::string url() const;
    Json state() const;

    // Whether binding requests are answered (on by default).
    void setAnswerBinding(bool answer);

    // {"kind":"get-basic"|"get-storage"|"get-volume"|"unbinding","modelId":..,"sn":..}.
    // Returns {"topic":..,"payload":..}. Throws std::invalid_argument for a bad command,
    // std::runtime_error when not connected or the broker refused.
    Json send(const Json &command);

    // The upstream messages heard, oldest first, and what was answered.
    Json messages() const;
    void clearMessages();

private:
    void arrived(mqtt::async_client &client, const std::string &topic, const std::string &payload, int qos,
                 bool retained);
    void publish(mqtt::async_client &client, const std::string &topic, const std::string &payload);

    // Connect, disconnect and send take turns; the client's callbacks never take this one.
    std::mutex m_clientMutex;
    std::unique_ptr<mqtt::async_client> m_client;

    mutable std::mutex m_mutex;
    std::string m_url;
    std::deque<Json> m_messages;
    std::deque<Json> m_sent;
    bool m_answerBinding = true;
    std::string m_mqttUser;
    std::string m_mqttPassword;
    std::string m_bindingUser;
    std::string m_bindingPassword;
};

} // namespace cloudsim
