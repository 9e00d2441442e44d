// The login and verification dialogs under Xvfb, driven by key and mouse clicks: fields, messages, countdown.

#include "cloudmaterial/configstore.h"
#include "cloudmaterial/login/jsmessage.h"
#include "cloudmaterial/login/logindlalog.h"
#include "cloudmaterial/login/loginverify.h"
#include "cloudmaterial/login/verifycodeslider.h"
#include "cloudmaterial/translatemanager.h"

#include "support/dialogdriver.h"
#include "support/testrsa.h"

#include <QtTest>

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QWebEngineView>

#include <map>
#include <memory>

using namespace talvor::cloudmaterial;

class TestLoginDialogs : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void validatorsAndLimits_data();
    void validatorsAndLimits();
    void emailAddressIsSearched_data();
    void emailAddressIsSearched();
    void tipMessages_data();
    void tipMessages();
    void serverPanel();
    void firstStartAsksForANode_data();
    void firstStartAsksForANode();
    void accountLoginNeedsTheSlider();
    void codeLogin();
    void links();
    void freshConfigurationHasCountryCodes();
    void verifyShowsContact();
    void verifyCountdownResetAndConfirm();
    void verifyCodeRequestRefused();

private:
    // page: 0 the account login, 1 the code login by phone, 2 by e-mail. With @p node the
    // dialog starts as after a restored session; without, as on a first start.
    LoginDlalog *showLogin(int page = 0, bool node = true);
    LoginVerify *showVerify();
    void checkOnlyTipShown(const char *label, const QString &text = {});
    // Delivers a slider result as the page of @p place does, once that page has loaded.
    void passSlider(VerifyCodeSlider::Place place, const char *sessionId, const char *sig, const char *token);

    QTemporaryDir configDir;
    std::unique_ptr<VerifyCodeSlider> slider;
    std::unique_ptr<LoginDlalog> login;
    std::unique_ptr<LoginVerify> verify;
    // Started right after the views were placed, so that a finished load is never missed.
    std::map<VerifyCodeSlider::Place, std::unique_ptr<QSignalSpy>> loaded;
    int loginCalls = 0, loginAnswer = 0, codeCalls = 0, codeAnswer = 1, secondCalls = 0, secondAnswer = 0;
    LoginInfo lastLogin;
    AliVerifyCodeInfo lastCode;
    SecondVerifyCodeInfo lastSecond;
};

void TestLoginDialogs::initTestCase()
{
    ConfigStore::instance().setConfigPath(configDir.path().toStdString());
    QVERIFY(QDir().mkpath(configDir.path() + QStringLiteral("/cloud/config")));
    QFile codes(configDir.path() + QStringLiteral("/cloud/config/countrycode.json"));
    QVERIFY(codes.open(QIODevice::WriteOnly));
    codes.write(R"({"country_code":[{"code":"+86","label":"中国大陆","enLabel":"Chinese Mainland"},)"
                R"({"code":"+44","label":"英国","enLabel":"United Kingdom"},)"
                R"({"code":1,"label":"美国","enLabel":"United States"}],"new_country_code":[]})");
}

void TestLoginDialogs::init()
{
    QVERIFY(TranslateManager::instance().setLanguage("cn"));
    // The last test's dialogs go first, then the slider they share.
    loaded.clear();
    login.reset();
    verify.reset();
    slider.reset();
    loginCalls = codeCalls = secondCalls = loginAnswer = secondAnswer = 0;
    codeAnswer = 1;
}

