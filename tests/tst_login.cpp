// The login protocol against the local cloud over real TLS: the slider and code checks, the three login modes with the
// cloud's error codes, the session a login writes, the second factor of a new device, and the dialogs' wiring.

#include "cloudmaterial/configstore.h"
#include "cloudmaterial/currentnode.h"
#include "cloudmaterial/login/logincontroller.h"
#include "cloudmaterial/login/logindlalog.h"
#include "cloudmaterial/login/loginkeys.h"
#include "cloudmaterial/login/loginverify.h"
#include "cloudmaterial/login/nodedirectory.h"
#include "cloudmaterial/login/verifycodeslider.h"
#include "cloudmaterial/protocol/crypto.h"
#include "cloudmaterial/protocol/httpclientwrapper.h"
#include "cloudmaterial/workerpool.h"

#include "localcloud/cloudsim.h"
#include "support/cloudclient.h"
#include "support/freshlogin.h"
#include "support/logcapture.h"
#include "support/loginscenario.h"
#include "support/modulelog.h"

#include <QtTest>

#include <QApplication>
#include <QComboBox>
#include <QLabel>
#include <QTemporaryDir>
#include <QWebEngineView>

#include <memory>

using namespace talvor::cloudmaterial;

Q_DECLARE_METATYPE(Mode)

class TestLogin : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void verifyCode();
    void loginModeOrder_data();
    void loginModeOrder();
    void errorBodies_data();
    void errorBodies();
    void successfulLogin_data();
    void successfulLogin();
    void secondFactorThroughTheDialog();
    void codeRequestRefusals_data();
    void codeRequestRefusals();
    void cloudRefusals_data();
    void cloudRefusals();
    void sliderAskedAgainAfterUse_data();
    void sliderAskedAgainAfterUse();
    void errorBodyFieldNeedsItsCode_data();
    void errorBodyFieldNeedsItsCode();

private:
    bool useCloud(const QByteArray &scenarioJson);
    bool forceReply(const QString &service, int status, const QByteArray &body)
    {
        const QJsonObject forced{{"status", status}, {"body", QString::fromUtf8(body)}, {"times", 1}};
        return !cloud.control("POST", "/control/gateway", QJsonDocument(QJsonObject{{service, forced}})).isNull();
    }
    QString codeSentTo(const char *address)
    {
        return cloud.control("GET", QStringLiteral("/control/codes")).object().value(QLatin1String(address)).toString();
    }

    CloudSim cloud;
    QByteArray runningScenario;
    std::shared_ptr<WorkerPool> pool = std::make_shared<WorkerPool>(1);
    HttpClientWrapper http{pool};
    CurrentNode node;
    std::unique_ptr<QTemporaryDir> folder;
    std::unique_ptr<LoginController> controller;
};

void TestLogin::init()
{
    qRegisterMetaType<std::string>();
    folder = std::make_unique<QTemporaryDir>();
    ConfigStore::instance().setConfigPath(folder->path().toStdString());
    QVERIFY(useCloud(scenario()));
    controller = std::make_unique<LoginController>(&http, &node);
    controller->selectNode(cloud.host(), QStringLiteral("cn-1"));
}

bool TestLogin::useCloud(const QByteArray &scenarioJson)
{
    if (runningScenario != scenarioJson || !cloud.isRunning()) {
        runningScenario.clear();
        if (!cloud.start(scenarioJson))
            return false;
        runningScenario = scenarioJson;
    }
    ConfigJson config = ConfigStore::instance().config();
    config.nodes = cloud.url(QStringLiteral("/nodes.json")).toStdString();
    config.mqttControl = cloud.url(QStringLiteral("/mqtt/control/v1/")).toStdString();
    ConfigStore::instance().setConfig(config);
    return cloud.clearFaults() && !cloud.control("DELETE", QStringLiteral("/control/gateway")).isNull()
        && cloud.clearRequests();
}

