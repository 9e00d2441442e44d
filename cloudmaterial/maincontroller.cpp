#include "cloudmaterial/maincontroller.h"
#include "cloudmaterial/maincontroller_p.h"

#include "cloudmaterial/cloudmateriallist/cloudmaterialcontroller.h"
#include "cloudmaterial/cloudmateriallist/detailwidget.h"
#include "cloudmaterial/configstore.h"
#include "cloudmaterial/currentnode.h"
#include "cloudmaterial/devicebinding/devicebinding.h"
#include "cloudmaterial/devicebinding/devicebindingcontroller.h"
#include "cloudmaterial/logging.h"
#include "cloudmaterial/login/logincontroller.h"
#include "cloudmaterial/messagingstart.h"
#include "cloudmaterial/multimachine/multimachineproxyhandler.h"
#include "cloudmaterial/protocol/httpclientwrapper.h"
#include "cloudmaterial/protocol/reachability.h"
#include "cloudmaterial/sessionticket.h"
#include "cloudmaterial/stdstringmetatype_p.h"
#include "cloudmaterial/translatemanager.h"
#include "cloudmaterial/workerpool.h"

#include <hvtheme/theme.h>

#include <QCoreApplication>
#include <QFileInfo>
#include <QLoggingCategory>
#include <QPointer>
#include <QSettings>

#include <utility>

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
    // The default theme file beside the host's executable and the default language, unless the host chose them.
    void ensureDefaults();
    void applyDialogStyleSheets();
    void connectLogin();
    void connectDevices();
    // The node of a saved session becomes the current one.
    void adoptSessionNode(const TokenInfoJson &session)
    {
        login.resetNodeState();
        login.restoreSession();
        node.set(session.currentNode, session.currentNodeIdentity);
    }
    // Logout, unbinding or clear(): whatever was started for the session stops here.
    void endSession()
    {
        messaging.end();
        devices.clear();
        materials->clear();
    }
    void startMessaging();
    // The messaging account arrived; binds unless the module closed meanwhile.
    void bind(const MessagingStart::Request &start, const MessagingStart::Account &account);
    void tearDown();

    // Declared first: the parts below read it.
    CurrentNode node;
    std::shared_ptr<WorkerPool> pool = std::make_shared<WorkerPool>(1);
    HttpClientWrapper http{pool};
    MessagingStart messagingStart{&http, pool};
    LoginController login{&http, &node};
    std::shared_ptr<CloudMaterialController> materials = std::make_shared<CloudMaterialController>(&http, &node);
    DeviceBindingController devices;
    DeviceBinding binding{&devices};

    QPointer<DetailWidget> panel;
    IRXRuntime *runtime = nullptr;
    MultimachineProxyClient *proxyClient = nullptr;
    MultimachineProxyServer *proxyServer = nullptr;
    std::unique_ptr<MultimachineProxyHandler> proxyHandler;

    QString styleSheet; // the module's part of the application style sheet
    bool themeChosen = false; // by loadTheme(), or the default one read once
    std::string currentLanguage = "cn";
    std::string serialNumber;
    std::string appVersion;
    std::string deviceName;
    int volume = 0;

    Session messaging; // the newest messaging start; a newer one or the session's end ends it
    bool closed = false; // torn down at exit

    MainController *const q;
};

void MainController::Private::ensureDefaults()
{
    // A host that never set a language would see the translation keys themselves.
    if (TranslateManager::instance().language().empty()) {
        qCInfo(lcController) << "no language set by the host; using" << currentLanguage.c_str();
        TranslateManager::instance().setLanguage(currentLanguage);
    }
    if (std::exchange(themeChosen, true))
        return;
    const QString file =
        QCoreApplication::applicationDirPath() + QStringLiteral("/cloudmaterialtheme/cloudmaterial.theme");
    if (QFileInfo::exists(file))
        applyTheme(file);
    else
        qCInfo(lcController) << "no default theme at" << file;
}

void MainController::Private::applyTheme(const QString &themeFile)
{
    themeChosen = true;
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
    // The login writes the current node itself; the token goes to the catalogue.
    QObject::connect(&login, &LoginController::tokenChanged, q,
                     [this](const std::string &token) { materials->setToken(token); });
    QObject::connect(&login, &LoginController::sigLoginSucceeded, q, [this] {
        if (closed)
            return;
        const TokenInfoJson session = ConfigStore::instance().tokenInfo();
        Q_EMIT q->loginSuccess(session.username);
        materials->requestSessionRefresh();
    });
    QObject::connect(&login, &LoginController::sigLogoutSucceeded, q, [this] {
        Q_EMIT q->exitLoginSuccess();
        endSession();
    });
}

void MainController::Private::connectDevices()
{
    // The cloud removed this device from the account: log the user out everywhere.
    QObject::connect(&devices, &DeviceBindingController::sigLogout, q, [this] {
        Q_EMIT q->exitLoginSuccess();
        Q_EMIT login.tokenChanged(std::string());
        endSession();
        ConfigStore::instance().setTokenInfo(TokenInfoJson());
        login.resetNodeState();
    });
}

void MainController::Private::startMessaging()
{
    if (closed)
        return;
    MessagingStart::Request start;
    // The newest start wins: one still queued or running for an older one stops at its next step.
    start.ticket = messaging.begin();
    start.nodeHost = node.host();
    start.nodeIdentity = node.identity();
    start.token = ConfigStore::instance().tokenInfo().auth;
    start.controlUrl = ConfigStore::instance().config().mqttControl;
    start.serialNumber = serialNumber;
    messagingStart.start(start);
}

