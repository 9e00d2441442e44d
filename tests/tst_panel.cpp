// The material panel: what it shows for the controller's signals, its two views, the search,
// the drag to the host, the buttons and keys that reach the controller, thumbnails, and what it
// says when logged out or offline.

#include "cloudmaterial/cloudmateriallist/cloudmaterialcontroller.h"
#include "cloudmaterial/cloudmateriallist/detailbottomwidget.h"
#include "cloudmaterial/cloudmateriallist/detaillistitemdelegate.h"
#include "cloudmaterial/cloudmateriallist/detaillistitemwidget.h"
#include "cloudmaterial/cloudmateriallist/detaillistwidget.h"
#include "cloudmaterial/cloudmateriallist/detailtitlewidget.h"
#include "cloudmaterial/cloudmateriallist/detailtreewidget.h"
#include "cloudmaterial/cloudmateriallist/detailwidget.h"
#include "cloudmaterial/cloudmateriallist/materialpresentation.h"
#include "cloudmaterial/protocol/httpclientwrapper.h"
#include "cloudmaterial/translatemanager.h"
#include "cloudmaterial/workerpool.h"

#include "support/cloudsimfixture.h"

#include <hvtheme/theme.h>

#include <QtTest>

#include <QDrag>
#include <QHeaderView>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QMimeData>
#include <QPainter>
#include <QPushButton>
#include <QSettings>
#include <QStackedWidget>
#include <QTemporaryDir>

#include <algorithm>
#include <memory>
#include <mutex>
#include <thread>

using namespace talvor::cloudmaterial;

