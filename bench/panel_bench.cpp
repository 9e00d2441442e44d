// Time from the first of 50 materials announced to the panel to the last of them painted, in
// the icon grid and in the table: what a user waits for after a first refresh.
//
//     xvfb-run -a -s "-screen 0 1600x2000x24" panel_bench [--runs N]
//
// The materials come as the controller sends them: one addMaterials signal per material, from
// a worker thread, queued to the panel. Counting delegates record which rows the view painted;
// a run ends when all 50 have been painted at least once. The window is large enough to show
// every row, so nothing waits for scrolling.
//
// Built with the tests' fixtures (RXCM_BENCH_LOCAL_CLOUD), it also times a resumed session's
// panel: from the refresh that follows autoLogin() to all 50 rows in their final state (half of
// the files already in the material folder), against the local cloud; one line, "panel ready".
//
// Then the memory of a host with the panel open: this process's peak resident size with the 50
// materials shown, and again once a web view has loaded the slider page (the login dialog's
// web engine), adding the resident size of the engine's helper processes.

#include "cloudmaterial/cloudmateriallist/cloudmaterialcontroller.h"
#include "cloudmaterial/cloudmateriallist/detailbottomwidget.h"
#include "cloudmaterial/cloudmateriallist/detaillistitemdelegate.h"
#include "cloudmaterial/cloudmateriallist/detaillistwidget.h"
#include "cloudmaterial/cloudmateriallist/detailtreewidget.h"
#include "cloudmaterial/cloudmateriallist/detailwidget.h"
#include "cloudmaterial/translatemanager.h"
#ifdef RXCM_BENCH_LOCAL_CLOUD
#include "cloudmaterial/currentnode.h"
#include "cloudmaterial/protocol/httpclientwrapper.h"
#include "cloudmaterial/workerpool.h"

#include "localcloud/cloudsim.h"

#include "benchsupport.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#endif

#include <hvtheme/theme.h>

#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QSettings>
#include <QStyledItemDelegate>
#include <QTimer>
#include <QUrl>
#include <QWebEngineView>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <memory>
#include <set>
#include <thread>
#include <vector>

using namespace talvor::cloudmaterial;
using bench::median;

namespace {

constexpr int materialCount = 50;

// Which materials a view has painted, by name.
struct PaintLog
{
    std::set<QString> painted;
    qint64 lastNewPaintNs = 0;
    QElapsedTimer *clock = nullptr;

