// The messaging side of the local cloud: the player authorization, the encrypted exchange
// that hands out the MQTT account, and the device service on a real mosquitto. The exchange
// is done here with OpenSSL as docs/protocol.md describes it, independently of the module;
// the device messages are sent and watched with mosquitto_pub and mosquitto_sub.

#include "support/cloudsimfixture.h"
#include "support/mosquittofixture.h"

#include <QtTest>

#include <QDateTime>
#include <QDeadlineTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QProcess>
#include <QTcpServer>

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>

#include <memory>
#include <optional>

namespace {

const QByteArray scenario = R"({
  "accounts":[{"id":123,"name":"alice","password":"alice-pass","token":"tok-alice"}],
  "mqtt":{"username":"dev-user","password":"dev-pass","bindingUsername":"bind-user","bindingPassword":"bind-pass"}
})";

const QByteArray token = "tok-alice";

struct Answer
{
    int status = 0;
    QByteArray body;
    QJsonObject json() const { return QJsonDocument::fromJson(body).object(); }
};

using Headers = QList<QPair<QByteArray, QByteArray>>;

qint64 nowMs()
{
    return QDateTime::currentMSecsSinceEpoch();
}

// RSA PKCS#1 v1.5 under the DNS reply's key, wrapped into PEM as the module does.
QByteArray rsaEncrypt(const QString &publicKey, const QByteArray &plain)
{
    const QByteArray pem = "-----BEGIN PUBLIC KEY-----\n" + publicKey.toLatin1() + "\n-----END PUBLIC KEY-----";
    BIO *bio = BIO_new_mem_buf(pem.constData(), pem.size());
    EVP_PKEY *key = PEM_read_bio_PUBKEY(bio, nullptr, nullptr, nullptr);
    BIO_free(bio);
    if (!key)
        return QByteArray();
    EVP_PKEY_CTX *ctx = EVP_PKEY_CTX_new(key, nullptr);
    QByteArray out;
    std::size_t length = 0;
    const auto *in = reinterpret_cast<const unsigned char *>(plain.constData());
    if (EVP_PKEY_encrypt_init(ctx) > 0 && EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_PADDING) > 0
        && EVP_PKEY_encrypt(ctx, nullptr, &length, in, std::size_t(plain.size())) > 0) {
        out.resize(int(length));
        if (EVP_PKEY_encrypt(ctx, reinterpret_cast<unsigned char *>(out.data()), &length, in,
                             std::size_t(plain.size()))
            > 0)
            out.resize(int(length));
        else
            out.clear();
    }
    EVP_PKEY_CTX_free(ctx);
    EVP_PKEY_free(key);
    return out;
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

bool mosquittoPublish(int port, const QString &topic, const QByteArray &payload, int qos, bool retain)
{
    QStringList args{QStringLiteral("-h"), QStringLiteral("127.0.0.1"), QStringLiteral("-p"), QString::number(port),
                     QStringLiteral("-t"), topic, QStringLiteral("-m"), QString::fromUtf8(payload),
                     QStringLiteral("-q"), QString::number(qos)};
    if (retain)
        args << QStringLiteral("-r");
    QProcess pub;
    pub.start(findMosquittoProgram(QStringLiteral("mosquitto_pub")), args);
    return pub.waitForFinished(20000) && pub.exitStatus() == QProcess::NormalExit && pub.exitCode() == 0;
}

// mosquitto_sub -v -d on a filter. Its output is line-buffered through stdbuf: into a pipe
// it would otherwise hold the SUBACK line back until it exits.
class Watcher
{
public:
    Watcher(int port, const QString &filter)
    {
        m_process.start(QStringLiteral("stdbuf"),
                        {QStringLiteral("-oL"), findMosquittoProgram(QStringLiteral("mosquitto_sub")),
                         QStringLiteral("-h"), QStringLiteral("127.0.0.1"), QStringLiteral("-p"), QString::number(port),
                         QStringLiteral("-v"), QStringLiteral("-d"), QStringLiteral("-q"), QStringLiteral("2"),
                         QStringLiteral("-t"), filter});
    }
    ~Watcher()
    {
        m_process.kill();
        m_process.waitForFinished(5000);
    }

