#include "messaging.h"

#include "crypto.h"
#include "deviceservice.h"
#include "directory.h"
#include "scenario.h"

#include <chrono>
#include <stdexcept>

namespace cloudsim {
namespace {

const std::string productCode = "100001";
const std::string separator = "||";
constexpr std::size_t exchangeLimit = 10000;

std::string dumpJson(const Json &j)
{
    return j.dump(-1, ' ', false, Json::error_handler_t::replace);
}

ServiceReply refusal(int code, const std::string &reason)
{
    Json body = Json::object();
    body["http_code"] = code;
    body["error"] = reason;
    body["status"] = "fail";
    return {200, dumpJson(body)};
}

std::int64_t nowMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

bool isDigits(const std::string &text)
{
    return !text.empty() && text.size() < 19 && text.find_first_not_of("0123456789") == std::string::npos;
}

} // namespace

Messaging::Messaging(Scenario &scenario, Directory &directory, DeviceService &devices)
    : m_scenario(scenario)
    , m_directory(directory)
    , m_devices(devices)
{
    m_devices.setAccounts(m_user, m_password, m_bindingUser, m_bindingPassword);
}

void Messaging::load(const Json &scenario)
{
    if (!scenario.contains("mqtt"))
        return;
    const Json &mqtt = scenario.at("mqtt");
    if (!mqtt.is_object())
        throw std::invalid_argument("\"mqtt\" must be an object");
    auto string = [&mqtt](const char *name, std::string &out) {
        if (!mqtt.contains(name))
            return;
        if (!mqtt.at(name).is_string())
            throw std::invalid_argument(std::string("\"mqtt\": \"") + name + "\" must be a string");
        out = mqtt.at(name).get<std::string>();
    };
    std::lock_guard<std::mutex> lock(m_mutex);
    string("username", m_user);
    string("password", m_password);
    string("bindingUsername", m_bindingUser);
    string("bindingPassword", m_bindingPassword);
    string("url", m_url);
    m_devices.setAccounts(m_user, m_password, m_bindingUser, m_bindingPassword);
}

std::string Messaging::brokerUrl() const
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_url.empty())
            return m_url;
    }
    return m_devices.url();
}

Json Messaging::playerAuth(const std::string &token) const
{
    if (token.empty() || !m_scenario.hasAccount(token))
        return Json{{"http_code", 401}, {"error", "invalid token"}, {"status", "fail"}};
    const std::string server = brokerUrl();
    std::lock_guard<std::mutex> lock(m_mutex);
    Json account = Json::object();
    account["username"] = m_bindingUser;
    account["password"] = m_bindingPassword;
    account["server"] = server;
    return Json{{"value", Json{{"cirro", std::move(account)}}}};
}

ServiceReply Messaging::authenticate(std::size_t keyIndex, const std::string &body,
                                     const LoginService::HeaderLookup &header)
{
    Json entry = Json::object();
    entry["endpoint"] = keyIndex == 0 ? "main" : "backup";
    entry["keyMessage"] = "";
    auto finish = [this, &entry](const std::string &result, ServiceReply reply) {
        entry["result"] = result;
        std::lock_guard<std::mutex> lock(m_mutex);
        m_exchanges.push_back(entry);
        if (m_exchanges.size() > exchangeLimit)
            m_exchanges.pop_front();
        return reply;
    };

    if (header("source") != "mediaserver" || header("version") != "V1.0.0")
        return finish("invalid request source", refusal(400, "invalid request source"));
    const std::string token = header("Authorization");
    if (token.empty() || header("Token") != token || !m_scenario.hasAccount(token))
        return finish("invalid token", refusal(401, "invalid token"));

    // The device credit request record; a bare Base64 body is understood too.
    std::string sealed = body;
    try {
        const Json record = Json::parse(body);
        if (record.is_object() && record.contains("authCiphertext") && record.at("authCiphertext").is_string())
            sealed = record.at("authCiphertext").get<std::string>();
    } catch (const Json::exception &) {
    }
    const auto ciphertext = base64Decode(sealed);
    const auto plain =
        ciphertext && !ciphertext->empty() ? rsaDecrypt(m_directory.dnsKey(keyIndex), *ciphertext) : std::nullopt;
    if (!plain)
        return finish("undecryptable", refusal(400, "the key message cannot be decrypted"));
    entry["keyMessage"] = Json(*plain);

    // product code || Base64 of the AES key || expiry in ms since 1970
    const auto first = plain->find(separator);
    const auto second = first == std::string::npos ? first : plain->find(separator, first + separator.size());
    if (second == std::string::npos || plain->find(separator, second + separator.size()) != std::string::npos)
        return finish("malformed", refusal(400, "the key message is malformed"));
    const std::string product = plain->substr(0, first);
    const auto key = base64Decode(plain->substr(first + separator.size(), second - first - separator.size()));
    const std::string expiry = plain->substr(second + separator.size());
    if (!key || key->size() != 32 || !isDigits(expiry))
        return finish("malformed", refusal(400, "the key message is malformed"));
    if (product != productCode)
        return finish("unknown product", refusal(400, "unknown product code"));
    if (nowMs() > std::stoll(expiry))
        return finish("expired", refusal(400, "the key message has expired"));

    const std::string url = brokerUrl();
    Json account = Json::object(); // keys in the record's order: password, url, username
    std::string replyKey = *key;
    bool wrongKey = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        account["password"] = m_password;
        account["url"] = url;
        account["username"] = m_user;
        if (m_wrongKey != 0) {
            wrongKey = true;
            if (m_wrongKey > 0)
                --m_wrongKey;
        }
    }
    if (wrongKey) {
        // Any other key (32 hex digits are 32 bytes): the client's decryption must fail or
        // yield no account.
        do {
            replyKey = randomHex(16);
        } while (replyKey == *key);
    }
    entry["wrongKey"] = wrongKey;
    const auto sealedAccount = aesEcbEncrypt(replyKey, dumpJson(account));
    if (!sealedAccount)
        return finish("encryption failed", {500, dumpJson(Json{{"code", 500}, {"msg", "internal server failure"}})});
    Json reply = Json::object();
    reply["http_code"] = 200;
    reply["data"] = base64Encode(*sealedAccount);
    reply["status"] = "success";
    return finish("ok", {200, dumpJson(reply)});
}

void Messaging::setControl(const Json &control)
{
    if (!control.is_object())
        throw std::invalid_argument("the body must be an object");
    int wrongKey = 0;
    if (control.contains("wrongKey")) {
        if (!control.at("wrongKey").is_boolean())
            throw std::invalid_argument("\"wrongKey\" must be a boolean");
        wrongKey = control.at("wrongKey").get<bool>() ? -1 : 0;
    }
    if (control.contains("times")) {
        if (!control.at("times").is_number_integer() || control.at("times").get<int>() < 1)
            throw std::invalid_argument("\"times\" must be a positive integer");
        if (wrongKey != 0)
            wrongKey = control.at("times").get<int>();
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_wrongKey = wrongKey;
}

Json Messaging::control() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    Json j = Json::object();
    j["wrongKey"] = m_wrongKey != 0;
    if (m_wrongKey > 0)
        j["times"] = m_wrongKey;
    Json list = Json::array();
    for (const auto &e : m_exchanges)
        list.push_back(e);
    j["exchanges"] = std::move(list);
    return j;
}

void Messaging::clear()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_wrongKey = 0;
    m_exchanges.clear();
}

} // namespace cloudsim
