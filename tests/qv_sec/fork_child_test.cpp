// A process forks while another of its threads is inside the library; the
// child must be able to use the library, within a bounded time.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <vector>
#include <thread>

#include "cancellable_thread.h"
#include "child_process.h"
#include "mpm_test_fixture.h"

namespace {

using namespace std::chrono_literals;
using qvtest::CancellableThread;

class ForkChild : public qvtest::MpmFixture {
protected:
    void TearDown() override {
        mpm_.release();
        MpmFixture::TearDown();
    }
    qvtest::TestMpm mpm_;
};

// Starts a service and ends it; 0 when both work and the module was started.
int use_library(qvtest::TestMpm &mpm) {
    unsigned long starts = mpm.calls(QVTEST_MPM_START);
    sec_status_desc st{};
    sec_token_t token = nullptr;
    if (sec_start(&st, 0, &token) != 0 || token == nullptr) return 10;
    if (mpm.calls(QVTEST_MPM_START) != starts + 1) return 11;
    if (sec_end(&st, 0, token) != 0) return 12;
    return 0;
}

// Holds a mutex of the library for a while from another thread.
void hold_for_a_while(pthread_mutex_t *m, std::atomic<bool> &held) {
    pthread_mutex_lock(m);
    held = true;
    std::this_thread::sleep_for(300ms);
    pthread_mutex_unlock(m);
}

TEST_F(ForkChild, ChildUsesTheLibraryWhateverAnotherThreadHeld) {
    configure(line(1, "qvtest", 0x301, qvtest::kTestMpm));
    struct Row {
        const char *name;
        // Makes another thread hold something of the library; returns once it
        // does.
        std::function<std::unique_ptr<CancellableThread>()> hold;
        // Run in the child before it uses the library.
        std::function<void()> in_child;
    };
    std::atomic<bool> held{false};
    const Row rows[] = {
        {"the state lock",
         [&] {
             held = false;
             auto t = std::make_unique<CancellableThread>([&] { hold_for_a_while(&SEC_STATE.lock, held); });
             EXPECT_TRUE(qvtest::wait_until([&] { return held.load(); }));
             return t;
         },
         nullptr},
        // The module's load is under way in another thread (its mpm_init
        // blocks): the entry is write-locked. The child loads it again.
        {"a module load",
         [&] {
             mpm_.behaviour(QVTEST_MPM_INIT).block = 1;
             auto t = std::make_unique<CancellableThread>([] {
                 sec_status_desc st{};
                 sec_token_t token = nullptr;
                 sec_start(&st, 0, &token);
                 sec_end(&st, 0, token);
             });
             EXPECT_TRUE(qvtest::wait_until([&] { return mpm_.blocked() == 1; }));
             return t;
         },
         [&] { mpm_.behaviour(QVTEST_MPM_INIT).block = 0; }},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        auto holder = row.hold();
        int rc = qvtest::run_in_child(
            [&] {
                if (row.in_child) row.in_child();
                return use_library(mpm_);
            },
            5s);
        EXPECT_EQ(rc, 0);
        mpm_.release();
        EXPECT_TRUE(holder->join());
        mpm_.reset();
    }
}

// Forks at random moments while other threads start and end services,
// build offers and call into a module: every child starts a service and
// builds an offer within a bounded time. The children leave the busy
// module alone: its own lock may be held by a thread that the child lacks.
// QV_FORK_ROUNDS sets the number of forks.
TEST_F(ForkChild, ForksWhileOtherThreadsWork) {
    qvtest::TestMpm other(qvtest::kTestMpm2);
    configure(line(1, "busy", 0x301, qvtest::kTestMpm) + line(2, "idle", 0x302, qvtest::kTestMpm2));
    const char *env = std::getenv("QV_FORK_ROUNDS");
    const int rounds = env != nullptr ? std::atoi(env) : 50;
    std::atomic<bool> stop{false};
    std::vector<std::unique_ptr<CancellableThread>> workers;
    for (int i = 0; i < 3; ++i) {
        workers.push_back(std::make_unique<CancellableThread>([&] {
            while (!stop) {
                sec_status_desc st{};
                sec_token_t token = nullptr;
                sec_start(&st, 0, &token);
                sec_end(&st, 0, token);
                sec_buffer_desc offer{0, nullptr};
                qv_int32_t n = 0;
                sec_get_auth_methods(&offer, &n);
                free(offer.value);
            }
        }));
    }
    int failed = 0;
    for (int r = 0; r < rounds; ++r) {
        std::this_thread::sleep_for(std::chrono::microseconds(r % 7 * 300));
        int rc = qvtest::run_in_child(
            [] {
                sec_status_desc st{};
                sec_token_t token = nullptr;
                if (sec_start(&st, SEC_F_DEFER_MPM_START, &token) != 0) return 1;
                sec_buffer_desc offer{0, nullptr};
                qv_int32_t n = 0;
                if (sec_get_auth_methods(&offer, &n) != 0 || n != 2) return 2;
                free(offer.value);
                sec_mpm_entry_t idle = sec__get_mpm_entry(0x302);
                qv_int32_t lifetime = 0;
                if (idle == nullptr || sec__mpm_get_ctx_lifetime(idle, &st, nullptr, &lifetime) != 0) return 3;
                return sec_end(&st, 0, token) == 0 ? 0 : 4;
            },
            5s);
        if (rc != 0) ++failed;
    }
    stop = true;
    for (auto &w : workers) EXPECT_TRUE(w->join());
    EXPECT_EQ(failed, 0) << "of " << rounds << " children";
}

}  // namespace