    // True once the broker confirmed the subscription: nothing published later is missed.
    bool waitSubscribed()
    {
        QDeadlineTimer deadline(20000);
        while (!deadline.hasExpired() && m_process.state() != QProcess::NotRunning) {
            read();
            if (m_subscribed)
                return true;
            m_process.waitForReadyRead(100);
        }
        return false;
    }

    // The "topic payload" lines received so far.
    QStringList lines()
    {
        m_process.waitForReadyRead(10);
        read();
        return m_lines;
    }

private:
    void read()
    {
        m_buffer += m_process.readAllStandardOutput();
        int newline;
        while ((newline = m_buffer.indexOf('\n')) >= 0) {
            const QString line = QString::fromUtf8(m_buffer.left(newline));
            m_buffer.remove(0, newline + 1);
            if (line.contains(QLatin1String("received SUBACK")))
                m_subscribed = true;
            // -d adds the client's protocol trace; the messages are the other lines.
            if (!line.startsWith(QLatin1String("Client ")) && !line.startsWith(QLatin1String("Subscribed")))
                m_lines << line;
        }
    }

    QProcess m_process;
    QByteArray m_buffer;
    QStringList m_lines;
    bool m_subscribed = false;
};

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
    void backupAnswersWhenMainFails();
    void replyUnderWrongKey();
    void bindingRequestGetsReply_data();
    void bindingRequestGetsReply();
    void commandsArriveOnTheirTopics_data();
    void commandsArriveOnTheirTopics();
    void badCommandsAreRefused();
    void upstreamMessagesAreRecorded();
    void subscriptionSurvivesBrokerRestart();
    void unreachableBrokerIsReported();
    void scenarioNamesTheBroker();
    void badMqttScenarioIsRefused_data();
    void badMqttScenarioIsRefused();

private:
    Answer send(const QString &path, const Headers &headers = {}, const QByteArray &verb = "GET",
                const QByteArray &body = QByteArray());
    Answer control(const QString &path, const QByteArray &verb = "GET", const QJsonObject &body = {});
    QJsonObject dnsEndpoint(int index);
    // One exchange as the module makes it; the reply's Base64 data decoded.
    Answer exchange(const QString &path, const QString &publicKey, const QByteArray &message,
                    const Headers &headers);
    static Headers moduleHeaders();
    QJsonArray recorded();
    bool connectBroker();

    std::unique_ptr<QNetworkAccessManager> m_manager;
    CloudSim m_cloud;
    std::unique_ptr<Mosquitto> m_broker;
};

void TestCloudSimMqtt::init()
{
    m_manager = std::make_unique<QNetworkAccessManager>();
    QVERIFY(m_cloud.start(scenario));
}

void TestCloudSimMqtt::cleanup()
{
    m_manager.reset();
    m_cloud.stop();
    m_broker.reset();
}

Answer TestCloudSimMqtt::send(const QString &path, const Headers &headers, const QByteArray &verb,
                              const QByteArray &body)
{
    QNetworkRequest request(QUrl(m_cloud.url(path)));
    for (const auto &h : headers)
        request.setRawHeader(h.first, h.second);
    QNetworkReply *reply = m_manager->sendCustomRequest(request, verb, body);
    QSignalSpy finished(reply, &QNetworkReply::finished);
    if (!reply->isFinished())
        finished.wait(30000);
    Answer answer;
    answer.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    answer.body = reply->readAll();
    reply->deleteLater();
    return answer;
}

Answer TestCloudSimMqtt::control(const QString &path, const QByteArray &verb, const QJsonObject &body)
{
    return send(path, {{"Content-Type", "application/json"}}, verb,
                body.isEmpty() ? QByteArray() : QJsonDocument(body).toJson(QJsonDocument::Compact));
}

QJsonObject TestCloudSimMqtt::dnsEndpoint(int index)
{
    const QJsonObject data = send(QStringLiteral("/mqtt/control/v1/")).json().value("data").toObject();
    return index == 0 ? data.value("main").toObject() : data.value("slave").toArray().at(0).toObject();
}

