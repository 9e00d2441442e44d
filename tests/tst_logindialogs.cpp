#include "cloudmaterial/configstore.h"
#include "cloudmaterial/login/jsmessage.h"
#include "cloudmaterial/login/logindlalog.h"
#include "cloudmaterial/login/loginverify.h"
#include "cloudmaterial/login/verifycodeslider.h"
#include "cloudmaterial/titlebar.h"
#include "cloudmaterial/translatemanager.h"

#include "support/logcapture.h"
#include "support/testrsa.h"

// The generated forms, to read the defaults that the form files carry.
#include "ui_logindlalog.h"
#include "ui_loginverify.h"

#include <hvtheme/theme.h>

#include <QtTest>

#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QDir>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSettings>
#include <QStackedWidget>
#include <QTemporaryDir>
#include <QTimer>
#include <QUrl>
#include <QWebEngineView>

#include <memory>
#include <utility>

using namespace talvor::cloudmaterial;

namespace {

template<typename T>
T *child(const QObject *parent, const char *name)
{
    T *found = parent->findChild<T *>(QLatin1String(name));
    if (!found)
        qFatal("no %s named %s", T::staticMetaObject.className(), name);
    return found;
}

QString imagePath(const char *name)
{
    return QCoreApplication::applicationDirPath() + QStringLiteral("/../share/themes/images/default/cloudmaterial/")
           + QLatin1String(name);
}

QImage iconImage(const QIcon &icon)
{
    return icon.pixmap(16, 16).toImage().convertToFormat(QImage::Format_ARGB32);
}

// Decrypts what the dialog sent with the private half of the built-in public key.
QByteArray decryptWithCloudKey(const std::string &base64)
{
    QFile file(QStringLiteral(RXCM_LOGIN_PRIVATE_KEY));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return TestRsa::decrypt(file.readAll(), QByteArray::fromBase64(QByteArray::fromStdString(base64)));
}

// The site of the links as the prefixes need it: without the scheme they already carry.
QString webHostWithoutScheme()
{
    const QUrl url(QStringLiteral(RXCM_WEB_HOST));
    QString host = url.host();
    if (url.port() != -1)
        host += QLatin1Char(':') + QString::number(url.port());
    return host + url.path().chopped(url.path().endsWith(QLatin1Char('/')) ? 1 : 0);
}

void saveScreenshot(QWidget *widget, const QString &name)
{
    // Lay out what changed since the last event loop turn, as the next paint would.
    for (int i = 0; i < 4; ++i)
        QCoreApplication::sendPostedEvents(nullptr, QEvent::LayoutRequest);
    const QString folder = QCoreApplication::applicationDirPath() + QStringLiteral("/../screenshots");
    QDir().mkpath(folder);
    const QString path = folder + QLatin1Char('/') + name + QStringLiteral(".png");
    if (!widget->grab().save(path))
        qWarning() << "cannot save" << path;
    else
        qInfo() << "screenshot" << QDir::cleanPath(path);
}

// One tick of the get-code countdown, without waiting a second for it: the timer is stopped
// around the calls so that no real tick can come in between.
template<typename Dialog>
void tick(Dialog *dialog, int times = 1)
{
    auto *timer = child<QTimer>(dialog, "countdownTimer");
    const bool wasActive = timer->isActive();
    timer->stop();
    for (int i = 0; i < times; ++i)
        QMetaObject::invokeMethod(timer, "timeout");
    if (wasActive && dialog->isCountingDown())
        timer->start();
}

// The get-code countdown of either dialog, from the press that started it: 60 s shown on the
// button, no second request meanwhile, then ready again and a new press starts from 60.
template<typename Dialog>
void checkCountdown(Dialog *dialog, const int &codeCalls)
{
    auto *button = child<QPushButton>(dialog, "pushButton_getCode");
    auto *timer = child<QTimer>(dialog, "countdownTimer");
    const int calls = codeCalls;
    QVERIFY(dialog->isCountingDown());
    QCOMPARE(dialog->countdownValue(), 60);
    QCOMPARE(button->text(), QStringLiteral("获取验证码(60s)"));
    QVERIFY(timer->isActive());
    QCOMPARE(timer->interval(), 1000);
    QTest::mouseClick(button, Qt::LeftButton);
    QCOMPARE(codeCalls, calls);

    tick(dialog);
    QCOMPARE(dialog->countdownValue(), 59);
    QCOMPARE(button->text(), QStringLiteral("获取验证码(59s)"));
    tick(dialog, 58);
    QCOMPARE(dialog->countdownValue(), 1);
    QCOMPARE(button->text(), QStringLiteral("获取验证码(1s)"));
    QVERIFY(dialog->isCountingDown());
    tick(dialog);
    QVERIFY(!dialog->isCountingDown());
    QVERIFY(!timer->isActive());
    QCOMPARE(dialog->countdownValue(), 60);
    QCOMPARE(button->text(), QStringLiteral("获取验证码"));

    QTest::mouseClick(button, Qt::LeftButton);
    QCOMPARE(codeCalls, calls + 1);
    QCOMPARE(dialog->countdownValue(), 60);
    QCOMPARE(button->text(), QStringLiteral("获取验证码(60s)"));
}

// Gives a slider page the chance to paint before a picture is taken; not an assertion.
void waitForPaint(QWebEngineView *view)
{
    const bool painted = QTest::qWaitFor([view] {
        const QImage image = view->grab().toImage();
        return image.pixel(image.width() / 2, image.height() / 2) != image.pixel(1, 1);
    }, 3000);
    if (!painted)
        qInfo() << view->objectName() << "shows no contrast yet; taking the picture anyway";
}

const char *const tipLabels[] = {
    "label_actOrPwdErrorTip", "label_serviceAgreement_Tip_account", "label_accountTip",
    "label_passwordTip",      "label_phoneRightTip",                "label_codeRightTip",
    "label_serviceAgreement_Tip_phone",
};

} // namespace

class TestLoginDialogs : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void objectNames_data();
    void objectNames();
    void formDefaults();
    void validatorsAndLimits_data();
    void validatorsAndLimits();
    void emailAddressIsSearched_data();
    void emailAddressIsSearched();
    void icons();
    void pageSwitching();
    void serverPanel();
    void nodeLabelsFollowTheLanguage_data();
    void nodeLabelsFollowTheLanguage();
    void resultMessages_data();
    void resultMessages();
    void loginResultIsShown();
    void emptyFieldMessages_data();
    void emptyFieldMessages();
    void accountLoginNeedsTheSlider();
    void codeLoginFields();
    void getCodeRules();
    void links();
    void rememberedUserName();
    void countryCodes();
    void missingCountryCodesAreLogged();

    void verifyShowsMaskedPhone_data();
    void verifyShowsMaskedPhone();
    void verifyShowsEmailWhenNoPhone();
    void verifyCountdown();
    void verifyResetEndsTheCountdown();
    void verifyConfirm();

    void formFitsTheDialog_data();
    void formFitsTheDialog();
    void tipsFit_data();
    void tipsFit();
    void titleBar();
    void screenshots();

private:
    // page: 0 the account login, 1 the code login by phone, 2 by e-mail.
    LoginDlalog *showLogin(int page = 0);
    LoginVerify *showVerify();
    void checkOnlyTipShown(const char *label, const QString &text);
    // Delivers a slider result as the page of @p place does, once that page has loaded.
    void passSlider(VerifyCodeSlider::Place place, const char *sessionId, const char *sig, const char *token);
    static void checkFits(QDialog *dialog);

    QTemporaryDir configDir;
    std::unique_ptr<VerifyCodeSlider> slider;
    std::unique_ptr<LoginDlalog> login;
    std::unique_ptr<LoginVerify> verify;
    // Started right after the views were placed, so that a finished load is never missed.
    std::unique_ptr<QSignalSpy> accountLoaded;
    std::unique_ptr<QSignalSpy> codeLoaded;
    std::unique_ptr<QSignalSpy> trustLoaded;

    int loginCalls = 0;
    LoginInfo lastLogin;
    int loginAnswer = 0;
    int codeCalls = 0;
    AliVerifyCodeInfo lastCode;
    int codeAnswer = 1;
    int secondCalls = 0;
    SecondVerifyCodeInfo lastSecond;
    int secondAnswer = 0;
};

