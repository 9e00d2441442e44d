#include "server_p.h"

#include "certificates.h"
#include "connectionthreads.h"
#include "content.h"
#include "crypto.h"
#include "deviceservice.h"
#include "directory.h"
#include "login.h"
#include "messaging.h"
#include "overrides.h"
#include "scenario.h"

#include <httplib.h>

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <utility>
#include <vector>

namespace cloudsim {
namespace {

constexpr std::size_t chunkSize = 64 * 1024;
constexpr std::size_t requestLogLimit = 10000;
constexpr std::size_t maxPageSize = 50; // media per catalogue page

} // namespace

bool Server::Private::pause(std::chrono::milliseconds duration)
{
    std::unique_lock<std::mutex> lock(waitMutex);
    wake.wait_for(lock, duration, [this] { return stopping.load(); });
    return !stopping;
}

void Server::Private::logRequest(const httplib::Request &req)
{
    Json entry{{"method", req.method}, {"path", req.target}, {"headers", headersOf(req)}, {"body", req.body}};
    std::lock_guard<std::mutex> lock(logMutex);
    requestLog.push_back(std::move(entry));
    if (requestLog.size() > requestLogLimit)
        requestLog.pop_front();
}

void Server::Private::handle(const httplib::Request &req, httplib::Response &res)
{
    // The control endpoints stay reachable and out of the log whatever a test broke.
    const bool isControl = startsWith(req.path, "/control/");
    std::optional<Fault> fault;
    if (!isControl) {
        logRequest(req);
        fault = faults.take(req.method, req.path);
    }
    if (fault && fault->kind == Fault::Kind::Hang) {
        hang(req, res);
        return;
    }
    if (fault && (fault->kind == Fault::Kind::Status || fault->kind == Fault::Kind::ErrorBody)) {
        send(req, res, textReply(fault->status, fault->body, fault->contentType), std::nullopt);
        return;
    }
    Reply reply;
    try {
        reply = route(req);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "cloudsim: %s %s failed: %s\n", req.method.c_str(), req.target.c_str(), e.what());
        reply = plainStatus(500);
    }
    send(req, res, reply, fault);
}

void Server::Private::hang(const httplib::Request &req, httplib::Response &res)
{
    const int fd = req.ssl ? SSL_get_fd(req.ssl) : -1;
    // Held until the client gives up or the server stops; a client that went away must not
    // keep a thread forever.
    while (pause(std::chrono::milliseconds(100))) {
        if (fd < 0)
            continue;
        pollfd p{fd, POLLRDHUP, 0};
        if (poll(&p, 1, 0) > 0 && (p.revents & (POLLRDHUP | POLLHUP | POLLERR)))
            break;
    }
    // Ending the socket here means the client never sees a status line.
    if (fd >= 0)
        ::shutdown(fd, SHUT_RDWR);
    res.status = 500;
}

Reply Server::Private::route(const httplib::Request &req)
{
    const std::string &path = req.path;
    const bool get = req.method == "GET" || req.method == "HEAD";
    if (path == "/gateway/cirro")
        return gateway(req);
    if (path == "/gateway/apis")
        return gatewayApis(req);
    if (path == "/nodes.json") {
        if (!get)
            return plainStatus(405);
        return jsonReply(200, directory.nodes());
    }
    // The configured address ends in a slash; a client that drops it is served too.
    if (path == "/mqtt/control/v1/" || path == "/mqtt/control/v1") {
        if (!get)
            return plainStatus(405);
        return jsonReply(200, directory.dns());
    }
    // The messaging authentication: main endpoint under the first DNS key, backup under the second.
    if (path == "/mqtt/auth" || path == "/mqtt/auth-backup") {
        if (req.method != "POST")
            return plainStatus(405);
        const auto reply = messaging.authenticate(path == "/mqtt/auth" ? 0 : 1, req.body,
                                                  [&req](const char *name) { return req.get_header_value(name); });
        return textReply(reply.status, reply.body);
    }
    if (startsWith(path, "/control/"))
        return control(req);
    if (path == "/echo") {
        if (!get && req.method != "POST")
            return plainStatus(405);
        return jsonReply(
            200, Json{{"method", req.method}, {"path", req.target}, {"headers", headersOf(req)}, {"body", req.body}});
    }
    if (startsWith(path, "/status/")) {
        const std::string code = path.substr(8);
        if (code.size() == 3 && code.find_first_not_of("0123456789") == std::string::npos) {
            const int status = std::stoi(code);
            if (status >= 200 && status <= 599)
                return plainStatus(status);
        }
        return plainStatus(404);
    }
    if (startsWith(path, "/files/")) {
        if (!get)
            return plainStatus(405);
        auto content = scenario.file(path.substr(7));
        if (!content)
            return plainStatus(404);
        return contentReply(req, std::move(content), "application/octet-stream");
    }
    if (startsWith(path, "/thumbs/") && path.size() > 12 && path.compare(path.size() - 4, 4, ".png") == 0) {
        if (!get)
            return plainStatus(405);
        return contentReply(req, textContent(solidPng(path.substr(8, path.size() - 12))), "image/png");
    }
    // The node directory's flags: any name, a picture of one colour like the thumbnails.
    if (startsWith(path, "/icons/") && path.size() > 11 && path.compare(path.size() - 4, 4, ".png") == 0) {
        if (!get)
            return plainStatus(405);
        return contentReply(req, textContent(solidPng("icon:" + path.substr(7, path.size() - 11))), "image/png");
    }
    return plainStatus(404);
}

