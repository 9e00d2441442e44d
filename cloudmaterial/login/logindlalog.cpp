#include "cloudmaterial/login/logindlalog.h"

#include "ui_logindlalog.h"

#include "cloudmaterial/countrycodejson.h"
#include "cloudmaterial/languagechange.h"
#include "cloudmaterial/login/codecountdown.h"
#include "cloudmaterial/login/jsmessage.h"
#include "cloudmaterial/login/loginkeys.h"
#include "cloudmaterial/login/loginlinks.h"
#include "cloudmaterial/login/loginresult.h"
#include "cloudmaterial/login/nodedirectory.h"
#include "cloudmaterial/login/verifycodeslider.h"
#include "cloudmaterial/protocol/crypto.h"
#include "cloudmaterial/themeimage.h"
#include "cloudmaterial/titlebar.h"
#include "cloudmaterial/translatemanager.h"

#include <QCoreApplication>
#include <QHBoxLayout>
#include <QIcon>
#include <QLoggingCategory>
#include <QPointer>
#include <QRegularExpression>
#include <QRegularExpressionValidator>
#include <QUuid>
#include <QWebEngineView>

Q_LOGGING_CATEGORY(lcLoginDialog, "rxcm.logindialog", QtInfoMsg)

namespace talvor::cloudmaterial {

namespace {

constexpr const char tipKeyProperty[] = "rxcmTipKey";

QString text(const char *key)
{
    return TranslateManager::text(key);
}

bool isEmailAddress(const QString &text)
{
    // A search, not a whole-string match: text around an address does not make it invalid.
    static const QRegularExpression email(QStringLiteral(R"(\w[-\w.+]*@([A-Za-z0-9][-A-Za-z0-9]+\.)+[A-Za-z]{2,14})"));
    return email.match(text).hasMatch();
}

} // namespace

class LoginDlalog::Private
{
public:
    explicit Private(LoginDlalog *q)
        : q(q)
    {
    }

    void setupInputs();
    void setupConnections();
    void retranslate();
    void fillCountryCodes();
    void fillNodes();
    void selectCurrentNode();

    QList<QLabel *> tipLabels() const;
    // Where the current page shows refusals and login results.
    QLabel *resultLabel() const;
    // Without a node there is no gateway to ask; says so instead of sending anything.
    bool checkNodeChosen();
    void hideTips();
    void showTip(QLabel *label, const char *key);
    void showPlainTip(QLabel *label, const QString &message);

    void login();
    void loginWithAccount();
    void loginWithCode();
    void submit(const LoginInfo &info);
    // Checks the phone number or e-mail address of the code page; shows the tip when wrong.
    bool contactIsValid();
    void getCode();
    void updateGetCodeText();

    void showServerPanel(bool show);

