#include "cloudmaterial/login/logincontroller.h"

#include "cloudmaterial/configstore.h"
#include "cloudmaterial/currentnode.h"
#include "cloudmaterial/logging.h"
#include "cloudmaterial/login/loginkeys.h"
#include "cloudmaterial/login/logindlalog.h"
#include "cloudmaterial/login/loginverify.h"
#include "cloudmaterial/login/verifycodeslider.h"
#include "cloudmaterial/protocol/ajsonex.h"
#include "cloudmaterial/protocol/crypto.h"
#include "cloudmaterial/protocol/httpclientwrapper.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QLoggingCategory>
#include <QPointer>
#include <QWebEngineView>

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

constexpr const char *requestSource = "mediaserver";
constexpr const char *requestVersion = "V1.0.0";

// The kind of credit a device asks for with its signature.
constexpr const char *deviceCreditType = "1";

enum class LoginMode { None, Phone, Email, Password };

HttpHeaders commonHeaders()
{
    return {{"source", requestSource}, {"version", requestVersion}};
}

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
int resultOfErrorBody(const std::string &body)
{
    if (contains(body, "\"10009\""))
        return LoginController::AccountOrPasswordError;
    if (contains(body, "\"10006\""))
        return LoginController::VerifyCodeError;
    if (contains(body, "\"MOBILE_PHONE\"") && contains(body, "\"100058\""))
        return LoginController::PhoneNotFound;
    if (contains(body, "\"EMAIL\"") && contains(body, "\"100058\""))
        return LoginController::EmailNotFound;
    if (contains(body, "\"100095\"") || contains(body, "\"100096\""))
        return LoginController::LoginTypeLocked;
    return LoginController::UnknownError;
}

const char *logTextOf(int result)
{
    switch (result) {
    case LoginController::VerifyCodeError:
        return "verify code is error";
    case LoginController::AccountOrPasswordError:
        return "account or password is error";
    case LoginController::PhoneNotFound:
        return "phone number is not found";
    case LoginController::EmailNotFound:
        return "email is not found";
    case LoginController::LoginTypeLocked:
        return "current login type is locked";
    default:
        return "unknow error";
    }
}

std::string lastPathComponent(const std::string &reference)
{
    const auto slash = reference.find_last_of('/');
    return slash == std::string::npos ? reference : reference.substr(slash + 1);
}

// The directory names flags by region; only these have local images. "us.png" is
// published under that name but the image is called icon_usa.png.
const char *localIconFor(const std::string &name)
{
    static const std::pair<const char *, const char *> table[] = {
        {"australia.png", "icon_australia.png"}, {"china.png", "icon_china.png"},
        {"europe.png", "icon_europe.png"},       {"us.png", "icon_usa.png"},
        {"india.png", "icon_india.png"},
    };
    for (const auto &[published, local] : table) {
        if (name == published)
            return local;
    }
    return nullptr;
}

void replaceAll(std::string &text, std::string_view from, std::string_view to)
{
    for (auto pos = text.find(from); pos != std::string::npos; pos = text.find(from, pos + to.size()))
        text.replace(pos, from.size(), to);
}

} // namespace

class LoginController::Private
{
public:
    Private(LoginController *q, HttpClientWrapper *http, CurrentNode *node)
        : q(q)
        , http(http)
        , node(node)
    {
    }

    // POST to a service of the current node's gateway; without a node nothing is sent and
    // the reply is empty, as if the cloud had not answered.
    HttpReply postService(const char *servicePath, const HttpHeaders &headers, const std::string &body,
                          bool log) const
    {
        const std::string host = currentNodeHost();
        if (host.empty()) {
            qCWarning(lcLogin) << "no cloud node chosen; not sent:" << servicePath;
            return {};
        }
        return http->post("https://" + host + "/gateway/apis?cirro=" + servicePath, headers, body, log);
    }
    std::string currentNodeHost() const { return node->host(); }
    std::string currentToken() const { return token; }
    void setToken(const std::string &value) { token = value; }

    int phoneLogin(const LoginInfo &info);
    void keepLogin(const PhoneLoginResInfo &reply, LoginMode mode, const LoginInfo &info);
    void writeSession() const;
    void askSliderAgain(VerifyCodeSlider::Place place);
    int checkSecondFactorCode(const SecondVerifyCodeInfo &info);
    int sendDeviceCredit(const SecondVerifyCodeInfo &info);
    void connectDialogs();

