#pragma once

// The material controller on the local cloud, for the suites that test it: a worker pool and an
// HTTP client for the whole run, a material folder per test, and reading back what it did.

#include "cloudmaterial/cloudmateriallist/cloudmaterialcontroller.h"
#include "cloudmaterial/currentnode.h"
#include "cloudmaterial/protocol/httpclientwrapper.h"
#include "cloudmaterial/workerpool.h"
#include "localcloud/cloudsim.h"

#include <QObject>
#include <QSignalSpy>
#include <QStringList>
#include <QTemporaryDir>

#include <memory>
#include <string>
#include <vector>

int catalogueRequests(CloudSim &cloud);
/** Every file under a folder, hidden ones and those in sub-folders included, relative to it. */
QStringList filesUnder(const QString &folder);
/** The ids that a spy's signals carried, in order or sorted; each signal must carry exactly one. */
std::vector<std::string> ids(const QSignalSpy &spy, bool sorted = false);

class MaterialsFixture : public QObject
{
protected:
    /** The token of the account the suites' scenarios hold. */
    static constexpr const char *token = "tok-1";

    void setUpOnce();
    bool newFolder();
    /** A controller on the running cloud, with the token and this test's folder. */
    std::shared_ptr<talvor::cloudmaterial::CloudMaterialController> makeController();
    /** A refresh, and the changes it signals to the GUI thread. */
    void refresh(const std::shared_ptr<talvor::cloudmaterial::CloudMaterialController> &controller);

    CloudSim cloud;
    std::shared_ptr<talvor::cloudmaterial::WorkerPool> pool;
    talvor::cloudmaterial::CurrentNode node;
    std::unique_ptr<talvor::cloudmaterial::HttpClientWrapper> http;
    std::unique_ptr<QTemporaryDir> folder;
};
