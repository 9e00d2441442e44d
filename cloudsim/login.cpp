#include "login.h"

#include "crypto.h"
#include "loginkey.h" // generated from keys/login-private.pem
#include "scenario.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <stdexcept>

namespace cloudsim {
namespace {

const std::string servicePrefix = "v1/web-backend-service/";
constexpr std::int64_t timestampWindowMs = 120000;

// The cloud's refusal: HTTP 200, the code as a quoted string inside "error".
ServiceReply failure(const std::string &code, const std::string &msg, const std::string &field = {})
{
    Json error = Json::object();
    error["code"] = code;
    error["msg"] = msg;
    if (!field.empty())
        error["field"] = field;
    Json body = Json::object();
    body["http_code"] = 400;
    body["error"] = std::move(error);
    body["status"] = "fail";
    return {200, body.dump(-1, ' ', false, Json::error_handler_t::replace)};
}

ServiceReply success(const Json &body)
{
    return {200, body.dump(-1, ' ', false, Json::error_handler_t::replace)};
}

ServiceReply badBody()
{
    return failure("10015", "the body is not a JSON object");
}

ServiceReply badMember(const std::string &member)
{
    return failure("10016", "a member of the request is missing or wrong", member);
}

// Record members arrive as strings; a number is taken as its text so that a client that
// sends a country code as a number is still understood.
std::string text(const Json &body, const char *name)
{
    if (!body.contains(name))
        return {};
    const Json &v = body.at(name);
    if (v.is_string())
        return v.get<std::string>();
    if (v.is_number_integer())
        return v.dump();
    return {};
}

std::int64_t integer(const Json &body, const char *name)
{
    if (!body.contains(name))
        return 0;
    const Json &v = body.at(name);
    if (v.is_number_integer())
        return v.get<std::int64_t>();
    if (v.is_string()) {
        const auto s = v.get<std::string>();
        if (!s.empty() && s.size() < 19 && s.find_first_not_of("0123456789") == std::string::npos)
            return std::stoll(s);
    }
    return 0;
}

std::optional<Json> parseObject(const std::string &text)
{
    try {
        Json j = Json::parse(text);
        if (j.is_object())
            return j;
    } catch (const Json::exception &) {
    }
    return std::nullopt;
}

std::string withoutPlus(const std::string &countryCode)
{
    return !countryCode.empty() && countryCode.front() == '+' ? countryCode.substr(1) : countryCode;
}

std::string sixDigits()
{
    char code[8];
    std::snprintf(code, sizeof code, "%06u", static_cast<unsigned>(randomBelow(1000000)));
    return code;
}

std::int64_t nowMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

} // namespace

LoginService::LoginService(Scenario &scenario)
    : m_scenario(scenario)
    , m_loginKey(privateKeyFromPem(loginPrivateKeyPem))
{
}

LoginService::~LoginService() = default;

LoginService::Account LoginService::parseAccount(const Json &j, std::size_t index)
{
    Account a;
    a.id = Scenario::accountId(j, index);
    auto string = [&j, &a](const char *name, std::string &out) {
        if (!j.contains(name))
            return;
        if (!j.at(name).is_string())
            throw std::invalid_argument("account " + std::to_string(a.id) + ": \"" + name + "\" must be a string");
        out = j.at(name).get<std::string>();
    };
    string("name", a.name);
    string("password", a.password);
    string("phone", a.phone);
    string("countryCode", a.countryCode);
    string("email", a.email);
    string("code", a.fixedCode);
    a.countryCode = withoutPlus(a.countryCode);
    if (!a.fixedCode.empty()
        && (a.fixedCode.size() != 6 || a.fixedCode.find_first_not_of("0123456789") != std::string::npos))
        throw std::invalid_argument("account " + std::to_string(a.id) + ": \"code\" must be six digits");
    if (j.contains("secondFactor")) {
        if (!j.at("secondFactor").is_boolean())
            throw std::invalid_argument("account " + std::to_string(a.id) + ": \"secondFactor\" must be a boolean");
        a.secondFactor = j.at("secondFactor").get<bool>();
    }
    if (j.contains("locked")) {
        const Json &locked = j.at("locked");
        if (!locked.is_array())
            throw std::invalid_argument("account " + std::to_string(a.id) + ": \"locked\" must be an array");
        for (const auto &type : locked) {
            const std::string t = type.is_string() ? type.get<std::string>() : std::string();
            if (t == "password") {
                a.lockPassword = true;
            } else if (t == "code") {
                a.lockPhone = a.lockEmail = true;
            } else if (t == "mobile-phone") {
                a.lockPhone = true;
            } else if (t == "email") {
                a.lockEmail = true;
            } else {
                throw std::invalid_argument("account " + std::to_string(a.id)
                                            + ": \"locked\" takes \"password\", \"code\", \"mobile-phone\", \"email\"");
            }
        }
    }
    if (j.contains("token") && j.at("token").is_string())
        a.tokens.push_back(j.at("token").get<std::string>());
    return a;
}

void LoginService::load(const Json &scenario)
{
    std::vector<Account> accounts;
    std::int64_t sliderValidity = sliderValidityMs;
    std::int64_t codeValidity = codeValidityMs;
    try {
        const Json list = scenario.value("accounts", Json::array());
        for (std::size_t i = 0; i < list.size(); ++i)
            accounts.push_back(parseAccount(list[i], i));
        if (scenario.contains("validity")) {
            const Json &validity = scenario.at("validity");
            auto ms = [&validity](const char *name, std::int64_t &out) {
                if (!validity.contains(name))
                    return;
                if (!validity.at(name).is_number_integer() || validity.at(name).get<std::int64_t>() < 1)
                    throw std::invalid_argument(std::string("\"validity\": \"") + name
                                                + "\" must be a positive integer");
                out = validity.at(name).get<std::int64_t>();
            };
            if (!validity.is_object())
                throw std::invalid_argument("\"validity\" must be an object");
            ms("slider", sliderValidity);
            ms("code", codeValidity);
        }
    } catch (const Json::exception &e) {
        throw std::invalid_argument(std::string("bad scenario: ") + e.what());
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_accounts = std::move(accounts);
    m_sliderValidityMs = sliderValidity;
    m_codeValidityMs = codeValidity;
    m_triples.clear();
}

bool LoginService::sliderAccepted(const std::string &sessionId, const std::string &sig, const std::string &token)
{
    if (sessionId.empty() || sessionId.size() > 128 || sessionId.find('|') != std::string::npos)
        return false;
    if (token.size() > 1024 || token.compare(0, 3, "nc-") != 0)
        return false;
    const auto summary = base64Decode(token.substr(3));
    if (!summary || !parseObject(*summary))
        return false;
    return sig == hmacSha256Hex(sliderKey, sessionId + "|" + token);
}

std::optional<ServiceReply> LoginService::post(const std::string &service, const std::string &body,
                                               const HeaderLookup &header)
{
    if (service.compare(0, servicePrefix.size(), servicePrefix) != 0)
        return std::nullopt;
    const std::string name = service.substr(servicePrefix.size());
    static const std::set<std::string> known = {
        "identity-verify-code/slider",          "authenticate/limit/mobile-phone", "authenticate/limit/email",
        "authenticate/limit/password",          "account/mobilephoneverifycode",   "account/emailverifycode",
        "loginidentity/device-credit-signature"};
    if (known.count(name) == 0)
        return std::nullopt;

    // The gateway's common check comes first, as for the catalogue.
    if (header("source") != "mediaserver" || header("version") != "V1.0.0") {
        Json refusal{{"http_code", 400}, {"error", "invalid request source"}, {"status", "fail"}};
        return success(refusal);
    }
    const auto request = parseObject(body);
    if (!request)
        return badBody();

    std::lock_guard<std::mutex> lock(m_mutex);
    if (name == "identity-verify-code/slider")
        return slider(*request);
    if (name == "authenticate/limit/mobile-phone")
        return codeLogin(*request, Channel::Phone);
    if (name == "authenticate/limit/email")
        return codeLogin(*request, Channel::Email);
    if (name == "authenticate/limit/password")
        return passwordLogin(*request);
    if (name == "account/mobilephoneverifycode")
        return verifyCode(*request, Channel::Phone);
    if (name == "account/emailverifycode")
        return verifyCode(*request, Channel::Email);
    return deviceCredit(*request, header);
}

LoginService::Account *LoginService::byAddress(const std::string &address, Channel *channel)
{
    for (auto &a : m_accounts) {
        if (!a.phone.empty()
            && (address == a.phone || address == a.countryCode + a.phone || address == "+" + a.countryCode + a.phone)) {
            *channel = Channel::Phone;
            return &a;
        }
        if (!a.email.empty() && address == a.email) {
            *channel = Channel::Email;
            return &a;
        }
    }
    return nullptr;
}

LoginService::Account *LoginService::byIdentify(const std::string &identify)
{
    if (identify.empty())
        return nullptr;
    for (auto &a : m_accounts)
        if (identify == a.name)
            return &a;
    Channel channel;
    return byAddress(identify, &channel);
}

LoginService::Account *LoginService::byToken(const std::string &token)
{
    for (auto &a : m_accounts)
        if (!token.empty() && std::find(a.tokens.begin(), a.tokens.end(), token) != a.tokens.end())
            return &a;
    return nullptr;
}

LoginService::Account *LoginService::byId(std::int64_t id)
{
    for (auto &a : m_accounts)
        if (a.id == id)
            return &a;
    return nullptr;
}

bool LoginService::codeValid(const Account &account, Channel channel, const std::string &code,
                             const char *templateCode) const
{
    const bool phone = channel == Channel::Phone;
    const std::string &sent = phone ? account.phoneCode : account.emailCode;
    const std::int64_t sentMs = phone ? account.phoneCodeSentMs : account.emailCodeSentMs;
    // A login code does not pass the second factor, nor the other way round.
    const std::string &sentFor = phone ? account.phoneCodeTemplate : account.emailCodeTemplate;
    return !code.empty() && code == sent && sentFor == templateCode && nowMs() - sentMs <= m_codeValidityMs;
}

void LoginService::useUpCode(Account &account, Channel channel)
{
    // Sent at the epoch: long expired. /control/codes still shows it.
    (channel == Channel::Phone ? account.phoneCodeSentMs : account.emailCodeSentMs) = 0;
}

bool LoginService::takeTriple(const Json &body, bool spend)
{
    const std::string sessionId = text(body, "sessionId");
    if (!sliderAccepted(sessionId, text(body, "sig"), text(body, "token")))
        return false;
    const std::int64_t now = nowMs();
    // The page signs offline, so its clock starts when cloudsim first sees the session.
    const auto [it, fresh] = m_triples.try_emplace(sessionId, SliderUse{now, false});
    if (!fresh && (it->second.spent || now - it->second.firstSeenMs > m_sliderValidityMs))
        return false;
    it->second.spent = spend;
    return true;
}

// The second factor names its account again; an empty or different country code names none.
bool LoginService::namesAccount(const Account &account, const Json &body)
{
    return byIdentify(text(body, "identify")) == &account
        && withoutPlus(text(body, "countryCode")) == account.countryCode;
}

std::string LoginService::issueToken(Account &account)
{
    const std::string token = "tk-" + randomHex(16);
    account.tokens.push_back(token);
    // The catalogue serves the account's media to this token from now on.
    m_scenario.addToken(account.id, token);
    return token;
}

Json LoginService::loginReply(const Account &account, const std::string &token, bool askSecondFactor) const
{
    Json deviceProtect = Json::object();
    deviceProtect["enableBackup"] = false;
    deviceProtect["mode"] = !askSecondFactor ? "none" : account.phone.empty() ? "email" : "phone";
    deviceProtect["status"] = askSecondFactor ? 0 : 1;
    Json loginProtect = Json::object();
    loginProtect["enableBackup"] = false;
    loginProtect["mode"] = "none";
    loginProtect["status"] = 1;
    Json tokenInfo = Json::object();
    tokenInfo["expiresIn"] = 7200;
    tokenInfo["token"] = token;
    tokenInfo["type"] = "bearer";
    Json identify = Json::object();
    identify["countryCode"] = account.countryCode;
    identify["email"] = account.email;
    identify["mobilePhone"] = account.phone;
    identify["name"] = account.name;

    Json body = Json::object();
    body["deviceProtect"] = std::move(deviceProtect);
    body["loginProtect"] = std::move(loginProtect);
    body["token"] = std::move(tokenInfo);
    body["identifyInfo"] = std::move(identify);
    body["id"] = account.id;
    return body;
}

ServiceReply LoginService::slider(const Json &body)
{
    const Json refused{{"key", ""}, {"status", false}};
    const std::string address = text(body, "phone");
    // A code request spends its triple; a slider check alone only starts the triple's clock.
    if (!takeTriple(body, !address.empty()))
        return success(refused);
    const auto refusedWith = [&refused](const ServiceReply &failed) {
        Json reply = refused;
        reply["error"] = Json::parse(failed.body).at("error");
        return success(reply);
    };

    if (!address.empty()) {
        const bool email = address.find('@') != std::string::npos;
        if (text(body, "key").empty())
            return refusedWith(badMember("key"));
        if (text(body, "type") != (email ? "EMAIL" : "MOBILE_PHONE"))
            return refusedWith(badMember("type"));
        const std::string templateCode = text(body, "templateCode");
        if (templateCode != "LOGIN" && templateCode != "TRUST_DEVICE")
            return refusedWith(badMember("templateCode"));
        Channel channel;
        Account *account = byAddress(address, &channel);
        // A phone's country code travels in "parameter".
        if (account && channel == Channel::Phone && withoutPlus(text(body, "parameter")) != account->countryCode)
            account = nullptr;
        if (!account)
            return refusedWith(failure("100058", "account does not exist", email ? "EMAIL" : "MOBILE_PHONE"));
        const std::string code = account->fixedCode.empty() ? sixDigits() : account->fixedCode;
        (channel == Channel::Phone ? account->phoneCode : account->emailCode) = code;
        (channel == Channel::Phone ? account->phoneCodeSentMs : account->emailCodeSentMs) = nowMs();
        (channel == Channel::Phone ? account->phoneCodeTemplate : account->emailCodeTemplate) = templateCode;
        // Where a human running the demo reads the code that a real cloud would text or mail.
        std::fprintf(stderr, "cloudsim: code %s sent to %s (account %lld)\n", code.c_str(), address.c_str(),
                     static_cast<long long>(account->id));
    }
    Json accepted = Json::object();
    accepted["key"] = body.contains("key") ? body.at("key") : Json("");
    accepted["status"] = true;
    return success(accepted);
}

ServiceReply LoginService::codeLogin(const Json &body, Channel channel)
{
    const std::string code = text(body, "identityVerifyCode");
    Account *account = nullptr;
    if (channel == Channel::Phone) {
        const std::string phone = text(body, "mobilePhone");
        const std::string countryCode = withoutPlus(text(body, "countryCode"));
        for (auto &a : m_accounts) {
            if (!phone.empty() && phone == a.phone && countryCode == a.countryCode) {
                account = &a;
                break;
            }
        }
        if (!account)
            return failure("100058", "account does not exist", "MOBILE_PHONE");
        if (account->lockPhone)
            return failure("100096", "this login type is locked");
    } else {
        const std::string email = text(body, "email");
        for (auto &a : m_accounts) {
            if (!email.empty() && email == a.email) {
                account = &a;
                break;
            }
        }
        if (!account)
            return failure("100058", "account does not exist", "EMAIL");
        if (account->lockEmail)
            return failure("100096", "this login type is locked");
    }
    if (!codeValid(*account, channel, code, "LOGIN"))
        return failure("10006", "verification code is wrong");
    useUpCode(*account, channel);
    const bool trusted = account->creditSignatures.count(text(body, "creditSignature")) > 0;
    return success(loginReply(*account, issueToken(*account), account->secondFactor && !trusted));
}

ServiceReply LoginService::passwordLogin(const Json &body)
{
    if (!takeTriple(body, true))
        return failure("10011", "slider verification failed");
    const auto ciphertext = base64Decode(text(body, "password"));
    const auto password = ciphertext ? rsaDecrypt(m_loginKey.get(), *ciphertext) : std::nullopt;
    if (!password)
        return failure("10012", "the password cannot be decrypted");
    Account *account = byIdentify(text(body, "identify"));
    if (!account)
        return failure("10009", "account or password is wrong");
    if (account->lockPassword)
        return failure("100095", "this login type is locked");
    if (account->password.empty() || *password != account->password)
        return failure("10009", "account or password is wrong");
    const bool trusted = account->creditSignatures.count(text(body, "creditSignature")) > 0;
    return success(loginReply(*account, issueToken(*account), account->secondFactor && !trusted));
}

ServiceReply LoginService::verifyCode(const Json &body, Channel channel)
{
    const char *field = channel == Channel::Phone ? "MOBILE_PHONE" : "EMAIL";
    const std::int64_t id = integer(body, "id");
    Account *account = id != 0 ? byId(id) : byIdentify(text(body, "identify"));
    if (!account || (channel == Channel::Phone ? account->phone : account->email).empty()
        || !namesAccount(*account, body))
        return failure("100058", "account does not exist", field);
    // Only checked here: the device credit request that follows completes the login and uses it up.
    if (!codeValid(*account, channel, text(body, "identityVerifyCode"), "TRUST_DEVICE"))
        return failure("10006", "verification code is wrong");
    // The session of the first step goes on; a fresh one only if there was none.
    const std::string token = account->tokens.empty() ? issueToken(*account) : account->tokens.back();
    return success(loginReply(*account, token, false));
}

ServiceReply LoginService::deviceCredit(const Json &body, const HeaderLookup &header)
{
    const std::string token = header("Authorization");
    Account *account = header("Token") == token ? byToken(token) : nullptr;
    if (!account)
        return success(Json{{"http_code", 401}, {"error", "invalid token"}, {"status", "fail"}});

    if (!namesAccount(*account, body))
        return failure("100058", "account does not exist", account->phone.empty() ? "EMAIL" : "MOBILE_PHONE");
    if (text(body, "type") != "1")
        return badMember("type");
    // Empty for a new device; otherwise one this account obtained before.
    const std::string carried = text(body, "creditSignature");
    if (!carried.empty() && account->creditSignatures.count(carried) == 0)
        return badMember("creditSignature");
    const auto ciphertext = base64Decode(text(body, "authCiphertext"));
    const auto plain = ciphertext && !ciphertext->empty() ? rsaDecrypt(m_loginKey.get(), *ciphertext) : std::nullopt;
    const auto signature = plain ? parseObject(*plain) : std::nullopt;
    // A device without a serial number signs with an empty text; the member must be there.
    if (!signature || !signature->contains("deviceSignature") || !signature->at("deviceSignature").is_string()
        || !signature->contains("timestamp") || !signature->at("timestamp").is_number_integer())
        return failure("10013", "the device signature cannot be decrypted");
    const std::int64_t stamp = signature->at("timestamp").get<std::int64_t>();
    const std::int64_t now = nowMs();
    if (stamp <= now || stamp > now + timestampWindowMs)
        return failure("10014", "the device signature's timestamp is out of range");

    const std::string code = text(body, "identityVerifyCode");
    const bool byPhone = codeValid(*account, Channel::Phone, code, "TRUST_DEVICE");
    if (!byPhone && !codeValid(*account, Channel::Email, code, "TRUST_DEVICE"))
        return failure("10006", "verification code is wrong");
    useUpCode(*account, byPhone ? Channel::Phone : Channel::Email);

    const std::string credit = "cs-" + randomHex(16);
    account->creditSignatures.insert(credit);
    Json device = Json::object();
    device["id"] = account->id;
    device["source"] = text(*signature, "source");
    device["deviceSignature"] = text(*signature, "deviceSignature");
    device["timestamp"] = stamp;
    device["signature"] = credit;
    m_devices.push_back(std::move(device));
    Json reply = Json::object();
    reply["info"] = "ok";
    reply["signature"] = credit;
    return success(reply);
}

Json LoginService::codes() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    Json list = Json::object();
    for (const auto &a : m_accounts) {
        if (!a.phoneCode.empty())
            list[a.phone] = a.phoneCode;
        if (!a.emailCode.empty())
            list[a.email] = a.emailCode;
    }
    return list;
}

Json LoginService::devices() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_devices;
}

} // namespace cloudsim