void TestLogin::verifyCode()
{
    // The cloud's own acceptance is seen in the second-factor test; here what must not count as one.
    AliVerifyCodeInfo info;
    info.key = "k-1";
    info.phone = alicePhone;
    for (const char *reply :
         {R"({"key":"k-other","status":true})", R"({"key":"k-1","status":false})", R"(["k-1",true])"}) {
        QVERIFY(cloud.clearRequests() && forceReply(sliderService, 200, reply));
        QVERIFY2(!controller->requestVerifyCode(info), reply);
        QList<QJsonObject> requests;
        QCOMPARE(gatewayPaths(cloud, &requests), QStringList{gatewayPath(sliderService)});
        const QJsonObject body = bodyOf(requests.front());
        QCOMPARE(body.value("key").toString() + ' ' + body.value("phone").toString(),
                 QStringLiteral("k-1 ") + alicePhone);
        QCOMPARE(body.value("flag").toInt(-1), 0);
    }
}

void TestLogin::loginModeOrder_data()
{
    QTest::addColumn<bool>("withPhone");
    QTest::addColumn<bool>("withEmail");
    QTest::addColumn<bool>("withSlider");
    QTest::addColumn<QString>("service"); // empty: nothing is sent

    QTest::newRow("phone before e-mail and slider") << true << true << true << phoneService;
    QTest::newRow("e-mail before slider") << false << true << true << emailService;
    QTest::newRow("slider alone: password") << false << false << true << passwordService;
    QTest::newRow("password without slider: nothing") << false << false << false << "";
}

void TestLogin::loginModeOrder()
{
    QFETCH(bool, withPhone);
    QFETCH(bool, withEmail);
    QFETCH(bool, withSlider);
    QFETCH(QString, service);

    LoginInfo info = loginFor(Mode::Password);
    info.identityVerifyCode = aliceCode;
    info.countryCode = "86";
    info.mobilePhone = withPhone ? alicePhone : "";
    info.email = withEmail ? aliceEmail : "";
    if (!withSlider)
        info.sessionId = info.sig = info.token = "";
    QVERIFY(armCodes(cloud));
    QSignalSpy tokens(controller.get(), &LoginController::tokenChanged);
    LogCapture log;
    bool secondFactor = true;
    QCOMPARE(controller->login(info, &secondFactor), service.isEmpty() ? -2 : 0);
    QVERIFY(!secondFactor);
    if (service.isEmpty()) {
        QCOMPARE(cloud.requests().size(), 0);
        QCOMPARE(tokens.count(), 0);
        QCOMPARE(ModuleLog::count(log, "account or password is error", "logincontroller:phoneLogin"), 1);
        return;
    }
    QList<QJsonObject> requests;
    QCOMPARE(gatewayPaths(cloud, &requests), QStringList{gatewayPath(service)});
    QCOMPARE(headerOf(requests.front(), "source") + ' ' + headerOf(requests.front(), "version"),
             QStringLiteral("mediaserver V1.0.0"));
    QVERIFY(headerOf(requests.front(), "Token").isEmpty());
    // The whole record goes out, members in the record's order.
    QCOMPARE(keysInOrder(requests.front()),
             (QStringList{"identityVerifyCode", "oauthConfiguration", "mobilePhone", "countryCode", "creditSignature",
                          "email", "identify", "password", "sessionId", "sig", "token"}));
    QCOMPARE(bodyOf(requests.front()).value("sessionId").toString(), QString::fromStdString(info.sessionId));
}