void TestLoginDialogs::initTestCase()
{
    QVERIFY(configDir.isValid());
    ConfigStore::instance().setConfigPath(configDir.path().toStdString());
    QVERIFY(QDir().mkpath(configDir.path() + QStringLiteral("/cloud/config")));
    QFile codes(configDir.path() + QStringLiteral("/cloud/config/countrycode.json"));
    QVERIFY(codes.open(QIODevice::WriteOnly));
    codes.write(R"({"country_code":[{"code":"+86","label":"中国大陆","enLabel":"Chinese Mainland"},)"
                R"({"code":"+44","label":"英国","enLabel":"United Kingdom"},)"
                R"({"code":1,"label":"美国","enLabel":"United States"}],"new_country_code":[]})");
    codes.close();
}

void TestLoginDialogs::init()
{
    QVERIFY(TranslateManager::instance().setLanguage("cn"));
    loginCalls = codeCalls = secondCalls = 0;
    loginAnswer = 0;
    codeAnswer = 1;
    secondAnswer = 0;
    lastLogin = {};
    lastCode = {};
    lastSecond = {};
}

void TestLoginDialogs::cleanup()
{
    accountLoaded.reset();
    codeLoaded.reset();
    trustLoaded.reset();
    login.reset();
    verify.reset();
    slider.reset();
}

LoginDlalog *TestLoginDialogs::showLogin(int page)
{
    slider = std::make_unique<VerifyCodeSlider>();
    login = std::make_unique<LoginDlalog>();
    login->setSlider(slider.get());
    accountLoaded = std::make_unique<QSignalSpy>(slider->view(VerifyCodeSlider::AccountLogin),
                                                 &QWebEngineView::loadFinished);
    codeLoaded = std::make_unique<QSignalSpy>(slider->view(VerifyCodeSlider::CodeLogin),
                                              &QWebEngineView::loadFinished);
    connect(login.get(), &LoginDlalog::sigLogin, this, [this](const LoginInfo &info) {
        ++loginCalls;
        lastLogin = info;
        return loginAnswer;
    });
    connect(login.get(), &LoginDlalog::sigGetCode, this, [this](const AliVerifyCodeInfo &info) {
        ++codeCalls;
        lastCode = info;
        return codeAnswer;
    });
    login->show();
    if (!QTest::qWaitForWindowExposed(login.get()))
        qWarning() << "the login dialog was not exposed";
    if (page > 0)
        QTest::mouseClick(child<QPushButton>(login.get(), "pushButton_codeLogin"), Qt::LeftButton);
    if (page == 2)
        QTest::keyClick(child<QComboBox>(login.get(), "comboBox_codeType"), Qt::Key_Down);
    return login.get();
}

LoginVerify *TestLoginDialogs::showVerify()
{
    slider = std::make_unique<VerifyCodeSlider>();
    verify = std::make_unique<LoginVerify>();
    verify->setSlider(slider.get());
    trustLoaded = std::make_unique<QSignalSpy>(slider->view(VerifyCodeSlider::TrustDevice),
                                               &QWebEngineView::loadFinished);
    connect(verify.get(), &LoginVerify::sigLogin, this, [this](const SecondVerifyCodeInfo &info) {
        ++secondCalls;
        lastSecond = info;
        return secondAnswer;
    });
    connect(verify.get(), &LoginVerify::sigGetVerifyCode, this, [this](const AliVerifyCodeInfo &info) {
        ++codeCalls;
        lastCode = info;
        return codeAnswer;
    });
    verify->show();
    if (!QTest::qWaitForWindowExposed(verify.get()))
        qWarning() << "the verification dialog was not exposed";
    return verify.get();
}

void TestLoginDialogs::checkOnlyTipShown(const char *label, const QString &text)
{
    for (const char *name : tipLabels) {
        auto *tip = child<QLabel>(login.get(), name);
        if (qstrcmp(name, label) == 0) {
            QVERIFY2(tip->isVisible(), name);
            QCOMPARE(tip->text(), text);
        } else {
            QVERIFY2(!tip->isVisible(), name);
        }
    }
}

void TestLoginDialogs::passSlider(VerifyCodeSlider::Place place, const char *sessionId, const char *sig,
                                  const char *token)
{
    QSignalSpy *loaded = place == VerifyCodeSlider::AccountLogin ? accountLoaded.get()
                         : place == VerifyCodeSlider::CodeLogin  ? codeLoaded.get()
                                                                 : trustLoaded.get();
    QTRY_VERIFY_WITH_TIMEOUT(loaded->count() > 0, 30000);
    slider->message(place)->slotJSMsg(QString::fromUtf8(sessionId), QString::fromUtf8(sig), QString::fromUtf8(token));
}

void TestLoginDialogs::objectNames_data()
{
    QTest::addColumn<QString>("dialog");
    QTest::addColumn<QString>("name");
    const char *const loginNames[] = {
        "widget_login", "pushButton_login", "stackedWidget", "page", "page_2", "widget", "lineEdit_userName",
        "lineEdit_password", "pushButton_eye", "widget_9", "checkBox_saveUserName", "label_forgotPassword",
        "widget_agree_account", "horizontalLayout_2", "checkBox_agree_account", "label_agree_account",
        "label_actOrPwdErrorTip", "label_serviceAgreement_Tip_account", "label_accountTip", "label_passwordTip",
        "webEngineView_account", "widget_", "comboBox_codeType", "widget_agree_verifyCode", "horizontalLayout",
        "checkBox_agree_verifyCode", "label_agree_verfiyCode", "stackedWidget_phoneOrEmail", "page_3", "page_4",
        "lineEdit_phoneNum", "comboBox_typeNum", "lineEdit_emailNum", "label_phoneRightTip", "label_codeRightTip",
        "label_serviceAgreement_Tip_phone", "webEngineView_verifyCode", "widget_code", "horizontalLayout_3",
        "lineEdit_code", "pushButton_getCode", "pushButton_numberLogin", "widget_2", "horizontalLayout_4",
        "label_register", "pushButton_selectServer", "pushButton_codeLogin", "line", "widget_title",
        "widget_login_sever", "label_serverType", "comboBox_severSelect", "widget_3", "pushButton_accept",
        "pushButton_cancel", "ButtonMin", "ButtonRestore", "ButtonMax", "ButtonClose", "TitleLabel",
    };
    for (const char *name : loginNames)
        QTest::addRow("LoginDlalog %s", name) << "LoginDlalog" << name;
    const char *const verifyNames[] = {
        "widget_title", "titleBarLogin", "widget_secondLogin", "label_tip", "label_phoneNum", "widget_code",
        "horizontalLayout", "lineEdit_code", "pushButton_getCode", "label_verfyCodeError", "webEngineView_trust",
        "pushButton_cancel", "pushButton_confirm", "ButtonClose", "TitleLabel",
    };
    for (const char *name : verifyNames)
        QTest::addRow("LoginVerify %s", name) << "LoginVerify" << name;
}

void TestLoginDialogs::objectNames()
{
    QFETCH(QString, dialog);
    QFETCH(QString, name);
    QObject *root = dialog == QLatin1String("LoginDlalog") ? static_cast<QObject *>(showLogin())
                                                            : static_cast<QObject *>(showVerify());
    QVERIFY2(root->findChild<QObject *>(name), qPrintable(name));
    // The slider views take over the names of the places they fill; the placeholders are gone.
    if (name.startsWith(QLatin1String("webEngineView_"))) {
        const auto place = name.endsWith(QLatin1String("account"))      ? VerifyCodeSlider::AccountLogin
                           : name.endsWith(QLatin1String("verifyCode")) ? VerifyCodeSlider::CodeLogin
                                                                        : VerifyCodeSlider::TrustDevice;
        QCOMPARE(root->findChild<QWebEngineView *>(name), slider->view(place));
        QCOMPARE(slider->view(place)->styleSheet(),
                 QStringLiteral("QWebEngineView { border: none; background: transparent; }"));
        QCOMPARE(root->findChildren<QWidget *>(name).size(), 1);
    }
}

