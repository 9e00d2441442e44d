#include "cloudmaterial/login/jsmessage.h"

#include <QDebug>

class JSMessage::Private
{
public:
    QString sessionId;
    QString sig;
    QString token;
};

JSMessage::JSMessage(QObject *parent)
    : QObject(parent)
    , d(std::make_unique<Private>())
{
}

JSMessage::~JSMessage() = default;

QString JSMessage::sessionId() const
{
    return d->sessionId;
}

QString JSMessage::sig() const
{
    return d->sig;
}

QString JSMessage::token() const
{
    return d->token;
}

void JSMessage::clear()
{
    d->sessionId.clear();
    d->sig.clear();
    d->token.clear();
}

void JSMessage::slotJSMsg(const QString &sessionId, const QString &sig, const QString &token)
{
    qDebug() << "Received from JavaScript:" << sessionId << "   " << sig << "    " << token;
    d->sessionId = sessionId;
    d->sig = sig;
    d->token = token;
    Q_EMIT signalJSGetSuccess();
}
