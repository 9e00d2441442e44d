#include "reply.h"

#include "content.h"

#include <httplib.h>

#include <algorithm>
#include <stdexcept>

namespace cloudsim {

namespace {

// httplib files these under the request's headers; they are not what the client sent.
bool isPseudoHeader(const std::string &name)
{
    return name == "REMOTE_ADDR" || name == "REMOTE_PORT" || name == "LOCAL_ADDR" || name == "LOCAL_PORT";
}

} // namespace

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

Reply textReply(int status, std::string body, std::string contentType)
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

} // namespace cloudsim
