// Service login from several threads on one service token: exactly one
// logs in, the others are refused, and each module is started and logged in
// to once (the one sec_start started is not started again).
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "context_test_harness.h"
#include "mpm_test_fixture.h"

namespace {

class ServiceLoginThreads : public qvtest::MpmFixture {};

TEST_F(ServiceLoginThreads, OneLoginPerToken) {
    qvtest::TestMpm m1, m2(qvtest::kTestMpm2);
    configure(line(1, "one", 0x101, qvtest::kTestMpm) + line(2, "two", 0x102, qvtest::kTestMpm2));
    long handles = m1.live_handles() + m2.live_handles();
    sec_status_desc st{};
    sec_token_t token = nullptr;
    ASSERT_EQ(sec_start(&st, 0x20, &token), 0);

    constexpr int kThreads = 6;
    std::atomic<int> ok{0}, refused{0}, other{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            sec_status_desc mine{};
            char name[] = "qvsvc";
            qv_int32_t rc = sec_login_as_service(&mine, name, token);
            (rc == 0 ? ok : rc == 5 ? refused : other)++;
            // Renewal may run beside the login: it sees either state.
            sec_renew_identity(&mine, 60, token);
        });
    }
    for (auto &t : threads) t.join();
    EXPECT_EQ(ok.load(), 1);
    EXPECT_EQ(refused.load(), kThreads - 1);
    EXPECT_EQ(other.load(), 0);
    EXPECT_EQ(m1.calls(QVTEST_MPM_START), 1u);
    EXPECT_EQ(m2.calls(QVTEST_MPM_START), 1u);
    EXPECT_EQ(m1.calls(QVTEST_MPM_LOGIN_AS_SERVICE), 1u);
    EXPECT_EQ(m2.calls(QVTEST_MPM_LOGIN_AS_SERVICE), 1u);
    // The module the login started got the token's flags; both got the
    // service's name.
    EXPECT_EQ(m2.record(QVTEST_MPM_START).args[0], 0x20u);
    for (qvtest::TestMpm *m : {&m1, &m2}) {
        EXPECT_STREQ(m->record(QVTEST_MPM_LOGIN_AS_SERVICE).str[0], "qvsvc");
    }
    EXPECT_EQ(sec_end(&st, 0, token), 0);
    EXPECT_EQ(m1.live_handles() + m2.live_handles(), handles);
}

// Contexts accepted while the service logs in: the acceptance reads the
// token's state as the login changes it (checked by ThreadSanitizer), and
// each acceptance sees the token usable.
TEST_F(ServiceLoginThreads, LoginRacesAccepts) {
    qvtest::TestMpm m1;
    configure(line(1, "one", 0x101, qvtest::kTestMpm));
    for (int round = 0; round < 20; ++round) {
        sec_status_desc st{};
        sec_token_t token = nullptr;
        ASSERT_EQ(sec_start(&st, SEC_F_DEFER_MPM_START, &token), 0);
        std::atomic<int> failures{0};
        std::vector<std::thread> accepts;
        for (int i = 0; i < 2; ++i) {
            accepts.emplace_back([&] {
                for (int k = 0; k < 20; ++k) {
                    // An unauthenticated client: the acceptance reads the
                    // token's state and nothing else.
                    ctxtest::View c(ctxtest::ccdb(0, 1, 0));
                    ctxtest::Out s;
                    sec_status_desc mine{};
                    sec_token_t ctx = nullptr;
                    if (sec_receive_sec_context(&mine, token, c.get(), &ctx, s.get()) != 0) failures += 1;
                    sec_end_context(&mine, ctx, nullptr);
                }
            });
        }
        char name[] = "qvsvc";
        EXPECT_EQ(sec_login_as_service(&st, name, token), 0);
        for (auto &t : accepts) t.join();
        EXPECT_EQ(failures.load(), 0);
        EXPECT_EQ(sec_end(&st, 0, token), 0);
    }
}

}  // namespace
