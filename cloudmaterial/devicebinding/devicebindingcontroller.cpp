#include "devicebindingcontroller.h"

#include "cloudmaterial/devicebinding/deviceinformation.h"
#include "cloudmaterial/devicebinding/devicemessagejson.h"
#include "cloudmaterial/devicebinding/devicetopics.h"
#include "cloudmaterial/logging.h"
#include "cloudmaterial/protocol/mqttclientwrapper.h"

#include <QDateTime>
#include <QMetaType>
#include <QSysInfo>
#include <QTimer>
#include <QUuid>

#include <exception>
#include <functional>
#include <vector>

namespace talvor::cloudmaterial {

namespace {

constexpr int ReportQos = 2;
constexpr int ReplyQos = 0;
constexpr int SubscriptionQos = 2;
constexpr int WillQos = 2;
constexpr int MaxRetries = 10000;
constexpr int PublishWaitSeconds = 3;
constexpr int LogoutDelayMs = 500;
constexpr const char *MessageVersion = "1.0";

std::string platformName()
{
#ifdef Q_OS_WIN
    return "Windows";
#else
    // Elsewhere the kernel's name in the platform's own spelling ("Linux", "Darwin").
    QString name = QSysInfo::kernelType();
    if (name == QLatin1String("linux"))
        name = QStringLiteral("Linux");
    else if (name == QLatin1String("darwin"))
        name = QStringLiteral("Darwin");
    return name.toStdString();
#endif
}

std::string freshRequestId()
{
    return QUuid::createUuid().toString(QUuid::WithoutBraces).toStdString();
}

template<typename Body>
std::string envelope(const char *content, const std::string &requestId, const Body &body)
{
    DeviceMessage<Body> message;
    message.header.content = content;
    message.header.requestId = requestId.empty() ? freshRequestId() : requestId;
    message.header.version = MessageVersion;
    message.body = body;
    ajson::string_stream ss;
    ajson::save_to(ss, message);
    return ss.str();
}

// A get request carries nothing but its header; its requestId is repeated in the reply.
std::string requestIdOf(const std::string &payload)
{
    EmptyMessage request;
    ajson::load_from_buff_nothrow(request, payload.c_str(), payload.size());
    return request.header.requestId;
}

} // namespace

struct Subscription
{
    int qos;
    std::string topic;
    std::function<void(const std::string &payload)> handler;
};

class DeviceBindingController::Private
{
public:
    std::string modelId;
    std::string sn;
    std::string username;
    std::string password;
    std::string deviceName;
    std::string customDeviceName;
    std::string softwareMainVersion;
    std::string serverUri;
    std::string clientId;

    std::unique_ptr<MqttClientWrapper> client;
    // Counts the clients made and stopped: what the library reports for an older one is dropped.
    quint64 generation = 0;
    std::vector<Subscription> handlers;
    QTimer logoutTimer;
    bool bound = false;
    int volume = 0;
    // Nothing reported yet: the first report always goes out.
    int lastReportedVolume = -1;

    std::string topic(std::string_view root, std::string_view suffix) const
    {
        return devicetopics::topic(root, modelId, sn, suffix);
    }

    bool publish(const std::string &topic, const std::string &payload, int qos) const
    {
        if (!client)
            return false;
        return client->publish(topic, payload, qos);
    }

    std::string offlinePayload() const
    {
        OfflineJson body;
        body.timestamp = QDateTime::currentMSecsSinceEpoch();
        return envelope("offline", {}, body);
    }

    BasicInfoJson basicInfo() const
    {
        BasicInfoJson body;
        body.brand = "orbi";
        body.series = "RM";
        body.deviceName = deviceName;
        body.productName = "Talvor RM5";
        body.customDeviceName = customDeviceName;
        body.modelId = modelId;
        body.sn = sn;
        body.mac = localMacAddress();
        body.localIp = localIpAddress();
        body.platformSystem = platformName();
        body.softwareMainVersion = softwareMainVersion;
        return body;
    }

    StorageInfoJson storageInfo() const
    {
        StorageInfoJson body;
        body.storage = diskList();
        for (const DiskJson &disk : body.storage) {
            body.capability += disk.capability;
            body.used += disk.used;
        }
        return body;
    }

    VolumeInfoJson volumeInfo() const
    {
        VolumeInfoJson body;
        body.value = volume;
        return body;
    }

