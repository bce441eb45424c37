// sec_start, sec_end and sec_setup_socket over configured test modules, and
// the module table they build: reservation, selection and the 8-entry limit.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <tuple>
#include <string>

#include "messages.h"
#include "mpm.h"
#include "mpm_test_fixture.h"

namespace {

using qvtest::last_message;
using qvtest::TestMpm;

class ServiceToken : public qvtest::MpmFixture {
protected:
    void TearDown() override {
        sec_status_desc st{};
        sec_end(&st, 0, tok_);
        MpmFixture::TearDown();
    }
    std::vector<unsigned> selected_codes() {
        sec_mpm_entry_t *list = nullptr;
        SecMutexGuard hold(&SEC_STATE.lock);
        EXPECT_EQ(sec__read_reserve_select(&list), 0u);
        std::vector<unsigned> codes;
        for (sec_mpm_entry_t *p = list; p && *p; ++p) codes.push_back((*p)->code);
        free(list);
        return codes;
    }
    // Starts the module of code for the token, as whoever needs it does.
    void start_module(unsigned code) {
        auto *svc = static_cast<sec_svc_token_t>(tok_);
        sec_mech_data_t m;
        SecMutexGuard hold(&svc->lock);
        ASSERT_EQ(sec__check_mech_data(svc, sec__get_mpm_entry(code), &m), 0u);
        ASSERT_EQ(sec__mpm_start(m->mpm, &st_, svc->sflags, &m->mtoken), 0u);
        m->state |= 1;
    }
    TestMpm mpm_, mpm2_{qvtest::kTestMpm2};
    sec_status_desc st_{};
    sec_token_t tok_ = nullptr;
};

TEST_F(ServiceToken, TableKeepsEveryCodeAndSelectsTheListedOnes) {
    std::string eight;
    for (int i = 1; i <= 8; ++i) eight += line(i, ("m" + std::to_string(i)).c_str(), i, "x.so");
    configure(line(1, "one", 1, "a.so") + line(2, "two", 2, "b.so") + line(3, "three", 3, "c.so"));
    EXPECT_EQ(selected_codes(), (std::vector<unsigned>{1, 2, 3}));
    // A new file gives code 3 a new name and path: the entry keeps its first.
    configure(line(5, "drei", 3, "z.so") + line(4, "four", 4, "d.so"));
    EXPECT_EQ(selected_codes(), (std::vector<unsigned>{3, 4}));
    EXPECT_EQ(SEC_STATE.mpms.count, 4);
    EXPECT_STREQ(sec__get_mpm_entry(3)->name, "three");
    EXPECT_EQ(sec__get_mpm_entry(1)->state, SEC_MPM_S_RESERVED | SEC_MPM_S_NOT_CONFIGURED);
    EXPECT_EQ(sec__get_mpm_entry(99), nullptr);
    // A ninth code is a configuration error, and no token is made.
    configure(eight);
    EXPECT_EQ(selected_codes().size(), 8u);
    configure(line(9, "m9", 9, "x.so"));
    tok_ = &st_;
    EXPECT_EQ(sec_start(&st_, 0, &tok_), 21);
    EXPECT_EQ(last_message(), MSG_2650_019);
    EXPECT_EQ(tok_, nullptr);
    EXPECT_EQ(SEC_STATE.mpms.count, 8);
}

TEST_F(ServiceToken, StartsTheFirstModuleAndEndsEveryStartedOne) {
    configure("# two modules\n" + line(1, "one", 0x101, qvtest::kTestMpm) + line(2, "two", 0x102, qvtest::kTestMpm2));
    long handles = mpm_.live_handles();
    ASSERT_EQ(sec_start(&st_, 0x44, &tok_), 0);
    EXPECT_EQ(std::memcmp(&static_cast<sec_svc_token_t>(tok_)->magic, "vres", 4), 0);
    EXPECT_EQ(mpm_.calls(QVTEST_MPM_START), 1u);
    EXPECT_EQ(mpm_.record(QVTEST_MPM_START).args[0], 0x44u);
    EXPECT_EQ(mpm2_.calls(QVTEST_MPM_START), 0u);  // only the first is started
    EXPECT_EQ(mpm_.live_handles(), handles + 1);
    start_module(0x102);
    // The list is newest first: module two ends first, and only the last
    // module's result is returned.
    mpm2_.behaviour(QVTEST_MPM_END).maj_stat = 5;
    EXPECT_EQ(sec_end(&st_, 0x55, tok_), 0);
    tok_ = nullptr;
    EXPECT_STREQ(st_.desc, "mpm_end");  // the earlier failure's detail stays
    EXPECT_EQ(st_.maj_stat, 0u);
    EXPECT_EQ(mpm2_.calls(QVTEST_MPM_END), 1u);
    EXPECT_EQ(mpm_.calls(QVTEST_MPM_END), 1u);
    EXPECT_EQ(mpm_.record(QVTEST_MPM_END).args[0], 0x55u);
    EXPECT_EQ(mpm_.live_handles(), handles);

    mpm_.reset();
    configure(line(1, "one", 0x101, qvtest::kTestMpm));
    ASSERT_EQ(sec_start(&st_, 0, &tok_), 0);
    mpm_.behaviour(QVTEST_MPM_END).maj_stat = 5;
    mpm_.behaviour(QVTEST_MPM_END).min_stat = 6;
    EXPECT_EQ(sec_end(&st_, 0, tok_), 3);
    tok_ = nullptr;
    EXPECT_EQ(st_.maj_stat, 5u);
    EXPECT_EQ(st_.min_stat, 6u);
    EXPECT_EQ(st_.mech_code, 0x101u);
}

// A token is made whatever the first module does; only a started module is
// ended.
TEST_F(ServiceToken, StartsThatStartNoModule) {
    struct Case {
        const char *what;
        std::string config;
        qv_uint32_t flags, maj;
        qv_uint32_t entry_state;  // of code 0x101 after sec_start
    } cases[] = {
        {"deferred", line(1, "one", 0x101, qvtest::kTestMpm), SEC_F_DEFER_MPM_START, 0, SEC_MPM_S_RESERVED},
        {"nothing configured", "# nothing here\n", 0, 0, 0},
        {"module fails to start", line(1, "one", 0x101, qvtest::kTestMpm), 0, 9,
         SEC_MPM_S_RESERVED | SEC_MPM_S_LOADED},
        {"module cannot be loaded", line(1, "one", 0x101, "missing.so"), 0, 0, SEC_MPM_S_RESERVED},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        qvtest::clear_mpm_table();
        mpm_.reset();
        mpm_.behaviour(QVTEST_MPM_START).maj_stat = c.maj;
        configure(c.config);
        ASSERT_EQ(sec_start(&st_, c.flags, &tok_), 0);
        EXPECT_EQ(last_message(), -1);  // a failure's error record is dropped
        EXPECT_EQ(st_.maj_stat, c.maj);
        EXPECT_STREQ(st_.desc, c.maj ? "mpm_start" : "");
        sec_mpm_entry_t e = sec__get_mpm_entry(0x101);
        EXPECT_EQ(e ? e->state & (SEC_MPM_S_RESERVED | SEC_MPM_S_LOADED) : 0u, c.entry_state);
        EXPECT_EQ(mpm_.calls(QVTEST_MPM_START), c.maj ? 1u : 0u);
        EXPECT_EQ(sec_end(&st_, 0, tok_), 0);
        tok_ = nullptr;
        EXPECT_EQ(mpm_.calls(QVTEST_MPM_END), 0u);
    }
    EXPECT_EQ(sec_end(&st_, 0, nullptr), 0);  // no token: nothing to end
}

class SetupSocket : public ServiceToken {
protected:
    void SetUp() override {
        ServiceToken::SetUp();
        configure("# none\n");
        ASSERT_EQ(sec_start(&st_, 0, &tok_), 0);
    }
    void TearDown() override {
        close(local_);
        close(inet_);
        ServiceToken::TearDown();
    }
    static void discard(sec_token_t ctx) {
        auto *c = static_cast<sec_ctx_token_t>(ctx);
        if (c->sinfo.path != nullptr) unlink(c->sinfo.path);
        free(c->sinfo.path);
        free(c);
    }
    int local_ = socket(AF_UNIX, SOCK_STREAM, 0), inet_ = socket(AF_INET, SOCK_STREAM, 0);
};

// Sockets the library cannot bind, and sockets it leaves as they are.
TEST_F(SetupSocket, BindOrLeaveAlone) {
    std::string longest = "/nonexistent-directory/";
    longest.resize(68, 'p');
    sec_status_desc bogus{};
    const std::tuple<int, qv_uint32_t, const char *, qv_int32_t> cases[] = {
        {inet_, SEC_F_LOCAL_SOCKET | SEC_F_SOCKET_BOUND, nullptr, 10},  // a local flag on a network socket
        {local_, SEC_F_LOCAL_SOCKET, longest.c_str(), 10},              // a prefix in a missing directory
        {local_, SEC_F_LOCAL_SOCKET | SEC_F_SOCKET_BOUND, nullptr, 0},
        {inet_, SEC_F_NETWORK_SOCKET, nullptr, 0},
    };
    for (const auto &[fd, flags, prefix, rc] : cases) {
        SCOPED_TRACE(flags);
        sec_token_t ctx = &bogus;
        cu_set_no_error_1();
        EXPECT_EQ(sec_setup_socket(tok_, fd, flags, const_cast<char *>(prefix), &ctx), rc);
        EXPECT_EQ(last_message(), rc != 0 ? MSG_2650_008 : -1);
        if (rc != 0) {
            EXPECT_EQ(ctx, nullptr);  // discarded after it was made
            continue;
        }
        EXPECT_EQ(static_cast<sec_ctx_token_t>(ctx)->sinfo.path, nullptr);  // not bound by the library
        discard(ctx);
    }
    std::string path_too_long(100, 'p');
    char *path = nullptr;
    EXPECT_EQ(sec__bind_unix_socket(local_, path_too_long.data(), &path), 4u);
    EXPECT_EQ(path, nullptr);
}

TEST_F(SetupSocket, LocalSocketIsBoundToAUniquePath) {
    std::string prefix = dir_.path() + "/";
    sec_token_t ctx = nullptr;
    ASSERT_EQ(sec_setup_socket(tok_, local_, SEC_F_LOCAL_SOCKET, prefix.data(), &ctx), 0);
    auto *c = static_cast<sec_ctx_token_t>(ctx);
    EXPECT_EQ(c->sinfo.type, SEC_F_LOCAL_SOCKET | 0x80000000u);  // the library bound it
    // prefix "sec" pid thread, then 16 hex digits.
    char head[64];
    std::snprintf(head, sizeof head, "%ssec%x%x", prefix.c_str(), static_cast<unsigned>(getpid()),
                  static_cast<unsigned>(reinterpret_cast<uintptr_t>(pthread_self())));
    ASSERT_NE(c->sinfo.path, nullptr);
    std::string path = c->sinfo.path;
    EXPECT_EQ(path.rfind(head, 0), 0u) << path;
    EXPECT_EQ(path.size(), std::strlen(head) + 16);
    EXPECT_EQ(path.find_first_not_of("0123456789abcdef", std::strlen(head)), std::string::npos) << path;
    struct sockaddr_un bound{};
    socklen_t len = sizeof bound;
    ASSERT_EQ(getsockname(local_, reinterpret_cast<sockaddr *>(&bound), &len), 0);
    EXPECT_STREQ(bound.sun_path, c->sinfo.path);
    discard(ctx);
}

}  // namespace