LoginDlalog *TestLoginDialogs::showLogin(int page, bool node)
{
    slider = std::make_unique<VerifyCodeSlider>();
    login = std::make_unique<LoginDlalog>();
    login->setSlider(slider.get());
    login->setCountryCodes(ConfigStore::instance().countryCodes());
    if (node)
        login->setCurrentNode(QStringLiteral("gateway.test"), QStringLiteral("node-1"));
    for (auto place : {VerifyCodeSlider::AccountLogin, VerifyCodeSlider::CodeLogin})
        loaded[place] = std::make_unique<QSignalSpy>(slider->view(place), &QWebEngineView::loadFinished);
    connect(login.get(), &LoginDlalog::sigLogin, this, recorder(loginCalls, lastLogin, loginAnswer));
    connect(login.get(), &LoginDlalog::sigGetCode, this, recorder(codeCalls, lastCode, codeAnswer));
    login->show();
    (void)QTest::qWaitForWindowExposed(login.get()); // the checks below tell what is missing
    if (page > 0)
        click(login.get(), "pushButton_codeLogin");
    if (page == 2)
        QTest::keyClick(child<QComboBox>(login.get(), "comboBox_codeType"), Qt::Key_Down);
    return login.get();
}

LoginVerify *TestLoginDialogs::showVerify()
{
    slider = std::make_unique<VerifyCodeSlider>();
    verify = std::make_unique<LoginVerify>();
    verify->setSlider(slider.get());
    loaded[VerifyCodeSlider::TrustDevice] =
        std::make_unique<QSignalSpy>(slider->view(VerifyCodeSlider::TrustDevice), &QWebEngineView::loadFinished);
    connect(verify.get(), &LoginVerify::sigLogin, this, recorder(secondCalls, lastSecond, secondAnswer));
    connect(verify.get(), &LoginVerify::sigGetVerifyCode, this, recorder(codeCalls, lastCode, codeAnswer));
    verify->show();
    (void)QTest::qWaitForWindowExposed(verify.get()); // the checks below tell what is missing
    return verify.get();
}

void TestLoginDialogs::checkOnlyTipShown(const char *label, const QString &text)
{
    // The seven tip labels are the ones named so.
    for (QLabel *tip : login->findChildren<QLabel *>(QRegularExpression(QStringLiteral("Tip")))) {
        QVERIFY2(tip->isVisible() == (tip->objectName() == QLatin1String(label)), qPrintable(tip->objectName()));
        if (tip->isVisible())
            QCOMPARE(tip->text(), text);
    }
}

void TestLoginDialogs::passSlider(VerifyCodeSlider::Place place, const char *sessionId, const char *sig,
                                  const char *token)
{
    QTRY_VERIFY_WITH_TIMEOUT(loaded.at(place)->count() > 0, 30000);
    slider->message(place)->slotJSMsg(QString::fromUtf8(sessionId), QString::fromUtf8(sig), QString::fromUtf8(token));
}

void TestLoginDialogs::validatorsAndLimits_data()
{
    QTest::addColumn<int>("page"); // 0 account, 1 phone, 2 e-mail
    QTest::addColumn<QString>("field");
    QTest::addColumn<QString>("typed");
    QTest::addColumn<QString>("expected");

    QTest::newRow("phone: 16th digit and letters refused") << 1 << "lineEdit_phoneNum"
                                                           << "1a2-3 4567890123456"
                                                           << "123456789012345";
    QTest::newRow("code: 7th digit and letters refused") << 1 << "lineEdit_code"
                                                         << "12x34567"
                                                         << "123456";
    QTest::newRow("password: cut at 25") << 0 << "lineEdit_password"
                                         << "abcdefghijklmnopqrstuvwxyz"
                                         << "abcdefghijklmnopqrstuvwxy";
    QTest::newRow("password: range ! to @ and the extra signs") << 0 << "lineEdit_password"
                                                                << "Aa1!\"$'()/:;<=>@#%&,+?.*"
                                                                << "Aa1!\"$'()/:;<=>@#%&,+?.*";
    QTest::newRow("password: outside the classes") << 0 << "lineEdit_password"
                                                   << "a b^c~d[e]f_g{h}"
                                                   << "abcdefgh";
    QTest::newRow("user name: others refused, cut at 64")
        << 0 << "lineEdit_userName"
        << "User_01@host.x?*ann-lee+1 #" + QString(60, 'u') << "User_01@host.x?*annlee1" + QString(41, 'u');
    QTest::newRow("e-mail field: user-name characters") << 2 << "lineEdit_emailNum"
                                                        << "ann-lee+1@mail.com"
                                                        << "annlee1@mail.com";
}

