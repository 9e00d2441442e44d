#include "cloudmaterial/protocol/httpclientwrapper.h"

#include "cloudmaterial/logging.h"
#include "cloudmaterial/workerpool.h"
#include "sockets/tcpnodelay.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QLoggingCategory>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QThread>
#include <QTimer>
#include <QUrl>

#include <map>
#include <mutex>
#include <set>

Q_LOGGING_CATEGORY(lcHttp, "rxcm.http", QtInfoMsg)

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

int statusOf(const QNetworkReply *reply)
{
    return reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
}

std::string readBody(QNetworkReply *reply)
{
    return reply->readAll().toStdString();
}

// Qt's network thread writes a POST's headers and its body in two writes and leaves Nagle's
// rule on, so the body waits for the server's delayed ACK of the headers (about 40 ms on
// Linux) on every kept-alive connection. The connections to the request's port that appeared
// while one of our requests ran are the manager's own: they get TCP_NODELAY.
class LowDelay
{
public:
    explicit LowDelay(const QUrl &url)
        : port(static_cast<std::uint16_t>(url.port(url.scheme() == QLatin1String("http") ? 80 : 443)))
        , before(rxcm::sockets::connectedSockets())
    {
        timer.start();
    }
    void apply(const QNetworkReply *reply) const
    {
        const int opened = rxcm::sockets::setTcpNoDelay(port, before);
        const char *method = reply->operation() == QNetworkAccessManager::PostOperation ? "POST " : "GET ";
        qCDebug(lcHttp).nospace().noquote() << method << reply->url().toString() << ": " << timer.nsecsElapsed() / 1000
                                            << " us, " << opened << " new connection(s)";
    }

private:
    const std::uint16_t port;
    const std::set<ino_t> before;
    QElapsedTimer timer;
};

// A late reply is left to finish, and is then freed.
void releaseLate(QNetworkReply *reply)
{
    QObject::connect(reply, &QNetworkReply::finished, reply, &QObject::deleteLater);
}

} // namespace

class HttpClientWrapper::Private
{
public:
    enum class Wait { Finished, TimedOut, Closed };
    struct Exchange
    {
        Wait wait = Wait::Closed;
        int status = 0;
        std::string body; // empty unless finished

        /** What the caller gets: ok for status 200 and no quoted "error" in the body. */
        HttpReply result() const { return {status == 200 && body.find(errorKey) == std::string::npos, body}; }
    };

    /** Issues the request with @p send on this thread's manager and waits for it; frees the reply. */
    template<typename Send>
    Exchange exchange(const QNetworkRequest &request, Send send);

    /** Null once shut down. */
    QNetworkAccessManager *managerForThisThread();
    Wait waitForReply(QNetworkReply *reply);

    std::shared_ptr<WorkerPool> pool;
    QThread *workerThread = nullptr;
    std::mutex mutex; // guards what follows: the calling threads share this object
    // A manager is not thread-safe and belongs to the thread that created it, so each
    // calling thread gets its own; the pool's worker gets the one made at construction.
    // The module calls from long-lived threads only (the GUI thread and the pool's).
    std::map<QThread *, QNetworkAccessManager *> managers;
    // The local loops of the calls in flight, each on its caller's thread.
    std::set<QEventLoop *> loops;
    bool closing = false;
};

QNetworkAccessManager *HttpClientWrapper::Private::managerForThisThread()
{
    QThread *const thread = QThread::currentThread();
    std::lock_guard<std::mutex> lock(mutex);
    if (closing)
        return nullptr;
    auto &manager = managers[thread];
    if (!manager)
        manager = new QNetworkAccessManager;
    return manager;
}

HttpClientWrapper::Private::Wait HttpClientWrapper::Private::waitForReply(QNetworkReply *reply)
{
    QEventLoop loop;
    QTimer timer;
    timer.setSingleShot(true);
    QObject::connect(&timer, &QTimer::timeout, &loop, &QEventLoop::quit);
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (closing)
            return Wait::Closed;
        loops.insert(&loop);
    }
    timer.start(HttpClientWrapper::timeoutMs);
    if (!reply->isFinished())
        loop.exec(QEventLoop::ExcludeUserInputEvents);
    std::lock_guard<std::mutex> lock(mutex);
    loops.erase(&loop);
    if (reply->isFinished())
        return Wait::Finished;
    return closing ? Wait::Closed : Wait::TimedOut;
}

template<typename Send>
HttpClientWrapper::Private::Exchange HttpClientWrapper::Private::exchange(const QNetworkRequest &request, Send send)
{
    Exchange result;
    QNetworkAccessManager *manager = managerForThisThread();
    if (!manager)
        return result;
    const LowDelay lowDelay(request.url());
    QNetworkReply *reply = send(*manager);
    result.wait = waitForReply(reply);
    switch (result.wait) {
    case Wait::Finished:
        lowDelay.apply(reply);
        result.status = statusOf(reply);
        result.body = readBody(reply);
        reply->deleteLater();
        break;
    case Wait::TimedOut:
        releaseLate(reply);
        break;
    case Wait::Closed:
        reply->abort(); // its manager, going now, frees it
        break;
    }
    return result;
}

HttpClientWrapper::HttpClientWrapper(std::shared_ptr<WorkerPool> pool)
    : d(std::make_unique<Private>())
{
    d->pool = std::move(pool);
    d->pool
        ->enqueue([this] {
            d->workerThread = QThread::currentThread();
            d->managerForThisThread();
        })
        .wait();
}

HttpClientWrapper::~HttpClientWrapper()
{
    shutdown();
}

void HttpClientWrapper::shutdown()
{
    std::map<QThread *, QNetworkAccessManager *> managers;
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        d->closing = true;
        // Posted, not called: each loop belongs to its caller's thread.
        for (QEventLoop *loop : d->loops)
            QMetaObject::invokeMethod(loop, &QEventLoop::quit, Qt::QueuedConnection);
        managers.swap(d->managers);
    }
    for (const auto &[thread, manager] : managers) {
        if (thread == QThread::currentThread())
            delete manager;
        else if (thread == d->workerThread)
            // After the call in flight there, which returns at once now; a stopped pool drops it.
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
    const QNetworkRequest request = makeRequest(url, headers);
    const auto reply = d->exchange(request, [&](QNetworkAccessManager &manager) { return manager.get(request); });
    if (reply.wait == Private::Wait::TimedOut)
        RXCM_LOG_WARN("get reply timeout, url: {}", url);
    if (reply.wait == Private::Wait::Finished) {
        if (reply.status != 200)
            RXCM_LOG_WARN("get reply err, url: {}, status code: {}, msg: {}", url, reply.status, reply.body);
        else if (logReply)
            RXCM_LOG_INFO("get reply: {}", reply.body);
    }
    return reply.result();
}

HttpReply HttpClientWrapper::post(const std::string &url, const HttpHeaders &headers, const std::string &body, bool log)
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

    const auto reply = d->exchange(request, [&](QNetworkAccessManager &manager) {
        return manager.post(request, QByteArray::fromStdString(body));
    });
    // The same text as get's: the cloud's operators search the logs for it.
    if (reply.wait == Private::Wait::TimedOut)
        RXCM_LOG_WARN("get reply timeout, url: {}", url);
    if (reply.wait == Private::Wait::Finished) {
        if (reply.status != 200)
            RXCM_LOG_WARN("post reply err, status code: {}", reply.status);
        if (reply.status != 200 || log)
            RXCM_LOG_INFO("post reply: {}", reply.body);
    }
    return reply.result();
}

} // namespace talvor::cloudmaterial
