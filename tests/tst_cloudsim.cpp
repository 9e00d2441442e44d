// The local cloud where docs/protocol.md fixes it and the module's own tests cannot tell a
// mistake the module and cloudsim share: what is computed here (the slider rule, the RSA and AES
// exchanges, the expected records and topics) is written from the document, not from either side.

#include "cloudmaterial/login/loginkeys.h"
#include "localcloud/cloudsim.h"
#include "localcloud/mosquitto.h"
#include "support/cloudclient.h"
#include "support/cloudoracle.h"
#include "support/generatedcontent.h"
#include "support/testrsa.h"

#include <QtTest>

#include <QCryptographicHash>
#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMessageAuthenticationCode>
#include <QUuid>

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <memory>

namespace {

using Answer = CloudClient::Answer;
using Headers = CloudClient::Headers;

const QString slider = QStringLiteral("v1/web-backend-service/identity-verify-code/slider");
const QString phoneLogin = QStringLiteral("v1/web-backend-service/authenticate/limit/mobile-phone");
const QString emailLogin = QStringLiteral("v1/web-backend-service/authenticate/limit/email");
const QString passwordLogin = QStringLiteral("v1/web-backend-service/authenticate/limit/password");
const QString codeStep = QStringLiteral("v1/web-backend-service/account/mobilephoneverifycode");
const QString deviceCredit = QStringLiteral("v1/web-backend-service/loginidentity/device-credit-signature");

// alice: plain; bob: second factor; carol: locked, fixed code. The mqtt part is the device service's.
const QByteArray scenario = R"({"accounts":[
    {"id":123,"name":"alice","password":"s3cret-Pa55","phone":"13800000001","countryCode":"86",
     "email":"alice@example.test","token":"tok-1","media":[
        {"mid":"m1","mediaName":"intro clip.mp4","file":{"size":4096}},
        {"mid":"m2","mediaName":"note.txt","file":{"text":"hello"},
         "approvalStatus":"5","media_entity":{"width":"0","height":720}}]},
    {"id":124,"name":"bob","password":"bob-pass","phone":"13800000002","email":"bob@example.test","secondFactor":true},
    {"id":125,"name":"carol","password":"carol-pass","phone":"13800000003","email":"carol@example.test",
     "locked":["password","code"],"code":"246810"}],
  "files":[{"name":"data.bin","size":5000}],
  "mqtt":{"username":"dev-user","password":"dev-pass","bindingUsername":"bind-user","bindingPassword":"bind-pass"}})";

const QByteArray moduleCodes[] = {"10009", "10006", "100058", "100095", "100096"};

// The value at a path of keys and indexes, "data/mediaList/0/mid".
QJsonValue at(QJsonValue v, const QString &path)
{
    for (const QString &step : path.split(QLatin1Char('/')))
        v = v.isArray() ? v.toArray().at(step.toInt()) : v.toObject().value(step);
    return v;
}

QJsonArray mediaList(const QJsonObject &catalogue)
{
    return at(catalogue, "data/mediaList").toArray();
}

} // namespace

class TestCloudSim : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_client = std::make_unique<CloudClient>(m_cloud);
        QVERIFY(m_cloud.start(scenario));
    }
    void cleanup()
    {
        m_client.reset();
        m_cloud.stop();
    }
    void catalogueRecordShape();
    void refusals_data();
    void refusals();
    void rangeRequests();
    void nodeDirectory();
    void codeLoginReplyRecord();
    void deviceCreditSignature();
    void mqttExchange_data();
    void mqttExchange();
    void mqttExchangeRefusals_data();
    void mqttExchangeRefusals();

