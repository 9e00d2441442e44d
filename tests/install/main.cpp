// Links against the installed library and drives the façade the way a host does.
#include <cloudmaterial/maincontrollerwrapper.h>
#include <irxruntime/irxruntime.h>

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <cstdio>

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    QTemporaryDir dir;
    auto &cloud = talvor::cloudmaterial::MainControllerWrapper::instance();
    cloud.setRXRuntime(nullptr);
    cloud.setAppConfigPath(dir.path().toStdString());
    cloud.setCurrentLanguage("en");
    if (!QFile::exists(dir.path() + QStringLiteral("/cloud/config.json"))) {
        std::fprintf(stderr, "config.json was not written\n");
        return 1;
    }
    if (!cloud.token().empty() || cloud.userId() != "0") {
        std::fprintf(stderr, "a fresh folder holds a session\n");
        return 1;
    }
    std::printf("consumer ok\n");
    return 0;
}
