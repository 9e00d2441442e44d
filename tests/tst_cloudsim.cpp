// The local cloud where docs/protocol.md fixes it and the module's own tests cannot tell a
// mistake the module and cloudsim share: what is computed here (the slider rule, the RSA and AES
// exchanges, the expected records and topics) is written from the document, not from either side.

#include "cloudmaterial/login/loginkeys.h"
#include "localcloud/cloudsim.h"
#include "localcloud/mosquitto.h"
#include "support/cloudclient.h"
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

const QString catalogueQuery =
    QStringLiteral("/gateway/cirro?cirro=Rest/Lite/Medias?search=&offset=0&limit=50&tag=&filters%5Btype%5D%5B0%5D=1"
                   "&filters%5Btype%5D%5B1%5D=0&filters%5Btype%5D%5B3%5D=30&sortType=desc");
const QString slider = QStringLiteral("v1/web-backend-service/identity-verify-code/slider");
const QString phoneLogin = QStringLiteral("v1/web-backend-service/authenticate/limit/mobile-phone");
const QString emailLogin = QStringLiteral("v1/web-backend-service/authenticate/limit/email");
const QString passwordLogin = QStringLiteral("v1/web-backend-service/authenticate/limit/password");
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

QJsonArray mediaList(const QJsonObject &catalogue)
{
    return catalogue.value("data").toObject().value("mediaList").toArray();
}

struct Triple
{
    QString sessionId, sig, token;
};

// The page's algorithm as documented: token = "nc-" + base64url(summary), sig = hex
// HMAC-SHA256 of sessionId + "|" + token under the page key.
Triple signedTriple(const QString &token)
{
    Triple t{QUuid::createUuid().toString(QUuid::WithoutBraces), QString(), token};
    t.sig = QString::fromLatin1(QMessageAuthenticationCode::hash((t.sessionId + "|" + token).toUtf8(), "rxcm-slider-v1",
                                                                 QCryptographicHash::Sha256)
                                    .toHex());
    return t;
}

Triple sliderTriple()
{
    return signedTriple(
        QStringLiteral("nc-")
        + QString::fromLatin1(QByteArray(R"({"dx":258,"ms":840,"n":37})")
                                  .toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals)));
}

// What the module does with its built-in key: RSA PKCS#1 v1.5, then Base64.
QString encryptForCloud(const QByteArray &plain)
{
    return QString::fromLatin1(TestRsa::encrypt(talvor::cloudmaterial::loginPublicKey, plain).toBase64());
}

QByteArray deviceSignature(qint64 fromNow)
{
    return QJsonDocument(QJsonObject{{"source", "rxcm"},
                                     {"deviceSignature", "dev-42"},
                                     {"timestamp", QDateTime::currentMSecsSinceEpoch() + fromNow}})
        .toJson(QJsonDocument::Compact);
}

// The module sends every member of a record, empty or not; the slider triple when given.
QJsonObject loginInfo(const QJsonObject &filled, const Triple &t = {})
{
    QJsonObject body{{"sessionId", t.sessionId}, {"sig", t.sig}, {"token", t.token}};
    for (const char *key : {"identityVerifyCode", "oauthConfiguration", "mobilePhone", "countryCode", "creditSignature",
                            "email", "identify", "password"})
        body.insert(QLatin1String(key), filled.value(QLatin1String(key)).toString());
    return body;
}

// A phone's country code goes in "parameter"; no address makes it a slider check only.
QJsonObject codeRequest(const QString &address, const Triple &t, const char *templateCode = "LOGIN")
{
    const bool email = address.contains(QLatin1Char('@'));
    return QJsonObject{{"flag", 0},
                       {"key", "key-7"},
                       {"parameter", email || address.isEmpty() ? "" : "86"},
                       {"phone", address},
                       {"sessionId", t.sessionId},
                       {"sig", t.sig},
                       {"templateCode", address.isEmpty() ? "" : templateCode},
                       {"token", t.token},
                       {"type",
                        address.isEmpty() ? ""
                            : email       ? "EMAIL"
                                          : "MOBILE_PHONE"}};
}