void TestLoginDialogs::formDefaults()
{
    QDialog loginHost;
    Ui::LoginDlalog loginForm;
    loginForm.setupUi(&loginHost);
    QCOMPARE(loginForm.pushButton_numberLogin->text(), QStringLiteral("账号登录"));
    QCOMPARE(loginForm.pushButton_codeLogin->text(), QStringLiteral("验证码登录"));
    QCOMPARE(loginForm.checkBox_saveUserName->text(), QStringLiteral("记住用户名"));
    QCOMPARE(loginForm.label_agree_account->text(), QStringLiteral("同意服务协议和隐私政策"));
    QCOMPARE(loginForm.label_agree_verfiyCode->text(), QStringLiteral("同意服务协议和隐私政策"));
    QCOMPARE(loginForm.label_actOrPwdErrorTip->text(), QStringLiteral("用户名或密码不正确"));
    QCOMPARE(loginForm.label_serviceAgreement_Tip_account->text(), QStringLiteral("请先勾选服务协议和隐私政策"));
    QCOMPARE(loginForm.label_accountTip->text(), QStringLiteral("请输入账号"));
    QCOMPARE(loginForm.label_passwordTip->text(), QStringLiteral("请输入密码"));
    QCOMPARE(loginForm.label_phoneRightTip->text(), QStringLiteral("请输入正确的手机号"));
    QCOMPARE(loginForm.label_serviceAgreement_Tip_phone->text(), QStringLiteral("请先勾选服务条款和隐私政策"));
    QCOMPARE(loginForm.label_serverType->text(), QStringLiteral("服务器类型："));
    QCOMPARE(loginForm.pushButton_login->text(), QStringLiteral("登录"));
    QCOMPARE(loginForm.label_codeRightTip->text(), QStringLiteral("验证码错误"));

    QDialog verifyHost;
    Ui::LoginVerify verifyForm;
    verifyForm.setupUi(&verifyHost);
    QCOMPARE(verifyForm.label_phoneNum->text(), QStringLiteral("手机号：156****1762"));
    QCOMPARE(verifyForm.label_verfyCodeError->text(), QStringLiteral("验证码错误"));
    QCOMPARE(verifyForm.pushButton_getCode->text(), QStringLiteral("获取验证码"));
}

void TestLoginDialogs::validatorsAndLimits_data()
{
    QTest::addColumn<int>("page"); // 0 account, 1 phone, 2 e-mail
    QTest::addColumn<QString>("field");
    QTest::addColumn<QString>("typed");
    QTest::addColumn<QString>("expected");

    auto row = [](const char *name, int page, const char *field, const QString &typed, const QString &expected) {
        QTest::newRow(name) << page << field << typed << expected;
    };
    row("phone: 16th digit refused", 1, "lineEdit_phoneNum", "1234567890123456", "123456789012345");
    row("phone: letters refused", 1, "lineEdit_phoneNum", "13a8-00 1", "138001");
    row("code: 7th digit refused", 1, "lineEdit_code", "1234567", "123456");
    row("code: letters refused", 1, "lineEdit_code", "12x3", "123");
    row("password: cut at 25", 0, "lineEdit_password", "abcdefghijklmnopqrstuvwxyz", "abcdefghijklmnopqrstuvwxy");
    row("password: range ! to @ and the extra signs", 0, "lineEdit_password", "Aa1!\"$'()/:;<=>@#%&,+?.*",
        "Aa1!\"$'()/:;<=>@#%&,+?.*");
    row("password: outside the classes", 0, "lineEdit_password", "a b^c~d[e]f_g{h}", "abcdefgh");
    row("user name: its characters", 0, "lineEdit_userName", "User_01@host.x?*", "User_01@host.x?*");
    row("user name: others refused", 0, "lineEdit_userName", "ann-lee+1 #x", "annlee1x");
    row("user name: cut at 64", 0, "lineEdit_userName", QString(70, QLatin1Char('u')), QString(64, QLatin1Char('u')));
    row("e-mail field: user-name characters", 2, "lineEdit_emailNum", "ann-lee+1@mail.com", "annlee1@mail.com");
}

void TestLoginDialogs::validatorsAndLimits()
{
    QFETCH(int, page);
    QFETCH(QString, field);
    QFETCH(QString, typed);
    QFETCH(QString, expected);

    LoginDlalog *dialog = showLogin(page);
    auto *edit = child<QLineEdit>(dialog, qPrintable(field));
    QVERIFY(edit->isVisible());
    edit->setFocus();
    QTest::keyClicks(edit, typed);
    QCOMPARE(edit->text(), expected);
}

void TestLoginDialogs::emailAddressIsSearched_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("accepted");
    QTest::newRow("plain") << "ann@example.com" << true;
    QTest::newRow("dots, plus and dash") << "ann.lee+tag@mail-box.example.co.uk" << true;
    QTest::newRow("inside other words") << "please write to ann@example.com today" << true;
    QTest::newRow("trailing garbage") << "ann@example.com***" << true;
    QTest::newRow("15-letter ending still holds 14") << "ann@example.abcdefghijklmno" << true;
    QTest::newRow("no dot part") << "ann@example" << false;
    QTest::newRow("one-letter ending") << "ann@example.c" << false;
    QTest::newRow("digit in the ending") << "ann@example.c0m" << false;
    QTest::newRow("one-character domain label") << "ann@x.com" << false;
    QTest::newRow("nothing before @") << "@example.com" << false;
    QTest::newRow("empty") << "" << false;
}

void TestLoginDialogs::emailAddressIsSearched()
{
    QFETCH(QString, text);
    QFETCH(bool, accepted);

    LoginDlalog *dialog = showLogin(2);
    // Set directly: the field's validator would not let spaces be typed, but pasted text
    // and remembered text reach the check the same way.
    child<QLineEdit>(dialog, "lineEdit_emailNum")->setText(text);
    QTest::mouseClick(child<QPushButton>(dialog, "pushButton_getCode"), Qt::LeftButton);

    QCOMPARE(codeCalls, accepted ? 1 : 0);
    if (accepted) {
        QCOMPARE(QString::fromStdString(lastCode.phone), text);
        QCOMPARE(lastCode.type, std::string("EMAIL"));
        checkOnlyTipShown(nullptr, {});
    } else {
        checkOnlyTipShown("label_phoneRightTip", QStringLiteral("请输入正确的邮箱"));
    }
}

void TestLoginDialogs::icons()
{
    for (const char *name : {"icon_user.png", "icon_possword.png", "icon_phone.png", "icon_email.png",
                             "icon_setting.png", "close_eye.png", "open_eye.png"})
        QVERIFY2(QFile::exists(imagePath(name)), name);

    LoginDlalog *dialog = showLogin();
    auto *user = child<QLineEdit>(dialog, "lineEdit_userName");
    auto *password = child<QLineEdit>(dialog, "lineEdit_password");
    QCOMPARE(user->actions().size(), 1);
    QCOMPARE(password->actions().size(), 1);
    QCOMPARE(iconImage(user->actions().first()->icon()), iconImage(QIcon(imagePath("icon_user.png"))));
    QCOMPARE(iconImage(password->actions().first()->icon()), iconImage(QIcon(imagePath("icon_possword.png"))));

    auto *codeType = child<QComboBox>(dialog, "comboBox_codeType");
    QCOMPARE(codeType->count(), 2);
    QCOMPARE(iconImage(codeType->itemIcon(0)), iconImage(QIcon(imagePath("icon_phone.png"))));
    QCOMPARE(iconImage(codeType->itemIcon(1)), iconImage(QIcon(imagePath("icon_email.png"))));
    QVERIFY(iconImage(codeType->itemIcon(0)) != iconImage(codeType->itemIcon(1)));

    auto *server = child<QPushButton>(dialog, "pushButton_selectServer");
    QCOMPARE(iconImage(server->icon()), iconImage(QIcon(imagePath("icon_setting.png"))));

    // The eye shows the password and its icon follows.
    auto *eye = child<QPushButton>(dialog, "pushButton_eye");
    const QImage closed = iconImage(QIcon(imagePath("close_eye.png")));
    const QImage open = iconImage(QIcon(imagePath("open_eye.png")));
    QVERIFY(closed != open);
    QVERIFY(eye->isVisible());

    QCOMPARE(password->echoMode(), QLineEdit::Password);
    QCOMPARE(iconImage(eye->icon()), closed);
    QTest::mouseClick(eye, Qt::LeftButton);
    QCOMPARE(password->echoMode(), QLineEdit::Normal);
    QCOMPARE(iconImage(eye->icon()), open);
    QTest::mouseClick(eye, Qt::LeftButton);
    QCOMPARE(password->echoMode(), QLineEdit::Password);
    QCOMPARE(iconImage(eye->icon()), closed);
}

