#include "cloudmaterial/cloudmateriallist/detailbottomwidget.h"

#include "cloudmaterial/languagechange.h"
#include "cloudmaterial/translatemanager.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QStyle>
#include <QVariant>

namespace talvor::cloudmaterial {

class DetailBottomWidget::Private
{
public:
    void retranslate()
    {
        const auto name = [](QPushButton *b, const QString &accessibleName, const QString &tip) {
            b->setAccessibleName(accessibleName);
            b->setToolTip(tip);
        };
        name(add, TranslateManager::text("Add"), TranslateManager::text("AddInCloudConsole"));
        name(del, TranslateManager::text("Delete"), TranslateManager::text("DeleteLocalCopies"));
        name(mode, TranslateManager::text("SwitchView"), TranslateManager::text("SwitchView"));
        name(download, TranslateManager::text("Download"), TranslateManager::text("Download"));
        download->setText(TranslateManager::text("Download"));
    }

    QPushButton *add = nullptr;
    QPushButton *del = nullptr;
    QPushButton *mode = nullptr;
    QPushButton *download = nullptr;
    QLabel *label = nullptr;
};

DetailBottomWidget::DetailBottomWidget(QWidget *parent)
    : QWidget(parent)
    , d(std::make_unique<Private>())
{
    setFixedHeight(40);
    auto *layout = new QHBoxLayout(this);
    layout->setContentsMargins(9, 6, 9, 6);
    layout->setSpacing(8);

    auto button = [this](const char *name) {
        auto *b = new QPushButton(this);
        b->setObjectName(QLatin1String(name));
        return b;
    };
    // Uploading needs the cloud's web console: the panel has no honest way to add a material,
    // so the button stays disabled and its tool tip says where to go.
    d->add = button("addBtn");
    d->add->setText(QStringLiteral("+"));
    d->add->setEnabled(false);
    // Removes downloaded copies only; the panel enables it while the selection holds one.
    d->del = button("delBtn");
    d->del->setText(QStringLiteral("\u2212"));
    d->del->setEnabled(false);
    d->label = new QLabel(this);
    d->label->setObjectName(QStringLiteral("bottomLabel"));
    d->label->setAlignment(Qt::AlignCenter);
    d->mode = button("treeModeBtn");
    d->mode->setText(QStringLiteral("\u2630"));
    d->mode->setCheckable(true);
    d->mode->setChecked(false);
    d->mode->setProperty("state", QStringLiteral("unmode"));
    d->download = button("downloadBtn");
    d->retranslate();
    onLanguageChange(this, [this] { d->retranslate(); });

    layout->addWidget(d->add);
    layout->addWidget(d->del);
    layout->addWidget(d->label, 1);
    layout->addWidget(d->mode);
    layout->addWidget(d->download);

    connect(d->mode, &QPushButton::toggled, this, [this](bool tree) {
        d->mode->setProperty("state", tree ? QStringLiteral("mode") : QStringLiteral("unmode"));
        // Property selectors of the style sheet are only re-evaluated on a re-polish.
        d->mode->style()->unpolish(d->mode);
        d->mode->style()->polish(d->mode);
        Q_EMIT treeModeChanged(tree);
    });
    connect(d->download, &QPushButton::clicked, this, &DetailBottomWidget::downloadRequested);
    connect(d->del, &QPushButton::clicked, this, &DetailBottomWidget::deleteRequested);
}

DetailBottomWidget::~DetailBottomWidget() = default;

QPushButton *DetailBottomWidget::addButton() const
{
    return d->add;
}

QPushButton *DetailBottomWidget::deleteButton() const
{
    return d->del;
}

QPushButton *DetailBottomWidget::modeButton() const
{
    return d->mode;
}

QPushButton *DetailBottomWidget::downloadButton() const
{
    return d->download;
}

QLabel *DetailBottomWidget::label() const
{
    return d->label;
}

bool DetailBottomWidget::isTreeMode() const
{
    return d->mode->isChecked();
}

void DetailBottomWidget::setTreeMode(bool tree)
{
    d->mode->setChecked(tree);
}

} // namespace talvor::cloudmaterial
