// The material panel on a real controller and the local cloud: a refresh shown in both views,
// Download and Delete through to the material folder, a failed download cleared, and the
// thumbnails, with a material folder and without one.

#include "cloudmaterial/cloudmateriallist/cloudmaterialcontroller.h"
#include "cloudmaterial/cloudmateriallist/detailbottomwidget.h"
#include "cloudmaterial/cloudmateriallist/detaillistitemwidget.h"
#include "cloudmaterial/cloudmateriallist/detaillistwidget.h"
#include "cloudmaterial/cloudmateriallist/detailtitlewidget.h"
#include "cloudmaterial/cloudmateriallist/detailtreewidget.h"
#include "cloudmaterial/cloudmateriallist/detailwidget.h"
#include "cloudmaterial/cloudmateriallist/materialpresentation.h"
#include "cloudmaterial/currentnode.h"
#include "cloudmaterial/protocol/httpclientwrapper.h"
#include "cloudmaterial/translatemanager.h"
#include "cloudmaterial/workerpool.h"

#include "localcloud/cloudsim.h"
#include "support/cloudscenario.h"
#include "support/paneldriver.h"
#include "support/qtmessagecapture.h"

#include <QtTest>

#include <QHeaderView>
#include <QLabel>
#include <QMessageBox>
#include <QMimeData>
#include <QPushButton>
#include <QStackedWidget>

#include <thread>

using namespace talvor::cloudmaterial;

namespace {

const char *const token = WiredPanel::token;
const QString unreachable = QStringLiteral("The cloud cannot be reached. The list comes back with the next refresh.");

} // namespace

class TestPanelCloud : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void wiredPanel();
    void failedDownloadIsCleared();
    void thumbnails();
    void thumbnailsWithoutFolder();

private:
    // The warnings of the module's categories, from any thread; made once the test runner has
    // installed its own handler.
    std::unique_ptr<QtMessageCapture> messages;
};

void TestPanelCloud::initTestCase()
{
    QVERIFY(TranslateManager::instance().setLanguage("en"));
    messages = std::make_unique<QtMessageCapture>();
}

void TestPanelCloud::cleanupTestCase()
{
    // The search field's clear button fades in and out by an animation of its own that deletes
    // itself when it ends (160 ms); the last test's must end before the exit, or it is leaked.
    QTest::qWait(400);
}