// AES-256-ECB with PKCS#7 padding; empty when the padding does not check out.
QByteArray aesDecrypt(const QByteArray &key, const QByteArray &ciphertext)
{
    EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
    QByteArray out(ciphertext.size() + 32, '\0');
    int first = 0, last = 0;
    auto *o = reinterpret_cast<unsigned char *>(out.data());
    const bool ok =
        EVP_DecryptInit_ex(ctx, EVP_aes_256_ecb(), nullptr, reinterpret_cast<const uchar *>(key.data()), nullptr)
        && EVP_DecryptUpdate(ctx, o, &first, reinterpret_cast<const uchar *>(ciphertext.data()), ciphertext.size())
        && EVP_DecryptFinal_ex(ctx, o + first, &last);
    EVP_CIPHER_CTX_free(ctx);
    out.resize(ok ? first + last : 0);
    return out;
}

} // namespace

Q_DECLARE_METATYPE(Triple)

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
    void catalogueHeaderChecks();
    void catalogueQueryChecks_data();
    void catalogueQueryChecks();
    void rangeRequests();
    void nodeDirectoryAndDns();
    void sliderCheck_data();
    void sliderCheck();
    void codeLoginReplyRecord();
    void loginFailures_data();
    void loginFailures();
    void deviceCreditSignature();
    void strictRefusals_data();
    void strictRefusals();
    void playerAuthPath_data();
    void playerAuthPath();
    void mqttExchange_data();
    void mqttExchange();

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
    // Asks for a code (for a login, or for the second factor) with a valid slider triple and
    // returns the one cloudsim "sent".
    QString requestCode(const QString &address, const char *templateCode = "LOGIN")
    {
        if (!post(slider, codeRequest(address, sliderTriple(), templateCode)).json().value("status").toBool())
            return QString();
        return m_cloud.control("GET", QStringLiteral("/control/codes")).object().value(address).toString();
    }

    // A request to @p service that the cloud accepts, with what it needs already done (a code
    // sent, bob's first login step for the device credit, whose headers go to @p headers).
    QJsonObject acceptedRequest(const QString &service, Headers *headers);

    CloudSim m_cloud;
    std::unique_ptr<CloudClient> m_client;
};

