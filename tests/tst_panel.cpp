// The material panel: what it shows for the controller's signals, its two views, the search,
// the drag to the host, the buttons and keys that reach the controller, thumbnails, and what it
// says when logged out or offline.

#include "cloudmaterial/cloudmateriallist/cloudmaterialcontroller.h"
#include "cloudmaterial/cloudmateriallist/detailbottomwidget.h"
#include "cloudmaterial/cloudmateriallist/detaillistitemwidget.h"
#include "cloudmaterial/cloudmateriallist/detaillistwidget.h"
#include "cloudmaterial/cloudmateriallist/detailtitlewidget.h"
#include "cloudmaterial/cloudmateriallist/detailtreewidget.h"
#include "cloudmaterial/cloudmateriallist/detailwidget.h"
#include "cloudmaterial/cloudmateriallist/materialpresentation.h"
#include "cloudmaterial/translatemanager.h"

#include "support/paneldriver.h"

#include <QtTest>

#include <QDrag>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QMimeData>
#include <QPushButton>
#include <QStackedWidget>

using namespace talvor::cloudmaterial;

namespace {

const QString unreachable = QStringLiteral("The cloud cannot be reached. The list comes back with the next refresh.");
const QString loggedOut = QStringLiteral("You are not logged in. Log in to the cloud to see your materials.");

} // namespace

class TestPanel : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void init();
    void cleanup();

    void statusAndApproval_data();
    void statusAndApproval();
    void texts_data();
    void texts();
    void modeSwitch();
    void rowsSearchAndProgress();
    void drag_data();
    void drag();
    void followsTheLanguage();
    void loggedOutHint();
    void keys_data();
    void keys();

private:
    std::shared_ptr<CloudMaterialController> controller;
    std::unique_ptr<DetailWidget> panel;
};

void TestPanel::initTestCase()
{
    QVERIFY(TranslateManager::instance().setLanguage("en"));
}

void TestPanel::init()
{
    controller = std::make_shared<CloudMaterialController>(nullptr, nullptr);
    controller->setCloudMaterialFolderPath("/media/cloud");
    panel = std::make_unique<DetailWidget>(controller.get());
    panel->resize(720, 480);
}

void TestPanel::cleanup()
{
    panel.reset();
    controller.reset();
}

void TestPanel::cleanupTestCase()
{
    // The search field's clear button fades in and out by an animation of its own that deletes
    // itself when it ends (160 ms); the last test's must end before the exit, or it is leaked.
    QTest::qWait(400);
}

void TestPanel::statusAndApproval_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("image");
    QTest::addColumn<int>("approval");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("colour");
    QTest::newRow("not allowed, pending") << 0 << "download_status_not_allowed" << 1 << "Pending approval"
                                          << "#ea8234";
    QTest::newRow("allowed, approved") << 1 << "download_status_allowed" << 2 << QString() << "#ffffff";
    QTest::newRow("downloading, rejected") << 2 << "download_status_downloading" << 3 << "Rejected"
                                           << "#e03838";
    QTest::newRow("successed, other") << 3 << "download_status_successed" << 5 << QString() << "#ffffff";
    QTest::newRow("failed") << 4 << "download_status_failed" << 2 << QString() << "#ffffff";
    QTest::newRow("unknown shows none") << 5 << QString() << 2 << QString() << "#ffffff";
}

void TestPanel::statusAndApproval()
{
    QFETCH(int, status);
    QFETCH(QString, image);
    QFETCH(int, approval);
    QFETCH(QString, text);
    QFETCH(QString, colour);
    // Shown on arrival (m1) and on a change (m2), coming from a value with an image and another approval.
    panel->addMaterials({material("m1", "a.jpg", 0, 10, approval, status),
                         material("m2", "b.jpg", 0, 10, approval == 3 ? 1 : 3, status == 0 ? Allowed : NotAllowed)});
    panel->onMaterialDownloadStatusChanged("m2", DownloadStatus(status));
    panel->onMaterialApprovalStatusChanged("m2", ApprovalStatus(approval));
    const QImage expected = image.isEmpty() ? QImage() : iconImage(QIcon(imagePath(image + QStringLiteral(".png"))));
    QVERIFY2(image.isEmpty() || expected.pixelColor(10, 10).alpha() > 0, "the theme image is missing or empty");
    for (const QString &mid : {QStringLiteral("m1"), QStringLiteral("m2")}) {
        QListWidgetItem *item = panel->listView()->itemById(mid);
        QTreeWidgetItem *row = panel->treeView()->itemById(mid);
        QCOMPARE(item->data(DetailListWidget::StatusImageRole).toString(), image);
        QCOMPARE(row->data(DetailTreeWidget::StatusColumn, DetailTreeWidget::StatusImageRole).toString(), image);
        QCOMPARE(panel->listView()->materialWidget(item)->model().downloadStatus, status);
        QCOMPARE(item->icon().isNull() ? QImage() : iconImage(item->icon()), expected);
        QCOMPARE(row->icon(DetailTreeWidget::StatusColumn).isNull()
                     ? QImage()
                     : iconImage(row->icon(DetailTreeWidget::StatusColumn)),
                 expected);
        QCOMPARE(row->text(DetailTreeWidget::ApprovalColumn), text);
        QCOMPARE(row->foreground(DetailTreeWidget::ApprovalColumn).color().name(), colour);
    }
}

