#include "server.h"

#include "certificates.h"
#include "content.h"
#include "crypto.h"
#include "deviceservice.h"
#include "faults.h"
#include "json.h"
#include "login.h"
#include "messaging.h"
#include "scenario.h"
#include "tlsserver.h"

#include <httplib.h>

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <list>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

namespace cloudsim {
namespace {

constexpr std::size_t chunkSize = 64 * 1024;
constexpr std::size_t requestLogLimit = 10000;
const char *const jsonType = "application/json; charset=utf-8";

// httplib files these under the request's headers; they are not what the client sent.
bool isPseudoHeader(const std::string &name)
{
    return name == "REMOTE_ADDR" || name == "REMOTE_PORT" || name == "LOCAL_ADDR" || name == "LOCAL_PORT";
}

// Request data may be any bytes; invalid UTF-8 must not make a JSON answer throw.
std::string dumpJson(const Json &j)
{
    return j.dump(-1, ' ', false, Json::error_handler_t::replace);
}

bool startsWith(const std::string &text, const std::string &prefix)
{
    return text.compare(0, prefix.size(), prefix) == 0;
}

Json headersOf(const httplib::Request &req)
{
    Json headers = Json::object();
    for (const auto &[name, value] : req.headers) {
        if (isPseudoHeader(name))
            continue;
        if (headers.contains(name))
            headers[name] = headers[name].get<std::string>() + ", " + value;
        else
            headers[name] = value;
    }
    return headers;
}

std::string percentDecode(const std::string &text, bool plusIsSpace)
{
    auto hexValue = [](char c) -> int {
        if (c >= '0' && c <= '9')
            return c - '0';
        if (c >= 'a' && c <= 'f')
            return c - 'a' + 10;
        if (c >= 'A' && c <= 'F')
            return c - 'A' + 10;
        return -1;
    };
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && hexValue(text[i + 1]) >= 0 && hexValue(text[i + 2]) >= 0) {
            out += static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
            i += 2;
        } else if (text[i] == '+' && plusIsSpace) {
            out += ' ';
        } else {
            out += text[i];
        }
    }
    return out;
}

using QueryItems = std::vector<std::pair<std::string, std::string>>;

// Splits at '&' and at the first '=' of each item. httplib's own parameter map cannot be
// used for the gateway: its value "Rest/Lite/Medias?search=" holds a '?' and a '='.
QueryItems parseQuery(const std::string &query)
{
    QueryItems items;
    std::size_t start = 0;
    while (start <= query.size()) {
        std::size_t end = query.find('&', start);
        if (end == std::string::npos)
            end = query.size();
        const std::string item = query.substr(start, end - start);
        if (!item.empty()) {
            const auto eq = item.find('=');
            items.emplace_back(percentDecode(item.substr(0, eq), true),
                               eq == std::string::npos ? std::string() : percentDecode(item.substr(eq + 1), true));
        }
        start = end + 1;
    }
    return items;
}

std::string queryValue(const QueryItems &items, const std::string &key, const std::string &fallback = {})
{
    for (const auto &[k, v] : items)
        if (k == key)
            return v;
    return fallback;
}

bool hasParam(const QueryItems &items, const std::string &key)
{
    return std::any_of(items.begin(), items.end(), [&key](const auto &item) { return item.first == key; });
}

bool isDecimal(const std::string &text)
{
    return !text.empty() && text.size() <= 9 && text.find_first_not_of("0123456789") == std::string::npos;
}

// A catalogue size parameter: present and decimal, else nothing (the cloud has no defaults).
std::optional<std::size_t> sizeParam(const QueryItems &items, const std::string &key)
{
    const std::string text = queryValue(items, key);
    if (!hasParam(items, key) || !isDecimal(text))
        return std::nullopt;
    return static_cast<std::size_t>(std::stoul(text));
}

// The media type filter: one or more "filters[type][<n>]" with decimal values, nothing else
// under "filters".
bool validTypeFilter(const QueryItems &items)
{
    static const std::string prefix = "filters[type][";
    bool any = false;
    for (const auto &[key, value] : items) {
        if (key.rfind("filters", 0) != 0)
            continue;
        const std::string index = key.size() > prefix.size() + 1 && key.rfind(prefix, 0) == 0 && key.back() == ']'
            ? key.substr(prefix.size(), key.size() - prefix.size() - 1)
            : std::string();
        if (!isDecimal(index) || !isDecimal(value))
            return false;
        any = true;
    }
    return any;
}

