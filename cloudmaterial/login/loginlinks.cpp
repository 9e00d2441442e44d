#include "cloudmaterial/login/loginlinks.h"

namespace talvor::cloudmaterial::loginlinks {

namespace {

constexpr const char sourceValue[] = "cirro-web";

// The link markup is what the web site's pages are known to be opened with; keep it verbatim.
constexpr const char forgotPrefix[] =
    "<style> a{text-decoration: none } </style> <a style = 'color: #3D7DD4; ' href = \"https://";
constexpr const char registerPrefix[] =
    " ? <style> a{text-decoration: none } </style> <a style = 'color: #3D7DD4; ' href = \"https://";
constexpr const char agreementPrefix[] =
    "<style>a{text-decoration: none}</style><a style='color: #3D7DD4;' href=\"https://";

// The prefixes already say "https://", so the configured site is reduced to host[:port][/path].
QString webHost()
{
    QString host = QStringLiteral(RXCM_WEB_HOST);
    const int scheme = host.indexOf(QLatin1String("://"));
    if (scheme >= 0)
        host.remove(0, scheme + 3);
    while (host.endsWith(QLatin1Char('/')))
        host.chop(1);
    return host;
}

QString link(const char *prefix, const char *path, const QString &text)
{
    return QLatin1String(prefix) + webHost() + QLatin1String(path) + QLatin1String(sourceValue) + QLatin1String("\">")
        + text + QLatin1String("</a>");
}

} // namespace

QString forgotPassword(const QString &text)
{
    return link(forgotPrefix, "/#/reset-password?source=", text);
}

QString registerAccount(const QString &text)
{
    return link(registerPrefix, "/#/nregister?source=", text);
}

QString termsOfService(const QString &text)
{
    return link(agreementPrefix, "/#/statement?type=AGREE-CFG-10002&source=", text);
}

QString privacyPolicy(const QString &text)
{
    return link(agreementPrefix, "/#/statement?type=AGREE-CFG-10001&source=", text);
}

} // namespace talvor::cloudmaterial::loginlinks
