// The material catalogue and the controller that keeps the panel's picture of it, against
// the local cloud over real TLS.

#include "cloudmaterial/cloudmateriallist/cloudmaterialcontroller.h"
#include "cloudmaterial/cloudmateriallist/medialistrequest.h"
#include "cloudmaterial/maincontroller.h"
#include "cloudmaterial/maincontrollerwrapper.h"
#include "cloudmaterial/protocol/httpclientwrapper.h"
#include "cloudmaterial/workerpool.h"

#include "support/cloudsimfixture.h"
#include "support/generatedcontent.h"
#include "support/logcapture.h"

#include <QtTest>

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

#include <set>
#include <thread>

using namespace talvor::cloudmaterial;

namespace {

const char *const token = "tok-1";

QJsonObject medium(const QString &mid, const QString &name, const QString &approval = QStringLiteral("2"))
{
    return QJsonObject{{QStringLiteral("mid"), mid},
                       {QStringLiteral("mediaName"), name},
                       {QStringLiteral("approvalStatus"), approval},
                       {QStringLiteral("file"), QJsonObject{{QStringLiteral("size"), 4000}}}};
}

QByteArray scenario(const QJsonArray &media, const QJsonValue &status = QStringLiteral("success"))
{
    const QJsonObject account{{QStringLiteral("token"), QLatin1String(token)},
                              {QStringLiteral("status"), status},
                              {QStringLiteral("media"), media}};
    return QJsonDocument(QJsonObject{{QStringLiteral("accounts"), QJsonArray{account}}}).toJson();
}

QByteArray mediaChange(const char *member, const QJsonValue &value)
{
    return QJsonDocument(QJsonObject{{QStringLiteral("token"), QLatin1String(token)}, {QLatin1String(member), value}})
        .toJson();
}

int catalogueRequests(CloudSim &cloud)
{
    int n = 0;
    for (const auto &request : cloud.requests())
        n += request.toObject().value(QStringLiteral("path")).toString().startsWith(QStringLiteral("/gateway/cirro"));
    return n;
}

std::vector<std::string> ids(const QSignalSpy &spy)
{
    std::vector<std::string> out;
    for (const auto &args : spy) {
        const auto rows = args.at(0).value<std::vector<CloudMaterialModel>>();
        for (const auto &row : rows)
            out.push_back(row.mid);
    }
    return out;
}

} // namespace

class TestMaterials : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void catalogueAsTheCloudSendsIt();
    void catalogueIsTheNewestFifty();
    void refusedCatalogueIsEmpty();
    void refreshSignalsOneChangeAtATime();
    void existenceOfApprovedMaterials();
    void downloadReachesTheHost();
    void failedDownloadLeavesNoFile();
    void existenceAnswerDuringDownloadIsIgnored();
    void hostileFileNameWritesNothing_data();
    void hostileFileNameWritesNothing();
    void overlappingRefreshesRunOnce();
    void clearForgetsEverything();

private:
    std::shared_ptr<CloudMaterialController> makeController();
    void refresh(const std::shared_ptr<CloudMaterialController> &controller);

    CloudSim cloud;
    std::shared_ptr<WorkerPool> pool;
    std::unique_ptr<HttpClientWrapper> http;
    std::unique_ptr<QTemporaryDir> folder;
};

void TestMaterials::initTestCase()
{
    pool = std::make_shared<WorkerPool>(1);
    http = std::make_unique<HttpClientWrapper>(pool);
}

void TestMaterials::init()
{
    folder = std::make_unique<QTemporaryDir>();
    QVERIFY(folder->isValid());
}

void TestMaterials::cleanup()
{
    cloud.stop();
}

