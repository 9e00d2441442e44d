#include "cloudmaterial/messagingstart.h"

#include "cloudmaterial/logging.h"
#include "cloudmaterial/login/logincontroller.h"
#include "cloudmaterial/login/loginjson.h"
#include "cloudmaterial/login/nodesjson.h"
#include "cloudmaterial/protocol/ajsonex.h"
#include "cloudmaterial/protocol/crypto.h"
#include "cloudmaterial/protocol/gateway.h"
#include "cloudmaterial/protocol/httpclientwrapper.h"
#include "cloudmaterial/workerpool.h"

#include <QDateTime>
#include <QUuid>

#include <exception>

namespace talvor::cloudmaterial {

class MessagingStart::Private
{
public:
    Private(MessagingStart *q, HttpClientWrapper *http, std::shared_ptr<WorkerPool> pool)
        : q(q)
        , http(http)
        , pool(std::move(pool))
    {
    }

    // Worker thread: the blocking steps; only the request's copies and the HTTP client.
    void handleMqtt(const Request &request);
    // One wrap-encrypt-send of the key message to one authentication endpoint.
    std::string requestMqttAccount(const DnsEndpoint &endpoint, const std::string &keyMessage,
                                   const std::string &token);

    MessagingStart *const q;
    HttpClientWrapper *const http;
    std::shared_ptr<WorkerPool> const pool;
};

std::string MessagingStart::Private::requestMqttAccount(const DnsEndpoint &endpoint, const std::string &keyMessage,
                                                        const std::string &token)
{
    const std::string pem = "-----BEGIN PUBLIC KEY-----\n" + endpoint.publicKey + "\n-----END PUBLIC KEY-----";
    DeviceCreditRequest request;
    request.authCiphertext = rsaPublicEncrypt(keyMessage, pem.c_str());
    request.type = "1";
    if (request.authCiphertext.empty() || endpoint.mqttAuthUrl.empty())
        return {};
    ajson::string_stream body;
    ajson::save_to(body, request);
    const HttpReply reply = gateway::authenticatedPost(*http, endpoint.mqttAuthUrl, body.str(), token);
    if (!reply.ok)
        return {};
    MqttAuthReply parsed;
    ajson::load_from_buff_nothrow(parsed, reply.body.c_str(), reply.body.size());
    return parsed.data;
}

void MessagingStart::Private::handleMqtt(const Request &request)
{
    if (!request.ticket.isLive())
        return;
    const std::string clientId = QUuid::createUuid().toString().toStdString();
    RXCM_LOG_INFO("mqtt client id: {}", clientId);
    if (request.nodeIdentity.empty()) {
        RXCM_LOG_ERROR("_currentNodeIdentity is empty, mqtt create fail!!!");
        return;
    }
    const GlobalDNSJson dns = LoginController::getGlobalDnsAddr(*http, request.controlUrl);
    if (!request.ticket.isLive())
        return;

    std::string key;
    try {
        key = generateAesKey(256);
    } catch (const std::exception &e) {
        RXCM_LOG_ERROR("generateAesKey exception: {}", e.what());
        return;
    }
    // The key message expires 6 s after it is made.
    const std::string keyMessage = std::string(productCode) + "||" + base64Encode(key) + "||"
        + std::to_string(QDateTime::currentMSecsSinceEpoch() + 6000);

    std::string encryptedAccount = requestMqttAccount(dns.data.main, keyMessage, request.token);
    if (encryptedAccount.empty() && !dns.data.slave.empty() && request.ticket.isLive())
        encryptedAccount = requestMqttAccount(dns.data.slave.front(), keyMessage, request.token);
    if (!request.ticket.isLive())
        return;

    std::string plain;
    try {
        plain = aesEcbDecrypt(base64Decode(encryptedAccount), key);
    } catch (const std::exception &e) {
        RXCM_LOG_ERROR("aesEcbDecrypt exception: {}", e.what());
        return;
    }
    RXCM_LOG_INFO("MQTT: {}", plain);
    MqttAccountJson mqtt;
    ajson::load_from_buff_nothrow(mqtt, plain.c_str(), plain.size());

    Account account{clientId, mqtt.url, mqtt.username, mqtt.password};
    const BindingAccountJson binding = playerAuth(*http, request.nodeHost, request.token);
    if (isComplete(binding)) {
        account.username = binding.value.cirro.username;
        account.password = binding.value.cirro.password;
    }
    if (!request.ticket.isLive())
        return;
    // The binding's MQTT client and its handlers belong to the owner's thread.
    QMetaObject::invokeMethod(
        q,
        [q = q, request, account] {
            if (request.ticket.isLive())
                Q_EMIT q->accountReady(request, account);
        },
        Qt::QueuedConnection);
}

MessagingStart::MessagingStart(HttpClientWrapper *http, std::shared_ptr<WorkerPool> pool, QObject *parent)
    : QObject(parent)
    , d(std::make_unique<Private>(this, http, std::move(pool)))
{
}

MessagingStart::~MessagingStart() = default;

void MessagingStart::start(const Request &request)
{
    d->pool->enqueue([d = d.get(), request] { d->handleMqtt(request); });
}

BindingAccountJson MessagingStart::playerAuth(HttpClientWrapper &http, const std::string &nodeHost,
                                              const std::string &token)
{
    // The one gateway call that names its service in Base64 and carries only the token.
    const std::string url = gateway::serviceUrl(nodeHost, base64Encode("v1/web-backend-service/player/auth"));
    const HttpReply reply = http.get(url, {{"authorization", token}}, true);
    BindingAccountJson account;
    ajson::load_from_buff_nothrow(account, reply.body.c_str(), reply.body.size());
    return account;
}

bool MessagingStart::isComplete(const BindingAccountJson &account)
{
    return !account.value.cirro.username.empty() && !account.value.cirro.password.empty();
}

} // namespace talvor::cloudmaterial