void TestCloudSim::catalogueRecordShape()
{
    const QJsonObject reply = send(catalogueQuery, CloudClient::gatewayHeaders("tok-1")).json();
    QCOMPARE(reply.keys(), (QStringList{"data", "http_code", "status"}));
    QCOMPARE(reply.value("status").toString(), QStringLiteral("success"));
    QCOMPARE(reply.value("data").toObject().value("count").toInt(), 2);
    const QJsonObject m2 = mediaList(reply).at(0).toObject(); // newest first
    const QJsonObject m1 = mediaList(reply).at(1).toObject();

    // The wire order is the cloud's, which QJsonObject does not keep: check it on the text of a
    // reply that holds one record, the entity's keys inside media_entity.
    const QByteArray one =
        send(QString(catalogueQuery).replace(QStringLiteral("search=&"), QStringLiteral("search=intro&")),
             CloudClient::gatewayHeaders("tok-1"))
            .body;
    QCOMPARE(mediaList(QJsonDocument::fromJson(one).object()).size(), 1);
    int last = 0;
    for (const char *key : {"mid",
                            "oid",
                            "create_uid",
                            "approvalStatus",
                            "mediaName",
                            "mediaType",
                            "media_entity",
                            "mid",
                            "size",
                            "height",
                            "width",
                            "thumb_image_url",
                            "unique",
                            "duration_time",
                            "video_support_platform",
                            "workgroup",
                            "isMediaSupported",
                            "ossDir",
                            "bigPictureAddress",
                            "pictureAddress",
                            "pictureDafaultAddress"}) {
        const int at = int(one.indexOf("\"" + QByteArray(key) + "\":", last + 1));
        QVERIFY2(at > last, key);
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
    QCOMPARE(send(QUrl(m1.value("ossDir").toString()).path(QUrl::FullyEncoded)).body, generatedContent(0, 4096));
}

void TestCloudSim::catalogueHeaderChecks()
{
    // The gateway refuses inside a 200, as the cloud does: a wrong version, then a Token that differs.
    const QList<QPair<Headers, int>> cases{
        {CloudClient::gatewayHeaders("tok-1"), 200},
        {{{"source", "mediaserver"}, {"version", "V2.0.0"}, {"Authorization", "tok-1"}, {"Token", "tok-1"}}, 400},
        {{{"source", "mediaserver"}, {"version", "V1.0.0"}, {"Authorization", "tok-1"}, {"Token", "tok-2"}}, 401}};
    for (const auto &c : cases) {
        const Answer a = send(catalogueQuery, c.first);
        QCOMPARE(a.status, 200);
        QCOMPARE(a.json().value("http_code").toInt(), c.second);
        QCOMPARE(a.body.contains("\"error\""), c.second != 200);
        QCOMPARE(mediaList(a.json()).size(), c.second == 200 ? 2 : 0);
    }
}

void TestCloudSim::catalogueQueryChecks_data()
{
    QTest::addColumn<QString>("from");
    QTest::addColumn<QString>("to");
    QTest::addColumn<QString>("error");
    QTest::addColumn<QStringList>("mids");

    const QString filter0 = QStringLiteral("&filters%5Btype%5D%5B0%5D=1");
    const QStringList both{"m2", "m1"};
    QTest::newRow("as the module sends it") << QString() << QString() << QString() << both;
    QTest::newRow("whole value encoded")
        << QStringLiteral("cirro=Rest/Lite/"
                          "Medias?search=&offset=0&limit=50&tag=&filters%5Btype%5D%5B0%5D=1&filters%5Btype%5D%5B1%5D=0&"
                          "filters%5Btype%5D%5B3%5D=30&sortType=desc")
        << QStringLiteral("cirro=Rest%2FLite%2FMedias%3Fsearch%3D%26offset%3D0%26limit%3D50%26tag%3D%26filters%"
                          "255Btype%255D%255B0%255D%3D1%26sortType%3Ddesc")
        << QString() << both;
    QTest::newRow("second page of one") << QStringLiteral("offset=0&limit=50") << QStringLiteral("offset=1&limit=1")
                                        << QString() << QStringList{"m1"};
    QTest::newRow("oldest first") << QStringLiteral("sortType=desc") << QStringLiteral("sortType=asc") << QString()
                                  << QStringList{"m1", "m2"};
    QTest::newRow("no offset") << QStringLiteral("offset=0&") << QString() << QStringLiteral("invalid offset")
                               << QStringList();
    QTest::newRow("empty offset") << QStringLiteral("offset=0") << QStringLiteral("offset=")
                                  << QStringLiteral("invalid offset") << QStringList();
    QTest::newRow("negative offset") << QStringLiteral("offset=0") << QStringLiteral("offset=-1")
                                     << QStringLiteral("invalid offset") << QStringList();
    QTest::newRow("no limit") << QStringLiteral("limit=50&") << QString() << QStringLiteral("invalid limit")
                              << QStringList();
    QTest::newRow("letter in limit") << QStringLiteral("limit=50") << QStringLiteral("limit=5O")
                                     << QStringLiteral("invalid limit") << QStringList();
    QTest::newRow("zero limit") << QStringLiteral("limit=50") << QStringLiteral("limit=0")
                                << QStringLiteral("invalid limit") << QStringList();
    QTest::newRow("no sort") << QStringLiteral("&sortType=desc") << QString() << QStringLiteral("invalid sortType")
                             << QStringList();
    QTest::newRow("unknown sort") << QStringLiteral("sortType=desc") << QStringLiteral("sortType=dsc")
                                  << QStringLiteral("invalid sortType") << QStringList();
    QTest::newRow("no type filter") << QStringLiteral(
        "&filters%5Btype%5D%5B0%5D=1&filters%5Btype%5D%5B1%5D=0&filters%5Btype%5D%5B3%5D=30")
                                    << QString() << QStringLiteral("invalid type filter") << QStringList();
    QTest::newRow("filter without value") << filter0 << QStringLiteral("&filters%5Btype%5D%5B0%5D=")
                                          << QStringLiteral("invalid type filter") << QStringList();
    QTest::newRow("filter on another field") << filter0 << QStringLiteral("&filters%5Btyp%5D%5B0%5D=1")
                                             << QStringLiteral("invalid type filter") << QStringList();
    QTest::newRow("filter without index") << filter0 << QStringLiteral("&filters%5Btype%5D%5B%5D=1")
                                          << QStringLiteral("invalid type filter") << QStringList();
}

void TestCloudSim::catalogueQueryChecks()
{
    // The cloud defaults nothing: the module's paging, order and type filter must all be there.
    QFETCH(QString, from);
    QFETCH(QString, to);
    QFETCH(QString, error);
    QFETCH(QStringList, mids);
    QString query = catalogueQuery;
    if (!from.isEmpty()) {
        QVERIFY2(query.contains(from), qPrintable(from));
        query.replace(from, to);
    }
    const Answer a = send(query, CloudClient::gatewayHeaders("tok-1"));
    QCOMPARE(a.status, 200);
    const QJsonObject reply = a.json();
    QCOMPARE(reply.value("http_code").toInt(), error.isEmpty() ? 200 : 400);
    QCOMPARE(reply.value("error").toString(), error);
    QCOMPARE(reply.value("status").toString(), error.isEmpty() ? QStringLiteral("success") : QStringLiteral("fail"));
    QStringList got;
    for (const QJsonValue &m : mediaList(reply))
        got << m.toObject().value("mid").toString();
    QCOMPARE(got, mids);
}

void TestCloudSim::rangeRequests()
{
    // The downloader resumes with "bytes=N-" and reads Content-Range back.
    const Answer part = send(QStringLiteral("/files/data.bin"), {{"Range", "bytes=1237-"}});
    QCOMPARE(part.status, 206);
    QCOMPARE(part.header("Content-Range"), QByteArray("bytes 1237-4999/5000"));
    QCOMPARE(part.body, generatedContent(1237, 3763));
    const Answer past = send(QStringLiteral("/files/data.bin"), {{"Range", "bytes=5000-"}});
    QCOMPARE(past.status, 416);
    QCOMPARE(past.header("Content-Range"), QByteArray("bytes */5000"));
}

void TestCloudSim::nodeDirectoryAndDns()
{
    const Answer nodes = send(QStringLiteral("/nodes.json"));
    // Published with the dash; the module rewrites it before reading.
    QVERIFY(!nodes.body.contains("zh_cn"));
    const QJsonArray list = nodes.json().value("cirro").toArray();
    QCOMPARE(list.size(), 5);
    QCOMPARE(list.at(0).toObject().value("node").toString(), m_cloud.host());
    QCOMPARE(list.at(0).toObject().value("label").toObject().value("zh-cn").toString(), QString::fromUtf8("中国"));

    const QJsonObject data = send(QStringLiteral("/mqtt/control/v1/")).json().value("data").toObject();
    const QJsonObject main = data.value("main").toObject();
    const QJsonObject backup = data.value("slave").toArray().at(0).toObject();
    QCOMPARE(main.value("currentNodeIdentity").toString(), QStringLiteral("cn-1"));
    QCOMPARE(main.value("mqttAuthUrl").toString(), m_cloud.url(QStringLiteral("/mqtt/auth")));
    QCOMPARE(backup.value("mqttAuthUrl").toString(), m_cloud.url(QStringLiteral("/mqtt/auth-backup")));
    // A bare key body, usable once wrapped the way the module wraps it.
    QCOMPARE(TestRsa::bits(TestRsa::pemFromBody(main.value("publicKey").toString())), 2048);
    QCOMPARE(TestRsa::bits(TestRsa::pemFromBody(backup.value("publicKey").toString())), 2048);
}

void TestCloudSim::sliderCheck_data()
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
    Triple flipped = good;
    flipped.sig[0] = flipped.sig[0] == QLatin1Char('0') ? QLatin1Char('1') : QLatin1Char('0');
    QTest::newRow("one digit changed") << flipped << false;
    QTest::newRow("no nc- prefix") << signedTriple(QStringLiteral("eyJkeCI6MjU4LCJtcyI6ODQwLCJuIjozN30")) << false;
}

