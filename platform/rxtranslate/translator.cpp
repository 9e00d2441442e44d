#include "rxtranslate/translator.h"

#include <QCoreApplication>
#include <QMap>
#include <QTranslator>

namespace talvor::trans {

class Translator::Private
{
public:
    QMap<QString, QTranslator *> catalogues;
    QString current;
};

Translator::Translator()
    : d(std::make_unique<Private>())
{
}

Translator::~Translator()
{
    // A process-wide translator may outlive the application object, which drops its
    // translators itself.
    auto *installed = d->catalogues.value(d->current);
    if (installed && QCoreApplication::instance())
        QCoreApplication::removeTranslator(installed);
    qDeleteAll(d->catalogues);
}

bool Translator::load(const QString &language, const QString &qmFile)
{
    auto *catalogue = new QTranslator;
    if (!catalogue->load(qmFile)) {
        delete catalogue;
        return false;
    }
    if (auto *previous = d->catalogues.value(language)) {
        if (language == d->current) {
            QCoreApplication::removeTranslator(previous);
            QCoreApplication::installTranslator(catalogue);
        }
        delete previous;
    }
    d->catalogues.insert(language, catalogue);
    return true;
}

bool Translator::switchLanguage(const QString &language)
{
    auto *next = d->catalogues.value(language);
    if (!next)
        return false;
    if (language == d->current)
        return true;
    if (auto *installed = d->catalogues.value(d->current))
        QCoreApplication::removeTranslator(installed);
    QCoreApplication::installTranslator(next);
    d->current = language;
    return true;
}

QString Translator::currentLanguage() const
{
    return d->current;
}

QString translate(const char *context, const char *key)
{
    return QCoreApplication::translate(context, key);
}

} // namespace talvor::trans