const char *statusText(int status)
{
    switch (status) {
    case 200:
        return "ok";
    case 400:
        return "bad request";
    case 401:
        return "unauthorized";
    case 403:
        return "forbidden";
    case 404:
        return "not found";
    case 405:
        return "method not allowed";
    case 416:
        return "range not satisfiable";
    case 500:
        return "internal server failure";
    case 502:
        return "bad gateway";
    case 503:
        return "service unavailable";
    case 504:
        return "gateway timeout";
    default:
        return "status";
    }
}

bool statusHasBody(int status)
{
    return status >= 200 && status != 204 && status != 304;
}

// What a route answers, before the faults decide how it travels.
struct Reply
{
    int status = 200;
    std::string contentType = jsonType;
    std::vector<std::pair<std::string, std::string>> headers;
    std::shared_ptr<const Content> content; // null: no body
    std::uint64_t offset = 0; // the window of content that is sent
    std::uint64_t length = 0;
};

Reply textReply(int status, std::string body, std::string contentType = jsonType)
{
    Reply r;
    r.status = status;
    r.contentType = std::move(contentType);
    r.length = body.size();
    r.content = textContent(std::move(body));
    return r;
}

// A control request's body; a body that is not JSON is the caller's mistake.
Json parseBody(const httplib::Request &req)
{
    try {
        return Json::parse(req.body);
    } catch (const Json::exception &e) {
        throw std::invalid_argument(std::string("the body is not JSON: ") + e.what());
    }
}

Reply jsonReply(int status, const Json &j)
{
    return textReply(status, dumpJson(j));
}

Reply plainStatus(int status)
{
    if (!statusHasBody(status)) {
        Reply r;
        r.status = status;
        return r;
    }
    return jsonReply(status, Json{{"code", status}, {"msg", statusText(status)}});
}

// The gateway's own way of refusing: HTTP 200 with the reason inside.
Reply cloudFailure(int code, const std::string &reason)
{
    return jsonReply(200, Json{{"http_code", code}, {"error", reason}, {"status", "fail"}});
}

// Single byte ranges as a download resumes them; anything else gets the whole body (which
// HTTP allows). A range that starts past the end is refused with 416.
Reply contentReply(const httplib::Request &req, std::shared_ptr<const Content> content, const std::string &contentType)
{
    Reply r;
    r.contentType = contentType;
    r.headers.emplace_back("Accept-Ranges", "bytes");
    const std::uint64_t size = content->size();
    r.content = std::move(content);
    r.length = size;

    const std::string range = req.get_header_value("Range");
    if (!startsWith(range, "bytes=") || range.find(',') != std::string::npos)
        return r;
    const std::string bounds = range.substr(6);
    const auto dash = bounds.find('-');
    if (dash == std::string::npos)
        return r;
    const std::string first = bounds.substr(0, dash);
    const std::string last = bounds.substr(dash + 1);
    auto isNumber = [](const std::string &s) {
        return !s.empty() && s.size() < 20 && s.find_first_not_of("0123456789") == std::string::npos;
    };
    std::uint64_t begin = 0;
    std::uint64_t end = size; // exclusive
    if (first.empty()) {
        if (!isNumber(last))
            return r;
        const std::uint64_t suffix = std::stoull(last);
        begin = suffix == 0 ? size : size - std::min<std::uint64_t>(suffix, size);
    } else {
        if (!isNumber(first) || (!last.empty() && !isNumber(last)))
            return r;
        begin = std::stoull(first);
        if (!last.empty()) {
            const std::uint64_t lastByte = std::stoull(last);
            if (lastByte < begin)
                return r; // invalid, so ignored
            end = std::min<std::uint64_t>(lastByte + 1, size);
        }
    }
    if (begin >= size) {
        Reply refused;
        refused.status = 416;
        refused.headers.emplace_back("Content-Range", "bytes */" + std::to_string(size));
        return refused;
    }
    r.status = 206;
    r.offset = begin;
    r.length = end - begin;
    r.headers.emplace_back(
        "Content-Range", "bytes " + std::to_string(begin) + "-" + std::to_string(end - 1) + "/" + std::to_string(size));
    return r;
}

