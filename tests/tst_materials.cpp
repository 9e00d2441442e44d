// The material catalogue and the controller that keeps the panel's picture of it, against
// the local cloud over real TLS.

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
#include "support/qtmessagecapture.h"

#include <QtTest>

#include <QDirIterator>

#include <algorithm>
#include <future>

using namespace talvor::cloudmaterial;

namespace {

const char *const token = "tok-1";

int catalogueRequests(CloudSim &cloud)
{
    return requestsTo(cloud, QStringLiteral("/gateway/cirro"));
}

// Every file under a folder, hidden ones and those in sub-folders included, relative to it.
QStringList filesUnder(const QString &folder)
{
    QStringList files;
    QDirIterator it(folder, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext())
        files << QDir(folder).relativeFilePath(it.next());
    files.sort();
    return files;
}

// The ids that a spy's signals carried, in order or sorted; each signal must carry exactly one.
std::vector<std::string> ids(const QSignalSpy &spy, bool sorted = false)
{
    std::vector<std::string> out;
    for (const auto &args : spy) {
        if (args.at(0).canConvert<std::string>()) {
            out.push_back(args.at(0).value<std::string>());
            continue;
        }
        std::vector<std::string> one = args.at(0).value<std::vector<std::string>>();
        for (const auto &row : args.at(0).value<std::vector<CloudMaterialModel>>())
            one.push_back(row.mid);
        out.push_back(one.size() == 1 ? one.front() : "<not one>");
    }
    if (sorted)
        std::sort(out.begin(), out.end());
    return out;
}

} // namespace

class TestMaterials : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init()
    {
        folder = std::make_unique<QTemporaryDir>();
        QVERIFY(folder->isValid());
    }
    void cleanup() { cloud.stop(); }
    void catalogue();
    void unreadableCatalogue_data();
    void unreadableCatalogue();
    void refreshSignalsOneChangeAtATime();
    void sessionRefreshLooksForNewMaterials();
    void download_data();
    void download();
    void overlappingRefreshesRunOnce();
    void oneDownloadPerMaterial();
    void endedSessionSignalsNothing_data();
    void endedSessionSignalsNothing();
    void shutdownStopsTransfers_data();
    void shutdownStopsTransfers();
    void lookupsRunOffTheGuiThread_data();
    void lookupsRunOffTheGuiThread();

private:
    std::shared_ptr<CloudMaterialController> makeController();
    void refresh(const std::shared_ptr<CloudMaterialController> &controller);

    CloudSim cloud;
    std::shared_ptr<WorkerPool> pool;
    CurrentNode node;
    std::unique_ptr<HttpClientWrapper> http;
    std::unique_ptr<QTemporaryDir> folder;
};

void TestMaterials::initTestCase()
{
    pool = std::make_shared<WorkerPool>(1);
    http = std::make_unique<HttpClientWrapper>(pool);
}

std::shared_ptr<CloudMaterialController> TestMaterials::makeController()
{
    node.set(cloud.host().toStdString(), "node-1");
    auto controller = std::make_shared<CloudMaterialController>(http.get(), &node);
    controller->init();
    controller->setWorkerPool(pool);
    controller->setToken(token);
    controller->setCloudMaterialFolderPath(folder->path().toStdString());
    return controller;
}