namespace {

const char *const token = "tok-panel";

CloudMaterialModel material(const std::string &mid, const std::string &name, int type = 0, std::int64_t size = 2048,
                            int approval = Approved, int status = Allowed)
{
    CloudMaterialModel m;
    m.mid = mid;
    m.mediaName = name;
    m.mediaType = type;
    m.approvalStatus = approval;
    m.downloadStatus = status;
    m.size = size;
    m.resolution = "1920x1080";
    return m;
}

QString imagePath(const QString &name)
{
    return QCoreApplication::applicationDirPath() + QStringLiteral("/../share/themes/images/default/cloudmaterial/")
           + name;
}

QImage iconImage(const QIcon &icon)
{
    return icon.pixmap(20, 20).toImage().convertToFormat(QImage::Format_ARGB32);
}

QStringList visibleListNames(DetailListWidget *list)
{
    QStringList names;
    for (int row = 0; row < list->count(); ++row) {
        if (!list->item(row)->isHidden())
            names << list->item(row)->text();
    }
    return names;
}

QStringList visibleTreeNames(DetailTreeWidget *tree)
{
    QStringList names;
    for (int row = 0; row < tree->topLevelItemCount(); ++row) {
        if (!tree->topLevelItem(row)->isHidden())
            names << tree->topLevelItem(row)->text(DetailTreeWidget::NameColumn);
    }
    return names;
}

// Presses on an item and moves past the drag distance with the button held, as a user does.
void dragItem(DetailListWidget *list, QListWidgetItem *item)
{
    QWidget *viewport = list->viewport();
    const QPoint start = list->visualItemRect(item).center();
    const QPoint end = start + QPoint(QApplication::startDragDistance() + 20, 20);
    QMouseEvent press(QEvent::MouseButtonPress, start, viewport->mapToGlobal(start), Qt::LeftButton, Qt::LeftButton,
                      Qt::NoModifier);
    QApplication::sendEvent(viewport, &press);
    // The view takes the first move as the start of a drag and the next one beyond the distance as the drag.
    const QPoint near = start + QPoint(1, 1);
    QMouseEvent first(QEvent::MouseMove, near, viewport->mapToGlobal(near), Qt::NoButton, Qt::LeftButton,
                      Qt::NoModifier);
    QApplication::sendEvent(viewport, &first);
    QMouseEvent move(QEvent::MouseMove, end, viewport->mapToGlobal(end), Qt::NoButton, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(viewport, &move);
    QMouseEvent release(QEvent::MouseButtonRelease, end, viewport->mapToGlobal(end), Qt::LeftButton, Qt::NoButton,
                        Qt::NoModifier);
    QApplication::sendEvent(viewport, &release);
}

void applyTheme(QWidget *panel)
{
    QSettings settings(QStringLiteral(":/cloudmaterialtheme/cloudmaterial.theme"), QSettings::IniFormat);
    HV::Theme::readSettings(settings);
    panel->setStyleSheet(
        HV::readStyleSheet(QStringLiteral(":/cloudmaterialtheme/stylesheet"), QStringLiteral("cloudmateriallistwidget.qss")));
}

QJsonObject medium(const char *mid, const char *name, int type = 0)
{
    return QJsonObject{{QStringLiteral("mid"), QLatin1String(mid)},
                       {QStringLiteral("mediaName"), QLatin1String(name)},
                       {QStringLiteral("mediaType"), type},
                       {QStringLiteral("approvalStatus"), QStringLiteral("2")},
                       {QStringLiteral("file"), QJsonObject{{QStringLiteral("size"), 4000}}}};
}

// A panel fed by a real controller that talks to the local cloud, with a material folder of its own.
struct WiredPanel
{
    bool start(const QJsonArray &media)
    {
        const QJsonObject account{{QStringLiteral("token"), QLatin1String(token)},
                                  {QStringLiteral("status"), QStringLiteral("success")},
                                  {QStringLiteral("media"), media}};
        if (!folder.isValid()
            || !cloud.start(QJsonDocument(QJsonObject{{QStringLiteral("accounts"), QJsonArray{account}}}).toJson()))
            return false;
        controller = connect();
        owner.reset(controller->listWidget());
        panel = qobject_cast<DetailWidget *>(owner.get());
        return panel;
    }

    std::shared_ptr<CloudMaterialController> connect()
    {
        auto c = std::make_shared<CloudMaterialController>(&http);
        c->init();
        c->setWorkerPool(pool);
        c->setToken(token);
        c->setNode(cloud.host().toStdString());
        c->setCloudMaterialFolderPath(folder.path().toStdString());
        return c;
    }

    void refresh(CloudMaterialController &c) { c.requestRefresh(true).wait(); }

    int requests(const QString &prefix)
    {
        int n = 0;
        for (const auto &request : cloud.requests())
            n += request.toObject().value(QStringLiteral("path")).toString().startsWith(prefix);
        return n;
    }

    ~WiredPanel()
    {
        owner.reset();
        controller.reset();
        pool.reset();
    }

    QTemporaryDir folder;
    CloudSim cloud;
    std::shared_ptr<WorkerPool> pool = std::make_shared<WorkerPool>(1);
    HttpClientWrapper http{pool};
    std::shared_ptr<CloudMaterialController> controller;
    std::unique_ptr<QWidget> owner;
    DetailWidget *panel = nullptr;
};

// Collects the warnings of the module's categories, from any thread, for the test to wait on.
class WarningCatcher
{
public:
    WarningCatcher()
    {
        instance = this;
        previous = qInstallMessageHandler(&WarningCatcher::handle);
    }
    ~WarningCatcher()
    {
        qInstallMessageHandler(previous);
        instance = nullptr;
    }
    bool seen(const QString &text) const
    {
        std::lock_guard<std::mutex> lock(mutex);
        return std::any_of(lines.begin(), lines.end(), [&](const QString &line) { return line.contains(text); });
    }

private:
    static void handle(QtMsgType type, const QMessageLogContext &context, const QString &message)
    {
        if (instance && type == QtWarningMsg) {
            std::lock_guard<std::mutex> lock(instance->mutex);
            instance->lines << message;
        }
        if (instance && instance->previous)
            instance->previous(type, context, message);
    }
    static inline WarningCatcher *instance = nullptr;
    QtMessageHandler previous = nullptr;
    mutable std::mutex mutex;
    QStringList lines;
};

// Scaled pictures may differ from their source by a rounding step.
bool near(const QColor &a, const QColor &b)
{
    return std::abs(a.red() - b.red()) <= 2 && std::abs(a.green() - b.green()) <= 2 && std::abs(a.blue() - b.blue()) <= 2;
}

// Xvfb has no window manager to activate a window, and shortcuts need an active one.
bool activate(QWidget *window)
{
    window->show();
    if (!QTest::qWaitForWindowExposed(window))
        return false;
    QApplication::setActiveWindow(window);
    return QTest::qWaitFor([window] { return QApplication::activeWindow() == window; });
}

QColor centre(QWidget *widget, const QRect &area)
{
    return widget->grab(area).toImage().pixelColor(area.width() / 2, area.height() / 2);
}

// A picture that looks like a photograph in a screenshot: a sky, a sun and a skyline.
QString paintPicture(const QString &folder, const QString &name, const QColor &sky, const QColor &ground)
{
    QImage image(192, 108, QImage::Format_RGB32);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    QLinearGradient gradient(0, 0, 0, image.height());
    gradient.setColorAt(0, sky.lighter(130));
    gradient.setColorAt(1, sky.darker(150));
    painter.fillRect(image.rect(), gradient);
    painter.setPen(Qt::NoPen);
    painter.setBrush(QColor(255, 226, 160));
    painter.drawEllipse(QPointF(140, 38), 14, 14);
    painter.setBrush(ground);
    painter.drawPolygon(QPolygonF({QPointF(0, 108), QPointF(0, 70), QPointF(30, 62), QPointF(30, 78),
                                   QPointF(60, 50), QPointF(85, 74), QPointF(120, 66), QPointF(150, 82),
                                   QPointF(192, 60), QPointF(192, 108)}));
    painter.end();
    const QString path = folder + QLatin1Char('/') + name + QStringLiteral(".png");
    image.save(path);
    return path;
}

void saveScreenshot(QWidget *widget, const QString &name)
{
    for (int i = 0; i < 4; ++i)
        QCoreApplication::sendPostedEvents(nullptr, QEvent::LayoutRequest);
    const QString folder = QCoreApplication::applicationDirPath() + QStringLiteral("/../screenshots");
    QDir().mkpath(folder);
    const QString path = folder + QLatin1Char('/') + name + QStringLiteral(".png");
    QVERIFY2(widget->grab().save(path), qPrintable(path));
    qInfo() << "screenshot" << QDir::cleanPath(path);
}

} // namespace

class TestPanel : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void registersTheSignalTypes();
    void layout();
    void statusImage_data();
    void statusImage();
    void approval_data();
    void approval();
    void sizeText_data();
    void sizeText();
    void typeNames_data();
    void typeNames();
    void modeSwitch();
    void addAndDeleteRows();
    void searchFiltersBothViews();
    void progressInBothViews();
    void drag_data();
    void drag();
    void controllerPanelIsWired();
    void thumbnailsFetchedOnceInBothViews();
    void failedThumbnailKeepsThePlaceholder();
    void failedCatalogueSaysWhy_data();
    void failedCatalogueSaysWhy();
    void loggedOutHint();
    void keys_data();
    void keys();
    void tabOrder();
    void deleteRemovesTheLocalCopy_data();
    void deleteRemovesTheLocalCopy();
    void screenshots();

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
    controller = std::make_shared<CloudMaterialController>(nullptr);
    controller->setCloudMaterialFolderPath("/media/cloud");
    panel = std::make_unique<DetailWidget>(controller.get());
    panel->resize(720, 480);
}

void TestPanel::cleanup()
{
    panel.reset();
    controller.reset();
}

void TestPanel::registersTheSignalTypes()
{
    // Runs first: nothing but the panel built in init() has registered them.
    for (const char *name : {"CloudMaterialModel", "std::vector<CloudMaterialModel>", "std::string",
                             "std::vector<std::string>", "DownloadStatus", "ApprovalStatus"})
        QVERIFY2(QMetaType::type(name) != QMetaType::UnknownType, name);
}

