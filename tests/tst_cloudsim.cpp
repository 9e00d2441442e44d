// The local cloud itself: what it serves is what the module's tests rely on, so it is checked
// here with plain Qt network code over real TLS, trusting only the CA that cloudsim made.

#include "support/cloudclient.h"
#include "support/cloudsimfixture.h"
#include "support/generatedcontent.h"

#include <QtTest>

#include <QFile>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QSslConfiguration>

#include <cstdint>
#include <memory>

namespace {

using Answer = CloudClient::Answer;
using Headers = CloudClient::Headers;

const QString catalogueQuery = QStringLiteral(
    "/gateway/cirro?cirro=Rest/Lite/Medias?search=&offset=0&limit=50&tag=&filters%5Btype%5D%5B0%5D=1"
    "&filters%5Btype%5D%5B1%5D=0&filters%5Btype%5D%5B3%5D=30&sortType=desc");

QByteArray mediaScenario(int count, const QByteArray &token = "tok-1")
{
    QJsonArray media;
    for (int i = 1; i <= count; ++i)
        media.append(QJsonObject{{"mid", QStringLiteral("m%1").arg(i)},
                                 {"mediaName", QStringLiteral("clip%1.mp4").arg(i)},
                                 {"file", QJsonObject{{"size", 100 + i}}}});
    const QJsonObject account{{"token", QString::fromLatin1(token)}, {"media", media}};
    return QJsonDocument(QJsonObject{{"accounts", QJsonArray{account}}}).toJson();
}

QStringList mids(const QJsonObject &catalogue)
{
    QStringList list;
    for (const auto &m : catalogue.value("data").toObject().value("mediaList").toArray())
        list << m.toObject().value("mid").toString();
    return list;
}

// Resident memory of another process, from /proc.
qint64 statusKiB(qint64 pid, const QByteArray &key)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith(key + ':'))
            return line.mid(key.size() + 1).trimmed().split(' ').value(0).toLongLong();
    }
    return -1;
}

} // namespace

class TestCloudSim : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void certificateIsTrustedOnlyThroughTheFixture();
    void catalogueRecordShape();
    void catalogueHeaderChecks_data();
    void catalogueHeaderChecks();
    void catalogueNewestFirstWithLimitAndOffset();
    void catalogueStatusAsNumber();
    void rangeRequests_data();
    void rangeRequests();
    void largeFileStreamsInSmallMemory();
    void faultHangHoldsTheRequestAndStillStops();
    void faultTimesPrefixAndMethod();

private:
    Answer send(const QString &path, const Headers &headers = {}, const QByteArray &verb = "GET",
                const QByteArray &body = QByteArray())
    {
        return m_client->send(path, headers, verb, body);
    }
    Answer catalogue(const QByteArray &token, const QString &query = catalogueQuery)
    {
        return send(query, CloudClient::gatewayHeaders(token));
    }

    CloudSim m_cloud;
    std::unique_ptr<CloudClient> m_client;
};

void TestCloudSim::init()
{
    m_client = std::make_unique<CloudClient>(m_cloud);
}

void TestCloudSim::cleanup()
{
    m_client.reset();
    m_cloud.stop();
}

void TestCloudSim::certificateIsTrustedOnlyThroughTheFixture()
{
    QVERIFY(m_cloud.start(mediaScenario(1)));
    QVERIFY(QFileInfo(m_cloud.caFile()).isAbsolute());
    const auto ca = QSslCertificate::fromPath(m_cloud.caFile());
    QCOMPARE(ca.size(), 1);

    // Without the generated CA the same request fails the TLS check: the trust is real.
    QNetworkRequest request(QUrl(m_cloud.url(QStringLiteral("/echo"))));
    QSslConfiguration bare = QSslConfiguration::defaultConfiguration();
    bare.setCaCertificates({});
    request.setSslConfiguration(bare);
    // A manager of its own: Qt reuses a connection per host and port, whatever its TLS setup.
    QNetworkAccessManager untrusting;
    QNetworkReply *reply = untrusting.get(request);
    QSignalSpy finished(reply, &QNetworkReply::finished);
    QVERIFY(finished.wait(20000));
    QCOMPARE(reply->error(), QNetworkReply::SslHandshakeFailedError);

    const Answer trusted = send(QStringLiteral("/echo"));
    QCOMPARE(trusted.error, QNetworkReply::NoError);
    QCOMPARE(trusted.status, 200);
    QCOMPARE(trusted.peer.issuerInfo(QSslCertificate::CommonName),
             ca.first().subjectInfo(QSslCertificate::CommonName));
}