void TestLoginDialogs::validatorsAndLimits()
{
    QFETCH(int, page);
    QFETCH(QString, field);
    QFETCH(QString, typed);
    QFETCH(QString, expected);

    auto *edit = child<QLineEdit>(showLogin(page), qPrintable(field));
    edit->setFocus();
    QTest::keyClicks(edit, typed);
    QCOMPARE(edit->text(), expected);
}

void TestLoginDialogs::emailAddressIsSearched_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("accepted");
    QTest::newRow("inside other words") << "please write to ann.lee+tag@mail-box.example.co.uk today" << true;
    QTest::newRow("15-letter ending still holds 14") << "ann@example.abcdefghijklmno" << true;
    QTest::newRow("no dot part") << "ann@example" << false;
    QTest::newRow("one-letter ending") << "ann@example.c" << false;
    QTest::newRow("one-character domain label") << "ann@x.com" << false;
}

void TestLoginDialogs::emailAddressIsSearched()
{
    QFETCH(QString, text);
    QFETCH(bool, accepted);

    LoginDlalog *dialog = showLogin(2);
    // Set directly: the field's validator would not let spaces be typed, but pasted text
    // and remembered text reach the check the same way.
    child<QLineEdit>(dialog, "lineEdit_emailNum")->setText(text);
    click(dialog, "pushButton_getCode");
    QCOMPARE(codeCalls, accepted ? 1 : 0);
    if (!accepted)
        return checkOnlyTipShown("label_phoneRightTip", QStringLiteral("请输入正确的邮箱"));
    QCOMPARE(QString::fromStdString(lastCode.phone + ' ' + lastCode.type), text + QStringLiteral(" EMAIL"));
}

void TestLoginDialogs::tipMessages_data()
{
    QTest::addColumn<QString>("language");
    QTest::addColumn<int>("page");
    QTest::addColumn<QStringList>("fill"); // field=value pairs typed before the click
    QTest::addColumn<bool>("agree");
    QTest::addColumn<int>("result"); // 0: what the click itself finds; else the login's result
    QTest::addColumn<QString>("label");
    QTest::addColumn<QString>("text");

    const QStringList account{"lineEdit_userName=tester", "lineEdit_password=secret"};
    const QStringList phone{"lineEdit_phoneNum=13800138000", "lineEdit_code=123456"};
    const QStringList none;
    QTest::newRow("no account") << "cn" << 0 << QStringList{account.at(1)} << true << 0 << "label_accountTip"
                                << "请输入账号";
    QTest::newRow("account agreement") << "cn" << 0 << account << false << 0 << "label_serviceAgreement_Tip_account"
                                       << "请先勾选服务协议和隐私政策";
    QTest::newRow("no slider") << "cn" << 0 << account << true << 0 << "label_actOrPwdErrorTip"
                               << "请先拖动滑块完成验证";
    QTest::newRow("no phone") << "cn" << 1 << QStringList{phone.at(1)} << true << 0 << "label_phoneRightTip"
                              << "请输入正确的手机号";
    QTest::newRow("no code") << "cn" << 1 << QStringList{phone.at(0)} << true << 0 << "label_codeRightTip"
                             << "请输入验证码";
    // A result replaces the tip on show.
    QTest::newRow("-2 en account") << "en" << 0 << none << false << -2 << "label_actOrPwdErrorTip"
                                   << "Incorrect user name or password";
    QTest::newRow("-3 en code") << "en" << 1 << none << false << -3 << "label_codeRightTip"
                                << "This phone number is not registered";
    QTest::newRow("-4 cn code") << "cn" << 1 << none << false << -4 << "label_codeRightTip"
                                << "该邮箱未注册";
    QTest::newRow("-5 tw account") << "tw" << 0 << none << false << -5 << "label_actOrPwdErrorTip"
                                   << "此登入方式已被鎖定，請稍後再試";
    QTest::newRow("-1 ko code") << "ko_KR" << 1 << none << false << -1 << "label_codeRightTip"
                                << "인증 코드가 올바르지 않습니다";
    QTest::newRow("-6 cn untranslated") << "cn" << 0 << none << false << -6 << "label_actOrPwdErrorTip"
                                        << "unknow error";
}

