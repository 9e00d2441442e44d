#pragma once

#include <functional>

class QWidget;

namespace talvor::cloudmaterial {

/**
 * Calls @p retranslate each time @p widget receives QEvent::LanguageChange (a translator was
 * installed or removed), before the widget handles the event itself, for as long as the widget
 * lives. The module's widgets retranslate through this instead of each overriding changeEvent().
 * Qt thread.
 */
void onLanguageChange(QWidget *widget, std::function<void()> retranslate);

} // namespace talvor::cloudmaterial
