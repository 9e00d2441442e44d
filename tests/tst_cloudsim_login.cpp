// The login side of the local cloud where docs/protocol.md fixes it and tst_login cannot tell
// a mistake shared by the module and cloudsim: the default node directory, the global DNS
// forms, the slider rule, the codes, the reply records and error codes, the second factor.
// The slider triple, the encryption and the expected answers are computed here.

#include "cloudmaterial/login/loginkeys.h"
#include "support/cloudclient.h"
#include "support/cloudsimfixture.h"
#include "support/testrsa.h"

#include <QtTest>

#include <QCryptographicHash>
#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMessageAuthenticationCode>
#include <QSet>
#include <QUuid>

#include <memory>

namespace {

const QString slider = QStringLiteral("v1/web-backend-service/identity-verify-code/slider");
const QString phoneLogin = QStringLiteral("v1/web-backend-service/authenticate/limit/mobile-phone");
const QString emailLogin = QStringLiteral("v1/web-backend-service/authenticate/limit/email");
const QString passwordLogin = QStringLiteral("v1/web-backend-service/authenticate/limit/password");
const QString phoneVerify = QStringLiteral("v1/web-backend-service/account/mobilephoneverifycode");
const QString emailVerify = QStringLiteral("v1/web-backend-service/account/emailverifycode");
const QString deviceCredit = QStringLiteral("v1/web-backend-service/loginidentity/device-credit-signature");

// alice: plain; bob: second factor by phone; carol: locked, fixed code; dave: e-mail only,
// second factor.
const QByteArray accountsScenario = R"({"accounts":[
    {"id":123,"name":"alice","password":"s3cret-Pa55","phone":"13800000001","countryCode":"86",
     "email":"alice@example.test","media":[{"mid":"a1","mediaName":"alice.mp4"}]},
    {"id":124,"name":"bob","password":"bob-pass","phone":"13800000002","email":"bob@example.test",
     "secondFactor":true,"media":[{"mid":"b1"}]},
    {"id":125,"name":"carol","password":"carol-pass","phone":"13800000003","email":"carol@example.test",
     "locked":["password","code"],"code":"246810"},
    {"id":126,"name":"dave","password":"dave-pass","email":"dave@example.test","secondFactor":true}
]})";

const QByteArray moduleCodes[] = {"10009", "10006", "100058", "100095", "100096"};

using Answer = CloudClient::Answer;
using Headers = CloudClient::Headers;

QString errorCode(const Answer &a)
{
    return a.json().value("error").toObject().value("code").toString();
}

struct Triple
{
    QString sessionId;
    QString sig;
    QString token;
};

// The page's algorithm as documented: token = "nc-" + base64url(summary), sig = hex
// HMAC-SHA256 of sessionId + "|" + token under the page key.
Triple sliderTriple(const QByteArray &summary = R"({"dx":258,"ms":840,"n":37})",
                    const QString &sessionId = QUuid::createUuid().toString(QUuid::WithoutBraces))
{
    Triple t;
    t.sessionId = sessionId;
    t.token = QStringLiteral("nc-")
        + QString::fromLatin1(summary.toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals));
    t.sig = QString::fromLatin1(QMessageAuthenticationCode::hash((t.sessionId + "|" + t.token).toUtf8(),
                                                                 "rxcm-slider-v1", QCryptographicHash::Sha256)
                                    .toHex());
    return t;
}

// What the module does with its built-in key: RSA PKCS#1 v1.5, then Base64.
QString encryptForCloud(const QByteArray &plain)
{
    return QString::fromLatin1(TestRsa::encrypt(talvor::cloudmaterial::loginPublicKey, plain).toBase64());
}

QByteArray deviceSignature(qint64 timestamp, const QString &device = QStringLiteral("dev-42"))
{
    return QJsonDocument(QJsonObject{{"source", "rxcm"}, {"deviceSignature", device}, {"timestamp", timestamp}})
        .toJson(QJsonDocument::Compact);
}

// The module sends every member of a record, empty or not.
QJsonObject loginInfo(const QJsonObject &filled)
{
    QJsonObject body;
    for (const char *key : {"identityVerifyCode", "oauthConfiguration", "mobilePhone", "countryCode",
                            "creditSignature", "email", "identify", "password", "sessionId", "sig", "token"})
        body.insert(QLatin1String(key), filled.value(QLatin1String(key)).toString());
    return body;
}

