#pragma once

#include <QObject>
#include <QString>

#include <memory>

/**
 * The object the slider page talks to over the web channel (registered as "myObject").
 *
 * The page calls slotJSMsg() with the three values of a passed check; the dialogs read them
 * back when they build a request. It is deliberately kept outside the module namespace:
 * hosts that drive the check themselves refer to it by this plain name.
 *
 * Owned by the Qt thread; the web channel delivers the page's calls there.
 */
class JSMessage : public QObject
{
    Q_OBJECT

public:
    explicit JSMessage(QObject *parent = nullptr);
    ~JSMessage() override;

    QString sessionId() const;
    QString sig() const;
    QString token() const;

    /** Forgets the values (the page was reloaded: not verified again); emits nothing. */
    void clear();

Q_SIGNALS:
    /** Tells the page to switch its own texts (cn, tw, en, ko_KR, ru_RU). */
    void sigLanguageChanged(const QString &language);
    /** The page has delivered a result. */
    void signalJSGetSuccess();

public Q_SLOTS:
    /** Stores the page's result as it comes (no validation) and emits signalJSGetSuccess(). */
    void slotJSMsg(const QString &sessionId, const QString &sig, const QString &token);

private:
    class Private;
    std::unique_ptr<Private> const d;
};

/** Copies a slider's result into a request record (its sessionId, sig and token members). */
template<typename Request>
void copySliderResult(const JSMessage &message, Request &request)
{
    request.sessionId = message.sessionId().toStdString();
    request.sig = message.sig().toStdString();
    request.token = message.token().toStdString();
}