Reply Server::Private::gateway(const httplib::Request &req)
{
    QueryItems params;
    const std::string service = gatewayService(req.target, &params);
    if (auto forced = overrides.take(service))
        return textReply(forced->status, forced->body);

    if (service == "Rest/Lite/Medias") {
        if (req.method != "GET")
            return plainStatus(405);
        return catalogue(req, params);
    }
    return jsonReply(404, Json{{"http_code", 404}, {"error", "unknown service"}, {"status", "fail"}});
}

Reply Server::Private::gatewayApis(const httplib::Request &req)
{
    const std::string service = gatewayService(req.target, nullptr);
    // The player authorization names its service path in Base64 and only so: the plain path
    // is an unknown service.
    static const std::string playerAuth = "v1/web-backend-service/player/auth";
    const auto decoded = base64Decode(service);
    const bool isPlayerAuth = decoded && *decoded == playerAuth;
    if (auto forced = overrides.take(isPlayerAuth ? playerAuth : service))
        return textReply(forced->status, forced->body);
    if (isPlayerAuth) {
        if (!(req.method == "GET" || req.method == "HEAD"))
            return plainStatus(405);
        return jsonReply(200, messaging.playerAuth(req.get_header_value("authorization")));
    }
    if (req.method != "POST")
        return plainStatus(405);
    auto reply = login.post(service, req.body, [&req](const char *name) { return req.get_header_value(name); });
    if (!reply)
        return jsonReply(404, Json{{"http_code", 404}, {"error", "unknown service"}, {"status", "fail"}});
    return textReply(reply->status, reply->body);
}

Reply Server::Private::catalogue(const httplib::Request &req, const QueryItems &params)
{
    if (req.get_header_value("source") != "mediaserver" || req.get_header_value("version") != "V1.0.0")
        return cloudFailure(400, "invalid request source");
    const std::string token = req.get_header_value("Authorization");
    if (token.empty() || req.get_header_value("Token") != token || !scenario.hasAccount(token))
        return cloudFailure(401, "invalid token");

    // The cloud pages only on what it is told: each paging parameter must be there and well formed.
    const auto offset = sizeParam(params, "offset");
    if (!offset)
        return cloudFailure(400, "invalid offset");
    // A page holds at most 50 media; there is no asking for the whole account at once.
    const auto limit = sizeParam(params, "limit");
    if (!limit || *limit == 0 || *limit > maxPageSize)
        return cloudFailure(400, "invalid limit");
    const std::string sortType = queryValue(params, "sortType");
    if (sortType != "asc" && sortType != "desc")
        return cloudFailure(400, "invalid sortType");
    if (!validTypeFilter(params))
        return cloudFailure(400, "invalid type filter");
    const auto page = scenario.page(token, *offset, *limit, sortType == "desc", queryValue(params, "search"));
    if (!page)
        return cloudFailure(401, "invalid token"); // removed meanwhile
    Json data = Json::object();
    data["count"] = page->count;
    data["mediaList"] = page->mediaList;
    Json body = Json::object();
    body["http_code"] = 200;
    body["data"] = std::move(data);
    body["status"] = page->status;
    return jsonReply(200, body);
}

