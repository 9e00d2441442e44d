#include "cloudmaterial/login/verifycodeslider.h"

#include "cloudmaterial/login/jsmessage.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QLayout>
#include <QLoggingCategory>
#include <QPointer>
#include <QWebChannel>
#include <QWebEnginePage>
#include <QWebEngineSettings>
#include <QWebEngineView>

#include <algorithm>
#include <array>
#include <vector>

Q_LOGGING_CATEGORY(lcSlider, "rxcm.slider", QtInfoMsg)

namespace talvor::cloudmaterial {

namespace {

constexpr int placeCount = 3;

// A JavaScript string literal for @p text (JSON quoting is valid JavaScript).
QString jsString(const QString &text)
{
    const QByteArray array = QJsonDocument(QJsonArray{text}).toJson(QJsonDocument::Compact);
    return QString::fromUtf8(array.mid(1, array.size() - 2));
}

// Every slider view still alive, wherever a dialog put it.
std::vector<QPointer<QWebEngineView>> &liveViews()
{
    static std::vector<QPointer<QWebEngineView>> views;
    return views;
}

// The web engine releases its default profile from a post routine of the application, and a
// page still alive then is reported and left behind. Post routines run newest first, so one
// added after the engine's (which comes with the first page) deletes the views, and with them
// their pages, before the profile goes, whoever owns the dialogs and whenever they go.
void releaseViewsBeforeProfile()
{
    std::vector<QPointer<QWebEngineView>> views;
    views.swap(liveViews());
    for (const QPointer<QWebEngineView> &view : views)
        delete view.data();
}

void keepViewUntilExit(QWebEngineView *view)
{
    static QPointer<QCoreApplication> registeredWith;
    if (registeredWith != QCoreApplication::instance()) {
        qAddPostRoutine(&releaseViewsBeforeProfile);
        registeredWith = QCoreApplication::instance();
    }
    auto &views = liveViews();
    views.erase(std::remove_if(views.begin(), views.end(), [](const auto &v) { return v.isNull(); }), views.end());
    views.emplace_back(view);
}

} // namespace

class VerifyCodeSlider::Private
{
public:
    struct Set
    {
        JSMessage *message = nullptr;
        QWebChannel *channel = nullptr;
        QPointer<QWebEngineView> view;
    };

    explicit Private(VerifyCodeSlider *q)
        : q(q)
    {
    }

    void buildView(int place);
    void applyLanguage(QWebEngineView *view) const;

    VerifyCodeSlider *const q;
    std::array<Set, placeCount> sets;
    QString language;
};

void VerifyCodeSlider::Private::buildView(int place)
{
    Set &set = sets[std::size_t(place)];
    // No parent: the dialog that places the view owns it from then on.
    auto *view = new QWebEngineView;
    view->setObjectName(QStringLiteral("sliderView%1").arg(place));
    // Lets the dialog's background show around the slider.
    view->page()->setBackgroundColor(Qt::transparent);
    // A missing page leaves the slider blank rather than putting the engine's error page
    // into a login dialog.
    view->settings()->setAttribute(QWebEngineSettings::ErrorPageEnabled, false);
    view->page()->setWebChannel(set.channel);
    set.view = view;
    keepViewUntilExit(view);

    // A (re)loaded page shows an unsolved slider, so the set is not verified any more.
    JSMessage *message = set.message;
    QObject::connect(view, &QWebEngineView::loadStarted, message, [message] { message->clear(); });
    QObject::connect(view, &QWebEngineView::loadFinished, q, [this, view, place](bool ok) {
        if (ok) {
            qCDebug(lcSlider) << "Slider page loaded for place" << place;
            applyLanguage(view);
        } else {
            qCWarning(lcSlider) << "Slider page failed to load for place" << place << "from"
                                << VerifyCodeSlider::pageUrl().toString();
        }
    });
    view->load(VerifyCodeSlider::pageUrl());
}

void VerifyCodeSlider::Private::applyLanguage(QWebEngineView *view) const
{
    // The signal only reaches pages whose channel is already up, which takes a moment after
    // the load; so every page is also told directly, when it has loaded and on every change.
    if (language.isEmpty())
        return;
    view->page()->runJavaScript(
        QStringLiteral("window.ncSetLanguage && window.ncSetLanguage(%1);").arg(jsString(language)));
}

VerifyCodeSlider::VerifyCodeSlider(QObject *parent)
    : QObject(parent)
    , d(std::make_unique<Private>(this))
{
    for (int place = 0; place < placeCount; ++place) {
        Private::Set &set = d->sets[std::size_t(place)];
        set.message = new JSMessage(this);
        set.channel = new QWebChannel(this);
        set.channel->registerObject(QStringLiteral("myObject"), set.message);
        d->buildView(place);
    }
}

VerifyCodeSlider::~VerifyCodeSlider()
{
    for (Private::Set &set : d->sets) {
        if (!set.view)
            continue;
        // The channel goes with us; a view that lives on in a dialog must not keep using it.
        set.view->page()->setWebChannel(nullptr);
        if (!set.view->parent())
            delete set.view.data();
    }
}

QWebEngineView *VerifyCodeSlider::view(Place place)
{
    const int index = int(place);
    if (index < 0 || index >= placeCount)
        return nullptr;
    if (!d->sets[std::size_t(index)].view) {
        qCDebug(lcSlider) << "Rebuilding the slider view for place" << index;
        d->sets[std::size_t(index)].message->clear();
        d->buildView(index);
    }
    return d->sets[std::size_t(index)].view;
}

JSMessage *VerifyCodeSlider::message(Place place) const
{
    const int index = int(place);
    if (index < 0 || index >= placeCount)
        return nullptr;
    return d->sets[std::size_t(index)].message;
}

void VerifyCodeSlider::setLanguage(const QString &language)
{
    d->language = language;
    for (const Private::Set &set : d->sets) {
        Q_EMIT set.message->sigLanguageChanged(language);
        if (set.view)
            d->applyLanguage(set.view);
    }
}

QUrl VerifyCodeSlider::pageUrl()
{
    return QUrl::fromLocalFile(QCoreApplication::applicationDirPath() + QStringLiteral("/cloud/html/nc.html"));
}

bool VerifyCodeSlider::placeView(Place place, QWidget *&placeholder)
{
    QWebEngineView *page = view(place);
    if (!page || placeholder == page)
        return false;
    page->setObjectName(placeholder->objectName());
    page->setStyleSheet(QStringLiteral("QWebEngineView { border: none; background: transparent; }"));
    page->setMinimumSize(placeholder->minimumSize());
    page->setMaximumSize(placeholder->maximumSize());
    page->setSizePolicy(placeholder->sizePolicy());
    QWidget *old = placeholder;
    if (QLayoutItem *item = old->parentWidget()->layout()->replaceWidget(old, page))
        delete item;
    placeholder = page;
    delete old;
    return true;
}

} // namespace talvor::cloudmaterial
