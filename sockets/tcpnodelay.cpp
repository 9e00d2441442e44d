#include "sockets/tcpnodelay.h"

#include <cstdlib>

#if defined(__linux__)
#include <dirent.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#endif

namespace rxcm::sockets {

namespace {

// Calls @p visit(fd, inode, peer port) for every connected TCP socket of this process.
template<typename Visit>
void forEachConnectedSocket(Visit visit)
{
#if defined(__linux__)
    DIR *fds = opendir("/proc/self/fd");
    if (!fds)
        return;
    while (const dirent *entry = readdir(fds)) {
        char *end = nullptr;
        const long fd = std::strtol(entry->d_name, &end, 10);
        if (end == entry->d_name || *end != '\0' || fd == dirfd(fds))
            continue;
        struct stat st
        {
        };
        if (fstat(static_cast<int>(fd), &st) != 0 || !S_ISSOCK(st.st_mode))
            continue;
        sockaddr_storage peer{};
        socklen_t length = sizeof peer;
        if (getpeername(static_cast<int>(fd), reinterpret_cast<sockaddr *>(&peer), &length) != 0)
            continue;
        if (peer.ss_family == AF_INET)
            visit(int(fd), st.st_ino, ntohs(reinterpret_cast<const sockaddr_in &>(peer).sin_port));
        else if (peer.ss_family == AF_INET6)
            visit(int(fd), st.st_ino, ntohs(reinterpret_cast<const sockaddr_in6 &>(peer).sin6_port));
    }
    closedir(fds);
#else
    (void)visit;
#endif
}

} // namespace

std::uint16_t mqttUriPort(const std::string &uri)
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

std::set<ino_t> connectedSockets()
{
    std::set<ino_t> sockets;
    forEachConnectedSocket([&](int, ino_t inode, std::uint16_t) { sockets.insert(inode); });
    return sockets;
}

int setTcpNoDelay(std::uint16_t port, const std::set<ino_t> &except)
{
    int count = 0;
    if (port == 0)
        return 0;
    forEachConnectedSocket([&](int fd, ino_t inode, std::uint16_t peerPort) {
        if (peerPort != port || except.count(inode))
            return;
#if defined(__linux__)
        const int on = 1;
        if (setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == 0)
            ++count;
#endif
    });
    return count;
}

} // namespace rxcm::sockets
