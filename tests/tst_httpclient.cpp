// The blocking HTTP client against the local cloud over real TLS: what reaches the server,
// which replies count as successful, the exact log lines, calls from the worker thread and
// the 10 s limit.

#include "cloudmaterial/protocol/httpclientwrapper.h"
#include "cloudmaterial/workerpool.h"
#include "support/cloudsimfixture.h"
#include "support/logcapture.h"
#include "support/modulelog.h"

#include <QtTest>

#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTcpServer>
#include <QTcpSocket>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

using namespace talvor::cloudmaterial;

namespace {

bool lineIs(const LogCapture::Line &line, const std::string &text, const char *function)
{
    return ModuleLog::is(line, text, qPrintable(QStringLiteral("httpclientwrapper:") + QLatin1String(function)));
}

int countLines(const LogCapture &log, spdlog::level::level_enum level, const std::string &text,
               const char *function)
{
    return ModuleLog::count(log, level, text, qPrintable(QStringLiteral("httpclientwrapper:") + QLatin1String(function)));
}

QJsonObject json(const std::string &body)
{
    return QJsonDocument::fromJson(QByteArray::fromStdString(body)).object();
}

// A port on which nothing listens: the system hands it out, then it is given back.
quint16 closedPort()
{
    QTcpServer server;
    if (!server.listen(QHostAddress::LocalHost, 0))
        return 0;
    const quint16 port = server.serverPort();
    server.close();
    return port;
}

enum class Method { Get, Post };
enum class Unreachable { Refused, PlainServer };

} // namespace

Q_DECLARE_METATYPE(Method)
Q_DECLARE_METATYPE(Unreachable)

class TestHttpClient : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void cleanup();

    void getSendsHeaders();
    void getLogging_data();
    void getLogging();
    void errorWord_data();
    void errorWord();
    void postReplacesContentTypeAndAccept();
    void postLogging_data();
    void postLogging();
    void noHttpStatus_data();
    void noHttpStatus();
    void callsFromWorkerThread();
    // Last: its un-aborted replies keep connections to the hanging server open.
    void timeoutOnBothThreads();

private:
    std::string url(const QString &path) const { return m_sim.url(path).toStdString(); }
    HttpReply call(Method method, const std::string &url, const HttpHeaders &headers, bool log);

    CloudSim m_sim;
    std::shared_ptr<WorkerPool> m_pool;
    std::unique_ptr<HttpClientWrapper> m_client;
};

void TestHttpClient::initTestCase()
{
    QVERIFY(m_sim.start(R"({"files":[{"name":"a.bin","size":64}]})"));
    m_pool = std::make_shared<WorkerPool>();
    m_client = std::make_unique<HttpClientWrapper>(m_pool);
}

void TestHttpClient::cleanupTestCase()
{
    // The client's managers go first: one of them lives on the pool's thread.
    m_client.reset();
    m_pool.reset();
    m_sim.stop();
}

void TestHttpClient::cleanup()
{
    QVERIFY(m_sim.clearFaults());
    QVERIFY(m_sim.clearRequests());
}

HttpReply TestHttpClient::call(Method method, const std::string &url, const HttpHeaders &headers, bool log)
{
    return method == Method::Get ? m_client->get(url, headers, log) : m_client->post(url, headers, "{}", log);
}

void TestHttpClient::getSendsHeaders()
{
    // Set in list order: of two values for one name the later one is what the server sees.
    const HttpHeaders headers{{"source", "mediaserver"},
                              {"X-Dup", "first"},
                              {"version", "V1.0.0"},
                              {"X-Dup", "second"}};
    const HttpReply reply = m_client->get(url(QStringLiteral("/echo?q=1")), headers, false);
    QVERIFY(reply.ok);

    const QJsonObject echoed = json(reply.body);
    QCOMPARE(echoed.value("method").toString(), QStringLiteral("GET"));
    QCOMPARE(echoed.value("path").toString(), QStringLiteral("/echo?q=1"));
    const QJsonObject sent = echoed.value("headers").toObject();
    QCOMPARE(sent.value("source").toString(), QStringLiteral("mediaserver"));
    QCOMPARE(sent.value("version").toString(), QStringLiteral("V1.0.0"));
    QCOMPARE(sent.value("X-Dup").toString(), QStringLiteral("second"));

    // The server's own record of the request agrees with what it echoed.
    const QJsonArray requests = m_sim.requests();
    QCOMPARE(requests.size(), 1);
    QCOMPARE(requests.at(0).toObject().value("headers").toObject().value("X-Dup").toString(),
             QStringLiteral("second"));
}