QJsonObject codeRequest(const QString &address, const QString &key, const Triple &triple = {})
{
    return QJsonObject{{"flag", 0},
                       {"key", key},
                       {"parameter", ""},
                       {"phone", address},
                       {"sessionId", triple.sessionId},
                       {"sig", triple.sig},
                       {"templateCode", ""},
                       {"token", triple.token},
                       {"type", ""}};
}

QJsonObject withSlider(QJsonObject body, const Triple &t)
{
    body.insert("sessionId", t.sessionId);
    body.insert("sig", t.sig);
    body.insert("token", t.token);
    return body;
}

qint64 nowMs()
{
    return QDateTime::currentMSecsSinceEpoch();
}

} // namespace

Q_DECLARE_METATYPE(Triple)

class TestCloudSimLogin : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void nodeDirectoryByDefault();
    void globalDns_data();
    void globalDns();
    void sliderCheck_data();
    void sliderCheck();
    void codeRequests();
    void phoneLoginSucceedsAndTokenReachesCatalogue();
    void passwordLoginNamesTheAccountThreeWays();
    void loginFailures_data();
    void loginFailures();
    void secondFactorByPhone();
    void secondFactorByEmail();
    void deviceCreditRefusals_data();
    void deviceCreditRefusals();

private:
    Answer send(const QString &path, const Headers &headers = {}, const QByteArray &verb = "GET",
                const QByteArray &body = QByteArray())
    {
        return m_client->send(path, headers, verb, body);
    }
    Answer post(const QString &service, const QJsonObject &body, const Headers &extra = {})
    {
        return m_client->post(service, body, extra);
    }
    QJsonObject codes();
    QString requestCode(const QString &address, const QString &key);
    QString passwordToken(const QString &identify, const QString &password, int expectedStatus);

    CloudSim m_cloud;
    std::unique_ptr<CloudClient> m_client;
};

void TestCloudSimLogin::init()
{
    m_client = std::make_unique<CloudClient>(m_cloud);
}

void TestCloudSimLogin::cleanup()
{
    m_client.reset();
    m_cloud.stop();
}

QJsonObject TestCloudSimLogin::codes()
{
    return send(QStringLiteral("/control/codes")).json();
}

// Asks for a code and returns the one cloudsim "sent".
QString TestCloudSimLogin::requestCode(const QString &address, const QString &key)
{
    const Answer a = post(slider, codeRequest(address, key, sliderTriple()));
    if (a.json().value("status").toBool() != true || a.json().value("key").toString() != key)
        return QString();
    const QJsonObject sent = codes();
    for (auto it = sent.begin(); it != sent.end(); ++it)
        if (address.endsWith(it.key()))
            return it.value().toString();
    return QString();
}

QString TestCloudSimLogin::passwordToken(const QString &identify, const QString &password, int expectedStatus)
{
    const Answer a = post(passwordLogin,
                          withSlider(loginInfo({{"identify", identify}, {"password", encryptForCloud(password.toUtf8())}}),
                                     sliderTriple()));
    const QJsonObject reply = a.json();
    if (a.body.contains("\"error\"")
        || reply.value("deviceProtect").toObject().value("status").toInt(-1) != expectedStatus)
        return QString();
    return reply.value("token").toObject().value("token").toString();
}

void TestCloudSimLogin::nodeDirectoryByDefault()
{
    QVERIFY(m_cloud.start(accountsScenario));
    const Answer a = send(QStringLiteral("/nodes.json"));
    QCOMPARE(a.status, 200);
    // Published with the dash; the module rewrites it before reading.
    QVERIFY(a.body.contains("\"zh-cn\""));
    QVERIFY(!a.body.contains("zh_cn"));

    const QJsonArray nodes = a.json().value("cirro").toArray();
    QCOMPARE(nodes.size(), 5);
    QStringList icons;
    QSet<QString> keys;
    for (const auto &n : nodes) {
        const QJsonObject node = n.toObject();
        QCOMPARE(node.value("node").toString(), m_cloud.host());
        QVERIFY(!node.value("key").toString().isEmpty());
        keys.insert(node.value("key").toString());
        QVERIFY(!node.value("label").toObject().value("en").toString().isEmpty());
        QVERIFY(!node.value("label").toObject().value("zh-cn").toString().isEmpty());
        icons << QUrl(node.value("icon").toString()).fileName();
    }
    QCOMPARE(keys.size(), 5);
    QCOMPARE(icons, (QStringList{"china.png", "europe.png", "us.png", "australia.png", "india.png"}));
    const QJsonObject china = nodes.at(0).toObject().value("label").toObject();
    QCOMPARE(china.value("en").toString(), QStringLiteral("China"));
    QCOMPARE(china.value("zh-cn").toString(), QString::fromUtf8("中国"));

    // The icon addresses lead to pictures.
    const Answer icon = send(QUrl(nodes.at(2).toObject().value("icon").toString()).path());
    QCOMPARE(icon.status, 200);
    QVERIFY(icon.body.startsWith("\x89PNG"));
}

