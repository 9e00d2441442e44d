#pragma once

#include <string>

namespace talvor::cloudmaterial {

/**
 * The cloud node in use: its gateway host ("host[:port]", no scheme) and its identity.
 *
 * One per module, owned by MainController and used on the Qt thread only: the login writes
 * it, the login protocol, the material controller and the messaging start read it. Work that
 * runs on another thread takes a copy when it is queued, never this object.
 */
class CurrentNode
{
public:
    void set(const std::string &host, const std::string &identity);
    void reset();

    const std::string &host() const { return m_host; }
    const std::string &identity() const { return m_identity; }
    /** True when both the host and the identity are known. */
    bool isChosen() const { return !m_host.empty() && !m_identity.empty(); }

private:
    std::string m_host;
    std::string m_identity;
};

} // namespace talvor::cloudmaterial
