// Service tokens over configured test modules: sec_start, sec_end and
// sec_setup_socket, the module table they build (reservation, selection and
// the 8-entry limit), and the service's identity: sec_login_as_service,
// sec_renew_identity and sec_login_as_user (the start of each module for the
// token, the first failure kept across modules, and the bits that record
// which module the service is logged in to).
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "messages.h"
#include "mpm.h"
#include "context_test_harness.h"
#include "sec_test_util.h"

namespace {

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
    EXPECT_STREQ(sec__get_mpm_entry(3)->name, "three");
    EXPECT_EQ(sec__get_mpm_entry(99), nullptr);
    // A ninth code is a configuration error, and no token is made.
    configure(eight);
    EXPECT_EQ(selected_codes().size(), 8u);
    configure(line(9, "m9", 9, "x.so"));
    tok_ = &st_;
    EXPECT_EQ(sec_start(&st_, 0, &tok_), 21);
    EXPECT_EQ(last_message(), MSG_2650_019);
    EXPECT_EQ(tok_, nullptr);
}

TEST_F(ServiceToken, StartsTheFirstModuleAndEndsEveryStartedOne) {
    configure("# two modules\n" + line(1, "one", 0x101, qvtest::kTestMpm) + line(2, "two", 0x102, qvtest::kTestMpm2));
    long handles = mpm_.live_handles();
    ASSERT_EQ(sec_start(&st_, 0x44, &tok_), 0);
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
    EXPECT_EQ(status_text(st_), "5 6 0x101 mpm_end");
}

