// Module calls from several threads: a module is loaded once however many
// threads make the first call, a load waits for the calls under way, and a
// thread cancelled inside a module, or while waiting to load one, leaves the
// entry's lock free. Every wait is bounded, so a leaked lock fails the test
// instead of hanging it.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "cancellable_thread.h"
#include "mpm_test_fixture.h"

namespace {

using namespace std::chrono_literals;
using qvtest::TestMpm;
using qvtest::wait_until;
constexpr unsigned kCode = 0x20002;

using Caller = qvtest::CancellableThread;

class MpmConcurrency : public qvtest::MpmFixture {
protected:
    void TearDown() override {
        mpm_.release();  // never leave a thread blocked in the module
        MpmFixture::TearDown();
    }
    // One call into the module that blocks when its routine is told to.
    static void lifetime_call(sec_mpm_entry_t e) {
        sec_status_desc st{};
        qv_int32_t lifetime = 0;
        EXPECT_EQ(sec__mpm_get_ctx_lifetime(e, &st, nullptr, &lifetime), 0u);
    }
    static void flags_call(sec_mpm_entry_t e) {
        sec_status_desc st{};
        qv_uint32_t flags = 0;
        EXPECT_EQ(sec__mpm_get_ctx_flags(e, &st, nullptr, &flags), 0u);
    }
    TestMpm mpm_;
};

TEST_F(MpmConcurrency, ManyFirstCallsLoadTheModuleOnce) {
    sec_mpm_entry_t e = reserve(kCode, qvtest::kTestMpm);
    mpm_.behaviour(QVTEST_MPM_INIT).block = 1;  // hold the load open while the others arrive
    std::vector<std::unique_ptr<Caller>> callers;
    for (int i = 0; i < 8; ++i) callers.push_back(std::make_unique<Caller>([e] { lifetime_call(e); }));
    ASSERT_TRUE(wait_until([&] { return mpm_.blocked() == 1; }));
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(mpm_.calls(QVTEST_MPM_INIT), 1u);
    EXPECT_EQ(mpm_.calls(QVTEST_MPM_GET_CTX_LIFETIME), 0u);
    mpm_.release();
    EXPECT_TRUE(wait_until([&] {
        for (auto &c : callers)
            if (!c->done()) return false;
        return true;
    }));
    EXPECT_EQ(mpm_.calls(QVTEST_MPM_INIT), 1u);
    EXPECT_EQ(mpm_.calls(QVTEST_MPM_GET_CTX_LIFETIME), 8u);
    EXPECT_TRUE(lock_is_free(e));
}

TEST_F(MpmConcurrency, LoadWaitsForCallsUnderWayAndHoldsBackNewOnes) {
    sec_mpm_entry_t e = reserve(kCode, qvtest::kTestMpm);
    lifetime_call(e);  // loaded
    mpm_.behaviour(QVTEST_MPM_GET_CTX_LIFETIME).block = 1;
    Caller r1([e] { lifetime_call(e); }), r2([e] { lifetime_call(e); });
    ASSERT_TRUE(wait_until([&] { return mpm_.blocked() == 2; }));

    // Make the entry need a load again, as a first call finds it.
    __atomic_fetch_and(&e->state, ~SEC_MPM_S_LOADED, __ATOMIC_SEQ_CST);
    Caller loader([e] { flags_call(e); });
    ASSERT_TRUE(wait_until([&] {
        pthread_mutex_lock(&e->lock.mutex);
        bool waiting = e->lock.writers == 1;
        pthread_mutex_unlock(&e->lock.mutex);
        return waiting;
    }));
    Caller late([e] { flags_call(e); });
    std::this_thread::sleep_for(50ms);
    EXPECT_FALSE(loader.done());
    EXPECT_FALSE(late.done()) << "a new call got in ahead of a waiting load";
    EXPECT_EQ(mpm_.calls(QVTEST_MPM_INIT), 1u);

    mpm_.release();
    EXPECT_TRUE(wait_until([&] { return r1.done() && r2.done() && loader.done() && late.done(); }));
    EXPECT_EQ(mpm_.calls(QVTEST_MPM_INIT), 2u);  // loaded again, once
    EXPECT_EQ(mpm_.calls(QVTEST_MPM_GET_CTX_FLAGS), 2u);
    EXPECT_TRUE(lock_is_free(e));
}

TEST_F(MpmConcurrency, CancelledInsideTheModuleLeavesTheLockFree) {
    sec_mpm_entry_t e = reserve(kCode, qvtest::kTestMpm);
    mpm_.behaviour(QVTEST_MPM_GET_CTX_LIFETIME).block = 1;
    Caller victim([e] { lifetime_call(e); });
    ASSERT_TRUE(wait_until([&] { return mpm_.blocked() == 1; }));
    EXPECT_FALSE(lock_is_free(e));
    e->ltime = 0;
    victim.cancel();
    victim.join();
    EXPECT_FALSE(victim.done());
    EXPECT_EQ(mpm_.blocked(), 0);
    EXPECT_NE(e->ltime, 0);  // the end of the call was stamped on the way out
    // A writer gets the lock: nothing was leaked.
    Caller writer([e] {
        sec__lock_write(&e->lock);
        sec__unlock_write(&e->lock);
    });
    EXPECT_TRUE(wait_until([&] { return writer.done(); }));
}

TEST_F(MpmConcurrency, CancelledInsideModuleInitLeavesTheEntryLoadable) {
    sec_mpm_entry_t e = reserve(kCode, qvtest::kTestMpm);
    mpm_.behaviour(QVTEST_MPM_INIT).block = 1;
    Caller victim([e] { lifetime_call(e); });
    ASSERT_TRUE(wait_until([&] { return mpm_.blocked() == 1; }));
    victim.cancel();
    victim.join();
    EXPECT_TRUE(lock_is_free(e));
    EXPECT_EQ(e->state & SEC_MPM_S_LOADED, 0u);
    mpm_.behaviour(QVTEST_MPM_INIT).block = 0;
    lifetime_call(e);  // the next call loads it
    EXPECT_EQ(mpm_.calls(QVTEST_MPM_INIT), 2u);
    EXPECT_TRUE(lock_is_free(e));
}

TEST_F(MpmConcurrency, CancelledWaitingWriterReleasesTheCallsItHeldBack) {
    sec_mpm_entry_t e = reserve(kCode, qvtest::kTestMpm);
    lifetime_call(e);
    mpm_.behaviour(QVTEST_MPM_GET_CTX_LIFETIME).block = 1;
    Caller inside([e] { lifetime_call(e); });
    ASSERT_TRUE(wait_until([&] { return mpm_.blocked() == 1; }));
    Caller writer([e] {
        sec__lock_write(&e->lock);
        sec__unlock_write(&e->lock);
    });
    ASSERT_TRUE(wait_until([&] {
        pthread_mutex_lock(&e->lock.mutex);
        bool waiting = e->lock.writers == 1;
        pthread_mutex_unlock(&e->lock.mutex);
        return waiting;
    }));
    Caller held_back([e] { flags_call(e); });
    std::this_thread::sleep_for(50ms);
    EXPECT_FALSE(held_back.done());
    writer.cancel();
    writer.join();
    EXPECT_TRUE(wait_until([&] { return held_back.done(); })) << "calls stayed blocked behind a cancelled writer";
    mpm_.release();
    EXPECT_TRUE(wait_until([&] { return inside.done(); }));
    EXPECT_TRUE(lock_is_free(e));
}

TEST_F(MpmConcurrency, ConcurrentCallsAcrossRoutinesAndModules) {
    TestMpm second(qvtest::kTestMpm2);
    sec_mpm_entry_t a = reserve(kCode, qvtest::kTestMpm, "qvtest_a");
    sec_mpm_entry_t b = reserve(kCode + 1, qvtest::kTestMpm2, "qvtest_b");
    constexpr int kThreads = 4, kCalls = 500;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            sec_mpm_entry_t e = t % 2 ? a : b;
            for (int i = 0; i < kCalls; ++i) {
                if (i % 2) {
                    lifetime_call(e);
                } else {
                    flags_call(e);
                }
            }
        });
    }
    for (auto &t : threads) t.join();
    EXPECT_EQ(mpm_.calls(QVTEST_MPM_GET_CTX_LIFETIME) + mpm_.calls(QVTEST_MPM_GET_CTX_FLAGS),
              static_cast<unsigned long>(kThreads / 2 * kCalls));
    EXPECT_EQ(second.calls(QVTEST_MPM_GET_CTX_LIFETIME) + second.calls(QVTEST_MPM_GET_CTX_FLAGS),
              static_cast<unsigned long>(kThreads / 2 * kCalls));
    EXPECT_EQ(mpm_.calls(QVTEST_MPM_INIT), 1u);
    EXPECT_EQ(second.calls(QVTEST_MPM_INIT), 1u);
    EXPECT_TRUE(lock_is_free(a));
    EXPECT_TRUE(lock_is_free(b));
}

