#pragma once

#include <QObject>

#include <memory>
#include <string>

namespace talvor::cloudmaterial {

/**
 * The device's side of the cloud's device service: owns the MQTT session, binds the machine to
 * the account, reports its state and answers the cloud's requests.
 *
 * Owned by the Qt thread, with its client, handlers and every setting: all its operations are
 * called there. The MQTT library calls in on its own thread; those calls only post to the Qt
 * thread, where a message or connection of a client that has since been replaced or stopped
 * is dropped.
 */
class DeviceBindingController : public QObject
{
    Q_OBJECT

public:
    explicit DeviceBindingController(QObject *parent = nullptr);
    ~DeviceBindingController() override;

    // Identity and account, handed over by the host and by the messaging start.
    void setModelId(const std::string &modelId);
    void setSn(const std::string &sn);
    void setUserName(const std::string &userName);
    void setPassword(const std::string &password);
    void setDeviceName(const std::string &deviceName);
    void setCustomDeviceName(const std::string &customDeviceName);
    void setSoftwareMainVersion(const std::string &version);
    void setServerUri(const std::string &serverUri);
    void setClientId(const std::string &clientId);
    /** The host's system volume, as the volume report and reply carry it (see reportVolumeInfo()). */
    void setVolume(int volume);

    bool startMqtt();
    bool stopMqtt();
    /**
     * Stops the session and forgets the account, the binding and the last reported volume;
     * nothing is sent after it, not even a logout that an unbinding had scheduled.
     */
    void clear();
    bool isBound() const;

    // Each returns the result of the publish; false without publishing when there is no client.
    bool reportOnline();
    bool reportOffline();
    bool reportBinding();
    bool reportBasicInfo();
    bool reportStorageInfo();
    /** Only while bound and connected, and only when the volume differs from the last report. */
    bool reportVolumeInfo();
    bool reportUnbinding();
    bool replyBasicInfo(const std::string &requestId);
    bool replyStorageInfo(const std::string &requestId);
    bool replyVolumeInfo(const std::string &requestId);

    void handleBindingReplyMsg(const std::string &payload);
    void handleUnbindingMsg(const std::string &payload);
    void handleGetStorageMsg(const std::string &payload);
    void handleGetBasicMsg(const std::string &payload);
    void handleGetVolumeMsg(const std::string &payload);

public Q_SLOTS:
    void slotHandleMsg(const std::string &topic, const std::string &payload);

Q_SIGNALS:
    /** The cloud removed the binding and the device confirmed it: the session should end. */
    void sigLogout();

private:
    class Private;
    std::unique_ptr<Private> const d;
};

} // namespace talvor::cloudmaterial
