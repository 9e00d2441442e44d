#include "deviceservice.h"

#include "crypto.h"

#include "sockets/tcpnodelay.h"

#include <mqtt/async_client.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <stdexcept>

namespace cloudsim {
namespace {

constexpr std::size_t messageLimit = 10000;
constexpr auto brokerWait = std::chrono::seconds(10);
// Short: a stop must end well within cloudsim's own shutdown limit, broker or not.
constexpr auto disconnectWait = std::chrono::seconds(2);
const std::string upstreamFilter = "orbicloud/upstream/#";
const std::string bindingPost = "orbicloud/upstream/post/";
const std::string bindingSuffix = "/binding/cirro";
constexpr int downstreamQos = 2; // the device subscribes with 2

bool startsWith(const std::string &text, const std::string &prefix)
{
    return text.compare(0, prefix.size(), prefix) == 0;
}

bool endsWith(const std::string &text, const std::string &suffix)
{
    return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::string dumpJson(const Json &j)
{
    return j.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Json envelope(const std::string &content, const std::string &requestId, Json body)
{
    Json header = Json::object();
    header["content"] = content;
    header["requestId"] = requestId;
    header["version"] = "1.0";
    Json message = Json::object();
    message["header"] = std::move(header);
    message["body"] = std::move(body);
    return message;
}

std::string member(const Json &j, const char *name)
{
    if (!j.is_object() || !j.contains(name))
        return {};
    const Json &v = j.at(name);
    return v.is_string() ? v.get<std::string>() : v.is_number() ? v.dump() : std::string();
}

std::string commandText(const Json &command, const char *name)
{
    if (!command.contains(name) || !command.at(name).is_string() || command.at(name).get<std::string>().empty())
        throw std::invalid_argument(std::string("\"") + name + "\" must be a non-empty string");
    return command.at(name).get<std::string>();
}

} // namespace

DeviceService::DeviceService() = default;

DeviceService::~DeviceService()
{
    disconnect();
}

void DeviceService::setAccounts(const std::string &mqttUser, const std::string &mqttPassword,
                                const std::string &bindingUser, const std::string &bindingPassword)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_mqttUser = mqttUser;
    m_mqttPassword = mqttPassword;
    m_bindingUser = bindingUser;
    m_bindingPassword = bindingPassword;
}

void DeviceService::connect(const std::string &url)
{
    std::lock_guard<std::mutex> turn(m_clientMutex);
    if (m_client) {
        try {
            m_client->disconnect()->wait_for(disconnectWait);
        } catch (const mqtt::exception &) {
        }
        m_client.reset();
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_url.clear();
    }
    try {
        // No persistence: nothing of a test run may land on disk.
        auto client = std::make_unique<mqtt::async_client>(url, "cloudsim-" + randomHex(6),
                                                           static_cast<mqtt::iclient_persistence *>(nullptr));
        mqtt::async_client *raw = client.get();
        client->set_message_callback([this, raw](mqtt::const_message_ptr msg) {
            arrived(*raw, msg->get_topic(), msg->get_payload_str(), msg->get_qos(), msg->is_retained());
        });
        // A clean session loses its subscription with every reconnection; renew it then. Not
        // on the first connection, which subscribes below: a second subscription would bring
        // the retained messages a second time. The client calls this handler before it reads
        // the answer to that subscription, so the flag is still false for the first connection.
        auto subscribed = std::make_shared<std::atomic<bool>>(false);
        client->set_connected_handler([raw, subscribed](const std::string &) {
            rxcm::sockets::setTcpNoDelay(rxcm::sockets::mqttUriPort(raw->get_server_uri()));
            if (!subscribed->load())
                return;
            try {
                raw->subscribe(upstreamFilter, 2);
            } catch (const mqtt::exception &e) {
                std::fprintf(stderr, "cloudsim: cannot subscribe again: %s\n", e.what());
            }
        });
        mqtt::connect_options options;
        options.set_clean_session(true);
        options.set_keep_alive_interval(30);
        options.set_connect_timeout(brokerWait);
        options.set_automatic_reconnect(1, 10);
        if (!client->connect(options)->wait_for(brokerWait))
            throw std::runtime_error("no answer from the broker at " + url);
        // Waited for here as well, so that a test may publish as soon as this returns.
        if (!client->subscribe(upstreamFilter, 2)->wait_for(brokerWait))
            throw std::runtime_error("the broker did not confirm the subscription");
        subscribed->store(true);
        m_client = std::move(client);
    } catch (const mqtt::exception &e) {
        throw std::runtime_error("cannot connect to the broker at " + url + ": " + e.what());
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_url = url;
}

void DeviceService::disconnect()
{
    std::lock_guard<std::mutex> turn(m_clientMutex);
    if (!m_client)
        return;
    try {
        m_client->disconnect()->wait_for(disconnectWait);
    } catch (const mqtt::exception &) {
    }
    m_client.reset();
}

std::string DeviceService::url() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_url;
}

Json DeviceService::state() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    Json j = Json::object();
    j["url"] = m_url;
    j["connected"] = !m_url.empty();
    j["answerBinding"] = m_answerBinding;
    Json sent = Json::array();
    for (const auto &entry : m_sent)
        sent.push_back(entry);
    j["sent"] = std::move(sent);
    return j;
}

void DeviceService::setAnswerBinding(bool answer)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_answerBinding = answer;
}