void TestCloudSimLogin::globalDns_data()
{
    QTest::addColumn<QByteArray>("scenario");
    QTest::addColumn<QString>("identity");
    QTest::addColumn<QString>("slave"); // how the member travels

    QTest::newRow("default") << QByteArray("{}") << "cn-1" << "one";
    QTest::newRow("identity chosen") << QByteArray(R"({"dns":{"identity":"eu-7"}})") << "eu-7" << "one";
    QTest::newRow("slave null") << QByteArray(R"({"dns":{"slave":"null"}})") << "cn-1" << "null";
    QTest::newRow("slave missing") << QByteArray(R"({"dns":{"slave":"missing"}})") << "cn-1" << "missing";
    QTest::newRow("slave empty") << QByteArray(R"({"dns":{"slave":"empty"}})") << "cn-1" << "empty";
}

void TestCloudSimLogin::globalDns()
{
    QFETCH(QByteArray, scenario);
    QFETCH(QString, identity);
    QFETCH(QString, slave);
    QVERIFY(m_cloud.start(scenario));
    const Answer a = send(QStringLiteral("/mqtt/control/v1/"));
    QCOMPARE(a.status, 200);
    const QJsonObject reply = a.json();
    QCOMPARE(reply.value("status").toInt(), 200);
    const QJsonObject data = reply.value("data").toObject();
    const QJsonObject main = data.value("main").toObject();
    QCOMPARE(main.value("currentNodeIdentity").toString(), identity);
    QCOMPARE(main.value("mqttAuthUrl").toString(), m_cloud.url(QStringLiteral("/mqtt/auth")));

    // A bare key body, usable once wrapped the way the module wraps it.
    auto rsaBits = [](const QString &body) { return TestRsa::bits(TestRsa::pemFromBody(body)); };
    const QString mainKey = main.value("publicKey").toString();
    QCOMPARE(rsaBits(mainKey), 2048);

    if (slave == "one") {
        const QJsonArray backups = data.value("slave").toArray();
        QCOMPARE(backups.size(), 1);
        const QJsonObject backup = backups.at(0).toObject();
        QCOMPARE(rsaBits(backup.value("publicKey").toString()), 2048);
        QVERIFY(backup.value("publicKey").toString() != mainKey);
        QCOMPARE(backup.value("currentNodeIdentity").toString(), identity);
        QCOMPARE(backup.value("mqttAuthUrl").toString(), m_cloud.url(QStringLiteral("/mqtt/auth-backup")));
    } else if (slave == "null") {
        QVERIFY(a.body.contains("\"slave\":null"));
    } else if (slave == "missing") {
        QVERIFY(!data.contains("slave"));
    } else {
        QVERIFY(data.value("slave").isArray());
        QVERIFY(data.value("slave").toArray().isEmpty());
    }
}

