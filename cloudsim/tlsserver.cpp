#include "tlsserver.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <string>

namespace cloudsim {
namespace {

constexpr std::size_t maxRequestLine = 64 * 1024;

bool waitFor(socket_t sock, short events, time_t seconds)
{
    pollfd p{sock, events, 0};
    int rc;
    do {
        rc = poll(&p, 1, static_cast<int>(seconds * 1000));
    } while (rc < 0 && errno == EINTR);
    return rc > 0 && (p.revents & events);
}

void addressOf(socket_t sock, bool peer, std::string &ip, int &port)
{
    sockaddr_storage addr{};
    socklen_t len = sizeof addr;
    const int rc = peer ? getpeername(sock, reinterpret_cast<sockaddr *>(&addr), &len)
                        : getsockname(sock, reinterpret_cast<sockaddr *>(&addr), &len);
    if (rc != 0)
        return;
    char text[INET6_ADDRSTRLEN] = {};
    if (addr.ss_family == AF_INET) {
        const auto *a = reinterpret_cast<const sockaddr_in *>(&addr);
        inet_ntop(AF_INET, &a->sin_addr, text, sizeof text);
        port = ntohs(a->sin_port);
    } else if (addr.ss_family == AF_INET6) {
        const auto *a = reinterpret_cast<const sockaddr_in6 *>(&addr);
        inet_ntop(AF_INET6, &a->sin6_addr, text, sizeof text);
        port = ntohs(a->sin6_port);
    }
    ip = text;
}

// A TLS connection as httplib reads it, with the first line of each request rewritten.
class RequestStream : public httplib::Stream
{
public:
    RequestStream(socket_t sock, SSL *ssl, time_t readTimeout, time_t writeTimeout)
        : m_sock(sock)
        , m_ssl(ssl)
        , m_readTimeout(readTimeout)
        , m_writeTimeout(writeTimeout)
    {
    }

    // Called before each request: the next read starts with a request line.
    void expectRequestLine() { m_atRequestLine = true; }
    const std::string &receivedTarget() const { return m_receivedTarget; }

    bool is_readable() const override
    {
        return m_pos < m_pending.size() || SSL_pending(m_ssl) > 0 || waitFor(m_sock, POLLIN, m_readTimeout);
    }

    bool is_writable() const override { return waitFor(m_sock, POLLOUT, m_writeTimeout); }

    ssize_t read(char *ptr, std::size_t size) override
    {
        if (m_atRequestLine) {
            m_atRequestLine = false;
            if (!readRequestLine())
                return -1;
        }
        if (m_pos < m_pending.size()) {
            const std::size_t n = std::min(size, m_pending.size() - m_pos);
            std::memcpy(ptr, m_pending.data() + m_pos, n);
            m_pos += n;
            return static_cast<ssize_t>(n);
        }
        return rawRead(ptr, size);
    }

    ssize_t write(const char *ptr, std::size_t size) override
    {
        if (!is_writable())
            return -1;
        const int n = SSL_write(m_ssl, ptr, static_cast<int>(std::min<std::size_t>(size, 1 << 30)));
        return n > 0 ? n : -1;
    }

    void get_remote_ip_and_port(std::string &ip, int &port) const override { addressOf(m_sock, true, ip, port); }
    void get_local_ip_and_port(std::string &ip, int &port) const override { addressOf(m_sock, false, ip, port); }
    socket_t socket() const override { return m_sock; }

private:
    ssize_t rawRead(char *ptr, std::size_t size)
    {
        if (SSL_pending(m_ssl) == 0 && !waitFor(m_sock, POLLIN, m_readTimeout))
            return -1;
        const int n = SSL_read(m_ssl, ptr, static_cast<int>(std::min<std::size_t>(size, 1 << 30)));
        if (n > 0)
            return n;
        return SSL_get_error(m_ssl, n) == SSL_ERROR_ZERO_RETURN ? 0 : -1;
    }

    bool readRequestLine()
    {
        std::string line;
        char c = 0;
        while (line.size() < maxRequestLine) {
            const ssize_t n = rawRead(&c, 1);
            if (n <= 0)
                break;
            line += c;
            if (c == '\n')
                break;
        }
        if (line.empty())
            return false;
        // "METHOD target VERSION\r\n": keep the target as sent, escape its later '?'.
        const auto first = line.find(' ');
        const auto last = line.rfind(' ');
        m_receivedTarget.clear();
        if (first != std::string::npos && last != std::string::npos && last > first) {
            m_receivedTarget = line.substr(first + 1, last - first - 1);
            std::string target;
            bool seenQuestion = false;
            for (char ch : m_receivedTarget) {
                if (ch == '?' && seenQuestion) {
                    target += "%3F";
                } else {
                    seenQuestion = seenQuestion || ch == '?';
                    target += ch;
                }
            }
            line = line.substr(0, first + 1) + target + line.substr(last);
        }
        m_pending = std::move(line);
        m_pos = 0;
        return true;
    }

    socket_t m_sock;
    SSL *m_ssl;
    time_t m_readTimeout;
    time_t m_writeTimeout;
    bool m_atRequestLine = false;
    std::string m_pending;
    std::size_t m_pos = 0;
    std::string m_receivedTarget;
};

} // namespace

TlsServer::TlsServer(X509 *cert, EVP_PKEY *key)
    : httplib::SSLServer(cert, key)
{
}

bool TlsServer::waitForRequest(socket_t sock) const
{
    // Idle keep-alive connections look up now and then, so that a stop is seen quickly.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(keep_alive_timeout_sec_);
    while (!m_stopping && svr_sock_ != INVALID_SOCKET) {
        pollfd p{sock, POLLIN, 0};
        const int rc = poll(&p, 1, 100);
        if (rc > 0)
            return (p.revents & POLLIN) != 0;
        if (rc < 0 && errno != EINTR)
            return false;
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
    }
    return false;
}

bool TlsServer::process_and_close_socket(socket_t sock)
{
    // Blocking socket with time limits: TLS calls then never wait longer than those.
    fcntl(sock, F_SETFL, fcntl(sock, F_GETFL) & ~O_NONBLOCK);
    timeval rt{static_cast<time_t>(read_timeout_sec_), static_cast<suseconds_t>(read_timeout_usec_)};
    timeval wt{static_cast<time_t>(write_timeout_sec_), static_cast<suseconds_t>(write_timeout_usec_)};
    setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &rt, sizeof rt);
    setsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &wt, sizeof wt);
    // Replies go out in several small TLS records; none may wait for a delayed ACK.
    const int on = 1;
    setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);

    bool ok = false;
    SSL *ssl = SSL_new(ssl_context());
    if (ssl && SSL_set_fd(ssl, sock) == 1 && SSL_accept(ssl) == 1) {
        RequestStream stream(sock, ssl, read_timeout_sec_, write_timeout_sec_);
        std::size_t left = keep_alive_max_count_;
        while (left > 0 && (SSL_pending(ssl) > 0 || waitForRequest(sock))) {
            const bool closeConnection = left == 1 || m_stopping;
            bool connectionClosed = false;
            stream.expectRequestLine();
            ok = process_request(stream, closeConnection, connectionClosed, [&](httplib::Request &req) {
                req.target = stream.receivedTarget();
                req.ssl = ssl;
            });
            if (!ok || connectionClosed || closeConnection)
                break;
            --left;
        }
        if (ok)
            SSL_shutdown(ssl); // a clean end only after a clean last exchange
    }
    ERR_clear_error();
    SSL_free(ssl);
    ::shutdown(sock, SHUT_RDWR);
    ::close(sock);
    return ok;
}

} // namespace cloudsim