std::shared_ptr<CloudMaterialController> TestMaterials::makeController()
{
    auto controller = std::make_shared<CloudMaterialController>(http.get());
    controller->init();
    controller->setWorkerPool(pool);
    controller->setToken(token);
    controller->setNode(cloud.host().toStdString());
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

void TestMaterials::catalogueAsTheCloudSendsIt()
{
    QJsonObject odd = medium(QStringLiteral("m2"), QStringLiteral("clip.mp4"), QStringLiteral("5"));
    // Numbers where the cloud usually sends strings, and the other way round.
    odd.insert(QStringLiteral("mediaType"), QStringLiteral("3"));
    odd.insert(QStringLiteral("media_entity"),
               QJsonObject{{QStringLiteral("width"), 0}, {QStringLiteral("height"), 720}, {QStringLiteral("size"), QStringLiteral("4000")}});
    QVERIFY(cloud.start(scenario({medium(QStringLiteral("m1"), QStringLiteral("pic.jpg")), odd}, 1)));

    const MediaListResult result = requestMediaList(*http, token, cloud.host().toStdString(), false);
    QCOMPARE(result.count, 2);
    QCOMPARE(result.media.size(), std::size_t(2));

    const MediaInfo &newest = result.media[0];
    QCOMPARE(newest.mid, std::string("m2"));
    QCOMPARE(static_cast<const std::string &>(newest.approvalStatus), std::string("5"));
    QCOMPARE(static_cast<const std::string &>(newest.mediaType), std::string("3"));
    QCOMPARE(static_cast<const std::string &>(newest.media_entity.width), std::string("0"));
    QCOMPARE(static_cast<const std::string &>(newest.media_entity.height), std::string("720"));
    QCOMPARE(static_cast<const std::string &>(newest.media_entity.size), std::string("4000"));

    const MediaInfo &oldest = result.media[1];
    QCOMPARE(oldest.mid, std::string("m1"));
    QCOMPARE(oldest.mediaName, std::string("pic.jpg"));
    QCOMPARE(static_cast<const std::string &>(oldest.mediaType), std::string("1"));
    QCOMPARE(static_cast<const std::string &>(oldest.media_entity.width), std::string("1920"));
    QCOMPARE(oldest.media_entity.mid, std::string("m1"));
    QCOMPARE(oldest.ossDir, cloud.url(QStringLiteral("/files/m1/pic.jpg")).toStdString());
    // Every key is read, the cloud's misspelt one included.
    QVERIFY(!oldest.media_entity.thumb_image_url.empty());
    QCOMPARE(oldest.pictureDafaultAddress, oldest.media_entity.thumb_image_url);
    QCOMPARE(oldest.pictureAddress, oldest.media_entity.thumb_image_url);
    QCOMPARE(oldest.bigPictureAddress, oldest.media_entity.thumb_image_url);
    QVERIFY(!static_cast<const std::string &>(oldest.media_entity.unique).empty());
    QCOMPARE(static_cast<const std::string &>(oldest.oid), std::string("10001"));
    QCOMPARE(static_cast<const std::string &>(oldest.create_uid), std::string("20001"));

    const QJsonArray requests = cloud.requests();
    QCOMPARE(requests.size(), 1);
    const QJsonObject headers = requests[0].toObject().value(QStringLiteral("headers")).toObject();
    auto header = [&](const char *name) {
        for (auto it = headers.begin(); it != headers.end(); ++it) {
            if (it.key().compare(QLatin1String(name), Qt::CaseInsensitive) == 0)
                return it.value().toString();
        }
        return QString();
    };
    QCOMPARE(header("source"), QStringLiteral("mediaserver"));
    QCOMPARE(header("version"), QStringLiteral("V1.0.0"));
    QCOMPARE(header("Authorization"), QLatin1String(token));
    QCOMPARE(header("Token"), QLatin1String(token));
    QCOMPARE(requests[0].toObject().value(QStringLiteral("path")).toString(),
             QStringLiteral("/gateway/cirro?cirro=") + QLatin1String(mediaListQuery));
}

void TestMaterials::catalogueIsTheNewestFifty()
{
    QJsonArray media;
    for (int i = 1; i <= 60; ++i)
        media.append(medium(QStringLiteral("m%1").arg(i), QStringLiteral("f%1.jpg").arg(i)));
    QVERIFY(cloud.start(scenario(media)));

    const MediaListResult result = requestMediaList(*http, token, cloud.host().toStdString(), false);
    QCOMPARE(result.count, 60);
    QCOMPARE(result.media.size(), std::size_t(50));
    for (int i = 0; i < 50; ++i)
        QCOMPARE(result.media[std::size_t(i)].mid, "m" + std::to_string(60 - i));
}

void TestMaterials::refusedCatalogueIsEmpty()
{
    QVERIFY(cloud.start(scenario({medium(QStringLiteral("m1"), QStringLiteral("a.jpg"))})));
    const MediaListResult wrongToken = requestMediaList(*http, "tok-unknown", cloud.host().toStdString(), false);
    QCOMPARE(wrongToken.count, 0);
    QVERIFY(wrongToken.media.empty());

    QVERIFY(cloud.addFault(QJsonObject{{QStringLiteral("kind"), QStringLiteral("status")},
                                       {QStringLiteral("prefix"), QStringLiteral("/gateway")},
                                       {QStringLiteral("status"), 502},
                                       {QStringLiteral("body"), QStringLiteral("<html>bad gateway</html>")}}));
    const MediaListResult broken = requestMediaList(*http, token, cloud.host().toStdString(), false);
    QCOMPARE(broken.count, 0);
    QVERIFY(broken.media.empty());
}

void TestMaterials::refreshSignalsOneChangeAtATime()
{
    QJsonObject flat = medium(QStringLiteral("flat"), QStringLiteral("flat.jpg"));
    flat.insert(QStringLiteral("media_entity"), QJsonObject{{QStringLiteral("height"), QStringLiteral("0")}});
    QVERIFY(cloud.start(scenario({medium(QStringLiteral("a"), QStringLiteral("a.jpg"), QStringLiteral("1")),
                                  medium(QStringLiteral("b"), QStringLiteral("b.jpg"), QStringLiteral("2")), flat,
                                  medium(QStringLiteral("c"), QStringLiteral("c.jpg"), QStringLiteral("3")),
                                  medium(QStringLiteral("d"), QStringLiteral("d.jpg"), QStringLiteral("5"))})));
    auto controller = makeController();
    QSignalSpy added(controller.get(), &CloudMaterialController::addMaterials);
    QSignalSpy deleted(controller.get(), &CloudMaterialController::deleteMaterials);
    QSignalSpy approvals(controller.get(), &CloudMaterialController::materialApprovalStatusChanged);
    QSignalSpy existence(controller.get(), &CloudMaterialController::sigCloudFileIsExist);
    LogCapture log;

    refresh(controller);
    // One signal per material, newest first, the one without a height never.
    QCOMPARE(added.count(), 4);
    for (const auto &args : added)
        QCOMPARE(args.at(0).value<std::vector<CloudMaterialModel>>().size(), std::size_t(1));
    QCOMPARE(ids(added), (std::vector<std::string>{"d", "c", "b", "a"}));
    const auto first = added.at(0).at(0).value<std::vector<CloudMaterialModel>>().front();
    QCOMPARE(first.mediaName, std::string("d.jpg"));
    QCOMPARE(first.approvalStatus, 5);
    QCOMPARE(first.downloadStatus, int(NotAllowed));
    QCOMPARE(first.size, std::int64_t(4000));
    QCOMPARE(first.resolution, std::string("1920x1080"));
    QCOMPARE(log.linesStartingWith("cloud media height: 0").size(), std::size_t(1));
    QCOMPARE(log.linesStartingWith("cloud media width: 1920").size(), std::size_t(1));
    // New materials are asked about on the next refresh, not this one.
    QCOMPARE(approvals.count(), 0);
    QCOMPARE(existence.count(), 0);

    added.clear();
    refresh(controller);
    QCOMPARE(added.count(), 0);
    QCOMPARE(approvals.count(), 4);
    std::set<std::string> asked;
    for (const auto &args : existence)
        asked.insert(args.at(0).value<std::string>());
    QCOMPARE(asked, (std::set<std::string>{"b", "d"}));
    QCOMPARE(existence.count(), 2);

    // The cloud changes between refreshes.
    QVERIFY(cloud.setMedia(mediaChange("remove", QJsonArray{QStringLiteral("b"), QStringLiteral("c")})));
    QVERIFY(cloud.setMedia(mediaChange("add", QJsonArray{medium(QStringLiteral("e"), QStringLiteral("e.jpg"))})));
    approvals.clear();
    refresh(controller);
    QCOMPARE(ids(added), std::vector<std::string>{"e"});
    QCOMPARE(deleted.count(), 2);
    std::set<std::string> gone;
    for (const auto &args : deleted) {
        const auto removed = args.at(0).value<std::vector<std::string>>();
        QCOMPARE(removed.size(), std::size_t(1));
        gone.insert(removed.front());
    }
    QCOMPARE(gone, (std::set<std::string>{"b", "c"}));
    std::vector<std::string> left;
    for (const auto &row : controller->materials())
        left.push_back(row.mid);
    QCOMPARE(left, (std::vector<std::string>{"d", "a", "e"}));
}

void TestMaterials::existenceOfApprovedMaterials()
{
    QVERIFY(cloud.start(scenario({medium(QStringLiteral("here"), QStringLiteral("here.jpg")),
                                  medium(QStringLiteral("away"), QStringLiteral("away.jpg"), QStringLiteral("5"))})));
    QFile present(folder->filePath(QStringLiteral("here.jpg")));
    QVERIFY(present.open(QIODevice::WriteOnly));
    present.close();

    auto controller = makeController();
    QSignalSpy states(controller.get(), &CloudMaterialController::materialDownloadStatusChanged);
    refresh(controller);
    refresh(controller);
    QTRY_COMPARE(states.count(), 2);
    std::map<std::string, int> shown;
    for (const auto &args : states)
        shown[args.at(0).value<std::string>()] = args.at(1).value<DownloadStatus>();
    QCOMPARE(shown["here"], int(Successed));
    QCOMPARE(shown["away"], int(Allowed));

    // "Yes" is remembered, "no" only shown.
    CloudMaterialModel row;
    QVERIFY(controller->material("here", row));
    QCOMPARE(row.downloadStatus, int(Successed));
    QVERIFY(controller->material("away", row));
    QCOMPARE(row.downloadStatus, int(NotAllowed));
    QVERIFY(!controller->material("nobody", row));
}

void TestMaterials::downloadReachesTheHost()
{
    QVERIFY(cloud.start(scenario({medium(QStringLiteral("m1"), QStringLiteral("movie one.mp4"))})));
    // The façade's own controller, so that the signal is seen where the host sees it.
    auto &wrapper = MainControllerWrapper::instance();
    wrapper.setRXRuntime(nullptr);
    wrapper.setCloudMaterialFolderPath(folder->path().toStdString());
    auto controller = MainController::instance().materialController();
    controller->setToken(token);
    controller->setNode(cloud.host().toStdString());

    QSignalSpy hostSignal(&wrapper, &MainControllerWrapper::sigDownloadSuccess);
    QSignalSpy states(controller.get(), &CloudMaterialController::materialDownloadStatusChanged);
    QSignalSpy progress(controller.get(), &CloudMaterialController::materialDownloadProgress);
    refresh(controller);

    controller->downloadMaterial("m1");
    QCOMPARE(states.count(), 1);
    QCOMPARE(states.at(0).at(1).value<DownloadStatus>(), Downloading);
    CloudMaterialModel row;
    QVERIFY(controller->material("m1", row));
    QCOMPARE(row.downloadStatus, int(Downloading));

    QTRY_COMPARE_WITH_TIMEOUT(hostSignal.count(), 1, 30000);
    const QString path = folder->filePath(QStringLiteral("movie one.mp4"));
    QCOMPARE(hostSignal.at(0).at(0).value<std::string>(), std::string("m1"));
    QCOMPARE(QString::fromStdString(hostSignal.at(0).at(1).value<std::string>()), path);
    QCOMPARE(states.count(), 2);
    QCOMPARE(states.at(1).at(1).value<DownloadStatus>(), Successed);
    QVERIFY(controller->material("m1", row));
    QCOMPARE(row.downloadStatus, int(Successed));

    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.readAll(), generatedContent(0, 4000));
    QVERIFY(!QFile::exists(path + QStringLiteral(".temp")));
    QVERIFY(!progress.isEmpty());
    QCOMPARE(progress.last().at(1).toLongLong(), qint64(4000));
    QCOMPARE(progress.last().at(2).toLongLong(), qint64(4000));

    controller->clear();
}