void Server::Private::send(const httplib::Request &req, httplib::Response &res, const Reply &reply,
                           const std::optional<Fault> &fault)
{
    // Ranges were answered by the route; httplib must not cut the body a second time. The
    // request object itself is not const inside the server, so this is well-defined.
    const_cast<httplib::Request &>(req).ranges.clear();
    res.status = reply.status;
    for (const auto &[name, value] : reply.headers)
        res.set_header(name, value);

    const bool shaped = fault && fault->shapesStream();
    const std::uint64_t length = reply.content ? reply.length : 0;
    if (length == 0 && !(shaped && fault->kind == Fault::Kind::WrongLength)) {
        if (statusHasBody(reply.status))
            res.set_content(std::string(), reply.contentType);
        return;
    }

    std::uint64_t announced = length;
    if (shaped && fault->kind == Fault::Kind::WrongLength) {
        if (fault->length) {
            announced = *fault->length;
        } else {
            const std::int64_t wanted = static_cast<std::int64_t>(length) + fault->delta;
            announced = wanted < 1 ? 1 : static_cast<std::uint64_t>(wanted);
        }
    }

    struct Transfer
    {
        std::shared_ptr<const Content> content;
        std::uint64_t offset;
        std::uint64_t length;
        std::optional<Fault> fault;
        std::vector<char> buffer;
    };
    auto t = std::make_shared<Transfer>(
        Transfer{reply.content, reply.offset, length, shaped ? fault : std::nullopt, std::vector<char>(chunkSize)});

    // Writes [from, to) of the window; false when the client or the server went away.
    auto writeRange = [this, t](std::uint64_t from, std::uint64_t to, httplib::DataSink &sink) {
        while (from < to) {
            if (stopping)
                return false;
            const auto n = static_cast<std::size_t>(std::min<std::uint64_t>(chunkSize, to - from));
            t->content->read(t->offset + from, t->buffer.data(), n);
            if (!sink.write(t->buffer.data(), n))
                return false;
            from += n;
        }
        return true;
    };

    res.set_content_provider(static_cast<std::size_t>(announced), reply.contentType,
                             [this, t, writeRange](std::size_t offset, std::size_t, httplib::DataSink &sink) -> bool {
                                 if (!t->fault) {
                                     const std::uint64_t to = std::min<std::uint64_t>(t->length, offset + chunkSize);
                                     return writeRange(offset, to, sink);
                                 }
                                 switch (t->fault->kind) {
                                 case Fault::Kind::DropAfter:
                                     // Returning false makes the server close the connection mid-body.
                                     writeRange(0, std::min(t->fault->bytes, t->length), sink);
                                     return false;
                                 case Fault::Kind::WrongLength:
                                     // The real bytes, whatever was announced, then the end of the connection.
                                     writeRange(0, t->length, sink);
                                     return false;
                                 case Fault::Kind::Slow: {
                                     const std::uint64_t step =
                                         std::max<std::uint64_t>(1, t->fault->bytesPerSecond / 20);
                                     const std::uint64_t to = std::min<std::uint64_t>(t->length, offset + step);
                                     if (!writeRange(offset, to, sink))
                                         return false;
                                     const auto ms = (to - offset) * 1000 / t->fault->bytesPerSecond;
                                     return pause(std::chrono::milliseconds(ms));
                                 }
                                 default:
                                     return false;
                                 }
                             });
}

Server::Server(Scenario &scenario, Directory &directory, LoginService &login, GatewayOverrides &overrides,
               Messaging &messaging, DeviceService &devices, FaultList &faults, const Certificates &certificates,
               const ServerOptions &options)
    : d(std::make_unique<Private>(scenario, directory, login, overrides, messaging, devices, faults, certificates,
                                  options))
{
    if (!d->http.is_valid())
        throw std::runtime_error("cannot set up TLS with the generated certificate");
    d->http.new_task_queue = [] { return new ConnectionThreads; };
    d->http.set_keep_alive_max_count(100);
    // Small replies must not wait for the client's delayed acknowledgement.
    d->http.set_tcp_nodelay(true);
    auto handler = [this](const httplib::Request &req, httplib::Response &res) { d->handle(req, res); };
    const std::string any = ".*";
    d->http.Get(any, handler);
    d->http.Post(any, handler);
    d->http.Put(any, handler);
    d->http.Patch(any, handler);
    d->http.Delete(any, handler);
    d->http.Options(any, handler);
    if (d->options.verbose) {
        d->http.set_logger([](const httplib::Request &req, const httplib::Response &res) {
            std::fprintf(stderr, "cloudsim: %s %s -> %d\n", req.method.c_str(), req.target.c_str(), res.status);
        });
    }
}

Server::~Server()
{
    stop();
}

int Server::bind()
{
    int port = d->options.port;
    if (port == 0)
        port = d->http.bind_to_any_port(d->options.host);
    else if (!d->http.bind_to_port(d->options.host, port))
        port = -1;
    if (port <= 0)
        throw std::runtime_error("cannot listen on " + d->options.host + ":" + std::to_string(d->options.port));
    return port;
}

void Server::start()
{
    d->thread = std::thread([this] { d->http.listen_after_bind(); });
}

void Server::stop()
{
    {
        std::lock_guard<std::mutex> lock(d->waitMutex);
        d->stopping = true;
    }
    d->wake.notify_all();
    d->http.setStopping();
    d->http.stop();
    if (d->thread.joinable())
        d->thread.join();
}

} // namespace cloudsim
