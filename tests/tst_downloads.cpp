// The material controller's downloads against the local cloud over real TLS: into the material
// folder, one per material, and what an ended session or a shutdown stops.

#include "cloudmaterial/cloudmateriallist/cloudmaterialcontroller.h"
#include "cloudmaterial/cloudmateriallist/detailwidget.h"
#include "cloudmaterial/cloudmateriallist/medialistrequest.h"
#include "cloudmaterial/currentnode.h"
#include "cloudmaterial/login/logincontroller.h"
#include "cloudmaterial/maincontroller.h"
#include "cloudmaterial/maincontroller_p.h"
#include "cloudmaterial/maincontrollerwrapper.h"
#include "cloudmaterial/protocol/httpclientwrapper.h"
#include "cloudmaterial/workerpool.h"

#include "localcloud/cloudsim.h"
#include "support/cloudscenario.h"
#include "support/generatedcontent.h"
#include "support/logcapture.h"
#include "support/materialsfixture.h"
#include "support/qtmessagecapture.h"

#include <QtTest>

#include <QDirIterator>

#include <algorithm>
#include <future>

using namespace talvor::cloudmaterial;

class TestDownloads : public MaterialsFixture
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { setUpOnce(); }
    void init() { QVERIFY(newFolder()); }
    void cleanup() { cloud.stop(); }
    void download_data();
    void download();
    void oneDownloadPerMaterial();
    void endedSessionSignalsNothing_data();
    void endedSessionSignalsNothing();
    void shutdownStopsTransfers_data();
    void shutdownStopsTransfers();
};

void TestDownloads::download_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QJsonObject>("fault");
    QTest::addColumn<bool>("ok");
    const QJsonObject none;
    QTest::newRow("success") << "movie one.mp4" << none << true;
    // Slow enough to still be running when an existence answer comes: it is ignored.
    QTest::newRow("answer while running")
        << "slow.bin" << QJsonObject{{"kind", "slow"}, {"prefix", "/files/"}, {"bytes_per_second", 2000}} << true;
    QTest::newRow("dropped connection") << "cut.bin"
                                        << QJsonObject{{"kind", "drop_after"}, {"prefix", "/files/"}, {"bytes", 1000}}
                                        << false;
    // Hostile names: refused before anything is asked or written.
    QTest::newRow("parent") << "../escaped.bin" << none << false;
    QTest::newRow("dot dot") << ".." << none << false;
    QTest::newRow("sub folder") << "sub/escaped.bin" << none << false;
    QTest::newRow("backslash") << "..\\escaped.bin" << none << false;
    QTest::newRow("absolute") << "/tmp/escaped.bin" << none << false;
    QTest::newRow("drive") << "C:escaped.bin" << none << false;
}