void TestLoginDialogs::tipMessages()
{
    QFETCH(QString, language);
    QFETCH(int, page);
    QFETCH(QStringList, fill);
    QFETCH(bool, agree);
    QFETCH(int, result);
    QFETCH(QString, label);
    QFETCH(QString, text);

    QVERIFY(TranslateManager::instance().setLanguage(language.toStdString()));
    LoginDlalog *dialog = showLogin(page);
    dialog->setLanguage(language.toStdString());
    for (const QString &pair : fill)
        type(dialog, qPrintable(pair.section(QLatin1Char('='), 0, 0)), pair.section(QLatin1Char('='), 1));
    if (agree)
        click(dialog, page == 0 ? "checkBox_agree_account" : "checkBox_agree_verifyCode");
    click(dialog, "pushButton_login");
    QCOMPARE(loginCalls, 0);
    if (result)
        dialog->showResult(result);
    checkOnlyTipShown(qPrintable(label), text);
    dialog->showResult(0);
    checkOnlyTipShown(nullptr);
}

void TestLoginDialogs::serverPanel()
{
    LoginDlalog *dialog = showLogin();
    // Two entries on one host: the identity tells them apart.
    dialog->setNodeList({{{"Asia", "亚洲"}, "asia.gateway.test", "node-asia", ""},
                         {{"Europe", ""}, "eu.gateway.test", "node-eu", ""},
                         {{"India", "印度"}, "eu.gateway.test", "node-in", ""}});
    dialog->setCurrentNode(QStringLiteral("eu.gateway.test"), QStringLiteral("node-eu"));
    auto *combo = child<QComboBox>(dialog, "comboBox_severSelect");
    QCOMPARE(combo->currentIndex(), 1);
    QCOMPARE(combo->itemText(0) + combo->itemText(1), QStringLiteral("亚洲Europe")); // Chinese, else English

    QSignalSpy selected(dialog, &LoginDlalog::sigUpdateSeverSelect);
    click(dialog, "pushButton_selectServer");
    QVERIFY(child(dialog, "widget_login_sever")->isVisible() && !child(dialog, "widget_login")->isVisible());
    QTest::keyClick(combo, Qt::Key_Down);
    click(dialog, "pushButton_accept");
    QCOMPARE(selected.count(), 1);
    QCOMPARE(selected.at(0), (QVariantList{QStringLiteral("eu.gateway.test"), QStringLiteral("node-in")}));
}

void TestLoginDialogs::firstStartAsksForANode_data()
{
    QTest::addColumn<QString>("language");
    QTest::addColumn<int>("page");
    QTest::addColumn<QString>("button");
    QTest::addColumn<QString>("label");
    QTest::addColumn<QString>("text");
    QTest::newRow("cn account login") << "cn" << 0 << "pushButton_login"
                                      << "label_actOrPwdErrorTip" << QStringLiteral("请先选择服务器");
    QTest::newRow("en code login") << "en" << 1 << "pushButton_login"
                                   << "label_codeRightTip"
                                   << "Please choose a server first";
    QTest::newRow("ru get code") << "ru_RU" << 1 << "pushButton_getCode"
                                 << "label_codeRightTip" << QStringLiteral("Сначала выберите сервер");
}

