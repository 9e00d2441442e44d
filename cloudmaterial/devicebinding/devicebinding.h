#pragma once

#include <memory>
#include <string>

namespace talvor::cloudmaterial {

class DeviceBindingController;

/**
 * Entry point of the messaging start: takes the session's connection details and runs the
 * binding sequence on the controller it was given. Owned by the Qt thread, like that controller.
 */
class DeviceBinding
{
public:
    explicit DeviceBinding(DeviceBindingController *controller);
    ~DeviceBinding();
    DeviceBinding(const DeviceBinding &) = delete;
    DeviceBinding &operator=(const DeviceBinding &) = delete;

    void setSerialNumber(const std::string &serialNumber);
    void setClientId(const std::string &clientId);
    /** The product code names the device model in every topic. */
    void setProductCode(const std::string &productCode);
    void setBrokerUrl(const std::string &url);

    /** Connects, reports online and sends the binding request; true when the request went out. */
    bool bind();
    void stop();

private:
    class Private;
    std::unique_ptr<Private> const d;
};

} // namespace talvor::cloudmaterial
