// The readers-writer lock: writer preference, promote, demote, try-write and
// the repair of the counters when a waiting thread is cancelled. Every wait
// is bounded: a lock that is never released fails the test.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <pthread.h>
#include <random>
#include <thread>
#include <unistd.h>
#include <vector>

#include "qv_sec.h"
#include "cancellable_thread.h"
#include "test_support.h"

namespace {

using namespace std::chrono_literals;

using Worker = qvtest::CancellableThread;

class RwLock : public ::testing::Test {
protected:
    void SetUp() override { sec__lock_init(&lock_); }
    void TearDown() override { sec__lock_destroy(&lock_); }
    // Readers change `count` without the mutex, so it is read atomically.
    std::pair<int, int> counters() {
        pthread_mutex_lock(&lock_.mutex);
        std::pair<int, int> c{std::atomic_ref<int>(lock_.count).load(), std::atomic_ref<int>(lock_.writers).load()};
        pthread_mutex_unlock(&lock_.mutex);
        return c;
    }
    bool wait_counters(int count, int writers) {
        return qvtest::wait_until([&] { return counters() == std::make_pair(count, writers); });
    }
    sec_rwlock_desc lock_;
};

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

// What the threads of a stress test share. `data` is a plain variable that
// only writers change and readers read: any overlap of a writer with another
// holder is a data race that ThreadSanitizer reports, beside the counters.
struct Sections {
    std::atomic<int> readers{0}, writers{0};
    std::atomic<long> writes{0};  // write sections begun
    long data = 0;
    std::atomic<bool> broken{false};