// Nothing saved yet: the dialog opens on the server list with no entry chosen, and nothing
// reaches the cloud before the user picks one.
void TestLoginDialogs::firstStartAsksForANode()
{
    QFETCH(QString, language);
    QFETCH(int, page);
    QFETCH(QString, button);
    QFETCH(QString, label);
    QFETCH(QString, text);

    QVERIFY(TranslateManager::instance().setLanguage(language.toStdString()));
    LoginDlalog *dialog = showLogin(0, false);
    dialog->setLanguage(language.toStdString());
    dialog->setNodeList({{{"Asia", "亚洲"}, "asia.gateway.test", "node-asia", ""},
                         {{"Europe", "欧洲"}, "eu.gateway.test", "node-eu", ""}});
    auto *combo = child<QComboBox>(dialog, "comboBox_severSelect");
    QVERIFY(child(dialog, "widget_login_sever")->isVisible() && !child(dialog, "widget_login")->isVisible());
    QCOMPARE(combo->currentIndex(), -1);
    QSignalSpy selected(dialog, &LoginDlalog::sigUpdateSeverSelect);
    click(dialog, "pushButton_accept"); // nothing picked: nothing chosen
    QCOMPARE(selected.count(), 0);
    QVERIFY(child(dialog, "widget_login")->isVisible());

    // A form that would be sent if a node were there.
    type(dialog, "lineEdit_userName", QStringLiteral("tester"));
    type(dialog, "lineEdit_password", QStringLiteral("secret"));
    click(dialog, "checkBox_agree_account");
    passSlider(VerifyCodeSlider::AccountLogin, "s1", "g1", "t1");
    if (page == 1) {
        click(dialog, "pushButton_codeLogin");
        passSlider(VerifyCodeSlider::CodeLogin, "s2", "g2", "t2");
        type(dialog, "lineEdit_phoneNum", QStringLiteral("13800138000"));
        type(dialog, "lineEdit_code", QStringLiteral("123456"));
    }
    click(dialog, qPrintable(button));
    QCOMPARE(loginCalls + codeCalls, 0);
    checkOnlyTipShown(qPrintable(label), text);

    // Once a node is picked (and the controller hands it back), the same press goes out.
    click(dialog, "pushButton_selectServer");
    QTest::keyClick(combo, Qt::Key_Down);
    click(dialog, "pushButton_accept");
    QCOMPARE(selected.count(), 1);
    QCOMPARE(selected.at(0), (QVariantList{QStringLiteral("asia.gateway.test"), QStringLiteral("node-asia")}));
    dialog->setCurrentNode(selected.at(0).at(0).toString(), selected.at(0).at(1).toString());
    click(dialog, qPrintable(button));
    QCOMPARE(loginCalls + codeCalls, 1);
    checkOnlyTipShown(nullptr);
}

void TestLoginDialogs::accountLoginNeedsTheSlider()
{
    LoginDlalog *dialog = showLogin();
    type(dialog, "lineEdit_userName", QStringLiteral("tester@example.com"));
    type(dialog, "lineEdit_password", QStringLiteral("Secret#2024!"));
    click(dialog, "checkBox_agree_account");
    click(dialog, "checkBox_saveUserName");
    QVERIFY(child<QCheckBox>(dialog, "checkBox_agree_verifyCode")->isChecked()); // one agreement

    // A passed check of the code page does not count for the account page.
    passSlider(VerifyCodeSlider::CodeLogin, "s2", "g2", "t2");
    click(dialog, "pushButton_login");
    QCOMPARE(loginCalls, 0);
    passSlider(VerifyCodeSlider::AccountLogin, "session-1", "sig-1", "token-1");
    click(dialog, "pushButton_login");
    QCOMPARE(loginCalls, 1);
    QCOMPARE(QString::fromStdString(lastLogin.identify + ' ' + lastLogin.sessionId + ' ' + lastLogin.sig + ' '
                                    + lastLogin.token),
             QStringLiteral("tester@example.com session-1 sig-1 token-1"));
    QVERIFY(lastLogin.rememberUserName);
    QVERIFY(lastLogin.mobilePhone.empty() && lastLogin.email.empty() && lastLogin.identityVerifyCode.empty());
    // Only the cloud's key opens it.
    QFile key(QStringLiteral(RXCM_LOGIN_PRIVATE_KEY));
    QVERIFY(key.open(QIODevice::ReadOnly));
    QCOMPARE(TestRsa::decrypt(key.readAll(), QByteArray::fromBase64(QByteArray::fromStdString(lastLogin.password))),
             QByteArray("Secret#2024!"));
}

