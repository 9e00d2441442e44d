// The file downloader against the local cloud over real TLS: the bytes on disk, the ".temp"
// file and its rename, the Range header, broken transfers and folder creation.

#include "cloudmaterial/protocol/filedownloader.h"
#include "cloudmaterial/workerpool.h"
#include "support/cloudsimfixture.h"
#include "support/generatedcontent.h"
#include "support/logcapture.h"
#include "support/modulelog.h"

#include <QtTest>

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonObject>
#include <QMutex>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <utility>

using namespace talvor::cloudmaterial;

namespace {

QByteArray generated(int size)
{
    return generatedContent(0, size);
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool writeFile(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

// The downloader's Qt-side lines ("rxcm.download"), from whatever thread wrote them.
struct QtLog
{
    struct Line
    {
        QtMsgType type;
        QString text;
    };

    static void handler(QtMsgType type, const QMessageLogContext &context, const QString &message)
    {
        if (context.category && qstrcmp(context.category, "rxcm.download") == 0) {
            QMutexLocker locker(&mutex);
            lines.append({type, message});
        }
        if (previous)
            previous(type, context, message);
    }
    static QList<Line> take()
    {
        QMutexLocker locker(&mutex);
        return std::exchange(lines, {});
    }
    static int count(const QList<Line> &lines, QtMsgType type, const QString &startsWith)
    {
        return int(std::count_if(lines.begin(), lines.end(), [&](const Line &line) {
            return line.type == type && line.text.startsWith(startsWith);
        }));
    }

    static inline QMutex mutex;
    static inline QList<Line> lines;
    static inline QtMessageHandler previous = nullptr;
};

constexpr int fileSize = 300000;

} // namespace

class TestFileDownloader : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void init();
    void cleanup();

    void downloads_data();
    void downloads();
    void httpErrorCreatesNothing_data();
    void httpErrorCreatesNothing();
    void droppedConnectionKeepsPartialTemp();
    void wrongContentLength_data();
    void wrongContentLength();
    void leftoverTempIsAppendedAndFails();
    void existingFileIsKept();
    void uncreatableFolderFails();
    void createFolder_data();
    void createFolder();
    void slowFileCompletes();
    void downloadOnWorkerThread();

private:
    std::string url(const QString &name) const { return m_sim.url(QStringLiteral("/files/") + name).toStdString(); }
    QString path(const QString &name) const { return m_dir->filePath(name); }
    // The Range header of every file request the server received, in order.
    QStringList rangesSent();

    CloudSim m_sim;
    std::unique_ptr<QTemporaryDir> m_dir;
};

void TestFileDownloader::initTestCase()
{
    QtLog::previous = qInstallMessageHandler(&QtLog::handler);
    QVERIFY(m_sim.start(R"({"files":[
        {"name":"a.bin","size":300000},
        {"name":"big.bin","size":3000000},
        {"name":"one.bin","size":1},
        {"name":"hello.txt","text":"hello"},
        {"name":"slow.bin","size":20000}]})"));
}

void TestFileDownloader::cleanupTestCase()
{
    m_sim.stop();
    qInstallMessageHandler(QtLog::previous);
}

void TestFileDownloader::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
    QtLog::take();
}

void TestFileDownloader::cleanup()
{
    QVERIFY(m_sim.clearFaults());
    QVERIFY(m_sim.clearRequests());
    m_dir.reset();
}

QStringList TestFileDownloader::rangesSent()
{
    QStringList ranges;
    for (const auto &request : m_sim.requests()) {
        const QJsonObject object = request.toObject();
        if (object.value("path").toString().startsWith(QLatin1String("/files/")))
            ranges << object.value("headers").toObject().value("Range").toString();
    }
    return ranges;
}

void TestFileDownloader::downloads_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QByteArray>("content");

    QTest::newRow("300000 bytes") << QStringLiteral("a.bin") << generated(fileSize);
    QTest::newRow("3000000 bytes") << QStringLiteral("big.bin") << generated(3000000);
    QTest::newRow("one byte") << QStringLiteral("one.bin") << generated(1);
    QTest::newRow("text") << QStringLiteral("hello.txt") << QByteArray("hello");
}

void TestFileDownloader::downloads()
{
    QFETCH(QString, name);
    QFETCH(QByteArray, content);

    FileDownloader downloader;
    QSignalSpy progress(&downloader, &FileDownloader::progress);
    const QString target = path(name);
    QCOMPARE(downloader.download(url(name), target), Successed);

    QCOMPARE(readFile(target), content);
    QVERIFY(!QFile::exists(target + QStringLiteral(".temp")));
    // A fresh downloader asks for the whole file from byte 0.
    QCOMPARE(rangesSent(), QStringList{QStringLiteral("bytes=0-")});

    QVERIFY(!progress.isEmpty());
    qint64 last = 0;
    for (const auto &arguments : progress) {
        const qint64 received = arguments.at(0).toLongLong();
        QVERIFY(received > last);
        QCOMPARE(arguments.at(1).toLongLong(), qint64(content.size()));
        last = received;
    }
    QCOMPARE(last, qint64(content.size()));

    const auto lines = QtLog::take();
    QCOMPARE(QtLog::count(lines, QtInfoMsg, QStringLiteral("http response file size : %1").arg(content.size())), 1);
    QCOMPARE(QtLog::count(lines, QtWarningMsg, QString()), 0);
}

