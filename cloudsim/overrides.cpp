#include "overrides.h"

#include <stdexcept>

namespace cloudsim {

GatewayOverrides::Override GatewayOverrides::parseOverride(const Json &j, const std::string &service)
{
    if (!j.is_object())
        throw std::invalid_argument("the override of " + service + " must be an object");
    Override o;
    if (j.contains("status")) {
        if (!j.at("status").is_number_integer() || j.at("status").get<int>() < 200 || j.at("status").get<int>() > 599)
            throw std::invalid_argument("the override of " + service + ": \"status\" must be 200 to 599");
        o.status = j.at("status").get<int>();
    }
    if (j.contains("body"))
        o.body = j.at("body").is_string() ? j.at("body").get<std::string>() : j.at("body").dump();
    if (j.contains("times")) {
        if (!j.at("times").is_number_integer() || j.at("times").get<int>() < 1)
            throw std::invalid_argument("the override of " + service + ": \"times\" must be a positive integer");
        o.remaining = j.at("times").get<int>();
    }
    return o;
}

void GatewayOverrides::load(const Json &scenario)
{
    std::map<std::string, Override> overrides;
    try {
        if (scenario.contains("gateway")) {
            const Json &gateway = scenario.at("gateway");
            if (!gateway.is_object())
                throw std::invalid_argument("\"gateway\" must be an object keyed by service path");
            for (auto it = gateway.begin(); it != gateway.end(); ++it)
                overrides[it.key()] = parseOverride(it.value(), it.key());
        }
    } catch (const Json::exception &e) {
        throw std::invalid_argument(std::string("bad scenario: ") + e.what());
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_overrides = std::move(overrides);
}

std::optional<ServiceReply> GatewayOverrides::take(const std::string &service)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto it = m_overrides.find(service);
    if (it == m_overrides.end())
        return std::nullopt;
    const ServiceReply reply{it->second.status, it->second.body};
    if (it->second.remaining > 0 && --it->second.remaining == 0)
        m_overrides.erase(it);
    return reply;
}

void GatewayOverrides::set(const Json &overrides)
{
    if (!overrides.is_object())
        throw std::invalid_argument("overrides must be an object keyed by service path");
    std::map<std::string, Override> parsed;
    for (auto it = overrides.begin(); it != overrides.end(); ++it)
        parsed[it.key()] = parseOverride(it.value(), it.key());
    std::lock_guard<std::mutex> lock(m_mutex);
    for (auto &[service, o] : parsed)
        m_overrides[service] = o;
}

void GatewayOverrides::clear()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_overrides.clear();
}

Json GatewayOverrides::toJson() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    Json list = Json::object();
    for (const auto &[service, o] : m_overrides) {
        Json entry{{"status", o.status}, {"body", o.body}};
        if (o.remaining > 0)
            entry["times"] = o.remaining;
        list[service] = std::move(entry);
    }
    return list;
}

} // namespace cloudsim
