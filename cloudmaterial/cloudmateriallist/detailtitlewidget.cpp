#include "cloudmaterial/cloudmateriallist/detailtitlewidget.h"

#include "cloudmaterial/languagechange.h"
#include "cloudmaterial/translatemanager.h"

#include <QEvent>
#include <QHBoxLayout>
#include <QLineEdit>
#include <QPushButton>
#include <QStyle>

namespace talvor::cloudmaterial {

class DetailTitleWidget::Private
{
public:
    void retranslate()
    {
        edit->setPlaceholderText(TranslateManager::text("SearchMaterial"));
        edit->setAccessibleName(TranslateManager::text("SearchMaterial"));
        edit->setToolTip(TranslateManager::text("SearchMaterial") + QStringLiteral(" (Ctrl+F)"));
        search->setToolTip(TranslateManager::text("SearchMaterial"));
        search->setAccessibleName(TranslateManager::text("SearchMaterial"));
        refresh->setText(TranslateManager::text("Refresh"));
        refresh->setAccessibleName(TranslateManager::text("Refresh"));
        refresh->setToolTip(TranslateManager::text("Refresh") + QStringLiteral(" (F5)"));
    }

    QWidget *background = nullptr;
    QLineEdit *edit = nullptr;
    QPushButton *search = nullptr;
    QPushButton *refresh = nullptr;
};

DetailTitleWidget::DetailTitleWidget(QWidget *parent)
    : QWidget(parent)
    , d(std::make_unique<Private>())
{
    auto *layout = new QHBoxLayout(this);
    layout->setContentsMargins(9, 6, 9, 6);
    layout->setSpacing(8);

    auto *background = d->background = new QWidget(this);
    background->setObjectName(QStringLiteral("sreachBackground"));
    background->setAttribute(Qt::WA_StyledBackground);
    auto *searchLayout = new QHBoxLayout(background);
    searchLayout->setContentsMargins(6, 0, 2, 0);
    searchLayout->setSpacing(2);
    d->edit = new QLineEdit(background);
    d->edit->setObjectName(QStringLiteral("sreachEdit"));
    d->edit->setClearButtonEnabled(true);
    // The frame around the field shows the keyboard focus; the field itself has none.
    d->edit->installEventFilter(this);
    d->search = new QPushButton(background);
    d->search->setObjectName(QStringLiteral("searchBtn"));
    d->search->setText(QStringLiteral("\u2315"));
    d->search->setFocusPolicy(Qt::NoFocus); // the field filters as one types; Tab goes past
    searchLayout->addWidget(d->edit, 1);
    searchLayout->addWidget(d->search);
    layout->addWidget(background, 1);

    d->refresh = new QPushButton(this);
    d->refresh->setObjectName(QStringLiteral("cloudRefreshButton"));
    layout->addWidget(d->refresh);
    d->retranslate();
    onLanguageChange(this, [this] { d->retranslate(); });

    // Filtering follows each keystroke; the search button re-applies the text (e.g. after a refresh).
    connect(d->edit, &QLineEdit::textChanged, this, &DetailTitleWidget::searchTextChanged);
    connect(d->search, &QPushButton::clicked, this, [this] { Q_EMIT searchTextChanged(d->edit->text()); });
    connect(d->refresh, &QPushButton::clicked, this, &DetailTitleWidget::refreshRequested);
}

DetailTitleWidget::~DetailTitleWidget() = default;

bool DetailTitleWidget::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == d->edit && (event->type() == QEvent::FocusIn || event->type() == QEvent::FocusOut)) {
        d->background->setProperty("focused", event->type() == QEvent::FocusIn);
        // Property selectors of the style sheet are only re-evaluated on a re-polish.
        d->background->style()->unpolish(d->background);
        d->background->style()->polish(d->background);
    }
    return QWidget::eventFilter(watched, event);
}

QLineEdit *DetailTitleWidget::searchEdit() const
{
    return d->edit;
}

QPushButton *DetailTitleWidget::refreshButton() const
{
    return d->refresh;
}

} // namespace talvor::cloudmaterial