void TestPanel::layout()
{
    QCOMPARE(panel->objectName(), QStringLiteral("CloudMaterialList"));
    for (const char *name : {"detailListWidget", "detailTreeWidget", "detailTreeHeader", "addBtn", "delBtn",
                             "treeModeBtn", "downloadBtn", "sreachBackground", "searchBtn", "sreachEdit",
                             "cloudRefreshButton"})
        QVERIFY2(panel->findChild<QWidget *>(QLatin1String(name)), name);
    QVERIFY(panel->findChild<QLineEdit *>(QStringLiteral("sreachEdit"))->parent()->objectName()
            == QStringLiteral("sreachBackground"));

    QVERIFY(!panel->bottomWidget()->addButton()->isEnabled());
    QVERIFY(!panel->bottomWidget()->deleteButton()->isEnabled());
    QVERIFY(panel->listView()->flow() == QListView::LeftToRight && panel->listView()->isWrapping());
    QVERIFY(qobject_cast<DetailListItemDelegate *>(panel->listView()->itemDelegate()));
    DetailTreeWidget *tree = panel->treeView();
    QVERIFY(tree->uniformRowHeights());
    QCOMPARE(tree->iconSize(), QSize(45, 30));
    for (int column = 0; column < 9; ++column)
        QCOMPARE(tree->isColumnHidden(column), column >= 6);
    const QStringList labels{"Name", "Thumbnail", "Status", "Download", "Type", "Resolution", "Size"};
    for (int column = 0; column < labels.size(); ++column)
        QCOMPARE(tree->headerItem()->text(column), labels.at(column));
}

void TestPanel::statusImage_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("image");
    QTest::newRow("not allowed") << 0 << "download_status_not_allowed";
    QTest::newRow("allowed") << 1 << "download_status_allowed";
    QTest::newRow("downloading") << 2 << "download_status_downloading";
    QTest::newRow("successed") << 3 << "download_status_successed";
    QTest::newRow("failed") << 4 << "download_status_failed";
    QTest::newRow("unknown") << 5 << QString();
}

void TestPanel::statusImage()
{
    QFETCH(int, status);
    QFETCH(QString, image);
    // Start from a status with an image, so that "none" has to be taken away.
    panel->addMaterials({material("m1", "a.jpg", 0, 10, Approved, status == 0 ? Allowed : NotAllowed)});
    panel->onMaterialDownloadStatusChanged("m1", DownloadStatus(status));

    QListWidgetItem *item = panel->listView()->itemById(QStringLiteral("m1"));
    QTreeWidgetItem *row = panel->treeView()->itemById(QStringLiteral("m1"));
    QVERIFY(item && row);
    QCOMPARE(item->data(DetailListWidget::StatusImageRole).toString(), image);
    QCOMPARE(row->data(DetailTreeWidget::StatusColumn, DetailTreeWidget::StatusImageRole).toString(), image);
    if (image.isEmpty()) {
        QVERIFY(item->icon().isNull());
        QVERIFY(row->icon(DetailTreeWidget::StatusColumn).isNull());
        return;
    }
    const QImage expected = iconImage(QIcon(imagePath(image + QStringLiteral(".png"))));
    QVERIFY2(!expected.isNull() && expected.pixelColor(10, 10).alpha() > 0, "the theme image is missing or empty");
    QCOMPARE(iconImage(item->icon()), expected);
    QCOMPARE(iconImage(row->icon(DetailTreeWidget::StatusColumn)), expected);
    QCOMPARE(panel->listView()->materialWidget(item)->model().downloadStatus, status);
}

void TestPanel::approval_data()
{
    QTest::addColumn<int>("approval");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("colour");
    QTest::newRow("pending") << 1 << "Pending approval" << "#ea8234";
    QTest::newRow("approved") << 2 << QString() << "#ffffff";
    QTest::newRow("rejected") << 3 << "Rejected" << "#e03838";
    QTest::newRow("other") << 5 << QString() << "#ffffff";
}

void TestPanel::approval()
{
    QFETCH(int, approval);
    QFETCH(QString, text);
    QFETCH(QString, colour);
    // Shown on arrival ...
    panel->addMaterials({material("m1", "a.jpg", 0, 10, approval)});
    QTreeWidgetItem *row = panel->treeView()->itemById(QStringLiteral("m1"));
    QVERIFY(row);
    QCOMPARE(row->text(DetailTreeWidget::ApprovalColumn), text);
    QCOMPARE(row->foreground(DetailTreeWidget::ApprovalColumn).color().name(), colour);

    // ... and on a change, coming from a different value.
    const int other = approval == 3 ? 1 : 3;
    panel->addMaterials({material("m2", "b.jpg", 0, 10, other)});
    panel->onMaterialApprovalStatusChanged("m2", ApprovalStatus(approval));
    row = panel->treeView()->itemById(QStringLiteral("m2"));
    QCOMPARE(row->text(DetailTreeWidget::ApprovalColumn), text);
    QCOMPARE(row->foreground(DetailTreeWidget::ApprovalColumn).color().name(), colour);
}

void TestPanel::sizeText_data()
{
    QTest::addColumn<qint64>("bytes");
    QTest::addColumn<QString>("text");
    QTest::newRow("zero") << qint64(0) << "0.00 B";
    QTest::newRow("1 KiB is still bytes") << qint64(1024) << "1024.00 B";
    QTest::newRow("just over 1 KiB") << qint64(1034) << "1.01 KB";
    QTest::newRow("1.5 KiB") << qint64(1536) << "1.50 KB";
    QTest::newRow("1 MiB is still KB") << qint64(1048576) << "1024.00 KB";
    QTest::newRow("2.25 MiB") << qint64(2359296) << "2.25 MB";
    QTest::newRow("1 GiB is still MB") << qint64(1073741824) << "1024.00 MB";
    QTest::newRow("just over 1 GiB") << qint64(1073741825) << "1.00 GB";
    QTest::newRow("5.5 GiB") << qint64(5905580032) << "5.50 GB";
}