void TestCloudSim::sliderCheck()
{
    QFETCH(Triple, triple);
    QFETCH(bool, accepted);
    // A pure slider check: no address, so no code is sent.
    const QJsonObject reply = post(slider, codeRequest(QString(), triple)).json();
    QCOMPARE(reply.value("status").toBool(), accepted);
    QCOMPARE(reply.value("key").toString(), accepted ? QStringLiteral("key-7") : QString());
}

void TestCloudSim::codeLoginReplyRecord()
{
    const QString code = requestCode(QStringLiteral("13800000001"));
    QCOMPARE(code.size(), 6);
    const Answer a = post(
        phoneLogin, loginInfo({{"mobilePhone", "13800000001"}, {"countryCode", "86"}, {"identityVerifyCode", code}}));
    QVERIFY2(!a.body.contains("\"error\""), a.body.constData());
    const QJsonObject reply = a.json();
    QCOMPARE(reply.keys(), (QStringList{"deviceProtect", "id", "identifyInfo", "loginProtect", "token"}));
    QCOMPARE(reply.value("id").toInt(), 123);
    QCOMPARE(reply.value("deviceProtect").toObject().value("status").toInt(), 1);
    QCOMPARE(reply.value("token").toObject().value("expiresIn").toInt(), 7200);
    QCOMPARE(reply.value("identifyInfo").toObject(),
             (QJsonObject{{"countryCode", "86"},
                          {"email", "alice@example.test"},
                          {"mobilePhone", "13800000001"},
                          {"name", "alice"}}));
    // The fresh token opens the account's catalogue.
    const QByteArray bearer = reply.value("token").toObject().value("token").toString().toUtf8();
    QCOMPARE(mediaList(send(catalogueQuery, CloudClient::gatewayHeaders(bearer)).json()).size(), 2);
}

