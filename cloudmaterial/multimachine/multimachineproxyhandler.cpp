#include "cloudmaterial/multimachine/multimachineproxyhandler.h"

#include "cloudmaterial/cloudmateriallist/cloudmaterialcontroller.h"
#include "cloudmaterial/multimachine/multimachineproxyclient.h"
#include "cloudmaterial/multimachine/multimachineproxyserver.h"

#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>

namespace talvor::cloudmaterial {

class MultimachineProxyHandler::Private
{
public:
    using Key = std::pair<std::string, std::string>; // material id, file name

    ProxyModuleCalls module;
    std::shared_ptr<CloudMaterialController> materials;
    // Requests from clients whose local answer is still to come, so that answers to this
    // machine's own checks are not sent to the group. Touched on this object's thread only.
    std::multimap<Key, std::string> pendingDownloads; // -> download address
    std::set<Key> pendingQueries;
};

MultimachineProxyHandler::MultimachineProxyHandler(MultimachineProxyClient *client, MultimachineProxyServer *server,
                                                   ProxyModuleCalls module,
                                                   std::shared_ptr<CloudMaterialController> materials)
    : d(std::make_unique<Private>())
{
    d->module = std::move(module);
    d->materials = std::move(materials);
    d->materials->setServedByProxy(client != nullptr);
    if (server)
        serve(server);
    if (client)
        forward(client);
}

MultimachineProxyHandler::~MultimachineProxyHandler() = default;

void MultimachineProxyHandler::serve(MultimachineProxyServer *server)
{
    CloudMaterialController *materials = d->materials.get();
    connect(server, &MultimachineProxyServer::sigStartMqtt, this, [this] {
        if (d->module.startMessaging)
            d->module.startMessaging();
    });

    // The very paths a local request takes: ".temp" file, size check, refusal of unsafe names,
    // and one download per file, which the requests of several clients and this machine share.
    connect(server, &MultimachineProxyServer::sigDownloadFile, this,
            [this, materials](const std::string &address, const std::string &id, const std::string &name) {
                d->pendingDownloads.emplace(Private::Key(id, name), address);
                Q_EMIT materials->sigDownloadFile(address, id, name);
            });
    // The group's channel reaches every machine, so one answer serves every client that asked.
    connect(materials, &CloudMaterialController::sigDownloadFileStatusChanged, this,
            [this, server, materials](const std::string &id, const std::string &name, bool downloaded) {
                const auto [first, last] = d->pendingDownloads.equal_range(Private::Key(id, name));
                std::set<std::string> addresses;
                for (auto it = first; it != last; ++it)
                    addresses.insert(it->second);
                d->pendingDownloads.erase(first, last);
                for (const std::string &address : addresses)
                    server->sendDownloadFileRes(address, id, name, downloaded);
                // The file is in this machine's folder now: its host hears of it once, as of a
                // download of its own (one of its own materials it reports itself).
                CloudMaterialModel known;
                if (downloaded && !addresses.empty() && !materials->material(id, known))
                    Q_EMIT materials->sigDownloadSuccess(id, materials->cloudMaterialFolderPath() + "/" + name);
            });

    connect(server, &MultimachineProxyServer::sigQueryFileIsExist, this,
            [this, materials](const std::string &id, const std::string &name) {
                d->pendingQueries.insert(Private::Key(id, name));
                materials->lookForFile(id, name);
            });
    connect(materials, &CloudMaterialController::sigFileExistStatusChanged, this,
            [this, server](const std::string &id, const std::string &name, bool exists) {
                if (d->pendingQueries.erase(Private::Key(id, name)))
                    server->sendQueryFileIsExistRes(id, name, exists);
            });
}

void MultimachineProxyHandler::forward(MultimachineProxyClient *client)
{
    CloudMaterialController *materials = d->materials.get();
    connect(materials, &CloudMaterialController::sigDownloadFile, this,
            [client](const std::string &address, const std::string &id, const std::string &name) {
                client->sendDownloadFile(address, id, name);
            });
    connect(materials, &CloudMaterialController::sigCloudFileIsExist, this,
            [client](const std::string &id, const std::string &name) { client->sendQueryFileIsExist(id, name); });
    connect(client, &MultimachineProxyClient::sigDownloadFileRes, this,
            [materials](const std::string &id, const std::string &name, bool downloaded) {
                Q_EMIT materials->sigDownloadFileStatusChanged(id, name, downloaded);
            });
    connect(client, &MultimachineProxyClient::sigQueryFileIsExistRes, this,
            [materials](const std::string &id, const std::string &name, bool exists) {
                Q_EMIT materials->sigFileExistStatusChanged(id, name, exists);
            });

    // A setting the module was given no call for is dropped.
    const auto apply = [this](std::function<void(const std::string &)> ProxyModuleCalls::*setter) {
        return [this, setter](const std::string &value) {
            if (d->module.*setter)
                (d->module.*setter)(value);
        };
    };
    connect(client, &MultimachineProxyClient::sigSetSerialNumber, this, apply(&ProxyModuleCalls::setSerialNumber));
    connect(client, &MultimachineProxyClient::sigSetCurrentLanguage, this,
            apply(&ProxyModuleCalls::setCurrentLanguage));
    connect(client, &MultimachineProxyClient::sigSetDeviceName, this, apply(&ProxyModuleCalls::setDeviceName));
    connect(client, &MultimachineProxyClient::sigSetAppVersion, this, apply(&ProxyModuleCalls::setAppVersion));
    connect(client, &MultimachineProxyClient::sigSetAppConfigPath, this, apply(&ProxyModuleCalls::setAppConfigPath));
}

} // namespace talvor::cloudmaterial