void TestMaterials::refresh(const std::shared_ptr<CloudMaterialController> &controller)
{
    auto done = controller->requestRefresh(true);
    QVERIFY(done.valid());
    QCOMPARE(done.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    // Signals for the GUI thread are queued behind the refresh.
    QCoreApplication::processEvents();
}

void TestMaterials::catalogue()
{
    // The newest fifty of sixty; the newest has numbers where the cloud usually sends strings and the other way round.
    QJsonArray media;
    for (int i = 1; i < 60; ++i)
        media.append(cloudMedium(QStringLiteral("m%1").arg(i), QStringLiteral("f%1.jpg").arg(i)));
    QJsonObject odd = cloudMedium(QStringLiteral("m60"), QStringLiteral("clip.mp4"), -1, QStringLiteral("5"));
    odd.insert("mediaType", QStringLiteral("3"));
    odd.insert("media_entity", QJsonObject{{"width", 0}, {"height", 720}, {"size", QStringLiteral("4000")}});
    media.append(odd);
    QVERIFY(cloud.start(accountScenario(token, media, 1)));

    const MediaListResult result = requestMediaList(*http, token, cloud.host().toStdString(), false);
    QCOMPARE(result.count, 60);
    QCOMPARE(result.media.size(), std::size_t(50));
    for (int i = 0; i < 50; ++i)
        QCOMPARE(result.media[std::size_t(i)].mid, "m" + std::to_string(60 - i));
    const auto text = [](const auto &value) { return static_cast<const std::string &>(value); };
    const MediaInfo &n = result.media[0], &p = result.media[1];
    QCOMPARE((std::vector<std::string>{text(n.approvalStatus), text(n.mediaType), text(n.media_entity.width),
                                       text(n.media_entity.height), text(n.media_entity.size)}),
             (std::vector<std::string>{"5", "3", "0", "720", "4000"}));
    // Every key is read, the cloud's misspelt one included.
    QCOMPARE((std::vector<std::string>{p.mediaName, text(p.mediaType), text(p.media_entity.width), p.media_entity.mid,
                                       text(p.oid), text(p.create_uid), p.ossDir}),
             (std::vector<std::string>{"f59.jpg", "1", "1920", "m59", "10001", "20001",
                                       cloud.url(QStringLiteral("/files/m59/f59.jpg")).toStdString()}));
    QVERIFY(!p.media_entity.thumb_image_url.empty() && !text(p.media_entity.unique).empty());
    QCOMPARE((std::vector<std::string>{p.pictureDafaultAddress, p.pictureAddress, p.bigPictureAddress}),
             std::vector<std::string>(3, p.media_entity.thumb_image_url));
    // The cloud refuses requests without the right headers: that the catalogue came proves them.
    QCOMPARE(cloud.requests().at(0).toObject().value("path").toString(),
             QStringLiteral("/gateway/cirro?cirro=") + QLatin1String(mediaListQuery));

    // Refused or broken answers give an empty catalogue.
    const MediaListResult wrongToken = requestMediaList(*http, "tok-unknown", cloud.host().toStdString(), false);
    QVERIFY(wrongToken.count == 0 && wrongToken.media.empty());
    QVERIFY(cloud.addFault(
        {{"kind", "status"}, {"prefix", "/gateway"}, {"status", 502}, {"body", "<html>bad gateway</html>"}}));
    const MediaListResult broken = requestMediaList(*http, token, cloud.host().toStdString(), false);
    QVERIFY(broken.count == 0 && broken.media.empty());
}

void TestMaterials::unreadableCatalogue_data()
{
    QTest::addColumn<QByteArray>("body");
    // Each body holds one whole record before the fault, and the fault inside the second.
    const QByteArray whole =
        R"({"mid":"m1","approvalStatus":"2","mediaName":"a.jpg","media_entity":{"width":"9","height":"9"}})";
    const QByteArray head = R"({"http_code":200,"data":{"count":2,"mediaList":[)" + whole + ",";
    QTest::newRow("cut inside a record") << head + R"({"mid":"m2","mediaName":"b.j)";
    QTest::newRow("entity not an object")
        << head + R"({"mid":"m2","mediaName":"b.jpg","media_entity":[1]}]},"status":"success"})";
    QTest::newRow("count after the list not a number")
        << R"({"http_code":200,"data":{"mediaList":[)" + whole + R"(],"count":[2]},"status":"success"})";
    QTest::newRow("garbage after a record") << head + R"(x]},"status":"success"})";
}

void TestMaterials::unreadableCatalogue()
{
    // A reply that breaks off part-way is no catalogue at all: what was read before the fault is dropped.
    QFETCH(QByteArray, body);
    QVERIFY(cloud.start(accountScenario(token, {cloudMedium("real", "real.jpg")})));
    const QJsonObject forced{{"Rest/Lite/Medias", QJsonObject{{"body", QString::fromUtf8(body)}}}};
    QVERIFY(!cloud.control("POST", QStringLiteral("/control/gateway"), QJsonDocument(forced)).isNull());

    const MediaListResult result = requestMediaList(*http, token, cloud.host().toStdString(), false);
    QCOMPARE(result.count, 0);
    QCOMPARE(result.media.size(), std::size_t(0));
    QVERIFY(!result.answered);

    auto controller = makeController();
    QSignalSpy added(controller.get(), &CloudMaterialController::addMaterials);
    refresh(controller);
    QCOMPARE(added.count(), 0);
    QVERIFY(controller->materials().empty());
    QCOMPARE(catalogueRequests(cloud), 2);
}