// Runs on the client's thread: nothing here may wait for the broker.
void DeviceService::arrived(mqtt::async_client &client, const std::string &topic, const std::string &payload, int qos,
                            bool retained)
{
    std::string replyTopic;
    std::string reply;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        Json entry = Json::object();
        entry["topic"] = topic;
        entry["payload"] = payload;
        entry["qos"] = qos;
        entry["retained"] = retained;
        m_messages.push_back(std::move(entry));
        if (m_messages.size() > messageLimit)
            m_messages.pop_front();

        // "orbicloud/upstream/post/" M "/" S "/binding/cirro": the reply goes to the same M/S,
        // copied byte for byte.
        if (m_answerBinding && startsWith(topic, bindingPost) && endsWith(topic, bindingSuffix)
            && topic.size() > bindingPost.size() + bindingSuffix.size()) {
            const std::string device =
                topic.substr(bindingPost.size(), topic.size() - bindingPost.size() - bindingSuffix.size());
            Json request;
            try {
                request = Json::parse(payload);
            } catch (const Json::exception &) {
                request = Json::object();
            }
            const Json header = request.is_object() ? request.value("header", Json::object()) : Json::object();
            const Json body = request.is_object() ? request.value("body", Json::object()) : Json::object();
            const std::string user = member(body, "username");
            const std::string password = member(body, "password");
            const bool known = !user.empty()
                && ((user == m_mqttUser && password == m_mqttPassword)
                    || (user == m_bindingUser && password == m_bindingPassword));
            Json result = Json::object();
            result["status"] = known ? "success" : "fail";
            result["msg"] = known ? "bound" : "unknown account";
            result["modelId"] = member(body, "modelId");
            result["sn"] = member(body, "sn");
            replyTopic = "orbicloud/downstream/reply/" + device + bindingSuffix;
            reply = dumpJson(envelope("binding", member(header, "requestId"), std::move(result)));
            m_sent.push_back(Json{{"topic", replyTopic}, {"payload", reply}});
            if (m_sent.size() > messageLimit)
                m_sent.pop_front();
        }
    }
    if (!replyTopic.empty())
        publish(client, replyTopic, reply);
}

void DeviceService::publish(mqtt::async_client &client, const std::string &topic, const std::string &payload)
{
    try {
        client.publish(topic, payload.data(), payload.size(), downstreamQos, false);
    } catch (const mqtt::exception &e) {
        std::fprintf(stderr, "cloudsim: cannot publish on %s: %s\n", topic.c_str(), e.what());
    }
}

Json DeviceService::send(const Json &command)
{
    if (!command.is_object())
        throw std::invalid_argument("the command must be an object");
    const std::string kind = commandText(command, "kind");
    const std::string device = commandText(command, "modelId") + "/" + commandText(command, "sn");
    std::string topic;
    if (kind == "get-basic")
        topic = "orbicloud/downstream/get/" + device + "/device/basic";
    else if (kind == "get-storage")
        topic = "orbicloud/downstream/get/" + device + "/device/storage";
    else if (kind == "get-volume")
        topic = "orbicloud/downstream/get/" + device + "/device/volume";
    else if (kind == "unbinding")
        topic = "orbicloud/downstream/delete/" + device + "/unbinding/cirro";
    else
        throw std::invalid_argument("\"kind\" takes \"get-basic\", \"get-storage\", \"get-volume\", \"unbinding\"");
    // These requests carry nothing: the empty body record.
    const std::string payload = dumpJson(envelope(kind, "rq-" + randomHex(8), Json{{"dummy", ""}}));

    std::lock_guard<std::mutex> turn(m_clientMutex);
    if (!m_client)
        throw std::runtime_error("not connected to a broker");
    try {
        if (!m_client->publish(topic, payload.data(), payload.size(), downstreamQos, false)->wait_for(brokerWait))
            throw std::runtime_error("the broker did not confirm the message");
    } catch (const mqtt::exception &e) {
        throw std::runtime_error(std::string("cannot publish: ") + e.what());
    }
    Json sent = Json::object();
    sent["topic"] = topic;
    sent["payload"] = payload;
    std::lock_guard<std::mutex> lock(m_mutex);
    m_sent.push_back(sent);
    if (m_sent.size() > messageLimit)
        m_sent.pop_front();
    return sent;
}

Json DeviceService::messages() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    Json list = Json::array();
    for (const auto &entry : m_messages)
        list.push_back(entry);
    return list;
}

void DeviceService::clearMessages()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_messages.clear();
}

} // namespace cloudsim