void TestCloudSimLogin::sliderCheck_data()
{
    QTest::addColumn<Triple>("triple");
    QTest::addColumn<bool>("accepted");

    const Triple good = sliderTriple();
    QTest::newRow("page's triple") << good << true;
    // The worked example of docs/protocol.md, byte for byte.
    QTest::newRow("documented example") << Triple{"3f2a9c1e-7b4d-4e8a-9c21-5d6f0a8b7e13",
                                                  "416978cd0553340a859d4a59211285f8dfdb040d86f4c92b01efec31acec9ea4",
                                                  "nc-eyJkeCI6MjU4LCJtcyI6ODQwLCJuIjozN30"}
                                        << true;
    QTest::newRow("another summary") << sliderTriple(R"({"dx":300,"ms":1200,"n":50,"extra":[1,2]})") << true;

    Triple otherSession = good;
    otherSession.sessionId = QUuid::createUuid().toString(QUuid::WithoutBraces);
    QTest::newRow("sig of another session") << otherSession << false;
    Triple otherToken = good;
    otherToken.token = sliderTriple(R"({"dx":1,"ms":1,"n":1})", good.sessionId).token;
    QTest::newRow("sig of another token") << otherToken << false;
    Triple flipped = good;
    flipped.sig[0] = flipped.sig[0] == QLatin1Char('0') ? QLatin1Char('1') : QLatin1Char('0');
    QTest::newRow("one digit changed") << flipped << false;

    // Correct signatures over tokens that break the other rules.
    auto signedToken = [](const QString &token) {
        Triple t;
        t.sessionId = QUuid::createUuid().toString(QUuid::WithoutBraces);
        t.token = token;
        t.sig = QString::fromLatin1(QMessageAuthenticationCode::hash((t.sessionId + "|" + token).toUtf8(),
                                                                     "rxcm-slider-v1", QCryptographicHash::Sha256)
                                        .toHex());
        return t;
    };
    QTest::newRow("no nc- prefix") << signedToken(QStringLiteral("eyJkeCI6MjU4LCJtcyI6ODQwLCJuIjozN30")) << false;
    QTest::newRow("summary not JSON") << signedToken(QStringLiteral("nc-")
                                                     + QString::fromLatin1(QByteArray("drag").toBase64()))
                                      << false;
    QTest::newRow("empty session") << sliderTriple(R"({"dx":258})", QString()) << false;
    QTest::newRow("nothing") << Triple{} << false;
}

void TestCloudSimLogin::sliderCheck()
{
    QFETCH(Triple, triple);
    QFETCH(bool, accepted);
    QVERIFY(m_cloud.start(accountsScenario));
    // A pure slider check: no address, so no code is sent.
    for (int round = 0; round < 2; ++round) { // the same triple twice: reuse is allowed
        const Answer a = post(slider, codeRequest(QString(), QStringLiteral("key-7"), triple));
        QCOMPARE(a.status, 200);
        const QJsonObject reply = a.json();
        QCOMPARE(reply.value("status").toBool(), accepted);
        QCOMPARE(reply.value("key").toString(), accepted ? QStringLiteral("key-7") : QString());
    }
    QVERIFY(codes().isEmpty());
}

void TestCloudSimLogin::codeRequests()
{
    QVERIFY(m_cloud.start(accountsScenario));
    // Without a slider triple, a known address is enough.
    const Answer phone = post(slider, codeRequest(QStringLiteral("13800000001"), QStringLiteral("k1")));
    QCOMPARE(phone.json().value("status").toBool(), true);
    QCOMPARE(phone.json().value("key").toString(), QStringLiteral("k1"));
    const QString first = codes().value("13800000001").toString();
    QVERIFY(QRegularExpression("^\\d{6}$").match(first).hasMatch());

    // Country code in front, with or without "+", and e-mail addresses; the last code counts.
    QCOMPARE(requestCode(QStringLiteral("+8613800000001"), QStringLiteral("k2")).size(), 6);
    QCOMPARE(requestCode(QStringLiteral("alice@example.test"), QStringLiteral("k3")).size(), 6);
    const QJsonObject sent = codes();
    QCOMPARE(sent.keys(), (QStringList{"13800000001", "alice@example.test"}));
    // A scenario's fixed code is the one sent.
    QCOMPARE(requestCode(QStringLiteral("8613800000003"), QStringLiteral("k4")), QStringLiteral("246810"));

    // Unknown addresses: refused with the error the module reads.
    const Answer unknownPhone = post(slider, codeRequest(QStringLiteral("13999999999"), QStringLiteral("k5")));
    QCOMPARE(unknownPhone.json().value("status").toBool(), false);
    QCOMPARE(unknownPhone.json().value("key").toString(), QString());
    QVERIFY(unknownPhone.body.contains("\"100058\""));
    QVERIFY(unknownPhone.body.contains("\"MOBILE_PHONE\""));
    const Answer unknownMail = post(slider, codeRequest(QStringLiteral("nobody@example.test"), QStringLiteral("k6")));
    QCOMPARE(unknownMail.json().value("status").toBool(), false);
    QVERIFY(unknownMail.body.contains("\"100058\""));
    QVERIFY(unknownMail.body.contains("\"EMAIL\""));

    // A triple that is given must pass: a tampered one sends nothing.
    Triple tampered = sliderTriple();
    tampered.sig[0] = tampered.sig[0] == QLatin1Char('0') ? QLatin1Char('1') : QLatin1Char('0');
    const Answer refused = post(slider, codeRequest(QStringLiteral("bob@example.test"), QStringLiteral("k7"), tampered));
    QCOMPARE(refused.json().value("status").toBool(), false);
    QVERIFY(!codes().contains("bob@example.test"));
}

