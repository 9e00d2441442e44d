#include "cloudmaterial/languagechange.h"

#include <QEvent>
#include <QWidget>

namespace talvor::cloudmaterial {

namespace {

// A child of the widget filtering its events: it goes with the widget.
class LanguageChangeFilter : public QObject
{
public:
    LanguageChangeFilter(QWidget *widget, std::function<void()> retranslate)
        : QObject(widget)
        , m_retranslate(std::move(retranslate))
    {
        widget->installEventFilter(this);
    }

    bool eventFilter(QObject *watched, QEvent *event) override
    {
        if (event->type() == QEvent::LanguageChange && watched == parent())
            m_retranslate();
        return false;
    }

private:
    const std::function<void()> m_retranslate;
};

} // namespace

void onLanguageChange(QWidget *widget, std::function<void()> retranslate)
{
    new LanguageChangeFilter(widget, std::move(retranslate));
}

} // namespace talvor::cloudmaterial
