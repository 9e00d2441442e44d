#include "support/sockettable.h"

#include <cstdlib>

#include <dirent.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

std::pair<int, int> socketsToPort(int port)
{
    std::pair<int, int> found{0, 0};
    DIR *fds = opendir("/proc/self/fd");
    while (const dirent *entry = fds ? readdir(fds) : nullptr) {
        sockaddr_in peer{};
        socklen_t length = sizeof peer;
        int on = 0;
        socklen_t size = sizeof on;
        const int fd = std::atoi(entry->d_name);
        if (fd <= 0 || getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &length) != 0
            || ntohs(peer.sin_port) != port)
            continue;
        ++found.first;
        found.second += getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, &size) == 0 && on;
    }
    if (fds)
        closedir(fds);
    return found;
}