// Calls into a module from threads that come and go (some cancelled at
// random points), mixed with a writer that takes the entry's lock and now and
// then makes the module need loading again. No call runs while the writer
// holds the lock (the module's call count stays still), and in the end the
// lock is free with its counters at rest.
TEST_F(MpmConcurrency, CallsWritersReloadsAndCancellationsTogether) {
    sec_mpm_entry_t e = reserve(kCode, qvtest::kTestMpm);
    lifetime_call(e);  // loaded
    std::atomic<bool> stop{false}, overlapped{false};
    std::atomic<int> reloads{0};
    auto calls = [&] { return mpm_.calls(QVTEST_MPM_GET_CTX_LIFETIME) + mpm_.calls(QVTEST_MPM_GET_CTX_FLAGS); };
    auto caller = [&, e] {
        for (int i = 0; !stop; ++i) {
            if (i % 4 == 0) {
                flags_call(e);
            } else {
                lifetime_call(e);
            }
            pthread_testcancel();
        }
    };
    Caller writer([&, e] {
        for (int i = 0; !stop; ++i) {
            sec__lock_write(&e->lock);
            unsigned long before = calls();
            std::this_thread::sleep_for(100us);
            if (calls() != before) overlapped = true;
            // Counted only when loaded, so each counted reload is one load.
            if (i % 8 == 0 && (__atomic_fetch_and(&e->state, ~SEC_MPM_S_LOADED, __ATOMIC_SEQ_CST) & SEC_MPM_S_LOADED))
                ++reloads;
            sec__unlock_write(&e->lock);
            std::this_thread::sleep_for(200us);
        }
    });
    std::vector<std::unique_ptr<Caller>> callers;
    for (int i = 0; i < 3; ++i) callers.push_back(std::make_unique<Caller>(caller));
    auto end = std::chrono::steady_clock::now() + 300ms;
    for (int round = 0; std::chrono::steady_clock::now() < end; ++round) {
        std::this_thread::sleep_for(std::chrono::microseconds(500 + round % 7 * 150));
        auto &victim = callers[static_cast<size_t>(round) % callers.size()];
        victim->cancel();
        victim->join();
        victim = std::make_unique<Caller>(caller);
    }
    stop = true;
    writer.join();
    for (auto &c : callers) c->join();
    EXPECT_FALSE(overlapped.load()) << "a module routine ran while the entry was write-locked";
    EXPECT_TRUE(lock_is_free(e));
    pthread_mutex_lock(&e->lock.mutex);
    EXPECT_EQ(std::atomic_ref<int>(e->lock.count).load(), 0);
    EXPECT_EQ(e->lock.writers, 0);
    pthread_mutex_unlock(&e->lock.mutex);
    // Every reload asked for was made by some call, or is made by the next.
    lifetime_call(e);
    EXPECT_GE(mpm_.calls(QVTEST_MPM_INIT), static_cast<unsigned long>(reloads.load()) + 1);
    EXPECT_GT(reloads.load(), 0);
}

}  // namespace
