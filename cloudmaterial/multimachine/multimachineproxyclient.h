#pragma once

#include <QObject>

#include <memory>
#include <string>

class IRXRuntime;

namespace talvor::cloudmaterial {

/**
 * A proxy client's end of the channel between the machines of a group: sends the requests
 * that the group's proxy server carries out, and receives its answers and the settings it
 * forwards as signals (emitted on whatever thread the host channel delivers on).
 */
class MultimachineProxyClient : public QObject
{
    Q_OBJECT

public:
    explicit MultimachineProxyClient(IRXRuntime *runtime, QObject *parent = nullptr);
    ~MultimachineProxyClient() override;

    void sendStartMqtt();
    void sendDownloadFile(const std::string &address, const std::string &id, const std::string &name);
    void sendQueryFileIsExist(const std::string &id, const std::string &name);

Q_SIGNALS:
    void sigSetSerialNumber(const std::string &serialNumber);
    void sigSetCurrentLanguage(const std::string &code);
    void sigSetDeviceName(const std::string &name);
    void sigSetAppVersion(const std::string &version);
    void sigSetAppConfigPath(const std::string &path);
    void sigQueryFileIsExistRes(const std::string &id, const std::string &name, bool exists);
    void sigDownloadFileRes(const std::string &id, const std::string &name, bool downloaded);

private:
    class Private;
    std::unique_ptr<Private> const d;
};

} // namespace talvor::cloudmaterial
