#include "cloudmaterial/themeimage.h"

#include <QCoreApplication>

namespace talvor::cloudmaterial {

QString themeImagePath(const QString &fileName)
{
    return QCoreApplication::applicationDirPath() + QStringLiteral("/../share/themes/images/default/cloudmaterial/")
        + fileName;
}

} // namespace talvor::cloudmaterial