void TestLoginDialogs::pageSwitching()
{
    LoginDlalog *dialog = showLogin();
    auto *pages = child<QStackedWidget>(dialog, "stackedWidget");
    auto *contact = child<QStackedWidget>(dialog, "stackedWidget_phoneOrEmail");
    auto *codeType = child<QComboBox>(dialog, "comboBox_codeType");

    QCOMPARE(pages->currentWidget(), child<QWidget>(dialog, "page"));
    QVERIFY(child<QLineEdit>(dialog, "lineEdit_userName")->isVisible());
    QTest::mouseClick(child<QPushButton>(dialog, "pushButton_codeLogin"), Qt::LeftButton);
    QCOMPARE(pages->currentIndex(), 1);
    QCOMPARE(pages->currentWidget(), child<QWidget>(dialog, "page_2"));
    QCOMPARE(contact->currentWidget(), child<QWidget>(dialog, "page_3"));
    QVERIFY(child<QLineEdit>(dialog, "lineEdit_phoneNum")->isVisible());
    QVERIFY(!child<QLineEdit>(dialog, "lineEdit_userName")->isVisible());

    QTest::keyClick(codeType, Qt::Key_Down);
    QCOMPARE(codeType->currentIndex(), 1);
    QCOMPARE(contact->currentWidget(), child<QWidget>(dialog, "page_4"));
    QVERIFY(child<QLineEdit>(dialog, "lineEdit_emailNum")->isVisible());
    QTest::keyClick(codeType, Qt::Key_Up);
    QCOMPARE(contact->currentWidget(), child<QWidget>(dialog, "page_3"));

    QTest::mouseClick(child<QPushButton>(dialog, "pushButton_numberLogin"), Qt::LeftButton);
    QCOMPARE(pages->currentWidget(), child<QWidget>(dialog, "page"));
    QVERIFY(child<QLineEdit>(dialog, "lineEdit_password")->isVisible());
}

void TestLoginDialogs::serverPanel()
{
    LoginDlalog *dialog = showLogin();
    const std::vector<NodeEntry> nodes = {
        {{"Asia", "亚洲"}, "asia.gateway.test", "node-asia", imagePath("icon_china.png").toStdString()},
        {{"Europe", "欧洲"}, "eu.gateway.test", "node-eu", imagePath("icon_europe.png").toStdString()},
        {{"India", "印度"}, "in.gateway.test", "node-in", imagePath("icon_india.png").toStdString()},
    };
    dialog->setNodeList(nodes);
    dialog->setCurrentNode(QStringLiteral("eu.gateway.test"), QStringLiteral("node-eu"));
    auto *panel = child<QWidget>(dialog, "widget_login_sever");
    auto *form = child<QWidget>(dialog, "widget_login");
    auto *combo = child<QComboBox>(dialog, "comboBox_severSelect");
    QSignalSpy selected(dialog, &LoginDlalog::sigUpdateSeverSelect);

    QVERIFY(!panel->isVisible());
    QCOMPARE(combo->count(), 3);
    QCOMPARE(combo->currentIndex(), 1);
    QCOMPARE(iconImage(combo->itemIcon(2)), iconImage(QIcon(imagePath("icon_india.png"))));

    QTest::mouseClick(child<QPushButton>(dialog, "pushButton_selectServer"), Qt::LeftButton);
    QVERIFY(panel->isVisible());
    QVERIFY(!form->isVisible());
    QTest::keyClick(combo, Qt::Key_Down);
    QCOMPARE(combo->currentIndex(), 2);
    QTest::mouseClick(child<QPushButton>(dialog, "pushButton_accept"), Qt::LeftButton);
    QCOMPARE(selected.count(), 1);
    QCOMPARE(selected.at(0).at(0).toString(), QStringLiteral("in.gateway.test"));
    QCOMPARE(selected.at(0).at(1).toString(), QStringLiteral("node-in"));
    QVERIFY(!panel->isVisible());
    QVERIFY(form->isVisible());

    // Cancel leaves everything as it was: the list shows the current node again.
    QTest::mouseClick(child<QPushButton>(dialog, "pushButton_selectServer"), Qt::LeftButton);
    QTest::keyClick(combo, Qt::Key_Up);
    QTest::keyClick(combo, Qt::Key_Up);
    QCOMPARE(combo->currentIndex(), 0);
    QTest::mouseClick(child<QPushButton>(dialog, "pushButton_cancel"), Qt::LeftButton);
    QCOMPARE(selected.count(), 1);
    QVERIFY(!panel->isVisible());
    QCOMPARE(combo->currentIndex(), 1);

    // Two entries on one host: the identity decides.
    std::vector<NodeEntry> shared = nodes;
    shared[2].node = shared[1].node;
    dialog->setNodeList(shared);
    dialog->setCurrentNode(QStringLiteral("eu.gateway.test"), QStringLiteral("node-in"));
    QCOMPARE(combo->currentIndex(), 2);
}

void TestLoginDialogs::nodeLabelsFollowTheLanguage_data()
{
    QTest::addColumn<QString>("language");
    QTest::addColumn<QStringList>("labels");
    const QStringList chinese = {QStringLiteral("亚洲"), QStringLiteral("Europe")};
    const QStringList english = {QStringLiteral("Asia"), QStringLiteral("Europe")};
    QTest::newRow("cn") << "cn" << chinese;
    QTest::newRow("tw") << "tw" << chinese;
    QTest::newRow("en") << "en" << english;
    QTest::newRow("ko_KR") << "ko_KR" << english;
    QTest::newRow("ru_RU") << "ru_RU" << english;
}

void TestLoginDialogs::nodeLabelsFollowTheLanguage()
{
    QFETCH(QString, language);
    QFETCH(QStringList, labels);

    LoginDlalog *dialog = showLogin();
    // The second entry has no Chinese label: the English one stands in.
    dialog->setNodeList({{{"Asia", "亚洲"}, "asia.gateway.test", "node-asia", ""},
                         {{"Europe", ""}, "eu.gateway.test", "node-eu", ""}});
    // Set after the list as well as before: both orders must end with the same labels.
    dialog->setLanguage(language.toStdString());
    auto *combo = child<QComboBox>(dialog, "comboBox_severSelect");
    QStringList shown;
    for (int i = 0; i < combo->count(); ++i)
        shown << combo->itemText(i);
    QCOMPARE(shown, labels);

    login.reset();
    dialog = showLogin();
    dialog->setLanguage(language.toStdString());
    dialog->setNodeList({{{"Asia", "亚洲"}, "asia.gateway.test", "node-asia", ""},
                         {{"Europe", ""}, "eu.gateway.test", "node-eu", ""}});
    combo = child<QComboBox>(dialog, "comboBox_severSelect");
    QCOMPARE(combo->itemText(0), labels.at(0));
}

void TestLoginDialogs::resultMessages_data()
{
    QTest::addColumn<QString>("language");
    QTest::addColumn<int>("page");
    QTest::addColumn<int>("result");
    QTest::addColumn<QString>("label");
    QTest::addColumn<QString>("text");

    QTest::newRow("-2 en account") << "en" << 0 << -2 << "label_actOrPwdErrorTip"
                                   << "Incorrect user name or password";
    QTest::newRow("-2 cn account") << "cn" << 0 << -2 << "label_actOrPwdErrorTip" << "用户名或密码不正确";
    QTest::newRow("-3 en code") << "en" << 1 << -3 << "label_codeRightTip" << "This phone number is not registered";
    QTest::newRow("-4 cn code") << "cn" << 1 << -4 << "label_codeRightTip" << "该邮箱未注册";
    QTest::newRow("-5 tw account") << "tw" << 0 << -5 << "label_actOrPwdErrorTip" << "此登入方式已被鎖定，請稍後再試";
    QTest::newRow("-5 ru code") << "ru_RU" << 1 << -5 << "label_codeRightTip"
                                << "Этот способ входа заблокирован, повторите попытку позже";
    QTest::newRow("-1 ko code") << "ko_KR" << 1 << -1 << "label_codeRightTip" << "인증 코드가 올바르지 않습니다";
    QTest::newRow("-6 cn untranslated") << "cn" << 0 << -6 << "label_actOrPwdErrorTip" << "unknow error";
    QTest::newRow("-6 en untranslated") << "en" << 1 << -6 << "label_codeRightTip" << "unknow error";
}

void TestLoginDialogs::resultMessages()
{
    QFETCH(QString, language);
    QFETCH(int, page);
    QFETCH(int, result);
    QFETCH(QString, label);
    QFETCH(QString, text);

    QVERIFY(TranslateManager::instance().setLanguage(language.toStdString()));
    LoginDlalog *dialog = showLogin();
    dialog->setLanguage(language.toStdString());
    if (page == 1)
        QTest::mouseClick(child<QPushButton>(dialog, "pushButton_codeLogin"), Qt::LeftButton);
    // Another tip is on show first; it must give way.
    QTest::mouseClick(child<QPushButton>(dialog, "pushButton_login"), Qt::LeftButton);
    QCOMPARE(loginCalls, 0);
    QVERIFY(child<QLabel>(dialog, page == 0 ? "label_accountTip" : "label_phoneRightTip")->isVisible());

    dialog->showResult(result);
    checkOnlyTipShown(qPrintable(label), text);

    dialog->showResult(0);
    checkOnlyTipShown(nullptr, {});
}

