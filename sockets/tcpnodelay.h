#pragma once

#include <sys/types.h>

#include <cstdint>
#include <set>
#include <string>

// TCP_NODELAY for connections whose sockets a library opens and keeps to itself: the MQTT
// library's and Qt's HTTP connections. Without it a reply published right after the
// acknowledgements of a QoS 2 request, or a POST's body written after its headers, waits for
// the peer's delayed ACK (about 40 ms on Linux) under Nagle's rule. So the connected sockets
// are found in the process's descriptor table by their peer's port. Shared by the module, the
// local cloud, the benchmarks and the demo; any thread (the option is the kernel's).
namespace rxcm::sockets {

/** The port of an MQTT server URI such as "ssl://host:8883" or "tcp://[::1]:1883"; 0 if none. */
std::uint16_t mqttUriPort(const std::string &uri);

/** The identities (inode numbers) of this process's connected sockets. */
std::set<ino_t> connectedSockets();

/**
 * Sets TCP_NODELAY on this process's sockets connected to @p port, except those in @p except
 * (for example the ones that were there before a connect attempt). Returns how many.
 */
int setTcpNoDelay(std::uint16_t port, const std::set<ino_t> &except = {});

} // namespace rxcm::sockets
