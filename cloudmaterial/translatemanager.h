#pragma once

#include "rxcloudmaterial_export.h"

#include <QString>

#include <memory>
#include <string>

namespace talvor::cloudmaterial {

/**
 * The module's translations: one catalogue per language the module ships
 * ("cn", "tw", "en", "ko_KR", "ru_RU"), of which one is installed at a time.
 *
 * Used on the Qt thread only.
 */
class RXCLOUDMATERIAL_EXPORT TranslateManager
{
public:
    static TranslateManager &instance();
    ~TranslateManager();

    /** Installs the catalogue of a module language code; false if the module has none for it. */
    bool setLanguage(const std::string &language);
    std::string language() const;

    /** The text of a translation key in the installed language, or the key itself. */
    static QString text(const char *key);

private:
    TranslateManager();
    class Private;
    std::unique_ptr<Private> const d;
};

} // namespace talvor::cloudmaterial
