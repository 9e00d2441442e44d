#include "cloudmaterial/protocol/httpclientwrapper.h"

#include "cloudmaterial/logging.h"
#include "cloudmaterial/workerpool.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QThread>
#include <QTimer>
#include <QUrl>

#include <map>
#include <mutex>

namespace talvor::cloudmaterial {

namespace {

constexpr std::string_view errorKey = "\"error\"";

QNetworkRequest makeRequest(const std::string &url, const HttpHeaders &headers)
{
    QNetworkRequest request(QUrl(QString::fromStdString(url)));
    for (const auto &[name, value] : headers)
        request.setRawHeader(QByteArray::fromStdString(name), QByteArray::fromStdString(value));
    return request;
}

// Waits for the reply or the time-out; true when the reply finished.
bool waitForReply(QNetworkReply *reply)
{
    QEventLoop loop;
    QTimer timer;
    timer.setSingleShot(true);
    const auto timeoutConnection = QObject::connect(&timer, &QTimer::timeout, &loop, &QEventLoop::quit);
    const auto finishedConnection = QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    timer.start(HttpClientWrapper::timeoutMs);
    if (!reply->isFinished())
        loop.exec(QEventLoop::ExcludeUserInputEvents);
    QObject::disconnect(timeoutConnection);
    QObject::disconnect(finishedConnection);
    timer.stop();
    return reply->isFinished();
}

int statusOf(const QNetworkReply *reply)
{
    return reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
}

std::string readBody(QNetworkReply *reply)
{
    return reply->readAll().toStdString();
}

// A late reply is left to finish, and is then freed.
void releaseLate(QNetworkReply *reply)
{
    QObject::connect(reply, &QNetworkReply::finished, reply, &QObject::deleteLater);
}

} // namespace

class HttpClientWrapper::Private
{
public:
    QNetworkAccessManager *managerForThisThread();

    std::shared_ptr<WorkerPool> pool;
    QThread *workerThread = nullptr;
    std::mutex mutex;
    // A manager is not thread-safe and belongs to the thread that created it, so each
    // calling thread gets its own; the pool's worker gets the one made at construction.
    // The module calls from long-lived threads only (the GUI thread and the pool's).
    std::map<QThread *, QNetworkAccessManager *> managers;
};

QNetworkAccessManager *HttpClientWrapper::Private::managerForThisThread()
{
    QThread *const thread = QThread::currentThread();
    std::lock_guard<std::mutex> lock(mutex);
    auto &manager = managers[thread];
    if (!manager)
        manager = new QNetworkAccessManager;
    return manager;
}

HttpClientWrapper::HttpClientWrapper(std::shared_ptr<WorkerPool> pool)
    : d(std::make_unique<Private>())
{
    d->pool = std::move(pool);
    d->pool->enqueue([this] {
           d->workerThread = QThread::currentThread();
           d->managerForThisThread();
       }).wait();
}

HttpClientWrapper::~HttpClientWrapper()
{
    std::map<QThread *, QNetworkAccessManager *> managers;
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        managers.swap(d->managers);
    }
    for (const auto &[thread, manager] : managers) {
        if (thread == QThread::currentThread())
            delete manager;
        else if (thread == d->workerThread)
            d->pool->enqueue([manager = manager] { delete manager; }).wait();
        else
            manager->deleteLater();
    }
}

HttpReply HttpClientWrapper::get(const std::string &url, const HttpHeaders &headers, bool logReply)
{
    // Work queued before exit may run after the application is gone; without it no event
    // loop can wait for a reply.
    if (!QCoreApplication::instance())
        return {};
    QNetworkReply *reply = d->managerForThisThread()->get(makeRequest(url, headers));

    if (!waitForReply(reply)) {
        RXCM_LOG_WARN("get reply timeout, url: {}", url);
        releaseLate(reply);
        return {};
    }

    HttpReply result;
    const int status = statusOf(reply);
    result.body = readBody(reply);
    reply->deleteLater();
    if (status != 200) {
        RXCM_LOG_WARN("get reply err, url: {}, status code: {}, msg: {}", url, status, result.body);
        return result;
    }
    if (logReply)
        RXCM_LOG_INFO("get reply: {}", result.body);
    result.ok = result.body.find(errorKey) == std::string::npos;
    return result;
}

HttpReply HttpClientWrapper::post(const std::string &url, const HttpHeaders &headers, const std::string &body,
                                  bool log)
{
    if (!QCoreApplication::instance())
        return {};
    QNetworkRequest request = makeRequest(url, headers);
    // Set last, so that they replace a caller's headers of the same names.
    request.setRawHeader("Accept", "*/*");
    request.setRawHeader("Content-Type", "application/json");

    if (log) {
        std::string joined;
        for (const auto &[name, value] : headers) {
            if (!joined.empty())
                joined += ", ";
            joined += name + ": " + value;
        }
        RXCM_LOG_INFO("post url: {}", url);
        RXCM_LOG_INFO("post headers: {}", joined);
        RXCM_LOG_INFO("post data: {}", body);
    }

    QNetworkReply *reply = d->managerForThisThread()->post(request, QByteArray::fromStdString(body));

    if (!waitForReply(reply)) {
        // The same text as get's: the cloud's operators search the logs for it.
        RXCM_LOG_WARN("get reply timeout, url: {}", url);
        releaseLate(reply);
        return {};
    }

    HttpReply result;
    const int status = statusOf(reply);
    if (status != 200) {
        RXCM_LOG_WARN("post reply err, status code: {}", status);
        result.body = readBody(reply);
        reply->deleteLater();
        RXCM_LOG_INFO("post reply: {}", result.body);
        return result;
    }
    result.body = readBody(reply);
    reply->deleteLater();
    if (log)
        RXCM_LOG_INFO("post reply: {}", result.body);
    result.ok = result.body.find(errorKey) == std::string::npos;
    return result;
}

} // namespace talvor::cloudmaterial
