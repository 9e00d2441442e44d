// The material catalogue and the controller that keeps the panel's picture of it, against
// the local cloud over real TLS: the catalogue's records, refreshes and file look-ups.

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

class TestMaterials : public MaterialsFixture
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { setUpOnce(); }
    void init() { QVERIFY(newFolder()); }
    void cleanup() { cloud.stop(); }
    void catalogue();
    void unreadableCatalogue_data();
    void unreadableCatalogue();
    void refreshSignalsOneChangeAtATime();
    void sessionRefreshLooksForNewMaterials();
    void overlappingRefreshesRunOnce();
    void lookupsRunOffTheGuiThread_data();
    void lookupsRunOffTheGuiThread();
};

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