void TestDownloads::download()
{
    QFETCH(QString, name);
    QFETCH(QJsonObject, fault);
    QFETCH(bool, ok);
    const bool hostile = fault.isEmpty() && !ok;
    QVERIFY(cloud.start(accountScenario(token, {cloudMedium("m1", name)})));
    QVERIFY(fault.isEmpty() || cloud.addFault(fault));
    // The material folder sits one level down, so an escape would land in a folder we watch.
    const QString outer = folder->path(), inner = outer + QStringLiteral("/materials");
    QVERIFY(QDir(outer).mkdir(QStringLiteral("materials")));
    // The façade's own controller, so that the signal is seen where the host sees it.
    auto &wrapper = MainControllerWrapper::instance();
    wrapper.setRXRuntime(nullptr);
    wrapper.setCloudMaterialFolderPath(inner.toStdString());
    auto controller = MainControllerInternals::materialController(MainController::instance());
    controller->clear(); // whatever an earlier row left
    MainControllerInternals::loginController(MainController::instance()).selectNode(cloud.host(), "node-1");
    controller->setToken(token);
    QSignalSpy hostSignal(&wrapper, &MainControllerWrapper::sigDownloadSuccess);
    QSignalSpy states(controller.get(), &CloudMaterialController::materialDownloadStatusChanged);
    QSignalSpy progress(controller.get(), &CloudMaterialController::materialDownloadProgress);
    LogCapture log;
    refresh(controller);
    QVERIFY(cloud.clearRequests());

    controller->downloadMaterial("m1");
    QCOMPARE(states.count(), 1);
    QCOMPARE(states.at(0).at(1).value<DownloadStatus>(), Downloading);
    CloudMaterialModel row;
    if (!fault.isEmpty() && ok) {
        Q_EMIT controller->sigFileExistStatusChanged("m1", name.toStdString(), false);
        Q_EMIT controller->sigFileExistStatusChanged("m1", name.toStdString(), true);
        QCoreApplication::processEvents();
        QCOMPARE(states.count(), 1);
    }
    QVERIFY(controller->material("m1", row) && row.downloadStatus == Downloading);

    QTRY_COMPARE_WITH_TIMEOUT(states.count(), 2, 30000);
    QCOMPARE(states.at(1).at(1).value<DownloadStatus>(), ok ? Successed : Failed);
    QVERIFY(controller->material("m1", row) && row.downloadStatus == (ok ? Successed : Failed));
    QCOMPARE(hostSignal.count(), int(ok));
    QCOMPARE(QDir(outer).entryList(QDir::NoDotAndDotDot | QDir::AllEntries), QStringList{QStringLiteral("materials")});
    QCOMPARE(log.linesStartingWith("refused to download m1").size(), std::size_t(hostile));
    if (hostile || ok) // no ".temp" left on success either
        QCOMPARE(QDir(inner).entryList(QDir::NoDotAndDotDot | QDir::AllEntries),
                 ok ? QStringList{name} : QStringList());
    else // a failed download leaves no final file
        QVERIFY(!QFile::exists(inner + QLatin1Char('/') + name));
    if (hostile) {
        QCOMPARE(cloud.requests().size(), 0);
        QVERIFY(!QFile::exists(QStringLiteral("/tmp/escaped.bin")));
    }
    if (ok) {
        QCOMPARE(hostSignal.at(0).at(0).value<std::string>(), std::string("m1"));
        QCOMPARE(QString::fromStdString(hostSignal.at(0).at(1).value<std::string>()), inner + QLatin1Char('/') + name);
        QFile file(inner + QLatin1Char('/') + name);
        QVERIFY(file.open(QIODevice::ReadOnly) && file.readAll() == generatedContent(0, 4000));
        QCOMPARE(progress.last().mid(1), (QVariantList{qint64(4000), qint64(4000)}));
    }
}

void TestDownloads::oneDownloadPerMaterial()
{
    QVERIFY(cloud.start(
        accountScenario(token, {cloudMedium("m1", "a.bin"), cloudMedium("m2", "b.bin"), cloudMedium("m3", "c.bin")})));
    // Slow enough that the second press comes while the first download runs.
    QVERIFY(cloud.addFault({{"kind", "slow"}, {"prefix", "/files/"}, {"bytes_per_second", 8000}}));
    auto controller = makeController();
    refresh(controller);
    QVERIFY(cloud.clearRequests());
    QSignalSpy succeeded(controller.get(), &CloudMaterialController::sigDownloadSuccess);
    QSignalSpy states(controller.get(), &CloudMaterialController::materialDownloadStatusChanged);
    LogCapture log;

    const std::vector<std::string> mids{"m1", "m2", "m3"};
    for (int press = 0; press < 2; ++press) {
        for (const std::string &mid : mids)
            controller->downloadMaterial(mid);
    }
    for (const std::string &mid : mids)
        QCOMPARE(log.linesStartingWith(mid + " is being downloaded already").size(), std::size_t(1));
    QTRY_COMPARE_WITH_TIMEOUT(succeeded.count(), 3, 30000);
    QCOMPARE(ids(succeeded, true), mids);
    for (const QString name : {"a.bin", "b.bin", "c.bin"}) {
        QFile file(folder->filePath(name));
        QVERIFY(file.open(QIODevice::ReadOnly) && file.readAll() == generatedContent(0, 4000));
    }
    QCOMPARE(filesUnder(folder->path()), (QStringList{"a.bin", "b.bin", "c.bin"})); // no ".temp"
    QCOMPARE(requestsTo(cloud, "/files/m1/"), 1);
    QCOMPARE(requestsTo(cloud, "/files/m2/"), 1);
    QCOMPARE(requestsTo(cloud, "/files/m3/"), 1);
    QCOMPARE(states.count(), 6); // Downloading and Successed, once each

    // A second answer to the same request (the group's channel reaches every machine) is ignored.
    Q_EMIT controller->sigDownloadFileStatusChanged("m1", "a.bin", true);
    QCOMPARE(log.linesStartingWith("download answer for m1 ignored").size(), std::size_t(1));
    QCOMPARE(succeeded.count() + states.count(), 3 + 6);

    // Downloaded and still there: looked for, not fetched again. Gone from the folder: fetched again.
    QVERIFY(cloud.clearRequests() && QFile::remove(folder->filePath("b.bin")));
    controller->downloadMaterial("m1");
    controller->downloadMaterial("m2");
    QTRY_COMPARE(log.linesStartingWith("m1 is already in the material folder").size(), std::size_t(1));
    QTRY_COMPARE_WITH_TIMEOUT(succeeded.count(), 4, 30000);
    QCOMPARE(ids(succeeded).back(), std::string("m2"));
    QCOMPARE(requestsTo(cloud, "/files/"), 1);
    QCOMPARE(requestsTo(cloud, "/files/m2/"), 1);
    CloudMaterialModel row;
    QVERIFY(controller->material("m1", row) && row.downloadStatus == Successed);
}