    void dropClient()
    {
        ++generation;
        logoutTimer.stop();
        if (!client)
            return;
        client->stop();
        client.reset();
    }
};

DeviceBindingController::DeviceBindingController(QObject *parent)
    : QObject(parent)
    , d(std::make_unique<Private>())
{
    qRegisterMetaType<std::string>("std::string");
    d->logoutTimer.setSingleShot(true);
    d->logoutTimer.setInterval(LogoutDelayMs);
    // A coarse timer may fire up to 5 % early; the confirmation needs its full half second.
    d->logoutTimer.setTimerType(Qt::PreciseTimer);
    connect(&d->logoutTimer, &QTimer::timeout, this, &DeviceBindingController::sigLogout);
}

DeviceBindingController::~DeviceBindingController()
{
    d->dropClient();
}

void DeviceBindingController::setModelId(const std::string &modelId)
{
    d->modelId = modelId;
}

void DeviceBindingController::setSn(const std::string &sn)
{
    d->sn = sn;
}

void DeviceBindingController::setUserName(const std::string &userName)
{
    d->username = userName;
}

void DeviceBindingController::setPassword(const std::string &password)
{
    d->password = password;
}

void DeviceBindingController::setDeviceName(const std::string &deviceName)
{
    d->deviceName = deviceName;
}

void DeviceBindingController::setCustomDeviceName(const std::string &customDeviceName)
{
    d->customDeviceName = customDeviceName;
}

void DeviceBindingController::setSoftwareMainVersion(const std::string &version)
{
    d->softwareMainVersion = version;
}

void DeviceBindingController::setServerUri(const std::string &serverUri)
{
    d->serverUri = serverUri;
}

void DeviceBindingController::setClientId(const std::string &clientId)
{
    d->clientId = clientId;
}

void DeviceBindingController::setVolume(int volume)
{
    d->volume = volume;
}

bool DeviceBindingController::startMqtt()
{
    // A new account replaces the old session.
    d->dropClient();
    const quint64 generation = d->generation;
    try {
        d->client = std::make_unique<MqttClientWrapper>(d->serverUri, d->clientId);
    } catch (const std::exception &e) {
        // The library refuses a malformed URI before any connection is tried.
        RXCM_LOG_ERROR("create mqtt client exception: {}", e.what());
        return false;
    }
    MqttClientWrapper &client = *d->client;
    client.setUserName(d->username);
    client.setPassword(d->password);
    client.setMaxRetries(MaxRetries);
    client.setWaitTimeoutSeconds(PublishWaitSeconds);
    client.setWill(d->topic(devicetopics::upstreamReport, devicetopics::offline), d->offlinePayload(), WillQos);

    using namespace devicetopics;
    d->handlers = {
        {SubscriptionQos, d->topic(downstreamReply, binding),
         [this](const std::string &p) { handleBindingReplyMsg(p); }},
        {SubscriptionQos, d->topic(downstreamDelete, unbinding),
         [this](const std::string &p) { handleUnbindingMsg(p); }},
        {SubscriptionQos, d->topic(downstreamGet, storage), [this](const std::string &p) { handleGetStorageMsg(p); }},
        {SubscriptionQos, d->topic(downstreamGet, basic), [this](const std::string &p) { handleGetBasicMsg(p); }},
        {SubscriptionQos, d->topic(downstreamGet, volume), [this](const std::string &p) { handleGetVolumeMsg(p); }},
    };
    for (const Subscription &s : d->handlers)
        client.addSubscription(s.topic, s.qos);

    // Called on the library's thread: only post to ours, where the client may be gone already.
    client.setMessageHandler([this, generation](const std::string &topic, const std::string &payload) {
        QMetaObject::invokeMethod(
            this,
            [this, generation, topic, payload] {
                if (generation == d->generation)
                    slotHandleMsg(topic, payload);
            },
            Qt::QueuedConnection);
    });
    client.setConnectedHandler([this, generation] {
        QMetaObject::invokeMethod(
            this,
            [this, generation] {
                // After a broker restart the retained offline will stands; a bound device says it is back.
                if (generation == d->generation && d->bound && !reportOnline())
                    RXCM_LOG_ERROR("reportOnline error");
            },
            Qt::QueuedConnection);
    });
    return client.start();
}

bool DeviceBindingController::stopMqtt()
{
    d->bound = false;
    // What the stopped client still reports, and a logout it scheduled, are dropped.
    ++d->generation;
    d->logoutTimer.stop();
    if (!d->client)
        return false;
    d->client->stop();
    RXCM_LOG_INFO("stop mqtt");
    return true;
}

void DeviceBindingController::clear()
{
    stopMqtt();
    d->client.reset();
    d->handlers.clear();
    d->username.clear();
    d->password.clear();
    d->serverUri.clear();
    d->clientId.clear();
    d->lastReportedVolume = -1;
}

bool DeviceBindingController::isBound() const
{
    return d->bound;
}

bool DeviceBindingController::reportOnline()
{
    OnlineJson body;
    body.type = "online";
    body.platform = platformName();
    return d->publish(d->topic(devicetopics::upstreamReport, devicetopics::online), envelope("online", {}, body),
                      ReportQos);
}

bool DeviceBindingController::reportOffline()
{
    return d->publish(d->topic(devicetopics::upstreamReport, devicetopics::offline), d->offlinePayload(), ReportQos);
}

bool DeviceBindingController::reportBinding()
{
    BindingRequestJson body;
    body.username = d->username;
    body.password = d->password;
    body.mac = localMacAddress();
    body.sn = d->sn;
    body.modelId = d->modelId;
    body.deviceName = d->deviceName;
    body.customDeviceName = d->customDeviceName;
    return d->publish(d->topic(devicetopics::upstreamPost, devicetopics::binding), envelope("binding", {}, body),
                      ReportQos);
}

bool DeviceBindingController::reportBasicInfo()
{
    return d->publish(d->topic(devicetopics::upstreamReport, devicetopics::basic),
                      envelope("basic", {}, d->basicInfo()), ReportQos);
}

bool DeviceBindingController::reportStorageInfo()
{
    return d->publish(d->topic(devicetopics::upstreamReport, devicetopics::storage),
                      envelope("storage", {}, d->storageInfo()), ReportQos);
}

bool DeviceBindingController::reportVolumeInfo()
{
    if (!d->bound || !d->client || !d->client->is_connected())
        return false;
    if (d->volume == d->lastReportedVolume) {
        RXCM_LOG_INFO("VolumeInfoJson is not changed");
        return false;
    }
    d->lastReportedVolume = d->volume;
    return d->publish(d->topic(devicetopics::upstreamReport, devicetopics::volume),
                      envelope("volume", {}, d->volumeInfo()), ReportQos);
}

bool DeviceBindingController::reportUnbinding()
{
    return d->publish(d->topic(devicetopics::upstreamDelete, devicetopics::unbinding),
                      envelope("unbinding", {}, EmptyJson{}), ReportQos);
}

bool DeviceBindingController::replyBasicInfo(const std::string &requestId)
{
    return d->publish(d->topic(devicetopics::upstreamReply, devicetopics::basic),
                      envelope("basic", requestId, d->basicInfo()), ReplyQos);
}

bool DeviceBindingController::replyStorageInfo(const std::string &requestId)
{
    return d->publish(d->topic(devicetopics::upstreamReply, devicetopics::storage),
                      envelope("storage", requestId, d->storageInfo()), ReplyQos);
}

bool DeviceBindingController::replyVolumeInfo(const std::string &requestId)
{
    return d->publish(d->topic(devicetopics::upstreamReply, devicetopics::volume),
                      envelope("volume", requestId, d->volumeInfo()), ReplyQos);
}

void DeviceBindingController::slotHandleMsg(const std::string &topic, const std::string &payload)
{
    for (const Subscription &s : d->handlers) {
        if (s.topic == topic) {
            s.handler(payload);
            return;
        }
    }
    RXCM_LOG_INFO("not found topic: {}", topic);
}

void DeviceBindingController::handleBindingReplyMsg(const std::string &payload)
{
    RXCM_LOG_INFO("binding reply: {}", payload);
    d->bound = true;
    if (!reportOnline())
        RXCM_LOG_ERROR("reportOnline error");
    if (!reportBasicInfo())
        RXCM_LOG_ERROR("reportBasicInfo error");
}

void DeviceBindingController::handleUnbindingMsg(const std::string &payload)
{
    RXCM_LOG_INFO("unbinding reply: {}", payload);
    // The device confirms first; only a confirmed unbinding ends the session, a little later so
    // the confirmation leaves before the logout tears the connection down.
    if (!reportUnbinding()) {
        RXCM_LOG_ERROR("reportUnbinding error");
        return;
    }
    d->logoutTimer.start();
}

void DeviceBindingController::handleGetStorageMsg(const std::string &payload)
{
    RXCM_LOG_INFO("get storage : {}", payload);
    if (!replyStorageInfo(requestIdOf(payload)))
        RXCM_LOG_ERROR("replyStorageInfo error");
}

void DeviceBindingController::handleGetBasicMsg(const std::string &payload)
{
    RXCM_LOG_INFO("get basic: {}", payload);
    if (!replyBasicInfo(requestIdOf(payload)))
        RXCM_LOG_ERROR("replyBasicInfo error");
}

void DeviceBindingController::handleGetVolumeMsg(const std::string &payload)
{
    RXCM_LOG_INFO("get volume: {}", payload);
    if (!replyVolumeInfo(requestIdOf(payload)))
        RXCM_LOG_ERROR("replyVolumeInfo error");
}

} // namespace talvor::cloudmaterial