void TestCloudSim::loginFailures_data()
{
    QTest::addColumn<QString>("service");
    QTest::addColumn<QJsonObject>("body");
    QTest::addColumn<QByteArray>("code");
    QTest::addColumn<QByteArray>("field");
    auto phone = [](const char *number) {
        return loginInfo({{"mobilePhone", number}, {"countryCode", "86"}, {"identityVerifyCode", "246810"}});
    };
    auto password = [](const char *identify, const QString &encrypted) {
        return loginInfo({{"identify", identify}, {"password", encrypted}}, sliderTriple());
    };
    QTest::newRow("phone: wrong code") << phoneLogin << phone("13800000001") << QByteArray("10006") << QByteArray();
    QTest::newRow("phone: unknown") << phoneLogin << phone("13999999999") << QByteArray("100058")
                                    << QByteArray("MOBILE_PHONE");
    // carol's fixed code is right, but code logins are locked for her.
    QTest::newRow("phone: locked") << phoneLogin << phone("13800000003") << QByteArray("100096") << QByteArray();
    QTest::newRow("email: unknown") << emailLogin
                                    << loginInfo({{"email", "nobody@example.test"}, {"identityVerifyCode", "1"}})
                                    << QByteArray("100058") << QByteArray("EMAIL");
    QTest::newRow("password: wrong") << passwordLogin << password("alice", encryptForCloud("s3cret-Pa56"))
                                     << QByteArray("10009") << QByteArray();
    QTest::newRow("password: locked") << passwordLogin << password("carol", encryptForCloud("carol-pass"))
                                      << QByteArray("100095") << QByteArray();
    // The right password, but not encrypted: cloudsim must really decrypt.
    QTest::newRow("password: plain Base64")
        << passwordLogin << password("alice", "czNjcmV0LVBhNTU=") << QByteArray("10012") << QByteArray();
}

void TestCloudSim::loginFailures()
{
    QFETCH(QString, service);
    QFETCH(QJsonObject, body);
    QFETCH(QByteArray, code);
    QFETCH(QByteArray, field);
    const Answer a = post(service, body);
    // Refused inside a 200, as the cloud does; the module finds the quoted code in the text.
    QCOMPARE(a.status, 200);
    QCOMPARE(a.json().value("error").toObject().value("code").toString(), QString::fromLatin1(code));
    QVERIFY(!a.json().contains("token"));
    // No other code the module looks for, so its first-hit search cannot go astray.
    for (const QByteArray &other : moduleCodes)
        QCOMPARE(a.body.contains("\"" + other + "\""), other == code);
    QCOMPARE(a.body.contains("\"MOBILE_PHONE\""), field == "MOBILE_PHONE");
    QCOMPARE(a.body.contains("\"EMAIL\""), field == "EMAIL");
}

