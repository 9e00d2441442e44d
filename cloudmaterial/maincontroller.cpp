#include "cloudmaterial/maincontroller.h"

#include "cloudmaterial/cloudmateriallist/cloudmaterialcontroller.h"
#include "cloudmaterial/configstore.h"
#include "cloudmaterial/logging.h"
#include "cloudmaterial/login/logincontroller.h"
#include "cloudmaterial/protocol/httpclientwrapper.h"
#include "cloudmaterial/translatemanager.h"
#include "cloudmaterial/workerpool.h"

#include <hvtheme/theme.h>

#include <QCoreApplication>
#include <QLoggingCategory>
#include <QNetworkConfigurationManager>
#include <QSettings>

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

    std::shared_ptr<WorkerPool> pool = std::make_shared<WorkerPool>(1);
    HttpClientWrapper http{pool};
    LoginController login{&http};
    std::shared_ptr<CloudMaterialController> materials = std::make_shared<CloudMaterialController>(&http);

    IRXRuntime *runtime = nullptr;
    MultimachineProxyClient *proxyClient = nullptr;
    MultimachineProxyServer *proxyServer = nullptr;

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
        // The node the login used is the one the catalogue comes from.
        if (!session.currentNode.empty())
            materials->setNode(session.currentNode);
        Q_EMIT q->loginSuccess(session.username);
        materials->requestRefresh(true);
    });
    QObject::connect(&login, &LoginController::sigLogoutSucceeded, q, [this] {
        Q_EMIT q->exitLoginSuccess();
        materials->clear();
    });
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
    d->applyDialogStyleSheets();
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
}

void MainController::setAppConfigPath(const std::string &path)
{
    ConfigStore::instance().setConfigPath(path);
    RXCM_LOG_INFO("AppConfigPath: {}", path);
}

void MainController::setAppVersion(const std::string &version)
{
    std::lock_guard<std::mutex> lock(d->settingsMutex);
    d->appVersion = version;
}

void MainController::setDeviceName(const std::string &name)
{
    std::lock_guard<std::mutex> lock(d->settingsMutex);
    d->deviceName = name;
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
    std::lock_guard<std::mutex> lock(d->settingsMutex);
    d->volume = volume;
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
    d->login.resetNodeState();
    d->currentNode = session.currentNode;
    d->currentNodeIdentity = session.currentNodeIdentity;
    d->materials->setNode(session.currentNode);
    // Without the player authorization the saved token cannot be checked, so the
    // session is not resumed.
    qCInfo(lcController) << "saved session found; player authorization is not available";
    return false;
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

void MainController::startMqtt()
{
    d->pool->enqueue([this] { handleMqtt(); });
}

void MainController::handleMqtt()
{
    qCInfo(lcController) << "cloud messaging start requested";
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
