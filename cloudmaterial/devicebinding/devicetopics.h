// Topics between the device and the cloud's device service: root + modelId + "/" + sn + suffix,
// copied byte for byte (no escaping: the cloud matches the exact bytes).
#pragma once

#include <string>
#include <string_view>

namespace talvor::cloudmaterial::devicetopics {

// Cloud to device.
inline constexpr std::string_view downstreamReply = "orbicloud/downstream/reply/";
inline constexpr std::string_view downstreamDelete = "orbicloud/downstream/delete/";
inline constexpr std::string_view downstreamGet = "orbicloud/downstream/get/";
// Device to cloud.
inline constexpr std::string_view upstreamReport = "orbicloud/upstream/report/";
inline constexpr std::string_view upstreamPost = "orbicloud/upstream/post/";
inline constexpr std::string_view upstreamDelete = "orbicloud/upstream/delete/";
inline constexpr std::string_view upstreamReply = "orbicloud/upstream/reply/";

inline constexpr std::string_view binding = "/binding/cirro";
inline constexpr std::string_view unbinding = "/unbinding/cirro";
inline constexpr std::string_view storage = "/device/storage";
inline constexpr std::string_view basic = "/device/basic";
inline constexpr std::string_view volume = "/device/volume";
inline constexpr std::string_view online = "/device/online";
inline constexpr std::string_view offline = "/device/offline";

inline std::string topic(std::string_view root, const std::string &modelId, const std::string &sn,
                         std::string_view suffix)
{
    std::string t;
    t.reserve(root.size() + modelId.size() + 1 + sn.size() + suffix.size());
    t.append(root).append(modelId).append("/").append(sn).append(suffix);
    return t;
}

} // namespace talvor::cloudmaterial::devicetopics