void TestLoginDialogs::loginResultIsShown()
{
    LoginDlalog *dialog = showLogin(1);
    QTest::keyClicks(child<QLineEdit>(dialog, "lineEdit_phoneNum"), QStringLiteral("13800138000"));
    QTest::keyClicks(child<QLineEdit>(dialog, "lineEdit_code"), QStringLiteral("246810"));
    QTest::mouseClick(child<QCheckBox>(dialog, "checkBox_agree_verifyCode"), Qt::LeftButton);
    loginAnswer = -3;
    QTest::mouseClick(child<QPushButton>(dialog, "pushButton_login"), Qt::LeftButton);
    QCOMPARE(loginCalls, 1);
    checkOnlyTipShown("label_codeRightTip", QStringLiteral("该手机号未注册"));

    // A language switch while the message shows translates it too.
    QVERIFY(TranslateManager::instance().setLanguage("en"));
    dialog->setLanguage("en");
    checkOnlyTipShown("label_codeRightTip", QStringLiteral("This phone number is not registered"));

    loginAnswer = 0;
    QTest::mouseClick(child<QPushButton>(dialog, "pushButton_login"), Qt::LeftButton);
    QCOMPARE(loginCalls, 2);
    checkOnlyTipShown(nullptr, {});
}

void TestLoginDialogs::emptyFieldMessages_data()
{
    QTest::addColumn<int>("page");
    QTest::addColumn<QStringList>("fill"); // field=value pairs typed before the click
    QTest::addColumn<bool>("agree");
    QTest::addColumn<QString>("label");
    QTest::addColumn<QString>("text");

    auto row = [](const char *name, int page, const QStringList &fill, bool agree, const char *label, const char *text) {
        QTest::newRow(name) << page << fill << agree << label << QString::fromUtf8(text);
    };
    const QStringList account{"lineEdit_userName=tester", "lineEdit_password=secret"};
    const QStringList phone{"lineEdit_phoneNum=13800138000", "lineEdit_code=123456"};
    row("no account", 0, {account.at(1)}, true, "label_accountTip", "请输入账号");
    row("no password", 0, {account.at(0)}, true, "label_passwordTip", "请输入密码");
    row("account agreement", 0, account, false, "label_serviceAgreement_Tip_account", "请先勾选服务协议和隐私政策");
    row("no slider", 0, account, true, "label_actOrPwdErrorTip", "请先拖动滑块完成验证");
    row("no phone", 1, {phone.at(1)}, true, "label_phoneRightTip", "请输入正确的手机号");
    row("no code", 1, {phone.at(0)}, true, "label_codeRightTip", "请输入验证码");
    row("code agreement", 1, phone, false, "label_serviceAgreement_Tip_phone", "请先勾选服务协议和隐私政策");
}

void TestLoginDialogs::emptyFieldMessages()
{
    QFETCH(int, page);
    QFETCH(QStringList, fill);
    QFETCH(bool, agree);
    QFETCH(QString, label);
    QFETCH(QString, text);

    LoginDlalog *dialog = showLogin(page);
    for (const QString &pair : fill) {
        auto *edit = child<QLineEdit>(dialog, qPrintable(pair.section(QLatin1Char('='), 0, 0)));
        QTest::keyClicks(edit, pair.section(QLatin1Char('='), 1));
    }
    if (agree)
        QTest::mouseClick(child<QCheckBox>(dialog, page == 0 ? "checkBox_agree_account" : "checkBox_agree_verifyCode"),
                          Qt::LeftButton);
    QTest::mouseClick(child<QPushButton>(dialog, "pushButton_login"), Qt::LeftButton);
    QCOMPARE(loginCalls, 0);
    checkOnlyTipShown(qPrintable(label), text);
}

void TestLoginDialogs::accountLoginNeedsTheSlider()
{
    LoginDlalog *dialog = showLogin();
    QTest::keyClicks(child<QLineEdit>(dialog, "lineEdit_userName"), QStringLiteral("tester@example.com"));
    QTest::keyClicks(child<QLineEdit>(dialog, "lineEdit_password"), QStringLiteral("Secret#2024!"));
    QTest::mouseClick(child<QCheckBox>(dialog, "checkBox_agree_account"), Qt::LeftButton);
    QTest::mouseClick(child<QCheckBox>(dialog, "checkBox_saveUserName"), Qt::LeftButton);
    QVERIFY(child<QCheckBox>(dialog, "checkBox_agree_verifyCode")->isChecked()); // one agreement

    QTest::mouseClick(child<QPushButton>(dialog, "pushButton_login"), Qt::LeftButton);
    QCOMPARE(loginCalls, 0);
    checkOnlyTipShown("label_actOrPwdErrorTip", QStringLiteral("请先拖动滑块完成验证"));

    // A passed check of the code page does not count for the account page.
    passSlider(VerifyCodeSlider::CodeLogin, "s2", "g2", "t2");
    QTest::mouseClick(child<QPushButton>(dialog, "pushButton_login"), Qt::LeftButton);
    QCOMPARE(loginCalls, 0);

    passSlider(VerifyCodeSlider::AccountLogin, "session-1", "sig-1", "token-1");
    QTest::mouseClick(child<QPushButton>(dialog, "pushButton_login"), Qt::LeftButton);
    QCOMPARE(loginCalls, 1);
    checkOnlyTipShown(nullptr, {});
    QCOMPARE(lastLogin.identify, std::string("tester@example.com"));
    QCOMPARE(lastLogin.sessionId, std::string("session-1"));
    QCOMPARE(lastLogin.sig, std::string("sig-1"));
    QCOMPARE(lastLogin.token, std::string("token-1"));
    QVERIFY(lastLogin.rememberUserName);
    QVERIFY(lastLogin.mobilePhone.empty());
    QVERIFY(lastLogin.email.empty());
    QVERIFY(lastLogin.identityVerifyCode.empty());
    // RSA-2048 gives 256 bytes, 344 characters of Base64; only the cloud's key opens it.
    QCOMPARE(lastLogin.password.size(), std::size_t(344));
    QCOMPARE(QByteArray::fromBase64(QByteArray::fromStdString(lastLogin.password)).size(), 256);
    QVERIFY(lastLogin.password.find("Secret") == std::string::npos);
    QCOMPARE(decryptWithCloudKey(lastLogin.password), QByteArray("Secret#2024!"));

    // A second result of the page replaces the first.
    passSlider(VerifyCodeSlider::AccountLogin, "session-2", "sig-2", "token-2");
    QTest::mouseClick(child<QCheckBox>(dialog, "checkBox_saveUserName"), Qt::LeftButton);
    QTest::mouseClick(child<QPushButton>(dialog, "pushButton_login"), Qt::LeftButton);
    QCOMPARE(loginCalls, 2);
    QCOMPARE(lastLogin.sessionId, std::string("session-2"));
    QVERIFY(!lastLogin.rememberUserName);
}

void TestLoginDialogs::codeLoginFields()
{
    LoginDlalog *dialog = showLogin(1);
    QTest::mouseClick(child<QCheckBox>(dialog, "checkBox_agree_verifyCode"), Qt::LeftButton);
    auto *country = child<QComboBox>(dialog, "comboBox_typeNum");
    QTest::keyClick(country, Qt::Key_Down);
    QCOMPARE(country->currentText(), QStringLiteral("+44"));
    QTest::keyClicks(child<QLineEdit>(dialog, "lineEdit_phoneNum"), QStringLiteral("7700900123"));
    QTest::keyClicks(child<QLineEdit>(dialog, "lineEdit_code"), QStringLiteral("135790"));
    QTest::mouseClick(child<QPushButton>(dialog, "pushButton_login"), Qt::LeftButton);
    QCOMPARE(loginCalls, 1);
    QCOMPARE(lastLogin.mobilePhone, std::string("7700900123"));
    QCOMPARE(lastLogin.countryCode, std::string("+44"));
    QCOMPARE(lastLogin.identityVerifyCode, std::string("135790"));
    QVERIFY(lastLogin.email.empty());
    QVERIFY(lastLogin.identify.empty());
    QVERIFY(lastLogin.password.empty());
    QVERIFY(lastLogin.sessionId.empty()); // a code login must not look like a password login

    QTest::keyClick(child<QComboBox>(dialog, "comboBox_codeType"), Qt::Key_Down);
    QTest::keyClicks(child<QLineEdit>(dialog, "lineEdit_emailNum"), QStringLiteral("ann@example.com"));
    QTest::mouseClick(child<QPushButton>(dialog, "pushButton_login"), Qt::LeftButton);
    QCOMPARE(loginCalls, 2);
    QCOMPARE(lastLogin.email, std::string("ann@example.com"));
    QVERIFY(lastLogin.mobilePhone.empty());
    QVERIFY(lastLogin.countryCode.empty());
    QCOMPARE(lastLogin.identityVerifyCode, std::string("135790"));
}

