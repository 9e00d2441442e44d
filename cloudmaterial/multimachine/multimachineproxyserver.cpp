#include "cloudmaterial/multimachine/multimachineproxyserver.h"

#include "cloudmaterial/multimachine/proxycodec.h"

#include <irxruntime/irxruntime.h>

namespace talvor::cloudmaterial {

namespace {
// Registered at construction; exactly these are removed at destruction.
const char *const calls[] = {"StartMqtt", "QueryFileIsExist", "DownloadFile"};
} // namespace

class MultimachineProxyServer::Private
{
public:
    IRXRuntime *const runtime;
};

MultimachineProxyServer::MultimachineProxyServer(IRXRuntime *runtime, QObject *parent)
    : QObject(parent)
    , d(std::make_unique<Private>(Private{runtime}))
{
    qRegisterMetaType<std::string>("std::string");
    using proxycodec::receiver;
    runtime->registerMessageHandler("StartMqtt", receiver<>([this] { Q_EMIT sigStartMqtt(); }));
    // The request's bool is only there to share the answer's layout.
    runtime->registerMessageHandler(
        "QueryFileIsExist",
        receiver<std::string, std::string, bool>(
            [this](const std::string &id, const std::string &name, bool) { Q_EMIT sigQueryFileIsExist(id, name); }));
    runtime->registerMessageHandler(
        "DownloadFile",
        receiver<std::string, std::string, std::string, bool>(
            [this](const std::string &address, const std::string &id, const std::string &name, bool) {
                Q_EMIT sigDownloadFile(address, id, name);
            }));
}

MultimachineProxyServer::~MultimachineProxyServer()
{
    for (const char *call : calls)
        d->runtime->removeMessageHandler(call);
}

void MultimachineProxyServer::sendQueryFileIsExistRes(const std::string &id, const std::string &name, bool exists)
{
    proxycodec::send(*d->runtime, "QueryFileIsExistRes", id, name, exists);
}

void MultimachineProxyServer::sendDownloadFileRes(const std::string &address, const std::string &id,
                                                  const std::string &name, bool downloaded)
{
    proxycodec::send(*d->runtime, "DownloadFileRes", address, id, name, downloaded);
}

void MultimachineProxyServer::sendSetSerialNumber(const std::string &serialNumber)
{
    proxycodec::send(*d->runtime, "SetSerialNumber", serialNumber);
}

void MultimachineProxyServer::sendSetCurrentLanguage(const std::string &code)
{
    proxycodec::send(*d->runtime, "SetCurrentLanguage", code);
}

void MultimachineProxyServer::sendSetDeviceName(const std::string &name)
{
    proxycodec::send(*d->runtime, "SetDeviceName", name);
}

void MultimachineProxyServer::sendSetAppVersion(const std::string &version)
{
    proxycodec::send(*d->runtime, "SetAppVersion", version);
}

} // namespace talvor::cloudmaterial