private:
    Answer send(const Request &r)
    {
        if (r.service == catalogueService)
            return m_client->send(r.catalogueTarget(), r.rawHeaders());
        return m_client->post(r.service, object(r.body), r.rawHeaders());
    }
    // Asks for a code (for a login, or for the second factor) with a valid slider triple and
    // returns the one cloudsim "sent".
    QString requestCode(const QString &address, const char *templateCode = "LOGIN")
    {
        if (!m_client->post(slider, codeRequest(address, sliderTriple(), templateCode)).json().value("status").toBool())
            return QString();
        return m_cloud.control("GET", QStringLiteral("/control/codes")).object().value(address).toString();
    }

    // A request to @p service that the cloud accepts, with what it needs already done (a code
    // sent, bob's first login step for the second factor).
    Request acceptedRequest(const QString &service);

    CloudSim m_cloud;
    std::unique_ptr<CloudClient> m_client;
};

void TestCloudSim::catalogueRecordShape()
{
    Request r = acceptedRequest(catalogueService);
    const QJsonObject reply = send(r).json();
    QCOMPARE(reply.keys(), (QStringList{"data", "http_code", "status"}));
    QCOMPARE(at(reply, "data/count").toInt(), 2);
    const QJsonObject m2 = mediaList(reply).at(0).toObject(); // newest first
    const QJsonObject m1 = mediaList(reply).at(1).toObject();

    // The wire order is the cloud's, which QJsonObject does not keep: check it on the text of a
    // reply that holds one record, the entity's keys inside media_entity.
    QVERIFY(r.change(QStringLiteral("search=intro")));
    const QByteArray one = send(r).body;
    QCOMPARE(mediaList(QJsonDocument::fromJson(one).object()).size(), 1);
    int last = 0;
    for (const QByteArray &key :
         QByteArray("mid oid create_uid approvalStatus mediaName mediaType media_entity mid size height width "
                    "thumb_image_url unique duration_time video_support_platform workgroup isMediaSupported ossDir "
                    "bigPictureAddress pictureAddress pictureDafaultAddress")
             .split(' ')) {
        const int at = int(one.indexOf("\"" + key + "\":", last + 1));
        QVERIFY2(at > last, key.constData());
        last = at;
    }
    QCOMPARE(m1.keys().size(), 13);
    const QJsonObject e1 = m1.value("media_entity").toObject();
    QCOMPARE(e1.keys().size(), 8);

    // The cloud's mixed types; scenario fields win verbatim, whatever their type.
    QCOMPARE(m1.value("approvalStatus"), QJsonValue("2"));
    QVERIFY(m1.value("mediaType").isDouble());
    QCOMPARE(e1.value("size"), QJsonValue(4096));
    QCOMPARE(e1.value("width"), QJsonValue("1920"));
    QCOMPARE(e1.value("height"), QJsonValue("1080"));
    QCOMPARE(m2.value("media_entity").toObject().value("width"), QJsonValue("0"));
    // The address leads to the bytes.
    QCOMPARE(m1.value("ossDir").toString(), m_cloud.url(QStringLiteral("/files/m1/intro%20clip.mp4")));
    QCOMPARE(m_client->send(QUrl(m1.value("ossDir").toString()).path(QUrl::FullyEncoded)).body,
             generatedContent(0, 4096));
}

