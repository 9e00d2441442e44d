#include "cloudmaterial/translatemanager.h"

#include <rxtranslate/translator.h>

#include <QLoggingCategory>

Q_LOGGING_CATEGORY(lcTranslate, "rxcm.translate", QtInfoMsg)

namespace talvor::cloudmaterial {

namespace {
constexpr const char *translationContext = "cloudmaterial";
constexpr const char *languages[] = {"cn", "tw", "en", "ko_KR", "ru_RU"};
} // namespace

class TranslateManager::Private
{
public:
    trans::Translator translator;
};

TranslateManager::TranslateManager()
    : d(std::make_unique<Private>())
{
    for (const char *language : languages) {
        const QString file =
            QStringLiteral(":/cloudmaterialtheme/translations/cloudmaterial_%1.qm").arg(QLatin1String(language));
        if (!d->translator.load(QLatin1String(language), file))
            qCWarning(lcTranslate) << "cannot load the translations" << file;
    }
}

TranslateManager::~TranslateManager() = default;

TranslateManager &TranslateManager::instance()
{
    static TranslateManager manager;
    return manager;
}

bool TranslateManager::setLanguage(const std::string &language)
{
    if (d->translator.switchLanguage(QString::fromStdString(language)))
        return true;
    qCInfo(lcTranslate) << "no translations for" << language.c_str() << "- keeping" << d->translator.currentLanguage();
    return false;
}

std::string TranslateManager::language() const
{
    return d->translator.currentLanguage().toStdString();
}

QString TranslateManager::text(const char *key)
{
    return trans::translate(translationContext, key);
}

} // namespace talvor::cloudmaterial