void TestLoginDialogs::getCodeRules()
{
    LoginDlalog *dialog = showLogin(1);
    auto *button = child<QPushButton>(dialog, "pushButton_getCode");

    QTest::mouseClick(button, Qt::LeftButton);
    QCOMPARE(codeCalls, 0);
    checkOnlyTipShown("label_phoneRightTip", QStringLiteral("请输入正确的手机号"));

    passSlider(VerifyCodeSlider::AccountLogin, "a", "b", "c");
    passSlider(VerifyCodeSlider::CodeLogin, "code-session", "code-sig", "code-token");
    QTest::keyClicks(child<QLineEdit>(dialog, "lineEdit_phoneNum"), QStringLiteral("13800138000"));

    // Refused: the message shows and the button stays ready.
    codeAnswer = 0;
    QTest::mouseClick(button, Qt::LeftButton);
    QCOMPARE(codeCalls, 1);
    checkOnlyTipShown("label_codeRightTip", QStringLiteral("获取验证码失败"));
    QVERIFY(!dialog->isCountingDown());
    QCOMPARE(button->text(), QStringLiteral("获取验证码"));
    QCOMPARE(lastCode.phone, std::string("13800138000"));
    QCOMPARE(lastCode.parameter, std::string("+86"));
    QCOMPARE(lastCode.type, std::string("MOBILE_PHONE"));
    QCOMPARE(lastCode.sessionId, std::string("code-session"));
    QCOMPARE(lastCode.sig, std::string("code-sig"));
    QCOMPARE(lastCode.token, std::string("code-token"));
    QVERIFY(!lastCode.key.empty());
    const std::string firstKey = lastCode.key;

    codeAnswer = 1;
    QTest::mouseClick(button, Qt::LeftButton);
    QCOMPARE(codeCalls, 2);
    QVERIFY(lastCode.key != firstKey); // every request has its own key
    checkOnlyTipShown(nullptr, {});
    checkCountdown(dialog, codeCalls);
}

void TestLoginDialogs::links()
{
    LoginDlalog *dialog = showLogin();
    const QString host = webHostWithoutScheme();
    QVERIFY(!host.isEmpty());
    QVERIFY(!host.contains(QLatin1String("://")));

    const QString forgot = QStringLiteral("<style> a{text-decoration: none } </style> <a style = 'color: #3D7DD4; ' "
                                          "href = \"https://")
                           + host + QStringLiteral("/#/reset-password?source=cirro-web\">忘记密码</a>");
    const QString reg = QStringLiteral("还没有账号 ? <style> a{text-decoration: none } </style> <a style = 'color: "
                                       "#3D7DD4; ' href = \"https://")
                        + host + QStringLiteral("/#/nregister?source=cirro-web\">立即注册</a>");
    const QString prefix = QStringLiteral("<style>a{text-decoration: none}</style><a style='color: #3D7DD4;' href=\"https://");
    const QString agreement = QStringLiteral("同意 ") + prefix + host
                              + QStringLiteral("/#/statement?type=AGREE-CFG-10002&source=cirro-web\">服务协议</a> 和 ")
                              + prefix + host
                              + QStringLiteral("/#/statement?type=AGREE-CFG-10001&source=cirro-web\">隐私政策</a>");

    QCOMPARE(child<QLabel>(dialog, "label_forgotPassword")->text(), forgot);
    QCOMPARE(child<QLabel>(dialog, "label_register")->text(), reg);
    QCOMPARE(child<QLabel>(dialog, "label_agree_account")->text(), agreement);
    QCOMPARE(child<QLabel>(dialog, "label_agree_verfiyCode")->text(), agreement);
    for (const char *name : {"label_forgotPassword", "label_register", "label_agree_account", "label_agree_verfiyCode"}) {
        auto *label = child<QLabel>(dialog, name);
        QVERIFY2(label->openExternalLinks(), name);
        QCOMPARE(label->textFormat(), Qt::RichText);
    }

    QVERIFY(TranslateManager::instance().setLanguage("en"));
    dialog->setLanguage("en");
    QCOMPARE(child<QLabel>(dialog, "label_forgotPassword")->text(),
             QStringLiteral("<style> a{text-decoration: none } </style> <a style = 'color: #3D7DD4; ' href = \"https://")
                 + host + QStringLiteral("/#/reset-password?source=cirro-web\">Forgot password?</a>"));
    QVERIFY(child<QLabel>(dialog, "label_agree_account")->text().startsWith(QStringLiteral("I agree to the <style>")));
}

void TestLoginDialogs::rememberedUserName()
{
    LoginDlalog *dialog = showLogin();
    ConfigJson config;
    config.isRecordUsername = true;
    config.username = "remembered_user";
    dialog->setConfig(config);
    QCOMPARE(child<QLineEdit>(dialog, "lineEdit_userName")->text(), QStringLiteral("remembered_user"));
    QVERIFY(child<QCheckBox>(dialog, "checkBox_saveUserName")->isChecked());

    config.isRecordUsername = false;
    dialog->setConfig(config);
    QVERIFY(child<QLineEdit>(dialog, "lineEdit_userName")->text().isEmpty());
    QVERIFY(!child<QCheckBox>(dialog, "checkBox_saveUserName")->isChecked());
}

void TestLoginDialogs::countryCodes()
{
    LoginDlalog *dialog = showLogin();
    auto *combo = child<QComboBox>(dialog, "comboBox_typeNum");
    QCOMPARE(combo->count(), 3);
    QCOMPARE(combo->itemText(0), QStringLiteral("+86"));
    QCOMPARE(combo->itemText(1), QStringLiteral("+44"));
    QCOMPARE(combo->itemText(2), QStringLiteral("1")); // a number in the file is read as text
    QCOMPARE(combo->itemData(1, Qt::ToolTipRole).toString(), QStringLiteral("英国"));
    QVERIFY(TranslateManager::instance().setLanguage("en"));
    dialog->setLanguage("en");
    QCOMPARE(combo->itemData(1, Qt::ToolTipRole).toString(), QStringLiteral("United Kingdom"));
}

void TestLoginDialogs::missingCountryCodesAreLogged()
{
    QTemporaryDir empty;
    QVERIFY(empty.isValid());
    ConfigStore::instance().setConfigPath(empty.path().toStdString());
    LogCapture log;
    LoginDlalog dialog;
    ConfigStore::instance().setConfigPath(configDir.path().toStdString());

    QCOMPARE(child<QComboBox>(&dialog, "comboBox_typeNum")->count(), 0);
    const std::string path = empty.path().toStdString() + "/cloud/config/countrycode.json";
    const auto lines = log.linesStartingWith("can't open file:");
    QCOMPARE(lines.size(), std::size_t(1));
    QVERIFY2(lines.front().text.find(path) != std::string::npos, lines.front().text.c_str());
}

void TestLoginDialogs::verifyShowsMaskedPhone_data()
{
    QTest::addColumn<QString>("phone");
    QTest::addColumn<QString>("shown");
    QTest::newRow("11 digits") << "15612341762" << "手机号：156****1762";
    QTest::newRow("with country code") << "8615612341762" << "手机号：86156****1762";
    QTest::newRow("8 digits") << "12345678" << "手机号：****5678";
    QTest::newRow("7 digits") << "1234567" << "手机号：1****67";
    QTest::newRow("4 digits") << "1234" << "手机号：****";
}

void TestLoginDialogs::verifyShowsMaskedPhone()
{
    QFETCH(QString, phone);
    QFETCH(QString, shown);
    LoginVerify *dialog = showVerify();
    dialog->setEmail(QStringLiteral("ann@example.com"));
    dialog->setPhone(phone);
    QCOMPARE(child<QLabel>(dialog, "label_phoneNum")->text(), shown);
    QCOMPARE(child<QLabel>(dialog, "label_tip")->text(),
             QStringLiteral("为了您的账号安全，在新设备上登录需要验证身份，验证码将发送到以下手机号。"));
    QCOMPARE(child<TitleBar>(dialog, "titleBarLogin")->title(), QStringLiteral("授权验证"));

    QTest::mouseClick(child<QPushButton>(dialog, "pushButton_getCode"), Qt::LeftButton);
    QCOMPARE(codeCalls, 1);
    QCOMPARE(QString::fromStdString(lastCode.phone), phone); // the real number, not the mask
    QCOMPARE(lastCode.type, std::string("MOBILE_PHONE"));
}

