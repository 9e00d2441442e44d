// The messaging side of the local cloud where docs/protocol.md fixes it: the player
// authorization, the encrypted exchange that hands out the MQTT account and the device
// service's topics and replies on a real mosquitto. The exchange is done here with OpenSSL,
// independently of the module; the device messages are sent with mosquitto_pub.

#include "support/cloudclient.h"
#include "support/cloudsimfixture.h"
#include "support/mosquittofixture.h"
#include "support/testrsa.h"

#include <QtTest>

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <memory>
#include <optional>

namespace {

const QByteArray scenario = R"({
  "accounts":[{"id":123,"name":"alice","password":"alice-pass","token":"tok-alice"}],
  "mqtt":{"username":"dev-user","password":"dev-pass","bindingUsername":"bind-user","bindingPassword":"bind-pass"}
})";

const QByteArray token = "tok-alice";

using Answer = CloudClient::Answer;
using Headers = CloudClient::Headers;

// What the module sends with an exchange.
const Headers moduleHeaders = CloudClient::gatewayHeaders(token) + Headers{{"Content-Type", "application/json"}};

qint64 nowMs()
{
    return QDateTime::currentMSecsSinceEpoch();
}

// AES-256-ECB with PKCS#7 padding; nothing when the padding does not check out.
std::optional<QByteArray> aesDecrypt(const QByteArray &key, const QByteArray &ciphertext)
{
    EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
    QByteArray out(ciphertext.size() + 32, '\0');
    int first = 0;
    int last = 0;
    const bool ok =
        EVP_DecryptInit_ex(ctx, EVP_aes_256_ecb(), nullptr, reinterpret_cast<const unsigned char *>(key.constData()),
                           nullptr)
            == 1
        && EVP_DecryptUpdate(ctx, reinterpret_cast<unsigned char *>(out.data()), &first,
                             reinterpret_cast<const unsigned char *>(ciphertext.constData()), ciphertext.size())
               == 1
        && EVP_DecryptFinal_ex(ctx, reinterpret_cast<unsigned char *>(out.data()) + first, &last) == 1;
    EVP_CIPHER_CTX_free(ctx);
    if (!ok)
        return std::nullopt;
    out.resize(first + last);
    return out;
}

QByteArray aesKey()
{
    QByteArray key(32, '\0');
    RAND_bytes(reinterpret_cast<unsigned char *>(key.data()), key.size());
    return key;
}

QByteArray keyMessage(const QByteArray &product, const QByteArray &key, qint64 expiry)
{
    return product + "||" + key.toBase64() + "||" + QByteArray::number(expiry);
}

// The account as docs/protocol.md writes it: compact, keys password, url, username.
QByteArray accountJson(const QString &url)
{
    return R"({"password":"dev-pass","url":")" + url.toUtf8() + R"(","username":"dev-user"})";
}

bool mosquittoPublish(int port, const QString &topic, const QByteArray &payload)
{
    QProcess pub;
    pub.start(findMosquittoProgram(QStringLiteral("mosquitto_pub")),
              {QStringLiteral("-h"), QStringLiteral("127.0.0.1"), QStringLiteral("-p"), QString::number(port),
               QStringLiteral("-t"), topic, QStringLiteral("-m"), QString::fromUtf8(payload), QStringLiteral("-q"),
               QStringLiteral("2")});
    return pub.waitForFinished(20000) && pub.exitStatus() == QProcess::NormalExit && pub.exitCode() == 0;
}

// "topic payload" lines of mosquitto_sub -v, split at the first space.
QJsonObject payloadOn(const QStringList &lines, const QString &topic)
{
    for (const QString &line : lines)
        if (line.startsWith(topic + QLatin1Char(' ')))
            return QJsonDocument::fromJson(line.mid(topic.size() + 1).toUtf8()).object();
    return QJsonObject();
}

QStringList topicsOf(const QStringList &lines)
{
    QStringList topics;
    for (const QString &line : lines)
        topics << line.section(QLatin1Char(' '), 0, 0);
    return topics;
}

} // namespace

class TestCloudSimMqtt : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void playerAuthorization_data();
    void playerAuthorization();
    void exchangeHandsOutTheAccount_data();
    void exchangeHandsOutTheAccount();
    void exchangeRefusals_data();
    void exchangeRefusals();
    void bindingRequestGetsReply_data();
    void bindingRequestGetsReply();
    void commandsArriveOnTheirTopics_data();
    void commandsArriveOnTheirTopics();

