#pragma once

#include <QString>

namespace talvor::cloudmaterial {

/**
 * The full path of the module's image @p fileName, e.g. themeImagePath("icon_usa.png"). The host
 * ships the images in its default theme's folder, beside its executable's folder, whichever theme
 * it loads later: they are the module's own, not the theme's. Any thread.
 */
QString themeImagePath(const QString &fileName);

} // namespace talvor::cloudmaterial
