// Links against the installed library and drives the façade the way a host does, from a
// QObject written with Qt's default keywords.
#include <cloudmaterial/maincontroller.h>
#include <cloudmaterial/maincontrollerwrapper.h>
#include <cloudmaterial/translatemanager.h>
#include <irxruntime/irxruntime.h>

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QObject>
#include <QTemporaryDir>
#include <QVariant>

#include <cstdio>
#include <string>

// Hosts that pass std::string through QVariant declare it themselves.
Q_DECLARE_METATYPE(std::string)

class Player : public QObject
{
    Q_OBJECT

public:
    void announce(const QString &folder) { emit configured(folder); }

signals:
    void configured(const QString &folder);

public slots:
    void onConfigured(const QString &folder) { lastFolder = folder; }

public:
    QString lastFolder;
};

int main(int argc, char **argv)
{
    QCoreApplication::setAttribute(Qt::AA_ShareOpenGLContexts);
    QApplication app(argc, argv);
    QTemporaryDir dir;
    Player player;
    QObject::connect(&player, &Player::configured, &player, &Player::onConfigured);

    auto &cloud = talvor::cloudmaterial::MainControllerWrapper::instance();
    cloud.setRXRuntime(nullptr);
    cloud.setAppConfigPath(dir.path().toStdString());
    cloud.setCurrentLanguage("en");
    player.announce(dir.path());
    if (QVariant::fromValue(cloud.userId()).value<std::string>() != "0") {
        std::fprintf(stderr, "the host's own std::string meta-type does not work\n");
        return 1;
    }
    if (player.lastFolder != dir.path()) {
        std::fprintf(stderr, "the host's own signal did not arrive\n");
        return 1;
    }
    if (!QFile::exists(dir.path() + QStringLiteral("/cloud/config.json"))) {
        std::fprintf(stderr, "config.json was not written\n");
        return 1;
    }
    // A fresh folder gets the calling codes the login dialog offers.
    QFile codes(dir.path() + QStringLiteral("/cloud/config/countrycode.json"));
    if (!codes.open(QIODevice::ReadOnly) || !codes.readAll().contains("\"+86\"")) {
        std::fprintf(stderr, "countrycode.json was not written\n");
        return 1;
    }
    if (!cloud.token().empty() || cloud.userId() != "0") {
        std::fprintf(stderr, "a fresh folder holds a session\n");
        return 1;
    }
    std::printf("consumer ok\n");
    return 0;
}

#include "main.moc"