void TestCloudSimLogin::phoneLoginSucceedsAndTokenReachesCatalogue()
{
    QVERIFY(m_cloud.start(accountsScenario));
    const QString code = requestCode(QStringLiteral("13800000001"), QStringLiteral("k"));
    QVERIFY(!code.isEmpty());
    const Answer a = post(phoneLogin, loginInfo({{"mobilePhone", "13800000001"}, {"countryCode", "86"},
                                                 {"identityVerifyCode", code}}));
    QCOMPARE(a.status, 200);
    QVERIFY2(!a.body.contains("\"error\""), a.body.constData());
    const QJsonObject reply = a.json();
    QCOMPARE(reply.keys(), (QStringList{"deviceProtect", "id", "identifyInfo", "loginProtect", "token"}));
    QCOMPARE(reply.value("id").toInt(), 123);
    const QJsonObject device = reply.value("deviceProtect").toObject();
    QCOMPARE(device.value("status").toInt(), 1);
    QCOMPARE(device.value("enableBackup").toBool(true), false);
    QCOMPARE(reply.value("loginProtect").toObject().value("status").toInt(), 1);
    const QJsonObject token = reply.value("token").toObject();
    QCOMPARE(token.value("expiresIn").toInt(), 7200);
    QCOMPARE(token.value("type").toString(), QStringLiteral("bearer"));
    const QJsonObject who = reply.value("identifyInfo").toObject();
    QCOMPARE(who, (QJsonObject{{"countryCode", "86"}, {"email", "alice@example.test"},
                               {"mobilePhone", "13800000001"}, {"name", "alice"}}));

    // The fresh token opens the account's catalogue.
    const QByteArray bearer = token.value("token").toString().toUtf8();
    const QJsonObject page =
        send(QStringLiteral("/gateway/cirro?cirro=Rest/Lite/Medias?search=&offset=0&limit=50"),
             CloudClient::gatewayHeaders(bearer))
            .json();
    QCOMPARE(page.value("data").toObject().value("mediaList").toArray().at(0).toObject().value("mid").toString(),
             QStringLiteral("a1"));
}

void TestCloudSimLogin::passwordLoginNamesTheAccountThreeWays()
{
    QVERIFY(m_cloud.start(accountsScenario));
    for (const char *identify : {"alice", "alice@example.test", "13800000001"})
        QVERIFY2(!passwordToken(QString::fromUtf8(identify), QStringLiteral("s3cret-Pa55"), 1).isEmpty(), identify);
}

