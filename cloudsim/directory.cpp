#include "directory.h"

#include "crypto.h"

#include <stdexcept>

namespace cloudsim {

namespace {

// Replaces "{host}" in every string of the scenario's own directory.
Json withHost(const Json &j, const std::string &host)
{
    if (j.is_string()) {
        std::string s = j.get<std::string>();
        for (auto at = s.find("{host}"); at != std::string::npos; at = s.find("{host}", at + host.size()))
            s.replace(at, 6, host);
        return s;
    }
    if (j.is_array() || j.is_object()) {
        Json copy = j;
        for (auto it = copy.begin(); it != copy.end(); ++it)
            *it = withHost(*it, host);
        return copy;
    }
    return j;
}

} // namespace

Directory::Directory()
{
    // Two RSA keys take up to a second or two; the ready line need not wait for them.
    m_dnsReady = std::async(std::launch::async, [this] {
                     m_dnsKeys.push_back(generateRsaKey(2048, &m_stopping));
                     m_dnsKeys.push_back(generateRsaKey(2048, &m_stopping));
                 }).share();
}

Directory::~Directory()
{
    m_stopping = true;
    m_dnsReady.wait();
}

void Directory::load(const Json &scenario)
{
    std::optional<Json> nodes;
    std::string identity = "cn-1";
    std::string slave = "one";
    Json status = 200;
    try {
        if (scenario.contains("nodes")) {
            if (!scenario.at("nodes").is_array())
                throw std::invalid_argument("\"nodes\" must be an array");
            nodes = scenario.at("nodes");
        }
        if (scenario.contains("dns")) {
            const Json &dns = scenario.at("dns");
            if (!dns.is_object())
                throw std::invalid_argument("\"dns\" must be an object");
            if (dns.contains("identity")) {
                if (!dns.at("identity").is_string())
                    throw std::invalid_argument("\"dns\": \"identity\" must be a string");
                identity = dns.at("identity").get<std::string>();
            }
            if (dns.contains("slave")) {
                slave = dns.at("slave").is_string() ? dns.at("slave").get<std::string>() : std::string();
                if (slave != "one" && slave != "empty" && slave != "null" && slave != "missing")
                    throw std::invalid_argument("\"dns\": \"slave\" takes \"one\", \"empty\", \"null\", \"missing\"");
            }
            if (dns.contains("status"))
                status = dns.at("status");
        }
    } catch (const Json::exception &e) {
        throw std::invalid_argument(std::string("bad scenario: ") + e.what());
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_nodes = std::move(nodes);
    m_dnsIdentity = identity;
    m_dnsSlave = slave;
    m_dnsStatus = status;
}

void Directory::setAddress(const std::string &baseUrl, const std::string &host)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_baseUrl = baseUrl;
    m_host = host;
}

Json Directory::nodes() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_nodes)
        return Json{{"cirro", withHost(*m_nodes, m_host)}};
    // Every region leads back here; the keys keep the regions apart.
    struct Region
    {
        const char *en;
        const char *zh;
        const char *key;
        const char *icon;
    };
    static const Region regions[] = {
        {"China", "中国", "cn-1", "china.png"},      {"Europe", "欧洲", "eu-1", "europe.png"},
        {"United States", "美国", "us-1", "us.png"}, {"Australia", "澳大利亚", "au-1", "australia.png"},
        {"India", "印度", "in-1", "india.png"},
    };
    Json list = Json::array();
    for (const auto &r : regions) {
        Json entry = Json::object();
        entry["label"] = Json{{"en", r.en}, {"zh-cn", r.zh}}; // the directory's own key spelling
        entry["node"] = m_host;
        entry["key"] = r.key;
        entry["icon"] = m_baseUrl + "/icons/" + r.icon;
        list.push_back(std::move(entry));
    }
    return Json{{"cirro", std::move(list)}};
}

Json Directory::dns() const
{
    m_dnsReady.get(); // rethrows a failed generation
    std::lock_guard<std::mutex> lock(m_mutex);
    auto endpoint = [this](std::size_t key, const char *path) {
        Json e = Json::object();
        e["publicKey"] = publicKeyBase64(m_dnsKeys[key].get());
        e["currentNodeIdentity"] = m_dnsIdentity;
        e["mqttAuthUrl"] = m_baseUrl + path;
        return e;
    };
    Json data = Json::object();
    data["main"] = endpoint(0, "/mqtt/auth");
    if (m_dnsSlave == "one")
        data["slave"] = Json::array({endpoint(1, "/mqtt/auth-backup")});
    else if (m_dnsSlave == "empty")
        data["slave"] = Json::array();
    else if (m_dnsSlave == "null")
        data["slave"] = nullptr;
    Json body = Json::object();
    body["status"] = m_dnsStatus;
    body["data"] = std::move(data);
    return body;
}

EVP_PKEY *Directory::dnsKey(std::size_t index) const
{
    m_dnsReady.get();
    return index < m_dnsKeys.size() ? m_dnsKeys[index].get() : nullptr;
}

} // namespace cloudsim
