#pragma once

#include <irxruntime/irxruntime.h>

#include <QByteArray>
#include <QObject>
#include <QString>

#include <memory>

/**
 * The demo host's runtime for a group of machines: its role, and the group's channel of named
 * calls carried as MQTT messages on a broker that every machine of the group reaches.
 *
 * Each call goes to "rxcm-demo/group/<group>/call/<name>" with QoS 1, its payload the sender's
 * identity, a zero byte, then the call's bytes. Calls whose name starts with "Set" are retained,
 * so a machine that joins later still receives the last settings. A runtime ignores the calls it
 * sent itself. Handlers run on the MQTT client's callback thread; after removeMessageHandler()
 * returns, the removed handler is not running and is not called again.
 */
class GroupRuntime : public QObject, public IRXRuntime
{
    Q_OBJECT

public:
    enum class Role { ProxyServer, ProxyClient };

    GroupRuntime(Role role, const QString &group, QObject *parent = nullptr);
    /** Leaves the broker cleanly, letting calls in flight complete. */
    ~GroupRuntime() override;

    /**
     * Connects to @p brokerUrl ("tcp://host:port") and subscribes to the group's calls, waiting
     * at most @p timeoutMs. A lost connection is re-established by itself later on.
     */
    bool start(const QString &brokerUrl, int timeoutMs = 10000);
    /** Connected and subscribed to the group's calls. */
    bool isConnected() const;
    Role role() const;
    QString group() const;
    /** Unique per runtime: "server-" or "client-" and random digits; also the MQTT client id. */
    QString identity() const;

    /** Where the call @p name of @p group goes; both names are percent-encoded. */
    static QString callTopic(const QString &group, const QString &name);

    bool isProxyServer() const override;
    bool isProxyClient() const override;
    bool isSingleMachine() const override;

    void registerMessageHandler(const std::string &name, MessageHandler handler) override;
    void removeMessageHandler(const std::string &name) override;
    void sendMessage(const std::string &name, const char *data, std::uint32_t size) override;

Q_SIGNALS:
    /** A call of another member arrived; emitted after its handler, if any, has run. */
    void callReceived(const QString &sender, const QString &name, const QByteArray &payload);
    /** Joined (connected and subscribed) or lost the broker. */
    void connectionChanged(bool connected);

private:
    class Private;
    std::unique_ptr<Private> const d;
};
