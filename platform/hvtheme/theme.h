#pragma once

#include <QString>

class QSettings;

namespace HV {

/**
 * The application's theme: its name (the folder of its images) and named values such as
 * colours, read from an INI theme file. Style sheets refer to the values as "@key".
 */
class Theme
{
public:
    /** Reads the theme file: [Theme] Name=..., and every key of every group as a value. */
    static void readSettings(QSettings &settings);

    static QString name();
    static QString value(const QString &key, const QString &fallback = QString());

    /** The path of @p fileName among the images of the current theme, beside the application. */
    static QString imageFile(const QString &fileName);
};

/** The path of @p fileName in @p folder, or empty when there is no such file. */
QString findStyleSheet(const QString &folder, const QString &fileName);

/** Reads a style sheet and replaces each "@key" with the theme's value of that key. */
QString readStyleSheet(const QString &folder, const QString &fileName);

/** Swaps @p oldSheet for @p newSheet inside the application's style sheet. */
void replaceStyleSheet(const QString &oldSheet, const QString &newSheet);

} // namespace HV
