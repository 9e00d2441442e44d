// The blocking HTTP client against the local cloud over real TLS: what reaches the server,
// which replies count as successful, the exact log lines, and the 10 s limit.

#include "cloudmaterial/protocol/httpclientwrapper.h"
#include "cloudmaterial/workerpool.h"
#include "localcloud/cloudsim.h"
#include "support/logcapture.h"
#include "support/modulelog.h"
#include "support/sockettable.h"

#include <QtTest>

#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTcpServer>
#include <QTcpSocket>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

using namespace talvor::cloudmaterial;

class TestHttpClient : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_sim.start(R"({"files":[{"name":"a.bin","size":64}]})"));
        m_pool = std::make_shared<WorkerPool>();
    }

    void cleanupTestCase()
    {
        m_pool.reset();
        m_sim.stop();
    }

    // A client of its own for each test: one of them shuts its client down.
    void init() { m_client = std::make_unique<HttpClientWrapper>(m_pool); }

    void cleanup()
    {
        m_client.reset(); // its managers first: one of them lives on the pool's thread
        QVERIFY(m_sim.clearFaults() && m_sim.clearRequests());
    }

    void replies_data()
    {
        QTest::addColumn<bool>("post");
        QTest::addColumn<int>("status"); // 0: nothing listens
        QTest::addColumn<QString>("body"); // null: the server echoes the request
        QTest::addColumn<bool>("log");
        QTest::addColumn<bool>("ok");
        QTest::newRow("get 200, logged") << false << 200 << QString() << true << true;
        QTest::newRow("get 200, quiet") << false << 200 << QString() << false << true;
        QTest::newRow("get 404 with body") << false << 404 << "no such page here" << true << false;
        QTest::newRow("get 201 is not 200") << false << 201 << R"({"code":0})" << true << false;
        QTest::newRow("get, nothing listening") << false << 0 << "" << false << false;
        QTest::newRow("post 200, logged") << true << 200 << QString() << true << true;
        QTest::newRow("post 200, quiet") << true << 200 << QString() << false << true;
        QTest::newRow("post 404, quiet") << true << 404 << R"({"code":404,"msg":"gone"})" << false << false;
        QTest::newRow("post, nothing listening") << true << 0 << "" << true << false;
        // A 200 whose body holds the quoted word "error" fails, deliberately by plain substring.
        QTest::newRow("get, cloud error")
            << false << 200 << R"({"http_code":401,"error":"invalid token"})" << true << false;
        QTest::newRow("get, quoted word in text") << false << 200 << R"(all fine, no "error" at all)" << true << false;
        QTest::newRow("get, unquoted word") << false << 200 << R"({"code":0,"msg":"no error"})" << true << true;
        QTest::newRow("get, other case") << false << 200 << R"({"code":0,"Error":null})" << true << true;
        QTest::newRow("post, quoted value") << true << 200 << R"({"data":{"mediaName":"error"}})" << true << false;
        QTest::newRow("post, longer word") << true << 200 << R"({"code":0,"errors":[]})" << true << true;
    }

    void replies()
    {
        QFETCH(bool, post);
        QFETCH(int, status);
        QFETCH(QString, body);
        QFETCH(bool, log);
        QFETCH(bool, ok);
        std::string target = m_sim.url(QStringLiteral("/echo")).toStdString();
        if (status == 0) {
            QTcpServer server; // a port the system hands out, then gets back
            QVERIFY(server.listen(QHostAddress::LocalHost, 0));
            target = QStringLiteral("https://127.0.0.1:%1/echo").arg(server.serverPort()).toStdString();
        } else if (!body.isNull()) {
            QVERIFY(m_sim.addFault({{"kind", status == 200 ? "error_body" : "status"},
                                    {"path", "/echo"},
                                    {"status", status},
                                    {"body", body}}));
        }
        // Set in list order: of two values for one name the later one is what the server sees.
        const HttpHeaders headers{
            {"Content-Type", "text/plain"}, {"Accept", "text/html"}, {"X-Dup", "first"}, {"X-Dup", "second"}};
        const std::string sent = R"({"phone":"123"})";
        LogCapture capture;
        const HttpReply reply = post ? m_client->post(target, headers, sent, log) : m_client->get(target, headers, log);
        QCOMPARE(reply.ok, ok);
        if (!body.isNull())
            QCOMPARE(QString::fromStdString(reply.body), body);
        if (body.isNull()) {
            const QJsonObject echoed = QJsonDocument::fromJson(QByteArray::fromStdString(reply.body)).object();
            const QJsonObject h = echoed.value("headers").toObject();
            QCOMPARE(echoed.value("method").toString(), QLatin1String(post ? "POST" : "GET"));
            QCOMPARE(h.value("X-Dup").toString(), QStringLiteral("second"));
            // The post replaces these, it does not add to them (a second value would be joined with ", ").
            QCOMPARE(h.value("Content-Type").toString(), QLatin1String(post ? "application/json" : "text/plain"));
            QCOMPARE(h.value("Accept").toString(), QLatin1String(post ? "*/*" : "text/html"));
            QCOMPARE(echoed.value("body").toString(), QString::fromStdString(post ? sent : ""));
            QCOMPARE(m_sim.requests().size(), 1);
        }
        std::vector<std::pair<spdlog::level::level_enum, std::string>> expected;
        const std::string where = post ? "httpclientwrapper:post" : "httpclientwrapper:get";
        if (post && log)
            for (const std::string &line :
                 {"post url: " + target,
                  std::string("post headers: Content-Type: text/plain, Accept: text/html, X-Dup: first, X-Dup: second"),
                  "post data: " + sent})
                expected.push_back({spdlog::level::info, line});
        if (status != 200 && !post)
            expected.push_back({spdlog::level::warn,
                                "get reply err, url: " + target + ", status code: " + std::to_string(status)
                                    + ", msg: " + body.toStdString()});
        if (status != 200 && post) // a failure and its reply are logged even when the caller asked for quiet
            expected.push_back({spdlog::level::warn, "post reply err, status code: " + std::to_string(status)});
        if (post ? log || status != 200 : log && status == 200) // a failed get's reply is not logged again
            expected.push_back({spdlog::level::info, (post ? "post reply: " : "get reply: ") + reply.body});
        const auto lines = capture.lines();
        QCOMPARE(lines.size(), expected.size());
        for (std::size_t i = 0; i < expected.size(); ++i) {
            QVERIFY2(ModuleLog::is(lines[i], expected[i].second, where.c_str()), lines[i].text.c_str());
            QCOMPARE(lines[i].level, expected[i].first);
        }
    }

    // The client's own connections send at once: a POST's body, which Qt writes after its
    // headers, must not wait for the server's delayed ACK. A host's connection to the same
    // server, made before, keeps Nagle's rule.
    void ownConnectionsSendAtOnce()
    {
        const int port = QUrl(m_sim.url(QStringLiteral("/"))).port();
        QTcpSocket host;
        host.connectToHost(QHostAddress::LocalHost, quint16(port));
        QVERIFY(host.waitForConnected(5000));
        const auto before = socketsToPort(port);
        // A new connection from each calling thread's manager.
        QVERIFY(m_client->get(m_sim.url(QStringLiteral("/echo")).toStdString(), {}, false).ok);
        bool posted = false;
        m_pool
            ->enqueue(
                [&] { posted = m_client->post(m_sim.url(QStringLiteral("/echo")).toStdString(), {}, "{}", false).ok; })
            .get();
        QVERIFY(posted);
        const auto after = socketsToPort(port);
        QCOMPARE(after.first - before.first, 2);
        QCOMPARE(after.second - before.second, 2);
        int on = -1;
        socklen_t size = sizeof on;
        QVERIFY(getsockopt(int(host.socketDescriptor()), IPPROTO_TCP, TCP_NODELAY, &on, &size) == 0);
        QCOMPARE(on, 0);
    }

    // Last: its un-aborted replies keep connections to the hanging server open.
    void timeoutOnBothThreads()
    {
        QVERIFY(m_sim.addFault({{"kind", "hang"}, {"prefix", "/hang/"}}));
        const std::string postUrl = m_sim.url(QStringLiteral("/hang/post")).toStdString();
        const std::string getUrl = m_sim.url(QStringLiteral("/hang/get")).toStdString();
        LogCapture log;
        QElapsedTimer total, clock;
        total.start();
        // The worker's post and the test thread's get wait at the same time.
        HttpReply posted{true, "unset"};
        qint64 postElapsed = 0;
        auto postDone = m_pool->enqueue([&] {
            QElapsedTimer clock;
            clock.start();
            posted = m_client->post(postUrl, {}, "{}", false);
            postElapsed = clock.elapsed();
        });
        clock.start();
        const HttpReply got = m_client->get(getUrl, {}, true);
        const qint64 getElapsed = clock.elapsed();
        postDone.get();
        const qint64 bothElapsed = total.elapsed();
        QVERIFY(!got.ok && got.body.empty() && !posted.ok && posted.body.empty());
        // The post path deliberately writes the get path's text; each call writes it once, and nothing else.
        QCOMPARE(
            ModuleLog::count(log, spdlog::level::warn, "get reply timeout, url: " + getUrl, "httpclientwrapper:get"),
            1);
        QCOMPARE(
            ModuleLog::count(log, spdlog::level::warn, "get reply timeout, url: " + postUrl, "httpclientwrapper:post"),
            1);
        QCOMPARE(log.lines().size(), std::size_t(2));
        // Both reached the server, so what ended them was the client's limit.
        QStringList seen;
        for (const auto &request : m_sim.requests())
            seen << request.toObject().value("method").toString() + QLatin1Char(' ')
                    + request.toObject().value("path").toString();
        seen.sort();
        QCOMPARE(seen, (QStringList{QStringLiteral("GET /hang/get"), QStringLiteral("POST /hang/post")}));
        // The promised 10 s, with room for a loaded machine; overlapping waits cost one limit, not two.
        QVERIFY2(getElapsed >= 9500 && postElapsed >= 9500, qPrintable(QString::number(qMin(getElapsed, postElapsed))));
        QVERIFY2(bothElapsed < 60000 && bothElapsed < getElapsed + postElapsed,
                 qPrintable(QString::number(bothElapsed)));
    }

    // Teardown at exit: a worker's call waiting on a silent server ends at once, not at its
    // time-out, and nothing is sent afterwards.
    void shutdownEndsCallsInFlight()
    {
        QVERIFY(m_sim.addFault({{"kind", "hang"}, {"prefix", "/hang/"}}));
        const std::string url = m_sim.url(QStringLiteral("/hang/get")).toStdString();
        LogCapture log;
        HttpReply got{true, "unset"};
        auto done = m_pool->enqueue([&] { got = m_client->get(url, {}, true); });
        QTRY_COMPARE(m_sim.requests().size(), 1);
        m_client->shutdown();
        QCOMPARE(done.wait_for(std::chrono::seconds(0)), std::future_status::ready); // shutdown waited for it
        QVERIFY(!got.ok && got.body.empty());
        QVERIFY(log.lines().empty()); // ended by the teardown, not by the limit
        // Later calls, from either thread, send nothing.
        const std::string echo = m_sim.url(QStringLiteral("/echo")).toStdString();
        QVERIFY(!m_client->post(echo, {}, "{}", true).ok);
        m_pool->enqueue([&] { got = m_client->get(echo, {}, true); }).wait();
        QVERIFY(!got.ok);
        QCOMPARE(m_sim.requests().size(), 1);
    }

private:
    CloudSim m_sim;
    std::shared_ptr<WorkerPool> m_pool;
    std::unique_ptr<HttpClientWrapper> m_client;
};

QTEST_GUILESS_MAIN(TestHttpClient)
#include "tst_httpclient.moc"
