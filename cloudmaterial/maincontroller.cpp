#include "cloudmaterial/maincontroller.h"

#include "cloudmaterial/bindingaccountjson.h"
#include "cloudmaterial/cloudmateriallist/cloudmaterialcontroller.h"
#include "cloudmaterial/devicebinding/devicebinding.h"
#include "cloudmaterial/devicebinding/devicebindingcontroller.h"
#include "cloudmaterial/configstore.h"
#include "cloudmaterial/logging.h"
#include "cloudmaterial/login/logincontroller.h"
#include "cloudmaterial/login/nodesjson.h"
#include "cloudmaterial/multimachine/multimachineproxyhandler.h"
#include "cloudmaterial/protocol/crypto.h"
#include "cloudmaterial/protocol/httpclientwrapper.h"
#include "cloudmaterial/translatemanager.h"
#include "cloudmaterial/workerpool.h"

#include <hvtheme/theme.h>

#include <QCoreApplication>
#include <QLoggingCategory>
#include <QNetworkConfigurationManager>
#include <QDateTime>
#include <QSettings>
#include <QUuid>

#include <mutex>

Q_LOGGING_CATEGORY(lcController, "rxcm.controller", QtInfoMsg)

namespace talvor::cloudmaterial {

class MainController::Private
{
public:
    explicit Private(MainController *q)
        : q(q)
    {
        materials->setWorkerPool(pool);
    }

    void applyTheme(const QString &themeFile);
    void applyDialogStyleSheets();
    void connectLogin();
    void connectDevices();
    // The node and identity of a saved session become the current ones.
    void adoptSessionNode(const TokenInfoJson &session)
    {
        login.resetNodeState();
        login.restoreSession();
        currentNode = session.currentNode;
        currentNodeIdentity = session.currentNodeIdentity;
        materials->setNode(session.currentNode);
    }
    // One wrap-encrypt-send of the key message to one authentication endpoint.
    std::string requestMqttAccount(const DnsEndpoint &endpoint, const std::string &keyMessage);

    std::shared_ptr<WorkerPool> pool = std::make_shared<WorkerPool>(1);
    HttpClientWrapper http{pool};
    LoginController login{&http};
    std::shared_ptr<CloudMaterialController> materials = std::make_shared<CloudMaterialController>(&http);
    DeviceBindingController devices;
    DeviceBinding binding{&devices};

    IRXRuntime *runtime = nullptr;
    MultimachineProxyClient *proxyClient = nullptr;
    MultimachineProxyServer *proxyServer = nullptr;
    std::unique_ptr<MultimachineProxyHandler> proxyHandler;

    QString styleSheet; // the module's part of the application style sheet
    std::string currentLanguage = "cn";
    std::string currentNode;
    std::string currentNodeIdentity;
    std::string serialNumber;

    // Settings kept here until the parts that use them take them over.
    mutable std::mutex settingsMutex; // read by the worker thread's messaging start
    std::string appVersion;
    std::string deviceName;
    int volume = 0;

