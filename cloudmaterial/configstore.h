#pragma once

#include "cloudmaterial/configjson.h"
#include "cloudmaterial/countrycodejson.h"

#include <memory>
#include <string>

namespace talvor::cloudmaterial {

/**
 * The module's files under the host's configuration folder F:
 * F/cloud/config.json, F/cloud/login.json, F/cloud/config/countrycode.json and the folder F/cloud/nodes.
 * Every read goes to disk, so the GUI and worker threads always see the latest file.
 */
class ConfigStore
{
public:
    static ConfigStore &instance();

    ConfigStore();
    ~ConfigStore();
    ConfigStore(const ConfigStore &) = delete;
    ConfigStore &operator=(const ConfigStore &) = delete;

    /**
     * Creates F/cloud and F/cloud/nodes, writes config.json with defaults filled in, and the
     * module's table of calling codes as F/cloud/config/countrycode.json unless one is there.
     */
    void setConfigPath(const std::string &folder);

    TokenInfoJson tokenInfo() const;
    void setTokenInfo(const TokenInfoJson &info);

    ConfigJson config() const;
    void setConfig(const ConfigJson &config);

    /** The calling codes of F/cloud/config/countrycode.json; empty lists when it cannot be read. */
    CountryCodeJson countryCodes() const;

    std::string appConfigFolder() const;
    std::string tokenInfoPath() const;
    std::string configPath() const;
    std::string nodesFolder() const;

    static std::string defaultNodesUrl();
    static std::string defaultMqttControlUrl();

private:
    class Private;
    std::unique_ptr<Private> const d;
};

} // namespace talvor::cloudmaterial
