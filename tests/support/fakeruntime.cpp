#include "support/fakeruntime.h"

FakeRuntime::FakeRuntime(Role role)
    : m_role(role)
{
}

void FakeRuntime::setRole(Role role)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_role = role;
}

FakeRuntime::Role FakeRuntime::role() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_role;
}

bool FakeRuntime::isProxyServer() const
{
    return role() == Role::ProxyServer;
}

bool FakeRuntime::isProxyClient() const
{
    return role() == Role::ProxyClient;
}

bool FakeRuntime::isSingleMachine() const
{
    return role() == Role::Single;
}

void FakeRuntime::registerMessageHandler(const std::string &name, MessageHandler handler)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_handlers[name] = std::move(handler);
}

void FakeRuntime::removeMessageHandler(const std::string &name)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_handlers.erase(name);
}

void FakeRuntime::sendMessage(const std::string &name, const char *data, std::uint32_t size)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_sent.push_back({name, std::string(data, size)});
}

std::vector<FakeRuntime::Sent> FakeRuntime::sent() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_sent;
}

std::vector<std::string> FakeRuntime::registeredNames() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::string> names;
    for (const auto &entry : m_handlers)
        names.push_back(entry.first);
    return names;
}

bool FakeRuntime::deliver(const std::string &name, const std::string &payload)
{
    MessageHandler handler;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_handlers.find(name);
        if (it == m_handlers.end())
            return false;
        handler = it->second;
    }
    handler(payload.data(), std::uint32_t(payload.size()));
    return true;
}