Request TestCloudSim::acceptedRequest(const QString &service)
{
    Request r{service, {}, {}, {}};
    if (service == catalogueService) {
        for (const QString &item :
             QStringLiteral("search=&offset=0&limit=50&tag=&filters[type][0]=1&filters[type][1]=0&"
                            "filters[type][3]=30&sortType=desc")
                 .split('&'))
            r.query.append({item.section('=', 0, 0), item.section('=', 1)});
        for (const auto &[key, value] : CloudClient::gatewayHeaders("tok-1"))
            r.headers.append({QString::fromUtf8(key), QString::fromUtf8(value)});
    } else if (service == slider) {
        r.body = fields(codeRequest(QStringLiteral("13800000001"), sliderTriple()));
    } else if (service == phoneLogin) {
        r.body = fields(loginInfo({{"mobilePhone", "13800000001"},
                                   {"countryCode", "+86"},
                                   {"identityVerifyCode", requestCode(QStringLiteral("13800000001"))}}));
    } else if (service == emailLogin) {
        r.body = fields(loginInfo({{"email", "alice@example.test"},
                                   {"identityVerifyCode", requestCode(QStringLiteral("alice@example.test"))}}));
    } else if (service == passwordLogin) {
        r.body =
            fields(loginInfo({{"identify", "alice"}, {"password", encryptForCloud("s3cret-Pa55")}}, sliderTriple()));
    } else {
        // bob's second factor: his first login step, then the code that was sent to his phone.
        const QJsonObject bob =
            loginInfo({{"identify", "bob"}, {"password", encryptForCloud("bob-pass")}}, sliderTriple());
        const QString bearer = at(m_client->post(passwordLogin, bob).json(), "token/token").toString();
        const QString code = requestCode(QStringLiteral("13800000002"), "TRUST_DEVICE");
        r.body = Fields{{"identityVerifyCode", code}, {"identify", "bob"}, {"countryCode", "86"}};
        if (service == codeStep) {
            r.body.append({"id", 124});
        } else {
            r.body += Fields{{"creditSignature", ""}, {"type", "1"}};
            r.body.append({"authCiphertext", encryptForCloud(deviceSignature(60000))});
            r.headers = Fields{{"Token", bearer}, {"Authorization", bearer}};
        }
    }
    return r;
}

