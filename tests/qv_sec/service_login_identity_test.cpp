// sec_login_as_service, sec_renew_identity and sec_login_as_user over two
// configured test modules: argument checks, the start of each module for the
// token, the first failure kept across modules, and the bits that record
// which module the service is logged in to.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "messages.h"
#include "mpm_test_fixture.h"
#include "sec_test_util.h"

namespace {

using qvtest::TestMpm;

constexpr qv_uint32_t kCode1 = 0x101;
constexpr qv_uint32_t kCode2 = 0x102;

class ServiceLogin : public qvtest::MpmFixture {
protected:
    void SetUp() override {
        MpmFixture::SetUp();
        configure(line(1, "one", kCode1, qvtest::kTestMpm) + line(2, "two", kCode2, qvtest::kTestMpm2));
    }
    void TearDown() override {
        if (token_ != nullptr) {
            sec_status_desc st{};
            sec_end(&st, 0, token_);
        }
        EXPECT_EQ(m1_.live_handles(), handles1_);
        EXPECT_EQ(m2_.live_handles(), handles2_);
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
    // The token's data for a module (nullptr when it has none).
    sec_mech_data_t mdata(qv_uint32_t code) {
        auto *svc = static_cast<sec_svc_token_t>(token_);
        for (sec_mech_data_t m = svc->mdata_list; m != nullptr; m = m->next)
            if (m->mpm->code == code) return m;
        return nullptr;
    }
    static std::string desc(const sec_status_desc &st) { return st.desc; }

    TestMpm m1_;
    TestMpm m2_{qvtest::kTestMpm2};
    sec_token_t token_ = nullptr;
    long handles1_ = 0, handles2_ = 0;
};

char kService[] = "qvsvc";

// ---- sec_login_as_service ----

TEST_F(ServiceLogin, LogsInToEveryModuleStartingEach) {
    sec_svc_token_t svc = start();
    sec_status_desc st{};
    ASSERT_EQ(sec_login_as_service(&st, kService, svc), 0);
    for (qv_uint32_t code : {kCode1, kCode2}) {
        TestMpm &m = code == kCode1 ? m1_ : m2_;
        SCOPED_TRACE(code);
        sec_mech_data_t d = mdata(code);
        ASSERT_NE(d, nullptr);
        EXPECT_EQ(d->state, 0x5u);
        EXPECT_EQ(m.calls(QVTEST_MPM_START), 1u);
        EXPECT_EQ(m.record(QVTEST_MPM_START).args[0], SEC_F_DEFER_MPM_START);  // the token's flags
        EXPECT_EQ(m.calls(QVTEST_MPM_LOGIN_AS_SERVICE), 1u);
        EXPECT_STREQ(m.record(QVTEST_MPM_LOGIN_AS_SERVICE).str[0], "qvsvc");
        EXPECT_EQ(m.record(QVTEST_MPM_LOGIN_AS_SERVICE).args[1], reinterpret_cast<uintptr_t>(d->mtoken));
    }
    // Once per token.
    EXPECT_EQ(sec_login_as_service(&st, kService, svc), 5);
    EXPECT_EQ(last_message(), MSG_2650_003);
    EXPECT_EQ(m1_.calls(QVTEST_MPM_LOGIN_AS_SERVICE), 1u);
}

TEST_F(ServiceLogin, ModuleStartedBySecStartIsNotStartedAgain) {
    sec_svc_token_t svc = start(false);
    ASSERT_EQ(m1_.calls(QVTEST_MPM_START), 1u);
    sec_status_desc st{};
    ASSERT_EQ(sec_login_as_service(&st, kService, svc), 0);
    EXPECT_EQ(m1_.calls(QVTEST_MPM_START), 1u);
    EXPECT_EQ(m2_.calls(QVTEST_MPM_START), 1u);
}

TEST_F(ServiceLogin, FirstFailureIsKeptAcrossModules) {
    struct Case {
        const char *what;
        qv_uint32_t start1, login1, start2, login2;
        qv_int32_t rc;
        qv_uint32_t maj, mech;
        const char *desc;
        qv_uint32_t bits1, bits2;  // the token's data afterwards
    } cases[] = {
        {"first login fails, second succeeds", 0, 11, 0, 0, 0, 0, 0, "", 0x1, 0x5},
        {"first succeeds, second fails", 0, 0, 0, 12, 0, 0, 0, "", 0x5, 0x1},
        {"both logins fail", 0, 11, 0, 12, 3, 11, kCode1, "mpm_login_as_service", 0x1, 0x1},
        {"first cannot start, second login fails", 7, 0, 0, 12, 3, 7, kCode1, "mpm_start", 0x0, 0x1},
        {"first login fails, second cannot start", 0, 11, 8, 0, 3, 11, kCode1, "mpm_login_as_service", 0x1, 0x0},
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
        m2_.behaviour(QVTEST_MPM_LOGIN_AS_SERVICE).min_stat = 0x72;
        sec_svc_token_t svc = start();
        sec_status_desc st{};
        EXPECT_EQ(sec_login_as_service(&st, kService, svc), c.rc);
        EXPECT_EQ(st.maj_stat, c.maj);
        EXPECT_EQ(st.mech_code, c.mech);
        EXPECT_EQ(desc(st), c.desc);
        if (c.rc == 0) {
            EXPECT_EQ(last_message(), -1);
        }
        if (c.desc == std::string("mpm_login_as_service")) {
            EXPECT_EQ(st.min_stat, 0x71u);
        }
        ASSERT_NE(mdata(kCode1), nullptr);
        ASSERT_NE(mdata(kCode2), nullptr);
        EXPECT_EQ(mdata(kCode1)->state, c.bits1);
        EXPECT_EQ(mdata(kCode2)->state, c.bits2);
        sec_end(&st, 0, token_);
        token_ = nullptr;
        EXPECT_EQ(m1_.live_handles(), handles1_);
        EXPECT_EQ(m2_.live_handles(), handles2_);
    }
}

TEST_F(ServiceLogin, UnloadableModuleFailureIsKeptWithItsMessage) {
    configure(line(1, "one", 0x201, "missing.so") + line(2, "two", kCode2, qvtest::kTestMpm2));
    m2_.behaviour(QVTEST_MPM_LOGIN_AS_SERVICE).maj_stat = 12;
    sec_svc_token_t svc = start();
    sec_status_desc st{};
    EXPECT_EQ(sec_login_as_service(&st, kService, svc), 22);
    EXPECT_EQ(last_message(), MSG_2650_050);
    EXPECT_EQ(st.maj_stat, 0u);  // the load failure touched no status

    // With the second module working the login succeeds and the error goes.
    m2_.reset();
    sec_end(&st, 0, token_);
    svc = start();
    EXPECT_EQ(sec_login_as_service(&st, kService, svc), 0);
    EXPECT_EQ(last_message(), -1);
}

TEST_F(ServiceLogin, NoModuleConfigured) {
    configure("# none\n");
    sec_svc_token_t svc = start();
    sec_status_desc st{};
    EXPECT_EQ(sec_login_as_service(&st, kService, svc), 21);
    EXPECT_EQ(last_message(), MSG_2650_019);
}

// ---- sec_renew_identity ----

TEST_F(ServiceLogin, RenewDoesNotLookAtTheStartedBit) {
    sec_svc_token_t svc = start();
    svc->state = 0;
    sec_status_desc st{};
    EXPECT_EQ(sec_renew_identity(&st, 3600, svc), 0);
    svc->state = 1;
}

TEST_F(ServiceLogin, NothingToRenew) {
    sec_svc_token_t svc = start();
    sec_status_desc st{};
    EXPECT_EQ(sec_renew_identity(&st, 3600, svc), 0);  // never logged in
    ASSERT_EQ(sec_login_as_service(&st, kService, svc), 0);
    EXPECT_EQ(sec_renew_identity(&st, 0, svc), 0);  // no lifetime
    EXPECT_EQ(m1_.calls(QVTEST_MPM_RENEW_IDENTITY) + m2_.calls(QVTEST_MPM_RENEW_IDENTITY), 0u);
}

TEST_F(ServiceLogin, RenewsEveryModuleAndLogsInTheMissingOnes) {
    m1_.behaviour(QVTEST_MPM_LOGIN_AS_SERVICE).maj_stat = 11;
    sec_svc_token_t svc = start();
    sec_status_desc st{};
    ASSERT_EQ(sec_login_as_service(&st, kService, svc), 0);
    ASSERT_EQ(mdata(kCode1)->state, 0x1u);

    m1_.reset();
    ASSERT_EQ(sec_renew_identity(&st, 7200, svc), 0);
    EXPECT_EQ(m1_.calls(QVTEST_MPM_LOGIN_AS_SERVICE), 1u);
    EXPECT_STREQ(m1_.record(QVTEST_MPM_LOGIN_AS_SERVICE).str[0], "qvsvc");
    EXPECT_EQ(mdata(kCode1)->state, 0x5u);
    EXPECT_EQ(m2_.calls(QVTEST_MPM_LOGIN_AS_SERVICE), 1u);  // already logged in: not again
    for (qv_uint32_t code : {kCode1, kCode2}) {
        TestMpm &m = code == kCode1 ? m1_ : m2_;
        EXPECT_EQ(m.calls(QVTEST_MPM_RENEW_IDENTITY), 1u);
        EXPECT_EQ(m.record(QVTEST_MPM_RENEW_IDENTITY).args[0], reinterpret_cast<uintptr_t>(mdata(code)->mtoken));
    }
}

TEST_F(ServiceLogin, RenewKeepsTheFirstFailure) {
    struct Case {
        const char *what;
        qv_uint32_t login1, renew1, renew2;
        qv_int32_t rc;
        qv_uint32_t maj;
        const char *desc;
        unsigned long renews1;
    } cases[] = {
        {"first login fails, second renews", 11, 0, 0, 0, 0, "", 0},
        {"first renew fails, second renews", 0, 13, 0, 0, 0, "", 1},
        {"first login fails, second renew fails", 11, 0, 14, 3, 11, "mpm_login_as_service", 0},
        {"both renewals fail", 0, 13, 14, 3, 13, "mpm_renew_identity", 1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        m1_.reset();
        m2_.reset();
        sec_svc_token_t svc = start();
        // Logged in by request only: the modules log in during the renewal.
        svc->state |= 0x4;
        svc->svc_name = strdup("qvsvc");
        m1_.behaviour(QVTEST_MPM_LOGIN_AS_SERVICE).maj_stat = c.login1;
        m1_.behaviour(QVTEST_MPM_RENEW_IDENTITY).maj_stat = c.renew1;
        m2_.behaviour(QVTEST_MPM_RENEW_IDENTITY).maj_stat = c.renew2;
        sec_status_desc st{};
        EXPECT_EQ(sec_renew_identity(&st, 60, svc), c.rc);
        EXPECT_EQ(st.maj_stat, c.maj);
        EXPECT_EQ(desc(st), c.desc);
        EXPECT_EQ(st.mech_code, c.rc ? kCode1 : 0u);
        EXPECT_EQ(m1_.calls(QVTEST_MPM_RENEW_IDENTITY), c.renews1);
        EXPECT_EQ(m2_.calls(QVTEST_MPM_RENEW_IDENTITY), 1u);
        sec_end(&st, 0, token_);
        token_ = nullptr;
    }
}

TEST_F(ServiceLogin, RenewableStateWithoutLoginRenewsOnly) {
    sec_svc_token_t svc = start();
    svc->state |= 0x2;
    sec_status_desc st{};
    EXPECT_EQ(sec_renew_identity(&st, 60, svc), 0);
    EXPECT_EQ(m1_.calls(QVTEST_MPM_LOGIN_AS_SERVICE), 0u);
    EXPECT_EQ(m1_.calls(QVTEST_MPM_RENEW_IDENTITY), 1u);
    EXPECT_EQ(m2_.calls(QVTEST_MPM_RENEW_IDENTITY), 1u);
    EXPECT_EQ(mdata(kCode1)->state, 0x1u);
}

// ---- sec_login_as_user ----

std::vector<unsigned char> typed_id(unsigned char type, unsigned char version, qv_uint32_t code, const std::string &body) {
    std::vector<unsigned char> b = {type, version, static_cast<unsigned char>(code >> 24),
                                    static_cast<unsigned char>(code >> 16), static_cast<unsigned char>(code >> 8),
                                    static_cast<unsigned char>(code)};
    for (char ch : body) b.push_back(static_cast<unsigned char>(ch));
    return b;
}

TEST_F(ServiceLogin, UserLoginRefusesBadIdentityBuffers) {
    sec_svc_token_t svc = start();
    auto good = typed_id(0x83, 2, kCode2, "alice");
    struct Case {
        const char *what;
        std::vector<unsigned char> bytes;
        qv_int32_t length;  // -1: the bytes' size
        bool null_value;
        qv_int32_t rc;
        int msg;
    } cases[] = {
        {"empty buffer", good, 0, false, 7, MSG_2650_005},
        {"no bytes", good, -1, true, 7, MSG_2650_005},
        {"negative length", good, -4, false, 7, MSG_2650_005},
        {"shorter than its header", good, 5, false, 7, MSG_2650_005},
        {"not a typed id", typed_id(0x82, 2, kCode2, "alice"), -1, false, 7, MSG_2650_005},
        {"version 0", typed_id(0x83, 0, kCode2, "alice"), -1, false, 7, MSG_2650_005},
        {"version 3", typed_id(0x83, 3, kCode2, "alice"), -1, false, 7, MSG_2650_005},
        {"unknown mechanism", typed_id(0x83, 2, 0x999, "alice"), -1, false, 8, MSG_2650_006},
    };
    for (Case &c : cases) {
        SCOPED_TRACE(c.what);
        sec_buffer_desc id{c.length >= 0 || c.length < -1 ? c.length : static_cast<qv_int32_t>(c.bytes.size()),
                           c.null_value ? nullptr : c.bytes.data()};
        sec_status_desc st{};
        EXPECT_EQ(sec_login_as_user(&st, svc, &id, nullptr, 0), c.rc);
        EXPECT_EQ(last_message(), c.msg);
    }
    EXPECT_EQ(m1_.calls(QVTEST_MPM_START) + m2_.calls(QVTEST_MPM_START), 0u);
    EXPECT_EQ(m2_.calls(QVTEST_MPM_LOGIN_AS_USER), 0u);
}

TEST_F(ServiceLogin, UserLoginGoesToTheNamedModuleOnly) {
    sec_svc_token_t svc = start();
    int authenticator = 0;
    for (unsigned char version : {1, 2}) {
        SCOPED_TRACE(int(version));
        auto bytes = typed_id(0x83, version, kCode2, "alice\0pw");
        sec_buffer_desc id{static_cast<qv_int32_t>(bytes.size()), bytes.data()};
        sec_status_desc st{};
        ASSERT_EQ(sec_login_as_user(&st, svc, &id, &authenticator, 0xabcd), 0);
        const qvtest_mpm_call_t &r = m2_.record(QVTEST_MPM_LOGIN_AS_USER);
        ASSERT_EQ(r.in_len, static_cast<qv_int32_t>(bytes.size() - 6));
        EXPECT_EQ(std::memcmp(r.in, bytes.data() + 6, bytes.size() - 6), 0);
        EXPECT_EQ(r.args[1], reinterpret_cast<uintptr_t>(&authenticator));
        EXPECT_EQ(r.args[2], 0xabcdu);
        EXPECT_EQ(r.args[3], reinterpret_cast<uintptr_t>(mdata(kCode2)->mtoken));
    }
    EXPECT_EQ(m2_.calls(QVTEST_MPM_START), 1u);  // started once, for the first login
    EXPECT_EQ(mdata(kCode2)->state, 0x1u);       // no service login recorded
    EXPECT_EQ(svc->state, 0x1u);
    EXPECT_EQ(m1_.calls(QVTEST_MPM_START) + m1_.calls(QVTEST_MPM_LOGIN_AS_USER), 0u);

    // A buffer that is only a header gives the module no bytes.
    auto header = typed_id(0x83, 2, kCode2, "");
    sec_buffer_desc id{6, header.data()};
    sec_status_desc st{};
    ASSERT_EQ(sec_login_as_user(&st, svc, &id, nullptr, 0), 0);
    EXPECT_EQ(m2_.record(QVTEST_MPM_LOGIN_AS_USER).in_len, 0);
}

TEST_F(ServiceLogin, UserLoginModuleFailures) {
    struct Case {
        const char *what;
        int routine;
        const char *desc;
        unsigned long logins;
    } cases[] = {
        {"start fails", QVTEST_MPM_START, "mpm_start", 0},
        {"login fails", QVTEST_MPM_LOGIN_AS_USER, "mpm_login_as_user", 1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        m2_.reset();
        m2_.behaviour(c.routine).maj_stat = 15;
        m2_.behaviour(c.routine).min_stat = 3;
        sec_svc_token_t svc = start();
        auto bytes = typed_id(0x83, 2, kCode2, "bob");
        sec_buffer_desc id{static_cast<qv_int32_t>(bytes.size()), bytes.data()};
        sec_status_desc st{};
        EXPECT_EQ(sec_login_as_user(&st, svc, &id, nullptr, 0), 3);
        EXPECT_EQ(st.maj_stat, 15u);
        EXPECT_EQ(st.min_stat, 3u);
        EXPECT_EQ(st.mech_code, kCode2);
        EXPECT_EQ(desc(st), c.desc);
        EXPECT_EQ(m2_.calls(QVTEST_MPM_LOGIN_AS_USER), c.logins);
        sec_end(&st, 0, token_);
        token_ = nullptr;
    }
}

}  // namespace