void TestCloudSim::catalogueRecordShape()
{
    const QByteArray scenario = R"({"accounts":[{"token":"tok-1","media":[
        {"mid":"m1","mediaName":"intro clip.mp4","file":{"size":4096}},
        {"mid":"m2","mediaName":"note.txt","file":{"text":"hello"},
         "approvalStatus":"5","media_entity":{"width":"0","height":720}}]}]})";
    QVERIFY(m_cloud.start(scenario));
    const Answer a = catalogue("tok-1");
    QCOMPARE(a.status, 200);
    QVERIFY2(!a.body.contains("\"error\""), a.body.constData());

    const QJsonObject reply = a.json();
    QCOMPARE(reply.keys(), (QStringList{"data", "http_code", "status"}));
    QCOMPARE(reply.value("http_code").toInt(), 200);
    QCOMPARE(reply.value("status").toString(), QStringLiteral("success"));
    const QJsonObject data = reply.value("data").toObject();
    QCOMPARE(data.keys(), (QStringList{"count", "mediaList"}));
    QCOMPARE(data.value("count").toInt(), 2);
    const QJsonArray list = data.value("mediaList").toArray();
    QCOMPARE(list.size(), 2);

    // Newest first: m2 was written last.
    const QJsonObject m2 = list.at(0).toObject();
    const QJsonObject m1 = list.at(1).toObject();
    QStringList recordKeys{"mid", "oid", "create_uid", "approvalStatus", "mediaName", "mediaType",
                           "media_entity", "workgroup", "isMediaSupported", "ossDir", "bigPictureAddress",
                           "pictureAddress", "pictureDafaultAddress"};
    QStringList entityKeys{"mid", "size", "height", "width", "thumb_image_url", "unique", "duration_time",
                           "video_support_platform"};
    // The wire order is the cloud's, which QJsonObject does not keep: check it on the text of
    // a reply that holds one record, key after key, the entity's keys inside media_entity.
    const QByteArray one = catalogue("tok-1", QStringLiteral("/gateway/cirro?cirro=Rest/Lite/Medias?search=intro"
                                                             "&offset=0&limit=50"))
                               .body;
    QCOMPARE(mids(QJsonDocument::fromJson(one).object()), QStringList{"m1"});
    int last = 0;
    for (const QString &key : recordKeys) {
        const int at = int(one.indexOf("\"" + key.toUtf8() + "\":", last));
        QVERIFY2(at >= last, qPrintable(key));
        last = at;
        if (key == "media_entity") {
            int inner = at;
            for (const QString &entityKey : entityKeys) {
                const int e = int(one.indexOf("\"" + entityKey.toUtf8() + "\":", inner));
                QVERIFY2(e > inner, qPrintable(entityKey));
                inner = e;
            }
            last = inner;
        }
    }
    std::sort(recordKeys.begin(), recordKeys.end());
    std::sort(entityKeys.begin(), entityKeys.end());
    QCOMPARE(m1.keys(), recordKeys);
    QCOMPARE(m1.value("media_entity").toObject().keys(), entityKeys);

    // The cloud's mixed types.
    QVERIFY(m1.value("approvalStatus").isString());
    QCOMPARE(m1.value("approvalStatus").toString(), QStringLiteral("2"));
    QVERIFY(m1.value("mediaType").isDouble());
    const QJsonObject e1 = m1.value("media_entity").toObject();
    QVERIFY(e1.value("size").isDouble());
    QCOMPARE(e1.value("size").toInt(), 4096);
    QCOMPARE(e1.value("width").toString(), QStringLiteral("1920"));
    QCOMPARE(e1.value("height").toString(), QStringLiteral("1080"));
    QCOMPARE(e1.value("mid").toString(), QStringLiteral("m1"));

    // Scenario fields win verbatim, whatever their type.
    QCOMPARE(m2.value("approvalStatus").toString(), QStringLiteral("5"));
    const QJsonObject e2 = m2.value("media_entity").toObject();
    QCOMPARE(e2.value("width").toString(), QStringLiteral("0"));
    QVERIFY(e2.value("height").isDouble());
    QCOMPARE(e2.value("height").toInt(), 720);
    QCOMPARE(e2.value("size").toInt(), 5);

    // The addresses that cloudsim fills in lead to the bytes and to a picture.
    const QString ossDir = m1.value("ossDir").toString();
    QCOMPARE(ossDir, m_cloud.url(QStringLiteral("/files/m1/intro%20clip.mp4")));
    const Answer file = send(QUrl(ossDir).path(QUrl::FullyEncoded));
    QCOMPARE(file.status, 200);
    QCOMPARE(file.body, generatedContent(0, 4096));
    const Answer text = send(QUrl(m2.value("ossDir").toString()).path());
    QCOMPARE(text.body, QByteArray("hello"));

    const QUrl thumb(e1.value("thumb_image_url").toString());
    QCOMPARE(thumb.host(), QStringLiteral("127.0.0.1"));
    QCOMPARE(thumb.port(), m_cloud.port());
    QCOMPARE(m1.value("pictureDafaultAddress").toString(), thumb.toString());
    const Answer png = send(thumb.path());
    QCOMPARE(png.status, 200);
    QCOMPARE(png.header("Content-Type"), QByteArray("image/png"));
    QImage image;
    QVERIFY(image.loadFromData(png.body, "PNG"));
    QCOMPARE(image.size(), QSize(16, 16));
    // Each medium's thumbnail has a colour of its own.
    const Answer otherPng = send(QUrl(e2.value("thumb_image_url").toString()).path());
    QImage other;
    QVERIFY(other.loadFromData(otherPng.body, "PNG"));
    QVERIFY(other.pixel(0, 0) != image.pixel(0, 0));
}

