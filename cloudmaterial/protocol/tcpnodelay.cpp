#include "cloudmaterial/protocol/tcpnodelay.h"

#include "sockets/tcpnodelay.h"

#include <mutex>

namespace talvor::cloudmaterial {

class TcpNoDelay::Private
{
public:
    std::mutex mutex;
    std::set<ino_t> before;
};

TcpNoDelay::TcpNoDelay()
    : d(std::make_unique<Private>())
{
}

TcpNoDelay::~TcpNoDelay() = default;

void TcpNoDelay::noteSockets()
{
    std::set<ino_t> sockets = rxcm::sockets::connectedSockets();
    std::lock_guard lock(d->mutex);
    d->before = std::move(sockets);
}

int TcpNoDelay::applyToNewSockets(const std::string &serverUri)
{
    std::lock_guard lock(d->mutex);
    return rxcm::sockets::setTcpNoDelay(rxcm::sockets::mqttUriPort(serverUri), d->before);
}

} // namespace talvor::cloudmaterial