    void read() {
        ++readers;
        if (writers.load() != 0) broken = true;
        volatile long seen = data;
        (void)seen;
        --readers;
    }
    void write() {
        if (++writers != 1 || readers.load() != 0) broken = true;
        ++writes;
        data += 1;
        --writers;
    }
};

int waiting_writers(sec_rwlock_t l) { return std::atomic_ref<int>(l->writers).load(); }

void unlock_read_cleanup(void *l) { sec__unlock_read(static_cast<sec_rwlock_t>(l)); }
void unlock_write_cleanup(void *l) { sec__unlock_write(static_cast<sec_rwlock_t>(l)); }

// Holds the read or write lock for a moment at a cancellation point, with the
// handler that releases it, as a call into a module does.
void hold_read(sec_rwlock_t l) {
    pthread_cleanup_push(unlock_read_cleanup, l);
    usleep(200);
    pthread_cleanup_pop(1);
}
void hold_write(sec_rwlock_t l) {
    pthread_cleanup_push(unlock_write_cleanup, l);
    usleep(200);
    pthread_cleanup_pop(1);
}

constexpr auto kStressTime = 200ms;

// Readers (mostly on the path that bypasses the mutex), writers, promote and
// demote, and try-write from several threads at once. Besides exclusion it
// checks writer preference: a reader that saw a writer waiting before it
// asked for the lock gets it only after some writer has been through.
TEST_F(RwLock, MixedStressKeepsExclusionAndWriterPreference) {
    Sections s;
    std::atomic<bool> overtaken{false};
    std::atomic<long> reads{0}, promotes{0}, tries{0};
    auto body = [&](unsigned seed) {
        std::minstd_rand rng(seed);
        auto end = std::chrono::steady_clock::now() + kStressTime;
        while (std::chrono::steady_clock::now() < end) {
            unsigned op = rng() % 20;
            if (op < 13) {
                long before = s.writes.load();
                bool writer_waiting = waiting_writers(&lock_) > 0;
                sec__lock_read(&lock_);
                if (writer_waiting && s.writes.load() == before) overtaken = true;
                s.read();
                if (op == 0) std::this_thread::yield();  // let writers queue up behind
                sec__unlock_read(&lock_);
                ++reads;
            } else if (op < 16) {
                sec__lock_write(&lock_);
                s.write();
                sec__unlock_write(&lock_);
            } else if (op < 18) {
                sec__lock_read(&lock_);
                s.read();
                sec__lock_promote(&lock_);
                s.write();
                sec__lock_demote(&lock_);
                s.read();
                sec__unlock_read(&lock_);
                ++promotes;
            } else if (sec__trylock_write(&lock_) == 0) {
                s.write();
                sec__unlock_write(&lock_);
                ++tries;
            }
        }
    };
    std::vector<std::unique_ptr<Worker>> crew;
    for (unsigned i = 0; i < 4; ++i) crew.push_back(std::make_unique<Worker>([&body, i] { body(i + 1); }));
    for (auto &w : crew) w->join();
    EXPECT_FALSE(s.broken.load()) << "a writer overlapped another holder";
    EXPECT_FALSE(overtaken.load()) << "a reader got in ahead of a writer it saw waiting";
    EXPECT_EQ(counters(), std::make_pair(0, 0));
    EXPECT_GT(reads.load(), 0);
    EXPECT_GT(s.writes.load(), 0);
    EXPECT_GT(promotes.load(), 0);
}

// A steady stream of readers on the path that bypasses the mutex does not
// keep a writer out: once it waits, new readers queue behind it.
TEST_F(RwLock, WriterGetsInAgainstSteadyReaders) {
    std::atomic<bool> stop{false};
    auto reader = [&] {
        while (!stop) {
            sec__lock_read(&lock_);
            std::this_thread::yield();
            sec__unlock_read(&lock_);
        }
    };
    Worker r1(reader), r2(reader), r3(reader);
    for (int i = 0; i < 20; ++i) {
        Worker writer([&] {
            sec__lock_write(&lock_);
            sec__unlock_write(&lock_);
        });
        if (!qvtest::wait_until([&] { return writer.done(); }, 5s)) {
            ADD_FAILURE() << "writer starved by readers";
            stop = true;  // so that it gets in and can be joined
            break;
        }
    }
    stop = true;
    r1.join();
    r2.join();
    r3.join();
    EXPECT_EQ(counters(), std::make_pair(0, 0));
}

// Threads cancelled while they wait (as readers, writers, promoters or
// demoters) or while they hold the lock, amid readers and writers that go on
// working: the counters are repaired and nobody is left waiting.
TEST_F(RwLock, CancellationAmidStressLeavesLockConsistent) {
    Sections s;
    std::atomic<bool> stop{false};
    auto churn = [&](unsigned seed) {
        std::minstd_rand rng(seed);
        while (!stop) {
            if (rng() % 8 == 0) {
                sec__lock_write(&lock_);
                s.write();
                sec__unlock_write(&lock_);
            } else {
                sec__lock_read(&lock_);
                s.read();
                sec__unlock_read(&lock_);
            }
        }
    };
    Worker c1([&] { churn(1); }), c2([&] { churn(2); });

    // Each victim ends holding nothing, whether it finishes or is cancelled.
    std::vector<std::function<void()>> victims = {
        [&] {
            sec__lock_read(&lock_);
            hold_read(&lock_);
        },
        [&] {
            sec__lock_write(&lock_);
            hold_write(&lock_);
        },
        [&] {
            sec__lock_read(&lock_);
            sec__lock_promote(&lock_);
            hold_write(&lock_);
        },
        [&] {
            sec__lock_write(&lock_);
            sec__lock_demote(&lock_);
            hold_read(&lock_);
        },
    };
    std::minstd_rand rng(7);
    auto end = std::chrono::steady_clock::now() + kStressTime;
    int rounds = 0;
    while (std::chrono::steady_clock::now() < end) {
        // Holding a read lock makes writers (and readers behind them) wait.
        bool hold = rng() % 2 == 0;
        if (hold) sec__lock_read(&lock_);
        Worker a(victims[rng() % victims.size()]), b(victims[rng() % victims.size()]);
        usleep(rng() % 500);
        a.cancel();
        if (rng() % 2) b.cancel();
        if (hold) sec__unlock_read(&lock_);
        a.join();
        b.join();
        ++rounds;
    }
    stop = true;
    c1.join();
    c2.join();
    EXPECT_FALSE(s.broken.load());
    EXPECT_EQ(counters(), std::make_pair(0, 0));
    EXPECT_EQ(sec__trylock_write(&lock_), 0);
    sec__unlock_write(&lock_);
    EXPECT_GT(rounds, 0);
}

}  // namespace