private:
    Answer send(const QString &path, const Headers &headers = {}) { return m_client->send(path, headers); }
    Answer control(const QString &path, const QByteArray &verb = "GET", const QJsonObject &body = {});
    QJsonObject dnsEndpoint(int index);
    // One exchange as the module makes it; the reply's Base64 data decoded.
    Answer exchange(const QString &path, const QString &publicKey, const QByteArray &message,
                    const Headers &headers);
    bool connectBroker();

    CloudSim m_cloud;
    std::unique_ptr<CloudClient> m_client;
    std::unique_ptr<Mosquitto> m_broker;
};

void TestCloudSimMqtt::init()
{
    m_client = std::make_unique<CloudClient>(m_cloud);
    QVERIFY(m_cloud.start(scenario));
}

void TestCloudSimMqtt::cleanup()
{
    m_client.reset();
    m_cloud.stop();
    m_broker.reset();
}

Answer TestCloudSimMqtt::control(const QString &path, const QByteArray &verb, const QJsonObject &body)
{
    return m_client->send(path, {{"Content-Type", "application/json"}}, verb,
                          body.isEmpty() ? QByteArray() : QJsonDocument(body).toJson(QJsonDocument::Compact));
}

QJsonObject TestCloudSimMqtt::dnsEndpoint(int index)
{
    const QJsonObject data = send(QStringLiteral("/mqtt/control/v1/")).json().value("data").toObject();
    return index == 0 ? data.value("main").toObject() : data.value("slave").toArray().at(0).toObject();
}

Answer TestCloudSimMqtt::exchange(const QString &path, const QString &publicKey, const QByteArray &message,
                                  const Headers &headers)
{
    const QByteArray ciphertext = TestRsa::encrypt(TestRsa::pemFromBody(publicKey), message);
    if (ciphertext.isEmpty())
        return Answer();
    const QJsonObject record{{"authCiphertext", QString::fromLatin1(ciphertext.toBase64())}, {"type", "1"}};
    return m_client->send(path, headers, "POST", QJsonDocument(record).toJson(QJsonDocument::Compact));
}

bool TestCloudSimMqtt::connectBroker()
{
    m_broker = std::make_unique<Mosquitto>();
    if (!m_broker->start())
        return false;
    const Answer a = control(QStringLiteral("/control/mqtt"), "POST", QJsonObject{{"url", m_broker->url()}});
    return a.status == 200 && a.json().value("connected").toBool() && a.json().value("url").toString() == m_broker->url();
}

void TestCloudSimMqtt::playerAuthorization_data()
{
    QTest::addColumn<QString>("cirro");
    QTest::addColumn<QByteArray>("authorization");
    QTest::addColumn<bool>("granted");

    const QString encoded = QString::fromLatin1(QByteArray("v1/web-backend-service/player/auth").toBase64());
    QTest::newRow("login token") << encoded << token << true;
    QTest::newRow("plain service path") << QStringLiteral("v1/web-backend-service/player/auth") << token << true;
    QTest::newRow("unknown token") << encoded << QByteArray("tok-nobody") << false;
    QTest::newRow("no token") << encoded << QByteArray() << false;
}

void TestCloudSimMqtt::playerAuthorization()
{
    QFETCH(QString, cirro);
    QFETCH(QByteArray, authorization);
    QFETCH(bool, granted);
    QVERIFY(connectBroker());

    Headers headers;
    if (!authorization.isEmpty())
        headers.append({"authorization", authorization});
    const Answer a = send(QStringLiteral("/gateway/apis?cirro=") + cirro, headers);
    QCOMPARE(a.status, 200);
    const QJsonObject account = a.json().value("value").toObject().value("cirro").toObject();
    if (granted) {
        QCOMPARE(account.value("username").toString(), QStringLiteral("bind-user"));
        QCOMPARE(account.value("password").toString(), QStringLiteral("bind-pass"));
        QCOMPARE(account.value("server").toString(), m_broker->url());
        QVERIFY(!a.json().contains("error"));
    } else {
        QVERIFY(account.isEmpty());
        QVERIFY(a.json().contains("error"));
    }
}

void TestCloudSimMqtt::exchangeHandsOutTheAccount_data()
{
    QTest::addColumn<int>("endpoint");
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("logged");

    QTest::newRow("main") << 0 << QStringLiteral("/mqtt/auth") << QStringLiteral("main");
    QTest::newRow("backup") << 1 << QStringLiteral("/mqtt/auth-backup") << QStringLiteral("backup");
}

