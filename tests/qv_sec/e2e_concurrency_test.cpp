// Several threads build, use and end contexts under the same two service
// tokens at once, over two mechanisms whose modules are started for the
// services on first use: the services' mechanism data is shared, each
// context is one thread's.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "context_test_harness.h"

namespace {

using namespace ctxtest;

TEST_F(ContextFixture, ThreadsShareTheServiceTokens) {
    constexpr int kThreads = 4;
    constexpr int kContexts = 50;
    std::atomic<int> failures{0};
    std::atomic<long> opened{0};
    std::vector<std::thread> pool;
    for (int t = 0; t < kThreads; ++t) {
        pool.emplace_back([&, t] {
            Bytes list = mech_list({t % 2 ? kCodeB : kCodeA});
            for (int i = 0; i < kContexts; ++i) {
                sec_status_desc st{};
                sec_token_t cctx = nullptr, sctx = nullptr;
                View l(list);
                Out c, s, sealed, out;
                char svc[] = "svc", host[] = "host";
                bool ok = sec_start_sec_context(&st, client_svc_, l.get(), svc, host, 0, &cctx, c.get()) == 0 &&
                          sec_receive_sec_context(&st, server_svc_, c.get(), &sctx, s.get()) == 0;
                Bytes msg = text("thread " + std::to_string(t));
                View m(msg);
                ok = ok && sec_prepare_data(&st, cctx, SEC_F_PROTECT_MODE1, m.get(), sealed.get()) == 0 &&
                     sec_process_data(&st, sctx, sealed.get(), out.get()) == 0 && out.bytes() == msg;
                if (!out.empty()) opened += 1;
                ok = ok && sec_end_context(&st, cctx, nullptr) == 0 && sec_end_context(&st, sctx, nullptr) == 0;
                if (!ok) failures += 1;
            }
        });
    }
    for (auto &th : pool) th.join();
    EXPECT_EQ(failures.load(), 0);
    opened_by_caller_ += opened.load();
    // Each module was started once per service token.
    EXPECT_EQ(m2_.calls(QVTEST_MPM_START), 2u);
    EXPECT_EQ(m_.calls(QVTEST_MPM_END_CONTEXT) + m2_.calls(QVTEST_MPM_END_CONTEXT),
              static_cast<unsigned long>(2 * kThreads * kContexts));
}

// Setting the imposed mechanisms, even to the value they already have, never
// shows other threads the variable unset or torn: every service token
// started meanwhile refuses unauthenticated clients, and every offer holds
// the imposed mechanism alone.
TEST_F(ContextFixture, ImposedMechanismsStaySetWhileBeingSet) {
    View only_a(mech_list({kCodeA}));
    ASSERT_EQ(sec_set_imposed_mechs(only_a.get()), 0);
    const Bytes offer_a = mech_list({kCodeA});
    std::atomic<bool> stop{false};
    std::atomic<long> tokens{0}, accepting{0}, offers{0}, wrong_offers{0};
    std::vector<std::thread> pool;
    for (int i = 0; i < 2; ++i) {
        pool.emplace_back([&, i] {
            while (!stop) {
                View l(mech_list({kCodeA}));
                if (i == 0) {
                    sec_set_imposed_mechs(l.get());
                } else {
                    sec_add_imposed_mechs(l.get());
                }
            }
        });
    }
    for (int i = 0; i < 3; ++i) {
        pool.emplace_back([&] {
            while (!stop) {
                sec_status_desc st{};
                sec_token_t t = nullptr;
                if (sec_start(&st, SEC_F_DEFER_MPM_START, &t) == 0) {
                    tokens += 1;
                    if ((static_cast<sec_svc_token_t>(t)->state & SEC_SVC_S_REFUSE_UNAUTH) == 0) accepting += 1;
                    sec_end(&st, 0, t);
                }
                Out offer;
                qv_int32_t n = 0;
                if (sec_get_auth_methods(offer.get(), &n) == 0) {
                    offers += 1;
                    if (offer.bytes() != offer_a) wrong_offers += 1;
                }
            }
        });
    }
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (std::chrono::steady_clock::now() < end && tokens < 20000) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    stop = true;
    for (auto &t : pool) t.join();
    EXPECT_GT(tokens.load(), 100);
    EXPECT_EQ(accepting.load(), 0) << "of " << tokens.load() << " service tokens";
    EXPECT_EQ(wrong_offers.load(), 0) << "of " << offers.load() << " offers";
}

}  // namespace
