#pragma once

#include "cloudmaterial/login/nodesjson.h"

#include <QString>

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

/** The label of @p node: zh_cn with Chinese labels, en otherwise, and the other one when that is empty. */
QString label(const NodeEntry &node, bool chinese);

/** The entry of @p host, the identity settling between entries that share a host; -1 if none. */
int indexOf(const std::vector<NodeEntry> &nodes, const QString &host, const QString &identity);

} // namespace nodedirectory
} // namespace talvor::cloudmaterial
