// The payloads the device exchanges with the cloud's device service over MQTT.
// Every message is an envelope (header + body); the envelope is one template with one
// record declaration per body type, so each message kind keeps its own JSON shape.
#pragma once

#include "cloudmaterial/protocol/ajsonex.h"

#include <cstdint>
#include <string>
#include <vector>

namespace talvor::cloudmaterial {

/** content names the message kind, requestId pairs a reply with its request. */
struct DeviceMessageHeader
{
    std::string content;
    std::string requestId;
    std::string version;
};
AJSON(DeviceMessageHeader, content, requestId, version)

template<typename Body>
struct DeviceMessage
{
    DeviceMessageHeader header;
    Body body;
};

/** Upstream binding post: the messaging account plus the device's identity. */
struct BindingRequestJson
{
    std::string username;
    std::string password;
    std::int32_t passwordEncType = 0; // 0: the password is sent as the cloud issued it
    std::string mac;
    std::string sn;
    std::string modelId;
    std::string deviceName;
    std::string customDeviceName;
    std::int32_t source = 1; // 1: the binding comes from the player's cloud panel
};
AJSON(BindingRequestJson, username, password, passwordEncType, mac, sn, modelId, deviceName, customDeviceName, source)

struct BasicInfoJson
{
    std::string brand;
    std::string series;
    std::string deviceName;
    std::string productName;
    std::string customDeviceName;
    std::string modelId;
    std::string sn;
    std::string mac;
    std::string localIp;
    std::string platformSystem;
    std::string softwareMainVersion;
};
AJSON(BasicInfoJson, brand, series, deviceName, productName, customDeviceName, modelId, sn, mac, localIp,
      platformSystem, softwareMainVersion)

/** One mounted volume; sizes in bytes. */
struct DiskJson
{
    std::int64_t capability = 0;
    std::int64_t used = 0;
    std::string name;
    std::string diskName;
    std::string type; // "local" or "external"
};
AJSON(DiskJson, capability, used, name, diskName, type)

/** capability and used are the totals over storage. */
struct StorageInfoJson
{
    std::int64_t capability = 0;
    std::int64_t used = 0;
    std::vector<DiskJson> storage;
};
AJSON(StorageInfoJson, capability, used, storage)

struct VolumeInfoJson
{
    std::int32_t value = 0; // percent
};
AJSON(VolumeInfoJson, value)

struct OnlineJson
{
    std::string type;
    std::string platform;
};
AJSON(OnlineJson, type, platform)

struct OfflineJson
{
    std::int64_t timestamp = 0; // ms since 1970
};
AJSON(OfflineJson, timestamp)

/** Body of the messages that carry nothing (the device's unbinding confirmation). */
struct EmptyJson
{
    std::string dummy;
};
AJSON(EmptyJson, dummy)

AJSON(DeviceMessage<BindingRequestJson>, header, body)
AJSON(DeviceMessage<BasicInfoJson>, header, body)
AJSON(DeviceMessage<StorageInfoJson>, header, body)
AJSON(DeviceMessage<VolumeInfoJson>, header, body)
AJSON(DeviceMessage<OnlineJson>, header, body)
AJSON(DeviceMessage<OfflineJson>, header, body)
AJSON(DeviceMessage<EmptyJson>, header, body)

using BindingRequestMessage = DeviceMessage<BindingRequestJson>;
using BasicInfoMessage = DeviceMessage<BasicInfoJson>;
using StorageInfoMessage = DeviceMessage<StorageInfoJson>;
using VolumeInfoMessage = DeviceMessage<VolumeInfoJson>;
using OnlineMessage = DeviceMessage<OnlineJson>;
using OfflineMessage = DeviceMessage<OfflineJson>;
using EmptyMessage = DeviceMessage<EmptyJson>;

} // namespace talvor::cloudmaterial
