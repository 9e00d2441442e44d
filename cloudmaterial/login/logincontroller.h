#pragma once

#include "cloudmaterial/configjson.h"
#include "cloudmaterial/login/loginjson.h"
#include "cloudmaterial/login/nodesjson.h"
#include "cloudmaterial/protocol/httpreply.h"
#include "cloudmaterial/stdstringmetatype_p.h"

#include <QObject>
#include <QString>

#include <memory>
#include <string>
#include <vector>

namespace talvor::cloudmaterial {

class CurrentNode;
class HttpClientWrapper;
class LoginDlalog;
class LoginVerify;
class VerifyCodeSlider;

/**
 * Speaks the cloud's login protocol for the login dialogs: the node directory and the global
 * DNS entry, the slider and code checks, the three login modes, the second factor of a new
 * device, and the session file that a successful login writes. Every call blocks the calling
 * thread for at most one HTTP time-out and reports failures as results, never as exceptions.
 *
 * Lives on the Qt thread with its dialogs; it writes the module's CurrentNode when the user
 * picks a node or a session is restored. The static requests touch no state of it, so the
 * messaging start may make them on the worker thread.
 */
class LoginController : public QObject
{
    Q_OBJECT

public:
    /** Result of a login call. */
    enum LoginResult : int {
        Success = 0,
        VerifyCodeError = -1,
        AccountOrPasswordError = -2,
        PhoneNotFound = -3,
        EmailNotFound = -4,
        LoginTypeLocked = -5,
        UnknownError = -6,
    };

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

    // Nodes and the global DNS entry.
    /** The node directory at @p url, icons replaced by local flag images; empty on any failure. */
    std::vector<NodeEntry> downloadNodeList(const std::string &url);
    /** The user picked a node (the login dialog's sigUpdateSeverSelect). */
    void selectNode(const QString &node, const QString &identity);
    std::string currentNode() const;
    std::string currentNodeIdentity() const;
    /** Blocking. An empty record when the control service fails. */
    GlobalDNSJson getGlobalDnsAddr();
    /** The same request to the control service at @p controlUrl; any thread. */
    static GlobalDNSJson getGlobalDnsAddr(HttpClientWrapper &http, const std::string &controlUrl);

    // Protocol calls.
    /** Slider check or code request: true when the cloud accepts it and echoes the request's key. */
    bool requestVerifyCode(const AliVerifyCodeInfo &info);
    /** One login request; @p secondFactor (may be null) tells whether the cloud wants a second factor. */
    int login(const LoginInfo &info, bool *secondFactor);
    /** The login dialog's whole sigLogin sequence, second factor included. */
    int handleLogin(const LoginInfo &info);
    /** The second factor of a new device (the verification dialog's sigLogin). */
    int secondLogin(const SecondVerifyCodeInfo &info);
    /** POST with the module's source and version headers and @p token as Token and Authorization; any thread. */
    static HttpReply authenticatedPost(HttpClientWrapper &http, const std::string &url, const std::string &body,
                                       const std::string &token);
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
