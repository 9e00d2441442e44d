#pragma once

#include "cloudmaterial/login/nodesjson.h"

#include <string>
#include <vector>

namespace talvor::cloudmaterial {

class HttpClientWrapper;

/**
 * The directory of cloud nodes the user picks from in the login dialog. A blocking request
 * without state; any thread (the login dialog's preparation makes it on the Qt thread).
 */
namespace nodedirectory {

/** The node directory at @p url, icons replaced by local flag images; empty on any failure. */
std::vector<NodeEntry> download(HttpClientWrapper &http, const std::string &url);

} // namespace nodedirectory
} // namespace talvor::cloudmaterial
