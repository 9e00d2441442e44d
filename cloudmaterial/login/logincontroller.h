#pragma once

#include "cloudmaterial/configjson.h"
#include "cloudmaterial/login/loginjson.h"
#include "cloudmaterial/login/nodesjson.h"
#include "cloudmaterial/stdstringmetatype_p.h"

#include <QObject>
#include <QString>

#include <memory>
#include <string>

namespace talvor::cloudmaterial {

class CurrentNode;
class HttpClientWrapper;
class LoginDlalog;
class LoginVerify;
class VerifyCodeSlider;

/**
 * The login as the user sees it: builds the login and verification dialogs, answers their
 * requests through the login protocol (LoginProtocol), runs a new device's second factor, keeps
 * the slider fresh for the next request, logs each login's outcome and tells the module when a
 * login succeeded. It also answers the messaging start's global DNS look-up.
 *
 * Lives on the Qt thread with its dialogs; it writes the module's CurrentNode when the user
 * picks a node or a session is restored. The login calls block for at most one HTTP time-out
 * and return a LoginResult as int, the value the dialogs' signals carry.
 */
class LoginController : public QObject
{
    Q_OBJECT

public:
    /** @p node is the module's current node, which the login writes and its requests use. */
    LoginController(HttpClientWrapper *http, CurrentNode *node, QObject *parent = nullptr);
    ~LoginController() override;

    // The login dialogs.
    /** Builds both dialogs afresh and fills them: settings, restored node, node list. Shows nothing. */
    void prepareLogin();
    /** Deletes the dialogs and the slider views; they must go while the application still exists. */
    void releaseWidgets();
    /** Takes node, token and contact data from the saved session, without any dialog. */
    TokenInfoJson restoreSession();
    void showLoginDialog();
    /** Closes the second-factor dialog if it is open. */
    void exitLoginVerify();
    /** Forgets the current node host and identity. */
    void resetNodeState();
    void setLanguage(const std::string &moduleLanguage);
    /** The device signature string sent with the second factor. */
    void setSerialNumber(const std::string &serialNumber);
    void setStyleSheet(const QString &sheet);

    /** The user picked a node (the login dialog's sigUpdateSeverSelect). */
    void selectNode(const QString &node, const QString &identity);
    std::string currentNode() const;
    std::string currentNodeIdentity() const;
    /** Blocking, any thread. The global DNS entry of the control service at @p controlUrl; an empty record on failure.
     */
    static GlobalDNSJson getGlobalDnsAddr(HttpClientWrapper &http, const std::string &controlUrl);

    // The dialogs' requests.
    /** Slider check or code request: true when the cloud accepts it and echoes the request's key. */
    bool requestVerifyCode(const AliVerifyCodeInfo &info);
    /** One login request; @p secondFactor (may be null) tells whether the cloud wants a second factor. */
    int login(const LoginInfo &info, bool *secondFactor);
    /** The login dialog's whole sigLogin sequence, second factor included. */
    int handleLogin(const LoginInfo &info);
    /** The second factor of a new device (the verification dialog's sigLogin). */
    int secondLogin(const SecondVerifyCodeInfo &info);
    /** The token of the last login, or of the session restored at prepareLogin(). */
    std::string token() const;

    LoginDlalog *loginDialog() const;
    LoginVerify *verifyDialog() const;
    VerifyCodeSlider *slider() const;

Q_SIGNALS:
    void tokenChanged(std::string token);
    void sigLoginSucceeded();
    void sigLogoutSucceeded();
    void sigCurrentNodeChanged(const QString &node, const QString &identity);

private:
    class Private;
    std::unique_ptr<Private> const d;
};

} // namespace talvor::cloudmaterial