void TestDownloads::endedSessionSignalsNothing_data()
{
    QTest::addColumn<QString>("work");
    QTest::newRow("queued refresh") << "queued refresh";
    QTest::newRow("running refresh") << "running refresh";
    QTest::newRow("existence check") << "existence check";
    QTest::newRow("thumbnails") << "thumbnails";
}

// Each case ends the session while its work is queued or running, then starts a new session whose
// own work comes through the same threads after it: what the old session left never shows.
void TestDownloads::endedSessionSignalsNothing()
{
    QFETCH(QString, work);
    QVERIFY(cloud.start(accountScenario(token, {cloudMedium("m1", "a.jpg"), cloudMedium("m2", "b.jpg")})));
    QVERIFY(QFile(folder->filePath("a.jpg")).open(QIODevice::WriteOnly));
    auto controller = makeController();
    QSignalSpy added(controller.get(), &CloudMaterialController::addMaterials);
    QSignalSpy approvals(controller.get(), &CloudMaterialController::materialApprovalStatusChanged);
    QSignalSpy exists(controller.get(), &CloudMaterialController::sigFileExistStatusChanged);
    QSignalSpy thumbnails(controller.get(), &CloudMaterialController::materialThumbnailReady);
    std::unique_ptr<QWidget> panel;
    std::future<void> old;

    if (work == "queued refresh") {
        std::promise<void> gate;
        pool->enqueue([opened = gate.get_future().share()] { opened.wait(); });
        old = controller->requestRefresh(true);
        controller->clear();
        controller->setToken(token);
        controller->requestRefresh(true);
        gate.set_value();
    } else if (work == "running refresh") {
        QVERIFY(cloud.addFault({{"kind", "slow"}, {"prefix", "/gateway/"}, {"bytes_per_second", 2000}}));
        old = controller->requestRefresh(true);
        QTRY_COMPARE_WITH_TIMEOUT(catalogueRequests(cloud), 1, 30000);
        controller->clear();
        QCOMPARE(old.wait_for(std::chrono::seconds(30)), std::future_status::ready);
        QCoreApplication::processEvents();
        QVERIFY(cloud.clearFaults());
        controller->setToken(token);
        controller->requestRefresh(true);
    } else if (work == "existence check") {
        refresh(controller);
        added.clear();
        Q_EMIT controller->sigCloudFileIsExist("m1", "a.jpg"); // as a refresh asks for a known material
        controller->clear();
        controller->lookForFile("after", "a.jpg"); // the same thread looks after the old check
        QTRY_COMPARE(exists.count(), 1);
        QCOMPARE(exists.at(0).at(0).value<std::string>(), std::string("after"));
        controller->setToken(token);
        controller->requestRefresh(true);
    } else {
        panel.reset(new DetailWidget(controller.get()));
        // A 16 by 16 picture trickles in for seconds: the first is still coming, the second waits.
        QVERIFY(cloud.addFault({{"kind", "slow"}, {"prefix", "/thumbs/"}, {"bytes_per_second", 20}}));
        refresh(controller);
        added.clear();
        QTRY_COMPARE(requestsTo(cloud, "/thumbs/"), 1);
        controller->clear();
        QVERIFY(cloud.clearFaults());
        controller->setToken(token);
        controller->requestRefresh(true);
        // The running fetch was stopped, the queued one never asked: one request each for the new session.
        QTRY_COMPARE(thumbnails.count(), 2);
        QCOMPARE(ids(thumbnails, true), (std::vector<std::string>{"m1", "m2"}));
        QCOMPARE(requestsTo(cloud, "/thumbs/"), 3);
        QCOMPARE(filesUnder(folder->path() + "/.thumbnails"), (QStringList{"m1.thumbnail.png", "m2.thumbnail.png"}));
    }
    QVERIFY(!old.valid() || old.wait_for(std::chrono::seconds(30)) == std::future_status::ready);
    // The new session's refresh, after the old work on the same threads: it finds both materials new.
    QTRY_COMPARE(added.count(), 2);
    QCOMPARE(ids(added, true), (std::vector<std::string>{"m1", "m2"}));
    QCOMPARE(approvals.count(), 0);
    QCOMPARE(catalogueRequests(cloud), work == "queued refresh" ? 1 : 2);
    QCOMPARE(exists.count(), int(work == "existence check"));
}