void TestCloudSim::refusals_data()
{
    QTest::addColumn<QString>("service");
    // Changes to the accepted request (see Request::change), or: "used": the same request went
    // through once before; "expired": the slider and codes last 1 ms and the request comes later;
    // "other-purpose": the newest code of the address, sent for the other purpose; "encoded": the
    // catalogue's whole cirro value percent-encoded.
    QTest::addColumn<QString>("faults");
    // The catalogue's error text, or the login error code ("-": refused without one); empty: accepted.
    QTest::addColumn<QString>("code");
    // The login error's field, or the catalogue's mids listed.
    QTest::addColumn<QString>("detail");
    auto row = [](const char *name, const QString &service, const QString &faults, const char *code,
                  const char *detail = "") {
        QTest::newRow(name) << service << faults << QString::fromLatin1(code) << QString::fromLatin1(detail);
    };
    // The cloud defaults nothing: the module's paging, order and type filter must all be there.
    row("catalogue", catalogueService, "", "", "m2 m1");
    row("catalogue: whole value encoded", catalogueService, "-filters[type][1] -filters[type][3] encoded", "", "m2 m1");
    row("catalogue: second page of one", catalogueService, "offset=1 limit=1", "", "m1");
    row("catalogue: oldest first", catalogueService, "sortType=asc", "", "m1 m2");
    row("catalogue: another version", catalogueService, "version=V2.0.0", "invalid request source");
    row("catalogue: another Token", catalogueService, "Token=tok-2", "invalid token");
    row("catalogue: no offset", catalogueService, "-offset", "invalid offset");
    row("catalogue: empty offset", catalogueService, "offset=", "invalid offset");
    row("catalogue: negative offset", catalogueService, "offset=-1", "invalid offset");
    row("catalogue: no limit", catalogueService, "-limit", "invalid limit");
    row("catalogue: letter in limit", catalogueService, "limit=5O", "invalid limit");
    row("catalogue: zero limit", catalogueService, "limit=0", "invalid limit");
    row("catalogue: more than a page", catalogueService, "limit=51", "invalid limit");
    row("catalogue: no sort", catalogueService, "-sortType", "invalid sortType");
    row("catalogue: unknown sort", catalogueService, "sortType=dsc", "invalid sortType");
    row("catalogue: no type filter", catalogueService, "-filters[type][0] -filters[type][1] -filters[type][3]",
        "invalid type filter");
    row("catalogue: filter without value", catalogueService, "filters[type][0]=", "invalid type filter");
    row("catalogue: filter on another field", catalogueService, "filters[type][0]>filters[typ][0]",
        "invalid type filter");
    row("catalogue: filter without index", catalogueService, "filters[type][0]>filters[type][]", "invalid type filter");

    row("code request", slider, "", "");
    row("code request: triple used", slider, "used", "-");
    row("code request: triple expired", slider, "expired", "-");
    row("code request: no slider", slider, "sessionId= sig= token=", "-");
    // The worked example of docs/protocol.md, byte for byte; the page's token is "nc-" and more.
    row("code request: documented triple", slider,
        "sessionId=3f2a9c1e-7b4d-4e8a-9c21-5d6f0a8b7e13 token=nc-eyJkeCI6MjU4LCJtcyI6ODQwLCJuIjozN30 "
        "sig=416978cd0553340a859d4a59211285f8dfdb040d86f4c92b01efec31acec9ea4",
        "");
    row("code request: one digit changed", slider, "sig~", "-");
    const Triple bare = signedTriple(QStringLiteral("eyJkeCI6MjU4LCJtcyI6ODQwLCJuIjozN30"));
    row("code request: no nc- prefix", slider,
        QStringLiteral("sessionId=%1 sig=%2 token=%3").arg(bare.sessionId, bare.sig, bare.token), "-");
    row("code request: no country code", slider, "parameter=", "100058", "MOBILE_PHONE");
    row("code request: another country", slider, "parameter=44", "100058", "MOBILE_PHONE");
    row("code request: no type", slider, "type=", "10016", "type");
    row("code request: e-mail type for a phone", slider, "type=EMAIL", "10016", "type");
    row("code request: no template", slider, "templateCode=", "10016", "templateCode");
    row("code request: no key", slider, "key=", "10016", "key");
    row("phone login", phoneLogin, "", "");
    row("phone login: wrong code", phoneLogin, "identityVerifyCode~", "10006");
    row("phone login: code used", phoneLogin, "used", "10006");
    row("phone login: code expired", phoneLogin, "expired", "10006");
    row("phone login: unknown", phoneLogin, "mobilePhone=13999999999", "100058", "MOBILE_PHONE");
    row("phone login: no country code", phoneLogin, "countryCode=", "100058", "MOBILE_PHONE");
    row("phone login: another country", phoneLogin, "countryCode=+44", "100058", "MOBILE_PHONE");
    row("phone login: a second-factor code", phoneLogin, "other-purpose", "10006");
    // carol's fixed code is right, but code logins are locked for her.
    row("phone login: locked", phoneLogin, "mobilePhone=13800000003 identityVerifyCode=246810", "100096");
    row("e-mail login: code used", emailLogin, "used", "10006");
    row("e-mail login: unknown", emailLogin, "email=nobody@example.test", "100058", "EMAIL");
    row("password login", passwordLogin, "", "");
    row("password login: triple used", passwordLogin, "used", "10011");
    row("password login: triple expired", passwordLogin, "expired", "10011");
    row("password login: wrong", passwordLogin, "password=" + encryptForCloud("s3cret-Pa56"), "10009");
    row("password login: locked", passwordLogin, "identify=carol password=" + encryptForCloud("carol-pass"), "100095");
    // The right password, but not encrypted: cloudsim must really decrypt.
    row("password login: plain Base64", passwordLogin, "password=czNjcmV0LVBhNTU=", "10012");
    row("code step", codeStep, "", "");
    row("code step: another account", codeStep, "identify=alice", "100058", "MOBILE_PHONE");
    row("code step: no country code", codeStep, "countryCode=", "100058", "MOBILE_PHONE");
    row("code step: a login code", codeStep, "other-purpose", "10006");
    row("device credit", deviceCredit, "", "");
    row("device credit: code used", deviceCredit, "used", "10006");
    row("device credit: a login code", deviceCredit, "other-purpose", "10006");
    row("device credit: another account", deviceCredit, "identify=carol", "100058", "MOBILE_PHONE");
    row("device credit: another country", deviceCredit, "countryCode=1", "100058", "MOBILE_PHONE");
    row("device credit: no type", deviceCredit, "type=", "10016", "type");
    row("device credit: another type", deviceCredit, "type=2", "10016", "type");
    row("device credit: a signature never given", deviceCredit, "creditSignature=cs-00", "10016", "creditSignature");
    row("device credit: no device signature", deviceCredit, "authCiphertext=", "10013");
    // The signature's timestamp is in milliseconds and must lie ahead.
    row("device credit: device signature expired", deviceCredit,
        "authCiphertext=" + encryptForCloud(deviceSignature(-1000)), "10014");
}

