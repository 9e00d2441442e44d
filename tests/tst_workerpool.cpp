#include "cloudmaterial/workerpool.h"

#include <QtTest>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

using talvor::cloudmaterial::WorkerPool;

class TestWorkerPool : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void runsTasksInOrderOnOneThread();
    void futureCarriesTheTaskException();
    void destructionRunsWhatIsQueued();
    void enqueueFromManyThreads();
    void taskCanDropThePool();
};

void TestWorkerPool::runsTasksInOrderOnOneThread()
{
    WorkerPool pool;
    QCOMPARE(pool.threadCount(), std::size_t(1));
    QVERIFY(!pool.isWorkerThread());

    std::vector<int> order;
    std::vector<std::thread::id> threads;
    std::vector<std::future<void>> futures;
    bool onWorker = false;
    for (int i = 0; i < 100; ++i) {
        futures.push_back(pool.enqueue([&, i] {
            // Only the one worker touches these, so no lock is needed: that is what is tested.
            order.push_back(i);
            threads.push_back(std::this_thread::get_id());
            if (i == 0)
                onWorker = pool.isWorkerThread();
        }));
    }
    for (auto &f : futures)
        f.get();

    QCOMPARE(order.size(), std::size_t(100));
    for (int i = 0; i < 100; ++i)
        QCOMPARE(order[std::size_t(i)], i);
    for (const auto &id : threads)
        QCOMPARE(id, threads.front());
    QVERIFY(threads.front() != std::this_thread::get_id());
    QVERIFY(onWorker);
}

void TestWorkerPool::futureCarriesTheTaskException()
{
    WorkerPool pool;
    auto failing = pool.enqueue([] { throw std::runtime_error("task failed"); });
    auto next = pool.enqueue([] {});
    try {
        failing.get();
        QFAIL("the exception was lost");
    } catch (const std::runtime_error &e) {
        QCOMPARE(QString::fromLatin1(e.what()), QStringLiteral("task failed"));
    }
    // The worker survives a failing task.
    QCOMPARE(next.wait_for(std::chrono::seconds(10)), std::future_status::ready);
}

void TestWorkerPool::destructionRunsWhatIsQueued()
{
    std::atomic<int> done{0};
    {
        WorkerPool pool;
        pool.enqueue([] { std::this_thread::sleep_for(std::chrono::milliseconds(50)); });
        for (int i = 0; i < 20; ++i)
            pool.enqueue([&done] { ++done; });
    }
    QCOMPARE(done.load(), 20);
}

void TestWorkerPool::enqueueFromManyThreads()
{
    WorkerPool pool;
    std::mutex mutex;
    std::vector<std::future<void>> futures;
    std::atomic<int> done{0};
    std::vector<std::thread> producers;
    for (int p = 0; p < 4; ++p) {
        producers.emplace_back([&] {
            for (int i = 0; i < 250; ++i) {
                auto f = pool.enqueue([&done] { ++done; });
                std::lock_guard<std::mutex> lock(mutex);
                futures.push_back(std::move(f));
            }
        });
    }
    for (auto &t : producers)
        t.join();
    for (auto &f : futures)
        f.get();
    QCOMPARE(done.load(), 1000);
}

void TestWorkerPool::taskCanDropThePool()
{
    // The last owner of a shared pool may be a task running on the pool itself.
    auto pool = std::make_shared<WorkerPool>();
    std::promise<void> gate;
    std::promise<void> released;
    auto releasedFuture = released.get_future();
    pool->enqueue([owner = pool, opened = gate.get_future().share(), &released]() mutable {
        opened.wait(); // until the test has dropped its own reference
        owner.reset();
        released.set_value();
    });
    pool.reset();
    gate.set_value();
    QCOMPARE(releasedFuture.wait_for(std::chrono::seconds(10)), std::future_status::ready);
}

QTEST_GUILESS_MAIN(TestWorkerPool)
#include "tst_workerpool.moc"