void TestLogin::errorBodies_data()
{
    QTest::addColumn<Mode>("mode");
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<int>("result");
    QTest::addColumn<QString>("logText");

    auto row = [](const char *name, Mode mode, int status, const QByteArray &inside, int result, const char *log) {
        const QByteArray body =
            inside.startsWith('"') ? "{\"http_code\":400,\"error\":{" + inside + "},\"status\":\"fail\"}" : inside;
        QTest::newRow(name) << mode << status << body << result << QString::fromLatin1(log);
    };
    const char *password = "account or password is error";
    const char *unknown = "unknow error";
    const char *locked = "current login type is locked";
    row("10009", Mode::Phone, 200, R"("code":"10009")", -2, password);
    row("10006", Mode::Phone, 200, R"("code":"10006")", -1, "verify code is error");
    row("10006 before 10009 in the text", Mode::Phone, 200, R"("code":"10006","cause":"10009")", -2, password);
    row("MOBILE_PHONE with 100058", Mode::Phone, 200, R"("code":"100058","field":"MOBILE_PHONE")", -3,
        "phone number is not found");
    row("EMAIL with 100058", Mode::Email, 200, R"("code":"100058","field":"EMAIL")", -4, "email is not found");
    row("100058 without a field", Mode::Phone, 200, R"("code":"100058")", -6, unknown);
    row("100095", Mode::Password, 200, R"("code":"100095")", -5, locked);
    row("100096", Mode::Phone, 200, R"("code":"100096")", -5, locked);
    row("unknown code", Mode::Phone, 200, R"("code":"20001")", -6, unknown);
    row("status 500 with a code", Mode::Phone, 500, R"({"code":"10009"})", -2, password);
    // A failed reply without a body stands for the mode's own "not found".
    row("empty 503, phone", Mode::Phone, 503, "", -3, "phone number is not found");
    row("empty 503, e-mail", Mode::Email, 503, "", -4, "email is not found");
    row("empty 401, password", Mode::Password, 401, "", -2, password);
}

void TestLogin::errorBodies()
{
    QFETCH(Mode, mode);
    QFETCH(int, status);
    QFETCH(QByteArray, body);
    QFETCH(int, result);
    QFETCH(QString, logText);

    const QString service = mode == Mode::Phone ? phoneService : mode == Mode::Email ? emailService : passwordService;
    QVERIFY(forceReply(service, status, body));
    QSignalSpy tokens(controller.get(), &LoginController::tokenChanged);
    LogCapture log;
    bool secondFactor = true;
    QCOMPARE(controller->login(loginFor(mode), &secondFactor), result);
    QVERIFY(!secondFactor);
    QCOMPARE(ModuleLog::count(log, logText.toStdString(), "logincontroller:phoneLogin"), 1);
    QCOMPARE(tokens.count(), 0);
    QVERIFY(!QFile::exists(QString::fromStdString(ConfigStore::instance().tokenInfoPath())));
    QCOMPARE(gatewayPaths(cloud), QStringList{gatewayPath(service)});
}

void TestLogin::successfulLogin_data()
{
    QTest::addColumn<Mode>("mode");
    QTest::addColumn<bool>("remember");
    QTest::addColumn<QString>("contact"); // the session's phone and e-mail
    QTest::addColumn<QString>("rememberedName");

    QTest::newRow("phone code") << Mode::Phone << false << QStringLiteral("13800000001 ") << "";
    QTest::newRow("e-mail code") << Mode::Email << true << QStringLiteral(" alice@example.com") << "";
    // The phone of a password login is the account's country code joined to its number.
    QTest::newRow("password") << Mode::Password << true << QStringLiteral("8613800000001 alice@example.com") << "alice";
}

