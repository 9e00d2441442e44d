#pragma once

#include "cloudmaterial/configjson.h"
#include "cloudmaterial/login/loginjson.h"
#include "cloudmaterial/login/loginresult.h"

#include <memory>
#include <string>

namespace talvor::cloudmaterial {

class CurrentNode;
class HttpClientWrapper;

/**
 * Speaks the cloud's login protocol: the slider and code requests, the three login modes, the
 * second factor of a new device, the mapping of the cloud's error bodies to LoginResult, and the
 * session file a successful login writes. It keeps what the last login learnt (token, account,
 * contact) for the second factor and the session.
 *
 * Every call blocks the calling thread for at most one HTTP time-out and reports failures as
 * results, never as exceptions. Owned by LoginController and used on the Qt thread only; it
 * reads the module's CurrentNode and writes it when a session is restored.
 */
class LoginProtocol
{
public:
    LoginProtocol(HttpClientWrapper *http, CurrentNode *node);
    ~LoginProtocol();
    LoginProtocol(const LoginProtocol &) = delete;
    LoginProtocol &operator=(const LoginProtocol &) = delete;

    /** Slider check or code request: true when the cloud accepts it and echoes the request's key. */
    bool requestVerifyCode(const AliVerifyCodeInfo &info);
    /** Remembers where the last code went, a phone number or an e-mail address (the code login's field). */
    void rememberCodeAddress(const std::string &phoneOrEmail);

    /** One login request; @p secondFactor (may be null) tells whether the cloud wants a second factor. */
    LoginResult login(const LoginInfo &info, bool *secondFactor);
    /** Starts a second factor afresh: the next secondLogin() checks its code again. */
    void beginSecondFactor();
    /** The second factor: the code check (until it passed once) and the device credit. */
    LoginResult secondLogin(const SecondVerifyCodeInfo &info);

    /** Takes node, token and contact data from the saved session. */
    TokenInfoJson restoreSession();

    /** The device signature string sent with the second factor. */
    void setSerialNumber(const std::string &serialNumber);
    /** The token of the last login, or of the restored session. */
    std::string token() const;
    /** The account's phone number with its country code; empty when it has none. */
    std::string phone() const;
    std::string email() const;
    std::string countryCode() const;

private:
    class Private;
    std::unique_ptr<Private> const d;
};

} // namespace talvor::cloudmaterial