// A token is made whatever the first module does; only a started module is
// ended.
TEST_F(ServiceToken, StartsThatStartNoModule) {
    struct Case {
        const char *what;
        std::string config;
        qv_uint32_t flags, maj;
    } cases[] = {
        {"deferred", line(1, "one", 0x101, qvtest::kTestMpm), SEC_F_DEFER_MPM_START, 0},
        {"nothing configured", "# nothing here\n", 0, 0},
        {"module fails to start", line(1, "one", 0x101, qvtest::kTestMpm), 0, 9},
        {"module cannot be loaded", line(1, "one", 0x101, "missing.so"), 0, 0},
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

TEST_F(SetupSocket, LocalSocketIsBoundUnderThePrefix) {
    std::string prefix = dir_.path() + "/";
    sec_token_t ctx = nullptr;
    ASSERT_EQ(sec_setup_socket(tok_, local_, SEC_F_LOCAL_SOCKET, prefix.data(), &ctx), 0);
    auto *c = static_cast<sec_ctx_token_t>(ctx);
    ASSERT_NE(c->sinfo.path, nullptr);
    EXPECT_EQ(std::string(c->sinfo.path).rfind(prefix + "sec", 0), 0u) << c->sinfo.path;
    struct sockaddr_un bound{};
    socklen_t len = sizeof bound;
    ASSERT_EQ(getsockname(local_, reinterpret_cast<sockaddr *>(&bound), &len), 0);
    EXPECT_STREQ(bound.sun_path, c->sinfo.path);
    discard(ctx);
}

// ---- The service's identity ----


// Every byte of the second code differs, so that a typed id's code read in
// the wrong order names no configured module.
constexpr qv_uint32_t kCode1 = 0x101, kCode2 = 0x0a0b0c0d;
char kService[] = "qvsvc";

class ServiceLogin : public qvtest::MpmFixture {
protected:
    void SetUp() override {
        MpmFixture::SetUp();
        configure(line(1, "one", kCode1, qvtest::kTestMpm) + line(2, "two", kCode2, qvtest::kTestMpm2));
    }
    void TearDown() override {
        end();
        MpmFixture::TearDown();
    }
    // A service token; with `defer` no module is started by sec_start.
    sec_svc_token_t start(bool defer = true) {
        handles1_ = m1_.live_handles();
        handles2_ = m2_.live_handles();
        sec_status_desc st{};
        EXPECT_EQ(sec_start(&st, defer ? SEC_F_DEFER_MPM_START : 0u, &token_), 0);
        return static_cast<sec_svc_token_t>(token_);
    }
    // Ends the token; every module handle made for it is given back.
    void end() {
        sec_status_desc st{};
        if (token_ != nullptr) sec_end(&st, 0, token_);
        token_ = nullptr;
        EXPECT_EQ(m1_.live_handles(), handles1_);
        EXPECT_EQ(m2_.live_handles(), handles2_);
    }
    // The token's data for a module (nullptr when it has none).
    sec_mech_data_t mdata(qv_uint32_t code) {
        for (sec_mech_data_t m = static_cast<sec_svc_token_t>(token_)->mdata_list; m != nullptr; m = m->next)
            if (m->mpm->code == code) return m;
        return nullptr;
    }

    TestMpm m1_;
    TestMpm m2_{qvtest::kTestMpm2};
    sec_token_t token_ = nullptr;
    long handles1_ = 0, handles2_ = 0;
};

TEST_F(ServiceLogin, FirstFailureIsKeptAcrossModules) {
    struct Case {
        const char *what;
        qv_uint32_t start1, login1, start2, login2;
        qv_int32_t rc;
        const char *status;
        qv_uint32_t bits1, bits2;  // the token's data afterwards
    } cases[] = {
        {"first login fails, second succeeds", 0, 11, 0, 0, 0, "0 0 0x0 ", 0x1, 0x5},
        {"first succeeds, second fails", 0, 0, 0, 12, 0, "0 0 0x0 ", 0x5, 0x1},
        {"both logins fail", 0, 11, 0, 12, 3, "11 113 0x101 mpm_login_as_service", 0x1, 0x1},
        {"first cannot start, second login fails", 7, 0, 0, 12, 3, "7 0 0x101 mpm_start", 0x0, 0x1},
        {"first login fails, second cannot start", 0, 11, 8, 0, 3, "11 113 0x101 mpm_login_as_service", 0x1, 0x0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        m1_.reset();
        m2_.reset();
        m1_.behaviour(QVTEST_MPM_START).maj_stat = c.start1;
        m1_.behaviour(QVTEST_MPM_LOGIN_AS_SERVICE).maj_stat = c.login1;
        m1_.behaviour(QVTEST_MPM_LOGIN_AS_SERVICE).min_stat = 0x71;
        m2_.behaviour(QVTEST_MPM_START).maj_stat = c.start2;
        m2_.behaviour(QVTEST_MPM_LOGIN_AS_SERVICE).maj_stat = c.login2;
        sec_svc_token_t svc = start();
        sec_status_desc st{};
        EXPECT_EQ(sec_login_as_service(&st, kService, svc), c.rc);
        EXPECT_EQ(status_text(st), c.status);
        EXPECT_TRUE(c.rc != 0 || last_message() == -1);
        ASSERT_TRUE(mdata(kCode1) != nullptr && mdata(kCode2) != nullptr);
        EXPECT_EQ(mdata(kCode1)->state, c.bits1);
        EXPECT_EQ(mdata(kCode2)->state, c.bits2);
        end();
    }
}

// A module that cannot be loaded: the loader's failure, with its message;
// with a working second module the login succeeds and the error goes.
TEST_F(ServiceLogin, NoUsableModule) {
    sec_status_desc st{};
    configure(line(1, "one", 0x201, "missing.so") + line(2, "two", kCode2, qvtest::kTestMpm2));
    m2_.behaviour(QVTEST_MPM_LOGIN_AS_SERVICE).maj_stat = 12;
    EXPECT_EQ(sec_login_as_service(&st, kService, start()), 22);
    EXPECT_EQ(last_message(), MSG_2650_050);
    EXPECT_EQ(st.maj_stat, 0u);  // the load failure touched no status
    end();
    m2_.reset();
    EXPECT_EQ(sec_login_as_service(&st, kService, start()), 0);
    EXPECT_EQ(last_message(), -1);
}

// ---- sec_renew_identity ----

TEST_F(ServiceLogin, RenewKeepsTheFirstFailure) {
    struct Case {
        const char *what;
        qv_uint32_t state;  // added to the token: 0x4 logged in by request, 0x2 renewable only
        qv_uint32_t login1, renew1, renew2;
        qv_int32_t rc;
        const char *status;
        unsigned long logins1, renews1;
    } cases[] = {
        {"first login fails, second renews", 0x4, 11, 0, 0, 0, "0 0 0x0 ", 1, 0},
        {"first renew fails, second renews", 0x4, 0, 13, 0, 0, "0 0 0x0 ", 1, 1},
        {"first login fails, second renew fails", 0x4, 11, 0, 14, 3, "11 0 0x101 mpm_login_as_service", 1, 0},
        {"both renewals fail", 0x4, 0, 13, 14, 3, "13 0 0x101 mpm_renew_identity", 1, 1},
        {"renewable without a login renews only", 0x2, 0, 0, 0, 0, "0 0 0x0 ", 0, 1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        m1_.reset();
        m2_.reset();
        sec_svc_token_t svc = start();
        svc->state |= c.state;
        svc->svc_name = strdup("qvsvc");
        m1_.behaviour(QVTEST_MPM_LOGIN_AS_SERVICE).maj_stat = c.login1;
        m1_.behaviour(QVTEST_MPM_RENEW_IDENTITY).maj_stat = c.renew1;
        m2_.behaviour(QVTEST_MPM_RENEW_IDENTITY).maj_stat = c.renew2;
        sec_status_desc st{};
        EXPECT_EQ(sec_renew_identity(&st, 60, svc), c.rc);
        EXPECT_EQ(status_text(st), c.status);
        EXPECT_EQ(m1_.calls(QVTEST_MPM_LOGIN_AS_SERVICE), c.logins1);
        EXPECT_EQ(m1_.calls(QVTEST_MPM_RENEW_IDENTITY), c.renews1);
        EXPECT_EQ(m2_.calls(QVTEST_MPM_RENEW_IDENTITY), 1u);
        end();
    }
}

// ---- sec_login_as_user ----

std::vector<unsigned char> typed_id(qv_uint32_t code, const std::string &body) {
    using ctxtest::operator+;
    return ctxtest::Bytes{SEC_BUF_TYPED_ID, 2} + ctxtest::be32(code) + ctxtest::text(body);
}

// The header's checks (type, version 1 or 2, length, known code) and the
// body the module gets are also the typed-id fuzzer's model over its seeds;
// here one row per outcome, the arguments passed on, and what the fuzzer
// cannot give (no value, a negative length, a module that does not start).
TEST_F(ServiceLogin, UserLogin) {
    sec_svc_token_t svc = start();
    auto good = typed_id(kCode2, std::string("alice\0pw", 8));
    struct Case {
        const char *what;
        std::vector<unsigned char> bytes;
        qv_int32_t length;  // -1: the bytes' size
        bool null_value;
        int failing;        // the module routine made to fail, -1: none
        qv_int32_t rc;
        int msg;
    } cases[] = {
        {"no bytes", good, -1, true, -1, 7, MSG_2650_005},
        {"negative length", good, -4, false, -1, 7, MSG_2650_005},
        {"unknown mechanism", typed_id(0x999, "alice"), -1, false, -1, 8, MSG_2650_006},
        {"start fails", good, -1, false, QVTEST_MPM_START, 3, -1},
        {"login fails", good, -1, false, QVTEST_MPM_LOGIN_AS_USER, 3, -1},
        {"version 2", good, -1, false, -1, 0, -1},
    };
    int authenticator = 0;
    for (Case &c : cases) {
        SCOPED_TRACE(c.what);
        m2_.reset();
        if (c.failing >= 0) {
            m2_.behaviour(c.failing).maj_stat = 15;
            m2_.behaviour(c.failing).min_stat = 3;
        }
        sec_buffer_desc id{c.length >= 0 || c.length < -1 ? c.length : static_cast<qv_int32_t>(c.bytes.size()),
                           c.null_value ? nullptr : c.bytes.data()};
        sec_status_desc st{};
        cu_set_no_error_1();
        EXPECT_EQ(sec_login_as_user(&st, svc, &id, &authenticator, 0xabcd), c.rc);
        EXPECT_EQ(last_message(), c.msg);
        EXPECT_EQ(st.maj_stat, c.failing >= 0 ? 15u : 0u);
        EXPECT_EQ(st.mech_code, c.failing >= 0 ? kCode2 : 0u);
        EXPECT_EQ(m2_.calls(QVTEST_MPM_LOGIN_AS_USER), c.rc == 0 || c.failing == QVTEST_MPM_LOGIN_AS_USER ? 1u : 0u);
        if (c.rc != 0) continue;
        const qvtest_mpm_call_t &r = m2_.record(QVTEST_MPM_LOGIN_AS_USER);
        ASSERT_EQ(r.in_len, static_cast<qv_int32_t>(c.bytes.size() - 6));
        EXPECT_EQ(std::memcmp(r.in, c.bytes.data() + 6, c.bytes.size() - 6), 0);
        EXPECT_EQ(r.args[1], reinterpret_cast<uintptr_t>(&authenticator));
        EXPECT_EQ(r.args[2], 0xabcdu);
        EXPECT_EQ(r.args[3], reinterpret_cast<uintptr_t>(mdata(kCode2)->mtoken));
        EXPECT_EQ(mdata(kCode2)->state, 0x1u);  // started, no service login recorded
    }
    EXPECT_EQ(svc->state, 0x1u);
    EXPECT_EQ(m1_.calls(QVTEST_MPM_START) + m1_.calls(QVTEST_MPM_LOGIN_AS_USER), 0u);
}

}  // namespace