void TestLoginDialogs::verifyShowsEmailWhenNoPhone()
{
    QVERIFY(TranslateManager::instance().setLanguage("en"));
    LoginVerify *dialog = showVerify();
    dialog->setEmail(QStringLiteral("ann@example.com"));
    QCOMPARE(child<QLabel>(dialog, "label_phoneNum")->text(), QStringLiteral("E-mail: ann@example.com"));
    QCOMPARE(child<QLabel>(dialog, "label_tip")->text(),
             QStringLiteral("To protect your account, logging in on a new device needs a verification code. It "
                            "will be sent to this e-mail address."));
    QCOMPARE(child<QLineEdit>(dialog, "lineEdit_code")->placeholderText(), QStringLiteral("Enter the verification code"));
    QCOMPARE(child<QPushButton>(dialog, "pushButton_cancel")->text(), QStringLiteral("Cancel"));
    QCOMPARE(child<QPushButton>(dialog, "pushButton_confirm")->text(), QStringLiteral("OK"));
    QCOMPARE(child<QPushButton>(dialog, "pushButton_getCode")->text(), QStringLiteral("Get code"));

    passSlider(VerifyCodeSlider::TrustDevice, "trust-session", "trust-sig", "trust-token");
    QTest::mouseClick(child<QPushButton>(dialog, "pushButton_getCode"), Qt::LeftButton);
    QCOMPARE(codeCalls, 1);
    QCOMPARE(lastCode.phone, std::string("ann@example.com"));
    QCOMPARE(lastCode.type, std::string("EMAIL"));
    QCOMPARE(lastCode.sessionId, std::string("trust-session"));
    QCOMPARE(lastCode.sig, std::string("trust-sig"));
    QCOMPARE(lastCode.token, std::string("trust-token"));
}

void TestLoginDialogs::verifyCountdown()
{
    LoginVerify *dialog = showVerify();
    dialog->setPhone(QStringLiteral("15612341762"));
    auto *button = child<QPushButton>(dialog, "pushButton_getCode");
    QCOMPARE(dialog->countdownValue(), 60);
    QVERIFY(!dialog->isCountingDown());
    QCOMPARE(button->text(), QStringLiteral("获取验证码"));

    QTest::mouseClick(button, Qt::LeftButton);
    QCOMPARE(codeCalls, 1);
    checkCountdown(dialog, codeCalls);

    // The timer itself drives the 60 steps, just faster.
    auto *timer = child<QTimer>(dialog, "countdownTimer");
    timer->setInterval(2);
    QTRY_VERIFY_WITH_TIMEOUT(!dialog->isCountingDown(), 20000);
    QCOMPARE(dialog->countdownValue(), 60);
    QVERIFY(!timer->isActive());
    QCOMPARE(button->text(), QStringLiteral("获取验证码"));
    QCOMPARE(codeCalls, 2);
}

void TestLoginDialogs::verifyResetEndsTheCountdown()
{
    LoginVerify *dialog = showVerify();
    dialog->setPhone(QStringLiteral("15612341762"));
    auto *code = child<QLineEdit>(dialog, "lineEdit_code");
    auto *error = child<QLabel>(dialog, "label_verfyCodeError");
    auto *timer = child<QTimer>(dialog, "countdownTimer");

    // Idle: a reset clears the form and leaves the countdown alone.
    QTest::keyClicks(code, QStringLiteral("111"));
    secondAnswer = -1;
    QTest::mouseClick(child<QPushButton>(dialog, "pushButton_confirm"), Qt::LeftButton);
    QVERIFY(error->isVisible());
    dialog->resetDialog();
    QVERIFY(code->text().isEmpty());
    QVERIFY(!error->isVisible());
    QCOMPARE(dialog->countdownValue(), 60);

    QTest::mouseClick(child<QPushButton>(dialog, "pushButton_getCode"), Qt::LeftButton);
    tick(dialog, 5);
    QCOMPARE(dialog->countdownValue(), 55);
    dialog->resetDialog();
    // Still running until the next tick, which ends it the usual way.
    QCOMPARE(dialog->countdownValue(), 1);
    QVERIFY(dialog->isCountingDown());
    QVERIFY(timer->isActive());
    tick(dialog);
    QVERIFY(!dialog->isCountingDown());
    QVERIFY(!timer->isActive());
    QCOMPARE(dialog->countdownValue(), 60);
    QCOMPARE(child<QPushButton>(dialog, "pushButton_getCode")->text(), QStringLiteral("获取验证码"));
    QTest::mouseClick(child<QPushButton>(dialog, "pushButton_getCode"), Qt::LeftButton);
    QCOMPARE(codeCalls, 2);
}

void TestLoginDialogs::verifyConfirm()
{
    LoginVerify *dialog = showVerify();
    dialog->setPhone(QStringLiteral("15612341762"));
    auto *error = child<QLabel>(dialog, "label_verfyCodeError");
    QSignalSpy accepted(dialog, &QDialog::accepted);

    // Nothing typed: nothing to send.
    QTest::mouseClick(child<QPushButton>(dialog, "pushButton_confirm"), Qt::LeftButton);
    QCOMPARE(secondCalls, 0);
    QVERIFY(error->isVisible());

    passSlider(VerifyCodeSlider::TrustDevice, "ts", "tg", "tt");
    QTest::keyClicks(child<QLineEdit>(dialog, "lineEdit_code"), QStringLiteral("86a42139"));
    secondAnswer = -1;
    QTest::mouseClick(child<QPushButton>(dialog, "pushButton_confirm"), Qt::LeftButton);
    QCOMPARE(secondCalls, 1);
    QCOMPARE(lastSecond.identityVerifyCode, std::string("864213"));
    QCOMPARE(lastSecond.sessionId, std::string("ts"));
    QCOMPARE(lastSecond.sig, std::string("tg"));
    QCOMPARE(lastSecond.token, std::string("tt"));
    QVERIFY(error->isVisible());
    QCOMPARE(error->text(), QStringLiteral("验证码错误"));
    QVERIFY(dialog->isVisible());
    QCOMPARE(accepted.count(), 0);

    secondAnswer = 0;
    QTest::mouseClick(child<QPushButton>(dialog, "pushButton_confirm"), Qt::LeftButton);
    QCOMPARE(secondCalls, 2);
    QCOMPARE(accepted.count(), 1);
    QCOMPARE(dialog->result(), int(QDialog::Accepted));
    QVERIFY(!dialog->isVisible());
}

void TestLoginDialogs::formFitsTheDialog_data()
{
    QTest::addColumn<QString>("language");
    QTest::addColumn<QString>("view"); // what is on show
    for (const char *language : {"cn", "tw", "en", "ko_KR", "ru_RU"}) {
        for (const char *view : {"account", "phone", "email", "server", "verify"})
            QTest::addRow("%s %s", language, view) << language << view;
    }
}

// Every text on show gets the room it asks for, inside the dialog: long translations must
// neither be cut nor push widgets out.
void TestLoginDialogs::formFitsTheDialog()
{
    QFETCH(QString, language);
    QFETCH(QString, view);
    QVERIFY(TranslateManager::instance().setLanguage(language.toStdString()));

    QDialog *dialog = nullptr;
    if (view == QLatin1String("verify")) {
        LoginVerify *second = showVerify();
        second->setPhone(QStringLiteral("8615612341762"));
        QTest::mouseClick(child<QPushButton>(second, "pushButton_getCode"), Qt::LeftButton); // the longest text
        dialog = second;
    } else {
        LoginDlalog *first = showLogin();
        first->setLanguage(language.toStdString());
        first->setNodeList({{{"Southeast Asia and Oceania", "东南亚及大洋洲"}, "asia.gateway.test", "node-asia", ""}});
        if (view != QLatin1String("account"))
            QTest::mouseClick(child<QPushButton>(first, "pushButton_codeLogin"), Qt::LeftButton);
        if (view == QLatin1String("email"))
            QTest::keyClick(child<QComboBox>(first, "comboBox_codeType"), Qt::Key_Down);
        if (view == QLatin1String("server"))
            QTest::mouseClick(child<QPushButton>(first, "pushButton_selectServer"), Qt::LeftButton);
        if (view == QLatin1String("phone")) {
            codeAnswer = 1;
            QTest::keyClicks(child<QLineEdit>(first, "lineEdit_phoneNum"), QStringLiteral("13800138000"));
            QTest::mouseClick(child<QPushButton>(first, "pushButton_getCode"), Qt::LeftButton);
            QVERIFY(first->isCountingDown());
        }
        dialog = first;
    }

    checkFits(dialog);
}

void TestLoginDialogs::tipsFit_data()
{
    QTest::addColumn<QString>("language");
    for (const char *language : {"cn", "tw", "en", "ko_KR", "ru_RU"})
        QTest::newRow(language) << language;
}

