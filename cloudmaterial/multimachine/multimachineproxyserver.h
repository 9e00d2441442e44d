#pragma once

#include <QObject>

#include <memory>
#include <string>

class IRXRuntime;

namespace talvor::cloudmaterial {

/**
 * The proxy server's end of the channel between the machines of a group: receives the
 * clients' requests as signals (emitted on whatever thread the host channel delivers on)
 * and sends the answers and the settings the clients take from the server.
 */
class MultimachineProxyServer : public QObject
{
    Q_OBJECT

public:
    explicit MultimachineProxyServer(IRXRuntime *runtime, QObject *parent = nullptr);
    ~MultimachineProxyServer() override;

    void sendQueryFileIsExistRes(const std::string &id, const std::string &name, bool exists);
    void sendDownloadFileRes(const std::string &address, const std::string &id, const std::string &name,
                             bool downloaded);
    void sendSetSerialNumber(const std::string &serialNumber);
    void sendSetCurrentLanguage(const std::string &code);
    void sendSetDeviceName(const std::string &name);
    void sendSetAppVersion(const std::string &version);

Q_SIGNALS:
    void sigStartMqtt();
    void sigQueryFileIsExist(const std::string &id, const std::string &name);
    void sigDownloadFile(const std::string &address, const std::string &id, const std::string &name);

private:
    class Private;
    std::unique_ptr<Private> const d;
};

} // namespace talvor::cloudmaterial