void TestPanelCloud::wiredPanel()
{
    WiredPanel wired;
    QVERIFY(wired.start(
        {cloudMedium("w1", "one.jpg", 0), cloudMedium("w2", "two.jpg", 0), cloudMedium("w3", "three.jpg", 0)}));
    DetailWidget *shown = wired.panel;
    DetailListWidget *list = shown->listView();
    QPushButton *del = shown->bottomWidget()->deleteButton();
    QCOMPARE(requestsTo(wired.cloud, QStringLiteral("/gateway/cirro")), 0);
    QTest::mouseClick(shown->titleWidget()->refreshButton(), Qt::LeftButton);
    QTRY_COMPARE(visibleNames(shown), QStringList({"three.jpg", "two.jpg", "one.jpg"}));
    QCOMPARE(requestsTo(wired.cloud, QStringLiteral("/gateway/cirro")), 1);

    // The selection of the view that is shown is what counts.
    QSignalSpy states(wired.controller.get(), &CloudMaterialController::materialDownloadStatusChanged);
    list->itemById(QStringLiteral("w1"))->setSelected(true);
    list->itemById(QStringLiteral("w3"))->setSelected(true);
    shown->treeView()->itemById(QStringLiteral("w2"))->setSelected(true);
    QVERIFY(!del->isEnabled()); // nothing downloaded yet
    QTest::mouseClick(shown->bottomWidget()->downloadButton(), Qt::LeftButton);
    QCOMPARE(states.count(), 2);
    QCOMPARE(statusImage(shown, "w1"), QStringLiteral("download_status_downloading"));
    QCOMPARE(statusImage(shown, "w2"), QStringLiteral("download_status_not_allowed"));
    QTRY_COMPARE(statusImage(shown, "w3"), QStringLiteral("download_status_successed"));
    QTRY_COMPARE(statusImage(shown, "w1"), QStringLiteral("download_status_successed"));
    shown->bottomWidget()->setTreeMode(true);
    QTest::mouseClick(shown->bottomWidget()->downloadButton(), Qt::LeftButton);
    QCOMPARE(states.at(4).at(0).value<std::string>(), std::string("w2"));
    QTRY_COMPARE(statusImage(shown, "w2"), QStringLiteral("download_status_successed"));
    // A progress report from a worker thread arrives queued.
    std::thread([&wired] { Q_EMIT wired.controller->materialDownloadProgress("w2", 30, 60); }).join();
    QTRY_COMPARE(shown->treeView()->progress(QStringLiteral("w2")), 50);
    shown->bottomWidget()->setTreeMode(false);

    // Delete asks first, removes the local copies of the downloaded ones, and leaves the rest alone.
    list->clearSelection();
    list->itemById(QStringLiteral("w1"))->setSelected(true);
    for (const bool confirm : {false, true}) {
        QTest::mouseClick(del, Qt::LeftButton);
        auto *box = shown->findChild<QMessageBox *>(QStringLiteral("deleteConfirmation"));
        QVERIFY(box && box->text().contains(QLatin1String(" 1 ")));
        QTest::mouseClick(box->button(confirm ? QMessageBox::Yes : QMessageBox::Cancel), Qt::LeftButton);
        QCOMPARE(QFile::exists(wired.folder.path() + QStringLiteral("/one.jpg")), !confirm);
        QCOMPARE(statusImage(shown, "w1"),
                 confirm ? QStringLiteral("download_status_allowed") : QStringLiteral("download_status_successed"));
        QCOMPARE(del->isEnabled(), !confirm);
        CloudMaterialModel row;
        QVERIFY(wired.controller->material("w1", row) && row.downloadStatus == (confirm ? Allowed : Successed));
    }
    QVERIFY(QFile::exists(wired.folder.path() + QStringLiteral("/two.jpg")));
    QCOMPARE(statusImage(shown, "w2"), QStringLiteral("download_status_successed"));

    // A failed catalogue removes what was known; the empty area says why, until the next refresh works.
    for (const QJsonObject &fault : {QJsonObject{{"kind", "status"}, {"prefix", "/gateway"}, {"status", 502}},
                                     QJsonObject{{"kind", "error_body"}, {"prefix", "/gateway"}}}) {
        QVERIFY(wired.cloud.addFault(fault));
        wired.refresh(*wired.controller);
        QTRY_COMPARE(list->count(), 0);
        QCOMPARE(shown->treeView()->topLevelItemCount(), 0);
        QVERIFY(wired.controller->materials().empty());
        QCOMPARE(shown->catalogueState(), CatalogueState::Unreachable);
        QCOMPARE(shown->findChild<QStackedWidget *>()->currentWidget(), shown->emptyLabel());
        QCOMPARE(qobject_cast<QLabel *>(shown->emptyLabel())->text(), unreachable);
        QVERIFY(!shown->banner()->isVisibleTo(shown));
        QVERIFY(wired.cloud.clearFaults());
        wired.refresh(*wired.controller);
        QTRY_COMPARE(list->count(), 3);
        QCOMPARE(shown->catalogueState(), CatalogueState::Reachable);
    }
}

