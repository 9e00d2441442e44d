#include "cloudmaterial/cloudmateriallist/detailtitlewidget.h"

#include "cloudmaterial/translatemanager.h"

#include <QHBoxLayout>
#include <QLineEdit>
#include <QPushButton>

namespace talvor::cloudmaterial {

class DetailTitleWidget::Private
{
public:
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

    auto *background = new QWidget(this);
    background->setObjectName(QStringLiteral("sreachBackground"));
    background->setAttribute(Qt::WA_StyledBackground);
    auto *searchLayout = new QHBoxLayout(background);
    searchLayout->setContentsMargins(6, 0, 2, 0);
    searchLayout->setSpacing(2);
    d->edit = new QLineEdit(background);
    d->edit->setObjectName(QStringLiteral("sreachEdit"));
    d->edit->setPlaceholderText(TranslateManager::text("SearchMaterial"));
    d->edit->setClearButtonEnabled(true);
    d->search = new QPushButton(background);
    d->search->setObjectName(QStringLiteral("searchBtn"));
    d->search->setToolTip(TranslateManager::text("SearchMaterial"));
    d->search->setText(QStringLiteral("\u2315"));
    searchLayout->addWidget(d->edit, 1);
    searchLayout->addWidget(d->search);
    layout->addWidget(background, 1);

    d->refresh = new QPushButton(this);
    d->refresh->setObjectName(QStringLiteral("cloudRefreshButton"));
    d->refresh->setText(TranslateManager::text("Refresh"));
    layout->addWidget(d->refresh);

    // Filtering follows each keystroke; the search button re-applies the text (e.g. after a refresh).
    connect(d->edit, &QLineEdit::textChanged, this, &DetailTitleWidget::searchTextChanged);
    connect(d->search, &QPushButton::clicked, this, [this] { Q_EMIT searchTextChanged(d->edit->text()); });
    connect(d->refresh, &QPushButton::clicked, this, &DetailTitleWidget::refreshRequested);
}

DetailTitleWidget::~DetailTitleWidget() = default;

QLineEdit *DetailTitleWidget::searchEdit() const
{
    return d->edit;
}

QPushButton *DetailTitleWidget::refreshButton() const
{
    return d->refresh;
}

} // namespace talvor::cloudmaterial
