#pragma once

#include <QString>

#include <memory>
#include <optional>

/**
 * The folder that the demo machines of a group share on one computer. It holds the host's
 * configuration folder, shared as a host shares it between its proxy server and clients (the
 * server's messaging start reads the session that a client's login saved there), the server's
 * material folder, and "group.json", where the server says where its cloud is.
 */
class GroupFolder
{
public:
    /** Where the server's cloud is: enough for a client to join it. */
    struct Cloud
    {
        QString brokerUrl;
        QString cloudUrl;
        QString caFile;
    };

    explicit GroupFolder(const QString &path);
    ~GroupFolder();

    /** "<temp>/cloudmaterial-demo-group-<group>". */
    static QString defaultPath(const QString &group);

    QString path() const;
    QString configFolder() const;
    QString materialFolder() const;

    /** The server, before its cloud starts: a fresh configuration folder and no stale announcement. */
    bool prepare();
    /** The server: tells the clients where its cloud is. */
    bool announce(const Cloud &cloud);
    /** The server, as it leaves. */
    void withdraw();
    /** A client: waits up to @p timeoutMs for the server's announcement. */
    std::optional<Cloud> waitForServer(int timeoutMs) const;

private:
    class Private;
    std::unique_ptr<Private> const d;
};
