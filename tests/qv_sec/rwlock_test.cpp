// The readers-writer lock: writer preference, promote, demote, try-write and
// the repair of the counters when a waiting thread is cancelled. Every wait
// is bounded: a lock that is never released fails the test.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <pthread.h>
#include <thread>
#include <vector>

#include "qv_sec.h"
#include "test_support.h"

namespace {

using namespace std::chrono_literals;

// A thread running one lock operation, whose progress the test can observe.
class Worker {
public:
    template <typename F>
    explicit Worker(F f) : body_(f) {
        pthread_create(&tid_, nullptr, &Worker::run, this);
    }
    ~Worker() {
        if (!joined_) join();
    }
    bool done() const { return done_.load(); }
    void cancel() { pthread_cancel(tid_); }
    void join() {
        pthread_join(tid_, nullptr);
        joined_ = true;
    }

private:
    static void *run(void *self) {
        auto *w = static_cast<Worker *>(self);
        w->body_();
        w->done_ = true;
        return nullptr;
    }
    std::function<void()> body_;
    pthread_t tid_{};
    std::atomic<bool> done_{false};
    bool joined_ = false;
};

class RwLock : public ::testing::Test {
protected:
    void SetUp() override { sec__lock_init(&lock_); }
    void TearDown() override { sec__lock_destroy(&lock_); }
    std::pair<int, int> counters() {
        pthread_mutex_lock(&lock_.mutex);
        std::pair<int, int> c{lock_.count, lock_.writers};
        pthread_mutex_unlock(&lock_.mutex);
        return c;
    }
    bool wait_counters(int count, int writers) {
        return qvtest::wait_until([&] { return counters() == std::make_pair(count, writers); });
    }
    sec_rwlock_desc lock_;
};

TEST_F(RwLock, InitAndDestroy) {
    EXPECT_EQ(counters(), std::make_pair(0, 0));
    sec__lock_destroy(&lock_);
    sec_rwlock_desc zero{};
    EXPECT_EQ(std::memcmp(&lock_, &zero, sizeof zero), 0);
    sec__lock_init(&lock_);
}

TEST_F(RwLock, ReadersShareWriterExcludes) {
    sec__lock_read(&lock_);
    sec__lock_read(&lock_);
    EXPECT_EQ(counters(), std::make_pair(2, 0));
    EXPECT_EQ(sec__trylock_write(&lock_), -1);
    EXPECT_EQ(counters(), std::make_pair(2, 0));  // a failed try changes nothing
    sec__unlock_read(&lock_);
    sec__unlock_read(&lock_);
    EXPECT_EQ(sec__trylock_write(&lock_), 0);
    EXPECT_EQ(counters(), std::make_pair(-1, 0));
    EXPECT_EQ(sec__trylock_write(&lock_), -1);
    sec__unlock_write(&lock_);
    EXPECT_EQ(counters(), std::make_pair(0, 0));
}

TEST_F(RwLock, WaitingWriterHoldsBackNewReaders) {
    sec__lock_read(&lock_);
    Worker writer([&] {
        sec__lock_write(&lock_);
        std::this_thread::sleep_for(20ms);
        sec__unlock_write(&lock_);
    });
    ASSERT_TRUE(wait_counters(1, 1));
    Worker reader([&] {
        sec__lock_read(&lock_);
        sec__unlock_read(&lock_);
    });
    std::this_thread::sleep_for(50ms);
    EXPECT_FALSE(reader.done()) << "a reader got in ahead of a waiting writer";
    sec__unlock_read(&lock_);
    EXPECT_TRUE(qvtest::wait_until([&] { return writer.done() && reader.done(); }));
    EXPECT_EQ(counters(), std::make_pair(0, 0));
}

TEST_F(RwLock, TryWriteIgnoresWaitingWriters) {
    sec__lock_read(&lock_);
    Worker writer([&] {
        sec__lock_write(&lock_);
        sec__unlock_write(&lock_);
    });
    ASSERT_TRUE(wait_counters(1, 1));
    sec__unlock_read(&lock_);
    // The waiting writer is signalled; whichever gets the mutex first wins,
    // and a try that wins leaves `writers` alone.
    if (sec__trylock_write(&lock_) == 0) {
        EXPECT_EQ(counters().first, -1);
        sec__unlock_write(&lock_);
    }
    EXPECT_TRUE(qvtest::wait_until([&] { return writer.done(); }));
    EXPECT_EQ(counters(), std::make_pair(0, 0));
}

TEST_F(RwLock, PromoteByOnlyReaderDoesNotWait) {
    sec__lock_read(&lock_);
    Worker promoter([&] { sec__lock_promote(&lock_); });
    ASSERT_TRUE(qvtest::wait_until([&] { return promoter.done(); }));
    EXPECT_EQ(counters(), std::make_pair(-1, 0));
    sec__unlock_write(&lock_);
}

TEST_F(RwLock, PromoteWaitsForTheOtherReader) {
    sec__lock_read(&lock_);  // the other reader
    std::atomic<bool> promoted{false};
    Worker promoter([&] {
        sec__lock_read(&lock_);
        sec__lock_promote(&lock_);
        promoted = true;
        sec__unlock_write(&lock_);
    });
    ASSERT_TRUE(wait_counters(1, 1));  // its read given up, waiting as a writer
    std::this_thread::sleep_for(30ms);
    EXPECT_FALSE(promoted.load());
    sec__unlock_read(&lock_);
    EXPECT_TRUE(qvtest::wait_until([&] { return promoter.done(); }));
    EXPECT_TRUE(promoted.load());
    EXPECT_EQ(counters(), std::make_pair(0, 0));
}

TEST_F(RwLock, DemoteWakesEveryWaitingReader) {
    sec__lock_write(&lock_);
    std::atomic<int> inside{0};
    std::atomic<bool> go{false};
    auto reader = [&] {
        sec__lock_read(&lock_);
        ++inside;
        while (!go) std::this_thread::sleep_for(1ms);
        sec__unlock_read(&lock_);
    };
    Worker r1(reader), r2(reader), r3(reader);
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(inside.load(), 0);
    sec__lock_demote(&lock_);
    EXPECT_TRUE(qvtest::wait_until([&] { return inside.load() == 3; }));
    EXPECT_EQ(counters(), std::make_pair(4, 0));  // the demoted thread reads too
    go = true;
    sec__unlock_read(&lock_);
    EXPECT_TRUE(qvtest::wait_until([&] { return r1.done() && r2.done() && r3.done(); }));
    EXPECT_EQ(counters(), std::make_pair(0, 0));
}

TEST_F(RwLock, DemoteLetsWaitingWriterGoFirst) {
    sec__lock_write(&lock_);
    std::atomic<int> order{0};
    std::atomic<int> writer_order{0}, demoter_order{0};
    Worker writer([&] {
        sec__lock_write(&lock_);
        writer_order = ++order;
        sec__unlock_write(&lock_);
    });
    ASSERT_TRUE(wait_counters(-1, 1));
    sec__lock_demote(&lock_);
    demoter_order = ++order;
    sec__unlock_read(&lock_);
    EXPECT_TRUE(qvtest::wait_until([&] { return writer.done(); }));
    EXPECT_EQ(writer_order.load(), 1);
    EXPECT_EQ(demoter_order.load(), 2);
}

TEST_F(RwLock, CancelledOnlyWaitingWriterReleasesReaders) {
    sec__lock_read(&lock_);
    Worker writer([&] {
        sec__lock_write(&lock_);
        sec__unlock_write(&lock_);
    });
    ASSERT_TRUE(wait_counters(1, 1));
    Worker reader([&] {
        sec__lock_read(&lock_);
        sec__unlock_read(&lock_);
    });
    std::this_thread::sleep_for(30ms);
    ASSERT_FALSE(reader.done());
    writer.cancel();
    writer.join();
    EXPECT_TRUE(qvtest::wait_until([&] { return reader.done(); })) << "readers stayed blocked";
    EXPECT_EQ(counters(), std::make_pair(1, 0));
    sec__unlock_read(&lock_);
    EXPECT_EQ(sec__trylock_write(&lock_), 0);
    sec__unlock_write(&lock_);
}

TEST_F(RwLock, CancelledWaitingReaderLeavesLockUsable) {
    sec__lock_write(&lock_);
    Worker reader([&] {
        sec__lock_read(&lock_);
        sec__unlock_read(&lock_);
    });
    std::this_thread::sleep_for(20ms);
    reader.cancel();
    reader.join();
    EXPECT_FALSE(reader.done());
    EXPECT_EQ(counters(), std::make_pair(-1, 0));
    sec__unlock_write(&lock_);
    EXPECT_EQ(sec__trylock_write(&lock_), 0);  // the mutex was released by the clean-up
    sec__unlock_write(&lock_);
}

TEST_F(RwLock, ManyThreadsKeepTheInvariant) {
    std::atomic<int> readers{0}, writers{0};
    std::atomic<bool> broken{false};
    auto body = [&](int i) {
        for (int n = 0; n < 300; ++n) {
            if ((n + i) % 5 == 0) {
                sec__lock_write(&lock_);
                if (++writers != 1 || readers.load() != 0) broken = true;
                --writers;
                sec__unlock_write(&lock_);
            } else {
                sec__lock_read(&lock_);
                ++readers;
                if (writers.load() != 0) broken = true;
                if (n % 7 == 0) {
                    --readers;
                    sec__lock_promote(&lock_);
                    if (++writers != 1 || readers.load() != 0) broken = true;
                    --writers;
                    sec__lock_demote(&lock_);
                    ++readers;
                }
                --readers;
                sec__unlock_read(&lock_);
            }
        }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) threads.emplace_back(body, i);
    for (auto &t : threads) t.join();
    EXPECT_FALSE(broken.load());
    EXPECT_EQ(counters(), std::make_pair(0, 0));
}

}  // namespace