    void record(const QModelIndex &index)
    {
        if (index.column() != 0)
            return;
        if (painted.insert(index.data(Qt::DisplayRole).toString()).second && clock)
            lastNewPaintNs = clock->nsecsElapsed();
    }
};

// The view's own delegate, noting each item it paints.
template<class Delegate>
class Counting : public Delegate
{
public:
    Counting(PaintLog &log, QObject *parent)
        : Delegate(parent)
        , log(log)
    {
    }
    void paint(QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const override
    {
        Delegate::paint(painter, option, index);
        log.record(index);
    }
    PaintLog &log;
};
using CountingGridDelegate = Counting<DetailListItemDelegate>;
using CountingTableDelegate = Counting<QStyledItemDelegate>;

std::vector<CloudMaterialModel> materials()
{
    std::vector<CloudMaterialModel> rows;
    for (int i = 0; i < materialCount; ++i) {
        CloudMaterialModel m;
        m.mid = "m" + std::to_string(i);
        m.mediaName = "material-" + std::to_string(i) + (i % 2 ? ".mp4" : ".jpg");
        m.mediaType = i % 4;
        m.approvalStatus = Approved;
        m.downloadStatus = Allowed;
        m.size = 1000000 + i * 4096;
        m.resolution = "1920x1080";
        rows.push_back(m);
    }
    return rows;
}

// One run: announce every material from a worker thread, wait until all are painted.
double run(CloudMaterialController &controller, DetailWidget &panel, PaintLog &log,
           const std::vector<CloudMaterialModel> &rows)
{
    QElapsedTimer clock;
    log.painted.clear();
    log.clock = &clock;
    clock.start();
    std::thread sender([&controller, &rows] {
        for (const CloudMaterialModel &row : rows)
            Q_EMIT controller.addMaterials({row});
    });
    while (log.painted.size() < rows.size() && clock.elapsed() < 30000)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    sender.join();
    const double ms = log.painted.size() == rows.size() ? log.lastNewPaintNs / 1e6 : -1;
    log.clock = nullptr;

    std::vector<std::string> ids;
    for (const CloudMaterialModel &row : rows)
        ids.push_back(row.mid);
    panel.deleteMaterials(ids);
    QCoreApplication::processEvents();
    return ms;
}

#ifdef RXCM_BENCH_LOCAL_CLOUD
// True once every row shows what its local copy really is: downloaded for the even ones, whose
// files are in the folder, downloadable for the others.
bool panelReady(DetailWidget &panel)
{
    DetailListWidget *list = panel.listView();
    if (list->count() != materialCount)
        return false;
    for (int i = 0; i < materialCount; ++i) {
        QListWidgetItem *item = list->itemById(QStringLiteral("m%1").arg(i));
        const QString wanted =
            i % 2 ? QStringLiteral("download_status_allowed") : QStringLiteral("download_status_successed");
        if (!item || item->data(DetailListWidget::StatusImageRole).toString() != wanted)
            return false;
    }
    return true;
}

// A resumed session on a fresh controller and panel, as after autoLogin(): from its refresh to
// the last row in its final state; -1 if that never came.
double readyRun(HttpClientWrapper &http, const CurrentNode &node, const std::shared_ptr<WorkerPool> &pool,
                const QString &folder)
{
    auto controller = std::make_shared<CloudMaterialController>(&http, &node);
    controller->init();
    controller->setWorkerPool(pool);
    controller->setToken("bench");
    controller->setCloudMaterialFolderPath(folder.toStdString());
    std::unique_ptr<QWidget> owner(new DetailWidget(controller.get()));
    auto *panel = qobject_cast<DetailWidget *>(owner.get());
    panel->resize(1400, 1900);
    panel->show();
    QCoreApplication::processEvents();
    QElapsedTimer clock;
    clock.start();
    controller->requestSessionRefresh(); // what a login or autoLogin() asks for
    while (!panelReady(*panel) && clock.elapsed() < 30000)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
    const double ms = panelReady(*panel) ? clock.nsecsElapsed() / 1e6 : -1;
    owner.reset();
    controller->shutdown();
    return ms;
}

// Prints the one "panel ready" line; false if a run never got there.
bool timePanelReady(int runs)
{
    QJsonArray media;
    for (int i = materialCount - 1; i >= 0; --i)
        media.append(QJsonObject{{"mid", QStringLiteral("m%1").arg(i)},
                                 {"mediaName", QStringLiteral("material-%1.jpg").arg(i)},
                                 {"approvalStatus", "2"},
                                 {"file", QJsonObject{{"size", 4000}}}});
    const QJsonObject account{{"token", "bench"}, {"status", "success"}, {"media", media}};
    CloudSim cloud;
    QTemporaryDir folder;
    if (!folder.isValid() || !cloud.start(QJsonDocument(QJsonObject{{"accounts", QJsonArray{account}}}).toJson()))
        return false;
    for (int i = 0; i < materialCount; i += 2) {
        QFile file(folder.filePath(QStringLiteral("material-%1.jpg").arg(i)));
        if (!file.open(QIODevice::WriteOnly))
            return false;
    }
    auto pool = std::make_shared<WorkerPool>(1);
    HttpClientWrapper http(pool);
    CurrentNode node;
    node.set(cloud.host().toStdString(), "node-1");
    readyRun(http, node, pool, folder.path()); // warm-up: the first TLS session and thumbnails
    std::vector<double> times;
    for (int i = 0; i < runs; ++i) {
        const double ms = readyRun(http, node, pool, folder.path());
        if (ms < 0)
            return false;
        times.push_back(ms);
    }
    std::printf("panel ready: median %.0f ms (min %.0f, max %.0f, %d runs)\n", median(times),
                *std::min_element(times.begin(), times.end()), *std::max_element(times.begin(), times.end()), runs);
    pool->stop();
    return true;
}
#endif

// A /proc status field in KiB ("VmHWM", "VmRSS") of a process; -1 if unreadable.
long statusKiB(const QString &pid, const char *field)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    const QByteArray prefix = QByteArray(field) + ':';
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith(prefix))
            return line.mid(prefix.size()).trimmed().split(' ').value(0).toLong();
    }
    return -1;
}