void TestCloudSimLogin::loginFailures_data()
{
    QTest::addColumn<QString>("service");
    QTest::addColumn<QJsonObject>("body");
    QTest::addColumn<QByteArray>("code");
    QTest::addColumn<QByteArray>("field");

    const Triple t = sliderTriple();
    auto password = [&t](const QString &identify, const QString &encrypted) {
        return withSlider(loginInfo({{"identify", identify}, {"password", encrypted}}), t);
    };
    QTest::newRow("phone: wrong code") << phoneLogin
                                       << loginInfo({{"mobilePhone", "13800000001"}, {"countryCode", "86"},
                                                     {"identityVerifyCode", "000000"}})
                                       << QByteArray("10006") << QByteArray();
    QTest::newRow("phone: no code") << phoneLogin << loginInfo({{"mobilePhone", "13800000001"}})
                                    << QByteArray("10006") << QByteArray();
    QTest::newRow("phone: unknown") << phoneLogin
                                    << loginInfo({{"mobilePhone", "13999999999"}, {"identityVerifyCode", "246810"}})
                                    << QByteArray("100058") << QByteArray("MOBILE_PHONE");
    QTest::newRow("phone: other country") << phoneLogin
                                          << loginInfo({{"mobilePhone", "13800000003"}, {"countryCode", "1"},
                                                        {"identityVerifyCode", "246810"}})
                                          << QByteArray("100058") << QByteArray("MOBILE_PHONE");
    // carol's fixed code is right, but code logins are locked for her.
    QTest::newRow("phone: locked") << phoneLogin
                                   << loginInfo({{"mobilePhone", "13800000003"}, {"identityVerifyCode", "246810"}})
                                   << QByteArray("100096") << QByteArray();
    QTest::newRow("email: wrong code") << emailLogin
                                       << loginInfo({{"email", "alice@example.test"}, {"identityVerifyCode", "123456"}})
                                       << QByteArray("10006") << QByteArray();
    QTest::newRow("email: unknown") << emailLogin
                                    << loginInfo({{"email", "nobody@example.test"}, {"identityVerifyCode", "1"}})
                                    << QByteArray("100058") << QByteArray("EMAIL");
    QTest::newRow("email: locked") << emailLogin
                                   << loginInfo({{"email", "carol@example.test"}, {"identityVerifyCode", "246810"}})
                                   << QByteArray("100096") << QByteArray();
    QTest::newRow("password: wrong") << passwordLogin << password("alice", encryptForCloud("s3cret-Pa56"))
                                     << QByteArray("10009") << QByteArray();
    QTest::newRow("password: another account's") << passwordLogin << password("alice", encryptForCloud("bob-pass"))
                                                  << QByteArray("10009") << QByteArray();
    QTest::newRow("password: unknown account") << passwordLogin << password("zed", encryptForCloud("s3cret-Pa55"))
                                               << QByteArray("10009") << QByteArray();
    QTest::newRow("password: locked") << passwordLogin << password("carol", encryptForCloud("carol-pass"))
                                      << QByteArray("100095") << QByteArray();
    // The right password, but not encrypted: cloudsim must really decrypt.
    QTest::newRow("password: plain Base64")
        << passwordLogin << password("alice", QString::fromLatin1(QByteArray("s3cret-Pa55").toBase64()))
        << QByteArray("10012") << QByteArray();
    QTest::newRow("password: no slider") << passwordLogin
                                         << loginInfo({{"identify", "alice"},
                                                       {"password", encryptForCloud("s3cret-Pa55")}})
                                         << QByteArray("10011") << QByteArray();
    Triple tampered = t;
    tampered.sessionId += "x";
    QTest::newRow("password: tampered slider")
        << passwordLogin
        << withSlider(loginInfo({{"identify", "alice"}, {"password", encryptForCloud("s3cret-Pa55")}}), tampered)
        << QByteArray("10011") << QByteArray();
}

void TestCloudSimLogin::loginFailures()
{
    QFETCH(QString, service);
    QFETCH(QJsonObject, body);
    QFETCH(QByteArray, code);
    QFETCH(QByteArray, field);
    QVERIFY(m_cloud.start(accountsScenario));
    const Answer a = post(service, body);
    // Refused inside a 200, as the cloud does; the module finds the quoted code in the text.
    QCOMPARE(a.status, 200);
    QVERIFY(a.body.contains("\"error\""));
    QCOMPARE(a.json().value("status").toString(), QStringLiteral("fail"));
    QCOMPARE(errorCode(a), QString::fromLatin1(code));
    QVERIFY(!a.json().contains("token"));
    // No other code the module looks for, so its first-hit search cannot go astray.
    for (const QByteArray &other : moduleCodes)
        QCOMPARE(a.body.contains("\"" + other + "\""), other == code);
    QCOMPARE(a.body.contains("\"MOBILE_PHONE\""), field == "MOBILE_PHONE");
    QCOMPARE(a.body.contains("\"EMAIL\""), field == "EMAIL");
}