    LoginDlalog *const q;
    Ui::LoginDlalog ui;
    TitleBar *titleBar = nullptr;
    QRegularExpressionValidator *userNameValidator = nullptr;
    QPointer<VerifyCodeSlider> slider;
    // The account page's check; a code request carries its page's check without asking.
    bool accountSliderPassed = false;
    CountryCodeJson countryCodes;
    std::vector<NodeEntry> nodes;
    QString currentNode;
    QString currentIdentity;
    bool chineseLabels = false; // node and country labels: zh_cn for cn/tw, en otherwise
    CodeCountdown *countdown = nullptr;
};

void LoginDlalog::Private::setupInputs()
{
    ui.lineEdit_code->setValidator(
        new QRegularExpressionValidator(QRegularExpression(QStringLiteral(R"(^\d{0,6}$)")), q));
    ui.lineEdit_phoneNum->setValidator(
        new QRegularExpressionValidator(QRegularExpression(QStringLiteral(R"(^\d{0,15}$)")), q));
    // One validator for both fields: an e-mail address is typed with the user-name characters.
    userNameValidator =
        new QRegularExpressionValidator(QRegularExpression(QStringLiteral(R"(^[a-zA-Z0-9_@?.*]*$)")), q);
    ui.lineEdit_userName->setValidator(userNameValidator);
    ui.lineEdit_emailNum->setValidator(userNameValidator);
    // "!-@" is the range from '!' to '@' (punctuation and digits), not three characters.
    ui.lineEdit_password->setValidator(
        new QRegularExpressionValidator(QRegularExpression(QStringLiteral(R"(^[a-zA-Z\d!-@#%&,+?.*]+$)")), q));
    ui.lineEdit_userName->setMaxLength(64);
    ui.lineEdit_password->setMaxLength(25);

    ui.lineEdit_userName->addAction(QIcon(themeImagePath(QStringLiteral("icon_user.png"))), QLineEdit::LeadingPosition);
    ui.lineEdit_password->addAction(QIcon(themeImagePath(QStringLiteral("icon_possword.png"))),
                                    QLineEdit::LeadingPosition);

    // The eye sits inside the password field, at its right end.
    ui.layout_password->removeWidget(ui.pushButton_eye);
    auto *eyeLayout = new QHBoxLayout(ui.lineEdit_password);
    eyeLayout->setContentsMargins(0, 0, 8, 0);
    eyeLayout->addStretch();
    eyeLayout->addWidget(ui.pushButton_eye);
    ui.lineEdit_password->setTextMargins(0, 0, ui.pushButton_eye->maximumWidth(), 0);
    ui.pushButton_eye->setIcon(QIcon(themeImagePath(QStringLiteral("close_eye.png"))));
    ui.pushButton_eye->setIconSize(QSize(16, 16));

    ui.comboBox_codeType->setIconSize(QSize(20, 20));
    ui.comboBox_codeType->addItem(QIcon(themeImagePath(QStringLiteral("icon_phone.png"))), QString());
    ui.comboBox_codeType->addItem(QIcon(themeImagePath(QStringLiteral("icon_email.png"))), QString());
    ui.comboBox_typeNum->setIconSize(QSize(20, 20));
    ui.comboBox_severSelect->setIconSize(QSize(20, 20));
    ui.pushButton_selectServer->setIcon(QIcon(themeImagePath(QStringLiteral("icon_setting.png"))));
    ui.pushButton_selectServer->setIconSize(QSize(16, 16));

    for (QLabel *label :
         {ui.label_forgotPassword, ui.label_register, ui.label_agree_account, ui.label_agree_verfiyCode}) {
        label->setTextFormat(Qt::RichText);
        label->setOpenExternalLinks(true);
    }

    // Tips keep their room while hidden, so that showing one does not shift the form.
    for (QLabel *label : tipLabels()) {
        QSizePolicy policy = label->sizePolicy();
        policy.setRetainSizeWhenHidden(true);
        label->setSizePolicy(policy);
    }
    hideTips();
}

void LoginDlalog::Private::setupConnections()
{
    QObject::connect(ui.pushButton_login, &QPushButton::clicked, q, [this] { login(); });
    QObject::connect(ui.pushButton_getCode, &QPushButton::clicked, q, [this] { getCode(); });
    QObject::connect(ui.pushButton_eye, &QPushButton::clicked, q, [this] {
        const bool hidden = ui.lineEdit_password->echoMode() == QLineEdit::Password;
        ui.lineEdit_password->setEchoMode(hidden ? QLineEdit::Normal : QLineEdit::Password);
        ui.pushButton_eye->setIcon(
            QIcon(themeImagePath(hidden ? QStringLiteral("open_eye.png") : QStringLiteral("close_eye.png"))));
    });
    QObject::connect(ui.pushButton_numberLogin, &QPushButton::clicked, q, [this] {
        hideTips();
        ui.pushButton_numberLogin->setChecked(true);
        ui.stackedWidget->setCurrentWidget(ui.page);
    });
    QObject::connect(ui.pushButton_codeLogin, &QPushButton::clicked, q, [this] {
        hideTips();
        ui.pushButton_codeLogin->setChecked(true);
        ui.stackedWidget->setCurrentWidget(ui.page_2);
    });
    QObject::connect(ui.comboBox_codeType, qOverload<int>(&QComboBox::currentIndexChanged), q, [this](int index) {
        hideTips();
        ui.stackedWidget_phoneOrEmail->setCurrentWidget(index == 0 ? ui.page_3 : ui.page_4);
    });
    // One agreement, shown on both pages.
    QObject::connect(ui.checkBox_agree_account, &QCheckBox::toggled, ui.checkBox_agree_verifyCode,
                     &QCheckBox::setChecked);
    QObject::connect(ui.checkBox_agree_verifyCode, &QCheckBox::toggled, ui.checkBox_agree_account,
                     &QCheckBox::setChecked);

    QObject::connect(ui.pushButton_selectServer, &QPushButton::clicked, q, [this] { showServerPanel(true); });
    QObject::connect(ui.pushButton_cancel, &QPushButton::clicked, q, [this] {
        selectCurrentNode(); // forget what was picked in the list
        showServerPanel(false);
    });
    QObject::connect(ui.pushButton_accept, &QPushButton::clicked, q, [this] {
        const int index = ui.comboBox_severSelect->currentIndex();
        showServerPanel(false);
        if (index < 0 || index >= int(nodes.size()))
            return;
        const NodeEntry &entry = nodes[std::size_t(index)];
        Q_EMIT q->sigUpdateSeverSelect(QString::fromStdString(entry.node), QString::fromStdString(entry.key));
    });

    countdown = new CodeCountdown(q);
    QObject::connect(countdown, &CodeCountdown::stepped, q, [this] { updateGetCodeText(); });
}

void LoginDlalog::Private::fillNodes()
{
    QSignalBlocker blocker(ui.comboBox_severSelect);
    ui.comboBox_severSelect->clear();
    for (const NodeEntry &node : nodes)
        ui.comboBox_severSelect->addItem(QIcon(QString::fromStdString(node.icon)),
                                         nodedirectory::label(node, chineseLabels));
    selectCurrentNode();
}

void LoginDlalog::Private::selectCurrentNode()
{
    // Without a node no entry looks chosen: the first one is not a choice the user made.
    const int found = nodedirectory::indexOf(nodes, currentNode, currentIdentity);
    ui.comboBox_severSelect->setCurrentIndex(found);
    ui.pushButton_selectServer->setToolTip(found >= 0 ? nodedirectory::label(nodes[std::size_t(found)], chineseLabels)
                                                      : QString());
}

void LoginDlalog::Private::fillCountryCodes()
{
    const QString current = ui.comboBox_typeNum->currentText();
    QSignalBlocker blocker(ui.comboBox_typeNum);
    ui.comboBox_typeNum->clear();
    // The item text is the code itself: the login request takes it from there.
    for (const CountryCode &code : countryCodes.country_code) {
        ui.comboBox_typeNum->addItem(QString::fromStdString(code.code));
        const std::string &label = chineseLabels || code.enLabel.empty() ? code.label : code.enLabel;
        ui.comboBox_typeNum->setItemData(ui.comboBox_typeNum->count() - 1, QString::fromStdString(label),
                                         Qt::ToolTipRole);
    }
    if (countryCodes.country_code.empty()) {
        for (const NewCountryCode &code : countryCodes.new_country_code) {
            ui.comboBox_typeNum->addItem(QString::fromStdString(code.code));
            const std::string &label = chineseLabels ? code.label.cn : code.label.us;
            ui.comboBox_typeNum->setItemData(ui.comboBox_typeNum->count() - 1, QString::fromStdString(label),
                                             Qt::ToolTipRole);
        }
    }
    const int index = ui.comboBox_typeNum->findText(current);
    if (index >= 0)
        ui.comboBox_typeNum->setCurrentIndex(index);
}

void LoginDlalog::Private::retranslate()
{
    titleBar->setTitle(text("Login"));
    q->setWindowTitle(text("Login"));
    ui.pushButton_numberLogin->setText(text("AccountLogin"));
    ui.pushButton_codeLogin->setText(text("VerificationCodeLogin"));
    ui.lineEdit_userName->setPlaceholderText(text("EnterPhoneOrEmailOrName"));
    ui.lineEdit_password->setPlaceholderText(text("EnterPassword"));
    ui.checkBox_saveUserName->setText(text("RememberMe"));
    ui.label_forgotPassword->setText(loginlinks::forgotPassword(text("ForgotPassword")));
    const QString agreement = QStringLiteral("%1 %2 %3 %4")
                                  .arg(text("Agree"), loginlinks::termsOfService(text("TermsOfService")), text("And"),
                                       loginlinks::privacyPolicy(text("PrivacyPolicy")));
    ui.label_agree_account->setText(agreement);
    ui.label_agree_verfiyCode->setText(agreement);
    ui.lineEdit_phoneNum->setPlaceholderText(text("EnterPhoneNum"));
    ui.lineEdit_emailNum->setPlaceholderText(text("EnterEmail"));
    ui.lineEdit_code->setPlaceholderText(text("EnterCodeNum"));
    updateGetCodeText();
    ui.pushButton_login->setText(text("Login"));
    ui.label_register->setText(text("NoAccount") + loginlinks::registerAccount(text("RegisterNow")));
    ui.pushButton_selectServer->setText(text("SelectServer"));
    ui.label_serverType->setText(text("ServerType"));
    ui.pushButton_accept->setText(text("OK"));
    ui.pushButton_cancel->setText(text("Cancel"));

    // A tip on show follows the language too.
    for (QLabel *label : tipLabels()) {
        const QByteArray key = label->property(tipKeyProperty).toByteArray();
        if (!key.isEmpty())
            label->setText(text(key.constData()));
    }
}

QList<QLabel *> LoginDlalog::Private::tipLabels() const
{
    return {ui.label_actOrPwdErrorTip,
            ui.label_serviceAgreement_Tip_account,
            ui.label_accountTip,
            ui.label_passwordTip,
            ui.label_phoneRightTip,
            ui.label_codeRightTip,
            ui.label_serviceAgreement_Tip_phone};
}

void LoginDlalog::Private::hideTips()
{
    for (QLabel *label : tipLabels()) {
        label->hide();
        label->setProperty(tipKeyProperty, QVariant());
    }
}

void LoginDlalog::Private::showTip(QLabel *label, const char *key)
{
    showPlainTip(label, text(key));
    label->setProperty(tipKeyProperty, QByteArray(key));
}

void LoginDlalog::Private::showPlainTip(QLabel *label, const QString &message)
{
    hideTips();
    label->setText(message);
    label->show();
}

QLabel *LoginDlalog::Private::resultLabel() const
{
    return ui.stackedWidget->currentIndex() == 0 ? ui.label_actOrPwdErrorTip : ui.label_codeRightTip;
}

bool LoginDlalog::Private::checkNodeChosen()
{
    if (!currentNode.isEmpty())
        return true;
    showTip(resultLabel(), "ChooseServerFirst");
    return false;
}

void LoginDlalog::Private::login()
{
    if (!checkNodeChosen())
        return;
    if (ui.stackedWidget->currentIndex() == 0)
        loginWithAccount();
    else
        loginWithCode();
}

// Empty or wrong fields are reported next to the field concerned: the account, the password,
// the phone number or address (label_phoneRightTip), the code (label_codeRightTip); an unticked
// agreement under the agreement line, a missing slider check and the login results in the
// page's error tip (account page: label_actOrPwdErrorTip, code page: label_codeRightTip).
void LoginDlalog::Private::loginWithAccount()
{
    const QString userName = ui.lineEdit_userName->text().trimmed();
    const QString password = ui.lineEdit_password->text();
    if (userName.isEmpty())
        return showTip(ui.label_accountTip, "PleaseInputAccount");
    if (password.isEmpty())
        return showTip(ui.label_passwordTip, "PleaseInputPassword");
    if (!ui.checkBox_agree_account->isChecked())
        return showTip(ui.label_serviceAgreement_Tip_account, "PleaseCheckServiceProxy");
    if (!accountSliderPassed || !slider)
        return showTip(ui.label_actOrPwdErrorTip, "PleaseDragSliderVerify");

    LoginInfo info;
    info.password = rsaPublicEncrypt(password.toStdString(), loginPublicKey);
    if (info.password.empty()) {
        // The key is built in, so this is a broken build rather than a user error.
        qCCritical(lcLoginDialog) << "cannot encrypt the password with the built-in key";
        return showPlainTip(ui.label_actOrPwdErrorTip, QStringLiteral("unknow error"));
    }
    info.identify = userName.toStdString();
    copySliderResult(*slider->message(VerifyCodeSlider::AccountLogin), info);
    info.rememberUserName = ui.checkBox_saveUserName->isChecked();

    submit(info);
}

void LoginDlalog::Private::submit(const LoginInfo &info)
{
    hideTips();
    // sigLogin runs the whole login, which may delete this dialog before it returns.
    QPointer<LoginDlalog> alive(q);
    const int result = Q_EMIT q->sigLogin(info);
    if (alive)
        q->showResult(result);
}

void LoginDlalog::Private::loginWithCode()
{
    if (!contactIsValid())
        return;
    const QString code = ui.lineEdit_code->text();
    if (code.isEmpty())
        return showTip(ui.label_codeRightTip, "EnterCodeNum");
    if (!ui.checkBox_agree_verifyCode->isChecked())
        return showTip(ui.label_serviceAgreement_Tip_phone, "PleaseCheckServiceProxy");

    LoginInfo info;
    if (ui.comboBox_codeType->currentIndex() == 0) {
        info.mobilePhone = ui.lineEdit_phoneNum->text().toStdString();
        info.countryCode = ui.comboBox_typeNum->currentText().toStdString();
    } else {
        info.email = ui.lineEdit_emailNum->text().trimmed().toStdString();
    }
    info.identityVerifyCode = code.toStdString();
    info.rememberUserName = ui.checkBox_saveUserName->isChecked();

    submit(info);
}

bool LoginDlalog::Private::contactIsValid()
{
    if (ui.comboBox_codeType->currentIndex() == 0) {
        // The validator already allows digits only, at most 15 of them.
        if (ui.lineEdit_phoneNum->text().isEmpty()) {
            showTip(ui.label_phoneRightTip, "EnterCorrectPhoneNum");
            return false;
        }
    } else if (!isEmailAddress(ui.lineEdit_emailNum->text())) {
        showTip(ui.label_phoneRightTip, "EnterCorrectEmail");
        return false;
    }
    return true;
}

void LoginDlalog::Private::getCode()
{
    if (countdown->isRunning())
        return; // one request per countdown
    if (!checkNodeChosen() || !contactIsValid())
        return;

    const bool phone = ui.comboBox_codeType->currentIndex() == 0;
    AliVerifyCodeInfo info;
    // The cloud echoes the key back; the controller compares it with the one sent.
    info.key = QUuid::createUuid().toString(QUuid::WithoutBraces).toStdString();
    if (phone) {
        info.phone = ui.lineEdit_phoneNum->text().toStdString();
        info.parameter = ui.comboBox_typeNum->currentText().toStdString();
        info.type = "MOBILE_PHONE";
    } else {
        info.phone = ui.lineEdit_emailNum->text().trimmed().toStdString();
        info.type = "EMAIL";
    }
    info.templateCode = "LOGIN";
    if (slider) {
        copySliderResult(*slider->message(VerifyCodeSlider::CodeLogin), info);
    }

    hideTips();
    QPointer<LoginDlalog> alive(q);
    const int result = Q_EMIT q->sigGetCode(info);
    if (!alive)
        return;
    // After a failure the button stays ready, so the user can try again at once.
    if (result == 0)
        showTip(ui.label_codeRightTip, "GetVerifyCodeFail");
    else
        countdown->start();
}

void LoginDlalog::Private::updateGetCodeText()
{
    ui.pushButton_getCode->setText(countdown->buttonText(text("GetVerifyCode")));
}

void LoginDlalog::Private::showServerPanel(bool show)
{
    ui.widget_login->setVisible(!show);
    ui.widget_login_sever->setVisible(show);
}

LoginDlalog::LoginDlalog(QWidget *parent)
    : QDialog(parent)
    , d(std::make_unique<Private>(this))
{
    d->ui.setupUi(this);
    setWindowFlags(Qt::Dialog | Qt::FramelessWindowHint);
    setModal(true);

    d->titleBar = new TitleBar(d->ui.widget_title);
    d->titleBar->setObjectName(QStringLiteral("titleBarLogin"));
    d->titleBar->setMinimizeVisible(false);
    d->titleBar->setMaximizeVisible(false);
    d->ui.layout_title->addWidget(d->titleBar);

    d->ui.stackedWidget->setCurrentWidget(d->ui.page);
    d->ui.stackedWidget_phoneOrEmail->setCurrentWidget(d->ui.page_3);
    d->ui.widget_login_sever->hide();
    const std::string language = TranslateManager::instance().language();
    d->chineseLabels = language == "cn" || language == "tw";

    d->setupInputs();
    d->setupConnections();
    d->fillCountryCodes();
    d->retranslate();
    onLanguageChange(this, [this] { d->retranslate(); });
    // As tall as the form needs in the current font; the tips keep their room while hidden.
    setFixedSize(420, sizeHint().height());
}

LoginDlalog::~LoginDlalog() = default;

void LoginDlalog::setConfig(const ConfigJson &config)
{
    d->ui.checkBox_saveUserName->setChecked(config.isRecordUsername);
    d->ui.lineEdit_userName->setText(config.isRecordUsername ? QString::fromStdString(config.username) : QString());
}

void LoginDlalog::setCountryCodes(const CountryCodeJson &codes)
{
    d->countryCodes = codes;
    d->fillCountryCodes();
}

void LoginDlalog::setCurrentNode(const QString &node, const QString &identity)
{
    d->currentNode = node;
    d->currentIdentity = identity;
    d->selectCurrentNode();
}

void LoginDlalog::setNodeList(const std::vector<NodeEntry> &nodes)
{
    d->nodes = nodes;
    d->fillNodes();
}

void LoginDlalog::setSlider(VerifyCodeSlider *slider)
{
    if (d->slider)
        d->slider->message(VerifyCodeSlider::AccountLogin)->disconnect(this);
    d->slider = slider;
    d->accountSliderPassed = false;
    if (!slider)
        return;
    // A reloaded page shows an unsolved slider again.
    if (slider->placeView(VerifyCodeSlider::AccountLogin, d->ui.webEngineView_account))
        connect(slider->view(VerifyCodeSlider::AccountLogin), &QWebEngineView::loadStarted, this,
                [this] { d->accountSliderPassed = false; });
    slider->placeView(VerifyCodeSlider::CodeLogin, d->ui.webEngineView_verifyCode);
    connect(slider->message(VerifyCodeSlider::AccountLogin), &JSMessage::signalJSGetSuccess, this,
            [this] { d->accountSliderPassed = true; });
}

void LoginDlalog::setLanguage(const std::string &moduleLanguage)
{
    d->chineseLabels = moduleLanguage == "cn" || moduleLanguage == "tw";
    d->fillNodes();
    d->fillCountryCodes();
    d->retranslate();
}

void LoginDlalog::showResult(int loginResult)
{
    QLabel *label = d->resultLabel();
    switch (loginResult) {
    case Success:
        d->hideTips();
        break;
    case VerifyCodeError:
        d->showTip(label, "VerifyCodeError");
        break;
    case AccountOrPasswordError:
        d->showTip(label, "AccountOrPwdError");
        break;
    case PhoneNotFound:
        d->showTip(label, "PhoneNotExist");
        break;
    case EmailNotFound:
        d->showTip(label, "EmailNotExist");
        break;
    case LoginTypeLocked:
        d->showTip(label, "LoginTypeLocked");
        break;
    default:
        // Shown as it stands, in every language.
        d->showPlainTip(label, QStringLiteral("unknow error"));
        break;
    }
}

int LoginDlalog::countdownValue() const
{
    return d->countdown->remaining();
}

bool LoginDlalog::isCountingDown() const
{
    return d->countdown->isRunning();
}

void LoginDlalog::showEvent(QShowEvent *event)
{
    // A first start has no node yet: the choice of one comes before anything else.
    if (d->currentNode.isEmpty())
        d->showServerPanel(true);
    QDialog::showEvent(event);
}

} // namespace talvor::cloudmaterial
