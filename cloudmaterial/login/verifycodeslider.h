#pragma once

#include <QObject>
#include <QString>
#include <QUrl>

#include <memory>

class JSMessage;
class QWebEngineView;

namespace talvor::cloudmaterial {

/**
 * Owns the slider checks of the login dialogs: for each place a JSMessage, a web channel
 * that offers it to the page as "myObject", and a web view showing the slider page.
 *
 * The dialogs are rebuilt at every login preparation and a view placed in a dialog dies
 * with it, so view() builds a fresh view on the same channel whenever the previous one is
 * gone; the set then starts "not verified" again.
 *
 * Owned by the Qt thread, with its views.
 */
class VerifyCodeSlider : public QObject
{
    Q_OBJECT

public:
    enum Place { AccountLogin = 0, CodeLogin = 1, TrustDevice = 2 };
    Q_ENUM(Place)

    explicit VerifyCodeSlider(QObject *parent = nullptr);
    ~VerifyCodeSlider() override;

    /** The view for @p place; the caller puts it in its layout, which reparents it. */
    QWebEngineView *view(Place place);
    /** The message object of @p place's set. */
    JSMessage *message(Place place) const;
    /**
     * Puts the view of @p place where @p placeholder (the form's stand-in) is, with its name, size
     * limits and size policy, and deletes the stand-in; @p placeholder then points to the view.
     * False when the view is there already.
     */
    bool placeView(Place place, QWidget *&placeholder);
    /** Sends @p language to every page (now, and to pages that load later). */
    void setLanguage(const QString &language);

    /** The slider page beside the application: <application dir>/cloud/html/nc.html. */
    static QUrl pageUrl();

private:
    class Private;
    std::unique_ptr<Private> const d;
};

} // namespace talvor::cloudmaterial
