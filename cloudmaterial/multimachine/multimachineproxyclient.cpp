#include "cloudmaterial/multimachine/multimachineproxyclient.h"

#include "cloudmaterial/multimachine/proxycodec.h"

#include <irxruntime/irxruntime.h>

namespace talvor::cloudmaterial {

namespace {
const char *const calls[] = {"SetSerialNumber",  "SetCurrentLanguage",  "SetDeviceName",  "SetAppVersion",
                             "SetAppConfigPath", "QueryFileIsExistRes", "DownloadFileRes"};
}

class MultimachineProxyClient::Private
{
public:
    IRXRuntime *const runtime;
};

MultimachineProxyClient::MultimachineProxyClient(IRXRuntime *runtime, QObject *parent)
    : QObject(parent)
    , d(std::make_unique<Private>(Private{runtime}))
{
    qRegisterMetaType<std::string>("std::string");
    using proxycodec::receiver;
    const auto setting = [this, runtime](const char *name,
                                         void (MultimachineProxyClient::*signal)(const std::string &)) {
        runtime->registerMessageHandler(name, receiver<std::string>([this, signal](const std::string &value) {
                                            Q_EMIT(this->*signal)(value);
                                        }));
    };
    setting("SetSerialNumber", &MultimachineProxyClient::sigSetSerialNumber);
    setting("SetCurrentLanguage", &MultimachineProxyClient::sigSetCurrentLanguage);
    setting("SetDeviceName", &MultimachineProxyClient::sigSetDeviceName);
    setting("SetAppVersion", &MultimachineProxyClient::sigSetAppVersion);
    setting("SetAppConfigPath", &MultimachineProxyClient::sigSetAppConfigPath);
    runtime->registerMessageHandler(
        "QueryFileIsExistRes",
        receiver<std::string, std::string, bool>([this](const std::string &id, const std::string &name, bool exists) {
            Q_EMIT sigQueryFileIsExistRes(id, name, exists);
        }));
    // The answer repeats the request's address, which nobody here needs.
    runtime->registerMessageHandler("DownloadFileRes",
                                    receiver<std::string, std::string, std::string, bool>(
                                        [this](const std::string &, const std::string &id, const std::string &name,
                                               bool downloaded) { Q_EMIT sigDownloadFileRes(id, name, downloaded); }));
}

// Removed so that a late message cannot reach a deleted object.
MultimachineProxyClient::~MultimachineProxyClient()
{
    for (const char *call : calls)
        d->runtime->removeMessageHandler(call);
}

void MultimachineProxyClient::sendStartMqtt()
{
    proxycodec::send(*d->runtime, "StartMqtt");
}

void MultimachineProxyClient::sendDownloadFile(const std::string &address, const std::string &id,
                                               const std::string &name)
{
    proxycodec::send(*d->runtime, "DownloadFile", address, id, name, false);
}

void MultimachineProxyClient::sendQueryFileIsExist(const std::string &id, const std::string &name)
{
    proxycodec::send(*d->runtime, "QueryFileIsExist", id, name, false);
}

} // namespace talvor::cloudmaterial