// Each message in the tip label that shows it, one at a time.
void TestLoginDialogs::tipsFit()
{
    QFETCH(QString, language);
    QVERIFY(TranslateManager::instance().setLanguage(language.toStdString()));
    const std::pair<const char *, std::vector<const char *>> messages[] = {
        {"label_accountTip", {"PleaseInputAccount"}},
        {"label_passwordTip", {"PleaseInputPassword"}},
        {"label_serviceAgreement_Tip_account", {"PleaseCheckServiceProxy"}},
        {"label_actOrPwdErrorTip",
         {"PleaseDragSliderVerify", "AccountOrPwdError", "LoginTypeLocked", "VerifyCodeError", "unknow error"}},
        {"label_phoneRightTip", {"EnterCorrectPhoneNum", "EnterCorrectEmail"}},
        {"label_codeRightTip",
         {"EnterCodeNum", "GetVerifyCodeFail", "VerifyCodeError", "PhoneNotExist", "EmailNotExist", "LoginTypeLocked"}},
        {"label_serviceAgreement_Tip_phone", {"PleaseCheckServiceProxy"}},
    };
    LoginDlalog *dialog = showLogin();
    dialog->setLanguage(language.toStdString());
    for (const auto &[name, keys] : messages) {
        auto *label = child<QLabel>(dialog, name);
        const bool codePage = label->parentWidget() == child<QWidget>(dialog, "page_2");
        QTest::mouseClick(child<QPushButton>(dialog, codePage ? "pushButton_codeLogin" : "pushButton_numberLogin"),
                          Qt::LeftButton);
        for (const char *key : keys) {
            label->setText(TranslateManager::text(key));
            label->show();
            checkFits(dialog);
            if (QTest::currentTestFailed())
                qWarning() << "in" << name << "with" << key;
            QVERIFY(!QTest::currentTestFailed());
            label->hide();
        }
    }
}

void TestLoginDialogs::checkFits(QDialog *dialog)
{
    // Size changes are applied through posted layout requests.
    for (int i = 0; i < 4; ++i)
        QCoreApplication::sendPostedEvents(nullptr, QEvent::LayoutRequest);
    const QRect inside = dialog->rect();
    for (QWidget *widget : dialog->findChildren<QWidget *>()) {
        if (!widget->isVisible() || qobject_cast<QWebEngineView *>(widget->parentWidget()))
            continue;
        const QRect area(widget->mapTo(dialog, QPoint(0, 0)), widget->size());
        QVERIFY2(inside.contains(area), qPrintable(widget->objectName()));
        const QString what = QStringLiteral("%1 %2x%3, wants %4x%5 (%6)")
                                 .arg(widget->objectName())
                                 .arg(widget->width())
                                 .arg(widget->height())
                                 .arg(widget->sizeHint().width())
                                 .arg(widget->heightForWidth(widget->width()))
                                 .arg(widget->property("text").toString());
        if (auto *label = qobject_cast<QLabel *>(widget)) {
            if (label->wordWrap())
                QVERIFY2(label->height() >= label->heightForWidth(label->width()), qPrintable(what));
            else
                QVERIFY2(label->width() >= label->sizeHint().width(), qPrintable(what));
        } else if (auto *button = qobject_cast<QAbstractButton *>(widget); button && !button->text().isEmpty()) {
            QVERIFY2(button->width() >= button->sizeHint().width(), qPrintable(what));
        }
    }
}

void TestLoginDialogs::titleBar()
{
    QDialog window;
    window.setWindowFlags(Qt::Dialog | Qt::FramelessWindowHint);
    auto *bar = new TitleBar(&window);
    auto *layout = new QVBoxLayout(&window);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(bar);
    layout->addStretch();
    window.resize(320, 200);
    window.move(100, 100);
    bar->setTitle(QStringLiteral("Title text"));
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));

    QCOMPARE(child<QLabel>(bar, "TitleLabel")->text(), QStringLiteral("Title text"));
    auto *minimize = child<QPushButton>(bar, "ButtonMin");
    auto *maximize = child<QPushButton>(bar, "ButtonMax");
    auto *restore = child<QPushButton>(bar, "ButtonRestore");
    QVERIFY(minimize->isVisible());
    QVERIFY(maximize->isVisible());
    QVERIFY(!restore->isVisible());

    QTest::mouseClick(maximize, Qt::LeftButton);
    QTRY_VERIFY(window.isMaximized());
    QTRY_VERIFY(restore->isVisible());
    QVERIFY(!maximize->isVisible());
    QTest::mouseClick(restore, Qt::LeftButton);
    QTRY_VERIFY(!window.isMaximized());
    QTRY_VERIFY(maximize->isVisible());
    QVERIFY(!restore->isVisible());

    // Dragging the bar moves the window by the same distance.
    QTRY_COMPARE(window.pos(), QPoint(100, 100));
    const QPoint grab(40, 10);
    const QPoint start = bar->mapToGlobal(grab);
    QMouseEvent press(QEvent::MouseButtonPress, grab, start, Qt::LeftButton, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(bar, &press);
    QMouseEvent move(QEvent::MouseMove, grab, start + QPoint(30, 20), Qt::NoButton, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(bar, &move);
    QMouseEvent release(QEvent::MouseButtonRelease, grab, start + QPoint(30, 20), Qt::LeftButton, Qt::NoButton,
                        Qt::NoModifier);
    QApplication::sendEvent(bar, &release);
    QTRY_COMPARE(window.pos(), QPoint(130, 120));

    bar->setMinimizeVisible(false);
    bar->setMaximizeVisible(false);
    QVERIFY(!minimize->isVisible());
    QVERIFY(!maximize->isVisible());
    QVERIFY(!restore->isVisible());

    QSignalSpy rejected(&window, &QDialog::rejected);
    QTest::mouseClick(child<QPushButton>(bar, "ButtonClose"), Qt::LeftButton);
    QCOMPARE(rejected.count(), 1);
    QVERIFY(!window.isVisible());
}

void TestLoginDialogs::screenshots()
{
    // As the module shows them: with the theme's style sheets.
    QSettings theme(QStringLiteral(":/cloudmaterialtheme/cloudmaterial.theme"), QSettings::IniFormat);
    HV::Theme::readSettings(theme);
    const QString folder = QStringLiteral(":/cloudmaterialtheme/stylesheet");

    LoginDlalog *dialog = showLogin();
    dialog->setStyleSheet(HV::readStyleSheet(folder, QStringLiteral("loginwidget.qss")));
    dialog->setNodeList({{{"Asia", "亚洲"}, "asia.gateway.test", "node-asia", imagePath("icon_china.png").toStdString()},
                         {{"Europe", "欧洲"}, "eu.gateway.test", "node-eu", imagePath("icon_europe.png").toStdString()}});
    dialog->setCurrentNode(QStringLiteral("asia.gateway.test"), QStringLiteral("node-asia"));
    QTRY_VERIFY_WITH_TIMEOUT(accountLoaded->count() > 0 && codeLoaded->count() > 0, 30000);
    waitForPaint(child<QWebEngineView>(dialog, "webEngineView_account"));
    saveScreenshot(dialog, QStringLiteral("logindlalog-account"));

    QTest::mouseClick(child<QPushButton>(dialog, "pushButton_codeLogin"), Qt::LeftButton);
    dialog->showResult(-3);
    waitForPaint(child<QWebEngineView>(dialog, "webEngineView_verifyCode"));
    saveScreenshot(dialog, QStringLiteral("logindlalog-code"));

    QTest::mouseClick(child<QPushButton>(dialog, "pushButton_selectServer"), Qt::LeftButton);
    saveScreenshot(dialog, QStringLiteral("logindlalog-server"));
    login.reset();

    LoginVerify *second = showVerify();
    second->setStyleSheet(HV::readStyleSheet(folder, QStringLiteral("loginverify.qss")));
    second->setPhone(QStringLiteral("15612341762"));
    QTRY_VERIFY_WITH_TIMEOUT(trustLoaded->count() > 0, 30000);
    waitForPaint(child<QWebEngineView>(second, "webEngineView_trust"));
    saveScreenshot(second, QStringLiteral("loginverify"));
    QVERIFY(QFile::exists(QCoreApplication::applicationDirPath() + QStringLiteral("/../screenshots/loginverify.png")));
}

int main(int argc, char *argv[])
{
    // The web engine shares its GL context with the widgets; this must precede the application.
    QCoreApplication::setAttribute(Qt::AA_ShareOpenGLContexts);
    QApplication app(argc, argv);
    TestLoginDialogs test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "tst_logindialogs.moc"
