#pragma once

#include "json.h"
#include "login.h"

#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace cloudsim {

// The raw replies a test forces per gateway service, each for a number of uses or until cleared.
// Every request runs on its own thread, so its state is locked.
class GatewayOverrides
{
public:
    // Reads "gateway": {"<service>": {"status":..,"body":..,"times":..}, ...}.
    // Throws std::invalid_argument naming what is wrong.
    void load(const Json &scenario);
    // The forced reply for a service, with one use consumed.
    std::optional<ServiceReply> take(const std::string &service);
    // Adds or replaces overrides, in the scenario's form. Nothing changes if any is invalid
    // (std::invalid_argument).
    void set(const Json &overrides);
    void clear();
    Json toJson() const;

private:
    struct Override
    {
        int status = 200;
        std::string body;
        int remaining = -1; // -1: until cleared
    };

    static Override parseOverride(const Json &j, const std::string &service);

    mutable std::mutex m_mutex;
    std::map<std::string, Override> m_overrides;
};

} // namespace cloudsim