// A failed download leaves a ".temp" that would spoil the next try; Delete clears it, and the row says so.
void TestPanelCloud::failedDownloadIsCleared()
{
    WiredPanel wired;
    QVERIFY(wired.start({cloudMedium("w1", "one.jpg", 0)}));
    QVERIFY(wired.cloud.addFault({{"kind", "drop_after"}, {"prefix", "/files/"}, {"bytes", 1000}, {"times", 1}}));
    DetailWidget *shown = wired.panel;
    DetailListWidget *list = shown->listView();
    QTreeWidgetItem *row = nullptr;
    wired.controller->requestSessionRefresh(); // as at a login: the rows come with their real state
    QTRY_VERIFY((row = shown->treeView()->itemById(QStringLiteral("w1"))));
    QTRY_COMPARE(statusImage(shown, "w1"), QStringLiteral("download_status_allowed"));
    const QString hint = TranslateManager::text("DownloadFailedDeleteToRetry");
    QVERIFY(!list->itemById(QStringLiteral("w1"))->toolTip().contains(hint));

    list->itemById(QStringLiteral("w1"))->setSelected(true);
    QTest::mouseClick(shown->bottomWidget()->downloadButton(), Qt::LeftButton);
    QTRY_COMPARE(statusImage(shown, "w1"), QStringLiteral("download_status_failed"));
    const QString temp = wired.folder.path() + QStringLiteral("/one.jpg.temp");
    QVERIFY(QFile::exists(temp));
    QCOMPARE(list->itemById(QStringLiteral("w1"))->toolTip(), QStringLiteral("one.jpg\n") + hint);
    QCOMPARE(row->toolTip(DetailTreeWidget::StatusColumn), QStringLiteral("one.jpg\n") + hint);

    QPushButton *del = shown->bottomWidget()->deleteButton();
    QVERIFY(del->isEnabled());
    QTest::mouseClick(del, Qt::LeftButton);
    auto *box = shown->findChild<QMessageBox *>(QStringLiteral("deleteConfirmation"));
    QVERIFY(box);
    QTest::mouseClick(box->button(QMessageBox::Yes), Qt::LeftButton);
    QVERIFY(!QFile::exists(temp));
    QCOMPARE(statusImage(shown, "w1"), QStringLiteral("download_status_allowed"));
    QCOMPARE(row->toolTip(DetailTreeWidget::NameColumn), QStringLiteral("one.jpg"));

    // The cloud answers in full now: the next try completes.
    QTest::mouseClick(shown->bottomWidget()->downloadButton(), Qt::LeftButton);
    QTRY_COMPARE(statusImage(shown, "w1"), QStringLiteral("download_status_successed"));
    QFile file(wired.folder.path() + QStringLiteral("/one.jpg"));
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.size(), qint64(4000));
    QVERIFY(!QFile::exists(temp));
}

