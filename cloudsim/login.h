#pragma once

#include "certificates.h"
#include "json.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace cloudsim {

class Scenario;

// A gateway answer as the login side produces it: always JSON, possibly empty.
struct ServiceReply
{
    int status = 200;
    std::string body;
};

// The account side of the cloud: the login services behind /gateway/apis, the codes it "sends"
// and the devices it trusts. Every request runs on its own thread, so all state is locked.
class LoginService
{
public:
    using HeaderLookup = std::function<std::string(const char *name)>;

    explicit LoginService(Scenario &scenario);
    ~LoginService();
    LoginService(const LoginService &) = delete;
    LoginService &operator=(const LoginService &) = delete;

    // Reads the login members of "accounts", and "validity".
    // Throws std::invalid_argument naming what is wrong.
    void load(const Json &scenario);

    // A login service by its path; nothing for a path that is not one of them.
    std::optional<ServiceReply> post(const std::string &service, const std::string &body, const HeaderLookup &header);

    // {"<phone or e-mail as in the scenario>": "<last code>", ...}
    Json codes() const;
    // The devices that obtained a credit signature, oldest first.
    Json devices() const;

    // The slider page's triple, checked as docs/protocol.md describes.
    static bool sliderAccepted(const std::string &sessionId, const std::string &sig, const std::string &token);
    static constexpr const char *sliderKey = "rxcm-slider-v1";
    // How long a slider triple (from its first request) and a sent code stay good, unless the
    // scenario's "validity" shortens them for a test.
    static constexpr std::int64_t sliderValidityMs = 300000;
    static constexpr std::int64_t codeValidityMs = 300000;

private:
    enum class Channel { Phone, Email };
    struct Account
    {
        std::int64_t id = 0;
        std::string name;
        std::string password;
        std::string phone;
        std::string countryCode = "86";
        std::string email;
        std::string fixedCode;
        bool secondFactor = false;
        bool lockPassword = false;
        bool lockPhone = false;
        bool lockEmail = false;

        std::vector<std::string> tokens; // the scenario's, then the logins' (last is newest)
        std::string phoneCode; // the last code sent
        std::string emailCode;
        std::int64_t phoneCodeSentMs = 0; // 0 once a login used the code up
        std::int64_t emailCodeSentMs = 0;
        std::string phoneCodeTemplate; // what the code was sent for: "LOGIN" or "TRUST_DEVICE"
        std::string emailCodeTemplate;
        std::set<std::string> creditSignatures;
    };
    struct SliderUse
    {
        std::int64_t firstSeenMs = 0;
        bool spent = false;
    };
    static Account parseAccount(const Json &j, std::size_t index);

    ServiceReply slider(const Json &body);
    ServiceReply codeLogin(const Json &body, Channel channel);
    ServiceReply passwordLogin(const Json &body);
    ServiceReply verifyCode(const Json &body, Channel channel);
    ServiceReply deviceCredit(const Json &body, const HeaderLookup &header);

    Account *byAddress(const std::string &address, Channel *channel);
    Account *byIdentify(const std::string &identify);
    Account *byToken(const std::string &token);
    Account *byId(std::int64_t id);
    // A code sent for @p templateCode ("LOGIN", "TRUST_DEVICE"), not used up and not expired.
    bool codeValid(const Account &account, Channel channel, const std::string &code, const char *templateCode) const;
    static void useUpCode(Account &account, Channel channel);
    // A triple that passes, is not spent and not expired; a code request or login spends it.
    bool takeTriple(const Json &body, bool spend);
    bool namesAccount(const Account &account, const Json &body);
    std::string issueToken(Account &account);
    Json loginReply(const Account &account, const std::string &token, bool askSecondFactor) const;

    Scenario &m_scenario;
    PkeyPtr m_loginKey; // decrypts what the module encrypts with its built-in key

    mutable std::mutex m_mutex;
    std::vector<Account> m_accounts;
    Json m_devices = Json::array();
    std::map<std::string, SliderUse> m_triples; // by session id
    std::int64_t m_sliderValidityMs = sliderValidityMs;
    std::int64_t m_codeValidityMs = codeValidityMs;
};

} // namespace cloudsim
