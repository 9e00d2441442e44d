#pragma once

#include <QString>

#include <memory>

namespace talvor::trans {

/**
 * Holds one compiled Qt Linguist catalogue (.qm) per language and installs the chosen one
 * on the application, so that translate() and QObject::tr() return its texts.
 */
class Translator
{
public:
    Translator();
    ~Translator();
    Translator(const Translator &) = delete;
    Translator &operator=(const Translator &) = delete;

    /** Loads the catalogue @p qmFile for @p language. Returns false when it cannot be read. */
    bool load(const QString &language, const QString &qmFile);

    /** Installs the catalogue of @p language in place of the current one; false if none is loaded. */
    bool switchLanguage(const QString &language);

    QString currentLanguage() const;

private:
    class Private;
    std::unique_ptr<Private> const d;
};

/** The text of @p key in @p context in the installed language, or @p key itself. */
QString translate(const char *context, const char *key);

} // namespace talvor::trans
