#include "cloudmaterial/login/loginverify.h"

#include "ui_loginverify.h"

#include "cloudmaterial/languagechange.h"
#include "cloudmaterial/login/codecountdown.h"
#include "cloudmaterial/login/jsmessage.h"
#include "cloudmaterial/login/loginresult.h"
#include "cloudmaterial/login/verifycodeslider.h"
#include "cloudmaterial/titlebar.h"
#include "cloudmaterial/translatemanager.h"

#include <QPointer>
#include <QRegularExpression>
#include <QRegularExpressionValidator>
#include <QUuid>
#include <QWebEngineView>

namespace talvor::cloudmaterial {

namespace {

QString text(const char *key)
{
    return TranslateManager::text(key);
}

// Hides the four digits before the last four ("15612341762" -> "156****1762"), so the
// country code in front of a number does not move the mask.
QString maskedPhone(const QString &phone)
{
    const int length = phone.size();
    if (length >= 8)
        return phone.left(length - 8) + QStringLiteral("****") + phone.right(4);
    if (length > 4) {
        const int head = (length - 4) / 2;
        return phone.left(head) + QStringLiteral("****") + phone.right(length - 4 - head);
    }
    return QString(length, QLatin1Char('*'));
}

} // namespace

class LoginVerify::Private
{
public:
    explicit Private(LoginVerify *q)
        : q(q)
    {
    }

    void retranslate();
    void updateGetCodeText();
    void getCode();
    void confirm();
    void showError(const char *key);