void TestCloudSim::catalogueHeaderChecks_data()
{
    QTest::addColumn<Headers>("headers");
    QTest::addColumn<int>("httpCode");

    QTest::newRow("all four") << CloudClient::gatewayHeaders("tok-1") << 200;
    QTest::newRow("no source") << Headers{{"version", "V1.0.0"}, {"Authorization", "tok-1"}, {"Token", "tok-1"}}
                               << 400;
    QTest::newRow("wrong source") << Headers{{"source", "web"}, {"version", "V1.0.0"}, {"Authorization", "tok-1"},
                                             {"Token", "tok-1"}}
                                  << 400;
    QTest::newRow("wrong version") << Headers{{"source", "mediaserver"}, {"version", "V2.0.0"},
                                              {"Authorization", "tok-1"}, {"Token", "tok-1"}}
                                   << 400;
    QTest::newRow("no Authorization") << Headers{{"source", "mediaserver"}, {"version", "V1.0.0"}, {"Token", "tok-1"}}
                                      << 401;
    QTest::newRow("no Token") << Headers{{"source", "mediaserver"}, {"version", "V1.0.0"}, {"Authorization", "tok-1"}}
                              << 401;
    QTest::newRow("Token differs") << Headers{{"source", "mediaserver"}, {"version", "V1.0.0"},
                                              {"Authorization", "tok-1"}, {"Token", "tok-2"}}
                                   << 401;
    QTest::newRow("unknown token") << CloudClient::gatewayHeaders("tok-9") << 401;
}

void TestCloudSim::catalogueHeaderChecks()
{
    QFETCH(Headers, headers);
    QFETCH(int, httpCode);
    QVERIFY(m_cloud.start(mediaScenario(2)));
    const Answer a = send(catalogueQuery, headers);
    // The gateway refuses inside a 200, as the cloud does.
    QCOMPARE(a.status, 200);
    const QJsonObject reply = a.json();
    QCOMPARE(reply.value("http_code").toInt(), httpCode);
    if (httpCode == 200) {
        QCOMPARE(mids(reply), (QStringList{"m2", "m1"}));
        QVERIFY(!a.body.contains("\"error\""));
    } else {
        QCOMPARE(reply.value("status").toString(), QStringLiteral("fail"));
        QVERIFY(a.body.contains("\"error\""));
        QVERIFY(!reply.contains("data"));
    }
}