void TestCloudSimMqtt::exchangeHandsOutTheAccount()
{
    QFETCH(int, endpoint);
    QFETCH(QString, path);
    QFETCH(QString, logged);
    QVERIFY(connectBroker());

    const QJsonObject dns = dnsEndpoint(endpoint);
    QCOMPARE(QUrl(dns.value("mqttAuthUrl").toString()).path(), path);
    const QByteArray key = aesKey();
    const QByteArray message = keyMessage("100001", key, nowMs() + 6000);
    const Answer a = exchange(path, dns.value("publicKey").toString(), message, moduleHeaders);
    QCOMPARE(a.status, 200);
    QCOMPARE(a.json().value("http_code").toInt(), 200);
    QCOMPARE(a.json().value("status").toString(), QStringLiteral("success"));
    const auto account = aesDecrypt(key, QByteArray::fromBase64(a.json().value("data").toString().toLatin1()));
    QVERIFY(account);
    QCOMPARE(*account, accountJson(m_broker->url()));

    const QJsonArray exchanges = control(QStringLiteral("/control/mqtt/auth")).json().value("exchanges").toArray();
    QCOMPARE(exchanges.size(), 1);
    const QJsonObject entry = exchanges.at(0).toObject();
    QCOMPARE(entry.value("endpoint").toString(), logged);
    QCOMPARE(entry.value("keyMessage").toString().toLatin1(), message);
    QCOMPARE(entry.value("result").toString(), QStringLiteral("ok"));
    QCOMPARE(entry.value("wrongKey").toBool(), false);
}

void TestCloudSimMqtt::exchangeRefusals_data()
{
    QTest::addColumn<QByteArray>("product");
    QTest::addColumn<qint64>("expiryOffset");
    QTest::addColumn<int>("keyOf");      // which DNS key encrypts
    QTest::addColumn<bool>("withToken"); // the module's token headers
    QTest::addColumn<QString>("result");
    QTest::addColumn<int>("httpCode");

    QTest::newRow("wrong product code") << QByteArray("100002") << qint64(6000) << 0 << true
                                        << QStringLiteral("unknown product") << 400;
    QTest::newRow("expired") << QByteArray("100001") << qint64(-1000) << 0 << true << QStringLiteral("expired") << 400;
    QTest::newRow("backup key at main") << QByteArray("100001") << qint64(6000) << 1 << true
                                        << QStringLiteral("undecryptable") << 400;
    QTest::newRow("no token") << QByteArray("100001") << qint64(6000) << 0 << false << QStringLiteral("invalid token")
                              << 401;
}

void TestCloudSimMqtt::exchangeRefusals()
{
    QFETCH(QByteArray, product);
    QFETCH(qint64, expiryOffset);
    QFETCH(int, keyOf);
    QFETCH(bool, withToken);
    QFETCH(QString, result);
    QFETCH(int, httpCode);

    Headers headers = moduleHeaders;
    if (!withToken)
        headers = {{"source", "mediaserver"}, {"version", "V1.0.0"}};
    const QByteArray message = keyMessage(product, aesKey(), nowMs() + expiryOffset);
    const Answer a = exchange(QStringLiteral("/mqtt/auth"), dnsEndpoint(keyOf).value("publicKey").toString(), message,
                              headers);
    QCOMPARE(a.status, 200);
    QVERIFY(a.json().contains("error"));
    QVERIFY(!a.json().contains("data"));
    QCOMPARE(a.json().value("http_code").toInt(), httpCode);
    QCOMPARE(a.json().value("status").toString(), QStringLiteral("fail"));

    const QJsonArray exchanges = control(QStringLiteral("/control/mqtt/auth")).json().value("exchanges").toArray();
    QCOMPARE(exchanges.size(), 1);
    QCOMPARE(exchanges.at(0).toObject().value("result").toString(), result);
    // The decrypted text is kept when there is one.
    const bool decrypted = result == QLatin1String("unknown product") || result == QLatin1String("expired");
    QCOMPARE(exchanges.at(0).toObject().value("keyMessage").toString().toLatin1(),
             decrypted ? message : QByteArray());
}

void TestCloudSimMqtt::bindingRequestGetsReply_data()
{
    QTest::addColumn<QString>("username");
    QTest::addColumn<QString>("password");
    QTest::addColumn<QString>("status");

    QTest::newRow("binding account") << QStringLiteral("bind-user") << QStringLiteral("bind-pass")
                                     << QStringLiteral("success");
    QTest::newRow("mqtt account") << QStringLiteral("dev-user") << QStringLiteral("dev-pass") << QStringLiteral("success");
    QTest::newRow("wrong password") << QStringLiteral("bind-user") << QStringLiteral("dev-pass")
                                    << QStringLiteral("fail");
}

