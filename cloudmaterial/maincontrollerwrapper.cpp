#include "cloudmaterial/maincontrollerwrapper.h"

#include "cloudmaterial/maincontroller.h"
#include "cloudmaterial/multimachine/multimachineproxyclient.h"
#include "cloudmaterial/multimachine/multimachineproxyserver.h"

#include <irxruntime/irxruntime.h>

#include <vector>

namespace talvor::cloudmaterial {

namespace {

// The proxies stay for the life of the process: the host's channel may still hold their
// handlers, and the runtime may be gone by the time statics are destroyed, so nothing may
// remove them. Held here, never freed, they are kept rather than lost.
std::vector<QObject *> &keptProxies()
{
    static auto *proxies = new std::vector<QObject *>;
    return *proxies;
}

} // namespace

class MainControllerWrapper::Private : public QObject
{
public:
    explicit Private(MainControllerWrapper *q)
        : q(q)
    {
    }

    // Without a runtime the machine works alone.
    bool isSingle() const { return !runtime || runtime->isSingleMachine(); }
    bool isServer() const { return runtime && runtime->isProxyServer(); }
    bool isClient() const { return runtime && runtime->isProxyClient(); }
    bool clientOrSingle() const { return isClient() || isSingle(); }
    bool serverOrSingle() const { return isServer() || isSingle(); }

    MainControllerWrapper *const q;
    IRXRuntime *runtime = nullptr;
    MultimachineProxyClient *proxyClient = nullptr;
    MultimachineProxyServer *proxyServer = nullptr;
    MainController *const controller = &MainController::instance();
};

MainControllerWrapper &MainControllerWrapper::instance()
{
    static MainControllerWrapper wrapper;
    return wrapper;
}

MainControllerWrapper::MainControllerWrapper()
    : d(std::make_unique<Private>(this))
{
    connect(d->controller, &MainController::loginSuccess, this, [this](std::string userName) {
        // On a proxy client the group's proxy server holds the binding and starts messaging;
        // a proxy server starts it when a client asks.
        if (d->isClient()) {
            if (d->proxyClient)
                d->proxyClient->sendStartMqtt();
        } else if (d->isSingle()) {
            d->controller->startMqtt();
        }
        Q_EMIT loginSuccess(std::move(userName));
    });
    connect(d->controller, &MainController::exitLoginSuccess, this, &MainControllerWrapper::exitLoginSuccess);
    connect(d->controller, &MainController::sigDownloadSuccess, this, &MainControllerWrapper::sigDownloadSuccess);
}

MainControllerWrapper::~MainControllerWrapper() = default;

void MainControllerWrapper::setRXRuntime(IRXRuntime *runtime)
{
    d->runtime = runtime;
    d->proxyClient = nullptr;
    d->proxyServer = nullptr;
    if (runtime && runtime->isProxyClient())
        keptProxies().push_back(d->proxyClient = new MultimachineProxyClient(runtime));
    else if (runtime && runtime->isProxyServer())
        keptProxies().push_back(d->proxyServer = new MultimachineProxyServer(runtime));
    d->controller->setRXRuntime(runtime, d->proxyClient, d->proxyServer);
}

void MainControllerWrapper::setAppConfigPath(const std::string &path) const
{
    d->controller->setAppConfigPath(path);
}

void MainControllerWrapper::setAppVersion(const std::string &version)
{
    if (d->serverOrSingle())
        d->controller->setAppVersion(version);
    if (d->isServer() && d->proxyServer)
        d->proxyServer->sendSetAppVersion(version);
}

void MainControllerWrapper::setDeviceName(const std::string &name)
{
    if (d->serverOrSingle())
        d->controller->setDeviceName(name);
    if (d->isServer() && d->proxyServer)
        d->proxyServer->sendSetDeviceName(name);
}

void MainControllerWrapper::setSerialNumber(const std::string &serialNumber)
{
    if (d->serverOrSingle())
        d->controller->setSerialNumber(serialNumber);
    if (d->isServer() && d->proxyServer)
        d->proxyServer->sendSetSerialNumber(serialNumber);
}

void MainControllerWrapper::setCurrentLanguage(std::string_view code)
{
    // Every machine shows its own dialogs, so the language always applies locally.
    d->controller->setCurrentLanguage(code);
    if (d->isServer() && d->proxyServer)
        d->proxyServer->sendSetCurrentLanguage(std::string(code));
}

void MainControllerWrapper::setCloudMaterialFolderPath(const std::string &path)
{
    if (d->serverOrSingle())
        d->controller->setCloudMaterialFolderPath(path);
}

void MainControllerWrapper::updateVolume(int volume)
{
    if (d->serverOrSingle())
        d->controller->updateVolume(volume);
}

void MainControllerWrapper::setStarDragCallback(const StarDragCallback &callback)
{
    if (d->clientOrSingle())
        d->controller->setStarDragCallback(callback);
}

void MainControllerWrapper::login()
{
    if (d->clientOrSingle())
        d->controller->login();
}

bool MainControllerWrapper::autoLogin()
{
    if (d->clientOrSingle())
        d->controller->autoLogin();
    return true;
}

void MainControllerWrapper::exitLoginVerify()
{
    if (d->clientOrSingle())
        d->controller->exitLoginVerify();
}

QWidget *MainControllerWrapper::cloudMaterialList()
{
    return d->clientOrSingle() ? d->controller->cloudMaterialList() : nullptr;
}

void MainControllerWrapper::loadTheme(const std::string &themeFile)
{
    d->controller->loadTheme(themeFile);
}

void MainControllerWrapper::clear()
{
    d->controller->clear();
}

bool MainControllerWrapper::isNetworkAvailable() const
{
    return d->controller->isNetworkAvailable();
}

std::string MainControllerWrapper::token() const
{
    return d->controller->token();
}

std::string MainControllerWrapper::userId() const
{
    return d->controller->userId();
}

std::string MainControllerWrapper::node() const
{
    return d->controller->node();
}

} // namespace talvor::cloudmaterial
