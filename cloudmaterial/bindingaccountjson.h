#pragma once

#include "cloudmaterial/protocol/ajsonex.h"

#include <cstdint>
#include <string>

namespace talvor::cloudmaterial {

/** The account that binds this player to the cloud account. */
struct BindingAccount
{
    std::string username;
    std::string password;
    std::string server;
};
AJSON(BindingAccount, username, password, server)

struct BindingAccountCirro
{
    BindingAccount cirro;
};
AJSON(BindingAccountCirro, cirro)

/** Reply of the player authorization: {"value":{"cirro":{...}}}. */
struct BindingAccountJson
{
    BindingAccountCirro value;
};
AJSON(BindingAccountJson, value)

/** The messaging account, decrypted from the authentication exchange. */
struct MqttAccountJson
{
    std::string password;
    std::string url;
    std::string username;
};
AJSON(MqttAccountJson, password, url, username)

/** Reply of the messaging authentication: data is the AES-encrypted account, Base64. */
struct MqttAuthReply
{
    std::int32_t http_code = 0;
    std::string data;
    ajson::text status;
};
AJSON(MqttAuthReply, http_code, data, status)

} // namespace talvor::cloudmaterial