void TestCloudSim::deviceCreditSignature()
{
    // bob's password login succeeds but asks for the second factor through deviceProtect.status.
    const auto login = [this](const QString &signature) {
        return post(
                   passwordLogin,
                   loginInfo(
                       {{"identify", "bob"}, {"password", encryptForCloud("bob-pass")}, {"creditSignature", signature}},
                       sliderTriple()))
            .json();
    };
    const QJsonObject first = login(QString());
    QCOMPARE(first.value("deviceProtect").toObject().value("status").toInt(-1), 0);
    const QByteArray bearer = first.value("token").toObject().value("token").toString().toUtf8();
    const QString code = requestCode(QStringLiteral("13800000002"), "TRUST_DEVICE");
    QCOMPARE(code.size(), 6);
    // The signature's timestamp is in milliseconds and must lie ahead.
    const auto credit = [&](qint64 fromNow) {
        return post(deviceCredit,
                    QJsonObject{{"identityVerifyCode", code},
                                {"identify", "bob"},
                                {"countryCode", "86"},
                                {"creditSignature", ""},
                                {"type", "1"},
                                {"authCiphertext", encryptForCloud(deviceSignature(fromNow))}},
                    {{"Token", bearer}, {"Authorization", bearer}});
    };
    QCOMPARE(credit(-1000).json().value("error").toObject().value("code").toString(), QStringLiteral("10014"));
    const Answer a = credit(60000);
    QVERIFY2(!a.body.contains("\"error\""), a.body.constData());
    QCOMPARE(a.json().value("info").toString(), QStringLiteral("ok"));
    // A login that carries the signature is from a trusted device.
    QCOMPARE(login(a.json().value("signature").toString()).value("deviceProtect").toObject().value("status").toInt(-1),
             1);
}

QJsonObject TestCloudSim::acceptedRequest(const QString &service, Headers *headers)
{
    if (service == slider)
        return codeRequest(QStringLiteral("13800000001"), sliderTriple());
    if (service == phoneLogin)
        return loginInfo({{"mobilePhone", "13800000001"},
                          {"countryCode", "+86"},
                          {"identityVerifyCode", requestCode(QStringLiteral("13800000001"))}});
    if (service == emailLogin)
        return loginInfo({{"email", "alice@example.test"},
                          {"identityVerifyCode", requestCode(QStringLiteral("alice@example.test"))}});
    if (service == passwordLogin)
        return loginInfo({{"identify", "alice"}, {"password", encryptForCloud("s3cret-Pa55")}}, sliderTriple());
    // bob's second factor: his first login step, then the code that was sent to his phone.
    const QJsonObject first =
        post(passwordLogin, loginInfo({{"identify", "bob"}, {"password", encryptForCloud("bob-pass")}}, sliderTriple()))
            .json();
    const QByteArray bearer = first.value("token").toObject().value("token").toString().toUtf8();
    const QString code = requestCode(QStringLiteral("13800000002"), "TRUST_DEVICE");
    if (service != deviceCredit)
        return QJsonObject{{"identityVerifyCode", code}, {"identify", "bob"}, {"countryCode", "86"}, {"id", 124}};
    *headers = {{"Token", bearer}, {"Authorization", bearer}};
    return QJsonObject{
        {"identityVerifyCode", code}, {"identify", "bob"}, {"countryCode", "86"},
        {"creditSignature", ""},      {"type", "1"},       {"authCiphertext", encryptForCloud(deviceSignature(60000))}};
}