Headers TestCloudSimMqtt::moduleHeaders()
{
    return {{"source", "mediaserver"}, {"version", "V1.0.0"}, {"Token", token}, {"Authorization", token},
            {"Content-Type", "application/json"}};
}

Answer TestCloudSimMqtt::exchange(const QString &path, const QString &publicKey, const QByteArray &message,
                                  const Headers &headers)
{
    const QByteArray ciphertext = rsaEncrypt(publicKey, message);
    if (ciphertext.isEmpty())
        return Answer();
    const QJsonObject record{{"authCiphertext", QString::fromLatin1(ciphertext.toBase64())}, {"type", "1"}};
    return send(path, headers, "POST", QJsonDocument(record).toJson(QJsonDocument::Compact));
}

QJsonArray TestCloudSimMqtt::recorded()
{
    return QJsonDocument::fromJson(control(QStringLiteral("/control/mqtt/messages")).body).array();
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
    const Answer a = exchange(path, dns.value("publicKey").toString(), message, moduleHeaders());
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

    Headers headers = moduleHeaders();
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

void TestCloudSimMqtt::backupAnswersWhenMainFails()
{
    QVERIFY(m_cloud.addFault(QJsonObject{{"kind", "status"}, {"path", "/mqtt/auth"}, {"status", 503}}));
    const QByteArray key = aesKey();
    const QByteArray message = keyMessage("100001", key, nowMs() + 6000);

    const Answer main = exchange(QStringLiteral("/mqtt/auth"), dnsEndpoint(0).value("publicKey").toString(), message,
                                 moduleHeaders());
    QCOMPARE(main.status, 503);
    QVERIFY(!main.json().contains("data"));

    const Answer backup = exchange(QStringLiteral("/mqtt/auth-backup"), dnsEndpoint(1).value("publicKey").toString(),
                                   message, moduleHeaders());
    QCOMPARE(backup.status, 200);
    const auto account = aesDecrypt(key, QByteArray::fromBase64(backup.json().value("data").toString().toLatin1()));
    QVERIFY(account);
    // No broker is known yet: the account names none.
    QCOMPARE(*account, accountJson(QString()));

    // Only the backup got as far as the exchange.
    const QJsonArray exchanges = control(QStringLiteral("/control/mqtt/auth")).json().value("exchanges").toArray();
    QCOMPARE(exchanges.size(), 1);
    QCOMPARE(exchanges.at(0).toObject().value("endpoint").toString(), QStringLiteral("backup"));
}

void TestCloudSimMqtt::replyUnderWrongKey()
{
    const Answer set = control(QStringLiteral("/control/mqtt/auth"), "POST", QJsonObject{{"wrongKey", true}, {"times", 1}});
    QCOMPARE(set.status, 200);
    QCOMPARE(set.json().value("wrongKey").toBool(), true);

    const QString publicKey = dnsEndpoint(0).value("publicKey").toString();
    const QByteArray key = aesKey();
    const Answer wrong = exchange(QStringLiteral("/mqtt/auth"), publicKey, keyMessage("100001", key, nowMs() + 6000),
                                  moduleHeaders());
    QCOMPARE(wrong.json().value("status").toString(), QStringLiteral("success"));
    const QByteArray sealed = QByteArray::fromBase64(wrong.json().value("data").toString().toLatin1());
    QVERIFY(!sealed.isEmpty());
    const auto garbled = aesDecrypt(key, sealed);
    QVERIFY(!garbled || *garbled != accountJson(QString()));

    // One use only: the next reply is under the client's key again.
    const Answer right = exchange(QStringLiteral("/mqtt/auth"), publicKey, keyMessage("100001", key, nowMs() + 6000),
                                  moduleHeaders());
    const auto account = aesDecrypt(key, QByteArray::fromBase64(right.json().value("data").toString().toLatin1()));
    QVERIFY(account);
    QCOMPARE(*account, accountJson(QString()));

    const QJsonObject state = control(QStringLiteral("/control/mqtt/auth")).json();
    QCOMPARE(state.value("wrongKey").toBool(), false);
    const QJsonArray exchanges = state.value("exchanges").toArray();
    QCOMPARE(exchanges.size(), 2);
    QCOMPARE(exchanges.at(0).toObject().value("wrongKey").toBool(), true);
    QCOMPARE(exchanges.at(1).toObject().value("wrongKey").toBool(), false);

    QCOMPARE(control(QStringLiteral("/control/mqtt/auth"), "DELETE").json().value("exchanges").toArray().size(), 0);
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
    Watcher sub(m_broker->port(), QStringLiteral("orbicloud/downstream/#"));
    QVERIFY(sub.waitSubscribed());

    const QJsonObject request{
        {"header", QJsonObject{{"content", "binding"}, {"requestId", "req-7"}, {"version", "1.0"}}},
        {"body", QJsonObject{{"username", username}, {"password", password}, {"passwordEncType", 0},
                             {"mac", "00:11:22:33:44:55"}, {"sn", "S1"}, {"modelId", "M1"}, {"deviceName", "player"},
                             {"customDeviceName", ""}, {"source", 1}}}};
    QVERIFY(mosquittoPublish(m_broker->port(), QStringLiteral("orbicloud/upstream/post/M1/S1/binding/cirro"),
                             QJsonDocument(request).toJson(QJsonDocument::Compact), 2, false));

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
    Watcher sub(m_broker->port(), QStringLiteral("orbicloud/#"));
    QVERIFY(sub.waitSubscribed());

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

void TestCloudSimMqtt::badCommandsAreRefused()
{
    const QJsonObject basic{{"kind", "get-basic"}, {"modelId", "M1"}, {"sn", "S1"}};
    // Without a broker there is nowhere to send.
    QCOMPARE(control(QStringLiteral("/control/mqtt/send"), "POST", basic).status, 502);

    QVERIFY(connectBroker());
    QCOMPARE(control(QStringLiteral("/control/mqtt/send"), "POST",
                     QJsonObject{{"kind", "reboot"}, {"modelId", "M1"}, {"sn", "S1"}})
                 .status,
             400);
    QCOMPARE(control(QStringLiteral("/control/mqtt/send"), "POST", QJsonObject{{"kind", "get-basic"}, {"sn", "S1"}})
                 .status,
             400);
    QCOMPARE(control(QStringLiteral("/control/mqtt/send"), "POST", basic).status, 200);
}

void TestCloudSimMqtt::upstreamMessagesAreRecorded()
{
    m_broker = std::make_unique<Mosquitto>();
    QVERIFY(m_broker->start());
    // Retained before cloudsim subscribes, so it arrives marked as retained.
    QVERIFY(mosquittoPublish(m_broker->port(), QStringLiteral("orbicloud/upstream/report/M1/S1/device/offline"),
                             R"({"header":{},"body":{"timestamp":1}})", 1, true));
    const Answer connected = control(QStringLiteral("/control/mqtt"), "POST", QJsonObject{{"url", m_broker->url()}});
    QCOMPARE(connected.status, 200);

    QVERIFY(mosquittoPublish(m_broker->port(), QStringLiteral("orbicloud/downstream/get/M1/S1/device/basic"), "{}", 0,
                             false));
    QVERIFY(mosquittoPublish(m_broker->port(), QStringLiteral("orbicloud/upstream/report/M1/S1/device/online"),
                             R"({"body":{"type":"1"}})", 2, false));

    QTRY_COMPARE_WITH_TIMEOUT(recorded().size(), 2, 20000);
    const QJsonArray messages = recorded();
    const QJsonObject offline = messages.at(0).toObject();
    QCOMPARE(offline.value("topic").toString(), QStringLiteral("orbicloud/upstream/report/M1/S1/device/offline"));
    QCOMPARE(offline.value("payload").toString(), QStringLiteral(R"({"header":{},"body":{"timestamp":1}})"));
    QCOMPARE(offline.value("qos").toInt(), 1);
    QCOMPARE(offline.value("retained").toBool(), true);
    const QJsonObject online = messages.at(1).toObject();
    QCOMPARE(online.value("topic").toString(), QStringLiteral("orbicloud/upstream/report/M1/S1/device/online"));
    QCOMPARE(online.value("payload").toString(), QStringLiteral(R"({"body":{"type":"1"}})"));
    QCOMPARE(online.value("qos").toInt(), 2);
    QCOMPARE(online.value("retained").toBool(), false);

    QCOMPARE(control(QStringLiteral("/control/mqtt/messages"), "DELETE").body, QByteArray("[]"));
    QCOMPARE(control(QStringLiteral("/control/mqtt/messages")).body, QByteArray("[]"));
}

void TestCloudSimMqtt::subscriptionSurvivesBrokerRestart()
{
    QVERIFY(connectBroker());
    QVERIFY(m_broker->restart());
    // cloudsim comes back on its own within seconds; until it has subscribed again a message
    // is lost, so the device keeps reporting until one is heard.
    const QString topic = QStringLiteral("orbicloud/upstream/report/M1/S1/device/online");
    QTRY_VERIFY_WITH_TIMEOUT((mosquittoPublish(m_broker->port(), topic, "{}", 1, false), !recorded().isEmpty()), 30000);
    QCOMPARE(recorded().at(0).toObject().value("topic").toString(), topic);
    QCOMPARE(control(QStringLiteral("/control/mqtt")).json().value("url").toString(), m_broker->url());
}

void TestCloudSimMqtt::unreachableBrokerIsReported()
{
    // A port that was free a moment ago: nobody listens there.
    QTcpServer probe;
    QVERIFY(probe.listen(QHostAddress::LocalHost, 0));
    const QString url = QStringLiteral("tcp://127.0.0.1:%1").arg(probe.serverPort());
    probe.close();

    const Answer a = control(QStringLiteral("/control/mqtt"), "POST", QJsonObject{{"url", url}});
    QCOMPARE(a.status, 502);
    const QJsonObject state = control(QStringLiteral("/control/mqtt")).json();
    QCOMPARE(state.value("connected").toBool(), false);
    QCOMPARE(state.value("url").toString(), QString());
}

void TestCloudSimMqtt::scenarioNamesTheBroker()
{
    const QByteArray withUrl = R"({"accounts":[{"token":"tok-alice"}],"mqtt":{"url":"tcp://127.0.0.1:1"}})";
    QVERIFY(m_cloud.start(withUrl));
    QVERIFY(connectBroker());
    // The scenario's address wins over the connected broker, in both replies.
    const QString cirro = QString::fromLatin1(QByteArray("v1/web-backend-service/player/auth").toBase64());
    const QJsonObject binding = send(QStringLiteral("/gateway/apis?cirro=") + cirro, {{"authorization", token}})
                                    .json()
                                    .value("value")
                                    .toObject()
                                    .value("cirro")
                                    .toObject();
    QCOMPARE(binding.value("server").toString(), QStringLiteral("tcp://127.0.0.1:1"));
    QCOMPARE(binding.value("username").toString(), QStringLiteral("rxcm-binding"));

    const QByteArray key = aesKey();
    const Answer a = exchange(QStringLiteral("/mqtt/auth"), dnsEndpoint(0).value("publicKey").toString(),
                              keyMessage("100001", key, nowMs() + 6000), moduleHeaders());
    const auto account = aesDecrypt(key, QByteArray::fromBase64(a.json().value("data").toString().toLatin1()));
    QVERIFY(account);
    const QByteArray defaults = R"({"password":"rxcm-device-pass","url":"tcp://127.0.0.1:1","username":"rxcm-device"})";
    QCOMPARE(*account, defaults);
}

void TestCloudSimMqtt::badMqttScenarioIsRefused_data()
{
    QTest::addColumn<QByteArray>("json");

    QTest::newRow("not an object") << QByteArray(R"({"mqtt":[]})");
    QTest::newRow("number as user") << QByteArray(R"({"mqtt":{"username":5}})");
    QTest::newRow("url not a string") << QByteArray(R"({"mqtt":{"url":true}})");
}

void TestCloudSimMqtt::badMqttScenarioIsRefused()
{
    QFETCH(QByteArray, json);
    QVERIFY(!m_cloud.start(json));
    QCOMPARE(m_cloud.exitCode(), 1);
}

QTEST_MAIN(TestCloudSimMqtt)
#include "tst_cloudsim_mqtt.moc"