void TestCloudSim::refusals()
{
    QFETCH(QString, service);
    QFETCH(QString, faults);
    QFETCH(QString, code);
    QFETCH(QString, detail);

    if (faults == QLatin1String("expired")) {
        QJsonObject root = QJsonDocument::fromJson(scenario).object();
        root.insert("validity", QJsonObject{{"slider", 1}, {"code", 1}});
        m_cloud.stop();
        QVERIFY(m_cloud.start(QJsonDocument(root).toJson(QJsonDocument::Compact)));
    }
    Request r = acceptedRequest(service);
    for (const QString &fault : faults.split(QLatin1Char(' '), Qt::SkipEmptyParts)) {
        if (fault == QLatin1String("encoded")) {
            r.wholeValueEncoded = true;
        } else if (fault == QLatin1String("other-purpose")) {
            const bool secondFactor = service != phoneLogin;
            const QString other =
                requestCode(secondFactor ? QStringLiteral("13800000002") : QStringLiteral("13800000001"),
                            secondFactor ? "LOGIN" : "TRUST_DEVICE");
            QVERIFY(r.change("identityVerifyCode=" + other));
        } else if (fault == QLatin1String("used")) {
            QVERIFY(!send(r).body.contains("\"error\""));
        } else if (fault == QLatin1String("expired")) {
            // A slider check alone starts the triple's clock without using it.
            const QJsonObject b = object(r.body);
            const Triple t{b["sessionId"].toString(), b["sig"].toString(), b["token"].toString()};
            QVERIFY(t.sessionId.isEmpty()
                    || at(m_client->post(slider, codeRequest(QString(), t)).json(), "status").toBool());
            const qint64 seen = QDateTime::currentMSecsSinceEpoch();
            QTRY_VERIFY(QDateTime::currentMSecsSinceEpoch() > seen + 1);
        } else {
            QVERIFY2(r.change(fault), qPrintable(fault));
        }
    }

    const Answer a = send(r);
    QCOMPARE(a.status, 200);
    const QJsonObject reply = a.json();
    if (service == catalogueService) {
        QCOMPARE(reply.value("http_code").toInt(), code.isEmpty() ? 200 : code == "invalid token" ? 401 : 400);
        QCOMPARE(reply.value("error").toString(), code);
        QCOMPARE(reply.value("status").toString(), code.isEmpty() ? QStringLiteral("success") : QStringLiteral("fail"));
        QStringList mids;
        for (const QJsonValue &m : mediaList(reply))
            mids << m.toObject().value("mid").toString();
        QCOMPARE(mids.join(' '), detail);
        return;
    }
    // Refused inside a 200, as the cloud does; the module finds the quoted code in the text.
    QCOMPARE(at(reply, "error/code").toString(), code == "-" ? QString() : code);
    QCOMPARE(at(reply, "error/field").toString(), detail);
    if (service == slider) {
        // The code request's own shape: refused, nothing echoed, no code sent.
        QCOMPARE(reply.value("status").toBool(), code.isEmpty());
        QCOMPARE(reply.value("key").toString(), code.isEmpty() ? QStringLiteral("key-7") : QString());
    } else {
        QCOMPARE(a.body.contains("\"error\""), !code.isEmpty());
        QVERIFY(code.isEmpty() || !reply.contains("token"));
    }
    // No other code the module looks for, so its first-hit search cannot go astray.
    for (const QByteArray &other : moduleCodes)
        QCOMPARE(a.body.contains("\"" + other + "\""), other == code.toLatin1());
    QCOMPARE(a.body.contains("\"MOBILE_PHONE\""), detail == "MOBILE_PHONE");
    QCOMPARE(a.body.contains("\"EMAIL\""), detail == "EMAIL");
}