// One thread per connection instead of httplib's fixed pool: a hanging request holds its
// thread, and a test may leave many of them hanging without starving the other requests.
class ConnectionThreads : public httplib::TaskQueue
{
public:
    void enqueue(std::function<void()> fn) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        reapFinished();
        auto done = std::make_shared<std::atomic<bool>>(false);
        m_threads.push_back({std::thread([fn = std::move(fn), done] {
                                 fn();
                                 done->store(true);
                             }),
                             done});
    }

    void shutdown() override
    {
        std::list<Worker> threads;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            threads.swap(m_threads);
        }
        for (auto &w : threads)
            w.thread.join();
    }

private:
    struct Worker
    {
        std::thread thread;
        std::shared_ptr<std::atomic<bool>> done;
    };

    void reapFinished()
    {
        for (auto it = m_threads.begin(); it != m_threads.end();) {
            if (it->done->load()) {
                it->thread.join();
                it = m_threads.erase(it);
            } else {
                ++it;
            }
        }
    }

    std::mutex m_mutex;
    std::list<Worker> m_threads;
};

} // namespace

class Server::Private
{
public:
    Private(Scenario &scenario, LoginService &login, Messaging &messaging, DeviceService &devices, FaultList &faults,
            const Certificates &certificates, const ServerOptions &options)
        : scenario(scenario)
        , login(login)
        , messaging(messaging)
        , devices(devices)
        , faults(faults)
        , options(options)
        , http(certificates.serverCert.get(), certificates.serverKey.get())
    {
    }

    void handle(const httplib::Request &req, httplib::Response &res);
    Reply route(const httplib::Request &req);
    Reply gateway(const httplib::Request &req);
    Reply gatewayApis(const httplib::Request &req);
    Reply catalogue(const httplib::Request &req, const QueryItems &params);
    Reply control(const httplib::Request &req);
    Reply mqttControl(const httplib::Request &req);
    void send(const httplib::Request &req, httplib::Response &res, const Reply &reply,
              const std::optional<Fault> &fault);
    void hang(const httplib::Request &req, httplib::Response &res);
    void logRequest(const httplib::Request &req);
    bool pause(std::chrono::milliseconds duration);

    Scenario &scenario;
    LoginService &login;
    Messaging &messaging;
    DeviceService &devices;
    FaultList &faults;
    ServerOptions options;
    TlsServer http;
    std::thread thread;

    std::atomic<bool> stopping{false};
    std::mutex waitMutex;
    std::condition_variable wake;

