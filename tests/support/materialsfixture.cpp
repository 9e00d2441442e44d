#include "support/materialsfixture.h"

#include "support/cloudscenario.h"

#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QTest>

#include <algorithm>
#include <chrono>
#include <future>

using namespace talvor::cloudmaterial;

int catalogueRequests(CloudSim &cloud)
{
    return requestsTo(cloud, QStringLiteral("/gateway/cirro"));
}

QStringList filesUnder(const QString &folder)
{
    QStringList files;
    QDirIterator it(folder, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext())
        files << QDir(folder).relativeFilePath(it.next());
    files.sort();
    return files;
}

std::vector<std::string> ids(const QSignalSpy &spy, bool sorted)
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

void MaterialsFixture::setUpOnce()
{
    pool = std::make_shared<WorkerPool>(1);
    http = std::make_unique<HttpClientWrapper>(pool);
}

std::shared_ptr<CloudMaterialController> MaterialsFixture::makeController()
{
    node.set(cloud.host().toStdString(), "node-1");
    auto controller = std::make_shared<CloudMaterialController>(http.get(), &node);
    controller->init();
    controller->setWorkerPool(pool);
    controller->setToken(token);
    controller->setCloudMaterialFolderPath(folder->path().toStdString());
    return controller;
}

void MaterialsFixture::refresh(const std::shared_ptr<CloudMaterialController> &controller)
{
    auto done = controller->requestRefresh(true);
    QVERIFY(done.valid());
    QCOMPARE(done.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    // Signals for the GUI thread are queued behind the refresh.
    QCoreApplication::processEvents();
}

bool MaterialsFixture::newFolder()
{
    folder = std::make_unique<QTemporaryDir>();
    return folder->isValid();
}
