// Several threads build, use and end contexts under the same two service
// tokens at once, over two mechanisms whose modules are started for the
// services on first use: the services' mechanism data is shared, each
// context is one thread's.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

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

}  // namespace
