#pragma once

#include <QObject>

#include <memory>

namespace talvor::cloudmaterial {

class CloudMaterialController;
class MainController;
class MultimachineProxyClient;
class MultimachineProxyServer;

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
    MultimachineProxyHandler(MultimachineProxyClient *client, MultimachineProxyServer *server,
                             MainController *controller, std::shared_ptr<CloudMaterialController> materials);
    ~MultimachineProxyHandler() override;

private:
    void serve(MultimachineProxyServer *server, MainController *controller);
    void forward(MultimachineProxyClient *client, MainController *controller);

    class Private;
    std::unique_ptr<Private> const d;
};

} // namespace talvor::cloudmaterial
