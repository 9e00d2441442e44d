#pragma once

#include <QString>
#include <QtGlobal>

#include <vector>

class QThread;

/**
 * Collects the Qt messages of every thread (any category that is enabled) while it lives, and
 * passes each on to the handler that was there before. One at a time.
 */
class QtMessageCapture
{
public:
    struct Message
    {
        QtMsgType type;
        QString text;
        QThread *thread;
    };

    QtMessageCapture();
    ~QtMessageCapture();
    QtMessageCapture(const QtMessageCapture &) = delete;
    QtMessageCapture &operator=(const QtMessageCapture &) = delete;

    std::vector<Message> messages() const;
    /** A message of @p type that contains @p text. */
    bool contains(QtMsgType type, const QString &text) const;
    void clear();
};
