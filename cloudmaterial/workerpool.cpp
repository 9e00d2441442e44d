#include "cloudmaterial/workerpool.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

namespace talvor::cloudmaterial {

namespace {

// Shared between the pool and its threads, so that a thread detached by a task that
// destroyed the pool can still leave its loop safely.
struct TaskQueue
{
    void run();

    std::mutex mutex;
    std::condition_variable wakeUp;
    std::deque<std::packaged_task<void()>> tasks;
    bool stopping = false;
};

void TaskQueue::run()
{
    for (;;) {
        std::packaged_task<void()> task;
        {
            std::unique_lock<std::mutex> lock(mutex);
            wakeUp.wait(lock, [this] { return stopping || !tasks.empty(); });
            if (tasks.empty())
                return; // stopping, and nothing left to run
            task = std::move(tasks.front());
            tasks.pop_front();
        }
        task();
    }
}

} // namespace

class WorkerPool::Private
{
public:
    std::shared_ptr<TaskQueue> queue = std::make_shared<TaskQueue>();
    std::vector<std::thread> threads;
};

WorkerPool::WorkerPool(std::size_t threadCount)
    : d(std::make_unique<Private>())
{
    threadCount = std::max<std::size_t>(threadCount, 1);
    d->threads.reserve(threadCount);
    for (std::size_t i = 0; i < threadCount; ++i)
        d->threads.emplace_back([queue = d->queue] { queue->run(); });
}

WorkerPool::~WorkerPool()
{
    stop();
}

void WorkerPool::stop()
{
    {
        std::lock_guard<std::mutex> lock(d->queue->mutex);
        d->queue->stopping = true;
    }
    d->queue->wakeUp.notify_all();
    for (auto &thread : d->threads) {
        if (!thread.joinable())
            continue;
        // A task that drops the last reference to the pool cannot join its own thread.
        if (thread.get_id() == std::this_thread::get_id())
            thread.detach();
        else
            thread.join();
    }
}

std::future<void> WorkerPool::enqueue(std::function<void()> task)
{
    std::packaged_task<void()> packaged(std::move(task));
    auto future = packaged.get_future();
    {
        std::lock_guard<std::mutex> lock(d->queue->mutex);
        // Once stopped, no thread would ever run it: the dropped task breaks its promise.
        if (d->queue->stopping)
            return future;
        d->queue->tasks.push_back(std::move(packaged));
    }
    d->queue->wakeUp.notify_one();
    return future;
}

bool WorkerPool::isWorkerThread() const
{
    const auto self = std::this_thread::get_id();
    return std::any_of(d->threads.begin(), d->threads.end(),
                       [self](const std::thread &t) { return t.get_id() == self; });
}

std::size_t WorkerPool::threadCount() const
{
    return d->threads.size();
}

} // namespace talvor::cloudmaterial
