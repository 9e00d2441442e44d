#include "cloudmaterial/login/loginprotocol.h"

#include "cloudmaterial/configstore.h"
#include "cloudmaterial/currentnode.h"
#include "cloudmaterial/login/loginkeys.h"
#include "cloudmaterial/protocol/ajsonex.h"
#include "cloudmaterial/protocol/crypto.h"
#include "cloudmaterial/protocol/gateway.h"
#include "cloudmaterial/protocol/httpclientwrapper.h"

#include <QDateTime>
#include <QLoggingCategory>

#include <exception>
#include <string_view>

Q_LOGGING_CATEGORY(lcLogin, "rxcm.login", QtInfoMsg)

namespace talvor::cloudmaterial {

namespace {

constexpr const char *sliderPath = "v1/web-backend-service/identity-verify-code/slider";
constexpr const char *mobilePhoneLoginPath = "v1/web-backend-service/authenticate/limit/mobile-phone";
constexpr const char *emailLoginPath = "v1/web-backend-service/authenticate/limit/email";
constexpr const char *passwordLoginPath = "v1/web-backend-service/authenticate/limit/password";
constexpr const char *phoneCodeCheckPath = "v1/web-backend-service/account/mobilephoneverifycode";
constexpr const char *emailCodeCheckPath = "v1/web-backend-service/account/emailverifycode";
constexpr const char *deviceCreditPath = "v1/web-backend-service/loginidentity/device-credit-signature";

// The kind of credit a device asks for with its signature.
constexpr const char *deviceCreditType = "1";

enum class LoginMode { None, Phone, Email, Password };

template<typename Record>
std::string toJson(const Record &record)
{
    ajson::string_stream out;
    ajson::save_to(out, record);
    return out.str();
}

// Throws on a malformed body: the callers turn that into a failed call.
template<typename Record>
Record parseOrThrow(const std::string &body)
{
    Record record;
    ajson::load_from_buff(record, body.c_str(), body.size());
    return record;
}

bool contains(const std::string &text, std::string_view word)
{
    return text.find(word) != std::string::npos;
}

// The cloud's error codes, searched in this order as plain text; the first hit wins.
LoginResult resultOfErrorBody(const std::string &body)
{
    if (contains(body, "\"10009\""))
        return AccountOrPasswordError;
    if (contains(body, "\"10006\""))
        return VerifyCodeError;
    if (contains(body, "\"MOBILE_PHONE\"") && contains(body, "\"100058\""))
        return PhoneNotFound;
    if (contains(body, "\"EMAIL\"") && contains(body, "\"100058\""))
        return EmailNotFound;
    if (contains(body, "\"100095\"") || contains(body, "\"100096\""))
        return LoginTypeLocked;
    return UnknownError;
}

} // namespace

class LoginProtocol::Private
{
public:
    Private(HttpClientWrapper *http, CurrentNode *node)
        : http(http)
        , node(node)
    {
    }

    // POST to a service of the current node's gateway; without a node nothing is sent and
    // the reply is empty, as if the cloud had not answered.
    HttpReply postService(const char *servicePath, const HttpHeaders &headers, const std::string &body, bool log) const
    {
        if (node->host().empty()) {
            qCWarning(lcLogin) << "no cloud node chosen; not sent:" << servicePath;
            return {};
        }
        return http->post(gateway::serviceUrl(node->host(), servicePath), headers, body, log);
    }

    LoginResult sendLogin(const LoginInfo &info);
    void keepLogin(const PhoneLoginResInfo &reply, LoginMode mode, const LoginInfo &info);
    void writeSession() const;
    LoginResult checkSecondFactorCode(const SecondVerifyCodeInfo &info);
    LoginResult sendDeviceCredit(const SecondVerifyCodeInfo &info);

    HttpClientWrapper *const http;
    CurrentNode *const node;