void TestLogin::successfulLogin()
{
    QFETCH(Mode, mode);
    QFETCH(bool, remember);
    QFETCH(QString, contact);
    QFETCH(QString, rememberedName);

    controller->prepareLogin();
    controller->showLoginDialog();
    QVERIFY(QTest::qWaitForWindowExposed(controller->loginDialog()));
    // The node list is fetched at every preparation and reaches the dialog.
    QCOMPARE(controller->loginDialog()->findChild<QComboBox *>(QStringLiteral("comboBox_severSelect"))->count(), 5);
    // The node chosen in the dialog takes the very next request.
    CloudSim chosen;
    QVERIFY(chosen.start(scenario()));
    QVERIFY(armCodes(chosen));
    QSignalSpy changed(controller.get(), &LoginController::sigCurrentNodeChanged);
    Q_EMIT controller->loginDialog()->sigUpdateSeverSelect(chosen.host(), QStringLiteral("eu-1"));
    QCOMPARE(changed.count(), 1);
    QCOMPARE(changed.at(0), (QVariantList{chosen.host(), QStringLiteral("eu-1")}));
    QStringList events;
    connect(controller.get(), &LoginController::tokenChanged, this,
            [&](std::string t) { events << QString::fromStdString(t); });
    connect(controller.get(), &LoginController::sigLoginSucceeded, this,
            [&] { events << QStringLiteral("succeeded"); });

    LoginInfo info = loginFor(mode);
    info.rememberUserName = remember;
    QCOMPARE(Q_EMIT controller->loginDialog()->sigLogin(info), 0);
    const QString token = QString::fromStdString(controller->token());
    QVERIFY(token.startsWith(QLatin1String("tk-")));
    QCOMPARE(events, (QStringList{token, QStringLiteral("succeeded")}));
    QVERIFY(!controller->loginDialog()->isVisible());
    QCOMPARE(gatewayPaths(cloud), QStringList());
    QCOMPARE(gatewayPaths(chosen).size(), 1);

    const TokenInfoJson s = ConfigStore::instance().tokenInfo();
    QCOMPARE(QString::fromStdString(s.auth + '|' + s.username + '|' + s.countryCode + '|' + s.phone + ' ' + s.email
                                    + '|' + std::to_string(s.id) + '|' + s.currentNodeIdentity + '|' + s.currentNode),
             token + "|alice|86|" + contact + "|1001|eu-1|" + chosen.host());
    // The session holds the account's token: nobody else may read it.
    QCOMPARE(QFile::permissions(QString::fromStdString(ConfigStore::instance().tokenInfoPath()))
                 & (QFileDevice::ReadGroup | QFileDevice::ReadOther),
             QFileDevice::Permissions());
    QCOMPARE(ConfigStore::instance().config().isRecordUsername, remember);
    QCOMPARE(QString::fromStdString(ConfigStore::instance().config().username), rememberedName);
}

