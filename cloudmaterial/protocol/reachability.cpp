#include "cloudmaterial/protocol/reachability.h"

#include <QHostAddress>
#include <QNetworkConfigurationManager>
#include <QUrl>

namespace talvor::cloudmaterial::reachability {

bool networkOnline()
{
    QT_WARNING_PUSH
    QT_WARNING_DISABLE_DEPRECATED
    // Qt 5's only portable "is any network up" query; its deprecation is about bearer
    // management, which this answer does not need.
    return QNetworkConfigurationManager().isOnline();
    QT_WARNING_POP
}

bool canReach(const std::string &gatewayHost)
{
    const QString host = QUrl(QStringLiteral("https://") + QString::fromStdString(gatewayHost)).host();
    if (host == QLatin1String("localhost") || QHostAddress(host).isLoopback())
        return true;
    return networkOnline();
}

} // namespace talvor::cloudmaterial::reachability