void TestDownloads::shutdownStopsTransfers_data()
{
    QTest::addColumn<bool>("destroy");
    QTest::newRow("shutdown") << false;
    QTest::newRow("destructor") << true;
}

// At exit a download and a thumbnail fetch from a slow server stop at once, leave nothing behind
// and say nothing.
void TestDownloads::shutdownStopsTransfers()
{
    QFETCH(bool, destroy);
    QJsonObject big = cloudMedium("m1", "big.bin");
    big.insert("file", QJsonObject{{"size", 400000}});
    QVERIFY(cloud.start(accountScenario(token, {big})));
    QVERIFY(cloud.addFault({{"kind", "slow"}, {"prefix", "/files/"}, {"bytes_per_second", 4000}}));
    QVERIFY(cloud.addFault({{"kind", "slow"}, {"prefix", "/thumbs/"}, {"bytes_per_second", 20}}));
    auto controller = makeController();
    std::unique_ptr<QWidget> panel(new DetailWidget(controller.get()));
    refresh(controller);
    QSignalSpy progress(controller.get(), &CloudMaterialController::materialDownloadProgress);
    controller->downloadMaterial("m1");
    QTRY_VERIFY_WITH_TIMEOUT(!progress.isEmpty() && requestsTo(cloud, "/thumbs/") == 1, 30000);
    QVERIFY(QFile::exists(folder->filePath("big.bin.temp")));

    QSignalSpy states(controller.get(), &CloudMaterialController::materialDownloadStatusChanged);
    QSignalSpy succeeded(controller.get(), &CloudMaterialController::sigDownloadSuccess);
    QSignalSpy thumbnails(controller.get(), &CloudMaterialController::materialThumbnailReady);
    QSignalSpy deleted(controller.get(), &CloudMaterialController::deleteMaterials);
    const int progressBefore = progress.count();
    QElapsedTimer timer;
    timer.start();
    if (destroy)
        controller.reset();
    else
        controller->shutdown();
    // Promised: well under a second; the transfer alone would take a minute and a half.
    QVERIFY2(timer.elapsed() < 3000, qPrintable(QString::number(timer.elapsed())));
    QCOMPARE(filesUnder(folder->path()), QStringList());
    QCoreApplication::processEvents();
    if (destroy)
        return;
    QCOMPARE(states.count() + succeeded.count() + thumbnails.count() + deleted.count(), 0);
    QCOMPARE(progress.count(), progressBefore);

    // Every later call does nothing.
    controller->shutdown();
    controller->downloadMaterial("m1");
    controller->clear();
    QVERIFY(!controller->requestRefresh(true).valid());
    QCoreApplication::processEvents();
    QCOMPARE(states.count() + deleted.count(), 0);
    QCOMPARE(requestsTo(cloud, "/files/"), 1);
}

QTEST_MAIN(TestDownloads)
#include "tst_downloads.moc"