void TestFileDownloader::httpErrorCreatesNothing_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QJsonObject>("fault");

    QTest::newRow("unknown file") << QStringLiteral("missing.bin") << QJsonObject();
    QTest::newRow("404 with a body")
        << QStringLiteral("a.bin")
        << QJsonObject{{"kind", "status"}, {"path", "/files/a.bin"}, {"status", 404}, {"body", "not here"}};
    QTest::newRow("500 with a JSON body")
        << QStringLiteral("a.bin") << QJsonObject{{"kind", "status"}, {"path", "/files/a.bin"}, {"status", 500}};
}

void TestFileDownloader::httpErrorCreatesNothing()
{
    QFETCH(QString, name);
    QFETCH(QJsonObject, fault);

    if (!fault.isEmpty())
        QVERIFY(m_sim.addFault(fault));
    FileDownloader downloader;
    const QString target = path(name);
    QCOMPARE(downloader.download(url(name), target), Failed);

    QVERIFY(!QFile::exists(target));
    QVERIFY(!QFile::exists(target + QStringLiteral(".temp")));
    QCOMPARE(QDir(m_dir->path()).entryList(QDir::NoDotAndDotDot | QDir::AllEntries), QStringList());
    QVERIFY(QtLog::count(QtLog::take(), QtWarningMsg, QStringLiteral("Download failed: ")) >= 1);
}

void TestFileDownloader::droppedConnectionKeepsPartialTemp()
{
    QVERIFY(m_sim.addFault({{"kind", "drop_after"}, {"path", "/files/a.bin"}, {"bytes", 100000}}));
    FileDownloader downloader;
    const QString target = path(QStringLiteral("a.bin"));
    QCOMPARE(downloader.download(url(QStringLiteral("a.bin")), target), Failed);

    QVERIFY(!QFile::exists(target));
    // What did arrive stays behind in the ".temp" file, deliberately.
    QCOMPARE(readFile(target + QStringLiteral(".temp")), generated(100000));
    QVERIFY(QtLog::count(QtLog::take(), QtWarningMsg, QStringLiteral("Download failed: ")) >= 1);
}

void TestFileDownloader::wrongContentLength_data()
{
    QTest::addColumn<QJsonObject>("fault");

    // More announced than sent: the connection ends early.
    QTest::newRow("announced 100 more") << QJsonObject{{"delta", 100}};
    QTest::newRow("announced 1 more") << QJsonObject{{"delta", 1}};
    // Less announced than sent: the client reads only what was announced.
    QTest::newRow("announced 1000 of 300000") << QJsonObject{{"length", 1000}};
    QTest::newRow("announced 1 less") << QJsonObject{{"length", fileSize - 1}};
}

void TestFileDownloader::wrongContentLength()
{
    QFETCH(QJsonObject, fault);

    fault.insert("kind", "wrong_length");
    fault.insert("path", "/files/a.bin");
    QVERIFY(m_sim.addFault(fault));
    FileDownloader downloader;
    const QString target = path(QStringLiteral("a.bin"));
    QCOMPARE(downloader.download(url(QStringLiteral("a.bin")), target), Failed);

    // Nothing was renamed into place.
    QVERIFY(!QFile::exists(target));
    QVERIFY(QtLog::count(QtLog::take(), QtWarningMsg, QString()) >= 1);
}

void TestFileDownloader::leftoverTempIsAppendedAndFails()
{
    const QString target = path(QStringLiteral("a.bin"));
    const QString temp = target + QStringLiteral(".temp");
    QVERIFY(m_sim.addFault({{"kind", "drop_after"}, {"path", "/files/a.bin"}, {"bytes", 100000}, {"times", 1}}));
    {
        FileDownloader first;
        QCOMPARE(first.download(url(QStringLiteral("a.bin")), target), Failed);
    }
    const QByteArray leftover = readFile(temp);
    QCOMPARE(leftover.size(), 100000);
    QtLog::take();

    // A fresh downloader still asks from byte 0 and appends the whole file to the leftover.
    FileDownloader second;
    QSignalSpy progress(&second, &FileDownloader::progress);
    QCOMPARE(second.download(url(QStringLiteral("a.bin")), target), Failed);
    QVERIFY(!QFile::exists(target));
    QCOMPARE(readFile(temp), leftover + generated(fileSize));
    QCOMPARE(rangesSent(), (QStringList{QStringLiteral("bytes=0-"), QStringLiteral("bytes=0-")}));
    QVERIFY(!progress.isEmpty());
    QCOMPARE(progress.last().at(0).toLongLong(), qint64(leftover.size() + fileSize));

    const auto lines = QtLog::take();
    QCOMPARE(QtLog::count(lines, QtInfoMsg, QStringLiteral("http response file size : %1").arg(fileSize)), 1);
    QCOMPARE(QtLog::count(lines, QtWarningMsg, QStringLiteral("http response file size != download local file size")),
             1);
}