void TestCloudSim::catalogueNewestFirstWithLimitAndOffset()
{
    QVERIFY(m_cloud.start(mediaScenario(60)));
    const QJsonObject first = catalogue("tok-1").json();
    QCOMPARE(first.value("data").toObject().value("count").toInt(), 60);
    const QStringList page = mids(first);
    QCOMPARE(page.size(), 50);
    QCOMPARE(page.first(), QStringLiteral("m60"));
    QCOMPARE(page.last(), QStringLiteral("m11"));

    const QJsonObject tail = catalogue("tok-1", QStringLiteral("/gateway/cirro?cirro=Rest/Lite/Medias?search="
                                                               "&offset=57&limit=50&sortType=desc"))
                                 .json();
    QCOMPARE(mids(tail), (QStringList{"m3", "m2", "m1"}));
    QCOMPARE(tail.value("data").toObject().value("count").toInt(), 60);

    const QJsonObject oldest = catalogue("tok-1", QStringLiteral("/gateway/cirro?cirro=Rest/Lite/Medias?search="
                                                                 "&offset=0&limit=2&sortType=asc"))
                                   .json();
    QCOMPARE(mids(oldest), (QStringList{"m1", "m2"}));

    // A client that encodes the whole service path is understood the same way.
    const QJsonObject encoded = catalogue("tok-1", QStringLiteral("/gateway/cirro?cirro=Rest%2FLite%2FMedias%3F"
                                                                  "search%3D%26offset%3D1%26limit%3D2"))
                                    .json();
    QCOMPARE(mids(encoded), (QStringList{"m59", "m58"}));

    const QJsonObject searched = catalogue("tok-1", QStringLiteral("/gateway/cirro?cirro=Rest/Lite/Medias?search="
                                                                   "clip5&offset=0&limit=50"))
                                     .json();
    QCOMPARE(mids(searched), (QStringList{"m59", "m58", "m57", "m56", "m55", "m54", "m53", "m52", "m51", "m50",
                                          "m5"}));
}

void TestCloudSim::catalogueStatusAsNumber()
{
    QVERIFY(m_cloud.start(R"({"accounts":[{"token":"tok-1","status":1,"media":[{"mid":"a"}]}]})"));
    const QJsonObject reply = catalogue("tok-1").json();
    QVERIFY(reply.value("status").isDouble());
    QCOMPARE(reply.value("status").toInt(), 1);
    QCOMPARE(mids(reply), QStringList{"a"});
    // Without a file, a medium still has 1024 generated bytes.
    const auto entity = reply.value("data").toObject().value("mediaList").toArray().at(0).toObject().value(
        "media_entity").toObject();
    QCOMPARE(entity.value("size").toInt(), 1024);
    QCOMPARE(send(QStringLiteral("/files/a/a.bin")).body, generatedContent(0, 1024));
}

void TestCloudSim::rangeRequests_data()
{
    QTest::addColumn<QByteArray>("range");
    QTest::addColumn<int>("status");
    QTest::addColumn<qint64>("from");
    QTest::addColumn<int>("length");

    QTest::newRow("none") << QByteArray() << 200 << qint64(0) << 5000;
    QTest::newRow("from start") << QByteArray("bytes=0-") << 206 << qint64(0) << 5000;
    QTest::newRow("from offset") << QByteArray("bytes=1237-") << 206 << qint64(1237) << 3763;
    QTest::newRow("window") << QByteArray("bytes=8-15") << 206 << qint64(8) << 8;
    QTest::newRow("odd window") << QByteArray("bytes=4093-4101") << 206 << qint64(4093) << 9;
    QTest::newRow("last byte") << QByteArray("bytes=4999-") << 206 << qint64(4999) << 1;
    QTest::newRow("end clamped") << QByteArray("bytes=4990-9999") << 206 << qint64(4990) << 10;
    QTest::newRow("suffix") << QByteArray("bytes=-7") << 206 << qint64(4993) << 7;
    QTest::newRow("past the end") << QByteArray("bytes=5000-") << 416 << qint64(0) << 0;
}

void TestCloudSim::rangeRequests()
{
    QFETCH(QByteArray, range);
    QFETCH(int, status);
    QFETCH(qint64, from);
    QFETCH(int, length);
    QVERIFY(m_cloud.start(R"({"files":[{"name":"data.bin","size":5000}]})"));

    Headers headers;
    if (!range.isEmpty())
        headers.append({"Range", range});
    const Answer a = send(QStringLiteral("/files/data.bin"), headers);
    QCOMPARE(a.status, status);
    if (status == 416) {
        QCOMPARE(a.header("Content-Range"), QByteArray("bytes */5000"));
        return;
    }
    QCOMPARE(a.header("Content-Length").toLongLong(), qint64(length));
    QCOMPARE(a.body.size(), length);
    QCOMPARE(a.body, generatedContent(std::uint64_t(from), length));
    if (status == 206) {
        QCOMPARE(a.header("Content-Range"),
                 QStringLiteral("bytes %1-%2/5000").arg(from).arg(from + length - 1).toLatin1());
    } else {
        QVERIFY(!a.hasHeader("Content-Range"));
    }
}