void TestMaterials::failedDownloadLeavesNoFile()
{
    QVERIFY(cloud.start(scenario({medium(QStringLiteral("m1"), QStringLiteral("cut.bin"))})));
    QVERIFY(cloud.addFault(QJsonObject{{QStringLiteral("kind"), QStringLiteral("drop_after")},
                                       {QStringLiteral("prefix"), QStringLiteral("/files/")},
                                       {QStringLiteral("bytes"), 1000}}));
    auto controller = makeController();
    QSignalSpy states(controller.get(), &CloudMaterialController::materialDownloadStatusChanged);
    QSignalSpy success(controller.get(), &CloudMaterialController::sigDownloadSuccess);
    refresh(controller);
    controller->downloadMaterial("m1");
    QTRY_COMPARE_WITH_TIMEOUT(states.count(), 2, 30000);
    QCOMPARE(states.at(1).at(1).value<DownloadStatus>(), Failed);
    QCOMPARE(success.count(), 0);
    QVERIFY(!QFile::exists(folder->filePath(QStringLiteral("cut.bin"))));
}

void TestMaterials::existenceAnswerDuringDownloadIsIgnored()
{
    QVERIFY(cloud.start(scenario({medium(QStringLiteral("m1"), QStringLiteral("slow.bin"))})));
    // Slow enough to still be running when the answer comes.
    QVERIFY(cloud.addFault(QJsonObject{{QStringLiteral("kind"), QStringLiteral("slow")},
                                       {QStringLiteral("prefix"), QStringLiteral("/files/")},
                                       {QStringLiteral("bytes_per_second"), 2000}}));
    auto controller = makeController();
    QSignalSpy states(controller.get(), &CloudMaterialController::materialDownloadStatusChanged);
    refresh(controller);
    controller->downloadMaterial("m1");
    Q_EMIT controller->sigFileExistStatusChanged("m1", "slow.bin", false);
    Q_EMIT controller->sigFileExistStatusChanged("m1", "slow.bin", true);
    QCoreApplication::processEvents();
    CloudMaterialModel row;
    QVERIFY(controller->material("m1", row));
    QCOMPARE(row.downloadStatus, int(Downloading));
    QCOMPARE(states.count(), 1);

    QTRY_COMPARE_WITH_TIMEOUT(states.count(), 2, 30000);
    QCOMPARE(states.at(1).at(1).value<DownloadStatus>(), Successed);
}

