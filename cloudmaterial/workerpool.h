#pragma once

#include <cstddef>
#include <functional>
#include <future>
#include <memory>

namespace talvor::cloudmaterial {

/**
 * The module's worker threads (the module uses one): a first-in first-out queue of
 * void() tasks, each handed back as a future. Destroying the pool runs what is still
 * queued and joins the threads.
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

    /** True when called from one of the pool's own threads. */
    bool isWorkerThread() const;

    std::size_t threadCount() const;

private:
    class Private;
    std::unique_ptr<Private> const d;
};

} // namespace talvor::cloudmaterial