void TestMaterials::refreshSignalsOneChangeAtATime()
{
    QJsonObject flat = cloudMedium(QStringLiteral("flat"), QStringLiteral("flat.jpg"));
    flat.insert("media_entity", QJsonObject{{"height", QStringLiteral("0")}});
    QVERIFY(cloud.start(accountScenario(token,
                                        {cloudMedium("a", "a.jpg", -1, "1"), cloudMedium("b", "b.jpg", -1, "2"), flat,
                                         cloudMedium("c", "c.jpg", -1, "3"), cloudMedium("d", "d.jpg", -1, "5")})));
    QVERIFY(QFile(folder->filePath(QStringLiteral("b.jpg"))).open(QIODevice::WriteOnly));
    auto controller = makeController();
    QSignalSpy added(controller.get(), &CloudMaterialController::addMaterials);
    QSignalSpy deleted(controller.get(), &CloudMaterialController::deleteMaterials);
    QSignalSpy approvals(controller.get(), &CloudMaterialController::materialApprovalStatusChanged);
    QSignalSpy existence(controller.get(), &CloudMaterialController::sigCloudFileIsExist);
    QSignalSpy states(controller.get(), &CloudMaterialController::materialDownloadStatusChanged);
    LogCapture log;

    refresh(controller);
    // One signal per material, newest first, the one without a height never.
    QCOMPARE(ids(added), (std::vector<std::string>{"d", "c", "b", "a"}));
    const auto d = added.at(0).at(0).value<std::vector<CloudMaterialModel>>().front();
    QCOMPARE(QStringLiteral("%1 %2 %3 %4 %5")
                 .arg(QString::fromStdString(d.mediaName))
                 .arg(d.approvalStatus)
                 .arg(d.downloadStatus)
                 .arg(d.size)
                 .arg(QString::fromStdString(d.resolution)),
             QStringLiteral("d.jpg 5 %1 4000 1920x1080").arg(int(NotAllowed)));
    QCOMPARE(log.linesStartingWith("cloud media height: 0").size(), std::size_t(1));
    QCOMPARE(log.linesStartingWith("cloud media width: 1920").size(), std::size_t(1));
    // New materials are asked about on the next refresh, not this one; only approvals 2 and 5 ask for existence.
    QCOMPARE(approvals.count() + existence.count(), 0);
    added.clear();
    refresh(controller);
    QCOMPARE(added.count(), 0);
    QCOMPARE(approvals.count(), 4);
    // "Yes" is remembered, "no" only shown.
    QTRY_COMPARE(states.count(), 2);
    QCOMPARE(existence.count(), 2);
    std::map<std::string, int> shown;
    for (int i = 0; i < 2; ++i)
        shown[states.at(i).at(0).value<std::string>()] = states.at(i).at(1).value<DownloadStatus>();
    QCOMPARE(shown, (std::map<std::string, int>{{"b", Successed}, {"d", Allowed}}));
    CloudMaterialModel row;
    QVERIFY(controller->material("b", row) && row.downloadStatus == Successed);
    QVERIFY(controller->material("d", row) && row.downloadStatus == NotAllowed);

    // The cloud changes between refreshes.
    QVERIFY(cloud.setMedia(QJsonDocument(QJsonObject{{"token", token}, {"remove", QJsonArray{"b", "c"}}}).toJson()));
    QVERIFY(cloud.setMedia(
        QJsonDocument(QJsonObject{{"token", token}, {"add", QJsonArray{cloudMedium("e", "e.jpg")}}}).toJson()));
    refresh(controller);
    QCOMPARE(ids(added), std::vector<std::string>{"e"});
    QCOMPARE(ids(deleted, true), (std::vector<std::string>{"b", "c"}));
    std::vector<std::string> left;
    for (const auto &material : controller->materials())
        left.push_back(material.mid);
    QCOMPARE(left, (std::vector<std::string>{"d", "a", "e"}));

    // A logout forgets everything; without a token a refresh asks nothing.
    deleted.clear();
    controller->clear();
    QCOMPARE(ids(deleted, true), (std::vector<std::string>{"a", "d", "e"}));
    QVERIFY(controller->materials().empty() && controller->token().empty());
    QVERIFY(cloud.clearRequests());
    refresh(controller);
    QCOMPARE(catalogueRequests(cloud), 0);
}

// A login's refresh adds every material; the refresh that follows at once looks for their copies,
// and one that adds nothing is not followed.
void TestMaterials::sessionRefreshLooksForNewMaterials()
{
    QVERIFY(cloud.start(accountScenario(
        token,
        {cloudMedium("a", "a.jpg", -1, "1"), cloudMedium("b", "b.jpg", -1, "2"), cloudMedium("d", "d.jpg", -1, "5")})));
    QVERIFY(QFile(folder->filePath(QStringLiteral("b.jpg"))).open(QIODevice::WriteOnly));
    auto controller = makeController();
    QSignalSpy added(controller.get(), &CloudMaterialController::addMaterials);
    QSignalSpy states(controller.get(), &CloudMaterialController::materialDownloadStatusChanged);

    controller->requestSessionRefresh();
    QTRY_COMPARE(states.count(), 2);
    std::map<std::string, int> shown;
    for (const auto &state : states)
        shown[state.at(0).value<std::string>()] = state.at(1).value<DownloadStatus>();
    QCOMPARE(shown, (std::map<std::string, int>{{"b", Successed}, {"d", Allowed}}));
    QCOMPARE(added.count(), 3);
    QCOMPARE(catalogueRequests(cloud), 2);

    controller->requestSessionRefresh();
    QTRY_COMPARE(states.count(), 4);
    // A follow-up would be queued on this thread, then on the worker: let both run out.
    for (int i = 0; i < 2; ++i) {
        QCoreApplication::processEvents();
        pool->enqueue([] {}).wait();
    }
    QCOMPARE(catalogueRequests(cloud), 3);
    QCOMPARE(added.count(), 3);
}