void TestMaterials::hostileFileNameWritesNothing_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("parent") << QStringLiteral("../escaped.bin");
    QTest::newRow("dot dot") << QStringLiteral("..");
    QTest::newRow("sub folder") << QStringLiteral("sub/escaped.bin");
    QTest::newRow("backslash") << QStringLiteral("..\\escaped.bin");
    QTest::newRow("absolute") << QStringLiteral("/tmp/escaped.bin");
    QTest::newRow("drive") << QStringLiteral("C:escaped.bin");
}

void TestMaterials::hostileFileNameWritesNothing()
{
    QFETCH(QString, name);
    QVERIFY(cloud.start(scenario({medium(QStringLiteral("bad"), name)})));
    // The material folder sits one level down, so an escape would land in a folder we watch.
    const QString outer = folder->path();
    QVERIFY(QDir(outer).mkdir(QStringLiteral("materials")));
    auto controller = makeController();
    controller->setCloudMaterialFolderPath((outer + QStringLiteral("/materials")).toStdString());
    QSignalSpy states(controller.get(), &CloudMaterialController::materialDownloadStatusChanged);
    LogCapture log;
    refresh(controller);
    QVERIFY(cloud.clearRequests());

    controller->downloadMaterial("bad");
    QTRY_COMPARE_WITH_TIMEOUT(states.count(), 2, 30000);
    QCOMPARE(states.at(1).at(1).value<DownloadStatus>(), Failed);
    QCOMPARE(log.linesStartingWith("refused to download bad").size(), std::size_t(1));
    QCOMPARE(cloud.requests().size(), 0);
    QCOMPARE(QDir(outer).entryList(QDir::NoDotAndDotDot | QDir::AllEntries), QStringList{QStringLiteral("materials")});
    QVERIFY(QDir(outer + QStringLiteral("/materials")).isEmpty());
    QVERIFY(!QFile::exists(QStringLiteral("/tmp/escaped.bin")));
}

