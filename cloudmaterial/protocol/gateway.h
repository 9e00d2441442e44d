#pragma once

#include "cloudmaterial/protocol/httpreply.h"

#include <string>
#include <string_view>

namespace talvor::cloudmaterial {

class HttpClientWrapper;

/**
 * The addresses and headers of the cloud gateway's calls, in one place: the login services,
 * the messaging authentication and the catalogue all go through a node's gateway and identify
 * the module the same way. Free functions without state; any thread.
 */
namespace gateway {

/** How the module names itself to the cloud, in the "source" header and the device signature. */
inline constexpr const char *source = "mediaserver";

/** "https://" + @p host + "/gateway/apis?cirro=" + @p servicePath, the path appended verbatim. */
std::string serviceUrl(const std::string &host, std::string_view servicePath);

/** The catalogue's form of the gateway: "https://" + @p host + "/gateway/cirro?cirro=" + @p query. */
std::string catalogueUrl(const std::string &host, std::string_view query);

/** The module's "source" and "version" headers. */
HttpHeaders headers();

/** headers() and @p token as both "Token" and "Authorization". */
HttpHeaders headersWithToken(const std::string &token);

/** A POST with headersWithToken(); an empty reply when the request throws. */
HttpReply authenticatedPost(HttpClientWrapper &http, const std::string &url, const std::string &body,
                            const std::string &token);

} // namespace gateway
} // namespace talvor::cloudmaterial