// A change of language while the panel is shown re-applies every text of it, rows included.
void TestPanelCloud::thumbnails()
{
    WiredPanel wired;
    QVERIFY(wired.start(
        {cloudMedium("t1", "one.jpg", 0), cloudMedium("t2", "two.mp4", 1), cloudMedium("f1", "menu.pdf", 3)}));
    QVERIFY(wired.cloud.addFault({{"kind", "status"}, {"prefix", "/thumbs/f1"}, {"status", 404}}));
    DetailWidget *shown = wired.panel;
    shown->resize(720, 480);
    shown->show();
    QVERIFY(QTest::qWaitForWindowExposed(shown));
    wired.refresh(*wired.controller);
    QTRY_VERIFY(messages->contains(QtWarningMsg, QStringLiteral("thumbnail of f1 not fetched")));
    DetailListWidget *list = shown->listView();
    DetailTreeWidget *tree = shown->treeView();
    const auto path = [&](const char *mid) {
        CloudMaterialModel row;
        return wired.controller->material(mid, row)
            ? QString::fromStdString(wired.controller->thumbnailPath(row.mid, row.thumbnailUrl))
            : QString();
    };
    const auto hasThumbnail = [tree](const char *mid) {
        return tree->itemById(QLatin1String(mid))
            ->data(DetailTreeWidget::ApprovalColumn, DetailTreeWidget::HasThumbnailRole)
            .toBool();
    };
    for (const char *mid : {"t1", "t2"}) {
        // Named after the material id, in the material folder's hidden thumbnail folder.
        QCOMPARE(path(mid),
                 wired.folder.path() + QStringLiteral("/.thumbnails/%1.thumbnail.png").arg(QLatin1String(mid)));
        QTRY_VERIFY(hasThumbnail(mid));
        const QColor colour = QImage(path(mid)).pixelColor(0, 0); // the local cloud's thumbnails have one colour
        // The grid paints it in the tile, the table as the icon of the thumbnail column, at 45 x 30.
        shown->bottomWidget()->setTreeMode(false);
        const QRect cell = list->visualItemRect(list->itemById(QLatin1String(mid)));
        QCOMPARE(centre(list->viewport(), QRect(cell.left() + 40, cell.top() + 25, 40, 20)), colour);
        shown->bottomWidget()->setTreeMode(true);
        QTreeWidgetItem *item = tree->itemById(QLatin1String(mid));
        QCOMPARE(item->icon(DetailTreeWidget::ApprovalColumn).availableSizes().value(0), QSize(45, 30));
        const QRect row = tree->visualItemRect(item);
        const int left = tree->header()->sectionViewportPosition(DetailTreeWidget::ApprovalColumn);
        QCOMPARE(centre(tree->viewport(), QRect(left + 12, row.top() + row.height() / 2 - 5, 20, 10)), colour);
    }
    // A failed one leaves no file and keeps the document's stand-in.
    QVERIFY(!QFile::exists(path("f1")) && !QFile::exists(path("f1") + QStringLiteral(".temp")));
    QVERIFY(!hasThumbnail("f1"));
    QVERIFY(!list->itemById(QStringLiteral("f1"))->data(DetailListWidget::ThumbnailRole).isValid());
    const QImage placeholder(imagePath(QStringLiteral("thumbnail_document.png")));
    const QColor shownColour = tree->itemById(QStringLiteral("f1"))
                                   ->icon(DetailTreeWidget::ApprovalColumn)
                                   .pixmap(45, 30)
                                   .toImage()
                                   .pixelColor(22, 2);
    const QColor placeholderColour = placeholder.pixelColor(90, 4);
    QVERIFY(!placeholder.isNull() && std::abs(shownColour.red() - placeholderColour.red()) <= 2
            && std::abs(shownColour.green() - placeholderColour.green()) <= 2
            && std::abs(shownColour.blue() - placeholderColour.blue()) <= 2);

    // A later refresh takes the fetched ones from the disk and tries the failed one again.
    QVERIFY(wired.cloud.clearFaults());
    wired.refresh(*wired.controller);
    QTRY_VERIFY(hasThumbnail("f1"));
    QCOMPARE(requestsTo(wired.cloud, QStringLiteral("/thumbs/")), 4);

    // A material gone from the cloud takes its thumbnail along.
    const QString t1 = path("t1"), t2 = path("t2");
    QVERIFY(wired.cloud.setMedia(QJsonDocument(QJsonObject{{"token", token}, {"remove", QJsonArray{"t2"}}}).toJson()));
    wired.refresh(*wired.controller);
    QTRY_VERIFY(QFile::exists(t1) && !QFile::exists(t2));
}

// A machine without a material folder (a group's proxy client) keeps the previews in the user's cache.
void TestPanelCloud::thumbnailsWithoutFolder()
{
    QStandardPaths::setTestModeEnabled(true);
    const QString cache =
        QStandardPaths::writableLocation(QStandardPaths::CacheLocation) + QStringLiteral("/thumbnails");
    const std::shared_ptr<void> restore(nullptr, [cache](void *) {
        QDir(cache).removeRecursively();
        QStandardPaths::setTestModeEnabled(false);
    });
    QDir(cache).removeRecursively();
    WiredPanel wired;
    QVERIFY(wired.start({cloudMedium("c1", "one.jpg", 0)}));
    wired.controller->setCloudMaterialFolderPath(std::string());
    wired.refresh(*wired.controller);
    QTreeWidgetItem *row = nullptr;
    QTRY_VERIFY((row = wired.panel->treeView()->itemById(QStringLiteral("c1"))));
    QTRY_VERIFY(row->data(DetailTreeWidget::ApprovalColumn, DetailTreeWidget::HasThumbnailRole).toBool());
    CloudMaterialModel material;
    QVERIFY(wired.controller->material("c1", material));
    QCOMPARE(QString::fromStdString(wired.controller->thumbnailPath(material.mid, material.thumbnailUrl)),
             cache + QStringLiteral("/c1.thumbnail.png"));
    QCOMPARE(QDir(cache).entryList(QDir::Files), QStringList{QStringLiteral("c1.thumbnail.png")});
    QVERIFY(QDir(wired.folder.path()).isEmpty(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot));
}

QTEST_MAIN(TestPanelCloud)
#include "tst_panelcloud.moc"