void TestHttpClient::getLogging_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("body");
    QTest::addColumn<bool>("log");

    QTest::newRow("200, logged") << 200 << QString() << true;
    QTest::newRow("200, quiet") << 200 << QString() << false;
    QTest::newRow("404 with a text body") << 404 << QStringLiteral("no such page here") << true;
    QTest::newRow("500 with a JSON body") << 500 << QStringLiteral(R"({"code":500,"msg":"boom"})") << true;
    QTest::newRow("201 is not 200") << 201 << QStringLiteral(R"({"code":0})") << true;
    QTest::newRow("403 with an empty body") << 403 << QString() << true;
}

void TestHttpClient::getLogging()
{
    QFETCH(int, status);
    QFETCH(QString, body);
    QFETCH(bool, log);

    if (status != 200)
        QVERIFY(m_sim.addFault({{"kind", "status"}, {"path", "/echo"}, {"status", status}, {"body", body}}));
    LogCapture capture;
    const std::string target = url(QStringLiteral("/echo"));
    const HttpReply reply = m_client->get(target, {{"X-Marker", "m-1"}}, log);
    QCOMPARE(reply.ok, status == 200);
    if (status == 200) {
        QCOMPARE(json(reply.body).value("headers").toObject().value("X-Marker").toString(), QStringLiteral("m-1"));
        QCOMPARE(countLines(capture, spdlog::level::info, "get reply: " + reply.body, "get"), log ? 1 : 0);
        // A good reply writes nothing else.
        QCOMPARE(capture.lines().size(), std::size_t(log ? 1 : 0));
        return;
    }
    QCOMPARE(QString::fromStdString(reply.body), body);
    const std::string expected =
        "get reply err, url: " + target + ", status code: " + std::to_string(status) + ", msg: " + body.toStdString();
    QCOMPARE(countLines(capture, spdlog::level::warn, expected, "get"), 1);
    // Only the error line: the reply of a failed call is not logged again.
    QCOMPARE(capture.lines().size(), std::size_t(1));
}

void TestHttpClient::errorWord_data()
{
    QTest::addColumn<QString>("body");
    QTest::addColumn<bool>("ok");

    QTest::newRow("plain success") << QStringLiteral(R"({"code":0})") << true;
    QTest::newRow("cloud error reply")
        << QStringLiteral(R"({"http_code":401,"error":"invalid token","status":"fail"})") << false;
    // The rule is a plain substring test: a file named "error" fails a good reply, deliberately.
    QTest::newRow("quoted word as a value") << QStringLiteral(R"({"code":0,"data":{"mediaName":"error"}})") << false;
    QTest::newRow("quoted word in plain text") << QStringLiteral(R"(all fine, no "error" at all)") << false;
    QTest::newRow("unquoted word") << QStringLiteral(R"({"code":0,"msg":"no error"})") << true;
    QTest::newRow("longer word") << QStringLiteral(R"({"code":0,"errors":[]})") << true;
    QTest::newRow("other case") << QStringLiteral(R"({"code":0,"Error":null})") << true;
}

void TestHttpClient::errorWord()
{
    QFETCH(QString, body);
    QFETCH(bool, ok);

    // A 200 with this body for every method, as long as the test runs.
    QVERIFY(m_sim.addFault({{"kind", "error_body"}, {"path", "/echo"}, {"body", body}}));
    const std::string target = url(QStringLiteral("/echo"));

    LogCapture log;
    const HttpReply got = m_client->get(target, {}, true);
    QCOMPARE(got.ok, ok);
    QCOMPARE(QString::fromStdString(got.body), body);
    // The reply is logged before it is judged.
    QCOMPARE(countLines(log, spdlog::level::info, "get reply: " + body.toStdString(), "get"), 1);

    log.clear();
    const HttpReply posted = m_client->post(target, {}, "{}", true);
    QCOMPARE(posted.ok, ok);
    QCOMPARE(QString::fromStdString(posted.body), body);
    QCOMPARE(countLines(log, spdlog::level::info, "post reply: " + body.toStdString(), "post"), 1);
    QCOMPARE(log.linesStartingWith("post reply err").size(), std::size_t(0));
}