void TestPanel::texts_data()
{
    QTest::addColumn<qint64>("bytes");
    QTest::addColumn<QString>("size");
    QTest::addColumn<int>("type");
    QTest::addColumn<QString>("typeName");
    QTest::newRow("zero") << qint64(0) << "0.00 B" << 0 << "Picture";
    QTest::newRow("1 KiB is still bytes") << qint64(1024) << "1024.00 B" << 1 << "Video";
    QTest::newRow("just over 1 KiB") << qint64(1034) << "1.01 KB" << 2 << "Audio";
    QTest::newRow("1 MiB is still KB") << qint64(1048576) << "1024.00 KB" << 3 << "Document";
    QTest::newRow("2.25 MiB") << qint64(2359296) << "2.25 MB" << 30 << QString();
    QTest::newRow("1 GiB is still MB") << qint64(1073741824) << "1024.00 MB" << 0 << "Picture";
    QTest::newRow("just over 1 GiB") << qint64(1073741825) << "1.00 GB" << 0 << "Picture";
    QTest::newRow("5.5 GiB") << qint64(5905580032) << "5.50 GB" << 0 << "Picture";
}

void TestPanel::texts()
{
    QFETCH(qint64, bytes);
    QFETCH(QString, size);
    QFETCH(int, type);
    QFETCH(QString, typeName);
    QCOMPARE(talvor::cloudmaterial::sizeText(bytes), size);
    panel->addMaterials({material("m1", "a.jpg", type, bytes)});
    QCOMPARE(panel->treeView()->itemById(QStringLiteral("m1"))->text(DetailTreeWidget::SizeColumn), size);
    QCOMPARE(panel->listView()->itemById(QStringLiteral("m1"))->data(DetailListWidget::SizeRole).toString(), size);
    QCOMPARE(panel->treeView()->itemById(QStringLiteral("m1"))->text(DetailTreeWidget::TypeColumn), typeName);
}

// The views swap, and the state property reaches the style sheet only if the button is re-polished.
void TestPanel::modeSwitch()
{
    DetailTreeWidget *tree = panel->treeView();
    for (int column = 0; column < 9; ++column)
        QCOMPARE(tree->isColumnHidden(column), column >= 6);
    QStringList labels;
    for (int column = 0; column < 7; ++column)
        labels << tree->headerItem()->text(column);
    QCOMPARE(labels, QStringList({"Name", "Thumbnail", "Status", "Download", "Type", "Resolution", "Size"}));

    panel->addMaterials({material("m1", "a.jpg")});
    panel->setStyleSheet(QStringLiteral("QPushButton#treeModeBtn { border: none; background-color: #0000ff; }"
                                        "QPushButton#treeModeBtn[state=\"mode\"] { background-color: #ff0000; }"));
    panel->show();
    QVERIFY(QTest::qWaitForWindowExposed(panel.get()));
    QPushButton *mode = panel->bottomWidget()->modeButton();
    for (const bool tree : {true, false, true}) {
        QTest::mouseClick(mode, Qt::LeftButton);
        QCOMPARE(mode->property("state").toString(), tree ? QStringLiteral("mode") : QStringLiteral("unmode"));
        QCOMPARE(panel->treeView()->isVisible(), tree);
        QCOMPARE(panel->listView()->isVisible(), !tree);
        QCOMPARE(mode->grab().toImage().pixelColor(2, 2), tree ? QColor(255, 0, 0) : QColor(0, 0, 255));
    }
}