void TestCloudSimMqtt::bindingRequestGetsReply()
{
    QFETCH(QString, username);
    QFETCH(QString, password);
    QFETCH(QString, status);
    QVERIFY(connectBroker());
    MosquittoSub sub(m_broker->port(), QStringLiteral("orbicloud/downstream/#"));
    QVERIFY(sub.waitStarted());

    const QJsonObject request{
        {"header", QJsonObject{{"content", "binding"}, {"requestId", "req-7"}, {"version", "1.0"}}},
        {"body", QJsonObject{{"username", username}, {"password", password}, {"passwordEncType", 0},
                             {"mac", "00:11:22:33:44:55"}, {"sn", "S1"}, {"modelId", "M1"}, {"deviceName", "player"},
                             {"customDeviceName", ""}, {"source", 1}}}};
    QVERIFY(mosquittoPublish(m_broker->port(), QStringLiteral("orbicloud/upstream/post/M1/S1/binding/cirro"),
                             QJsonDocument(request).toJson(QJsonDocument::Compact)));

    const QString replyTopic = QStringLiteral("orbicloud/downstream/reply/M1/S1/binding/cirro");
    QTRY_VERIFY_WITH_TIMEOUT(!payloadOn(sub.lines(), replyTopic).isEmpty(), 20000);
    QCOMPARE(topicsOf(sub.lines()), QStringList{replyTopic});
    const QJsonObject reply = payloadOn(sub.lines(), replyTopic);
    const QJsonObject header = reply.value("header").toObject();
    QCOMPARE(header.value("content").toString(), QStringLiteral("binding"));
    QCOMPARE(header.value("requestId").toString(), QStringLiteral("req-7"));
    QCOMPARE(header.value("version").toString(), QStringLiteral("1.0"));
    const QJsonObject body = reply.value("body").toObject();
    QCOMPARE(body.value("status").toString(), status);
    QCOMPARE(body.value("modelId").toString(), QStringLiteral("M1"));
    QCOMPARE(body.value("sn").toString(), QStringLiteral("S1"));
}

void TestCloudSimMqtt::commandsArriveOnTheirTopics_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QString>("topic");

    QTest::newRow("get-basic") << QStringLiteral("get-basic") << QStringLiteral("orbicloud/downstream/get/M1/S1/device/basic");
    QTest::newRow("get-storage") << QStringLiteral("get-storage")
                                 << QStringLiteral("orbicloud/downstream/get/M1/S1/device/storage");
    QTest::newRow("get-volume") << QStringLiteral("get-volume")
                                << QStringLiteral("orbicloud/downstream/get/M1/S1/device/volume");
    QTest::newRow("unbinding") << QStringLiteral("unbinding")
                               << QStringLiteral("orbicloud/downstream/delete/M1/S1/unbinding/cirro");
}

void TestCloudSimMqtt::commandsArriveOnTheirTopics()
{
    QFETCH(QString, kind);
    QFETCH(QString, topic);
    QVERIFY(connectBroker());
    MosquittoSub sub(m_broker->port(), QStringLiteral("orbicloud/#"));
    QVERIFY(sub.waitStarted());

    const Answer sent = control(QStringLiteral("/control/mqtt/send"), "POST",
                                QJsonObject{{"kind", kind}, {"modelId", "M1"}, {"sn", "S1"}});
    QCOMPARE(sent.status, 200);
    QCOMPARE(sent.json().value("topic").toString(), topic);

    QTRY_VERIFY_WITH_TIMEOUT(!payloadOn(sub.lines(), topic).isEmpty(), 20000);
    QCOMPARE(topicsOf(sub.lines()), QStringList{topic});
    const QJsonObject message = payloadOn(sub.lines(), topic);
    QCOMPARE(message, QJsonDocument::fromJson(sent.json().value("payload").toString().toUtf8()).object());
    QCOMPARE(message.value("header").toObject().value("content").toString(), kind);
    QCOMPARE(message.value("header").toObject().value("version").toString(), QStringLiteral("1.0"));
    QVERIFY(!message.value("header").toObject().value("requestId").toString().isEmpty());
    QCOMPARE(message.value("body").toObject(), (QJsonObject{{"dummy", ""}}));
    // cloudsim hears only upstream: its own request is not recorded.
    QCOMPARE(control(QStringLiteral("/control/mqtt/messages")).body, QByteArray("[]"));
}

QTEST_MAIN(TestCloudSimMqtt)
#include "tst_cloudsim_mqtt.moc"
