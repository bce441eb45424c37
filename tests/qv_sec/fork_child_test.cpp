// A process forks while another of its threads is inside the library; the
// child must be able to use the library, within a bounded time.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <thread>
#include <vector>

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
    return sec_end(&st, 0, token) == 0 ? 0 : 12;
}

// Another thread holds the library's state lock, or is loading the module
// (its mpm_init blocks, so the entry is write-locked) when the process
// forks: the child loads the module again and uses the library.
TEST_F(ForkChild, ChildUsesTheLibraryWhateverAnotherThreadHeld) {
    configure(line(1, "qvtest", 0x301, qvtest::kTestMpm));
    for (bool loading : {false, true}) {
        SCOPED_TRACE(loading ? "a module load" : "the state lock");
        std::atomic<bool> held{false};
        mpm_.behaviour(QVTEST_MPM_INIT).block = loading;
        CancellableThread holder([&] {
            if (loading) {
                sec_status_desc st{};
                sec_token_t token = nullptr;
                sec_start(&st, 0, &token);
                sec_end(&st, 0, token);
                return;
            }
            pthread_mutex_lock(&SEC_STATE.lock);
            held = true;
            std::this_thread::sleep_for(300ms);
            pthread_mutex_unlock(&SEC_STATE.lock);
        });
        EXPECT_TRUE(qvtest::wait_until([&] { return loading ? mpm_.blocked() == 1 : held.load(); }));
        int rc = qvtest::run_in_child(
            [&] {
                mpm_.behaviour(QVTEST_MPM_INIT).block = 0;
                return use_library(mpm_);
            },
            5s);
        EXPECT_EQ(rc, 0);
        mpm_.release();
        EXPECT_TRUE(holder.join());
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