    LoginVerify *const q;
    Ui::LoginVerify ui;
    TitleBar *titleBar = nullptr;
    QPointer<VerifyCodeSlider> slider;
    QString phone;
    QString email;
    QString creditSignature;
    // The slider of this dialog was passed (its page delivered a result since it loaded).
    bool sliderPassed = false;
    // What label_verfyCodeError says, kept so that it follows the language.
    QByteArray errorKey = "VerifyCodeError";
    bool codeRequested = false;
    CodeCountdown *countdown = nullptr;
};

void LoginVerify::Private::retranslate()
{
    titleBar->setTitle(text("AuthorizationVerify"));
    q->setWindowTitle(text("AuthorizationVerify"));
    const bool byPhone = !phone.isEmpty();
    ui.label_tip->setText(text(byPhone ? "PhoneTrustTip" : "EmailTrustTip"));
    ui.label_phoneNum->setText(byPhone ? text("PhoneNum") + maskedPhone(phone) : text("EmailNum") + email);
    ui.lineEdit_code->setPlaceholderText(text("EnterCodeNum"));
    ui.label_verfyCodeError->setText(text(errorKey.constData()));
    ui.pushButton_cancel->setText(text("Cancel"));
    ui.pushButton_confirm->setText(text("OK"));
    updateGetCodeText();
}

void LoginVerify::Private::updateGetCodeText()
{
    ui.pushButton_getCode->setText(countdown->buttonText(text("GetVerifyCode")));
}

void LoginVerify::Private::getCode()
{
    if (countdown->isRunning()) {
        codeRequested = true;
        return; // the code of this countdown is on its way
    }
    // The code request carries the slider's result; without one the cloud refuses it anyway.
    if (!sliderPassed)
        return showError("PleaseDragSliderVerify");
    codeRequested = true;
    AliVerifyCodeInfo info;
    // The cloud echoes the key back; the controller compares it with the one sent.
    info.key = QUuid::createUuid().toString(QUuid::WithoutBraces).toStdString();
    const bool byPhone = !phone.isEmpty();
    info.phone = (byPhone ? phone : email).toStdString();
    info.type = byPhone ? "MOBILE_PHONE" : "EMAIL";
    info.templateCode = "TRUST_DEVICE";
    if (slider)
        copySliderResult(*slider->message(VerifyCodeSlider::TrustDevice), info);
    QPointer<LoginVerify> alive(q);
    const int sent = Q_EMIT q->sigGetVerifyCode(info);
    if (!alive)
        return;
    if (sent == 0) {
        // Nothing is on its way, so the button stays ready for another try.
        codeRequested = false;
        return showError("GetVerifyCodeFail");
    }
    ui.label_verfyCodeError->hide();
    countdown->start();
}

void LoginVerify::Private::confirm()
{
    const QString code = ui.lineEdit_code->text();
    if (code.isEmpty())
        return showError("VerifyCodeError");
    SecondVerifyCodeInfo info;
    info.identityVerifyCode = code.toStdString();
    if (slider) {
        const JSMessage *message = slider->message(VerifyCodeSlider::TrustDevice);
        info.sessionId = message->sessionId().toStdString();
        info.sig = message->sig().toStdString();
        info.token = message->token().toStdString();
    }
    ui.label_verfyCodeError->hide();
    QPointer<LoginVerify> alive(q);
    const int result = Q_EMIT q->sigLogin(info);
    if (!alive)
        return;
    if (result == Success)
        q->accept();
    else
        showError("VerifyCodeError");
}

void LoginVerify::Private::showError(const char *key)
{
    errorKey = key;
    ui.label_verfyCodeError->setText(text(key));
    ui.label_verfyCodeError->show();
}

LoginVerify::LoginVerify(QWidget *parent)
    : QDialog(parent)
    , d(std::make_unique<Private>(this))
{
    d->ui.setupUi(this);
    setWindowFlags(Qt::Dialog | Qt::FramelessWindowHint);
    setModal(true);
    setFixedSize(420, 340);

    d->titleBar = new TitleBar(d->ui.widget_title);
    d->titleBar->setObjectName(QStringLiteral("titleBarLogin"));
    d->titleBar->setMinimizeVisible(false);
    d->titleBar->setMaximizeVisible(false);
    d->ui.layout_title->addWidget(d->titleBar);

    d->ui.lineEdit_code->setValidator(
        new QRegularExpressionValidator(QRegularExpression(QStringLiteral(R"(^\d{0,6}$)")), this));
    QSizePolicy policy = d->ui.label_verfyCodeError->sizePolicy();
    policy.setRetainSizeWhenHidden(true); // the form does not jump when the error shows
    d->ui.label_verfyCodeError->setSizePolicy(policy);
    d->ui.label_verfyCodeError->hide();

    d->countdown = new CodeCountdown(this);
    connect(d->countdown, &CodeCountdown::stepped, this, [this] { d->updateGetCodeText(); });
    connect(d->countdown, &CodeCountdown::finished, this, [this] { d->codeRequested = false; });
    connect(d->ui.pushButton_getCode, &QPushButton::clicked, this, [this] { d->getCode(); });
    connect(d->ui.pushButton_confirm, &QPushButton::clicked, this, [this] { d->confirm(); });
    connect(d->ui.pushButton_cancel, &QPushButton::clicked, this, &QDialog::reject);

    d->retranslate();
    onLanguageChange(this, [this] { d->retranslate(); });
}

LoginVerify::~LoginVerify() = default;

void LoginVerify::setPhone(const QString &phone)
{
    d->phone = phone;
    d->retranslate();
}

void LoginVerify::setEmail(const QString &email)
{
    d->email = email;
    d->retranslate();
}

void LoginVerify::setCreditSignature(const QString &signature)
{
    d->creditSignature = signature;
}

QString LoginVerify::creditSignature() const
{
    return d->creditSignature;
}

void LoginVerify::setSlider(VerifyCodeSlider *slider)
{
    if (d->slider)
        d->slider->message(VerifyCodeSlider::TrustDevice)->disconnect(this);
    d->slider = slider;
    d->sliderPassed = false;
    if (!slider)
        return;
    connect(slider->message(VerifyCodeSlider::TrustDevice), &JSMessage::signalJSGetSuccess, this,
            [this] { d->sliderPassed = true; });
    if (!slider->placeView(VerifyCodeSlider::TrustDevice, d->ui.webEngineView_trust))
        return;
    // A reloaded page shows an unsolved slider again.
    connect(slider->view(VerifyCodeSlider::TrustDevice), &QWebEngineView::loadStarted, this,
            [this] { d->sliderPassed = false; });
}

void LoginVerify::resetDialog()
{
    d->ui.lineEdit_code->clear();
    d->ui.label_verfyCodeError->hide();
    d->errorKey = "VerifyCodeError";
    d->countdown->endAtNextStep();
}

int LoginVerify::countdownValue() const
{
    return d->countdown->remaining();
}

bool LoginVerify::isCountingDown() const
{
    return d->countdown->isRunning();
}

} // namespace talvor::cloudmaterial
