#pragma once

#include <httplib.h>

#include <atomic>

namespace cloudsim {

// httplib's TLS server with our own connection loop. The loop exists for one reason: the
// cloud's clients put a second '?' into the request target ("cirro=Rest/Lite/Medias?search=")
// and the request-line parser of the httplib that Debian ships refuses such a line. The loop
// escapes every '?' after the first before httplib parses the line, and gives the handlers
// the target exactly as it was received.
class TlsServer : public httplib::SSLServer
{
public:
    TlsServer(X509 *cert, EVP_PKEY *key);

    // Connections finish their current request and close once this is set.
    void setStopping() { m_stopping = true; }

private:
    bool process_and_close_socket(socket_t sock) override;
    bool waitForRequest(socket_t sock) const;

    std::atomic<bool> m_stopping{false};
};

} // namespace cloudsim