void TestCloudSim::strictRefusals_data()
{
    QTest::addColumn<QString>("service");
    // "member=value" replaces a member; "used": the same request went through once before;
    // "expired": the slider and codes last 1 ms and the request comes later; "no slider".
    QTest::addColumn<QString>("fault");
    QTest::addColumn<QByteArray>("code"); // empty: accepted; "-": refused without a code
    QTest::addColumn<QByteArray>("field");
    const QString codeStep = QStringLiteral("v1/web-backend-service/account/mobilephoneverifycode");
    auto row = [](const char *name, const QString &service, const char *fault, const char *code,
                  const char *field = "") {
        QTest::newRow(name) << service << QString::fromLatin1(fault) << QByteArray(code) << QByteArray(field);
    };
    row("code request", slider, "", "");
    row("code request: triple used", slider, "used", "-");
    row("code request: triple expired", slider, "expired", "-");
    row("code request: no slider", slider, "no slider", "-");
    row("code request: no country code", slider, "parameter=", "100058", "MOBILE_PHONE");
    row("code request: another country", slider, "parameter=44", "100058", "MOBILE_PHONE");
    row("code request: no type", slider, "type=", "10016", "type");
    row("code request: e-mail type for a phone", slider, "type=EMAIL", "10016", "type");
    row("code request: no template", slider, "templateCode=", "10016", "templateCode");
    row("code request: no key", slider, "key=", "10016", "key");
    row("phone login", phoneLogin, "", "");
    row("phone login: code used", phoneLogin, "used", "10006");
    row("phone login: code expired", phoneLogin, "expired", "10006");
    row("phone login: no country code", phoneLogin, "countryCode=", "100058", "MOBILE_PHONE");
    row("phone login: another country", phoneLogin, "countryCode=+44", "100058", "MOBILE_PHONE");
    row("phone login: a second-factor code", phoneLogin, "other purpose", "10006");
    row("e-mail login: code used", emailLogin, "used", "10006");
    row("password login", passwordLogin, "", "");
    row("password login: triple used", passwordLogin, "used", "10011");
    row("password login: triple expired", passwordLogin, "expired", "10011");
    row("code step", codeStep, "", "");
    row("code step: another account", codeStep, "identify=alice", "100058", "MOBILE_PHONE");
    row("code step: no country code", codeStep, "countryCode=", "100058", "MOBILE_PHONE");
    row("code step: a login code", codeStep, "other purpose", "10006");
    row("device credit", deviceCredit, "", "");
    row("device credit: code used", deviceCredit, "used", "10006");
    row("device credit: a login code", deviceCredit, "other purpose", "10006");
    row("device credit: another account", deviceCredit, "identify=carol", "100058", "MOBILE_PHONE");
    row("device credit: another country", deviceCredit, "countryCode=1", "100058", "MOBILE_PHONE");
    row("device credit: no type", deviceCredit, "type=", "10016", "type");
    row("device credit: another type", deviceCredit, "type=2", "10016", "type");
    row("device credit: a signature never given", deviceCredit, "creditSignature=cs-00", "10016", "creditSignature");
    row("device credit: no device signature", deviceCredit, "authCiphertext=", "10013");
}

void TestCloudSim::strictRefusals()
{
    QFETCH(QString, service);
    QFETCH(QString, fault);
    QFETCH(QByteArray, code);
    QFETCH(QByteArray, field);

    if (fault == QLatin1String("expired")) {
        QJsonObject root = QJsonDocument::fromJson(scenario).object();
        root.insert("validity", QJsonObject{{"slider", 1}, {"code", 1}});
        m_cloud.stop();
        QVERIFY(m_cloud.start(QJsonDocument(root).toJson(QJsonDocument::Compact)));
    }
    Headers headers;
    QJsonObject body = acceptedRequest(service, &headers);
    const QString member = fault.section(QLatin1Char('='), 0, 0);
    if (fault.contains(QLatin1Char('='))) {
        QVERIFY(body.contains(member));
        body.insert(member, fault.section(QLatin1Char('='), 1));
    } else if (fault == QLatin1String("no slider")) {
        for (const char *key : {"sessionId", "sig", "token"})
            body.insert(QLatin1String(key), QString());
    } else if (fault == QLatin1String("other purpose")) {
        // The newest code of the address, sent for the other purpose than this request's.
        const bool secondFactor = service != phoneLogin;
        const QString code = requestCode(secondFactor ? QStringLiteral("13800000002") : QStringLiteral("13800000001"),
                                         secondFactor ? "LOGIN" : "TRUST_DEVICE");
        QCOMPARE(code.size(), 6);
        body.insert("identityVerifyCode", code);
    } else if (fault == QLatin1String("used")) {
        QVERIFY(!post(service, body, headers).body.contains("\"error\""));
    } else if (fault == QLatin1String("expired")) {
        // A slider check alone starts the triple's clock without using it.
        if (!body.value("sessionId").toString().isEmpty())
            QVERIFY(post(slider,
                         codeRequest(QString(),
                                     {body.value("sessionId").toString(), body.value("sig").toString(),
                                      body.value("token").toString()}))
                        .json()
                        .value("status")
                        .toBool());
        const qint64 seen = QDateTime::currentMSecsSinceEpoch();
        QTRY_VERIFY(QDateTime::currentMSecsSinceEpoch() > seen + 1);
    }

    const Answer a = post(service, body, headers);
    QCOMPARE(a.status, 200);
    const QJsonObject reply = a.json();
    QCOMPARE(reply.value("error").toObject().value("code").toString(), QString::fromLatin1(code == "-" ? "" : code));
    QCOMPARE(reply.value("error").toObject().value("field").toString(), QString::fromLatin1(field));
    if (service == slider) {
        // The code request's own shape: refused, nothing echoed, no code sent.
        QCOMPARE(reply.value("status").toBool(), code.isEmpty());
        QCOMPARE(reply.value("key").toString(), code.isEmpty() ? QStringLiteral("key-7") : QString());
    } else {
        QCOMPARE(a.body.contains("\"error\""), !code.isEmpty());
    }
}

