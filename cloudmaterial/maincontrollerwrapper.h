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

/**
 * The module's entry point for the host application.
 *
 * A process-wide singleton that passes the host's calls on to MainController, according to
 * the machine's role in a group of machines as the host runtime reports it: on a proxy
 * server the user-facing calls (login, the material panel) are dropped and the settings
 * are also forwarded to the group's other machines; on a proxy client the settings that
 * belong to the server are dropped. A stand-alone machine gets every call.
 *
 * Call setRXRuntime() and setAppConfigPath() first, then the other setters, then
 * autoLogin() or login(). All calls belong on the GUI thread.
 */
class RXCLOUDMATERIAL_EXPORT MainControllerWrapper : public QObject
{
    Q_OBJECT

public:
    using StarDragCallback = std::function<void(const std::string &, QDrag *)>;

    static MainControllerWrapper &instance();
    ~MainControllerWrapper() override;

    /** The host runtime; it is asked for the machine's role on every call. Not owned. */
    void setRXRuntime(IRXRuntime *runtime);
    /** The host's configuration folder; the module keeps its files under "<path>/cloud". */
    void setAppConfigPath(const std::string &path) const;
    void setAppVersion(const std::string &version);
    void setDeviceName(const std::string &name);
    void setSerialNumber(const std::string &serialNumber);
    /** The host's UI language: "zh_CN", "zh_TW", "en", "korean" or "russian". */
    void setCurrentLanguage(std::string_view code);
    /** Where downloaded materials are stored. */
    void setCloudMaterialFolderPath(const std::string &path);
    void updateVolume(int volume);
    /** Receives the material dragged out of the panel: its local path and the drag. */
    void setStarDragCallback(const StarDragCallback &callback);

    /** Shows the login dialog. */
    void login();
    /**
     * Resumes the saved session without a dialog. Returns true whatever the outcome: the
     * host learns of a resumed session from loginSuccess(), and offers login() otherwise.
     */
    bool autoLogin();
    /** Closes the second-factor dialog, if open. */
    void exitLoginVerify();
    /** The material panel to embed; null on a proxy server. */
    QWidget *cloudMaterialList();
    /** Applies an INI theme file: its "QSS" key names the module's style sheet. */
    void loadTheme(const std::string &themeFile);
    /** Stops cloud messaging and forgets its state. */
    void clear();
    bool isNetworkAvailable() const;

    /** The saved session's access token; empty when nobody is logged in. */
    std::string token() const;
    /** The saved session's user id in decimal. */
    std::string userId() const;
    /** The identity of the cloud node in use. */
    std::string node() const;

Q_SIGNALS:
    void loginSuccess(std::string userName);
    void exitLoginSuccess();
    void sigDownloadSuccess(const std::string &id, const std::string &path);

private:
    MainControllerWrapper();
    class Private;
    std::unique_ptr<Private> const d;
};

} // namespace talvor::cloudmaterial
