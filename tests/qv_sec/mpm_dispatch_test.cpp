// Calls through the module wrappers: the module sees its arguments in its own
// order, statuses become the documented return codes, failures fill the
// status record, and load and lookup failures report their messages and
// leave the entry's lock free.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "messages.h"
#include "mpm_test_fixture.h"

namespace {

using qvtest::last_message;
using qvtest::TestMpm;
constexpr unsigned kCode = 0x10001;

uintptr_t u(const void *p) { return reinterpret_cast<uintptr_t>(p); }

// Arguments with recognisable values, shared by every case.
struct Args {
    int obj[4] = {};
    void *token = &obj[0];
    void *slot = &obj[1];  // a non-NULL handle slot: the module creates nothing
    void *data = &obj[2];
    char svc[8] = "svc", host[8] = "host", user[8] = "user";
    sec_buffer_desc in{3, const_cast<char *>("abc")};
    sec_buffer_desc out{};
    qv_int32_t i32 = 256;
    qv_uint32_t u32 = 0;
    char name[256] = {};
    struct iovec iov[2] = {{const_cast<char *>("da"), 2}, {const_cast<char *>("ta"), 2}};
};

// One wrapper: its call with the Args, and the arguments its module routine
// must see, in the module's order (three wrappers reorder theirs).
struct Case {
    int routine;
    const char *name;
    std::function<qv_uint32_t(sec_mpm_entry_t, sec_status_t, Args &)> call;
    std::function<std::vector<uintptr_t>(Args &)> expected;
    bool may_continue;
    std::vector<qv_uint32_t> passed_on;  // failing statuses returned as they are
};

#define CALL(expr) [](sec_mpm_entry_t e, sec_status_t st, Args &a) { return expr; }
#define SEES(...) [](Args &a) { return std::vector<uintptr_t>{__VA_ARGS__}; }

std::vector<Case> cases() {
    return {
        {QVTEST_MPM_START, "mpm_start", CALL(sec__mpm_start(e, st, 0x21, &a.slot)), SEES(0x21, u(&a.slot)), false, {}},
        {QVTEST_MPM_END, "mpm_end", CALL(sec__mpm_end(e, st, 0x22, a.token)), SEES(0x22, u(a.token)), false, {}},
        {QVTEST_MPM_SET_CTX_ATTRIBUTE, "mpm_set_ctx_attribute",
         CALL(sec__mpm_set_ctx_attribute(e, st, a.token, 1, a.data, &a.slot)),
         SEES(u(a.token), 1, u(a.data), u(&a.slot)), false, {}},
        {QVTEST_MPM_SERVICE_CLEANUP, "mpm_service_cleanup", CALL(sec__mpm_service_cleanup(e, st, 0x23, a.token)),
         SEES(u(a.token), 0x23), false, {}},
        {QVTEST_MPM_START_SEC_CONTEXT, "mpm_start_sec_context",
         CALL(sec__mpm_start_sec_context(e, st, a.token, 0x24, a.svc, a.host, &a.slot, &a.out)),
         SEES(u(a.token), u(a.svc), u(a.host), 0x24, u(&a.slot), u(&a.out)), true, {}},
        {QVTEST_MPM_GET_TARGET_NAME, "mpm_get_target_name",
         CALL(sec__mpm_get_target_name(e, st, a.token, a.svc, a.host, &a.i32, a.name)),
         SEES(u(a.token), u(a.svc), u(a.host), u(&a.i32), u(a.name)), false, {}},
        {QVTEST_MPM_COMPLETE_SEC_CONTEXT, "mpm_complete_sec_context",
         CALL(sec__mpm_complete_sec_context(e, st, &a.in, a.token, &a.out)), SEES(u(&a.in), u(a.token), u(&a.out)),
         true, {}},
        {QVTEST_MPM_GET_CTX_LIFETIME, "mpm_get_ctx_lifetime", CALL(sec__mpm_get_ctx_lifetime(e, st, a.token, &a.i32)),
         SEES(u(a.token), u(&a.i32)), false, {}},
        {QVTEST_MPM_GET_CTX_FLAGS, "mpm_get_ctx_flags", CALL(sec__mpm_get_ctx_flags(e, st, a.token, &a.u32)),
         SEES(u(a.token), u(&a.u32)), false, {}},
        {QVTEST_MPM_PREPARE_DATA, "mpm_prepare_data", CALL(sec__mpm_prepare_data(e, st, a.token, 0x25, &a.in, &a.out)),
         SEES(u(a.token), 0x25, u(&a.in), u(&a.out)), false, {}},
        {QVTEST_MPM_PROCESS_DATA, "mpm_process_data", CALL(sec__mpm_process_data(e, st, a.token, &a.in, &a.out)),
         SEES(u(a.token), u(&a.in), u(&a.out)), false, {}},
        {QVTEST_MPM_END_CONTEXT, "mpm_end_context", CALL(sec__mpm_end_context(e, st, a.token)), SEES(u(a.token)),
         false, {}},
        {QVTEST_MPM_LOGIN_AS_SERVICE, "mpm_login_as_service", CALL(sec__mpm_login_as_service(e, st, a.svc, a.token)),
         SEES(u(a.svc), u(a.token)), false, {}},
        {QVTEST_MPM_LOGIN_AS_USER, "mpm_login_as_user",
         CALL(sec__mpm_login_as_user(e, st, a.token, &a.in, a.data, 0x26)),
         SEES(u(&a.in), u(a.data), 0x26, u(a.token)), false, {}},
        {QVTEST_MPM_RENEW_IDENTITY, "mpm_renew_identity", CALL(sec__mpm_renew_identity(e, st, a.token, &a.i32)),
         SEES(u(a.token), u(&a.i32)), false, {}},
        {QVTEST_MPM_RECEIVE_SEC_CONTEXT, "mpm_receive_sec_context",
         CALL(sec__mpm_receive_sec_context(e, st, a.token, &a.in, &a.slot, &a.out, &a.u32)),
         SEES(u(a.token), u(&a.in), u(&a.slot), u(&a.out), u(&a.u32)), true, {}},
        {QVTEST_MPM_GET_CLIENT_NAME, "mpm_get_client_name",
         CALL(sec__mpm_get_client_name(e, st, a.token, &a.i32, a.name)), SEES(u(a.token), u(&a.i32), u(a.name)),
         false, {}},
        {QVTEST_MPM_GET_MAPPED_NAME, "mpm_get_mapped_name",
         CALL(sec__mpm_get_mapped_name(e, st, a.token, &a.i32, a.name)), SEES(u(a.token), u(&a.i32), u(a.name)),
         false, {}},
        {QVTEST_MPM_GET_CLIENT_ID, "mpm_get_client_id", CALL(sec__mpm_get_client_id(e, st, a.token, &a.i32, a.name)),
         SEES(u(a.token), u(&a.i32), u(a.name)), false, {}},
        {QVTEST_MPM_CREATE_ID_CONTEXT, "mpm_create_id_context",
         CALL(sec__mpm_create_id_context(e, st, 1, a.token, &a.slot)), SEES(1, u(a.token), u(&a.slot)), false, {}},
        {QVTEST_MPM_SIGN_DATA_V, "mpm_sign_data_v", CALL(sec__mpm_sign_data_v(e, st, a.token, 2, a.iov, &a.out)),
         SEES(u(a.token), 2, u(a.iov), u(&a.out)), false, {24}},
        {QVTEST_MPM_VERIFY_DATA_V, "mpm_verify_data_v", CALL(sec__mpm_verify_data_v(e, st, a.token, &a.in, 2, a.iov)),
         SEES(u(a.token), u(&a.in), 2, u(a.iov)), false, {24, 34}},
        {QVTEST_MPM_GET_CTX_MPM, "mpm_get_ctx_mpm", CALL(sec__mpm_get_ctx_mpm(e, st, a.token, a.name)),
         SEES(u(a.token), u(a.name)), false, {}},
        {QVTEST_MPM_USER_VALID, "mpm_user_valid", CALL(sec__mpm_user_valid(e, st, a.token, a.user)),
         SEES(u(a.token), u(a.user)), false, {36}},
    };
}

class Dispatch : public qvtest::MpmFixture {
protected:
    std::vector<uintptr_t> recorded_args(int routine) {
        const qvtest_mpm_call_t &r = mpm_.record(routine);
        return std::vector<uintptr_t>(r.args, r.args + r.nargs);
    }
    // Frees what a call may have created in the handle slot.
    void drop_created(sec_mpm_entry_t e, Args &a, void *before) {
        if (a.slot != before) free(a.slot);
        a.slot = before;
        if (a.out.value != nullptr) {
            EXPECT_EQ(sec__mpm_release_buffer(e, &a.out), 0u);
        }
        EXPECT_EQ(a.out.value, nullptr);
    }
    TestMpm mpm_;
};

// Every wrapper under every kind of major status: 0, continue (success for
// the context routines, with output), failing ones (3, or passed on as they
// are), each with the status record filled as documented.
TEST_F(Dispatch, EveryWrapperUnderEveryStatus) {
    sec_mpm_entry_t e = reserve(kCode, qvtest::kTestMpm);
    for (const Case &c : cases()) {
        SCOPED_TRACE(c.name);
        std::vector<qv_uint32_t> statuses = {0, 1, 2, 7, 0x80000001u};
        statuses.insert(statuses.end(), c.passed_on.begin(), c.passed_on.end());
        for (qv_uint32_t maj : statuses) {
            SCOPED_TRACE(maj);
            mpm_.reset();
            bool continues = maj == 1 && c.may_continue;
            mpm_.behaviour(c.routine).continue_rounds = continues ? 1 : 0;
            mpm_.behaviour(c.routine).maj_stat = continues ? 0 : maj;
            mpm_.behaviour(c.routine).min_stat = 0x99;
            Args a;
            a.in = {8, a.iov};  // signature-sized input for the verify case
            void *before = a.slot;
            sec_status_desc st{};
            std::strcpy(st.desc, "kept");  // success does not clear it
            cu_set_no_error_1();
            qv_uint32_t rc = c.call(e, &st, a);
            EXPECT_EQ(mpm_.calls(c.routine), 1u);
            EXPECT_EQ(recorded_args(c.routine), c.expected(a));
            if (maj == 0 && c.routine == QVTEST_MPM_VERIFY_DATA_V) {
                EXPECT_EQ(rc, 34u);  // the input is not the data's signature
            } else if (maj == 0 && c.routine == QVTEST_MPM_PROCESS_DATA) {
                EXPECT_EQ(rc, 3u);  // the input was not sealed by the module
            } else if (maj == 0 || continues) {
                EXPECT_EQ(rc, 0u);
                EXPECT_EQ(st.maj_stat, maj);
                EXPECT_EQ(st.min_stat, 0x99u);
                EXPECT_STREQ(st.desc, "kept");
                if (continues) {
                    EXPECT_GT(a.out.length, 0);  // continuing means there is output
                }
            } else {
                bool passed = std::find(c.passed_on.begin(), c.passed_on.end(), maj) != c.passed_on.end();
                EXPECT_EQ(rc, passed ? maj : 3u);
                EXPECT_EQ(st.maj_stat, maj);
                EXPECT_EQ(st.min_stat, 0x99u);
                EXPECT_EQ(st.mech_code, kCode);
                EXPECT_STREQ(st.desc, c.name);
                EXPECT_EQ(last_message(), -1);  // a module failure records no message
            }
            EXPECT_TRUE(lock_is_free(e));
            drop_created(e, a, before);
        }
    }
}

TEST_F(Dispatch, ReleaseBufferIgnoresTheModulesStatus) {
    sec_mpm_entry_t e = reserve(kCode, qvtest::kTestMpm);
    mpm_.behaviour(QVTEST_MPM_RELEASE_BUFFER).maj_stat = 9;
    sec_buffer_desc b{4, malloc(4)};
    EXPECT_EQ(sec__mpm_release_buffer(e, &b), 0u);
    EXPECT_EQ(b.value, nullptr);
    EXPECT_EQ(b.length, 0);
    EXPECT_EQ(mpm_.calls(QVTEST_MPM_RELEASE_BUFFER), 1u);
    EXPECT_TRUE(lock_is_free(e));
}

// A module that cannot be loaded fails every call with 22 and its message
// from the library's catalogue, leaves the status record and the entry's
// lock alone, and is tried again by the next call.
TEST_F(Dispatch, LoadFailuresReportTheirMessageAndAreRetried) {
    const std::pair<const char *, int> failures[] = {
        {"no_such_module.so", MSG_2650_050}, {qvtest::kTestMpmEmpty, MSG_2650_050},
        {qvtest::kTestMpmNotElf, MSG_2650_051}, {qvtest::kTestMpmNoInit, MSG_2650_052}};
    for (const auto &[file, message] : failures) {
        SCOPED_TRACE(file);
        qvtest::clear_mpm_table();
        sec_mpm_entry_t e = reserve(kCode, file);
        for (int attempt = 0; attempt < 2; ++attempt) {
            sec_status_desc st{};
            cu_set_no_error_1();
            qv_int32_t lifetime = 0;
            EXPECT_EQ(sec__mpm_get_ctx_lifetime(e, &st, nullptr, &lifetime), 22u);
            cu_error_t *err = nullptr;
            ASSERT_EQ(cu_get_error_1(&err), 0);
            EXPECT_EQ(err->cu_error_id, 22);
            EXPECT_STREQ(err->cu_msg_cat, "qvsec.cat");
            EXPECT_EQ(err->cu_msg_set, 1);
            EXPECT_EQ(err->cu_msg_num, message);
            cu_rel_error_1(err);
            EXPECT_EQ(st.maj_stat, 0u);
            EXPECT_STREQ(st.desc, "");
            EXPECT_TRUE(lock_is_free(e));
        }
    }
}

TEST_F(Dispatch, MissingRoutineFailsEveryCallAndReleasesTheLock) {
    TestMpm noflags(qvtest::kTestMpmNoFlags);
    sec_mpm_entry_t e = reserve(kCode, qvtest::kTestMpmNoFlags);
    for (int i = 0; i < 2; ++i) {
        sec_status_desc st{};
        qv_uint32_t flags = 0;
        cu_set_no_error_1();
        EXPECT_EQ(sec__mpm_get_ctx_flags(e, &st, nullptr, &flags), 22u);
        EXPECT_EQ(last_message(), MSG_2650_020);
        EXPECT_STREQ(st.desc, "");
        EXPECT_TRUE(lock_is_free(e));
        // Every other routine works.
        qv_int32_t lifetime = 0;
        EXPECT_EQ(sec__mpm_get_ctx_lifetime(e, &st, nullptr, &lifetime), 0u);
    }
    EXPECT_EQ(noflags.calls(QVTEST_MPM_INIT), 1u);
}

TEST_F(Dispatch, StartRoutineByNameHoldsTheReadLock) {
    sec_mpm_entry_t e = reserve(kCode, qvtest::kTestMpm);
    const char *names[] = {"mpm_get_ctx_lifetime", "mpm_init", "qvtest_mpm_blocked"};
    for (const char *name : names) {
        SCOPED_TRACE(name);
        sec_mpm_routine_t fn = nullptr;
        ASSERT_EQ(sec__mpm_start_routine(e, const_cast<char *>(name), &fn), 0u);
        EXPECT_NE(fn, nullptr);
        EXPECT_EQ(e->lock.count, 1);
        EXPECT_FALSE(lock_is_free(e));
        sec__mpm_end_routine(e);
        EXPECT_TRUE(lock_is_free(e));
    }
    sec_mpm_routine_t fn = nullptr;
    EXPECT_EQ(sec__mpm_start_routine(e, const_cast<char *>("mpm_no_such_routine"), &fn), 22u);
    EXPECT_EQ(fn, nullptr);
    EXPECT_TRUE(lock_is_free(e));
}

}  // namespace
