#include "cloudmaterial/workerpool.h"

#include <QtTest>

#include <atomic>
#include <numeric>
#include <thread>
#include <vector>

using talvor::cloudmaterial::WorkerPool;

class TestWorkerPool : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void orderThreadAndExceptions()
    {
        WorkerPool pool;
        QCOMPARE(pool.threadCount(), std::size_t(1));
        QVERIFY(!pool.isWorkerThread());
        std::vector<int> order, expected(100);
        std::vector<std::thread::id> threads;
        bool onWorker = false;
        auto failing = pool.enqueue([] { throw std::runtime_error("task failed"); });
        for (int i = 0; i < 100; ++i) // only the one worker touches these: no lock, on purpose
            pool.enqueue([&, i] {
                order.push_back(i);
                threads.push_back(std::this_thread::get_id());
                onWorker = pool.isWorkerThread();
            });
        pool.enqueue([] {}).get(); // the worker survived the failing task
        QVERIFY_EXCEPTION_THROWN(failing.get(), std::runtime_error);
        std::iota(expected.begin(), expected.end(), 0);
        QCOMPARE(order, expected);
        QCOMPARE(std::count(threads.begin(), threads.end(), threads.front()), 100L);
        QVERIFY(threads.front() != std::this_thread::get_id() && onWorker);
    }

    void manyProducersAndDrainOnDestruction()
    {
        std::atomic<int> done{0};
        {
            WorkerPool pool;
            pool.enqueue([] { std::this_thread::sleep_for(std::chrono::milliseconds(50)); });
            std::vector<std::thread> producers;
            for (int p = 0; p < 4; ++p)
                producers.emplace_back([&] {
                    for (int i = 0; i < 250; ++i)
                        pool.enqueue([&done] { ++done; });
                });
            for (auto &t : producers)
                t.join();
        } // the destructor runs what is still queued
        QCOMPARE(done.load(), 1000);
    }

    // The module's teardown: what is queued still runs, later tasks are dropped, not left waiting.
    void stopDrainsThenDrops()
    {
        WorkerPool pool;
        std::atomic<int> done{0};
        for (int i = 0; i < 10; ++i)
            pool.enqueue([&done] {
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
                ++done;
            });
        pool.stop();
        QCOMPARE(done.load(), 10);
        auto late = pool.enqueue([&done] { ++done; });
        QCOMPARE(late.wait_for(std::chrono::seconds(0)), std::future_status::ready);
        QVERIFY_EXCEPTION_THROWN(late.get(), std::future_error);
        pool.stop(); // again, and the destructor after it
        QCOMPARE(done.load(), 10);
    }

    void taskCanDropThePool()
    {
        // The last owner of a shared pool may be a task running on the pool itself.
        auto pool = std::make_shared<WorkerPool>();
        std::promise<void> gate, released;
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
};

QTEST_GUILESS_MAIN(TestWorkerPool)
#include "tst_workerpool.moc"