void TestHttpClient::postReplacesContentTypeAndAccept()
{
    const HttpHeaders headers{{"Content-Type", "text/plain"}, {"Accept", "text/html"}, {"X-Trace", "abc"}};
    const std::string body = R"({"phone":"123","password":"x"})";
    const HttpReply reply = m_client->post(url(QStringLiteral("/echo")), headers, body, false);
    QVERIFY(reply.ok);

    const QJsonObject echoed = json(reply.body);
    QCOMPARE(echoed.value("method").toString(), QStringLiteral("POST"));
    QCOMPARE(echoed.value("body").toString(), QString::fromStdString(body));
    const QJsonObject sent = echoed.value("headers").toObject();
    // Replaced, not added: a second value would show up joined with ", ".
    QCOMPARE(sent.value("Content-Type").toString(), QStringLiteral("application/json"));
    QCOMPARE(sent.value("Accept").toString(), QStringLiteral("*/*"));
    QCOMPARE(sent.value("X-Trace").toString(), QStringLiteral("abc"));
    QCOMPARE(sent.value("Content-Length").toString(), QString::number(body.size()));
}

void TestHttpClient::postLogging_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<bool>("log");
    QTest::newRow("200, logged") << 200 << true;
    QTest::newRow("200, quiet") << 200 << false;
    QTest::newRow("404, logged") << 404 << true;
    QTest::newRow("404, quiet") << 404 << false;
}

void TestHttpClient::postLogging()
{
    QFETCH(int, status);
    QFETCH(bool, log);

    const QString failure = QStringLiteral(R"({"code":404,"msg":"gone"})");
    if (status != 200)
        QVERIFY(m_sim.addFault({{"kind", "status"}, {"path", "/echo"}, {"status", status}, {"body", failure}}));
    LogCapture capture;
    const std::string target = url(QStringLiteral("/echo"));
    const HttpHeaders headers{{"Content-Type", "text/plain"}, {"X-Trace", "abc"}};
    const std::string body = R"({"k":"v"})";
    const HttpReply reply = m_client->post(target, headers, body, log);
    QCOMPARE(reply.ok, status == 200);
    if (status != 200)
        QCOMPARE(QString::fromStdString(reply.body), failure);

    // The caller's headers as given; the replaced ones are not what the caller asked for.
    std::vector<std::string> expected;
    std::vector<spdlog::level::level_enum> levels;
    if (log) {
        expected = {"post url: " + target, "post headers: Content-Type: text/plain, X-Trace: abc", "post data: " + body};
        levels.assign(3, spdlog::level::info);
    }
    // A failure and its reply are logged whether or not the caller asked for logging.
    if (status != 200) {
        expected.push_back("post reply err, status code: " + std::to_string(status));
        levels.push_back(spdlog::level::warn);
    }
    if (log || status != 200) {
        expected.push_back("post reply: " + reply.body);
        levels.push_back(spdlog::level::info);
    }
    const auto lines = capture.lines();
    QCOMPARE(lines.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        QVERIFY2(lineIs(lines[i], expected[i], "post"), lines[i].text.c_str());
        QCOMPARE(lines[i].level, levels[i]);
    }
}

void TestHttpClient::noHttpStatus_data()
{
    QTest::addColumn<Method>("method");
    QTest::addColumn<Unreachable>("where");

    QTest::newRow("get, nothing listening") << Method::Get << Unreachable::Refused;
    QTest::newRow("post, nothing listening") << Method::Post << Unreachable::Refused;
    QTest::newRow("get, TLS fails") << Method::Get << Unreachable::PlainServer;
    QTest::newRow("post, TLS fails") << Method::Post << Unreachable::PlainServer;
}

void TestHttpClient::noHttpStatus()
{
    QFETCH(Method, method);
    QFETCH(Unreachable, where);

    // A server that answers in plain HTTP: the TLS handshake fails before any status.
    QTcpServer plain;
    std::atomic<int> accepted{0};
    quint16 port = 0;
    if (where == Unreachable::Refused) {
        port = closedPort();
    } else {
        QVERIFY(plain.listen(QHostAddress::LocalHost, 0));
        port = plain.serverPort();
        connect(&plain, &QTcpServer::newConnection, this, [&] {
            while (QTcpSocket *socket = plain.nextPendingConnection()) {
                ++accepted;
                socket->write("HTTP/1.1 200 OK\r\nContent-Length: 11\r\n\r\n{\"code\":0}\n");
                socket->flush();
            }
        });
    }
    QVERIFY(port != 0);

    LogCapture log;
    const std::string target = QStringLiteral("https://127.0.0.1:%1/echo").arg(port).toStdString();
    const HttpReply reply = call(method, target, {}, false);
    QVERIFY(!reply.ok);
    QVERIFY(reply.body.empty());
    if (where == Unreachable::PlainServer)
        QVERIFY(accepted > 0); // it really got that far

    if (method == Method::Get) {
        QCOMPARE(countLines(log, spdlog::level::warn, "get reply err, url: " + target + ", status code: 0, msg: ", "get"),
                 1);
        QCOMPARE(log.lines().size(), std::size_t(1));
    } else {
        const auto lines = log.lines();
        QCOMPARE(lines.size(), std::size_t(2));
        QVERIFY2(lineIs(lines[0], "post reply err, status code: 0", "post"), lines[0].text.c_str());
        QCOMPARE(lines[0].level, spdlog::level::warn);
        QVERIFY2(lineIs(lines[1], "post reply: ", "post"), lines[1].text.c_str());
        QCOMPARE(lines[1].level, spdlog::level::info);
    }
}

