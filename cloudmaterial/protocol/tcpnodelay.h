#pragma once

#include <memory>
#include <string>

namespace talvor::cloudmaterial {

/**
 * Sets TCP_NODELAY on the socket of the module's MQTT connection (see sockets/tcpnodelay.h for
 * why) and on no other: the sockets of the process are noted before each connect attempt
 * (noteSockets()), and once the attempt connected the option is set on the sockets to the
 * broker's port that were not there before (applyToNewSockets()). The host's own connections,
 * even to the same broker, are left as they are.
 *
 * Used from the MQTT library's threads and the reconnect thread; the calls are serialized inside.
 */
class TcpNoDelay
{
public:
    TcpNoDelay();
    ~TcpNoDelay();
    TcpNoDelay(const TcpNoDelay &) = delete;
    TcpNoDelay &operator=(const TcpNoDelay &) = delete;

    /** Notes every socket the process has now; called right before a connect attempt. */
    void noteSockets();
    /** Sets the option on the sockets to the port of @p serverUri opened since noteSockets(); returns how many. */
    int applyToNewSockets(const std::string &serverUri);

private:
    class Private;
    std::unique_ptr<Private> const d;
};

} // namespace talvor::cloudmaterial
