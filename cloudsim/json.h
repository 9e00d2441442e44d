#pragma once

#include <nlohmann/json.hpp>

namespace cloudsim {

// Objects keep their keys in insertion order, so records go out in the cloud's key order.
using Json = nlohmann::ordered_json;

} // namespace cloudsim
