#include "faults.h"

#include <stdexcept>

namespace cloudsim {
namespace {

const std::pair<Fault::Kind, const char *> kindNames[] = {
    {Fault::Kind::Hang, "hang"},
    {Fault::Kind::Status, "status"},
    {Fault::Kind::ErrorBody, "error_body"},
    {Fault::Kind::DropAfter, "drop_after"},
    {Fault::Kind::WrongLength, "wrong_length"},
    {Fault::Kind::Slow, "slow"},
};

const char *kindName(Fault::Kind kind)
{
    for (const auto &[k, name] : kindNames)
        if (k == kind)
            return name;
    return "?";
}

// A body may be given as text or as any JSON value, which is then sent serialised.
std::string bodyText(const Json &value)
{
    return value.is_string() ? value.get<std::string>() : value.dump();
}

std::uint64_t unsignedField(const Json &j, const char *key)
{
    const auto &v = j.at(key);
    if (!v.is_number_integer() || v.get<std::int64_t>() < 0)
        throw std::invalid_argument(std::string("\"") + key + "\" must be a non-negative integer");
    return v.get<std::uint64_t>();
}

} // namespace

bool Fault::shapesStream() const
{
    return kind == Kind::DropAfter || kind == Kind::WrongLength || kind == Kind::Slow;
}

Fault Fault::fromJson(const Json &j)
{
    if (!j.is_object())
        throw std::invalid_argument("a fault must be an object");
    Fault f;
    const std::string kind = j.value("kind", std::string());
    bool known = false;
    for (const auto &[k, name] : kindNames) {
        if (kind == name) {
            f.kind = k;
            known = true;
        }
    }
    if (!known)
        throw std::invalid_argument("unknown fault kind \"" + kind + "\"");

    if (j.contains("path") && j.contains("prefix"))
        throw std::invalid_argument("give either \"path\" or \"prefix\", not both");
    if (j.contains("path")) {
        f.path = j.at("path").get<std::string>();
    } else if (j.contains("prefix")) {
        f.path = j.at("prefix").get<std::string>();
        f.prefix = true;
    } else {
        f.prefix = true; // every path
    }
    f.method = j.value("method", std::string());
    if (j.contains("times")) {
        f.remaining = static_cast<int>(unsignedField(j, "times"));
        if (f.remaining == 0)
            throw std::invalid_argument("\"times\" must be at least 1");
    }

    switch (f.kind) {
    case Kind::Hang:
        break;
    case Kind::Status:
        f.status = static_cast<int>(unsignedField(j, "status"));
        // Interim (1xx) answers would leave the client waiting for a final one.
        if (f.status < 200 || f.status > 599)
            throw std::invalid_argument("\"status\" must be an HTTP status code from 200 to 599");
        f.body = j.contains("body") ? bodyText(j.at("body")) : Json{{"code", f.status}, {"msg", "simulated"}}.dump();
        f.contentType = j.value("content_type", std::string("application/json; charset=utf-8"));
        break;
    case Kind::ErrorBody:
        f.status = 200;
        f.body = j.contains("body") ? bodyText(j.at("body"))
                                    : R"({"http_code":500,"error":"simulated failure","status":"fail"})";
        f.contentType = j.value("content_type", std::string("application/json; charset=utf-8"));
        break;
    case Kind::DropAfter:
        f.bytes = unsignedField(j, "bytes");
        break;
    case Kind::WrongLength:
        if (j.contains("length")) {
            f.length = unsignedField(j, "length");
            if (*f.length == 0)
                throw std::invalid_argument("\"length\" must be positive");
        } else {
            f.delta = j.value("delta", std::int64_t(100));
            if (f.delta == 0)
                throw std::invalid_argument("\"delta\" must not be 0");
        }
        break;
    case Kind::Slow:
        f.bytesPerSecond = unsignedField(j, "bytes_per_second");
        if (f.bytesPerSecond == 0)
            throw std::invalid_argument("\"bytes_per_second\" must be positive");
        break;
    }
    return f;
}

Json Fault::toJson() const
{
    Json j{{"kind", kindName(kind)}, {prefix ? "prefix" : "path", path}};
    if (!method.empty())
        j["method"] = method;
    if (remaining >= 0)
        j["times"] = remaining;
    switch (kind) {
    case Kind::Hang:
        break;
    case Kind::Status:
    case Kind::ErrorBody:
        j["status"] = status;
        j["body"] = body;
        break;
    case Kind::DropAfter:
        j["bytes"] = bytes;
        break;
    case Kind::WrongLength:
        if (length)
            j["length"] = *length;
        else
            j["delta"] = delta;
        break;
    case Kind::Slow:
        j["bytes_per_second"] = bytesPerSecond;
        break;
    }
    return j;
}

void FaultList::add(const Json &j)
{
    std::vector<Fault> parsed;
    try {
        if (j.is_array()) {
            for (const auto &item : j)
                parsed.push_back(Fault::fromJson(item));
        } else {
            parsed.push_back(Fault::fromJson(j));
        }
    } catch (const Json::exception &e) {
        throw std::invalid_argument(std::string("bad fault: ") + e.what());
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_faults.insert(m_faults.end(), parsed.begin(), parsed.end());
}

void FaultList::clear()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_faults.clear();
}

std::optional<Fault> FaultList::take(const std::string &method, const std::string &path)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    for (auto it = m_faults.begin(); it != m_faults.end(); ++it) {
        if (!it->method.empty() && it->method != method)
            continue;
        const bool hit = it->prefix ? path.compare(0, it->path.size(), it->path) == 0 : path == it->path;
        if (!hit)
            continue;
        Fault f = *it;
        if (it->remaining > 0 && --it->remaining == 0)
            m_faults.erase(it);
        return f;
    }
    return std::nullopt;
}

Json FaultList::toJson() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    Json list = Json::array();
    for (const auto &f : m_faults)
        list.push_back(f.toJson());
    return list;
}

std::size_t FaultList::size() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_faults.size();
}

} // namespace cloudsim
