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
    TestMpm &module(qv_uint32_t code) { return code == kCode1 ? m1_ : m2_; }

    TestMpm m1_;
    TestMpm m2_{qvtest::kTestMpm2};
    sec_token_t token_ = nullptr;
    long handles1_ = 0, handles2_ = 0;
};

TEST_F(ServiceLogin, LogsInToEveryModuleStartingEach) {
    sec_svc_token_t svc = start();
    sec_status_desc st{};
    char empty[] = "";
    EXPECT_EQ(sec_login_as_service(&st, empty, svc), 4);
    EXPECT_EQ(last_message(), MSG_2650_002);
    ASSERT_EQ(sec_login_as_service(&st, kService, svc), 0);
    for (qv_uint32_t code : {kCode1, kCode2}) {
        TestMpm &m = module(code);
        SCOPED_TRACE(code);
        sec_mech_data_t d = mdata(code);
        ASSERT_NE(d, nullptr);
        EXPECT_EQ(d->state, 0x5u);
        EXPECT_EQ(m.calls(QVTEST_MPM_START), 1u);
        EXPECT_EQ(m.record(QVTEST_MPM_START).args[0], SEC_F_DEFER_MPM_START);  // the token's flags
        EXPECT_STREQ(m.record(QVTEST_MPM_LOGIN_AS_SERVICE).str[0], "qvsvc");
        EXPECT_EQ(m.record(QVTEST_MPM_LOGIN_AS_SERVICE).args[1], reinterpret_cast<uintptr_t>(d->mtoken));
    }
    // Once per token.
    EXPECT_EQ(sec_login_as_service(&st, kService, svc), 5);
    EXPECT_EQ(last_message(), MSG_2650_003);
    EXPECT_EQ(m1_.calls(QVTEST_MPM_LOGIN_AS_SERVICE), 1u);

    // A module that sec_start started is not started again.
    end();
    m1_.reset();
    m2_.reset();
    svc = start(false);
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
        sec_svc_token_t svc = start();
        sec_status_desc st{};
        EXPECT_EQ(sec_login_as_service(&st, kService, svc), c.rc);
        EXPECT_EQ(st.maj_stat, c.maj);
        EXPECT_EQ(st.mech_code, c.mech);
        EXPECT_STREQ(st.desc, c.desc);
        EXPECT_EQ(st.min_stat, std::strcmp(c.desc, "mpm_login_as_service") ? 0u : 0x71u);
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

TEST_F(ServiceLogin, RenewsEveryModuleAndLogsInTheMissingOnes) {
    sec_svc_token_t svc = start();
    sec_status_desc st{};
    svc->state = 0;  // the started bit is not looked at
    EXPECT_EQ(sec_renew_identity(&st, 3600, svc), 0);  // never logged in: nothing to renew
    svc->state = 1;
    m1_.behaviour(QVTEST_MPM_LOGIN_AS_SERVICE).maj_stat = 11;
    ASSERT_EQ(sec_login_as_service(&st, kService, svc), 0);
    EXPECT_EQ(sec_renew_identity(&st, 0, svc), 0);  // no lifetime
    EXPECT_EQ(m1_.calls(QVTEST_MPM_RENEW_IDENTITY) + m2_.calls(QVTEST_MPM_RENEW_IDENTITY), 0u);
    ASSERT_EQ(mdata(kCode1)->state, 0x1u);

    m1_.reset();
    ASSERT_EQ(sec_renew_identity(&st, 7200, svc), 0);
    EXPECT_EQ(m1_.calls(QVTEST_MPM_LOGIN_AS_SERVICE), 1u);
    EXPECT_STREQ(m1_.record(QVTEST_MPM_LOGIN_AS_SERVICE).str[0], "qvsvc");
    EXPECT_EQ(mdata(kCode1)->state, 0x5u);
    EXPECT_EQ(m2_.calls(QVTEST_MPM_LOGIN_AS_SERVICE), 1u);  // already logged in: not again
    for (qv_uint32_t code : {kCode1, kCode2}) {
        EXPECT_EQ(module(code).calls(QVTEST_MPM_RENEW_IDENTITY), 1u);
        EXPECT_EQ(module(code).record(QVTEST_MPM_RENEW_IDENTITY).args[0],
                  reinterpret_cast<uintptr_t>(mdata(code)->mtoken));
    }
}

TEST_F(ServiceLogin, RenewKeepsTheFirstFailure) {
    struct Case {
        const char *what;
        qv_uint32_t state;  // added to the token: 0x4 logged in by request, 0x2 renewable only
        qv_uint32_t login1, renew1, renew2;
        qv_int32_t rc;
        qv_uint32_t maj;
        const char *desc;
        unsigned long logins1, renews1;
    } cases[] = {
        {"first login fails, second renews", 0x4, 11, 0, 0, 0, 0, "", 1, 0},
        {"first renew fails, second renews", 0x4, 0, 13, 0, 0, 0, "", 1, 1},
        {"first login fails, second renew fails", 0x4, 11, 0, 14, 3, 11, "mpm_login_as_service", 1, 0},
        {"both renewals fail", 0x4, 0, 13, 14, 3, 13, "mpm_renew_identity", 1, 1},
        {"renewable without a login renews only", 0x2, 0, 0, 0, 0, 0, "", 0, 1},
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
        EXPECT_EQ(st.maj_stat, c.maj);
        EXPECT_STREQ(st.desc, c.desc);
        EXPECT_EQ(st.mech_code, c.rc ? kCode1 : 0u);
        EXPECT_EQ(m1_.calls(QVTEST_MPM_LOGIN_AS_SERVICE), c.logins1);
        EXPECT_EQ(m1_.calls(QVTEST_MPM_RENEW_IDENTITY), c.renews1);
        EXPECT_EQ(m2_.calls(QVTEST_MPM_RENEW_IDENTITY), 1u);
        end();
    }
}

// ---- sec_login_as_user ----

std::vector<unsigned char> typed_id(unsigned char type, unsigned char version, qv_uint32_t code, const std::string &body) {
    std::vector<unsigned char> b = {type, version, static_cast<unsigned char>(code >> 24),
                                    static_cast<unsigned char>(code >> 16), static_cast<unsigned char>(code >> 8),
                                    static_cast<unsigned char>(code)};
    for (char ch : body) b.push_back(static_cast<unsigned char>(ch));
    return b;
}

TEST_F(ServiceLogin, UserLogin) {
    sec_svc_token_t svc = start();
    auto good = typed_id(0x83, 2, kCode2, std::string("alice\0pw", 8));
    struct Case {
        const char *what;
        std::vector<unsigned char> bytes;
        qv_int32_t length;  // -1: the bytes' size
        bool null_value;
        int failing;        // the module routine made to fail, -1: none
        qv_int32_t rc;
        int msg;
    } cases[] = {
        {"empty buffer", good, 0, false, -1, 7, MSG_2650_005},
        {"no bytes", good, -1, true, -1, 7, MSG_2650_005},
        {"negative length", good, -4, false, -1, 7, MSG_2650_005},
        {"shorter than its header", good, 5, false, -1, 7, MSG_2650_005},
        {"not a typed id", typed_id(0x82, 2, kCode2, "alice"), -1, false, -1, 7, MSG_2650_005},
        {"version 0", typed_id(0x83, 0, kCode2, "alice"), -1, false, -1, 7, MSG_2650_005},
        {"version 3", typed_id(0x83, 3, kCode2, "alice"), -1, false, -1, 7, MSG_2650_005},
        {"unknown mechanism", typed_id(0x83, 2, 0x999, "alice"), -1, false, -1, 8, MSG_2650_006},
        {"start fails", good, -1, false, QVTEST_MPM_START, 3, -1},
        {"version 1", typed_id(0x83, 1, kCode2, std::string("alice\0pw", 8)), -1, false, -1, 0, -1},
        {"login fails", good, -1, false, QVTEST_MPM_LOGIN_AS_USER, 3, -1},
        {"version 2", good, -1, false, -1, 0, -1},
        {"only a header: no bytes for the module", typed_id(0x83, 2, kCode2, ""), -1, false, -1, 0, -1},
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
