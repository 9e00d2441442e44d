#include "cloudmaterial/login/logincontroller.h"

#include "cloudmaterial/configstore.h"
#include "cloudmaterial/currentnode.h"
#include "cloudmaterial/logging.h"
#include "cloudmaterial/login/logindlalog.h"
#include "cloudmaterial/login/loginprotocol.h"
#include "cloudmaterial/login/loginverify.h"
#include "cloudmaterial/login/nodedirectory.h"
#include "cloudmaterial/login/verifycodeslider.h"
#include "cloudmaterial/protocol/ajsonex.h"
#include "cloudmaterial/protocol/httpclientwrapper.h"

#include <QLoggingCategory>
#include <QPointer>
#include <QWebEngineView>

#include <exception>

Q_LOGGING_CATEGORY(lcLoginDialogs, "rxcm.login.dialogs", QtInfoMsg)

namespace talvor::cloudmaterial {

namespace {

const char *logTextOf(int result)
{
    switch (result) {
    case VerifyCodeError:
        return "verify code is error";
    case AccountOrPasswordError:
        return "account or password is error";
    case PhoneNotFound:
        return "phone number is not found";
    case EmailNotFound:
        return "email is not found";
    case LoginTypeLocked:
        return "current login type is locked";
    default:
        return "unknow error";
    }
}

} // namespace

// The DNS look-up's error line, for both kinds of exception; a macro, so that the line names the
// look-up's function. Its last character was cut in two when it was first stored, and log readers
// match the stored bytes: "异常" ends after the first two bytes of "常".
// clang-format off
#define RXCM_LOG_DNS_EXCEPTION(what) RXCM_LOG_ERROR("获取 DNS 地址时发生异" "\xE5\xB8" "? {}", what)
// clang-format on

class LoginController::Private
{
public:
    Private(LoginController *q, HttpClientWrapper *http, CurrentNode *node)
        : q(q)
        , http(http)
        , node(node)
        , protocol(http, node)
    {
    }

    LoginResult phoneLogin(const LoginInfo &info, bool *secondFactor);
    void askSliderAgain(VerifyCodeSlider::Place place);
    void askSecondFactor(const LoginInfo &info);
    void connectDialogs();

    LoginController *const q;
    HttpClientWrapper *const http;
    CurrentNode *const node;
    LoginProtocol protocol;

    QString styleSheet;
    std::string language;
    QPointer<LoginDlalog> loginDialog;
    QPointer<LoginVerify> verifyDialog;
    VerifyCodeSlider *slider = nullptr;
};

// Every login mode logs its failure under this name; the cloud's operators search the logs for it.
LoginResult LoginController::Private::phoneLogin(const LoginInfo &info, bool *secondFactor)
{
    const LoginResult result = protocol.login(info, secondFactor);
    if (result != Success)
        RXCM_LOG_WARN("{}", logTextOf(result));
    return result;
}

// The cloud takes a slider result once, so the next request needs the slider solved again;
// the dialog sees the reload and asks for it.
void LoginController::Private::askSliderAgain(VerifyCodeSlider::Place place)
{
    if (slider && (place != VerifyCodeSlider::TrustDevice ? bool(loginDialog) : bool(verifyDialog)))
        slider->view(place)->reload();
}

void LoginController::Private::askSecondFactor(const LoginInfo &info)
{
    if (!verifyDialog) {
        qCWarning(lcLoginDialogs) << "second factor wanted, but the login was not prepared";
        return;
    }
    if (!protocol.phone().empty())
        verifyDialog->setPhone(QString::fromStdString(protocol.phone()));
    verifyDialog->setEmail(QString::fromStdString(protocol.email()));
    verifyDialog->setCreditSignature(QString::fromStdString(info.creditSignature));
    protocol.beginSecondFactor();
    slider->setLanguage(QString::fromStdString(language));
    verifyDialog->resetDialog();
    verifyDialog->exec();
}

void LoginController::Private::connectDialogs()
{
    QObject::connect(loginDialog, &LoginDlalog::sigLogin, q,
                     [this](const LoginInfo &info) { return q->handleLogin(info); });
    QObject::connect(loginDialog, &LoginDlalog::sigGetCode, q, [this](const AliVerifyCodeInfo &info) {
        const bool accepted = q->requestVerifyCode(info);
        askSliderAgain(VerifyCodeSlider::CodeLogin);
        // The address field carries a phone number or an e-mail address.
        protocol.rememberCodeAddress(info.phone);
        return accepted ? 1 : 0;
    });
    QObject::connect(loginDialog, &LoginDlalog::sigUpdateSeverSelect, q, &LoginController::selectNode);
    QObject::connect(verifyDialog, &LoginVerify::sigGetVerifyCode, q, [this](AliVerifyCodeInfo info) {
        // The dialog knows only the address; a phone's country code is the account's.
        if (info.type == "MOBILE_PHONE" && info.parameter.empty())
            info.parameter = protocol.countryCode();
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

    const ConfigJson config = ConfigStore::instance().config();
    d->loginDialog->setConfig(config);
    d->loginDialog->setCountryCodes(ConfigStore::instance().countryCodes());

    const TokenInfoJson session = restoreSession();
    if (!session.currentNode.empty() && !session.currentNodeIdentity.empty())
        d->loginDialog->setCurrentNode(QString::fromStdString(session.currentNode),
                                       QString::fromStdString(session.currentNodeIdentity));

    const auto nodes = nodedirectory::download(*d->http, config.nodes);
    if (!nodes.empty())
        d->loginDialog->setNodeList(nodes);
}

TokenInfoJson LoginController::restoreSession()
{
    return d->protocol.restoreSession();
}

void LoginController::showLoginDialog()
{
    if (!d->loginDialog) {
        qCWarning(lcLoginDialogs) << "login dialog shown before the login was prepared";
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
    d->protocol.setSerialNumber(serialNumber);
}

void LoginController::setStyleSheet(const QString &sheet)
{
    d->styleSheet = sheet;
    if (d->loginDialog)
        d->loginDialog->setStyleSheet(sheet);
    if (d->verifyDialog)
        d->verifyDialog->setStyleSheet(sheet);
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
    return d->node->host();
}

std::string LoginController::currentNodeIdentity() const
{
    return d->node->identity();
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
        RXCM_LOG_DNS_EXCEPTION(e.what());
    } catch (...) {
        RXCM_LOG_DNS_EXCEPTION("unknown exception");
    }
    return {};
}

bool LoginController::requestVerifyCode(const AliVerifyCodeInfo &info)
{
    return d->protocol.requestVerifyCode(info);
}

int LoginController::login(const LoginInfo &info, bool *secondFactor)
{
    const LoginResult result = d->phoneLogin(info, secondFactor);
    if (result == Success)
        Q_EMIT tokenChanged(d->protocol.token());
    return result;
}

int LoginController::handleLogin(const LoginInfo &info)
{
    const bool passwordLogin = !info.sessionId.empty() && info.mobilePhone.empty() && info.email.empty();
    bool secondFactor = false;
    const int result = login(info, &secondFactor);
    if (result != Success) {
        if (passwordLogin)
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
    if (secondFactor && !info.sessionId.empty())
        d->askSecondFactor(info);
    else
        Q_EMIT sigLoginSucceeded();
    return Success;
}

int LoginController::secondLogin(const SecondVerifyCodeInfo &info)
{
    const LoginResult result = d->protocol.secondLogin(info);
    if (result == Success)
        Q_EMIT tokenChanged(d->protocol.token());
    return result;
}

std::string LoginController::token() const
{
    return d->protocol.token();
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
