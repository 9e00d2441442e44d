#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace cloudsim {

// A request's query as the cloud reads it: items in order, keys and values percent-decoded.
using QueryItems = std::vector<std::pair<std::string, std::string>>;

std::string percentDecode(const std::string &text, bool plusIsSpace);
QueryItems parseQuery(const std::string &query);
std::string queryValue(const QueryItems &items, const std::string &key, const std::string &fallback = {});
bool hasParam(const QueryItems &items, const std::string &key);
bool isDecimal(const std::string &text);
std::optional<std::size_t> sizeParam(const QueryItems &items, const std::string &key);
bool validTypeFilter(const QueryItems &items);
// The service path of a gateway request target, and (when @p params is given) its parameters.
std::string gatewayService(const std::string &target, QueryItems *params);

} // namespace cloudsim