    LoginController *const q;
    HttpClientWrapper *const http;
    CurrentNode *const node;

    std::string email;   // where second-factor codes go when the account has no phone
    std::string codeKey; // the key the last code request expects back
    std::string phone;
    std::int64_t protection = 1; // deviceProtect.status of the last login; 0 asks for a second factor
    std::string userName;
    std::string account;     // what the user typed to log in with a password
    std::string loginCreditSignature; // the credit signature that password login carried
    std::string countryCode; // the account's, as the last login reply gave it
    std::int64_t id = 0;
    QString styleSheet;
    QPointer<LoginDlalog> loginDialog;
    QPointer<LoginVerify> verifyDialog;
    VerifyCodeSlider *slider = nullptr;
    std::string serialNumber;
    bool creditSignatureObtained = false;
    std::string language;
    std::string token;
};

// Every login mode logs under this name; the cloud's operators search the logs for it.
int LoginController::Private::phoneLogin(const LoginInfo &info)
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
        RXCM_LOG_WARN("{}", logTextOf(AccountOrPasswordError));
        return AccountOrPasswordError;
    }

    try {
        const HttpReply reply = postService(path, commonHeaders(), toJson(info), false);
        // An empty reply is a failure even when its status says otherwise.
        if (!reply.ok || reply.body.empty()) {
            int result = UnknownError;
            if (!reply.body.empty())
                result = resultOfErrorBody(reply.body);
            else if (mode == LoginMode::Phone)
                result = PhoneNotFound;
            else if (mode == LoginMode::Email)
                result = EmailNotFound;
            else
                result = AccountOrPasswordError;
            RXCM_LOG_WARN("{}", logTextOf(result));
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
    RXCM_LOG_WARN("{}", logTextOf(UnknownError));
    return UnknownError;
}

void LoginController::Private::keepLogin(const PhoneLoginResInfo &reply, LoginMode mode,
                                         const LoginInfo &info)
{
    protection = reply.deviceProtect.status;
    setToken(reply.token.token);
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

void LoginController::Private::writeSession() const
{
    TokenInfoJson session;
    session.auth = currentToken();
    session.username = userName;
    session.countryCode = countryCode;
    session.phone = phone;
    session.email = email;
    session.id = static_cast<std::int32_t>(id);
    session.currentNodeIdentity = node->identity();
    session.currentNode = node->host();
    ConfigStore::instance().setTokenInfo(session);
}

// The cloud takes a slider result once, so the next request needs the slider solved again;
// the dialog sees the reload and asks for it.
void LoginController::Private::askSliderAgain(VerifyCodeSlider::Place place)
{
    if (slider && (place != VerifyCodeSlider::TrustDevice ? bool(loginDialog) : bool(verifyDialog)))
        slider->view(place)->reload();
}

int LoginController::Private::checkSecondFactorCode(const SecondVerifyCodeInfo &info)
{
    SecondVerifyCodeRequest request;
    request.identityVerifyCode = info.identityVerifyCode;
    request.identify = account;
    request.countryCode = countryCode;
    request.id = id;
    const char *path = phone.empty() ? emailCodeCheckPath : phoneCodeCheckPath;

    const HttpReply reply = postService(path, commonHeaders(), toJson(request), false);
    if (!reply.ok) {
        const int result = reply.body.empty() ? int(VerifyCodeError) : resultOfErrorBody(reply.body);
        qCWarning(lcLogin) << "second factor code refused:" << logTextOf(result);
        return result;
    }
    const auto checked = parseOrThrow<PhoneLoginResInfo>(reply.body);
    // The check may hand out the token the device credit request must carry.
    if (!checked.token.token.empty())
        setToken(checked.token.token);
    creditSignatureObtained = true;
    return Success;
}

int LoginController::Private::sendDeviceCredit(const SecondVerifyCodeInfo &info)
{
    DeviceSignature signature;
    signature.source = requestSource;
    signature.deviceSignature = serialNumber;
    // One minute ahead, as the cloud expects of the device's clock.
    signature.timestamp = QDateTime::currentMSecsSinceEpoch() + 60000;

    DeviceCreditRequest credit;
    credit.authCiphertext = rsaPublicEncrypt(toJson(signature), loginPublicKey);
    credit.type = deviceCreditType;
    if (credit.authCiphertext.empty()) {
        qCCritical(lcLogin) << "the device signature cannot be encrypted with the built-in key";
        return UnknownError;
    }

    SecondLoginRequest request;
    request.identityVerifyCode = info.identityVerifyCode;
    request.identify = account;
    request.countryCode = countryCode;
    request.creditSignature = loginCreditSignature;
    request.type = credit.type;
    request.authCiphertext = credit.authCiphertext;

    const std::string token = currentToken();
    HttpHeaders headers = commonHeaders();
    headers.emplace_back("Token", token);
    headers.emplace_back("Authorization", token);
    const HttpReply reply = postService(deviceCreditPath, headers, toJson(request), false);
    if (!reply.ok) {
        const int result = reply.body.empty() ? int(UnknownError) : resultOfErrorBody(reply.body);
        qCWarning(lcLogin) << "device credit refused:" << logTextOf(result);
        return result;
    }
    const auto result = parseOrThrow<AuthResult>(reply.body);
    qCInfo(lcLogin) << "device credit signed:" << !result.signature.empty();
    writeSession();
    return Success;
}

void LoginController::Private::connectDialogs()
{
    QObject::connect(loginDialog, &LoginDlalog::sigLogin, q, [this](const LoginInfo &info) {
        return q->handleLogin(info);
    });
    QObject::connect(loginDialog, &LoginDlalog::sigGetCode, q, [this](const AliVerifyCodeInfo &info) {
        const bool accepted = q->requestVerifyCode(info);
        askSliderAgain(VerifyCodeSlider::CodeLogin);
        // The address field carries a phone number or an e-mail address.
        if (info.phone.find('@') == std::string::npos)
            phone = info.phone;
        else
            email = info.phone;
        return accepted ? 1 : 0;
    });
    QObject::connect(loginDialog, &LoginDlalog::sigUpdateSeverSelect, q, &LoginController::selectNode);
    QObject::connect(verifyDialog, &LoginVerify::sigGetVerifyCode, q, [this](AliVerifyCodeInfo info) {
        // The dialog knows only the address; a phone's country code is the account's.
        if (info.type == "MOBILE_PHONE" && info.parameter.empty())
            info.parameter = countryCode;
        const bool accepted = q->requestVerifyCode(info);
        askSliderAgain(VerifyCodeSlider::TrustDevice);
        return accepted ? 1 : 0;
    });
    QObject::connect(verifyDialog, &LoginVerify::sigLogin, q, [this](const SecondVerifyCodeInfo &info) {
        const int result = q->secondLogin(info);
        if (result == Success) {
            if (verifyDialog)
                verifyDialog->accept();
            Q_EMIT q->sigLoginSucceeded();
        }
        return result;
    });
}

LoginController::LoginController(HttpClientWrapper *http, CurrentNode *node, QObject *parent)
    : QObject(parent)
    , d(std::make_unique<Private>(this, http, node))
{
}

LoginController::~LoginController()
{
    releaseWidgets();
}

void LoginController::releaseWidgets()
{
    delete d->verifyDialog.data();
    delete d->loginDialog.data();
    delete d->slider;
    d->slider = nullptr;
}

void LoginController::prepareLogin()
{
    delete d->verifyDialog.data();
    delete d->loginDialog.data();
    d->loginDialog = new LoginDlalog;
    d->verifyDialog = new LoginVerify;
    // The web engine starts with the first slider, so a host that never shows the login
    // (a proxy server, a resumed session) never pays for it.
    if (!d->slider) {
        d->slider = new VerifyCodeSlider(this);
        d->slider->setLanguage(QString::fromStdString(d->language));
    }
    d->loginDialog->setSlider(d->slider);
    d->verifyDialog->setSlider(d->slider);
    d->loginDialog->setStyleSheet(d->styleSheet);
    d->verifyDialog->setStyleSheet(d->styleSheet);
    if (!d->language.empty())
        d->loginDialog->setLanguage(d->language);
    d->connectDialogs();

    ConfigStore &store = ConfigStore::instance();
    const ConfigJson config = store.config();
    d->loginDialog->setConfig(config);

    const TokenInfoJson session = restoreSession();
    if (!session.currentNode.empty() && !session.currentNodeIdentity.empty())
        d->loginDialog->setCurrentNode(QString::fromStdString(session.currentNode),
                                       QString::fromStdString(session.currentNodeIdentity));

    const auto nodes = downloadNodeList(config.nodes);
    if (!nodes.empty())
        d->loginDialog->setNodeList(nodes);
}

TokenInfoJson LoginController::restoreSession()
{
    const TokenInfoJson session = ConfigStore::instance().tokenInfo();
    if (!session.currentNode.empty() && !session.currentNodeIdentity.empty())
        d->node->set(session.currentNode, session.currentNodeIdentity);
    d->phone = session.phone;
    d->email = session.email;
    d->id = session.id;
    d->countryCode = session.countryCode;
    d->userName = session.username;
    d->setToken(session.auth);
    return session;
}

void LoginController::showLoginDialog()
{
    if (!d->loginDialog) {
        qCWarning(lcLogin) << "login dialog shown before the login was prepared";
        return;
    }
    d->loginDialog->show();
    d->loginDialog->raise();
    d->loginDialog->activateWindow();
}

void LoginController::exitLoginVerify()
{
    if (d->verifyDialog && d->verifyDialog->isVisible())
        d->verifyDialog->reject();
}

void LoginController::resetNodeState()
{
    d->node->reset();
}

void LoginController::setLanguage(const std::string &moduleLanguage)
{
    d->language = moduleLanguage;
    if (d->slider)
        d->slider->setLanguage(QString::fromStdString(moduleLanguage));
    if (d->loginDialog)
        d->loginDialog->setLanguage(moduleLanguage);
}

void LoginController::setSerialNumber(const std::string &serialNumber)
{
    d->serialNumber = serialNumber;
}

void LoginController::setStyleSheet(const QString &sheet)
{
    d->styleSheet = sheet;
    if (d->loginDialog)
        d->loginDialog->setStyleSheet(sheet);
    if (d->verifyDialog)
        d->verifyDialog->setStyleSheet(sheet);
}

std::vector<NodeEntry> LoginController::downloadNodeList(const std::string &url)
{
    try {
        const HttpReply reply = d->http->get(url, {}, false);
        if (reply.body.empty())
            return {};
        // The directory publishes the label key as "zh-cn", which no record member can be named.
        std::string text = reply.body;
        replaceAll(text, "zh-cn", "zh_cn");
        NodesJson nodes;
        try {
            nodes = parseOrThrow<NodesJson>(text);
        } catch (const std::exception &e) {
            // A half-read directory could offer a node without its host: take none of it.
            qCWarning(lcLogin) << "node directory not understood:" << e.what();
            return {};
        }

        const std::string iconFolder = QCoreApplication::applicationDirPath().toStdString()
            + "/../share/themes/images/default/cloudmaterial/";
        for (auto &entry : nodes.cirro) {
            if (const char *local = localIconFor(lastPathComponent(entry.icon)))
                entry.icon = iconFolder + local;
        }
        return std::move(nodes.cirro);
    } catch (const std::exception &e) {
        qCWarning(lcLogin) << "node directory download failed:" << e.what();
    }
    return {};
}

void LoginController::selectNode(const QString &node, const QString &identity)
{
    d->node->set(node.toStdString(), identity.toStdString());
    if (d->loginDialog)
        d->loginDialog->setCurrentNode(node, identity);
    Q_EMIT sigCurrentNodeChanged(node, identity);
}

std::string LoginController::currentNode() const
{
    return d->currentNodeHost();
}

std::string LoginController::currentNodeIdentity() const
{
    return d->node->identity();
}

GlobalDNSJson LoginController::getGlobalDnsAddr()
{
    return getGlobalDnsAddr(*d->http, ConfigStore::instance().config().mqttControl);
}

GlobalDNSJson LoginController::getGlobalDnsAddr(HttpClientWrapper &http, const std::string &controlUrl)
{
    try {
        const HttpReply reply = http.get(controlUrl, {}, false);
        if (!reply.body.empty()) {
            RXCM_LOG_INFO("获取 DNS 地址消息: {}", reply.body);
            GlobalDNSJson dns;
            ajson::load_from_buff_nothrow(dns, reply.body.c_str(), reply.body.size());
            return dns;
        }
        RXCM_LOG_WARN("获取 DNS 地址失败: 响应消息为空");
    } catch (const std::exception &e) {
        // The last character of this message was cut in two when it was first stored, and
        // log readers match the stored bytes: "异常" ends after the first two bytes of "常".
        RXCM_LOG_ERROR("获取 DNS 地址时发生异"
                       "\xE5\xB8"
                       "? {}",
                       e.what());
    } catch (...) {
        RXCM_LOG_ERROR("获取 DNS 地址时发生异"
                       "\xE5\xB8"
                       "? {}",
                       "unknown exception");
    }
    return {};
}

bool LoginController::requestVerifyCode(const AliVerifyCodeInfo &info)
{
    try {
        d->codeKey = info.key;
        const HttpReply reply = d->postService(sliderPath, commonHeaders(), toJson(info), true);
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

int LoginController::login(const LoginInfo &info, bool *secondFactor)
{
    if (secondFactor)
        *secondFactor = false;
    const int result = d->phoneLogin(info);
    if (result != Success)
        return result;
    Q_EMIT tokenChanged(d->currentToken());
    if (secondFactor)
        *secondFactor = d->protection == 0;
    return Success;
}

int LoginController::handleLogin(const LoginInfo &info)
{
    bool secondFactor = false;
    const int result = login(info, &secondFactor);
    if (result != Success) {
        if (!info.sessionId.empty() && info.mobilePhone.empty() && info.email.empty())
            d->askSliderAgain(VerifyCodeSlider::AccountLogin);
        return result;
    }

    ConfigStore &store = ConfigStore::instance();
    ConfigJson config = store.config();
    config.isRecordUsername = info.rememberUserName;
    config.username = info.identify;
    store.setConfig(config);
    if (d->loginDialog)
        d->loginDialog->close();

    TokenInfoJson session = store.tokenInfo();
    session.currentNodeIdentity = currentNodeIdentity();
    session.currentNode = currentNode();
    store.setTokenInfo(session);

    // Only a password login can come from a device the account does not know yet.
    if (secondFactor && !info.sessionId.empty()) {
        if (!d->verifyDialog) {
            qCWarning(lcLogin) << "second factor wanted, but the login was not prepared";
            return Success;
        }
        if (!d->phone.empty())
            d->verifyDialog->setPhone(QString::fromStdString(d->phone));
        d->verifyDialog->setEmail(QString::fromStdString(d->email));
        d->verifyDialog->setCreditSignature(QString::fromStdString(info.creditSignature));
        d->creditSignatureObtained = false;
        d->slider->setLanguage(QString::fromStdString(d->language));
        d->verifyDialog->resetDialog();
        d->verifyDialog->exec();
    } else {
        Q_EMIT sigLoginSucceeded();
    }
    return Success;
}

int LoginController::secondLogin(const SecondVerifyCodeInfo &info)
{
    try {
        if (!d->creditSignatureObtained) {
            const int checked = d->checkSecondFactorCode(info);
            if (checked != Success)
                return checked;
        }
        const int result = d->sendDeviceCredit(info);
        if (result == Success)
            Q_EMIT tokenChanged(d->currentToken());
        return result;
    } catch (const std::exception &e) {
        qCWarning(lcLogin) << "second factor reply not understood:" << e.what();
    } catch (...) {
        qCWarning(lcLogin) << "second factor failed with an unknown exception";
    }
    return UnknownError;
}

HttpReply LoginController::authenticatedPost(HttpClientWrapper &http, const std::string &url, const std::string &body,
                                             const std::string &token)
{
    try {
        HttpHeaders headers = commonHeaders();
        headers.emplace_back("Token", token);
        headers.emplace_back("Authorization", token);
        return http.post(url, headers, body, false);
    } catch (const std::exception &e) {
        qCWarning(lcLogin) << "authenticated request failed:" << e.what();
    } catch (...) {
        qCWarning(lcLogin) << "authenticated request failed with an unknown exception";
    }
    return {};
}

std::string LoginController::token() const
{
    return d->currentToken();
}

LoginDlalog *LoginController::loginDialog() const
{
    return d->loginDialog;
}

LoginVerify *LoginController::verifyDialog() const
{
    return d->verifyDialog;
}

VerifyCodeSlider *LoginController::slider() const
{
    return d->slider;
}

} // namespace talvor::cloudmaterial