void TestLogin::secondFactorThroughTheDialog()
{
    controller->setSerialNumber("SN-TEST-0001");
    controller->prepareLogin();
    QSignalSpy tokens(controller.get(), &LoginController::tokenChanged);
    QSignalSpy succeeded(controller.get(), &LoginController::sigLoginSucceeded);
    // The dialog runs modally inside the login: it asks for a code, a wrong one is refused
    // without a credit request, the right one completes the login.
    QString shownPhone;
    QStringList afterWrong;
    int asked = -1, wrong = 0, confirmed = -1;
    int shown = 0;
    QTimer watcher;
    connect(&watcher, &QTimer::timeout, this, [&] {
        LoginVerify *dialog = controller->verifyDialog();
        if (!dialog->isVisible() || shown++)
            return;
        shownPhone = dialog->findChild<QLabel *>(QStringLiteral("label_phoneNum"))->text();
        // As the dialog asks: the address and the slider, but no country code.
        AliVerifyCodeInfo ask = codeRequestFor(bobPhone);
        ask.key = "k-3";
        ask.parameter.clear();
        ask.templateCode = "TRUST_DEVICE";
        asked = Q_EMIT dialog->sigGetVerifyCode(ask);
        SecondVerifyCodeInfo second;
        second.identityVerifyCode = "000000";
        wrong = Q_EMIT dialog->sigLogin(second);
        afterWrong = gatewayPaths(cloud);
        cloud.clearRequests();
        second.identityVerifyCode = codeSentTo(bobPhone).toStdString();
        confirmed = Q_EMIT dialog->sigLogin(second);
        // A dialog that stayed open would hang the login; send it away in any case.
        controller->exitLoginVerify();
    });
    watcher.start(10);
    const qint64 before = QDateTime::currentMSecsSinceEpoch();
    QCOMPARE(controller->handleLogin(loginFor(Mode::Password, "bob", "Bob-pass2")), 0);
    const qint64 after = QDateTime::currentMSecsSinceEpoch();
    QCOMPARE(shown, 1);
    QCOMPARE(QList<int>({asked, wrong, confirmed}), QList<int>({1, -1, 0}));
    QVERIFY(!afterWrong.contains(gatewayPath(creditService)));
    QVERIFY(!controller->verifyDialog()->isVisible());
    QCOMPARE(QList<int>({tokens.count(), succeeded.count()}), QList<int>({2, 1})); // a token from each step
    // The dialog shows the account's number (masked).
    QVERIFY2(shownPhone.endsWith(QLatin1String("0002")), qPrintable(shownPhone));

    // The code check, then the second-factor login record with the encrypted device signature.
    QList<QJsonObject> requests;
    QCOMPARE(gatewayPaths(cloud, &requests), (QStringList{gatewayPath(phoneCodeService), gatewayPath(creditService)}));
    QCOMPARE(
        keysInOrder(requests.at(1)),
        (QStringList{"identityVerifyCode", "identify", "countryCode", "creditSignature", "type", "authCiphertext"}));
    QJsonObject credit = bodyOf(requests.at(1));
    QCOMPARE(credit.take("authCiphertext").toString().size(), 344); // one RSA-2048 block, Base64
    QCOMPARE(credit,
             (QJsonObject{{"identityVerifyCode", codeSentTo(bobPhone)},
                          {"identify", "bob"},
                          {"countryCode", "86"},
                          {"creditSignature", ""},
                          {"type", "1"}}));
    QCOMPARE(headerOf(requests.at(1), "Token").toStdString(), controller->token());
    // The cloud decrypted the device signature and trusts the device now.
    const QJsonArray devices = cloud.control("GET", QStringLiteral("/control/devices")).array();
    QCOMPARE(devices.size(), 1);
    QCOMPARE(devices.at(0).toObject().value("deviceSignature").toString(), QStringLiteral("SN-TEST-0001"));
    const qint64 stamp = devices.at(0).toObject().value("timestamp").toVariant().toLongLong();
    QVERIFY(stamp >= before + 60000 && stamp <= after + 60000);
    QCOMPARE(ConfigStore::instance().tokenInfo().phone, std::string("8613900000002"));
}

void TestLogin::errorBodyFieldNeedsItsCode_data()
{
    QTest::addColumn<Mode>("mode");
    QTest::addColumn<QByteArray>("inside");
    QTest::addColumn<int>("result");

    // The field names which address was not found, but only together with the code that says so.
    QTest::newRow("MOBILE_PHONE with another code")
        << Mode::Phone << QByteArray(R"("code":"100059","field":"MOBILE_PHONE")") << -6;
    QTest::newRow("MOBILE_PHONE, code unquoted")
        << Mode::Phone << QByteArray(R"("code":100058,"field":"MOBILE_PHONE")") << -6;
    QTest::newRow("MOBILE_PHONE alone, e-mail login") << Mode::Email << QByteArray(R"("field":"MOBILE_PHONE")") << -6;
    QTest::newRow("MOBILE_PHONE with 10006")
        << Mode::Phone << QByteArray(R"("code":"10006","field":"MOBILE_PHONE")") << -1;
    QTest::newRow("MOBILE_PHONE with 100095")
        << Mode::Password << QByteArray(R"("code":"100095","field":"MOBILE_PHONE")") << -5;
    QTest::newRow("EMAIL with another code") << Mode::Email << QByteArray(R"("code":"100059","field":"EMAIL")") << -6;
}

void TestLogin::errorBodyFieldNeedsItsCode()
{
    QFETCH(Mode, mode);
    QFETCH(QByteArray, inside);
    QFETCH(int, result);

    const QString service = mode == Mode::Phone ? phoneService : mode == Mode::Email ? emailService : passwordService;
    QVERIFY(forceReply(service, 200, "{\"http_code\":400,\"error\":{" + inside + "},\"status\":\"fail\"}"));
    QSignalSpy tokens(controller.get(), &LoginController::tokenChanged);
    bool secondFactor = true;
    QCOMPARE(controller->login(loginFor(mode), &secondFactor), result);
    QCOMPARE(tokens.count(), 0);
    QCOMPARE(gatewayPaths(cloud), QStringList{gatewayPath(service)});
}

