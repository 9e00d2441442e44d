#pragma once

#include <QObject>

#include <functional>
#include <memory>
#include <string>

namespace talvor::cloudmaterial {

class CloudMaterialController;
class MultimachineProxyClient;
class MultimachineProxyServer;

/** What the proxy calls reach of the module beyond its materials; each is called on the Qt thread. */
struct ProxyModuleCalls
{
    /** A proxy server starts cloud messaging for the group. */
    std::function<void()> startMessaging;
    /** The settings a proxy server forwards to its clients. */
    std::function<void(const std::string &)> setSerialNumber;
    std::function<void(const std::string &)> setCurrentLanguage;
    std::function<void(const std::string &)> setDeviceName;
    std::function<void(const std::string &)> setAppVersion;
    std::function<void(const std::string &)> setAppConfigPath;
};

/**
 * Carries out the proxy calls on this machine. On a proxy server it starts cloud messaging
 * and serves the clients' downloads and existence checks through the material controller's
 * own local paths, answering each; on a proxy client it sends the material controller's
 * requests to the server, feeds the answers back and applies the forwarded settings.
 * With neither proxy the material controller serves itself.
 *
 * Owned by the Qt thread: the proxies' signals, emitted on the host channel's thread, reach it queued.
 */
class MultimachineProxyHandler : public QObject
{
    Q_OBJECT

public:
    MultimachineProxyHandler(MultimachineProxyClient *client, MultimachineProxyServer *server, ProxyModuleCalls module,
                             std::shared_ptr<CloudMaterialController> materials);
    ~MultimachineProxyHandler() override;

private:
    void serve(MultimachineProxyServer *server);
    void forward(MultimachineProxyClient *client);

    class Private;
    std::unique_ptr<Private> const d;
};

} // namespace talvor::cloudmaterial
