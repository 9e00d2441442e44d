#pragma once

#include "cloudmaterial/bindingaccountjson.h"
#include "cloudmaterial/sessionticket.h"

#include <QObject>

#include <memory>
#include <string>

namespace talvor::cloudmaterial {

class HttpClientWrapper;
class WorkerPool;

/**
 * The start of the device's cloud messaging after a login: the global DNS entry of the node, the
 * encrypted key exchange that yields the messaging account, and the player authorization that
 * yields the binding account. The steps block, so they run on the module's worker pool with
 * copies only (the request) and the HTTP client; the result comes back to the owner's thread
 * through accountReady(), which the device binding is started from.
 *
 * Owned by MainController on the Qt thread. A request whose ticket ends (a newer start, a logout,
 * the module's teardown) stops at its next step and reports nothing.
 */
class MessagingStart : public QObject
{
    Q_OBJECT

public:
    /** What one start needs, copied on the owner's thread when it is queued. */
    struct Request
    {
        SessionTicket ticket;
        std::string nodeHost;
        std::string nodeIdentity;
        std::string token;
        std::string serialNumber;
        std::string controlUrl; // of the global DNS entry
    };
    /** What it hands back: the broker and the credentials the binding logs in with. */
    struct Account
    {
        std::string clientId;
        std::string brokerUrl;
        std::string username;
        std::string password;
    };

    /** The product code the device reports and the key exchange names. */
    static constexpr const char *productCode = "100001";

    MessagingStart(HttpClientWrapper *http, std::shared_ptr<WorkerPool> pool, QObject *parent = nullptr);
    ~MessagingStart() override;

    /** Queues the start on the worker pool; returns at once. */
    void start(const Request &request);

    /** The player authorization: the account binding this player to the cloud account; blocking, any thread. */
    static BindingAccountJson playerAuth(HttpClientWrapper &http, const std::string &nodeHost,
                                         const std::string &token);
    /** True when @p account holds both a user name and a password. */
    static bool isComplete(const BindingAccountJson &account);

Q_SIGNALS:
    /** Emitted on the owner's thread, only while the request's ticket is live. */
    void accountReady(const talvor::cloudmaterial::MessagingStart::Request &request,
                      const talvor::cloudmaterial::MessagingStart::Account &account);

private:
    class Private;
    std::unique_ptr<Private> const d;
};

} // namespace talvor::cloudmaterial
