#include "cloudmaterial/configstore.h"

#include "cloudmaterial/logging.h"
#include "cloudmaterial/protocol/ajsonex.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLoggingCategory>
#include <QSaveFile>

#include <mutex>

Q_LOGGING_CATEGORY(lcConfig, "rxcm.config", QtInfoMsg)

namespace talvor::cloudmaterial {

namespace {

// Replaces the file in one step, so a reader on another thread never sees half a file.
template<typename Record>
void writeRecord(const std::string &path, const Record &record, QFileDevice::Permissions permissions)
{
    if (path.empty())
        return;
    ajson::string_stream out;
    ajson::save_to(out, record);
    QSaveFile file(QString::fromStdString(path));
    if (!file.open(QIODevice::WriteOnly)) {
        qCWarning(lcConfig) << "cannot write" << file.fileName() << file.errorString();
        return;
    }
    file.setPermissions(permissions);
    file.write(out.str().data(), qint64(out.str().size()));
    if (!file.commit())
        qCWarning(lcConfig) << "cannot write" << file.fileName() << file.errorString();
}

template<typename Record>
Record readRecord(const std::string &path)
{
    Record record;
    ajson::load_from_file_nothrow(record, path.c_str());
    return record;
}

// The login dialog's calling codes: the module's own table, unless the host placed one.
void writeDefaultCountryCodes(const std::string &path)
{
    const QString target = QString::fromStdString(path);
    if (QFileInfo::exists(target))
        return;
    QFile builtIn(QStringLiteral(":/cloudmaterialtheme/config/countrycode.json"));
    QFile file(target);
    // NewOnly: a file the host writes meanwhile is never replaced.
    if (!builtIn.open(QIODevice::ReadOnly) || !QDir().mkpath(QFileInfo(target).path())
        || !file.open(QIODevice::WriteOnly | QIODevice::NewOnly) || file.write(builtIn.readAll()) < 0) {
        qCWarning(lcConfig) << "cannot write the default country codes to" << target << file.errorString();
    }
}

} // namespace

class ConfigStore::Private
{
public:
    mutable std::mutex mutex; // guards the paths only; the files themselves are not locked
    std::string folder;
    std::string tokenInfoPath;
    std::string configPath;
    std::string nodesFolder;
};

ConfigStore &ConfigStore::instance()
{
    static ConfigStore store;
    return store;
}

ConfigStore::ConfigStore()
    : d(std::make_unique<Private>())
{
}

ConfigStore::~ConfigStore() = default;

std::string ConfigStore::defaultNodesUrl()
{
    return RXCM_DEFAULT_NODES_URL;
}

std::string ConfigStore::defaultMqttControlUrl()
{
    return RXCM_DEFAULT_MQTT_CONTROL_URL;
}

void ConfigStore::setConfigPath(const std::string &folder)
{
    const std::string cloud = folder + "/cloud";
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        d->folder = folder;
        d->tokenInfoPath = cloud + "/login.json";
        d->configPath = cloud + "/config.json";
        d->nodesFolder = cloud + "/nodes";
    }
    QDir dir;
    for (const auto &path : {cloud, cloud + "/nodes"}) {
        if (!dir.mkpath(QString::fromStdString(path)))
            qCWarning(lcConfig) << "cannot create" << QString::fromStdString(path);
    }

    writeDefaultCountryCodes(cloud + "/config/countrycode.json");

    ConfigJson current = config();
    if (current.nodes.empty())
        current.nodes = defaultNodesUrl();
    if (current.mqttControl.empty())
        current.mqttControl = defaultMqttControlUrl();
    setConfig(current);
}

TokenInfoJson ConfigStore::tokenInfo() const
{
    return readRecord<TokenInfoJson>(tokenInfoPath());
}

void ConfigStore::setTokenInfo(const TokenInfoJson &info)
{
    // The file holds the account's access token: nobody but the owner may read it.
    writeRecord(tokenInfoPath(), info, QFileDevice::ReadOwner | QFileDevice::WriteOwner);
}

ConfigJson ConfigStore::config() const
{
    return readRecord<ConfigJson>(configPath());
}

void ConfigStore::setConfig(const ConfigJson &config)
{
    writeRecord(configPath(), config,
                QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadGroup | QFileDevice::ReadOther);
}

CountryCodeJson ConfigStore::countryCodes() const
{
    const std::string path = appConfigFolder() + "/cloud/config/countrycode.json";
    CountryCodeJson codes;
    QFile file(QString::fromStdString(path));
    if (!file.open(QIODevice::ReadOnly)) {
        RXCM_LOG_WARN("can't open file:{}", path);
        return codes;
    }
    const QByteArray content = file.readAll();
    ajson::load_from_buff_nothrow(codes, content.constData(), std::size_t(content.size()));
    return codes;
}

std::string ConfigStore::appConfigFolder() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->folder;
}

std::string ConfigStore::tokenInfoPath() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->tokenInfoPath;
}

std::string ConfigStore::configPath() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->configPath;
}

std::string ConfigStore::nodesFolder() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->nodesFolder;
}

} // namespace talvor::cloudmaterial