void TestPanel::rowsSearchAndProgress()
{
    auto *stack = panel->findChild<QStackedWidget *>();
    QCOMPARE(stack->currentWidget(), panel->emptyLabel());
    panel->addMaterials({material("m1", "Beach.jpg"), material("m2", "clip-beach.mp4", 1)});
    panel->addMaterials({material("m3", "intro.mp3", 2)});
    // A material announced twice is shown once.
    panel->addMaterials({material("m2", "clip-beach.mp4", 1)});
    QCOMPARE(visibleNames(panel.get()), QStringList({"Beach.jpg", "clip-beach.mp4", "intro.mp3"}));
    QCOMPARE(stack->currentWidget(), panel->listView());
    QCOMPARE(panel->bottomWidget()->label()->text(), QStringLiteral("3"));
    // Each row carries its material's path in the material folder.
    auto *widget = panel->listView()->materialWidget(panel->listView()->itemById(QStringLiteral("m2")));
    QCOMPARE(widget->materialString(), QStringLiteral("/media/cloud/clip-beach.mp4"));
    QCOMPARE(panel->treeView()->itemById(QStringLiteral("m2"))->text(DetailTreeWidget::PathColumn),
             widget->materialString());

    // Progress shows in both views while downloading, and only for that material.
    QCOMPARE(widget->progress(), -1);
    panel->onMaterialDownloadStatusChanged("m2", Downloading);
    panel->onMaterialDownloadProgress("m2", 150, 200);
    QCOMPARE(widget->progress(), 75);
    QCOMPARE(panel->treeView()->progress(QStringLiteral("m2")), 75);
    QCOMPARE(panel->treeView()->progress(QStringLiteral("m1")), -1);
    panel->onMaterialDownloadStatusChanged("m2", Successed);
    QCOMPARE(widget->progress(), -1);
    QCOMPARE(panel->treeView()->progress(QStringLiteral("m2")), -1);

    // The search ignores case, and new materials obey the filter that is set.
    panel->show();
    QLineEdit *edit = panel->titleWidget()->searchEdit();
    QTest::keyClicks(edit, QStringLiteral("BEA"));
    QCOMPARE(visibleNames(panel.get()), QStringList({"Beach.jpg", "clip-beach.mp4"}));
    QCOMPARE(panel->bottomWidget()->label()->text(), QStringLiteral("2 / 3"));
    panel->addMaterials({material("m4", "beach2.png"), material("m5", "logo.png")});
    QCOMPARE(visibleNames(panel.get()), QStringList({"Beach.jpg", "clip-beach.mp4", "beach2.png"}));
    QTest::keyClicks(edit, QStringLiteral("zzz"));
    QVERIFY(visibleNames(panel.get()).isEmpty() && panel->emptyLabel()->isVisible());
    edit->clear();
    QCOMPARE(visibleNames(panel.get()).size(), 5);

    panel->deleteMaterials({"m2"});
    panel->deleteMaterials({"unknown"});
    QCOMPARE(visibleNames(panel.get()), QStringList({"Beach.jpg", "intro.mp3", "beach2.png", "logo.png"}));
    QVERIFY(!panel->listView()->itemById(QStringLiteral("m2")) && !panel->treeView()->itemById(QStringLiteral("m2")));
    panel->deleteMaterials({"m1", "m3", "m4", "m5"});
    QCOMPARE(panel->listView()->count() + panel->treeView()->topLevelItemCount(), 0);
    QCOMPARE(stack->currentWidget(), panel->emptyLabel());
}

void TestPanel::drag_data()
{
    QTest::addColumn<bool>("table");
    QTest::addColumn<bool>("callback");
    QTest::newRow("grid, host callback") << false << true;
    QTest::newRow("grid, no callback") << false << false;
    QTest::newRow("table, host callback") << true << true;
    QTest::newRow("table, no callback") << true << false;
}

