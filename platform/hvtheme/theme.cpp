#include "hvtheme/theme.h"

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QMutex>
#include <QRegularExpression>
#include <QSettings>

namespace HV {

namespace {

struct ThemeState
{
    QMutex mutex;
    QString name = QStringLiteral("default");
    QHash<QString, QString> values;
};

ThemeState &state()
{
    static ThemeState s;
    return s;
}

} // namespace

void Theme::readSettings(QSettings &settings)
{
    QHash<QString, QString> values;
    for (const QString &key : settings.allKeys()) {
        // Values are looked up by their key inside the group: "Colors/accent" is "accent".
        const QString shortKey = key.section(QLatin1Char('/'), -1);
        values.insert(shortKey, settings.value(key).toString());
    }
    auto &s = state();
    QMutexLocker lock(&s.mutex);
    s.values = values;
    s.name = settings.value(QStringLiteral("Theme/Name"), QStringLiteral("default")).toString();
}

QString Theme::name()
{
    auto &s = state();
    QMutexLocker lock(&s.mutex);
    return s.name;
}

QString Theme::value(const QString &key, const QString &fallback)
{
    auto &s = state();
    QMutexLocker lock(&s.mutex);
    return s.values.value(key, fallback);
}

QString Theme::imageFile(const QString &fileName)
{
    return QDir::cleanPath(QCoreApplication::applicationDirPath() + QStringLiteral("/../share/themes/images/") + name()
                           + QLatin1Char('/') + fileName);
}

QString findStyleSheet(const QString &folder, const QString &fileName)
{
    const QString path = folder + QLatin1Char('/') + fileName;
    return QFileInfo::exists(path) ? path : QString();
}

QString readStyleSheet(const QString &folder, const QString &fileName)
{
    const QString path = findStyleSheet(folder, fileName);
    if (path.isEmpty())
        return QString();
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return QString();
    QString sheet = QString::fromUtf8(file.readAll());

    static const QRegularExpression variable(QStringLiteral("@([A-Za-z_][A-Za-z0-9_]*)"));
    QString result;
    result.reserve(sheet.size());
    int last = 0;
    auto it = variable.globalMatch(sheet);
    while (it.hasNext()) {
        const auto match = it.next();
        result += sheet.midRef(last, match.capturedStart() - last);
        result += Theme::value(match.captured(1), match.captured(0));
        last = match.capturedEnd();
    }
    result += sheet.midRef(last);
    return result;
}

void replaceStyleSheet(const QString &oldSheet, const QString &newSheet)
{
    if (!qApp)
        return;
    QString sheet = qApp->styleSheet();
    if (!oldSheet.isEmpty())
        sheet.remove(oldSheet);
    if (!newSheet.isEmpty()) {
        if (!sheet.isEmpty() && !sheet.endsWith(QLatin1Char('\n')))
            sheet += QLatin1Char('\n');
        sheet += newSheet;
    }
    qApp->setStyleSheet(sheet);
}

} // namespace HV