void TestHttpClient::callsFromWorkerThread()
{
    const std::string target = url(QStringLiteral("/echo"));
    HttpReply got;
    HttpReply posted;
    bool onWorker = false;
    m_pool->enqueue([&] {
              onWorker = m_pool->isWorkerThread();
              got = m_client->get(target, {{"X-From", "worker"}}, false);
              posted = m_client->post(target, {{"X-From", "worker"}}, R"({"n":1})", false);
          })
        .get();

    QVERIFY(onWorker);
    QVERIFY(got.ok);
    QVERIFY(posted.ok);
    QCOMPARE(json(got.body).value("method").toString(), QStringLiteral("GET"));
    QCOMPARE(json(got.body).value("headers").toObject().value("X-From").toString(), QStringLiteral("worker"));
    QCOMPARE(json(posted.body).value("method").toString(), QStringLiteral("POST"));
    QCOMPARE(json(posted.body).value("body").toString(), QStringLiteral(R"({"n":1})"));

    // And the calling thread's own path still works afterwards.
    const HttpReply again = m_client->get(target, {}, false);
    QVERIFY(again.ok);
    QCOMPARE(m_sim.requests().size(), 3);
}

void TestHttpClient::timeoutOnBothThreads()
{
    QVERIFY(m_sim.addFault({{"kind", "hang"}, {"prefix", "/hang/"}}));
    const std::string postUrl = url(QStringLiteral("/hang/post"));
    const std::string getUrl = url(QStringLiteral("/hang/get"));

    LogCapture log;
    QElapsedTimer total;
    total.start();

    // The worker's post and the test thread's get wait at the same time.
    HttpReply posted{true, "unset"};
    qint64 postElapsed = 0;
    auto postDone = m_pool->enqueue([&] {
        QElapsedTimer clock;
        clock.start();
        posted = m_client->post(postUrl, {}, "{}", true);
        postElapsed = clock.elapsed();
    });

    QElapsedTimer clock;
    clock.start();
    const HttpReply got = m_client->get(getUrl, {}, true);
    const qint64 getElapsed = clock.elapsed();
    postDone.get();
    const qint64 bothElapsed = total.elapsed();

    QVERIFY(!got.ok);
    QVERIFY(got.body.empty());
    QVERIFY(!posted.ok);
    QVERIFY(posted.body.empty());

    // The post path deliberately writes the get path's text; each call writes it once.
    QCOMPARE(countLines(log, spdlog::level::warn, "get reply timeout, url: " + getUrl, "get"), 1);
    QCOMPARE(countLines(log, spdlog::level::warn, "get reply timeout, url: " + postUrl, "post"), 1);
    QCOMPARE(log.linesStartingWith("get reply timeout").size(), std::size_t(2));
    QCOMPARE(log.linesStartingWith("get reply err").size(), std::size_t(0));
    QCOMPARE(log.linesStartingWith("post reply").size(), std::size_t(0));

    // Both reached the server, so what ended them was the client's limit.
    const QJsonArray requests = m_sim.requests();
    QStringList seen;
    for (const auto &request : requests)
        seen << request.toObject().value("method").toString() + QLatin1Char(' ')
                    + request.toObject().value("path").toString();
    seen.sort();
    QCOMPARE(seen, (QStringList{QStringLiteral("GET /hang/get"), QStringLiteral("POST /hang/post")}));

    // The promised 10 s, with room for a loaded machine; overlapping waits cost one limit, not two.
    QVERIFY2(getElapsed >= 9500, qPrintable(QString::number(getElapsed)));
    QVERIFY2(postElapsed >= 9500, qPrintable(QString::number(postElapsed)));
    QVERIFY2(bothElapsed < 60000, qPrintable(QString::number(bothElapsed)));
    QVERIFY2(bothElapsed < getElapsed + postElapsed, qPrintable(QString::number(bothElapsed)));
}

QTEST_GUILESS_MAIN(TestHttpClient)
#include "tst_httpclient.moc"
