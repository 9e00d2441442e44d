#pragma once

#include "certificates.h"
#include "json.h"

#include <atomic>
#include <future>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace cloudsim {

// Where a login starts: the node directory (/nodes.json) and the global DNS entry
// (/mqtt/control/v1/) with the two messaging keys it publishes. Every request runs on its own
// thread, so its state is locked.
class Directory
{
public:
    Directory();
    ~Directory();
    Directory(const Directory &) = delete;
    Directory &operator=(const Directory &) = delete;

    // Reads "nodes" and "dns". Throws std::invalid_argument naming what is wrong.
    void load(const Json &scenario);
    // baseUrl "https://127.0.0.1:<port>", host "127.0.0.1:<port>".
    void setAddress(const std::string &baseUrl, const std::string &host);

    Json nodes() const;
    Json dns() const;
    // The DNS key pairs: 0 is the main endpoint's, 1 the backup's. The messaging
    // authentication decrypts with them. Waits until they are made.
    EVP_PKEY *dnsKey(std::size_t index) const;

private:
    // Made at start on a thread of their own (RSA takes a moment), in memory only; written
    // once before m_dnsReady is set, read-only after.
    std::vector<PkeyPtr> m_dnsKeys;
    std::shared_future<void> m_dnsReady;
    std::atomic<bool> m_stopping{false}; // a stop must not wait for the key generation

    mutable std::mutex m_mutex;
    std::string m_baseUrl;
    std::string m_host;
    std::optional<Json> m_nodes; // the scenario's own directory entries
    std::string m_dnsIdentity = "cn-1";
    std::string m_dnsSlave = "one";
    Json m_dnsStatus = 200;
};

} // namespace cloudsim