void TestLogin::codeRequestRefusals_data()
{
    QTest::addColumn<QString>("fault"); // empty: the request as the dialog builds it
    QTest::addColumn<bool>("phone");
    QTest::addColumn<bool>("sent");

    QTest::newRow("phone, as built") << QString() << true << true;
    QTest::newRow("e-mail, as built") << QString() << false << true;
    QTest::newRow("no country code") << "parameter=" << true << false;
    QTest::newRow("another country") << "parameter=+44" << true << false;
    QTest::newRow("phone sent as e-mail") << "type=EMAIL" << true << false;
    QTest::newRow("e-mail without type") << "type=" << false << false;
    QTest::newRow("no template") << "templateCode=" << true << false;
    QTest::newRow("no key") << "key=" << true << false;
    QTest::newRow("no slider") << "sessionId=" << true << false;
    QTest::newRow("slider used before") << "again" << true << false;
}

void TestLogin::codeRequestRefusals()
{
    QFETCH(QString, fault);
    QFETCH(bool, phone);
    QFETCH(bool, sent);

    const char *address = phone ? alicePhone : aliceEmail;
    AliVerifyCodeInfo info = codeRequestFor(address);
    const QString member = fault.section(QLatin1Char('='), 0, 0);
    const std::string value = fault.section(QLatin1Char('='), 1).toStdString();
    if (member == QLatin1String("parameter"))
        info.parameter = value;
    else if (member == QLatin1String("type"))
        info.type = value;
    else if (member == QLatin1String("templateCode"))
        info.templateCode = value;
    else if (member == QLatin1String("key"))
        info.key = value;
    else if (member == QLatin1String("sessionId"))
        info.sessionId = info.sig = info.token = value;
    else if (member == QLatin1String("again"))
        QVERIFY(controller->requestVerifyCode(info));
    QVERIFY(cloud.clearRequests());
    // The dialog shows GetVerifyCodeFail for a false result.
    QCOMPARE(controller->requestVerifyCode(info), sent);
    QCOMPARE(gatewayPaths(cloud), QStringList{gatewayPath(sliderService)});
}

void TestLogin::cloudRefusals_data()
{
    QTest::addColumn<Mode>("mode");
    QTest::addColumn<QString>("fault");
    QTest::addColumn<int>("result");
    QTest::addColumn<QString>("logText");

    const QString notFound = QStringLiteral("phone number is not found");
    const QString wrongCode = QStringLiteral("verify code is error");
    QTest::newRow("phone: another country") << Mode::Phone << "countryCode=+44" << -3 << notFound;
    QTest::newRow("phone: no country code") << Mode::Phone << "countryCode=" << -3 << notFound;
    QTest::newRow("phone: code used by a login") << Mode::Phone << "again" << -1 << wrongCode;
    QTest::newRow("e-mail: code used by a login") << Mode::Email << "again" << -1 << wrongCode;
    QTest::newRow("phone: code expired") << Mode::Phone << "expired" << -1 << wrongCode;
    // The cloud's slider refusal is none of the codes the module knows.
    QTest::newRow("password: slider used by a login") << Mode::Password << "again" << -6 << "unknow error";
}

