#pragma once

#include <memory>
#include <string>

namespace cloudsim {

class Scenario;
class Directory;
class GatewayOverrides;
class FaultList;
class LoginService;
class Messaging;
class DeviceService;
struct Certificates;

struct ServerOptions
{
    std::string host = "127.0.0.1";
    int port = 0; // 0: the system chooses
    bool verbose = false;
};

// The HTTPS side of the cloud: gateway, node directory, DNS, files, thumbnails, test helpers
// and control endpoints, with the faults applied on the way out. Every route is in
// docs/protocol.md.
class Server
{
public:
    Server(Scenario &scenario, Directory &directory, LoginService &login, GatewayOverrides &overrides,
           Messaging &messaging, DeviceService &devices, FaultList &faults, const Certificates &certificates,
           const ServerOptions &options);
    ~Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    // Opens the listening socket and returns its port. Throws std::runtime_error.
    int bind();
    // Serves on a thread of its own; connections queue from bind() on.
    void start();
    // Releases hanging and slow replies, closes the socket and waits for the threads.
    void stop();

private:
    class Private;
    std::unique_ptr<Private> const d;
};

} // namespace cloudsim
