#pragma once

#include "cloudmaterial/protocol/httpreply.h"

#include <memory>
#include <string>

namespace talvor::cloudmaterial {

class WorkerPool;

/**
 * The module's blocking HTTP client: one request, the whole reply, at most 10 s.
 *
 * A call spins a local event loop on the calling thread (user input excluded), so it may
 * be made from the GUI thread or a worker thread. A reply counts as successful when its
 * status is 200 and its body nowhere holds the quoted word "error": the cloud reports
 * many failures inside a 200 reply.
 *
 * Owned by the Qt thread; get() and post() may be called from any thread, each of which gets
 * a network access manager of its own. shutdown() ends every call in flight at once.
 */
class HttpClientWrapper
{
public:
    static constexpr int timeoutMs = 10000;

    explicit HttpClientWrapper(std::shared_ptr<WorkerPool> pool);
    ~HttpClientWrapper();
    HttpClientWrapper(const HttpClientWrapper &) = delete;
    HttpClientWrapper &operator=(const HttpClientWrapper &) = delete;

    HttpReply get(const std::string &url, const HttpHeaders &headers, bool logReply);
    /** Sends @p body as JSON: "Accept" and "Content-Type" replace the caller's. */
    HttpReply post(const std::string &url, const HttpHeaders &headers, const std::string &body, bool log);

    /**
     * For the module's teardown, on the owner's thread while the worker pool still runs: calls
     * waiting on any thread return an empty reply at once, later calls send nothing, and the
     * network access managers are deleted on their threads.
     */
    void shutdown();

private:
    class Private;
    std::unique_ptr<Private> const d;
};

} // namespace talvor::cloudmaterial