void TestLoginDialogs::codeLogin()
{
    LoginDlalog *dialog = showLogin(1);
    auto *button = child<QPushButton>(dialog, "pushButton_getCode");
    QTest::mouseClick(button, Qt::LeftButton);
    QCOMPARE(codeCalls, 0);
    checkOnlyTipShown("label_phoneRightTip", QStringLiteral("请输入正确的手机号"));

    // The code page's own slider result goes with the request.
    passSlider(VerifyCodeSlider::CodeLogin, "code-session", "code-sig", "code-token");
    QTest::keyClick(child<QComboBox>(dialog, "comboBox_typeNum"), Qt::Key_Down);
    type(dialog, "lineEdit_phoneNum", QStringLiteral("7700900123"));
    // Refused: the message shows and the button stays ready.
    codeAnswer = 0;
    QTest::mouseClick(button, Qt::LeftButton);
    checkOnlyTipShown("label_codeRightTip", QStringLiteral("获取验证码失败"));
    QCOMPARE(button->text(), QStringLiteral("获取验证码"));
    QCOMPARE(QString::fromStdString(lastCode.phone + ' ' + lastCode.parameter + ' ' + lastCode.type + ' '
                                    + lastCode.sessionId + ' ' + lastCode.sig + ' ' + lastCode.token),
             QStringLiteral("7700900123 +44 MOBILE_PHONE code-session code-sig code-token"));
    const std::string firstKey = lastCode.key;
    codeAnswer = 1;
    QTest::mouseClick(button, Qt::LeftButton);
    QCOMPARE(codeCalls, 2);
    QVERIFY(!firstKey.empty() && lastCode.key != firstKey); // every request has its own key
    checkOnlyTipShown(nullptr);
    checkCountdown(dialog, codeCalls);

    // The login: the number, its country code and the code; nothing of a password login.
    click(dialog, "checkBox_agree_verifyCode");
    type(dialog, "lineEdit_code", QStringLiteral("135790"));
    loginAnswer = -3;
    click(dialog, "pushButton_login");
    QCOMPARE(loginCalls, 1);
    QCOMPARE(QString::fromStdString(lastLogin.mobilePhone + ' ' + lastLogin.countryCode + ' '
                                    + lastLogin.identityVerifyCode),
             QStringLiteral("7700900123 +44 135790"));
    QVERIFY(lastLogin.email.empty() && lastLogin.identify.empty() && lastLogin.password.empty()
            && lastLogin.sessionId.empty());
    checkOnlyTipShown("label_codeRightTip", QStringLiteral("该手机号未注册"));

    loginAnswer = 0;
    QTest::keyClick(child<QComboBox>(dialog, "comboBox_codeType"), Qt::Key_Down);
    type(dialog, "lineEdit_emailNum", QStringLiteral("ann@example.com"));
    click(dialog, "pushButton_login");
    QCOMPARE(QString::fromStdString(lastLogin.email + ' ' + lastLogin.identityVerifyCode),
             QStringLiteral("ann@example.com 135790"));
    QVERIFY(lastLogin.mobilePhone.empty() && lastLogin.countryCode.empty());
}

