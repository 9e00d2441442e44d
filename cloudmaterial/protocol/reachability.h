#pragma once

#include <string>

namespace talvor::cloudmaterial::reachability {

/** True when any network interface is up (Qt's portable answer). Any thread. */
bool networkOnline();

/**
 * True when the cloud at @p gatewayHost ("host[:port]") may be reached: a cloud on this very
 * machine (the local cloud of tests and demos) needs no network, any other one needs one up.
 */
bool canReach(const std::string &gatewayHost);

} // namespace talvor::cloudmaterial::reachability
