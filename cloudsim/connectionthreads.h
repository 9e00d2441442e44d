#pragma once

#include <httplib.h>

#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <thread>

namespace cloudsim {

// One thread per connection instead of httplib's fixed pool: a hanging request holds its
// thread, and a test may leave many of them hanging without starving the other requests.
class ConnectionThreads : public httplib::TaskQueue
{
public:
    void enqueue(std::function<void()> fn) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        reapFinished();
        auto done = std::make_shared<std::atomic<bool>>(false);
        m_threads.push_back({std::thread([fn = std::move(fn), done] {
                                 fn();
                                 done->store(true);
                             }),
                             done});
    }

    void shutdown() override
    {
        std::list<Worker> threads;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            threads.swap(m_threads);
        }
        for (auto &w : threads)
            w.thread.join();
    }

private:
    struct Worker
    {
        std::thread thread;
        std::shared_ptr<std::atomic<bool>> done;
    };

    void reapFinished()
    {
        for (auto it = m_threads.begin(); it != m_threads.end();) {
            if (it->done->load()) {
                it->thread.join();
                it = m_threads.erase(it);
            } else {
                ++it;
            }
        }
    }

    std::mutex m_mutex;
    std::list<Worker> m_threads;
};

} // namespace cloudsim