void TestCloudSimLogin::secondFactorByPhone()
{
    QVERIFY(m_cloud.start(accountsScenario));
    // The first step succeeds but asks for the second factor through deviceProtect.status.
    const Answer first = post(passwordLogin,
                              withSlider(loginInfo({{"identify", "bob"}, {"password", encryptForCloud("bob-pass")}}),
                                         sliderTriple()));
    QVERIFY2(!first.body.contains("\"error\""), first.body.constData());
    QCOMPARE(first.json().value("deviceProtect").toObject().value("status").toInt(-1), 0);
    QCOMPARE(first.json().value("loginProtect").toObject().value("status").toInt(), 1);
    const QString session = first.json().value("token").toObject().value("token").toString();
    QVERIFY(!session.isEmpty());

    // The code goes to the phone, as the module names it after a password login.
    const QString code = requestCode(QStringLiteral("8613800000002"), QStringLiteral("k"));
    QVERIFY(!code.isEmpty());
    QJsonObject check{{"identityVerifyCode", code == "111111" ? "222222" : "111111"}, {"identify", "bob"},
                      {"countryCode", "86"}, {"id", 124}};
    QCOMPARE(errorCode(post(phoneVerify, check)), QStringLiteral("10006"));
    check["identityVerifyCode"] = code;
    const Answer checked = post(phoneVerify, check);
    QVERIFY2(!checked.body.contains("\"error\""), checked.body.constData());
    QCOMPARE(checked.json().value("id").toInt(), 124);
    QCOMPARE(checked.json().value("token").toObject().value("token").toString(), session);

    // The device's credit signature, with the first step's token.
    const QByteArray bearer = session.toUtf8();
    const QJsonObject credit{{"identityVerifyCode", code},
                             {"identify", "bob"},
                             {"countryCode", "86"},
                             {"creditSignature", ""},
                             {"type", "1"},
                             {"authCiphertext", encryptForCloud(deviceSignature(nowMs() + 60000))}};
    const Answer signedUp = post(deviceCredit, credit, {{"Token", bearer}, {"Authorization", bearer}});
    QVERIFY2(!signedUp.body.contains("\"error\""), signedUp.body.constData());
    QCOMPARE(signedUp.json().value("info").toString(), QStringLiteral("ok"));
    const QString signature = signedUp.json().value("signature").toString();
    QVERIFY(!signature.isEmpty());

    // A login that carries the signature is from a trusted device; one without is not.
    const QJsonObject again = withSlider(loginInfo({{"identify", "bob"}, {"password", encryptForCloud("bob-pass")},
                                                    {"creditSignature", signature}}),
                                         sliderTriple());
    QCOMPARE(post(passwordLogin, again).json().value("deviceProtect").toObject().value("status").toInt(-1), 1);
    QVERIFY(!passwordToken(QStringLiteral("bob"), QStringLiteral("bob-pass"), 0).isEmpty());
    // Another account's signature does not count.
    const QJsonObject foreign = withSlider(loginInfo({{"identify", "dave"}, {"password", encryptForCloud("dave-pass")},
                                                      {"creditSignature", signature}}),
                                           sliderTriple());
    QCOMPARE(post(passwordLogin, foreign).json().value("deviceProtect").toObject().value("status").toInt(-1), 0);
}

void TestCloudSimLogin::secondFactorByEmail()
{
    QVERIFY(m_cloud.start(accountsScenario));
    const QString code = requestCode(QStringLiteral("dave@example.test"), QStringLiteral("k"));
    QVERIFY(!code.isEmpty());
    // dave has no phone to check a code on.
    const Answer noPhone = post(phoneVerify, QJsonObject{{"identityVerifyCode", code}, {"identify", "dave"},
                                                         {"countryCode", ""}, {"id", 126}});
    QCOMPARE(errorCode(noPhone), QStringLiteral("100058"));
    QVERIFY(noPhone.body.contains("\"MOBILE_PHONE\""));
    // A code login of a flagged account also reports the new device.
    const Answer byCode = post(emailLogin, loginInfo({{"email", "dave@example.test"}, {"identityVerifyCode", code}}));
    QCOMPARE(byCode.json().value("deviceProtect").toObject().value("status").toInt(-1), 0);
}