void TestMaterials::overlappingRefreshesRunOnce()
{
    QVERIFY(cloud.start(scenario({medium(QStringLiteral("m1"), QStringLiteral("a.jpg")),
                                  medium(QStringLiteral("m2"), QStringLiteral("b.jpg"))})));
    // The catalogue trickles in, so the first refresh is still running when the second starts.
    QVERIFY(cloud.addFault(QJsonObject{{QStringLiteral("kind"), QStringLiteral("slow")},
                                       {QStringLiteral("prefix"), QStringLiteral("/gateway/")},
                                       {QStringLiteral("bytes_per_second"), 1000}}));
    auto controller = makeController();
    QSignalSpy added(controller.get(), &CloudMaterialController::addMaterials);

    auto first = controller->requestRefresh(true);
    QTRY_COMPARE_WITH_TIMEOUT(catalogueRequests(cloud), 1, 30000);
    std::thread second([&] { controller->refreshMaterialList(true); });
    second.join(); // returns at once: it never asks the cloud
    QCOMPARE(catalogueRequests(cloud), 1);
    QCOMPARE(first.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    QCOMPARE(added.count(), 2);

    // Once the first has ended, the next one runs.
    QVERIFY(cloud.clearFaults());
    refresh(controller);
    QCOMPARE(catalogueRequests(cloud), 2);
}

void TestMaterials::clearForgetsEverything()
{
    QVERIFY(cloud.start(scenario({medium(QStringLiteral("m1"), QStringLiteral("a.jpg")),
                                  medium(QStringLiteral("m2"), QStringLiteral("b.jpg"))})));
    auto controller = makeController();
    refresh(controller);
    QCOMPARE(controller->materials().size(), std::size_t(2));
    QSignalSpy deleted(controller.get(), &CloudMaterialController::deleteMaterials);
    controller->clear();
    QCOMPARE(deleted.count(), 2);
    QVERIFY(controller->materials().empty());
    QVERIFY(controller->token().empty());

    // Without a token a refresh asks nothing.
    QVERIFY(cloud.clearRequests());
    refresh(controller);
    QCOMPARE(catalogueRequests(cloud), 0);
}

QTEST_MAIN(TestMaterials)
#include "tst_materials.moc"