void TestMaterials::download_data()
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

void TestMaterials::download()
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

void TestMaterials::overlappingRefreshesRunOnce()
{
    QVERIFY(cloud.start(accountScenario(token, {cloudMedium("m1", "a.jpg"), cloudMedium("m2", "b.jpg")})));
    // The catalogue trickles in, so the first refresh is still running when the second starts.
    QVERIFY(cloud.addFault({{"kind", "slow"}, {"prefix", "/gateway/"}, {"bytes_per_second", 1000}}));
    auto controller = makeController();
    // Another controller on threads of its own: the guard is one per process.
    auto other = makeController();
    auto otherPool = std::make_shared<WorkerPool>(1);
    other->setWorkerPool(otherPool);
    QSignalSpy added(controller.get(), &CloudMaterialController::addMaterials);
    QSignalSpy otherAdded(other.get(), &CloudMaterialController::addMaterials);

    auto first = controller->requestRefresh(true);
    QTRY_COMPARE_WITH_TIMEOUT(catalogueRequests(cloud), 1, 30000);
    refresh(other); // returns at once: it never asks the cloud
    QCOMPARE(catalogueRequests(cloud), 1);
    QCOMPARE(first.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    QCOMPARE(otherAdded.count(), 0);
    QTRY_COMPARE(added.count(), 2);

    // Once the first has ended (its changes applied), the next one runs.
    QVERIFY(cloud.clearFaults());
    refresh(other);
    QCOMPARE(catalogueRequests(cloud), 2);
    QCOMPARE(otherAdded.count(), 2);
}

// Download pressed twice on three materials: each is fetched once, intact, and reported once.
void TestMaterials::oneDownloadPerMaterial()
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

void TestMaterials::endedSessionSignalsNothing_data()
{
    QTest::addColumn<QString>("work");
    QTest::newRow("queued refresh") << "queued refresh";
    QTest::newRow("running refresh") << "running refresh";
    QTest::newRow("existence check") << "existence check";
    QTest::newRow("thumbnails") << "thumbnails";
}

// Each case ends the session while its work is queued or running, then starts a new session whose
// own work comes through the same threads after it: what the old session left never shows.
void TestMaterials::endedSessionSignalsNothing()
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

void TestMaterials::shutdownStopsTransfers_data()
{
    QTest::addColumn<bool>("destroy");
    QTest::newRow("shutdown") << false;
    QTest::newRow("destructor") << true;
}

// At exit a download and a thumbnail fetch from a slow server stop at once, leave nothing behind
// and say nothing.
void TestMaterials::shutdownStopsTransfers()
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

void TestMaterials::lookupsRunOffTheGuiThread_data()
{
    QTest::addColumn<bool>("forTheGroup");
    QTest::newRow("this machine's check") << false;
    QTest::newRow("a proxy client's check") << true;
}

void TestMaterials::lookupsRunOffTheGuiThread()
{
    QFETCH(bool, forTheGroup);
    QVERIFY(cloud.start(accountScenario(token, {})));
    auto controller = makeController();
    QVERIFY(QFile(folder->filePath("here.jpg")).open(QIODevice::WriteOnly));
    QLoggingCategory::setFilterRules(QStringLiteral("rxcm.materials.debug=true"));
    const std::shared_ptr<void> restore(nullptr, [](void *) { QLoggingCategory::setFilterRules(QString()); });
    QtMessageCapture messages;
    QSignalSpy exists(controller.get(), &CloudMaterialController::sigFileExistStatusChanged);
    for (const char *name : {"here.jpg", "gone.jpg"}) {
        if (forTheGroup)
            controller->lookForFile(name, name);
        else
            Q_EMIT controller->sigCloudFileIsExist(name, name);
    }
    QTRY_COMPARE(exists.count(), 2);
    QCOMPARE(exists.at(0).at(2).toBool(), true);
    QCOMPARE(exists.at(1).at(2).toBool(), false);
    // The thread of each file look-up the controller logs ("looking for <path>", debug level).
    int lookups = 0;
    for (const auto &[type, text, thread] : messages.messages()) {
        if (!text.startsWith(QLatin1String("looking for ")))
            continue;
        ++lookups;
        QVERIFY2(text.mid(12).startsWith(folder->path()), qPrintable(text));
        QVERIFY(thread && thread != QThread::currentThread());
    }
    QCOMPARE(lookups, 2);
}

QTEST_MAIN(TestMaterials)
#include "tst_materials.moc"