void TestCloudSimLogin::deviceCreditRefusals_data()
{
    QTest::addColumn<QString>("placement"); // where the ciphertext travels
    QTest::addColumn<QByteArray>("plain");  // "" : a fresh signature one minute ahead
    QTest::addColumn<QString>("headers");   // "same", "differ", "unknown"
    QTest::addColumn<bool>("rightCode");
    QTest::addColumn<QByteArray>("expected"); // "ok", an error code, or "401"

    QTest::newRow("good") << "authCiphertext" << QByteArray() << "same" << true << QByteArray("ok");
    QTest::newRow("inside creditSignature") << "creditSignature" << QByteArray() << "same" << true << QByteArray("ok");
    QTest::newRow("credit record inside creditSignature")
        << "record" << QByteArray() << "same" << true << QByteArray("ok");
    QTest::newRow("stale") << "authCiphertext" << deviceSignature(nowMs() - 1000) << "same" << true
                           << QByteArray("10014");
    QTest::newRow("ten minutes ahead") << "authCiphertext" << deviceSignature(nowMs() + 600000) << "same" << true
                                       << QByteArray("10014");
    QTest::newRow("timestamp as text") << "authCiphertext"
                                       << QByteArray(R"({"source":"rxcm","deviceSignature":"d","timestamp":"1"})")
                                       << "same" << true << QByteArray("10013");
    QTest::newRow("no device signature")
        << "authCiphertext"
        << QJsonDocument(QJsonObject{{"source", "rxcm"}, {"timestamp", nowMs() + 60000}}).toJson(QJsonDocument::Compact)
        << "same" << true << QByteArray("10013");
    QTest::newRow("empty device signature") << "authCiphertext" << deviceSignature(nowMs() + 60000, QString())
                                            << "same" << true << QByteArray("ok");
    QTest::newRow("not encrypted") << "plainBase64" << QByteArray() << "same" << true << QByteArray("10013");
    QTest::newRow("missing") << "none" << QByteArray() << "same" << true << QByteArray("10013");
    QTest::newRow("wrong code") << "authCiphertext" << QByteArray() << "same" << false << QByteArray("10006");
    QTest::newRow("Token differs") << "authCiphertext" << QByteArray() << "differ" << true << QByteArray("401");
    QTest::newRow("unknown token") << "authCiphertext" << QByteArray() << "unknown" << true << QByteArray("401");
}

void TestCloudSimLogin::deviceCreditRefusals()
{
    QFETCH(QString, placement);
    QFETCH(QByteArray, plain);
    QFETCH(QString, headers);
    QFETCH(bool, rightCode);
    QFETCH(QByteArray, expected);
    QVERIFY(m_cloud.start(accountsScenario));
    const QString session = passwordToken(QStringLiteral("bob"), QStringLiteral("bob-pass"), 0);
    QVERIFY(!session.isEmpty());
    const QString code = requestCode(QStringLiteral("13800000002"), QStringLiteral("k"));
    QVERIFY(!code.isEmpty());

    if (plain.isEmpty())
        plain = deviceSignature(nowMs() + 60000);
    const QString sealed = encryptForCloud(plain);
    QString wrongCode = code;
    wrongCode[0] = code[0] == QLatin1Char('9') ? QLatin1Char('0') : QLatin1Char('9');
    QJsonObject body{{"identityVerifyCode", rightCode ? code : wrongCode},
                     {"identify", "bob"},
                     {"countryCode", "86"},
                     {"creditSignature", ""},
                     {"type", "1"}};
    if (placement == "authCiphertext")
        body["authCiphertext"] = sealed;
    else if (placement == "creditSignature")
        body["creditSignature"] = sealed;
    else if (placement == "record")
        body["creditSignature"] = QString::fromUtf8(
            QJsonDocument(QJsonObject{{"authCiphertext", sealed}, {"type", "1"}}).toJson(QJsonDocument::Compact));
    else if (placement == "plainBase64")
        body["authCiphertext"] = QString::fromLatin1(plain.toBase64());

    const QByteArray bearer = session.toUtf8();
    Headers extra{{"Token", bearer}, {"Authorization", bearer}};
    if (headers == "differ")
        extra = {{"Token", bearer + "x"}, {"Authorization", bearer}};
    else if (headers == "unknown")
        extra = {{"Token", "tk-nobody"}, {"Authorization", "tk-nobody"}};

    const Answer a = post(deviceCredit, body, extra);
    QCOMPARE(a.status, 200);
    const QJsonObject reply = a.json();
    if (expected == "ok") {
        QVERIFY2(!a.body.contains("\"error\""), a.body.constData());
        QCOMPARE(reply.value("info").toString(), QStringLiteral("ok"));
        QVERIFY(reply.value("signature").toString().startsWith("cs-"));
        return;
    }
    QVERIFY(a.body.contains("\"error\""));
    QVERIFY(!reply.contains("signature"));
    if (expected == "401")
        QCOMPARE(reply.value("http_code").toInt(), 401);
    else
        QCOMPARE(errorCode(a), QString::fromLatin1(expected));
    // Nothing was trusted.
    QCOMPARE(QJsonDocument::fromJson(send(QStringLiteral("/control/devices")).body).array().size(), 0);
}

QTEST_MAIN(TestCloudSimLogin)
#include "tst_cloudsim_login.moc"