    MainController *const q;
};

void MainController::Private::applyTheme(const QString &themeFile)
{
    QSettings settings(themeFile, QSettings::IniFormat);
    HV::Theme::readSettings(settings);
    const QString name = settings.value(QStringLiteral("QSS")).toString();
    const QString sheet = HV::readStyleSheet(QStringLiteral(":/cloudmaterialtheme/stylesheet"), name);
    if (sheet.isEmpty())
        qCWarning(lcController) << "no style sheet" << name << "for the theme" << themeFile;
    HV::replaceStyleSheet(styleSheet, sheet);
    styleSheet = sheet;
    applyDialogStyleSheets();
}

void MainController::Private::applyDialogStyleSheets()
{
    const QString folder = QStringLiteral(":/cloudmaterialtheme/stylesheet");
    login.setStyleSheet(HV::readStyleSheet(folder, QStringLiteral("loginwidget.qss"))
                        + HV::readStyleSheet(folder, QStringLiteral("loginverify.qss")));
}

void MainController::Private::connectLogin()
{
    QObject::connect(&login, &LoginController::tokenChanged, q,
                     [this](const std::string &token) { materials->setToken(token); });
    QObject::connect(&login, &LoginController::sigCurrentNodeChanged, q,
                     [this](const QString &node, const QString &identity) {
                         currentNode = node.toStdString();
                         currentNodeIdentity = identity.toStdString();
                         materials->setNode(currentNode);
                     });
    QObject::connect(&login, &LoginController::sigLoginSucceeded, q, [this] {
        const TokenInfoJson session = ConfigStore::instance().tokenInfo();
        // The node the login used is the one the catalogue and the player authorization use.
        if (!session.currentNode.empty()) {
            currentNode = session.currentNode;
            currentNodeIdentity = session.currentNodeIdentity;
            materials->setNode(session.currentNode);
        }
        Q_EMIT q->loginSuccess(session.username);
        materials->requestRefresh(true);
    });
    QObject::connect(&login, &LoginController::sigLogoutSucceeded, q, [this] {
        Q_EMIT q->exitLoginSuccess();
        binding.stop();
        materials->clear();
    });
}

void MainController::Private::connectDevices()
{
    // The cloud removed this device from the account: log the user out everywhere.
    QObject::connect(&devices, &DeviceBindingController::sigLogout, q, [this] {
        Q_EMIT q->exitLoginSuccess();
        materials->clear();
        Q_EMIT login.tokenChanged(std::string());
        binding.stop();
        ConfigStore::instance().setTokenInfo(TokenInfoJson());
        login.resetNodeState();
    });
}

std::string MainController::Private::requestMqttAccount(const DnsEndpoint &endpoint, const std::string &keyMessage)
{
    const std::string pem = "-----BEGIN PUBLIC KEY-----\n" + endpoint.publicKey + "\n-----END PUBLIC KEY-----";
    DeviceCreditRequest request;
    request.authCiphertext = rsaPublicEncrypt(keyMessage, pem.c_str());
    request.type = "1";
    if (request.authCiphertext.empty() || endpoint.mqttAuthUrl.empty())
        return {};
    ajson::string_stream body;
    ajson::save_to(body, request);
    const HttpReply reply = login.authenticatedPost(endpoint.mqttAuthUrl, body.str());
    if (!reply.ok)
        return {};
    MqttAuthReply parsed;
    ajson::load_from_buff_nothrow(parsed, reply.body.c_str(), reply.body.size());
    return parsed.data;
}

MainController &MainController::instance()
{
    static MainController controller;
    return controller;
}

MainController::MainController()
    : d(std::make_unique<Private>(this))
{
    qRegisterMetaType<std::string>("std::string");
    d->materials->init();
    d->connectLogin();
    d->connectDevices();
    d->applyDialogStyleSheets();
    // This singleton outlives QApplication (static destruction), but widgets must not:
    // the application's destructor runs post routines while widgets can still be deleted.
    qAddPostRoutine(&MainController::releaseWidgets);
    connect(d->materials.get(), &CloudMaterialController::sigDownloadSuccess, this,
            &MainController::sigDownloadSuccess);
}

MainController::~MainController() = default;

void MainController::setRXRuntime(IRXRuntime *runtime, MultimachineProxyClient *client,
                                  MultimachineProxyServer *server)
{
    d->runtime = runtime;
    d->proxyClient = client;
    d->proxyServer = server;
    d->proxyHandler = std::make_unique<MultimachineProxyHandler>(client, server, this, d->materials);
}

void MainController::setAppConfigPath(const std::string &path)
{
    ConfigStore::instance().setConfigPath(path);
    RXCM_LOG_INFO("AppConfigPath: {}", path);
}

void MainController::setAppVersion(const std::string &version)
{
    {
        std::lock_guard<std::mutex> lock(d->settingsMutex);
        d->appVersion = version;
    }
    d->devices.setSoftwareMainVersion(version);
}

void MainController::setDeviceName(const std::string &name)
{
    {
        std::lock_guard<std::mutex> lock(d->settingsMutex);
        d->deviceName = name;
    }
    d->devices.setDeviceName(name);
    d->devices.setCustomDeviceName(name);
}

void MainController::setSerialNumber(const std::string &serialNumber)
{
    {
        std::lock_guard<std::mutex> lock(d->settingsMutex);
        d->serialNumber = serialNumber;
    }
    d->login.setSerialNumber(serialNumber);
}

std::string MainController::mapLanguage(std::string_view code)
{
    static constexpr std::pair<std::string_view, std::string_view> table[] = {
        {"zh_CN", "cn"}, {"zh_TW", "tw"}, {"korean", "ko_KR"}, {"en", "en"}, {"russian", "ru_RU"},
    };
    for (const auto &[host, module] : table) {
        if (code == host)
            return std::string(module);
    }
    return std::string(code);
}

void MainController::setCurrentLanguage(std::string_view code)
{
    d->currentLanguage = mapLanguage(code);
    TranslateManager::instance().setLanguage(d->currentLanguage);
    d->login.setLanguage(d->currentLanguage);
}

void MainController::setCloudMaterialFolderPath(const std::string &path)
{
    d->materials->setCloudMaterialFolderPath(path);
}

void MainController::updateVolume(int volume)
{
    {
        std::lock_guard<std::mutex> lock(d->settingsMutex);
        d->volume = volume;
    }
    d->devices.setVolume(volume);
    if (d->devices.isBound())
        d->devices.reportVolumeInfo();
}

void MainController::setStarDragCallback(const StarDragCallback &callback)
{
    d->materials->setStarDragCallback(callback);
}

void MainController::login()
{
    d->login.resetNodeState();
    const TokenInfoJson session = ConfigStore::instance().tokenInfo();
    if (!session.currentNodeIdentity.empty() && !session.currentNode.empty())
        d->materials->setNode(session.currentNode);
    d->login.setLanguage(d->currentLanguage);
    d->login.prepareLogin();
    d->login.showLoginDialog();
}

bool MainController::autoLogin()
{
    const TokenInfoJson session = ConfigStore::instance().tokenInfo();
    if (session.auth.empty())
        return false;
    d->adoptSessionNode(session);

    const BindingAccountJson account = playerAuth(session.auth);
    if (account.value.cirro.username.empty() || account.value.cirro.password.empty())
        return false;
    Q_EMIT loginSuccess(session.username);
    Q_EMIT d->login.tokenChanged(session.auth);
    d->materials->requestRefresh(true);
    return true;
}

BindingAccountJson MainController::playerAuth(const std::string &token)
{
    const std::string url = "https://" + d->currentNode + "/gateway/apis?cirro="
        + base64Encode("v1/web-backend-service/player/auth");
    const HttpReply reply = d->http.get(url, {{"authorization", token}}, true);
    BindingAccountJson account;
    ajson::load_from_buff_nothrow(account, reply.body.c_str(), reply.body.size());
    return account;
}

void MainController::exitLoginVerify()
{
    d->login.exitLoginVerify();
}

QWidget *MainController::cloudMaterialList()
{
    return d->materials->listWidget();
}

void MainController::loadTheme(const std::string &themeFile)
{
    d->applyTheme(QString::fromStdString(themeFile));
}

void MainController::clear()
{
    d->devices.clear();
}

bool MainController::isNetworkAvailable() const
{
    QT_WARNING_PUSH
    QT_WARNING_DISABLE_DEPRECATED
    // Qt 5's only portable "is any network up" query; its deprecation is about bearer
    // management, which this answer does not need.
    return QNetworkConfigurationManager().isOnline();
    QT_WARNING_POP
}

void MainController::releaseWidgets()
{
    instance().d->login.releaseWidgets();
}

void MainController::startMqttFromSavedSession()
{
    d->adoptSessionNode(ConfigStore::instance().tokenInfo());
    startMqtt();
}

void MainController::startMqtt()
{
    d->pool->enqueue([this] { handleMqtt(); });
}

void MainController::handleMqtt()
{
    static const std::string productCode = "100001";

    d->binding.setSerialNumber(serialNumber());
    const std::string identity = d->login.currentNodeIdentity().empty() ? d->currentNodeIdentity
                                                                         : d->login.currentNodeIdentity();
    const std::string clientId = QUuid::createUuid().toString().toStdString();
    RXCM_LOG_INFO("mqtt client id: {}", clientId);
    d->binding.setClientId(clientId);
    d->binding.setProductCode(productCode);

    if (identity.empty()) {
        RXCM_LOG_ERROR("_currentNodeIdentity is empty, mqtt create fail!!!");
        return;
    }
    const GlobalDNSJson dns = d->login.getGlobalDnsAddr();

    std::string key;
    try {
        key = generateAesKey(256);
    } catch (const std::exception &e) {
        RXCM_LOG_ERROR("generateAesKey exception: {}", e.what());
        return;
    }
    // The key message expires 6 s after it is made.
    const std::string keyMessage = productCode + "||" + base64Encode(key) + "||"
        + std::to_string(QDateTime::currentMSecsSinceEpoch() + 6000);

    std::string encryptedAccount = d->requestMqttAccount(dns.data.main, keyMessage);
    if (encryptedAccount.empty() && !dns.data.slave.empty())
        encryptedAccount = d->requestMqttAccount(dns.data.slave.front(), keyMessage);

    std::string plain;
    try {
        plain = aesEcbDecrypt(base64Decode(encryptedAccount), key);
    } catch (const std::exception &e) {
        RXCM_LOG_ERROR("aesEcbDecrypt exception: {}", e.what());
        return;
    }
    RXCM_LOG_INFO("MQTT: {}", plain);
    MqttAccountJson account;
    ajson::load_from_buff_nothrow(account, plain.c_str(), plain.size());

    d->binding.setBrokerUrl(account.url);
    d->devices.setUserName(account.username);
    d->devices.setPassword(account.password);
    const TokenInfoJson session = ConfigStore::instance().tokenInfo();
    const BindingAccountJson binding = playerAuth(session.auth);
    if (!binding.value.cirro.username.empty() && !binding.value.cirro.password.empty()) {
        d->devices.setUserName(binding.value.cirro.username);
        d->devices.setPassword(binding.value.cirro.password);
    }
    d->binding.bind();
}

std::string MainController::token() const
{
    return ConfigStore::instance().tokenInfo().auth;
}

std::string MainController::userId() const
{
    return std::to_string(ConfigStore::instance().tokenInfo().id);
}

std::string MainController::node() const
{
    return ConfigStore::instance().tokenInfo().currentNodeIdentity;
}

std::string MainController::currentLanguage() const
{
    return d->currentLanguage;
}

std::string MainController::serialNumber() const
{
    std::lock_guard<std::mutex> lock(d->settingsMutex);
    return d->serialNumber;
}

std::string MainController::appVersion() const
{
    std::lock_guard<std::mutex> lock(d->settingsMutex);
    return d->appVersion;
}

std::string MainController::deviceName() const
{
    std::lock_guard<std::mutex> lock(d->settingsMutex);
    return d->deviceName;
}

std::string MainController::cloudMaterialFolderPath() const
{
    return d->materials->cloudMaterialFolderPath();
}

int MainController::volume() const
{
    std::lock_guard<std::mutex> lock(d->settingsMutex);
    return d->volume;
}

bool MainController::hasStarDragCallback() const
{
    return bool(d->materials->starDragCallback());
}

IRXRuntime *MainController::runtime() const
{
    return d->runtime;
}

std::shared_ptr<WorkerPool> MainController::workerPool() const
{
    return d->pool;
}

std::shared_ptr<CloudMaterialController> MainController::materialController() const
{
    return d->materials;
}

LoginController &MainController::loginController() const
{
    return d->login;
}

} // namespace talvor::cloudmaterial
