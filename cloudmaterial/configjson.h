#pragma once

#include "cloudmaterial/protocol/ajson.hpp"

#include <cstdint>
#include <string>

namespace talvor::cloudmaterial {

/** config.json: what the module remembers between runs and where the cloud is. */
struct ConfigJson
{
    bool isRecordUsername = false;
    std::string username;
    std::string nodes; // URL of the cloud node directory
    std::string mqttControl; // base URL of the MQTT control service
};
AJSON(ConfigJson, isRecordUsername, username, nodes, mqttControl)

/** login.json: the logged-in account. All empty (id 0) means nobody is logged in. */
struct TokenInfoJson
{
    std::string auth; // access token
    std::string username;
    std::string countryCode;
    std::string phone;
    std::string email;
    std::int32_t id = 0;
    std::string currentNodeIdentity;
    std::string currentNode;
};
AJSON(TokenInfoJson, auth, username, countryCode, phone, email, id, currentNodeIdentity, currentNode)

} // namespace talvor::cloudmaterial
