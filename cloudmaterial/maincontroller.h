#pragma once

#include "rxcloudmaterial_export.h"

#include <QObject>

#include <functional>
#include <memory>
#include <string>
#include <string_view>

class IRXRuntime;
class QDrag;
class QWidget;

namespace talvor::cloudmaterial {

class MultimachineProxyClient;
class MultimachineProxyServer;

/**
 * The module's central controller: owns every other part of the module and ties them
 * together. Hosts normally call MainControllerWrapper, which applies the machine's role
 * in a group of machines before passing calls on to this class.
 *
 * Owned by the Qt (GUI) thread, like everything it owns but the worker pool's thread; every
 * call belongs on that thread. A login or resumed session starts a session, clear(), a logout
 * and the cloud's unbinding end it; work of an ended session sends and signals nothing. At the
 * application's exit (its post routines) the module stops its MQTT session and threads.
 */
class RXCLOUDMATERIAL_EXPORT MainController : public QObject
{
    Q_OBJECT

public:
    using StarDragCallback = std::function<void(const std::string &, QDrag *)>;

    static MainController &instance();
    ~MainController() override;

    void setRXRuntime(IRXRuntime *runtime, MultimachineProxyClient *client, MultimachineProxyServer *server);
    void setAppConfigPath(const std::string &path);
    void setAppVersion(const std::string &version);
    void setDeviceName(const std::string &name);
    void setSerialNumber(const std::string &serialNumber);
    /** Maps the host's language code to the module's ("zh_CN" -> "cn", ...); others are kept. */
    void setCurrentLanguage(std::string_view code);
    void setCloudMaterialFolderPath(const std::string &path);
    void updateVolume(int volume);
    void setStarDragCallback(const StarDragCallback &callback);

    void login();
    /** Resumes the saved session; false when there is none or it cannot be resumed. */
    bool autoLogin();
    void exitLoginVerify();
    QWidget *cloudMaterialList();
    void loadTheme(const std::string &themeFile);
    void clear();
    bool isNetworkAvailable() const;
    /**
     * Starts cloud messaging and returns at once: the worker thread fetches the messaging
     * account, the Qt thread then binds. A newer start, or the session's end, stops this one.
     */
    void startMqtt();
    /**
     * Starts cloud messaging on a group's proxy server, which never logs in itself: the node
     * comes from the session saved in the configuration folder the group's machines share.
     */
    void startMqttFromSavedSession();
    std::string token() const;
    std::string userId() const;
    std::string node() const;

    // What the controller was last given, for the host and for diagnostics.
    std::string currentLanguage() const;
    std::string serialNumber() const;
    std::string appVersion() const;
    std::string deviceName() const;
    std::string cloudMaterialFolderPath() const;
    int volume() const;
    bool hasStarDragCallback() const;
    IRXRuntime *runtime() const;

    /** The module's language code for a host language code. */
    static std::string mapLanguage(std::string_view code);

Q_SIGNALS:
    void loginSuccess(std::string userName);
    void exitLoginSuccess();
    void sigDownloadSuccess(const std::string &id, const std::string &path);

private:
    friend class MainControllerInternals;
    MainController();
    static void tearDown();

    class Private;
    std::unique_ptr<Private> const d;
};

} // namespace talvor::cloudmaterial