// Resident KiB of every process whose parent is this one (the web engine's helpers, and theirs).
long childrenRssKiB()
{
    long total = 0;
    std::vector<QString> parents{QString::number(QCoreApplication::applicationPid())};
    while (!parents.empty()) {
        const QString parent = parents.back();
        parents.pop_back();
        QFile children(QStringLiteral("/proc/%1/task/%1/children").arg(parent));
        if (!children.open(QIODevice::ReadOnly))
            continue;
        for (const QByteArray &pid : children.readAll().split(' ')) {
            if (pid.trimmed().isEmpty())
                continue;
            total += std::max(0L, statusKiB(QString::fromLatin1(pid.trimmed()), "VmRSS"));
            parents.push_back(QString::fromLatin1(pid.trimmed()));
        }
    }
    return total;
}

} // namespace

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    QCommandLineParser parser;
    parser.addHelpOption();
    const QCommandLineOption runsOption = bench::addCountOption(parser, "runs", "Runs per view", 20);
    parser.process(app);
    const int runs = std::max(1, parser.value(runsOption).toInt());

    TranslateManager::instance().setLanguage("en");
    auto controller = std::make_shared<CloudMaterialController>(nullptr, nullptr);
    controller->setToken("bench");
    controller->setCloudMaterialFolderPath(QDir::tempPath().toStdString());
    std::unique_ptr<QWidget> owner(new DetailWidget(controller.get()));
    auto *panel = qobject_cast<DetailWidget *>(owner.get());
    QSettings theme(QStringLiteral(":/cloudmaterialtheme/cloudmaterial.theme"), QSettings::IniFormat);
    HV::Theme::readSettings(theme);
    panel->setStyleSheet(HV::readStyleSheet(QStringLiteral(":/cloudmaterialtheme/stylesheet"),
                                            QStringLiteral("cloudmateriallistwidget.qss")));
    PaintLog gridLog;
    PaintLog tableLog;
    panel->listView()->setItemDelegate(new CountingGridDelegate(gridLog, panel->listView()));
    panel->treeView()->setItemDelegate(new CountingTableDelegate(tableLog, panel->treeView()));
    // Every row on screen: 10 tiles a line in the grid, 50 lines of 34 px in the table.
    panel->resize(1400, 1900);
    panel->show();
    QCoreApplication::processEvents();

    const std::vector<CloudMaterialModel> rows = materials();
    std::printf("panel_bench: %d materials, %d runs per view, median / min / max in ms\n", materialCount, runs);
    for (bool tree : {false, true}) {
        panel->bottomWidget()->setTreeMode(tree);
        QCoreApplication::processEvents();
        PaintLog &log = tree ? tableLog : gridLog;
        run(*controller, *panel, log, rows); // warm-up: first use of fonts, images and styles
        std::vector<double> times;
        for (int i = 0; i < runs; ++i) {
            const double ms = run(*controller, *panel, log, rows);
            if (ms < 0)
                return bench::fail("panel_bench: not every row was painted; is the screen large enough?");
            times.push_back(ms);
        }
        std::printf("%-6s first addMaterials -> last row painted: %7.2f / %7.2f / %7.2f\n", tree ? "table" : "grid",
                    median(times), *std::min_element(times.begin(), times.end()),
                    *std::max_element(times.begin(), times.end()));
    }
#ifdef RXCM_BENCH_LOCAL_CLOUD
    if (!timePanelReady(runs))
        return bench::fail("panel_bench: the panel never showed every row in its final state");
#endif
    const QString self = QStringLiteral("self");
    std::printf("memory with the panel open (50 materials): peak %.1f MiB, web engine not started\n",
                statusKiB(self, "VmHWM") / 1024.0);

    // The login dialog's slider page in a web view, as the host shows it before a login.
    QWebEngineView view;
    QEventLoop loaded;
    QObject::connect(&view, &QWebEngineView::loadFinished, &loaded, &QEventLoop::quit);
    QTimer::singleShot(30000, &loaded, &QEventLoop::quit);
    view.resize(360, 80);
    view.load(QUrl::fromLocalFile(QCoreApplication::applicationDirPath() + QStringLiteral("/cloud/html/nc.html")));
    view.show();
    loaded.exec();
    QElapsedTimer settle;
    settle.start();
    while (settle.elapsed() < 1000)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
    const long helpers = childrenRssKiB();
    std::printf("memory with the panel open and the web engine started: peak %.1f MiB here + %.1f MiB resident "
                "in its helper processes\n",
                statusKiB(self, "VmHWM") / 1024.0, helpers / 1024.0);
    owner.reset();
    return 0;
}