void TestLoginDialogs::links()
{
    // The site of the links without the scheme they already carry.
    const QUrl site(QStringLiteral(RXCM_WEB_HOST));
    const QString host = site.authority() + site.path().chopped(site.path().endsWith(QLatin1Char('/')) ? 1 : 0);
    const QString style =
        QStringLiteral("<style> a{text-decoration: none } </style> <a style = 'color: #3D7DD4; ' href = \"https://");
    const QString prefix =
        QStringLiteral("<style>a{text-decoration: none}</style><a style='color: #3D7DD4;' href=\"https://");
    LoginDlalog *dialog = showLogin();
    QCOMPARE(child<QLabel>(dialog, "label_forgotPassword")->text(),
             style + host + QStringLiteral("/#/reset-password?source=cirro-web\">忘记密码</a>"));
    QCOMPARE(child<QLabel>(dialog, "label_agree_verfiyCode")->text(),
             QStringLiteral("同意 ") + prefix + host
                 + QStringLiteral("/#/statement?type=AGREE-CFG-10002&source=cirro-web\">服务协议</a> 和 ") + prefix
                 + host + QStringLiteral("/#/statement?type=AGREE-CFG-10001&source=cirro-web\">隐私政策</a>"));
    for (const char *name : {"label_forgotPassword", "label_register", "label_agree_account", "label_agree_verfiyCode"})
        QVERIFY2(child<QLabel>(dialog, name)->openExternalLinks(), name);

    // The country codes from the file, a number read as text.
    auto *codes = child<QComboBox>(dialog, "comboBox_typeNum");
    QCOMPARE(QStringList({codes->itemText(0), codes->itemText(1), codes->itemText(2)}),
             QStringList({"+86", "+44", "1"}));
}

// A host's first start: nothing in its configuration folder, and a phone login still offers codes.
void TestLoginDialogs::freshConfigurationHasCountryCodes()
{
    QTemporaryDir fresh;
    ConfigStore::instance().setConfigPath(fresh.path().toStdString());
    const auto restore = qScopeGuard([this] { ConfigStore::instance().setConfigPath(configDir.path().toStdString()); });
    QFile builtIn(QStringLiteral(":/cloudmaterialtheme/config/countrycode.json"));
    QVERIFY(builtIn.open(QIODevice::ReadOnly));
    QStringList expected;
    for (const auto &entry : QJsonDocument::fromJson(builtIn.readAll()).object().value("country_code").toArray())
        expected << entry.toObject().value("code").toString();
    QVERIFY(expected.size() > 1 && expected.front() == QLatin1String("+86"));

    auto *codes = child<QComboBox>(showLogin(1), "comboBox_typeNum");
    QStringList offered;
    for (int i = 0; i < codes->count(); ++i)
        offered << codes->itemText(i);
    QCOMPARE(offered, expected);
}

void TestLoginDialogs::verifyShowsContact()
{
    LoginVerify *dialog = showVerify();
    auto *shown = child<QLabel>(dialog, "label_phoneNum");
    const std::pair<const char *, const char *> masks[] = {
        {"15612341762", "手机号：156****1762"}, {"1234567", "手机号：1****67"}, {"1234", "手机号：****"}};
    for (const auto &[phone, masked] : masks) {
        dialog->setPhone(QString::fromUtf8(phone));
        QCOMPARE(shown->text(), QString::fromUtf8(masked));
    }
    QCOMPARE(child<QLabel>(dialog, "label_tip")->text(),
             QStringLiteral("为了您的账号安全，在新设备上登录需要验证身份，验证码将发送到以下手机号。"));
    // Without a phone, the e-mail address; the code goes there.
    QVERIFY(TranslateManager::instance().setLanguage("en"));
    showVerify()->setEmail(QStringLiteral("ann@example.com"));
    QCOMPARE(child<QLabel>(verify.get(), "label_phoneNum")->text(), QStringLiteral("E-mail: ann@example.com"));
    QCOMPARE(child<QLabel>(verify.get(), "label_tip")->text(),
             QStringLiteral("To protect your account, logging in on a new device needs a verification code. It "
                            "will be sent to this e-mail address."));
    passSlider(VerifyCodeSlider::TrustDevice, "ts", "tg", "tt");
    click(verify.get(), "pushButton_getCode");
    QCOMPARE(QString::fromStdString(lastCode.phone + ' ' + lastCode.type), QStringLiteral("ann@example.com EMAIL"));
}

