#pragma once

#include "cloudmaterial/protocol/ajsonex.h"

#include <cstdint>
#include <string>
#include <vector>

namespace talvor::cloudmaterial {

struct NodeLabel
{
    std::string en;
    std::string zh_cn; // published as "zh-cn"; the reader rewrites the key first
};
AJSON(NodeLabel, en, zh_cn)

/** One regional node of the cloud. */
struct NodeEntry
{
    NodeLabel label;
    std::string node; // gateway host: what follows "https://" in every request
    std::string key; // the node's identity
    std::string icon; // as published; replaced by the local flag image
};
AJSON(NodeEntry, label, node, key, icon)

/** The node directory. */
struct NodesJson
{
    std::vector<NodeEntry> cirro;
};
AJSON(NodesJson, cirro)

struct DnsEndpoint
{
    std::string publicKey; // for the messaging authentication exchange
    std::string currentNodeIdentity;
    std::string mqttAuthUrl;
};
AJSON(DnsEndpoint, publicKey, currentNodeIdentity, mqttAuthUrl)

struct DnsData
{
    DnsEndpoint main;
    std::vector<DnsEndpoint> slave; // backups, maybe none
};
AJSON(DnsData, main, slave)

/** The global DNS record: where and how this device authenticates for messaging. */
struct GlobalDNSJson
{
    std::int64_t status = 0;
    DnsData data;
};
AJSON(GlobalDNSJson, status, data)

} // namespace talvor::cloudmaterial