void TestCloudSim::rangeRequests()
{
    // The downloader resumes with "bytes=N-" and reads Content-Range back.
    const Answer part = m_client->send(QStringLiteral("/files/data.bin"), {{"Range", "bytes=1237-"}});
    QCOMPARE(part.status, 206);
    QCOMPARE(part.header("Content-Range"), QByteArray("bytes 1237-4999/5000"));
    QCOMPARE(part.body, generatedContent(1237, 3763));
    const Answer past = m_client->send(QStringLiteral("/files/data.bin"), {{"Range", "bytes=5000-"}});
    QCOMPARE(past.status, 416);
    QCOMPARE(past.header("Content-Range"), QByteArray("bytes */5000"));
}

void TestCloudSim::nodeDirectory()
{
    const Answer nodes = m_client->send(QStringLiteral("/nodes.json"));
    // Published with the dash; the module rewrites it before reading.
    QVERIFY(!nodes.body.contains("zh_cn"));
    const QJsonArray list = nodes.json().value("cirro").toArray();
    QCOMPARE(list.size(), 5);
    QCOMPARE(list.at(0).toObject().value("node").toString(), m_cloud.host());
    QCOMPARE(list.at(0).toObject().value("label").toObject().value("zh-cn").toString(), QString::fromUtf8("中国"));
    const QJsonObject dns = m_client->send(QStringLiteral("/mqtt/control/v1/")).json().value("data").toObject();
    QCOMPARE(dns.value("main").toObject().value("currentNodeIdentity").toString(), QStringLiteral("cn-1"));
}

void TestCloudSim::codeLoginReplyRecord()
{
    Request login = acceptedRequest(phoneLogin);
    QVERIFY(login.change(QStringLiteral("countryCode=86"))); // with or without the "+"
    const Answer a = send(login);
    QVERIFY2(!a.body.contains("\"error\""), a.body.constData());
    const QJsonObject reply = a.json();
    QCOMPARE(reply.keys(), (QStringList{"deviceProtect", "id", "identifyInfo", "loginProtect", "token"}));
    QCOMPARE(reply.value("id").toInt(), 123);
    QCOMPARE(at(reply, "deviceProtect/status").toInt(), 1);
    QCOMPARE(at(reply, "token/expiresIn").toInt(), 7200);
    QCOMPARE(QJsonDocument(reply.value("identifyInfo").toObject()).toJson(QJsonDocument::Compact),
             R"({"countryCode":"86","email":"alice@example.test","mobilePhone":"13800000001","name":"alice"})");
    // The fresh token opens the account's catalogue.
    const QString bearer = at(reply, "token/token").toString();
    Request r = acceptedRequest(catalogueService);
    QVERIFY(r.change("Token=" + bearer) && r.change("Authorization=" + bearer));
    QCOMPARE(mediaList(send(r).json()).size(), 2);
}