void TestPanel::sizeText()
{
    QFETCH(qint64, bytes);
    QFETCH(QString, text);
    QCOMPARE(talvor::cloudmaterial::sizeText(bytes), text);
    panel->addMaterials({material("m1", "a.jpg", 0, bytes)});
    QCOMPARE(panel->treeView()->itemById(QStringLiteral("m1"))->text(DetailTreeWidget::SizeColumn), text);
    QCOMPARE(panel->listView()->itemById(QStringLiteral("m1"))->data(DetailListWidget::SizeRole).toString(), text);
}

void TestPanel::typeNames_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<QString>("name");
    QTest::newRow("picture") << 0 << "Picture";
    QTest::newRow("video") << 1 << "Video";
    QTest::newRow("audio") << 2 << "Audio";
    QTest::newRow("document") << 3 << "Document";
    QTest::newRow("unknown") << 30 << QString();
}

void TestPanel::typeNames()
{
    QFETCH(int, type);
    QFETCH(QString, name);
    panel->addMaterials({material("m1", "a", type)});
    QCOMPARE(panel->treeView()->itemById(QStringLiteral("m1"))->text(DetailTreeWidget::TypeColumn), name);
}

// The views swap, and the state property reaches the style sheet only if the button is re-polished.
void TestPanel::modeSwitch()
{
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

void TestPanel::addAndDeleteRows()
{
    QVERIFY(panel->findChild<QStackedWidget *>()->currentWidget() == panel->emptyLabel());
    panel->addMaterials({material("m1", "one.jpg"), material("m2", "two.mp4", 1)});
    panel->addMaterials({material("m3", "three.mp3", 2)});
    // A material announced twice is shown once.
    panel->addMaterials({material("m2", "two.mp4", 1)});
    QCOMPARE(visibleListNames(panel->listView()), QStringList({"one.jpg", "two.mp4", "three.mp3"}));
    QCOMPARE(visibleTreeNames(panel->treeView()), QStringList({"one.jpg", "two.mp4", "three.mp3"}));
    QVERIFY(panel->findChild<QStackedWidget *>()->currentWidget() == panel->listView());
    QCOMPARE(panel->bottomWidget()->label()->text(), QStringLiteral("3"));

    panel->deleteMaterials({"m2"});
    panel->deleteMaterials({"unknown"});
    QCOMPARE(visibleListNames(panel->listView()), QStringList({"one.jpg", "three.mp3"}));
    QCOMPARE(visibleTreeNames(panel->treeView()), QStringList({"one.jpg", "three.mp3"}));
    QVERIFY(!panel->listView()->itemById(QStringLiteral("m2")));
    QVERIFY(!panel->treeView()->itemById(QStringLiteral("m2")));

    // Each item widget carries its material's path in the material folder.
    auto *widget = panel->listView()->materialWidget(panel->listView()->itemById(QStringLiteral("m3")));
    QVERIFY(widget);
    QCOMPARE(widget->materialString(), QStringLiteral("/media/cloud/three.mp3"));
    QCOMPARE(widget->model().mid, std::string("m3"));
    QCOMPARE(panel->treeView()->itemById(QStringLiteral("m3"))->text(DetailTreeWidget::PathColumn),
             QStringLiteral("/media/cloud/three.mp3"));

    panel->deleteMaterials({"m1", "m3"});
    QCOMPARE(panel->listView()->count(), 0);
    QCOMPARE(panel->treeView()->topLevelItemCount(), 0);
    QVERIFY(panel->findChild<QStackedWidget *>()->currentWidget() == panel->emptyLabel());
}

void TestPanel::searchFiltersBothViews()
{
    panel->addMaterials({material("m1", "Beach.jpg"), material("m2", "clip-beach.mp4", 1), material("m3", "intro.mp3", 2)});
    panel->show();
    QLineEdit *edit = panel->titleWidget()->searchEdit();
    QTest::keyClicks(edit, QStringLiteral("BEA"));
    QCOMPARE(visibleListNames(panel->listView()), QStringList({"Beach.jpg", "clip-beach.mp4"}));
    QCOMPARE(visibleTreeNames(panel->treeView()), QStringList({"Beach.jpg", "clip-beach.mp4"}));
    QCOMPARE(panel->bottomWidget()->label()->text(), QStringLiteral("2 / 3"));

    // New materials obey the filter that is set.
    panel->addMaterials({material("m4", "beach2.png"), material("m5", "logo.png")});
    QCOMPARE(visibleListNames(panel->listView()), QStringList({"Beach.jpg", "clip-beach.mp4", "beach2.png"}));

    QTest::keyClicks(edit, QStringLiteral("zzz"));
    QVERIFY(visibleListNames(panel->listView()).isEmpty());
    QVERIFY(visibleTreeNames(panel->treeView()).isEmpty());
    QVERIFY(panel->emptyLabel()->isVisible());

    edit->clear();
    QCOMPARE(visibleListNames(panel->listView()).size(), 5);
    QCOMPARE(visibleTreeNames(panel->treeView()).size(), 5);
    QVERIFY(panel->listView()->isVisible());
}

void TestPanel::progressInBothViews()
{
    panel->addMaterials({material("m1", "a.mp4", 1), material("m2", "b.mp4", 1)});
    QCOMPARE(panel->treeView()->progress(QStringLiteral("m1")), -1);
    auto *widget = panel->listView()->materialWidget(panel->listView()->itemById(QStringLiteral("m1")));
    QCOMPARE(widget->progress(), -1);

    panel->onMaterialDownloadStatusChanged("m1", Downloading);
    panel->onMaterialDownloadProgress("m1", 50, 200);
    QCOMPARE(widget->progress(), 25);
    QCOMPARE(panel->treeView()->progress(QStringLiteral("m1")), 25);
    panel->onMaterialDownloadProgress("m1", 150, 200);
    QCOMPARE(widget->progress(), 75);
    QCOMPARE(panel->treeView()->progress(QStringLiteral("m1")), 75);
    // The other material is untouched.
    QCOMPARE(panel->treeView()->progress(QStringLiteral("m2")), -1);

    panel->onMaterialDownloadStatusChanged("m1", Successed);
    QCOMPARE(widget->progress(), -1);
    QCOMPARE(panel->treeView()->progress(QStringLiteral("m1")), -1);
}

void TestPanel::drag_data()
{
    QTest::addColumn<bool>("callback");
    QTest::newRow("host callback") << true;
    QTest::newRow("no callback") << false;
}

void TestPanel::drag()
{
    QFETCH(bool, callback);
    std::string received;
    QDrag *receivedDrag = nullptr;
    if (callback)
        controller->setStarDragCallback([&](const std::string &material, QDrag *drag) {
            received = material;
            receivedDrag = drag;
        });
    panel->addMaterials({material("m1", "first.jpg"), material("m2", "second clip.mp4", 1)});
    panel->show();
    QVERIFY(QTest::qWaitForWindowExposed(panel.get()));

    DetailListWidget *list = panel->listView();
    QPointer<QDrag> running;
    Qt::DropActions actions;
    QString text;
    bool calledBeforeExec = false;
    // exec() blocks in its own loop: look at the running drag from there, then end it.
    QObject scope; // a timer that never ran must not outlive the locals it reads
    QTimer::singleShot(0, &scope, [&] {
        running = list->findChild<QDrag *>();
        if (running) {
            actions = running->supportedActions();
            text = running->mimeData()->text();
        }
        calledBeforeExec = !received.empty();
        QDrag::cancel();
    });
    dragItem(list, list->itemById(QStringLiteral("m2")));

    QVERIFY(running);
    QCOMPARE(actions, Qt::DropActions(Qt::CopyAction));
    QCOMPARE(text, QStringLiteral("/media/cloud/second clip.mp4"));
    QCOMPARE(calledBeforeExec, callback);
    QCOMPARE(received, callback ? std::string("/media/cloud/second clip.mp4") : std::string());
    QCOMPARE(receivedDrag, callback ? running.data() : nullptr);
}

void TestPanel::controllerPanelIsWired()
{
    WiredPanel wired;
    QVERIFY(wired.start({medium("w1", "one.jpg"), medium("w2", "two.jpg"), medium("w3", "three.jpg")}));
    // Downloads are then left to a proxy: the test looks at the requests only.
    wired.controller->setServedByProxy(true);
    DetailWidget *wiredPanel = wired.panel;
    QCOMPARE(wired.controller->listWidget(), wired.owner.get());
    QVERIFY(!wired.owner->parent());

    QCOMPARE(wired.requests(QStringLiteral("/gateway/cirro")), 0);
    QTest::mouseClick(wiredPanel->titleWidget()->refreshButton(), Qt::LeftButton);
    QTRY_COMPARE(wired.requests(QStringLiteral("/gateway/cirro")), 1);
    QTRY_COMPARE(wiredPanel->listView()->count(), 3);
    QCOMPARE(wiredPanel->treeView()->topLevelItemCount(), 3);

    QSignalSpy states(wired.controller.get(), &CloudMaterialController::materialDownloadStatusChanged);
    DetailListWidget *list = wiredPanel->listView();
    list->itemById(QStringLiteral("w1"))->setSelected(true);
    list->itemById(QStringLiteral("w3"))->setSelected(true);
    QTest::mouseClick(wiredPanel->bottomWidget()->downloadButton(), Qt::LeftButton);
    QCOMPARE(states.count(), 2);
    QStringList ids;
    for (const auto &args : states) {
        ids << QString::fromStdString(args.at(0).value<std::string>());
        QCOMPARE(args.at(1).value<DownloadStatus>(), Downloading);
    }
    ids.sort();
    QCOMPARE(ids, QStringList({"w1", "w3"}));
    QCOMPARE(list->itemById(QStringLiteral("w1"))->data(DetailListWidget::StatusImageRole).toString(),
             QStringLiteral("download_status_downloading"));
    QCOMPARE(list->itemById(QStringLiteral("w2"))->data(DetailListWidget::StatusImageRole).toString(),
             QStringLiteral("download_status_not_allowed"));

    // In the table it is the table's selection that counts.
    states.clear();
    wiredPanel->bottomWidget()->setTreeMode(true);
    wiredPanel->treeView()->itemById(QStringLiteral("w2"))->setSelected(true);
    QTest::mouseClick(wiredPanel->bottomWidget()->downloadButton(), Qt::LeftButton);
    QCOMPARE(states.count(), 1);
    QCOMPARE(states.at(0).at(0).value<std::string>(), std::string("w2"));

    // A progress report from a worker thread arrives queued.
    std::thread([&wired] { Q_EMIT wired.controller->materialDownloadProgress("w2", 30, 60); }).join();
    QTRY_COMPARE(wiredPanel->treeView()->progress(QStringLiteral("w2")), 50);
}

void TestPanel::thumbnailsFetchedOnceInBothViews()
{
    WiredPanel wired;
    QVERIFY(wired.start({medium("t1", "one.jpg"), medium("t2", "two.mp4", 1)}));
    DetailWidget *shown = wired.panel;
    shown->resize(720, 480);
    shown->show();
    QVERIFY(QTest::qWaitForWindowExposed(shown));
    wired.refresh(*wired.controller);
    QTRY_COMPARE(shown->listView()->count(), 2);

    DetailListWidget *list = shown->listView();
    DetailTreeWidget *tree = shown->treeView();
    QStringList paths;
    for (const QString &mid : {QStringLiteral("t1"), QStringLiteral("t2")}) {
        CloudMaterialModel row;
        QVERIFY(wired.controller->material(mid.toStdString(), row));
        const QString path = QString::fromStdString(wired.controller->thumbnailPath(row.mid, row.thumbnailUrl));
        // Named after the material id, in the material folder's hidden thumbnail folder.
        QCOMPARE(path, wired.folder.path() + QStringLiteral("/.thumbnails/") + mid + QStringLiteral(".thumbnail.png"));
        QTRY_VERIFY(tree->itemById(mid)->data(DetailTreeWidget::ApprovalColumn, DetailTreeWidget::HasThumbnailRole).toBool());
        paths << path;
        const QColor colour = QImage(path).pixelColor(0, 0); // the local cloud's thumbnails have one colour
        QVERIFY(colour.isValid());

        // The grid paints it in the tile ...
        shown->bottomWidget()->setTreeMode(false);
        const QRect cell = list->visualItemRect(list->itemById(mid));
        QCOMPARE(centre(list->viewport(), QRect(cell.left() + 40, cell.top() + 25, 40, 20)), colour);
        // ... and the table as the icon of the thumbnail column, at 45 x 30.
        shown->bottomWidget()->setTreeMode(true);
        QTreeWidgetItem *item = tree->itemById(mid);
        QCOMPARE(item->icon(DetailTreeWidget::ApprovalColumn).availableSizes().value(0), QSize(45, 30));
        const QRect thumbnailCell = tree->visualItemRect(item);
        const int left = tree->header()->sectionViewportPosition(DetailTreeWidget::ApprovalColumn);
        QCOMPARE(centre(tree->viewport(), QRect(left + 12, thumbnailCell.top() + thumbnailCell.height() / 2 - 5, 20, 10)),
                 colour);
    }

    // Later refreshes, and a new controller on the same folder, take them from the disk.
    wired.refresh(*wired.controller);
    wired.refresh(*wired.controller);
    auto again = wired.connect();
    std::unique_ptr<QWidget> second(again->listWidget());
    wired.refresh(*again);
    auto *secondPanel = qobject_cast<DetailWidget *>(second.get());
    QTRY_COMPARE(secondPanel->treeView()->topLevelItemCount(), 2);
    QTRY_VERIFY(secondPanel->listView()->itemById(QStringLiteral("t2"))->data(DetailListWidget::ThumbnailRole).isValid());
    QCOMPARE(wired.requests(QStringLiteral("/thumbs/")), 2);

    // A material gone from the cloud takes its thumbnail along.
    QVERIFY(wired.cloud.setMedia(QJsonDocument(QJsonObject{{QStringLiteral("token"), QLatin1String(token)},
                                                           {QStringLiteral("remove"), QJsonArray{QStringLiteral("t2")}}})
                                     .toJson()));
    wired.refresh(*wired.controller);
    QVERIFY(QFile::exists(paths.at(0)));
    QVERIFY(!QFile::exists(paths.at(1)));
    second.reset();
    again.reset();
}

void TestPanel::failedThumbnailKeepsThePlaceholder()
{
    WarningCatcher warnings;
    WiredPanel wired;
    QVERIFY(wired.start({medium("f1", "menu.pdf", 3)}));
    QVERIFY(wired.cloud.addFault(QJsonObject{{QStringLiteral("kind"), QStringLiteral("status")},
                                             {QStringLiteral("prefix"), QStringLiteral("/thumbs/")},
                                             {QStringLiteral("status"), 404}}));
    wired.refresh(*wired.controller);
    QTRY_VERIFY(warnings.seen(QStringLiteral("thumbnail of f1 not fetched")));
    CloudMaterialModel row;
    QVERIFY(wired.controller->material("f1", row));
    const QString path = QString::fromStdString(wired.controller->thumbnailPath(row.mid, row.thumbnailUrl));
    QVERIFY(!QFile::exists(path));
    QVERIFY(!QFile::exists(path + QStringLiteral(".temp")));
    QTreeWidgetItem *item = wired.panel->treeView()->itemById(QStringLiteral("f1"));
    QVERIFY(!item->data(DetailTreeWidget::ApprovalColumn, DetailTreeWidget::HasThumbnailRole).toBool());
    QVERIFY(!wired.panel->listView()->itemById(QStringLiteral("f1"))->data(DetailListWidget::ThumbnailRole).isValid());
    // The document's stand-in is shown instead.
    const QImage placeholder = QImage(imagePath(QStringLiteral("thumbnail_document.png")));
    QVERIFY(!placeholder.isNull());
    QVERIFY(near(item->icon(DetailTreeWidget::ApprovalColumn).pixmap(45, 30).toImage().pixelColor(22, 2),
                 placeholder.pixelColor(90, 4)));

    // The next refresh tries again.
    QVERIFY(wired.cloud.clearFaults());
    wired.refresh(*wired.controller);
    QTRY_VERIFY(item->data(DetailTreeWidget::ApprovalColumn, DetailTreeWidget::HasThumbnailRole).toBool());
    QCOMPARE(wired.requests(QStringLiteral("/thumbs/")), 2);
}

void TestPanel::failedCatalogueSaysWhy_data()
{
    QTest::addColumn<QJsonObject>("fault");
    QTest::newRow("bad gateway") << QJsonObject{{QStringLiteral("kind"), QStringLiteral("status")},
                                                {QStringLiteral("status"), 502}};
    QTest::newRow("not found") << QJsonObject{{QStringLiteral("kind"), QStringLiteral("status")},
                                              {QStringLiteral("status"), 404},
                                              {QStringLiteral("body"), QStringLiteral("<html>not here</html>")}};
    QTest::newRow("cloud error") << QJsonObject{{QStringLiteral("kind"), QStringLiteral("error_body")}};
}

void TestPanel::failedCatalogueSaysWhy()
{
    QFETCH(QJsonObject, fault);
    WiredPanel wired;
    QVERIFY(wired.start({medium("o1", "one.jpg"), medium("o2", "two.jpg")}));
    DetailWidget *shown = wired.panel;
    wired.refresh(*wired.controller);
    QTRY_COMPARE(shown->listView()->count(), 2);
    QVERIFY(!shown->banner()->isVisibleTo(shown));

    fault.insert(QStringLiteral("prefix"), QStringLiteral("/gateway"));
    QVERIFY(wired.cloud.addFault(fault));
    wired.refresh(*wired.controller);
    // A failed catalogue removes what was known; the empty area says why.
    QTRY_COMPARE(shown->listView()->count(), 0);
    QCOMPARE(shown->treeView()->topLevelItemCount(), 0);
    QCOMPARE(wired.controller->materials().size(), std::size_t(0));
    QCOMPARE(shown->catalogueState(), CatalogueState::Unreachable);
    QVERIFY(shown->findChild<QStackedWidget *>()->currentWidget() == shown->emptyLabel());
    QCOMPARE(qobject_cast<QLabel *>(shown->emptyLabel())->text(),
             QStringLiteral("The cloud cannot be reached. The list comes back with the next refresh."));
    QVERIFY(!shown->banner()->isVisibleTo(shown));

    QVERIFY(wired.cloud.clearFaults());
    wired.refresh(*wired.controller);
    QTRY_COMPARE(shown->listView()->count(), 2);
    QCOMPARE(shown->catalogueState(), CatalogueState::Reachable);
}

void TestPanel::loggedOutHint()
{
    std::unique_ptr<QWidget> owner(controller->listWidget());
    auto *shown = qobject_cast<DetailWidget *>(owner.get());
    auto *empty = qobject_cast<QLabel *>(shown->emptyLabel());
    auto current = [shown] { return shown->findChild<QStackedWidget *>()->currentWidget(); };
    QCOMPARE(current(), empty);
    QCOMPARE(empty->text(), QStringLiteral("You are not logged in. Log in to the cloud to see your materials."));

    controller->setToken(token);
    QCOMPARE(empty->text(), QStringLiteral("No materials in the cloud library yet."));
    QVERIFY(!shown->banner()->isVisibleTo(shown));

    // Offline before anything was known.
    shown->setCatalogueState(CatalogueState::Unreachable);
    QCOMPARE(empty->text(), QStringLiteral("The cloud cannot be reached. The list comes back with the next refresh."));
    QVERIFY(!shown->banner()->isVisibleTo(shown));

    controller->clear();
    QCOMPARE(shown->catalogueState(), CatalogueState::LoggedOut);
    QCOMPARE(empty->text(), QStringLiteral("You are not logged in. Log in to the cloud to see your materials."));
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
    QTest::newRow("ctrl+f in the table") << true << false << int(Qt::Key_F) << int(Qt::ControlModifier) << "search";
    QTest::newRow("f5 in the grid") << false << false << int(Qt::Key_F5) << none << "refresh";
    QTest::newRow("f5 in the search") << true << true << int(Qt::Key_F5) << none << "refresh";
    QTest::newRow("return in the grid") << false << false << int(Qt::Key_Return) << none << "download";
    QTest::newRow("enter in the table") << true << false << int(Qt::Key_Enter) << int(Qt::KeypadModifier) << "download";
    QTest::newRow("return in the search") << false << true << int(Qt::Key_Return) << none << "view";
    QTest::newRow("delete in the grid") << false << false << int(Qt::Key_Delete) << none << "delete";
    QTest::newRow("delete in the table") << true << false << int(Qt::Key_Delete) << none << "delete";
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
    (fromSearch ? static_cast<QWidget *>(search) : view)->setFocus();
    QTRY_VERIFY(QApplication::focusWidget() == (fromSearch ? static_cast<QWidget *>(search) : view));

    QSignalSpy refreshed(panel->titleWidget()->refreshButton(), &QPushButton::clicked);
    QSignalSpy downloaded(panel->bottomWidget()->downloadButton(), &QPushButton::clicked);
    QSignalSpy deleted(panel->bottomWidget()->deleteButton(), &QPushButton::clicked);
    QVERIFY(panel->bottomWidget()->deleteButton()->isEnabled()); // the downloaded one is selected
    QTest::keyClick(QApplication::focusWidget(), Qt::Key(key), Qt::KeyboardModifiers(modifiers));

    QCOMPARE(refreshed.count(), int(expected == QLatin1String("refresh")));
    QCOMPARE(downloaded.count(), int(expected == QLatin1String("download")));
    QCOMPARE(deleted.count(), int(expected == QLatin1String("delete")));
    auto *confirmation = panel->findChild<QMessageBox *>(QStringLiteral("deleteConfirmation"));
    QCOMPARE(confirmation != nullptr, expected == QLatin1String("delete"));
    if (confirmation)
        confirmation->reject();
    if (expected == QLatin1String("search")) {
        QCOMPARE(QApplication::focusWidget(), search);
        QCOMPARE(search->selectedText(), QStringLiteral("e"));
    }
    if (expected == QLatin1String("view"))
        QCOMPARE(QApplication::focusWidget(), view);
    if (expected == QLatin1String("nothing"))
        QCOMPARE(search->text(), QString()); // the field took the key
    if (expected == QLatin1String("next")) {
        QCOMPARE(view->currentIndex().row(), 1);
        QCOMPARE(panel->selectedIds(), std::vector<std::string>{"k2"});
    }
}

void TestPanel::tabOrder()
{
    panel->addMaterials({material("b1", "kept.jpg", 0, 10, Approved, Successed)});
    QVERIFY(activate(panel.get()));
    auto chain = [this] {
        QStringList names;
        panel->titleWidget()->searchEdit()->setFocus();
        for (int i = 0; i < 5; ++i) {
            QTest::keyClick(QApplication::focusWidget(), Qt::Key_Tab);
            names << QApplication::focusWidget()->objectName();
        }
        return names;
    };
    // Disabled buttons are passed over.
    QCOMPARE(chain(), QStringList({"cloudRefreshButton", "detailListWidget", "treeModeBtn", "downloadBtn", "sreachEdit"}));
    panel->bottomWidget()->setTreeMode(true);
    panel->treeView()->itemById(QStringLiteral("b1"))->setSelected(true);
    QCOMPARE(chain(), QStringList({"cloudRefreshButton", "detailTreeWidget", "delBtn", "treeModeBtn", "downloadBtn"}));
    for (QPushButton *button : panel->findChildren<QPushButton *>())
        QVERIFY2(!button->accessibleName().isEmpty(), qPrintable(button->objectName()));
}

void TestPanel::deleteRemovesTheLocalCopy_data()
{
    QTest::addColumn<bool>("confirm");
    QTest::newRow("confirmed") << true;
    QTest::newRow("cancelled") << false;
}

void TestPanel::deleteRemovesTheLocalCopy()
{
    QFETCH(bool, confirm);
    WiredPanel wired;
    QVERIFY(wired.start({medium("d1", "kept.jpg"), medium("d2", "other.jpg")}));
    DetailWidget *shown = wired.panel;
    wired.refresh(*wired.controller);
    QTRY_COMPARE(shown->listView()->count(), 2);
    DetailListWidget *list = shown->listView();
    QPushButton *del = shown->bottomWidget()->deleteButton();
    auto status = [list](const char *mid) {
        return list->itemById(QLatin1String(mid))->data(DetailListWidget::StatusImageRole).toString();
    };

    list->itemById(QStringLiteral("d1"))->setSelected(true);
    QVERIFY(!del->isEnabled()); // nothing downloaded yet
    QTest::mouseClick(shown->bottomWidget()->downloadButton(), Qt::LeftButton);
    QTRY_COMPARE(status("d1"), QStringLiteral("download_status_successed"));
    const QString file = wired.folder.path() + QStringLiteral("/kept.jpg");
    QVERIFY(QFile::exists(file));
    QVERIFY(del->isEnabled());
    list->itemById(QStringLiteral("d1"))->setSelected(false);
    list->itemById(QStringLiteral("d2"))->setSelected(true);
    QVERIFY(!del->isEnabled()); // only a selection with a downloaded one
    list->itemById(QStringLiteral("d1"))->setSelected(true);
    QVERIFY(del->isEnabled());

    QTest::mouseClick(del, Qt::LeftButton);
    auto *box = shown->findChild<QMessageBox *>(QStringLiteral("deleteConfirmation"));
    QVERIFY(box);
    QVERIFY(box->text().contains(QLatin1String(" 1 ")));
    QTest::mouseClick(box->button(confirm ? QMessageBox::Yes : QMessageBox::Cancel), Qt::LeftButton);

    QCOMPARE(QFile::exists(file), !confirm);
    QCOMPARE(status("d1"), confirm ? QStringLiteral("download_status_allowed") : QStringLiteral("download_status_successed"));
    QCOMPARE(del->isEnabled(), !confirm);
    CloudMaterialModel row;
    QVERIFY(wired.controller->material("d1", row));
    QCOMPARE(row.downloadStatus, int(confirm ? Allowed : Successed));
    // The other material was never touched.
    QCOMPARE(status("d2"), QStringLiteral("download_status_not_allowed"));
}

void TestPanel::screenshots()
{
    const std::vector<CloudMaterialModel> models{
        material("s1", "harbour-sunrise.jpg", 0, 3481221, Approved, Successed),
        material("s2", "spring-campaign.mp4", 1, 734003200, Approved, Downloading),
        material("s3", "lobby-loop.mp4", 1, 2254857830, Approved, Allowed),
        material("s4", "welcome-chime.mp3", 2, 512000, Approved, Allowed),
        material("s5", "menu-board.pdf", 3, 1250000, PendingApproval, NotAllowed),
        material("s6", "opening-hours.png", 0, 202400, Approved, Failed),
        material("s7", "brand-guide.pdf", 3, 8800000, Reject, NotAllowed),
        material("s8", "city-night.jpg", 0, 5120000, Approved, Successed),
        material("s9", "safety-notice.mp4", 1, 95000000, Approved, Allowed),
        material("s10", "background-music.mp3", 2, 6400000, Approved, Successed),
    };
    controller->setToken(token);
    panel->setCatalogueState(controller->catalogueState());
    panel->addMaterials(models);
    panel->onMaterialDownloadProgress("s2", 420, 1000);
    // Pictures and videos with thumbnails; the rest keep their stand-ins.
    QTemporaryDir thumbnails;
    const struct { const char *mid; QColor sky; QColor ground; } pictures[] = {
        {"s1", QColor(0xf0, 0x9a, 0x5c), QColor(0x2d, 0x3a, 0x4f)},
        {"s2", QColor(0x5c, 0xa8, 0xd8), QColor(0x3f, 0x6b, 0x3a)},
        {"s3", QColor(0x8a, 0x7c, 0xc8), QColor(0x3b, 0x33, 0x5c)},
        {"s8", QColor(0x1c, 0x2a, 0x4a), QColor(0x0c, 0x10, 0x1c)},
        {"s9", QColor(0xd8, 0xc0, 0x5c), QColor(0x6b, 0x4a, 0x2a)},
    };
    for (const auto &picture : pictures)
        panel->onMaterialThumbnailReady(picture.mid, paintPicture(thumbnails.path(), QLatin1String(picture.mid),
                                                                  picture.sky, picture.ground)
                                                         .toStdString());
    applyTheme(panel.get());
    panel->resize(760, 420);
    QVERIFY(activate(panel.get()));
    panel->listView()->itemById(QStringLiteral("s8"))->setSelected(true);
    saveScreenshot(panel.get(), QStringLiteral("panel-list"));
    QTest::mouseClick(panel->bottomWidget()->modeButton(), Qt::LeftButton);
    QVERIFY(panel->treeView()->isVisible());
    // As a keyboard user sees it: the table has the focus, a downloaded material is selected.
    panel->treeView()->setFocus();
    panel->treeView()->setCurrentItem(panel->treeView()->itemById(QStringLiteral("s1")));
    saveScreenshot(panel.get(), QStringLiteral("panel-tree"));

    panel->setCatalogueState(CatalogueState::Unreachable);
    QTest::mouseClick(panel->bottomWidget()->modeButton(), Qt::LeftButton);
    panel->titleWidget()->searchEdit()->setFocus();
    saveScreenshot(panel.get(), QStringLiteral("panel-offline"));

    panel->deleteMaterials({"s1", "s2", "s3", "s4", "s5", "s6", "s7", "s8", "s9", "s10"});
    panel->setCatalogueState(CatalogueState::LoggedOut);
    saveScreenshot(panel.get(), QStringLiteral("panel-logged-out"));
}

QTEST_MAIN(TestPanel)
#include "tst_panel.moc"
