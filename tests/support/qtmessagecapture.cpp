#include "support/qtmessagecapture.h"

#include <QMutex>
#include <QThread>

#include <algorithm>

namespace {

QMutex mutex;
std::vector<QtMessageCapture::Message> captured;
QtMessageHandler previous = nullptr;

void record(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    {
        QMutexLocker lock(&mutex);
        captured.push_back({type, text, QThread::currentThread()});
    }
    previous(type, context, text);
}

} // namespace

QtMessageCapture::QtMessageCapture()
{
    previous = qInstallMessageHandler(record);
}

QtMessageCapture::~QtMessageCapture()
{
    qInstallMessageHandler(previous);
    clear();
}

std::vector<QtMessageCapture::Message> QtMessageCapture::messages() const
{
    QMutexLocker lock(&mutex);
    return captured;
}

bool QtMessageCapture::contains(QtMsgType type, const QString &text) const
{
    QMutexLocker lock(&mutex);
    return std::any_of(captured.begin(), captured.end(),
                       [&](const Message &m) { return m.type == type && m.text.contains(text); });
}

void QtMessageCapture::clear()
{
    QMutexLocker lock(&mutex);
    captured.clear();
}