void TestCloudSim::deviceCreditSignature()
{
    // bob's password login succeeds but asks for the second factor through deviceProtect.status;
    // one that carries the signature the credit step gave is from a trusted device.
    Request login = acceptedRequest(passwordLogin);
    QVERIFY(login.change(QStringLiteral("identify=bob")) && login.change("password=" + encryptForCloud("bob-pass")));
    QCOMPARE(at(send(login).json(), "deviceProtect/status").toInt(-1), 0);
    const Answer a = send(acceptedRequest(deviceCredit));
    QVERIFY2(!a.body.contains("\"error\""), a.body.constData());
    QCOMPARE(a.json().value("info").toString(), QStringLiteral("ok"));
    login = acceptedRequest(passwordLogin);
    QVERIFY(login.change(QStringLiteral("identify=bob")) && login.change("password=" + encryptForCloud("bob-pass"))
            && login.change("creditSignature=" + a.json().value("signature").toString()));
    QCOMPARE(at(send(login).json(), "deviceProtect/status").toInt(-1), 1);
}

void TestCloudSim::mqttExchange_data()
{
    QTest::addColumn<QString>("endpoint");
    QTest::newRow("main") << "main";
    QTest::newRow("backup") << "backup";
}

void TestCloudSim::mqttExchange()
{
    QFETCH(QString, endpoint);
    Mosquitto broker;
    QVERIFY(broker.start());
    const QJsonDocument mqtt(QJsonObject{{"url", broker.url()}});
    QVERIFY(at(m_cloud.control("POST", QStringLiteral("/control/mqtt"), mqtt).object(), "connected").toBool());
    const QJsonObject node = at(m_client->send(QStringLiteral("/mqtt/control/v1/")).json(),
                                endpoint == "main" ? "data/main" : "data/slave/0")
                                 .toObject();
    // A bare key body, usable once wrapped the way the module wraps it.
    const QByteArray pem = TestRsa::pemFromBody(node.value("publicKey").toString());
    QCOMPARE(TestRsa::bits(pem), 2048);
    QByteArray key(32, '\0');
    RAND_bytes(reinterpret_cast<unsigned char *>(key.data()), key.size());
    const QByteArray message =
        "100001||" + key.toBase64() + "||" + QByteArray::number(QDateTime::currentMSecsSinceEpoch() + 6000);
    const QJsonObject record{{"authCiphertext", QString::fromLatin1(TestRsa::encrypt(pem, message).toBase64())},
                             {"type", "1"}};
    const QUrl authUrl(node.value("mqttAuthUrl").toString());
    QCOMPARE(authUrl.toString(QUrl::RemovePath), m_cloud.url(QString()));
    const Answer a = m_client->send(
        authUrl.path(), CloudClient::gatewayHeaders("tok-1") + Headers{{"Content-Type", "application/json"}}, "POST",
        QJsonDocument(record).toJson(QJsonDocument::Compact));
    QCOMPARE(a.json().value("http_code").toInt(), 200);
    const QJsonValue logged = at(m_cloud.control("GET", QStringLiteral("/control/mqtt/auth")).object(), "exchanges/0");
    QCOMPARE(at(logged, "endpoint").toString(), endpoint);
    QCOMPARE(at(logged, "result").toString(), QStringLiteral("ok"));
    // The account as docs/protocol.md writes it: compact, keys password, url, username.
    QCOMPARE(aesDecrypt(key, QByteArray::fromBase64(a.json().value("data").toString().toLatin1())),
             R"({"password":"dev-pass","url":")" + broker.url().toUtf8() + R"(","username":"dev-user"})");

    // The player authorization hands out the binding account, at the Base64 service path only
    // (GET is not the login services' method, so the plain path is no service).
    const QByteArray path = "v1/web-backend-service/player/auth";
    QCOMPARE(at(m_client->send("/gateway/apis?cirro=" + path.toBase64(), {{"authorization", "tok-1"}}).json(),
                "value/cirro"),
             QJsonValue(QJsonObject{{"username", "bind-user"}, {"password", "bind-pass"}, {"server", broker.url()}}));
    QCOMPARE(m_client->send("/gateway/apis?cirro=" + path, {{"authorization", "tok-1"}}).status, 405);
}

