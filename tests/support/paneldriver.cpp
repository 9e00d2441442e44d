#include "support/paneldriver.h"

#include "cloudmaterial/cloudmateriallist/detaillistwidget.h"
#include "cloudmaterial/cloudmateriallist/detailtreewidget.h"
#include "support/cloudscenario.h"

#include <QApplication>
#include <QMouseEvent>
#include <QTest>

#include <algorithm>

using namespace talvor::cloudmaterial;

CloudMaterialModel material(const std::string &mid, const std::string &name, int type, std::int64_t size, int approval,
                            int status)
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

QStringList visibleNames(DetailWidget *panel)
{
    QStringList list, tree;
    for (int row = 0; row < panel->listView()->count(); ++row) {
        if (!panel->listView()->item(row)->isHidden())
            list << panel->listView()->item(row)->text();
    }
    for (int row = 0; row < panel->treeView()->topLevelItemCount(); ++row) {
        if (!panel->treeView()->topLevelItem(row)->isHidden())
            tree << panel->treeView()->topLevelItem(row)->text(DetailTreeWidget::NameColumn);
    }
    return list == tree ? list : QStringList{QStringLiteral("<views differ>")} + list + tree;
}

QString statusImage(DetailWidget *panel, const char *mid)
{
    return panel->listView()->itemById(QLatin1String(mid))->data(DetailListWidget::StatusImageRole).toString();
}

void dragItem(QAbstractItemView *view, const QRect &itemRect)
{
    QWidget *viewport = view->viewport();
    const QPoint start = itemRect.center();
    // The view takes the first move as the start of a drag and the next one beyond the distance as the drag.
    const QPoint points[] = {start, start + QPoint(1, 1), start + QPoint(QApplication::startDragDistance() + 20, 20)};
    const QEvent::Type types[] = {QEvent::MouseButtonPress, QEvent::MouseMove, QEvent::MouseMove,
                                  QEvent::MouseButtonRelease};
    for (int i = 0; i < 4; ++i) {
        const QPoint at = points[std::min(i, 2)];
        QMouseEvent event(types[i], at, viewport->mapToGlobal(at), i == 0 || i == 3 ? Qt::LeftButton : Qt::NoButton,
                          i == 3 ? Qt::NoButton : Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(viewport, &event);
    }
}

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

bool WiredPanel::start(const QJsonArray &media)
{
    if (!folder.isValid() || !cloud.start(accountScenario(token, media)))
        return false;
    node.set(cloud.host().toStdString(), "node-1");
    controller = std::make_shared<CloudMaterialController>(&http, &node);
    controller->init();
    controller->setWorkerPool(pool);
    controller->setToken(token);
    controller->setCloudMaterialFolderPath(folder.path().toStdString());
    owner.reset(new DetailWidget(controller.get()));
    panel = qobject_cast<DetailWidget *>(owner.get());
    return panel != nullptr;
}