void TestCloudSim::largeFileStreamsInSmallMemory()
{
    const qint64 size = 512LL * 1024 * 1024;
    QVERIFY(m_cloud.start(QStringLiteral(R"({"files":[{"name":"big.bin","size":%1}]})").arg(size).toUtf8()));

    QNetworkAccessManager manager;
    QNetworkReply *reply = manager.get(QNetworkRequest(QUrl(m_cloud.url(QStringLiteral("/files/big.bin")))));
    // Small read buffer: the test process must not hold the file either.
    reply->setReadBufferSize(1 << 20);
    qint64 received = 0;
    bool same = true;
    QObject::connect(reply, &QNetworkReply::readyRead, this, [&] {
        const QByteArray chunk = reply->readAll();
        // Every byte is compared, so a gap or a repeat anywhere in the stream is caught.
        if (same && chunk != generatedContent(std::uint64_t(received), chunk.size()))
            same = false;
        received += chunk.size();
    });
    QSignalSpy finished(reply, &QNetworkReply::finished);
    QVERIFY(finished.wait(600000));
    QCOMPARE(reply->error(), QNetworkReply::NoError);
    QCOMPARE(reply->header(QNetworkRequest::ContentLengthHeader).toLongLong(), size);
    QCOMPARE(received, size);
    QVERIFY(same);

    // The peak resident size of the whole run stays far below the file's size.
    const qint64 peakKiB = statusKiB(m_cloud.pid(), "VmHWM");
    QVERIFY(peakKiB > 0);
    QVERIFY2(peakKiB < 64 * 1024, qPrintable(QStringLiteral("cloudsim peak RSS %1 KiB").arg(peakKiB)));
}

void TestCloudSim::faultHangHoldsTheRequestAndStillStops()
{
    QVERIFY(m_cloud.start(mediaScenario(1)));
    QVERIFY(m_cloud.addFault(QJsonObject{{"kind", "hang"}, {"path", "/gateway/cirro"}}));
    QNetworkRequest request(QUrl(m_cloud.url(catalogueQuery)));
    for (const auto &h : CloudClient::gatewayHeaders("tok-1"))
        request.setRawHeader(h.first, h.second);
    QNetworkAccessManager manager;
    QNetworkReply *hanging = manager.get(request);
    QSignalSpy finished(hanging, &QNetworkReply::finished);
    QVERIFY(!finished.wait(2000));
    QVERIFY(!hanging->isFinished());

    // The rest of the cloud keeps answering meanwhile.
    QCOMPARE(send(QStringLiteral("/echo")).status, 200);
    const QJsonArray log = m_cloud.requests();
    QVERIFY(!log.isEmpty());
    QCOMPARE(log.first().toObject().value("path").toString(), catalogueQuery);

    // A hanging request does not keep the server from ending by itself on SIGTERM.
    QVERIFY(m_cloud.stop());
    QCOMPARE(m_cloud.exitCode(), 0);
    QVERIFY(finished.count() == 1 || finished.wait(20000));
    QVERIFY(hanging->error() != QNetworkReply::NoError);
    QCOMPARE(hanging->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), 0);
}

void TestCloudSim::faultTimesPrefixAndMethod()
{
    QVERIFY(m_cloud.start(mediaScenario(2)));
    QVERIFY(m_cloud.addFault(QJsonObject{{"kind", "status"}, {"prefix", "/files/"}, {"status", 503}, {"times", 2}}));
    QVERIFY(m_cloud.addFault(QJsonObject{{"kind", "status"}, {"path", "/echo"}, {"method", "POST"}, {"status", 500}}));
    QCOMPARE(send(QStringLiteral("/files/m1/clip1.mp4")).status, 503);
    QCOMPARE(send(QStringLiteral("/files/m2/clip2.mp4")).status, 503);
    // Used up after two.
    QCOMPARE(send(QStringLiteral("/files/m1/clip1.mp4")).status, 200);
    QCOMPARE(send(QStringLiteral("/echo")).status, 200);
    QCOMPARE(send(QStringLiteral("/echo"), {}, "POST", "x").status, 500);
}

QTEST_MAIN(TestCloudSim)
#include "tst_cloudsim.moc"