// A valid key message with one thing wrong per row, in the order the checks run.
void TestCloudSim::mqttExchangeRefusals_data()
{
    QTest::addColumn<QString>("fault");
    QTest::addColumn<QString>("error");
    QTest::addColumn<QString>("result"); // as the control API logs it
    QTest::newRow("no gateway headers") << "headers"
                                        << "invalid request source"
                                        << "invalid request source";
    QTest::newRow("token differs from authorization") << "token"
                                                      << "invalid token"
                                                      << "invalid token";
    QTest::newRow("not RSA of this endpoint") << "garbage"
                                              << "the key message cannot be decrypted"
                                              << "undecryptable";
    QTest::newRow("for the backup endpoint") << "backup key"
                                             << "the key message cannot be decrypted"
                                             << "undecryptable";
    QTest::newRow("two pieces") << "two pieces"
                                << "the key message is malformed"
                                << "malformed";
    QTest::newRow("a 16-byte key") << "short key"
                                   << "the key message is malformed"
                                   << "malformed";
    QTest::newRow("expiry not a number") << "expiry text"
                                         << "the key message is malformed"
                                         << "malformed";
    QTest::newRow("other product code") << "product"
                                        << "unknown product code"
                                        << "unknown product";
    QTest::newRow("expired a second ago") << "expired"
                                          << "the key message has expired"
                                          << "expired";
}

void TestCloudSim::mqttExchangeRefusals()
{
    QFETCH(QString, fault);
    QFETCH(QString, error);
    QFETCH(QString, result);
    QVERIFY(m_cloud.control("DELETE", QStringLiteral("/control/mqtt/auth")).isObject());
    const QJsonObject dns = m_client->send(QStringLiteral("/mqtt/control/v1/")).json();
    const QByteArray pem = TestRsa::pemFromBody(
        at(dns, fault == "backup key" ? "data/slave/0/publicKey" : "data/main/publicKey").toString());
    const QByteArray key(fault == "short key" ? 16 : 32, 'k');
    const qint64 expiry = QDateTime::currentMSecsSinceEpoch() + (fault == "expired" ? -1000 : 6000);
    QByteArray message = (fault == "product" ? "100002" : "100001") + QByteArray("||") + key.toBase64() + "||"
        + (fault == "expiry text" ? QByteArray("soon") : QByteArray::number(expiry));
    if (fault == "two pieces")
        message = message.left(message.lastIndexOf("||"));
    const QByteArray ciphertext = fault == "garbage" ? QByteArray(256, 'x') : TestRsa::encrypt(pem, message);
    Headers headers = fault == "headers" ? Headers{{"Token", "tok-1"}, {"Authorization", "tok-1"}}
                                         : CloudClient::gatewayHeaders("tok-1");
    if (fault == "token")
        headers = CloudClient::gatewayHeaders() + Headers{{"Token", "tok-1"}, {"Authorization", "tok-2"}};
    const QJsonObject record{{"authCiphertext", QString::fromLatin1(ciphertext.toBase64())}, {"type", "1"}};
    const Answer a = m_client->send(QUrl(at(dns, "data/main/mqttAuthUrl").toString()).path(),
                                    headers + Headers{{"Content-Type", "application/json"}}, "POST",
                                    QJsonDocument(record).toJson(QJsonDocument::Compact));
    QCOMPARE(a.status, 200);
    QCOMPARE(a.json().value("status").toString(), QStringLiteral("fail"));
    QCOMPARE(a.json().value("error").toString(), error);
    QVERIFY(!a.json().contains("data"));
    const QJsonValue logged = at(m_cloud.control("GET", QStringLiteral("/control/mqtt/auth")).object(), "exchanges/0");
    QCOMPARE(at(logged, "result").toString(), result);
}

QTEST_MAIN(TestCloudSim)
#include "tst_cloudsim.moc"
