#pragma once

// The MQTT library opens its sockets itself and offers no option for TCP_NODELAY. Without it a
// reply published right after the acknowledgements of a QoS 2 request waits for the peer's
// delayed ACK (about 40 ms on Linux) under Nagle's rule. The connected sockets are found by
// the broker's port and the option is set on them; setting it on another connection to the
// same port would be harmless.

#include <cstdint>
#include <cstdlib>
#include <string>

#if defined(__linux__)
#include <dirent.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#endif

namespace talvor::cloudmaterial {

/** The port of an MQTT server URI such as "ssl://host:8883" or "tcp://[::1]:1883"; 0 if none. */
inline std::uint16_t mqttUriPort(const std::string &uri)
{
    const auto colon = uri.rfind(':');
    const auto scheme = uri.find("://");
    if (colon == std::string::npos || (scheme != std::string::npos && colon <= scheme))
        return 0;
    unsigned long port = 0;
    for (std::size_t i = colon + 1; i < uri.size(); ++i) {
        const char c = uri[i];
        if (c == '/')
            break;
        if (c < '0' || c > '9' || port > 65535)
            return 0;
        port = port * 10 + static_cast<unsigned long>(c - '0');
    }
    return port > 0 && port <= 65535 ? static_cast<std::uint16_t>(port) : 0;
}

/** Sets TCP_NODELAY on this process's TCP sockets connected to @p port. Returns how many. */
inline int setTcpNoDelayToPort(std::uint16_t port)
{
    int count = 0;
#if defined(__linux__)
    if (port == 0)
        return 0;
    DIR *fds = opendir("/proc/self/fd");
    if (!fds)
        return 0;
    while (const dirent *entry = readdir(fds)) {
        char *end = nullptr;
        const long fd = std::strtol(entry->d_name, &end, 10);
        if (end == entry->d_name || *end != '\0' || fd == dirfd(fds))
            continue;
        struct stat st {};
        if (fstat(static_cast<int>(fd), &st) != 0 || !S_ISSOCK(st.st_mode))
            continue;
        sockaddr_storage peer {};
        socklen_t length = sizeof peer;
        if (getpeername(static_cast<int>(fd), reinterpret_cast<sockaddr *>(&peer), &length) != 0)
            continue;
        std::uint16_t peerPort = 0;
        if (peer.ss_family == AF_INET)
            peerPort = ntohs(reinterpret_cast<const sockaddr_in &>(peer).sin_port);
        else if (peer.ss_family == AF_INET6)
            peerPort = ntohs(reinterpret_cast<const sockaddr_in6 &>(peer).sin6_port);
        if (peerPort != port)
            continue;
        const int on = 1;
        if (setsockopt(static_cast<int>(fd), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == 0)
            ++count;
    }
    closedir(fds);
#else
    (void)port;
#endif
    return count;
}

} // namespace talvor::cloudmaterial
