#pragma once

// Driving the material panel as a user and a host do: its rows in both views, a drag with the
// mouse, an active window under Xvfb, and a panel wired to a real controller and the local cloud.

#include "cloudmaterial/cloudmateriallist/cloudmaterialcontroller.h"
#include "cloudmaterial/cloudmateriallist/cloudmaterialmodel.h"
#include "cloudmaterial/cloudmateriallist/detailwidget.h"
#include "cloudmaterial/currentnode.h"
#include "cloudmaterial/protocol/httpclientwrapper.h"
#include "cloudmaterial/workerpool.h"
#include "localcloud/cloudsim.h"

#include <QColor>
#include <QIcon>
#include <QImage>
#include <QJsonArray>
#include <QStringList>
#include <QTemporaryDir>

#include <memory>
#include <string>

class QAbstractItemView;

/** A material as the controller announces it: approved, downloadable, 2048 bytes, 1920x1080. */
talvor::cloudmaterial::CloudMaterialModel material(const std::string &mid, const std::string &name, int type = 0,
                                                   std::int64_t size = 2048,
                                                   int approval = talvor::cloudmaterial::Approved,
                                                   int status = talvor::cloudmaterial::Allowed);
/** A theme image of the module's, from the host tree beside bin/. */
QString imagePath(const QString &name);
QImage iconImage(const QIcon &icon);
/** The names each view shows; "<views differ>" first when the grid and the table disagree. */
QStringList visibleNames(talvor::cloudmaterial::DetailWidget *panel);
QString statusImage(talvor::cloudmaterial::DetailWidget *panel, const char *mid);
/** Presses on an item and moves past the drag distance with the button held, as a user does. */
void dragItem(QAbstractItemView *view, const QRect &itemRect);
/** Shows @p window and makes it active: Xvfb has no window manager, and shortcuts need one. */
bool activate(QWidget *window);
/** The colour at the centre of @p area of what @p widget paints. */
QColor centre(QWidget *widget, const QRect &area);

/** A panel fed by a real controller that talks to the local cloud, with a material folder of its own. */
struct WiredPanel
{
    static constexpr const char *token = "tok-panel";

    bool start(const QJsonArray &media);
    static void refresh(talvor::cloudmaterial::CloudMaterialController &c) { c.requestRefresh(true).wait(); }

    QTemporaryDir folder;
    CloudSim cloud;
    std::shared_ptr<talvor::cloudmaterial::WorkerPool> pool = std::make_shared<talvor::cloudmaterial::WorkerPool>(1);
    talvor::cloudmaterial::CurrentNode node;
    talvor::cloudmaterial::HttpClientWrapper http{pool};
    std::shared_ptr<talvor::cloudmaterial::CloudMaterialController> controller;
    std::unique_ptr<QWidget> owner;
    talvor::cloudmaterial::DetailWidget *panel = nullptr;
};