void TestFileDownloader::existingFileIsKept()
{
    const QString target = path(QStringLiteral("a.bin"));
    QVERIFY(writeFile(target, "an older copy"));

    FileDownloader downloader;
    // The rename onto an existing file fails and, deliberately, is not reported.
    QCOMPARE(downloader.download(url(QStringLiteral("a.bin")), target), Successed);
    QCOMPARE(readFile(target), QByteArray("an older copy"));
    QCOMPARE(readFile(target + QStringLiteral(".temp")), generated(fileSize));
}

void TestFileDownloader::uncreatableFolderFails()
{
    // A regular file where a folder should be: no mkdir can succeed, even as root.
    QVERIFY(writeFile(path(QStringLiteral("afile")), "x"));
    const QString folder = path(QStringLiteral("afile/sub"));
    const QString target = folder + QStringLiteral("/a.bin");

    LogCapture log;
    FileDownloader downloader;
    QCOMPARE(downloader.download(url(QStringLiteral("a.bin")), target), Failed);
    QVERIFY(!QFile::exists(target));
    QVERIFY(!QFile::exists(target + QStringLiteral(".temp")));

    const auto lines = log.linesStartingWith("createFolder failed");
    QVERIFY(!lines.empty());
    for (const auto &line : lines) {
        QVERIFY2(ModuleLog::is(line, "createFolder failed folderPath = " + folder.toStdString(),
                               "filedownloader:createFolder"),
                 line.text.c_str());
        QVERIFY(line.level >= spdlog::level::warn);
    }
    QVERIFY(QtLog::count(QtLog::take(), QtWarningMsg, QStringLiteral("open file error: ") + target
                                                          + QStringLiteral(".temp"))
            >= 1);
}

void TestFileDownloader::createFolder_data()
{
    QTest::addColumn<QString>("relative");
    QTest::addColumn<bool>("ok");

    QTest::newRow("existing") << QString() << true;
    QTest::newRow("new with parents") << QStringLiteral("x/y/z") << true;
    QTest::newRow("under a file") << QStringLiteral("afile/sub") << false;
}

void TestFileDownloader::createFolder()
{
    QFETCH(QString, relative);
    QFETCH(bool, ok);

    QVERIFY(writeFile(path(QStringLiteral("afile")), "x"));
    const QString folder = relative.isEmpty() ? m_dir->path() : path(relative);
    LogCapture log;
    QCOMPARE(FileDownloader::createFolder(folder), ok);
    QCOMPARE(QFileInfo(folder).isDir(), ok);

    const auto lines = log.linesStartingWith("createFolder failed folderPath = ");
    QCOMPARE(lines.size(), std::size_t(ok ? 0 : 1));
    if (!ok)
        QVERIFY2(ModuleLog::is(lines.front(), "createFolder failed folderPath = " + folder.toStdString(),
                               "filedownloader:createFolder"),
                 lines.front().text.c_str());
}

void TestFileDownloader::slowFileCompletes()
{
    // About half a second, in pieces of a twentieth of a second's worth.
    QVERIFY(m_sim.addFault({{"kind", "slow"}, {"path", "/files/slow.bin"}, {"bytes_per_second", 40000}}));
    FileDownloader downloader;
    QSignalSpy progress(&downloader, &FileDownloader::progress);
    const QString target = path(QStringLiteral("slow.bin"));
    QCOMPARE(downloader.download(url(QStringLiteral("slow.bin")), target), Successed);
    QCOMPARE(readFile(target), generated(20000));
    QVERIFY(!QFile::exists(target + QStringLiteral(".temp")));
    // The bytes came in several pieces, each written as it arrived.
    QVERIFY(progress.size() >= 2);
    QCOMPARE(progress.last().at(0).toLongLong(), qint64(20000));
}

void TestFileDownloader::downloadOnWorkerThread()
{
    WorkerPool pool;
    // Into a folder that does not exist yet: the downloader makes it.
    const QString target = path(QStringLiteral("worker/a.bin"));
    const std::string source = url(QStringLiteral("a.bin"));
    DownloadStatus status = Allowed;
    int progressed = 0;
    pool.enqueue([&] {
            // Made, used and destroyed on the worker, as the material controller does.
            FileDownloader downloader;
            QObject::connect(&downloader, &FileDownloader::progress, &downloader, [&] { ++progressed; });
            status = downloader.download(source, target);
        })
        .get();

    QCOMPARE(status, Successed);
    QVERIFY(progressed > 0);
    QCOMPARE(readFile(target), generated(fileSize));
    QVERIFY(!QFile::exists(target + QStringLiteral(".temp")));
}

QTEST_GUILESS_MAIN(TestFileDownloader)
#include "tst_filedownloader.moc"