    std::string token;
    std::string email; // where second-factor codes go when the account has no phone
    std::string codeKey; // the key the last code request expects back
    std::string phone;
    std::int64_t protection = 1; // deviceProtect.status of the last login; 0 asks for a second factor
    std::string userName;
    std::string account; // what the user typed to log in with a password
    std::string loginCreditSignature; // the credit signature that password login carried
    std::string countryCode; // the account's, as the last login reply gave it
    std::int64_t id = 0;
    std::string serialNumber;
    bool codeChecked = false; // the second factor's code passed; a retry only asks for the credit
};

LoginResult LoginProtocol::Private::sendLogin(const LoginInfo &info)
{
    LoginMode mode = LoginMode::None;
    const char *path = nullptr;
    if (!info.mobilePhone.empty()) {
        mode = LoginMode::Phone;
        path = mobilePhoneLoginPath;
    } else if (!info.email.empty()) {
        mode = LoginMode::Email;
        path = emailLoginPath;
    } else if (!info.sessionId.empty()) {
        mode = LoginMode::Password;
        path = passwordLoginPath;
    }
    if (mode == LoginMode::None) {
        // Neither a code nor a passed slider: there is nothing the cloud could accept.
        qCWarning(lcLogin) << "login without phone, e-mail or slider result; nothing sent";
        return AccountOrPasswordError;
    }

    try {
        const HttpReply reply = postService(path, gateway::headers(), toJson(info), false);
        // An empty reply is a failure even when its status says otherwise.
        if (!reply.ok || reply.body.empty()) {
            LoginResult result = UnknownError;
            if (!reply.body.empty())
                result = resultOfErrorBody(reply.body);
            else if (mode == LoginMode::Phone)
                result = PhoneNotFound;
            else if (mode == LoginMode::Email)
                result = EmailNotFound;
            else
                result = AccountOrPasswordError;
            return result;
        }
        keepLogin(parseOrThrow<PhoneLoginResInfo>(reply.body), mode, info);
        writeSession();
        return Success;
    } catch (const std::exception &e) {
        qCWarning(lcLogin) << "login reply not understood:" << e.what();
    } catch (...) {
        qCWarning(lcLogin) << "login failed with an unknown exception";
    }
    return UnknownError;
}

void LoginProtocol::Private::keepLogin(const PhoneLoginResInfo &reply, LoginMode mode, const LoginInfo &info)
{
    protection = reply.deviceProtect.status;
    token = reply.token.token;
    userName = reply.identifyInfo.name;
    countryCode = reply.identifyInfo.countryCode;
    id = reply.id;
    // A code login remembers where its code went; a password login learns it from the reply.
    switch (mode) {
    case LoginMode::Phone:
        phone = info.mobilePhone;
        break;
    case LoginMode::Email:
        email = info.email;
        break;
    case LoginMode::Password:
        email = reply.identifyInfo.email;
        // An account without a number has no phone, whatever its country code.
        phone = reply.identifyInfo.mobilePhone.empty()
            ? std::string()
            : reply.identifyInfo.countryCode + reply.identifyInfo.mobilePhone;
        account = info.identify;
        loginCreditSignature = info.creditSignature;
        break;
    case LoginMode::None:
        break;
    }
}

void LoginProtocol::Private::writeSession() const
{
    TokenInfoJson session;
    session.auth = token;
    session.username = userName;
    session.countryCode = countryCode;
    session.phone = phone;
    session.email = email;
    session.id = static_cast<std::int32_t>(id);
    session.currentNodeIdentity = node->identity();
    session.currentNode = node->host();
    ConfigStore::instance().setTokenInfo(session);
}

LoginResult LoginProtocol::Private::checkSecondFactorCode(const SecondVerifyCodeInfo &info)
{
    SecondVerifyCodeRequest request;
    request.identityVerifyCode = info.identityVerifyCode;
    request.identify = account;
    request.countryCode = countryCode;
    request.id = id;
    const char *path = phone.empty() ? emailCodeCheckPath : phoneCodeCheckPath;

    const HttpReply reply = postService(path, gateway::headers(), toJson(request), false);
    if (!reply.ok) {
        const LoginResult result = reply.body.empty() ? VerifyCodeError : resultOfErrorBody(reply.body);
        qCWarning(lcLogin) << "second factor code refused:" << int(result);
        return result;
    }
    const auto checked = parseOrThrow<PhoneLoginResInfo>(reply.body);
    // The check may hand out the token the device credit request must carry.
    if (!checked.token.token.empty())
        token = checked.token.token;
    codeChecked = true;
    return Success;
}

LoginResult LoginProtocol::Private::sendDeviceCredit(const SecondVerifyCodeInfo &info)
{
    DeviceSignature signature;
    signature.source = gateway::source;
    signature.deviceSignature = serialNumber;
    // One minute ahead, as the cloud expects of the device's clock.
    signature.timestamp = QDateTime::currentMSecsSinceEpoch() + 60000;

    SecondLoginRequest request;
    request.identityVerifyCode = info.identityVerifyCode;
    request.identify = account;
    request.countryCode = countryCode;
    request.creditSignature = loginCreditSignature;
    request.type = deviceCreditType;
    request.authCiphertext = rsaPublicEncrypt(toJson(signature), loginPublicKey);
    if (request.authCiphertext.empty()) {
        qCCritical(lcLogin) << "the device signature cannot be encrypted with the built-in key";
        return UnknownError;
    }

    const HttpReply reply = postService(deviceCreditPath, gateway::headersWithToken(token), toJson(request), false);
    if (!reply.ok) {
        const LoginResult result = reply.body.empty() ? UnknownError : resultOfErrorBody(reply.body);
        qCWarning(lcLogin) << "device credit refused:" << int(result);
        return result;
    }
    const auto result = parseOrThrow<AuthResult>(reply.body);
    qCInfo(lcLogin) << "device credit signed:" << !result.signature.empty();
    writeSession();
    return Success;
}

LoginProtocol::LoginProtocol(HttpClientWrapper *http, CurrentNode *node)
    : d(std::make_unique<Private>(http, node))
{
}

LoginProtocol::~LoginProtocol() = default;

bool LoginProtocol::requestVerifyCode(const AliVerifyCodeInfo &info)
{
    try {
        d->codeKey = info.key;
        const HttpReply reply = d->postService(sliderPath, gateway::headers(), toJson(info), true);
        if (reply.body.empty())
            return false;
        const auto result = parseOrThrow<VerifyCodeResInfo>(reply.body);
        // The cloud proves it handled this very request by echoing its key.
        return result.status && result.key == d->codeKey;
    } catch (const std::exception &e) {
        qCWarning(lcLogin) << "code request reply not understood:" << e.what();
    } catch (...) {
        qCWarning(lcLogin) << "code request failed with an unknown exception";
    }
    return false;
}

void LoginProtocol::rememberCodeAddress(const std::string &phoneOrEmail)
{
    if (phoneOrEmail.find('@') == std::string::npos)
        d->phone = phoneOrEmail;
    else
        d->email = phoneOrEmail;
}

LoginResult LoginProtocol::login(const LoginInfo &info, bool *secondFactor)
{
    if (secondFactor)
        *secondFactor = false;
    const LoginResult result = d->sendLogin(info);
    if (result == Success && secondFactor)
        *secondFactor = d->protection == 0;
    return result;
}

void LoginProtocol::beginSecondFactor()
{
    d->codeChecked = false;
}

LoginResult LoginProtocol::secondLogin(const SecondVerifyCodeInfo &info)
{
    try {
        if (!d->codeChecked) {
            const LoginResult checked = d->checkSecondFactorCode(info);
            if (checked != Success)
                return checked;
        }
        return d->sendDeviceCredit(info);
    } catch (const std::exception &e) {
        qCWarning(lcLogin) << "second factor reply not understood:" << e.what();
    } catch (...) {
        qCWarning(lcLogin) << "second factor failed with an unknown exception";
    }
    return UnknownError;
}

TokenInfoJson LoginProtocol::restoreSession()
{
    const TokenInfoJson session = ConfigStore::instance().tokenInfo();
    if (!session.currentNode.empty() && !session.currentNodeIdentity.empty())
        d->node->set(session.currentNode, session.currentNodeIdentity);
    d->phone = session.phone;
    d->email = session.email;
    d->id = session.id;
    d->countryCode = session.countryCode;
    d->userName = session.username;
    d->token = session.auth;
    return session;
}

void LoginProtocol::setSerialNumber(const std::string &serialNumber)
{
    d->serialNumber = serialNumber;
}

std::string LoginProtocol::token() const
{
    return d->token;
}

std::string LoginProtocol::phone() const
{
    return d->phone;
}

std::string LoginProtocol::email() const
{
    return d->email;
}

std::string LoginProtocol::countryCode() const
{
    return d->countryCode;
}

} // namespace talvor::cloudmaterial