// Either view hands the host the same thing: the local path, the callback before the drag runs, a copy.
void TestPanel::drag()
{
    QFETCH(bool, table);
    QFETCH(bool, callback);
    std::string received;
    QDrag *receivedDrag = nullptr;
    if (callback)
        controller->setStarDragCallback([&](const std::string &material, QDrag *drag) {
            received = material;
            receivedDrag = drag;
        });
    panel->addMaterials({material("m1", "first.jpg"), material("m2", "second clip.mp4", 1)});
    panel->bottomWidget()->setTreeMode(table);
    panel->show();
    QVERIFY(QTest::qWaitForWindowExposed(panel.get()));

    QAbstractItemView *view = table ? static_cast<QAbstractItemView *>(panel->treeView()) : panel->listView();
    QPointer<QDrag> running;
    QString seen; // actions, text and URLs of the running drag
    bool calledBeforeExec = false;
    // exec() blocks in its own loop: look at the running drag from there, then end it.
    QObject scope; // a timer that never ran must not outlive the locals it reads
    QTimer::singleShot(0, &scope, [&] {
        running = view->findChild<QDrag *>();
        seen = running ? QStringLiteral("%1 %2 %3")
                             .arg(running->supportedActions())
                             .arg(running->mimeData()->text(), running->mimeData()->urls().value(0).toString())
                       : QString();
        calledBeforeExec = !received.empty();
        QDrag::cancel();
    });
    const QString id = QStringLiteral("m2");
    dragItem(view,
             table ? panel->treeView()->visualItemRect(panel->treeView()->itemById(id))
                   : panel->listView()->visualItemRect(panel->listView()->itemById(id)));
    QVERIFY(running);
    QCOMPARE(seen,
             QStringLiteral("%1 /media/cloud/second clip.mp4 file:///media/cloud/second clip.mp4").arg(Qt::CopyAction));
    QCOMPARE(calledBeforeExec, callback);
    QCOMPARE(received, callback ? std::string("/media/cloud/second clip.mp4") : std::string());
    QCOMPARE(receivedDrag, callback ? running.data() : nullptr);
}

// The buttons reach a real controller: refresh, download, delete; a failed catalogue says why.
void TestPanel::followsTheLanguage()
{
    panel->addMaterials({material("m1", "clip.mp4", 1, 2048, PendingApproval, Failed)});
    panel->show();
    QVERIFY(QTest::qWaitForWindowExposed(panel.get()));
    DetailTreeWidget *tree = panel->treeView();
    QTreeWidgetItem *row = tree->itemById(QStringLiteral("m1"));
    QListWidgetItem *tile = panel->listView()->itemById(QStringLiteral("m1"));
    const auto shown = [&] {
        return QStringList{tree->headerItem()->text(DetailTreeWidget::NameColumn),
                           tree->headerItem()->text(DetailTreeWidget::TypeColumn),
                           row->text(DetailTreeWidget::TypeColumn),
                           row->text(DetailTreeWidget::ApprovalColumn),
                           row->toolTip(DetailTreeWidget::StatusColumn),
                           tile->data(DetailListWidget::TypeRole).toString(),
                           tile->toolTip(),
                           panel->bottomWidget()->downloadButton()->text(),
                           panel->bottomWidget()->deleteButton()->toolTip(),
                           panel->titleWidget()->refreshButton()->text(),
                           panel->titleWidget()->searchEdit()->placeholderText(),
                           qobject_cast<QLabel *>(panel->emptyLabel())->text(),
                           panel->banner()->text()};
    };
    const auto wanted = [] {
        return QStringList{TranslateManager::text("Name"),
                           TranslateManager::text("Type"),
                           mediaTypeName(1),
                           approvalText(PendingApproval),
                           materialToolTip(QStringLiteral("clip.mp4"), Failed),
                           mediaTypeName(1),
                           materialToolTip(QStringLiteral("clip.mp4"), Failed),
                           TranslateManager::text("Download"),
                           TranslateManager::text("DeleteLocalCopies"),
                           TranslateManager::text("Refresh"),
                           TranslateManager::text("SearchMaterial"),
                           TranslateManager::text("NoMatchingMaterials"),
                           TranslateManager::text("CloudUnreachable")};
    };
    const QStringList english = wanted();
    QCOMPARE(shown(), english);
    const std::shared_ptr<void> restore(nullptr, [](void *) { TranslateManager::instance().setLanguage("en"); });
    for (const char *language : {"cn", "ru_RU", "en"}) {
        QVERIFY(TranslateManager::instance().setLanguage(language));
        QVERIFY(language == std::string("en") || wanted().at(0) != english.at(0)); // the language has its own texts
        QTRY_COMPARE(shown(), wanted());
    }
}

void TestPanel::loggedOutHint()
{
    std::unique_ptr<QWidget> owner(new DetailWidget(controller.get()));
    auto *shown = qobject_cast<DetailWidget *>(owner.get());
    auto *empty = qobject_cast<QLabel *>(shown->emptyLabel());
    QCOMPARE(shown->findChild<QStackedWidget *>()->currentWidget(), empty);
    QCOMPARE(empty->text(), loggedOut);
    controller->setToken("tok-panel");
    QCOMPARE(empty->text(), QStringLiteral("No materials in the cloud library yet."));
    // Offline before anything was known.
    shown->setCatalogueState(CatalogueState::Unreachable);
    QCOMPARE(empty->text(), unreachable);
    controller->clear();
    QCOMPARE(shown->catalogueState(), CatalogueState::LoggedOut);
    QCOMPARE(empty->text(), loggedOut);
    QVERIFY(!shown->banner()->isVisibleTo(shown));
}