void TestLogin::cloudRefusals()
{
    QFETCH(Mode, mode);
    QFETCH(QString, fault);
    QFETCH(int, result);
    QFETCH(QString, logText);

    if (fault == QLatin1String("expired")) {
        QVERIFY(useCloud(scenario("validity", QJsonObject{{"code", 1}})));
        controller->selectNode(cloud.host(), QStringLiteral("cn-1"));
        QVERIFY(armCodes(cloud));
        // Both clocks are the machine's: once this one is past, the code is older than 1 ms.
        const qint64 armed = QDateTime::currentMSecsSinceEpoch();
        QTRY_VERIFY(QDateTime::currentMSecsSinceEpoch() > armed + 1);
    } else {
        QVERIFY(armCodes(cloud));
    }
    LoginInfo info = loginFor(mode);
    if (fault.startsWith(QLatin1String("countryCode=")))
        info.countryCode = fault.section(QLatin1Char('='), 1).toStdString();
    bool secondFactor = false;
    if (fault == QLatin1String("again")) {
        QCOMPARE(controller->login(info, &secondFactor), 0);
        QVERIFY(cloud.clearRequests());
    }
    QSignalSpy tokens(controller.get(), &LoginController::tokenChanged);
    LogCapture log;
    QCOMPARE(controller->login(info, &secondFactor), result);
    QCOMPARE(ModuleLog::count(log, logText.toStdString(), "logincontroller:phoneLogin"), 1);
    QCOMPARE(tokens.count(), 0);
    const QString service = mode == Mode::Phone ? phoneService : mode == Mode::Email ? emailService : passwordService;
    QCOMPARE(gatewayPaths(cloud), QStringList{gatewayPath(service)});
}

void TestLogin::sliderAskedAgainAfterUse_data()
{
    QTest::addColumn<QString>("action");
    QTest::addColumn<QList<int>>("reloads"); // account page, code page, second-factor page

    QTest::newRow("wrong password") << "password" << QList<int>{1, 0, 0};
    QTest::newRow("code sent") << "code" << QList<int>{0, 1, 0};
    QTest::newRow("code refused") << "refused code" << QList<int>{0, 1, 0};
    // No slider in a code login: nothing to solve again.
    QTest::newRow("wrong code") << "code login" << QList<int>{0, 0, 0};
}

void TestLogin::sliderAskedAgainAfterUse()
{
    QFETCH(QString, action);
    QFETCH(QList<int>, reloads);

    controller->prepareLogin();
    const VerifyCodeSlider::Place places[] = {VerifyCodeSlider::AccountLogin, VerifyCodeSlider::CodeLogin,
                                              VerifyCodeSlider::TrustDevice};
    std::vector<std::unique_ptr<QSignalSpy>> loaded, started;
    for (VerifyCodeSlider::Place place : places)
        loaded.push_back(
            std::make_unique<QSignalSpy>(controller->slider()->view(place), &QWebEngineView::loadFinished));
    for (const auto &spy : loaded)
        QTRY_VERIFY(spy->count() > 0);
    for (VerifyCodeSlider::Place place : places)
        started.push_back(
            std::make_unique<QSignalSpy>(controller->slider()->view(place), &QWebEngineView::loadStarted));

    // The cloud took the slider result in each case but the last.
    if (action == QLatin1String("password")) {
        QCOMPARE(Q_EMIT controller->loginDialog()->sigLogin(loginFor(Mode::Password, "alice", "Wrong-1")), -2);
    } else if (action.endsWith(QLatin1String("code"))) {
        AliVerifyCodeInfo info = codeRequestFor(alicePhone);
        if (action == QLatin1String("refused code"))
            info.parameter = "+44";
        QCOMPARE(Q_EMIT controller->loginDialog()->sigGetCode(info), action == QLatin1String("code") ? 1 : 0);
    } else {
        LoginInfo info = loginFor(Mode::Phone);
        info.identityVerifyCode = "000000";
        QCOMPARE(Q_EMIT controller->loginDialog()->sigLogin(info), -1);
    }
    const auto counts = [&started] {
        QList<int> n;
        for (const auto &spy : started)
            n << spy->count();
        return n;
    };
    QTRY_COMPARE(counts(), reloads);
}

int main(int argc, char *argv[])
{
    // The slider views are web pages: their engine shares GL contexts with the widgets.
    QCoreApplication::setAttribute(Qt::AA_ShareOpenGLContexts);
    QApplication app(argc, argv);
    TestLogin test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "tst_login.moc"
