#pragma once

#include <string>
#include <utility>
#include <vector>

namespace talvor::cloudmaterial {

/** Request headers, set in list order. */
using HttpHeaders = std::vector<std::pair<std::string, std::string>>;

/** The outcome of one blocking HTTP call. */
struct HttpReply
{
    /** Status 200 and no quoted "error" anywhere in the body. */
    bool ok = false;
    /** The reply bytes as received; empty after a time-out. */
    std::string body;
};

} // namespace talvor::cloudmaterial
