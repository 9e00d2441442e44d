#pragma once

#include <irxruntime/irxruntime.h>

#include <map>
#include <mutex>
#include <string>
#include <vector>

/**
 * A host runtime whose role a test sets between calls, and whose channel records what
 * is sent and lets the test deliver messages to the registered handlers.
 */
class FakeRuntime : public IRXRuntime
{
public:
    enum class Role { Single, ProxyServer, ProxyClient };

    struct Sent
    {
        std::string name;
        std::string payload;
    };

    explicit FakeRuntime(Role role = Role::Single);

    void setRole(Role role);
    Role role() const;

    bool isProxyServer() const override;
    bool isProxyClient() const override;
    bool isSingleMachine() const override;

    void registerMessageHandler(const std::string &name, MessageHandler handler) override;
    void removeMessageHandler(const std::string &name) override;
    void sendMessage(const std::string &name, const char *data, std::uint32_t size) override;

    std::vector<Sent> sent() const;
    std::vector<std::string> registeredNames() const;
    /** Calls the handler registered for @p name; false if there is none. */
    bool deliver(const std::string &name, const std::string &payload);

private:
    mutable std::mutex m_mutex;
    Role m_role;
    std::map<std::string, MessageHandler> m_handlers;
    std::vector<Sent> m_sent;
};