void MainController::Private::bind(const MessagingStart::Request &start, const MessagingStart::Account &account)
{
    if (closed || !start.ticket.isLive())
        return;
    binding.setSerialNumber(start.serialNumber);
    binding.setClientId(account.clientId);
    binding.setProductCode(MessagingStart::productCode);
    binding.setBrokerUrl(account.brokerUrl);
    devices.setUserName(account.username);
    devices.setPassword(account.password);
    binding.bind();
}

// Runs while the application, and so the host's logger, still exist; afterwards the module
// neither logs nor sends anything.
void MainController::Private::tearDown()
{
    if (closed)
        return;
    closed = true;
    messaging.end();
    materials->shutdown();
    // Calls in flight return at once; the worker's network access manager goes on the worker.
    http.shutdown();
    devices.clear();
    // What is still queued sees its ended session or the closed HTTP client, and returns.
    pool->stop();
    login.releaseWidgets();
    logging::disable();
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
    connect(&d->messagingStart, &MessagingStart::accountReady, this,
            [this](const MessagingStart::Request &start, const MessagingStart::Account &account) {
                d->bind(start, account);
            });
    d->applyDialogStyleSheets();
    // This singleton outlives QApplication (static destruction), but the threads, the MQTT
    // session and the widgets must not: the application's destructor runs post routines
    // while the host's logger and the application still exist.
    qAddPostRoutine(&MainController::tearDown);
    connect(d->materials.get(), &CloudMaterialController::sigDownloadSuccess, this,
            &MainController::sigDownloadSuccess);
}

MainController::~MainController()
{
    // Without an application's post routine (none was made, or it never ended) the host's
    // logger may already be gone: tear down without a word.
    logging::disable();
    d->tearDown();
}

void MainController::setRXRuntime(IRXRuntime *runtime, MultimachineProxyClient *client, MultimachineProxyServer *server)
{
    d->runtime = runtime;
    d->proxyClient = client;
    d->proxyServer = server;
    ProxyModuleCalls module;
    module.startMessaging = [this] { startMqttFromSavedSession(); };
    module.setSerialNumber = [this](const std::string &value) { setSerialNumber(value); };
    module.setCurrentLanguage = [this](const std::string &value) { setCurrentLanguage(value); };
    module.setDeviceName = [this](const std::string &value) { setDeviceName(value); };
    module.setAppVersion = [this](const std::string &value) { setAppVersion(value); };
    module.setAppConfigPath = [this](const std::string &value) { setAppConfigPath(value); };
    d->proxyHandler = std::make_unique<MultimachineProxyHandler>(client, server, std::move(module), d->materials);
}

void MainController::setAppConfigPath(const std::string &path)
{
    ConfigStore::instance().setConfigPath(path);
    RXCM_LOG_INFO("AppConfigPath: {}", path);
}

void MainController::setAppVersion(const std::string &version)
{
    d->appVersion = version;
    d->devices.setSoftwareMainVersion(version);
}

void MainController::setDeviceName(const std::string &name)
{
    d->deviceName = name;
    d->devices.setDeviceName(name);
    d->devices.setCustomDeviceName(name);
}

void MainController::setSerialNumber(const std::string &serialNumber)
{
    d->serialNumber = serialNumber;
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
    d->volume = volume;
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
    if (d->closed)
        return;
    d->login.resetNodeState();
    const TokenInfoJson session = ConfigStore::instance().tokenInfo();
    if (!session.currentNodeIdentity.empty() && !session.currentNode.empty())
        d->node.set(session.currentNode, session.currentNodeIdentity);
    d->login.setLanguage(d->currentLanguage);
    d->ensureDefaults();
    d->login.prepareLogin();
    d->login.showLoginDialog();
}

bool MainController::autoLogin()
{
    if (d->closed)
        return false;
    const TokenInfoJson session = ConfigStore::instance().tokenInfo();
    if (session.auth.empty())
        return false;
    d->adoptSessionNode(session);

    if (!MessagingStart::isComplete(MessagingStart::playerAuth(d->http, d->node.host(), session.auth)))
        return false;
    Q_EMIT loginSuccess(session.username);
    Q_EMIT d->login.tokenChanged(session.auth);
    d->materials->requestSessionRefresh();
    return true;
}

void MainController::exitLoginVerify()
{
    d->login.exitLoginVerify();
}

QWidget *MainController::cloudMaterialList()
{
    d->ensureDefaults();
    // One panel per module; the host owns it once it embeds it.
    if (!d->panel)
        d->panel = new DetailWidget(d->materials.get());
    return d->panel;
}

void MainController::loadTheme(const std::string &themeFile)
{
    d->applyTheme(QString::fromStdString(themeFile));
}

void MainController::clear()
{
    d->endSession();
}

bool MainController::isNetworkAvailable() const
{
    return reachability::networkOnline();
}

void MainController::tearDown()
{
    instance().d->tearDown();
}

void MainController::startMqttFromSavedSession()
{
    d->adoptSessionNode(ConfigStore::instance().tokenInfo());
    startMqtt();
}

void MainController::startMqtt()
{
    d->startMessaging();
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
    return d->serialNumber;
}

std::string MainController::appVersion() const
{
    return d->appVersion;
}

std::string MainController::deviceName() const
{
    return d->deviceName;
}

std::string MainController::cloudMaterialFolderPath() const
{
    return d->materials->cloudMaterialFolderPath();
}

int MainController::volume() const
{
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

std::shared_ptr<WorkerPool> MainControllerInternals::workerPool(const MainController &controller)
{
    return controller.d->pool;
}

std::shared_ptr<CloudMaterialController> MainControllerInternals::materialController(const MainController &controller)
{
    return controller.d->materials;
}

LoginController &MainControllerInternals::loginController(const MainController &controller)
{
    return controller.d->login;
}

} // namespace talvor::cloudmaterial