void TestPanel::keys_data()
{
    QTest::addColumn<bool>("tree");
    QTest::addColumn<bool>("fromSearch");
    QTest::addColumn<int>("key");
    QTest::addColumn<int>("modifiers");
    QTest::addColumn<QString>("expected");
    const int none = Qt::NoModifier;
    QTest::newRow("ctrl+f in the grid") << false << false << int(Qt::Key_F) << int(Qt::ControlModifier) << "search";
    QTest::newRow("f5 in the grid") << false << false << int(Qt::Key_F5) << none << "refresh";
    QTest::newRow("f5 in the search") << true << true << int(Qt::Key_F5) << none << "refresh";
    QTest::newRow("return in the grid") << false << false << int(Qt::Key_Return) << none << "download";
    QTest::newRow("enter in the table") << true << false << int(Qt::Key_Enter) << int(Qt::KeypadModifier) << "download";
    QTest::newRow("return in the search") << false << true << int(Qt::Key_Return) << none << "view";
    QTest::newRow("delete in the grid") << false << false << int(Qt::Key_Delete) << none << "delete";
    QTest::newRow("delete in the search") << false << true << int(Qt::Key_Delete) << none << "nothing";
    // Moving selects, ready for Enter.
    QTest::newRow("right in the grid") << false << false << int(Qt::Key_Right) << none << "next";
    QTest::newRow("down in the table") << true << false << int(Qt::Key_Down) << none << "next";
}

void TestPanel::keys()
{
    QFETCH(bool, tree);
    QFETCH(bool, fromSearch);
    QFETCH(int, key);
    QFETCH(int, modifiers);
    QFETCH(QString, expected);
    panel->addMaterials({material("k1", "kept.jpg", 0, 10, Approved, Successed), material("k2", "other.jpg")});
    panel->bottomWidget()->setTreeMode(tree);
    QVERIFY(activate(panel.get()));
    QAbstractItemView *view = tree ? static_cast<QAbstractItemView *>(panel->treeView()) : panel->listView();
    view->setCurrentIndex(view->model()->index(0, 0));
    QLineEdit *search = panel->titleWidget()->searchEdit();
    search->setText(QStringLiteral("e")); // matches both: something for Delete to take
    search->setCursorPosition(0);
    QWidget *focus = fromSearch ? static_cast<QWidget *>(search) : view;
    focus->setFocus();
    QTRY_COMPARE(QApplication::focusWidget(), focus);

    QSignalSpy refreshed(panel->titleWidget()->refreshButton(), &QPushButton::clicked);
    QSignalSpy downloaded(panel->bottomWidget()->downloadButton(), &QPushButton::clicked);
    QSignalSpy deleted(panel->bottomWidget()->deleteButton(), &QPushButton::clicked);
    QVERIFY(panel->bottomWidget()->deleteButton()->isEnabled()); // the downloaded one is selected
    QTest::keyClick(focus, Qt::Key(key), Qt::KeyboardModifiers(modifiers));

    auto *confirmation = panel->findChild<QMessageBox *>(QStringLiteral("deleteConfirmation"));
    QCOMPARE(QString("%1%2%3%4")
                 .arg(refreshed.count())
                 .arg(downloaded.count())
                 .arg(deleted.count())
                 .arg(confirmation != nullptr),
             QString("%1%2%3%3")
                 .arg(int(expected == "refresh"))
                 .arg(int(expected == "download"))
                 .arg(int(expected == "delete")));
    if (confirmation)
        confirmation->reject();
    if (expected == QLatin1String("search"))
        QVERIFY(QApplication::focusWidget() == search && search->selectedText() == QLatin1String("e"));
    if (expected == QLatin1String("view"))
        QCOMPARE(QApplication::focusWidget(), view);
    if (expected == QLatin1String("nothing"))
        QCOMPARE(search->text(), QString()); // the field took the key
    if (expected == QLatin1String("next"))
        QVERIFY(view->currentIndex().row() == 1 && panel->selectedIds() == std::vector<std::string>{"k2"});
}

QTEST_MAIN(TestPanel)
#include "tst_panel.moc"
