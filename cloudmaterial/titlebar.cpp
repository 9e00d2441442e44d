#include "cloudmaterial/titlebar.h"

#include <QEvent>
#include <QHBoxLayout>
#include <QLabel>
#include <QMouseEvent>
#include <QPointer>
#include <QPushButton>
#include <QStyle>

namespace talvor::cloudmaterial {

class TitleBar::Private
{
public:
    explicit Private(TitleBar *q)
        : q(q)
    {
    }

    QPushButton *makeButton(const char *name, QStyle::StandardPixmap pixmap) const;
    void updateMaximizeButtons();
    void toggleMaximized();

    TitleBar *const q;
    QLabel *title = nullptr;
    QPushButton *minimize = nullptr;
    QPushButton *maximize = nullptr;
    QPushButton *restore = nullptr;
    QPushButton *close = nullptr;
    bool maximizeAllowed = true;
    bool dragging = false;
    QPoint dragOffset; // cursor position relative to the window's top-left corner
    QPointer<QWidget> watchedWindow;
};

QPushButton *TitleBar::Private::makeButton(const char *name, QStyle::StandardPixmap pixmap) const
{
    auto *button = new QPushButton(q);
    button->setObjectName(QLatin1String(name));
    button->setFlat(true);
    button->setFocusPolicy(Qt::NoFocus);
    button->setFixedSize(28, 28);
    button->setIconSize(QSize(12, 12));
    // Only a fallback: the theme's style sheet normally draws these buttons.
    button->setIcon(q->style()->standardIcon(pixmap, nullptr, q));
    return button;
}

void TitleBar::Private::updateMaximizeButtons()
{
    const bool maximized = q->window()->isMaximized();
    maximize->setVisible(maximizeAllowed && !maximized);
    restore->setVisible(maximizeAllowed && maximized);
}

void TitleBar::Private::toggleMaximized()
{
    QWidget *window = q->window();
    if (window->isMaximized())
        window->showNormal();
    else
        window->showMaximized();
}

TitleBar::TitleBar(QWidget *parent)
    : QWidget(parent)
    , d(std::make_unique<Private>(this))
{
    setObjectName(QStringLiteral("TitleBar"));
    setAttribute(Qt::WA_StyledBackground);
    setFixedHeight(36);

    d->title = new QLabel(this);
    d->title->setObjectName(QStringLiteral("TitleLabel"));
    d->minimize = d->makeButton("ButtonMin", QStyle::SP_TitleBarMinButton);
    d->maximize = d->makeButton("ButtonMax", QStyle::SP_TitleBarMaxButton);
    d->restore = d->makeButton("ButtonRestore", QStyle::SP_TitleBarNormalButton);
    d->close = d->makeButton("ButtonClose", QStyle::SP_TitleBarCloseButton);
    d->restore->hide();

    auto *layout = new QHBoxLayout(this);
    layout->setContentsMargins(12, 0, 4, 0);
    layout->setSpacing(2);
    layout->addWidget(d->title, 1);
    layout->addWidget(d->minimize);
    layout->addWidget(d->maximize);
    layout->addWidget(d->restore);
    layout->addWidget(d->close);

    connect(d->minimize, &QPushButton::clicked, this, [this] { window()->showMinimized(); });
    connect(d->maximize, &QPushButton::clicked, this, [this] { d->toggleMaximized(); });
    connect(d->restore, &QPushButton::clicked, this, [this] { d->toggleMaximized(); });
    // A dialog turns close() into reject(), so its exec() returns as with Cancel.
    connect(d->close, &QPushButton::clicked, this, [this] { window()->close(); });
}

TitleBar::~TitleBar() = default;

void TitleBar::setTitle(const QString &title)
{
    d->title->setText(title);
}

QString TitleBar::title() const
{
    return d->title->text();
}

void TitleBar::setMinimizeVisible(bool visible)
{
    d->minimize->setVisible(visible);
}

void TitleBar::setMaximizeVisible(bool visible)
{
    d->maximizeAllowed = visible;
    d->updateMaximizeButtons();
}

void TitleBar::mousePressEvent(QMouseEvent *event)
{
    if (event->button() == Qt::LeftButton && !window()->isMaximized()) {
        d->dragging = true;
        d->dragOffset = event->globalPos() - window()->frameGeometry().topLeft();
        event->accept();
        return;
    }
    QWidget::mousePressEvent(event);
}

void TitleBar::mouseMoveEvent(QMouseEvent *event)
{
    if (d->dragging && (event->buttons() & Qt::LeftButton)) {
        window()->move(event->globalPos() - d->dragOffset);
        event->accept();
        return;
    }
    QWidget::mouseMoveEvent(event);
}

void TitleBar::mouseReleaseEvent(QMouseEvent *event)
{
    d->dragging = false;
    QWidget::mouseReleaseEvent(event);
}

void TitleBar::mouseDoubleClickEvent(QMouseEvent *event)
{
    if (event->button() == Qt::LeftButton && d->maximizeAllowed) {
        d->toggleMaximized();
        event->accept();
        return;
    }
    QWidget::mouseDoubleClickEvent(event);
}

bool TitleBar::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == d->watchedWindow && event->type() == QEvent::WindowStateChange)
        d->updateMaximizeButtons();
    return QWidget::eventFilter(watched, event);
}

void TitleBar::showEvent(QShowEvent *event)
{
    // The bar may be placed in its window after construction, so the window is watched from here.
    QWidget *current = window();
    if (current != this && current != d->watchedWindow) {
        if (d->watchedWindow)
            d->watchedWindow->removeEventFilter(this);
        d->watchedWindow = current;
        current->installEventFilter(this);
    }
    d->updateMaximizeButtons();
    QWidget::showEvent(event);
}

} // namespace talvor::cloudmaterial