void TestCloudSim::playerAuthPath_data()
{
    QTest::addColumn<QString>("cirro");
    QTest::addColumn<bool>("served");
    const QByteArray path = "v1/web-backend-service/player/auth";
    QTest::newRow("Base64") << QString::fromLatin1(path.toBase64()) << true;
    QTest::newRow("plain") << QString::fromLatin1(path) << false;
}

void TestCloudSim::playerAuthPath()
{
    QFETCH(QString, cirro);
    QFETCH(bool, served);
    const Answer a = send(QStringLiteral("/gateway/apis?cirro=") + cirro, {{"authorization", "tok-1"}});
    // The plain path is no service: GET is not the login services' method.
    QCOMPARE(a.status, served ? 200 : 405);
    QCOMPARE(a.json().value("value").toObject().value("cirro").toObject().value("username").toString(),
             served ? QStringLiteral("bind-user") : QString());
}

void TestCloudSim::mqttExchange_data()
{
    QTest::addColumn<QString>("endpoint");
    QTest::addColumn<QString>("path");
    QTest::newRow("main") << "main"
                          << "/mqtt/auth";
    QTest::newRow("backup") << "backup"
                            << "/mqtt/auth-backup";
}

void TestCloudSim::mqttExchange()
{
    QFETCH(QString, endpoint);
    QFETCH(QString, path);
    Mosquitto broker;
    QVERIFY(broker.start());
    QVERIFY(m_cloud.control("POST", QStringLiteral("/control/mqtt"), QJsonDocument(QJsonObject{{"url", broker.url()}}))
                .object()
                .value("connected")
                .toBool());
    const QJsonObject dns = send(QStringLiteral("/mqtt/control/v1/")).json().value("data").toObject();
    const QJsonObject node =
        endpoint == "main" ? dns.value("main").toObject() : dns.value("slave").toArray().at(0).toObject();
    QByteArray key(32, '\0');
    RAND_bytes(reinterpret_cast<unsigned char *>(key.data()), key.size());
    const QByteArray message =
        "100001||" + key.toBase64() + "||" + QByteArray::number(QDateTime::currentMSecsSinceEpoch() + 6000);
    const QByteArray sealed = TestRsa::encrypt(TestRsa::pemFromBody(node.value("publicKey").toString()), message);
    const QJsonObject record{{"authCiphertext", QString::fromLatin1(sealed.toBase64())}, {"type", "1"}};
    const Answer a = send(path, CloudClient::gatewayHeaders("tok-1") + Headers{{"Content-Type", "application/json"}},
                          "POST", QJsonDocument(record).toJson(QJsonDocument::Compact));
    QCOMPARE(a.json().value("http_code").toInt(), 200);
    const QJsonObject logged = m_cloud.control("GET", QStringLiteral("/control/mqtt/auth"))
                                   .object()
                                   .value("exchanges")
                                   .toArray()
                                   .at(0)
                                   .toObject();
    QCOMPARE(logged.value("endpoint").toString(), endpoint);
    QCOMPARE(logged.value("result").toString(), QStringLiteral("ok"));
    // The account as docs/protocol.md writes it: compact, keys password, url, username.
    QCOMPARE(aesDecrypt(key, QByteArray::fromBase64(a.json().value("data").toString().toLatin1())),
             R"({"password":"dev-pass","url":")" + broker.url().toUtf8() + R"(","username":"dev-user"})");

    // The player authorization hands out the binding account, with the Base64 service path.
    const QString cirro = QString::fromLatin1(QByteArray("v1/web-backend-service/player/auth").toBase64());
    QCOMPARE(send(QStringLiteral("/gateway/apis?cirro=") + cirro, {{"authorization", "tok-1"}})
                 .json()
                 .value("value")
                 .toObject()
                 .value("cirro")
                 .toObject(),
             (QJsonObject{{"username", "bind-user"}, {"password", "bind-pass"}, {"server", broker.url()}}));
}

QTEST_MAIN(TestCloudSim)
#include "tst_cloudsim.moc"
