#pragma once

#include <cstddef>
#include <functional>
#include <future>
#include <memory>

namespace talvor::cloudmaterial {

/**
 * The module's worker threads (the module uses one): a first-in first-out queue of
 * void() tasks, each handed back as a future. Stopping or destroying the pool runs what is
 * still queued and joins the threads.
 *
 * Owned by the thread that made it; enqueue() may be called from any thread. Tasks must not
 * touch the state of objects owned by other threads: they hand results back by future or by a
 * queued call.
 */
class WorkerPool
{
public:
    explicit WorkerPool(std::size_t threadCount = 1);
    ~WorkerPool();

    WorkerPool(const WorkerPool &) = delete;
    WorkerPool &operator=(const WorkerPool &) = delete;

    /** Queues @p task; its exception, if any, is rethrown by the future's get(). */
    std::future<void> enqueue(std::function<void()> task);

    /**
     * Runs what is queued and joins the threads; not from one of them. Tasks queued later are
     * dropped, their futures ready with a broken promise. Safe to call more than once.
     */
    void stop();

    /** True when called from one of the pool's own threads. */
    bool isWorkerThread() const;

    std::size_t threadCount() const;

private:
    class Private;
    std::unique_ptr<Private> const d;
};

} // namespace talvor::cloudmaterial