    std::mutex logMutex;
    std::deque<Json> requestLog;
};

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
        return jsonReply(200, login.nodes());
    }
    // The configured address ends in a slash; a client that drops it is served too.
    if (path == "/mqtt/control/v1/" || path == "/mqtt/control/v1") {
        if (!get)
            return plainStatus(405);
        return jsonReply(200, login.dns());
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

// The client appends the service path and its query verbatim after "cirro=", so the
// service's own parameters arrive as parameters of the gateway URL. A client that encodes
// the whole value is understood too.
static std::string gatewayService(const httplib::Request &req, QueryItems *params)
{
    const auto question = req.target.find('?');
    const QueryItems outer =
        parseQuery(question == std::string::npos ? std::string() : req.target.substr(question + 1));
    const std::string cirro = queryValue(outer, "cirro");
    const auto inner = cirro.find('?');
    if (params) {
        *params = inner == std::string::npos ? QueryItems() : parseQuery(cirro.substr(inner + 1));
        for (const auto &item : outer)
            if (item.first != "cirro")
                params->push_back(item);
    }
    return cirro.substr(0, inner);
}

Reply Server::Private::gateway(const httplib::Request &req)
{
    QueryItems params;
    const std::string service = gatewayService(req, &params);
    if (auto forced = login.takeOverride(service))
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
    const std::string service = gatewayService(req, nullptr);
    // The player authorization names its service path in Base64 and only so: the plain path
    // is an unknown service.
    static const std::string playerAuth = "v1/web-backend-service/player/auth";
    const auto decoded = base64Decode(service);
    const bool isPlayerAuth = decoded && *decoded == playerAuth;
    if (auto forced = login.takeOverride(isPlayerAuth ? playerAuth : service))
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
    const auto limit = sizeParam(params, "limit");
    if (!limit || *limit == 0)
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

Reply Server::Private::control(const httplib::Request &req)
{
    const std::string &path = req.path;
    const std::string &method = req.method;
    try {
        if (path == "/control/faults") {
            if (method == "POST")
                faults.add(parseBody(req));
            else if (method == "DELETE")
                faults.clear();
            else if (method != "GET")
                return plainStatus(405);
            return jsonReply(200, Json{{"faults", faults.toJson()}});
        }
        if (path == "/control/media") {
            if (method != "POST")
                return plainStatus(405);
            return jsonReply(200, scenario.changeMedia(parseBody(req)));
        }
        if (path == "/control/codes") {
            if (method != "GET")
                return plainStatus(405);
            return jsonReply(200, login.codes());
        }
        if (path == "/control/devices") {
            if (method != "GET")
                return plainStatus(405);
            return jsonReply(200, login.devices());
        }
        if (path == "/control/gateway") {
            if (method == "POST")
                login.setOverrides(parseBody(req));
            else if (method == "DELETE")
                login.clearOverrides();
            else if (method != "GET")
                return plainStatus(405);
            return jsonReply(200, login.overrides());
        }
        if (startsWith(path, "/control/mqtt"))
            return mqttControl(req);
        if (path == "/control/requests") {
            std::lock_guard<std::mutex> lock(logMutex);
            if (method == "DELETE")
                requestLog.clear();
            else if (method != "GET")
                return plainStatus(405);
            Json list = Json::array();
            for (const auto &entry : requestLog)
                list.push_back(entry);
            return jsonReply(200, list);
        }
    } catch (const std::invalid_argument &e) {
        return jsonReply(400, Json{{"code", 400}, {"msg", e.what()}});
    }
    return plainStatus(404);
}

Reply Server::Private::mqttControl(const httplib::Request &req)
{
    const std::string &path = req.path;
    const std::string &method = req.method;
    if (path == "/control/mqtt") {
        if (method == "POST") {
            const Json body = parseBody(req);
            if (!body.is_object())
                throw std::invalid_argument("the body must be an object");
            if (body.contains("answerBinding")) {
                if (!body.at("answerBinding").is_boolean())
                    throw std::invalid_argument("\"answerBinding\" must be a boolean");
                devices.setAnswerBinding(body.at("answerBinding").get<bool>());
            }
            if (body.contains("url")) {
                if (!body.at("url").is_string() || body.at("url").get<std::string>().empty())
                    throw std::invalid_argument("\"url\" must be a non-empty string");
                try {
                    devices.connect(body.at("url").get<std::string>());
                } catch (const std::runtime_error &e) {
                    return jsonReply(502, Json{{"code", 502}, {"msg", e.what()}});
                }
            }
        } else if (method == "DELETE") {
            devices.disconnect();
        } else if (method != "GET") {
            return plainStatus(405);
        }
        return jsonReply(200, devices.state());
    }
    if (path == "/control/mqtt/messages") {
        if (method == "DELETE")
            devices.clearMessages();
        else if (method != "GET")
            return plainStatus(405);
        return jsonReply(200, devices.messages());
    }
    if (path == "/control/mqtt/send") {
        if (method != "POST")
            return plainStatus(405);
        try {
            return jsonReply(200, devices.send(parseBody(req)));
        } catch (const std::runtime_error &e) {
            return jsonReply(502, Json{{"code", 502}, {"msg", e.what()}});
        }
    }
    if (path == "/control/mqtt/auth") {
        if (method == "POST")
            messaging.setControl(parseBody(req));
        else if (method == "DELETE")
            messaging.clear();
        else if (method != "GET")
            return plainStatus(405);
        return jsonReply(200, messaging.control());
    }
    return plainStatus(404);
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

Server::Server(Scenario &scenario, LoginService &login, Messaging &messaging, DeviceService &devices, FaultList &faults,
               const Certificates &certificates, const ServerOptions &options)
    : d(std::make_unique<Private>(scenario, login, messaging, devices, faults, certificates, options))
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
