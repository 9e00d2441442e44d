#pragma once

#include <cstdint>
#include <functional>
#include <string>

/**
 * The host runtime as the module sees it: the machine's role in a group of machines,
 * and a channel of named messages between the machines of that group.
 * The host owns the object; the module only keeps the pointer.
 */
class IRXRuntime
{
public:
    using MessageHandler = std::function<void(const char *data, std::uint32_t size)>;

    virtual ~IRXRuntime() = default;

    /** This machine hosts the group's proxy server. */
    virtual bool isProxyServer() const = 0;
    /** This machine is a client of another machine's proxy server. */
    virtual bool isProxyClient() const = 0;
    /** Multi-machine operation is off. */
    virtual bool isSingleMachine() const = 0;

    /** Calls @p handler with the bytes of every message named @p name that reaches this machine. */
    virtual void registerMessageHandler(const std::string &name, MessageHandler handler) = 0;
    /** Removes the handler of @p name, if any. */
    virtual void removeMessageHandler(const std::string &name) = 0;
    /** Sends @p size bytes at @p data as the message @p name to the other machines of the group. */
    virtual void sendMessage(const std::string &name, const char *data, std::uint32_t size) = 0;
};
