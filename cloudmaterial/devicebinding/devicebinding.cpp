#include "devicebinding.h"

#include "cloudmaterial/devicebinding/devicebindingcontroller.h"
#include "cloudmaterial/logging.h"

namespace talvor::cloudmaterial {

class DeviceBinding::Private
{
public:
    DeviceBindingController *controller;
};

DeviceBinding::DeviceBinding(DeviceBindingController *controller)
    : d(std::make_unique<Private>(Private{controller}))
{
}

DeviceBinding::~DeviceBinding() = default;

void DeviceBinding::setSerialNumber(const std::string &serialNumber)
{
    d->controller->setSn(serialNumber);
}

void DeviceBinding::setClientId(const std::string &clientId)
{
    d->controller->setClientId(clientId);
}

void DeviceBinding::setProductCode(const std::string &productCode)
{
    d->controller->setModelId(productCode);
}

void DeviceBinding::setBrokerUrl(const std::string &url)
{
    d->controller->setServerUri(url);
}

bool DeviceBinding::bind()
{
    // Each step is tried even when the one before failed: the binding request is what counts.
    if (!d->controller->startMqtt())
        RXCM_LOG_ERROR("start MQTT fail!");
    if (!d->controller->reportOnline())
        RXCM_LOG_ERROR("reportOnline error");
    if (d->controller->reportBinding())
        return true;
    RXCM_LOG_ERROR("reportBinding error");
    return false;
}

void DeviceBinding::stop()
{
    d->controller->stopMqtt();
}

} // namespace talvor::cloudmaterial