void TestLoginDialogs::verifyCountdownResetAndConfirm()
{
    LoginVerify *dialog = showVerify();
    dialog->setPhone(QStringLiteral("15612341762"));
    auto *error = child<QLabel>(dialog, "label_verfyCodeError");
    passSlider(VerifyCodeSlider::TrustDevice, "ts", "tg", "tt");
    click(dialog, "pushButton_getCode");
    QCOMPARE(QString::fromStdString(lastCode.phone + ' ' + lastCode.type), QStringLiteral("15612341762 MOBILE_PHONE"));
    checkCountdown(dialog, codeCalls);

    // A reset clears the form; a running countdown ends at the next tick, the usual way.
    type(dialog, "lineEdit_code", QStringLiteral("111"));
    secondAnswer = -1;
    tick(dialog, 5);
    dialog->resetDialog();
    QVERIFY(child<QLineEdit>(dialog, "lineEdit_code")->text().isEmpty());
    QCOMPARE(dialog->countdownValue(), 1);
    QVERIFY(dialog->isCountingDown());
    tick(dialog);
    QVERIFY(!dialog->isCountingDown());
    QCOMPARE(child<QPushButton>(dialog, "pushButton_getCode")->text(), QStringLiteral("获取验证码"));

    // A refused code keeps the dialog open, an accepted one closes it.
    QSignalSpy accepted(dialog, &QDialog::accepted);
    type(dialog, "lineEdit_code", QStringLiteral("86a42139"));
    click(dialog, "pushButton_confirm");
    QCOMPARE(secondCalls, 1);
    QCOMPARE(QString::fromStdString(lastSecond.identityVerifyCode + ' ' + lastSecond.sessionId + ' ' + lastSecond.sig
                                    + ' ' + lastSecond.token),
             QStringLiteral("864213 ts tg tt"));
    QCOMPARE(error->text(), QStringLiteral("验证码错误"));
    QVERIFY(error->isVisible() && dialog->isVisible());
    secondAnswer = 0;
    click(dialog, "pushButton_confirm");
    QCOMPARE(secondCalls, 2);
    QCOMPARE(accepted.count(), 1);
    QVERIFY(!dialog->isVisible());
}

// A code is asked for only after the slider, and a refused request starts no countdown.
void TestLoginDialogs::verifyCodeRequestRefused()
{
    LoginVerify *dialog = showVerify();
    dialog->setPhone(QStringLiteral("15612341762"));
    auto *error = child<QLabel>(dialog, "label_verfyCodeError");
    auto *button = child<QPushButton>(dialog, "pushButton_getCode");
    click(dialog, "pushButton_getCode");
    QCOMPARE(codeCalls, 0);
    QVERIFY(error->isVisible());
    QCOMPARE(error->text(), QStringLiteral("请先拖动滑块完成验证"));

    passSlider(VerifyCodeSlider::TrustDevice, "ts", "tg", "tt");
    codeAnswer = 0;
    click(dialog, "pushButton_getCode");
    QCOMPARE(codeCalls, 1);
    QCOMPARE(QString::fromStdString(lastCode.sessionId + ' ' + lastCode.sig + ' ' + lastCode.token),
             QStringLiteral("ts tg tt"));
    QVERIFY(error->isVisible());
    QCOMPARE(error->text(), QStringLiteral("获取验证码失败"));
    QVERIFY(!dialog->isCountingDown() && !child<QTimer>(dialog, "countdownTimer")->isActive());
    QCOMPARE(button->text(), QStringLiteral("获取验证码"));
    // The message follows the language.
    QVERIFY(TranslateManager::instance().setLanguage("en"));
    QTRY_COMPARE(error->text(), QStringLiteral("Failed to get the verification code"));

    // Accepted at the next try: the message goes and the countdown starts.
    QVERIFY(TranslateManager::instance().setLanguage("cn"));
    codeAnswer = 1;
    click(dialog, "pushButton_getCode");
    QCOMPARE(codeCalls, 2);
    QVERIFY(!error->isVisible() && dialog->isCountingDown());
    QCOMPARE(button->text(), QStringLiteral("获取验证码(60s)"));
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
