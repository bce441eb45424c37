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

struct Case {
    int routine;
    const char *name;
    std::function<qv_uint32_t(sec_mpm_entry_t, sec_status_t, Args &)> call;
    std::function<std::vector<uintptr_t>(Args &)> expected;  // module-side arguments
    bool may_continue;
    std::vector<qv_uint32_t> passed_on;  // failing statuses returned as they are
};

std::vector<Case> cases() {
    return {
        {QVTEST_MPM_START, "mpm_start",
         [](auto e, auto st, Args &a) { return sec__mpm_start(e, st, 0x21, &a.slot); },
         [](Args &a) { return std::vector<uintptr_t>{0x21, u(&a.slot)}; }, false, {}},
        {QVTEST_MPM_END, "mpm_end", [](auto e, auto st, Args &a) { return sec__mpm_end(e, st, 0x22, a.token); },
         [](Args &a) { return std::vector<uintptr_t>{0x22, u(a.token)}; }, false, {}},
        {QVTEST_MPM_SET_CTX_ATTRIBUTE, "mpm_set_ctx_attribute",
         [](auto e, auto st, Args &a) { return sec__mpm_set_ctx_attribute(e, st, a.token, 1, a.data, &a.slot); },
         [](Args &a) { return std::vector<uintptr_t>{u(a.token), 1, u(a.data), u(&a.slot)}; }, false, {}},
        {QVTEST_MPM_SERVICE_CLEANUP, "mpm_service_cleanup",
         [](auto e, auto st, Args &a) { return sec__mpm_service_cleanup(e, st, 0x23, a.token); },
         [](Args &a) { return std::vector<uintptr_t>{u(a.token), 0x23}; }, false, {}},
        {QVTEST_MPM_START_SEC_CONTEXT, "mpm_start_sec_context",
         [](auto e, auto st, Args &a) {
             return sec__mpm_start_sec_context(e, st, a.token, 0x24, a.svc, a.host, &a.slot, &a.out);
         },
         [](Args &a) { return std::vector<uintptr_t>{u(a.token), u(a.svc), u(a.host), 0x24, u(&a.slot), u(&a.out)}; },
         true, {}},
        {QVTEST_MPM_GET_TARGET_NAME, "mpm_get_target_name",
         [](auto e, auto st, Args &a) { return sec__mpm_get_target_name(e, st, a.token, a.svc, a.host, &a.i32, a.name); },
         [](Args &a) { return std::vector<uintptr_t>{u(a.token), u(a.svc), u(a.host), u(&a.i32), u(a.name)}; }, false,
         {}},
        {QVTEST_MPM_COMPLETE_SEC_CONTEXT, "mpm_complete_sec_context",
         [](auto e, auto st, Args &a) { return sec__mpm_complete_sec_context(e, st, &a.in, a.token, &a.out); },
         [](Args &a) { return std::vector<uintptr_t>{u(&a.in), u(a.token), u(&a.out)}; }, true, {}},
        {QVTEST_MPM_GET_CTX_LIFETIME, "mpm_get_ctx_lifetime",
         [](auto e, auto st, Args &a) { return sec__mpm_get_ctx_lifetime(e, st, a.token, &a.i32); },
         [](Args &a) { return std::vector<uintptr_t>{u(a.token), u(&a.i32)}; }, false, {}},
        {QVTEST_MPM_GET_CTX_FLAGS, "mpm_get_ctx_flags",
         [](auto e, auto st, Args &a) { return sec__mpm_get_ctx_flags(e, st, a.token, &a.u32); },
         [](Args &a) { return std::vector<uintptr_t>{u(a.token), u(&a.u32)}; }, false, {}},
        {QVTEST_MPM_PREPARE_DATA, "mpm_prepare_data",
         [](auto e, auto st, Args &a) { return sec__mpm_prepare_data(e, st, a.token, 0x25, &a.in, &a.out); },
         [](Args &a) { return std::vector<uintptr_t>{u(a.token), 0x25, u(&a.in), u(&a.out)}; }, false, {}},
        {QVTEST_MPM_PROCESS_DATA, "mpm_process_data",
         [](auto e, auto st, Args &a) { return sec__mpm_process_data(e, st, a.token, &a.in, &a.out); },
         [](Args &a) { return std::vector<uintptr_t>{u(a.token), u(&a.in), u(&a.out)}; }, false, {}},
        {QVTEST_MPM_END_CONTEXT, "mpm_end_context",
         [](auto e, auto st, Args &a) { return sec__mpm_end_context(e, st, a.token); },
         [](Args &a) { return std::vector<uintptr_t>{u(a.token)}; }, false, {}},
        {QVTEST_MPM_LOGIN_AS_SERVICE, "mpm_login_as_service",
         [](auto e, auto st, Args &a) { return sec__mpm_login_as_service(e, st, a.svc, a.token); },
         [](Args &a) { return std::vector<uintptr_t>{u(a.svc), u(a.token)}; }, false, {}},
        {QVTEST_MPM_LOGIN_AS_USER, "mpm_login_as_user",
         [](auto e, auto st, Args &a) { return sec__mpm_login_as_user(e, st, a.token, &a.in, a.data, 0x26); },
         [](Args &a) { return std::vector<uintptr_t>{u(&a.in), u(a.data), 0x26, u(a.token)}; }, false, {}},
        {QVTEST_MPM_RENEW_IDENTITY, "mpm_renew_identity",
         [](auto e, auto st, Args &a) { return sec__mpm_renew_identity(e, st, a.token, &a.i32); },
         [](Args &a) { return std::vector<uintptr_t>{u(a.token), u(&a.i32)}; }, false, {}},
        {QVTEST_MPM_RECEIVE_SEC_CONTEXT, "mpm_receive_sec_context",
         [](auto e, auto st, Args &a) {
             return sec__mpm_receive_sec_context(e, st, a.token, &a.in, &a.slot, &a.out, &a.u32);
         },
         [](Args &a) { return std::vector<uintptr_t>{u(a.token), u(&a.in), u(&a.slot), u(&a.out), u(&a.u32)}; }, true,
         {}},
        {QVTEST_MPM_GET_CLIENT_NAME, "mpm_get_client_name",
         [](auto e, auto st, Args &a) { return sec__mpm_get_client_name(e, st, a.token, &a.i32, a.name); },
         [](Args &a) { return std::vector<uintptr_t>{u(a.token), u(&a.i32), u(a.name)}; }, false, {}},
        {QVTEST_MPM_GET_MAPPED_NAME, "mpm_get_mapped_name",
         [](auto e, auto st, Args &a) { return sec__mpm_get_mapped_name(e, st, a.token, &a.i32, a.name); },
         [](Args &a) { return std::vector<uintptr_t>{u(a.token), u(&a.i32), u(a.name)}; }, false, {}},
        {QVTEST_MPM_GET_CLIENT_ID, "mpm_get_client_id",
         [](auto e, auto st, Args &a) { return sec__mpm_get_client_id(e, st, a.token, &a.i32, a.name); },
         [](Args &a) { return std::vector<uintptr_t>{u(a.token), u(&a.i32), u(a.name)}; }, false, {}},
        {QVTEST_MPM_CREATE_ID_CONTEXT, "mpm_create_id_context",
         [](auto e, auto st, Args &a) { return sec__mpm_create_id_context(e, st, 1, a.token, &a.slot); },
         [](Args &a) { return std::vector<uintptr_t>{1, u(a.token), u(&a.slot)}; }, false, {}},
        {QVTEST_MPM_SIGN_DATA_V, "mpm_sign_data_v",
         [](auto e, auto st, Args &a) { return sec__mpm_sign_data_v(e, st, a.token, 2, a.iov, &a.out); },
         [](Args &a) { return std::vector<uintptr_t>{u(a.token), 2, u(a.iov), u(&a.out)}; }, false, {24}},
        {QVTEST_MPM_VERIFY_DATA_V, "mpm_verify_data_v",
         [](auto e, auto st, Args &a) { return sec__mpm_verify_data_v(e, st, a.token, &a.in, 2, a.iov); },
         [](Args &a) { return std::vector<uintptr_t>{u(a.token), u(&a.in), 2, u(a.iov)}; }, false, {24, 34}},
        {QVTEST_MPM_GET_CTX_MPM, "mpm_get_ctx_mpm",
         [](auto e, auto st, Args &a) { return sec__mpm_get_ctx_mpm(e, st, a.token, a.name); },
         [](Args &a) { return std::vector<uintptr_t>{u(a.token), u(a.name)}; }, false, {}},
        {QVTEST_MPM_USER_VALID, "mpm_user_valid",
         [](auto e, auto st, Args &a) { return sec__mpm_user_valid(e, st, a.token, a.user); },
         [](Args &a) { return std::vector<uintptr_t>{u(a.token), u(a.user)}; }, false, {36}},
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

TEST_F(Dispatch, EveryWrapperPassesItsArgumentsInTheModulesOrder) {
    sec_mpm_entry_t e = reserve(kCode, qvtest::kTestMpm);
    for (const Case &c : cases()) {
        SCOPED_TRACE(c.name);
        mpm_.reset();
        mpm_.behaviour(c.routine).min_stat = 0x77;
        Args a;
        a.in = {8, a.iov};  // signature-sized input for the verify case
        void *before = a.slot;
        sec_status_desc st{};
        qv_uint32_t rc = c.call(e, &st, a);
        if (c.routine == QVTEST_MPM_VERIFY_DATA_V) {
            EXPECT_EQ(rc, 34u);  // the input is not the data's signature
        } else if (c.routine == QVTEST_MPM_PROCESS_DATA) {
            EXPECT_EQ(rc, 3u);  // the input was not sealed by the module
        } else {
            EXPECT_EQ(rc, 0u);
            EXPECT_EQ(st.maj_stat, 0u);
            EXPECT_STREQ(st.desc, "");
        }
        if (c.routine != QVTEST_MPM_PROCESS_DATA) {
            EXPECT_EQ(st.min_stat, 0x77u);
        }
        EXPECT_EQ(mpm_.calls(c.routine), 1u);
        EXPECT_EQ(recorded_args(c.routine), c.expected(a));
        EXPECT_TRUE(lock_is_free(e));
        drop_created(e, a, before);
    }
}

TEST_F(Dispatch, FailingStatusesFillTheStatusRecord) {
    sec_mpm_entry_t e = reserve(kCode, qvtest::kTestMpm);
    for (const Case &c : cases()) {
        SCOPED_TRACE(c.name);
        std::vector<qv_uint32_t> statuses = {2, 7, 0x80000001u};
        statuses.insert(statuses.end(), c.passed_on.begin(), c.passed_on.end());
        if (!c.may_continue) statuses.push_back(1);
        for (qv_uint32_t maj : statuses) {
            SCOPED_TRACE(maj);
            mpm_.reset();
            mpm_.behaviour(c.routine).maj_stat = maj;
            mpm_.behaviour(c.routine).min_stat = 0x99;
            Args a;
            void *before = a.slot;
            sec_status_desc st{};
            cu_set_no_error_1();
            qv_uint32_t rc = c.call(e, &st, a);
            bool passed = std::find(c.passed_on.begin(), c.passed_on.end(), maj) != c.passed_on.end();
            EXPECT_EQ(rc, passed ? maj : 3u);
            EXPECT_EQ(st.maj_stat, maj);
            EXPECT_EQ(st.min_stat, 0x99u);
            EXPECT_EQ(st.mech_code, kCode);
            EXPECT_STREQ(st.desc, c.name);
            EXPECT_EQ(last_message(), -1);  // a module failure records no message
            EXPECT_TRUE(lock_is_free(e));
            drop_created(e, a, before);
        }
    }
}

TEST_F(Dispatch, ContinueIsSuccessForTheContextRoutines) {
    sec_mpm_entry_t e = reserve(kCode, qvtest::kTestMpm);
    for (const Case &c : cases()) {
        if (!c.may_continue) continue;
        SCOPED_TRACE(c.name);
        mpm_.reset();
        mpm_.behaviour(c.routine).continue_rounds = 1;
        Args a;
        void *before = a.slot;
        sec_status_desc st{};
        std::strcpy(st.desc, "kept");
        EXPECT_EQ(c.call(e, &st, a), 0u);
        EXPECT_EQ(st.maj_stat, 1u);
        EXPECT_STREQ(st.desc, "kept");  // success does not clear desc
        EXPECT_GT(a.out.length, 0);     // continuing means there is output
        drop_created(e, a, before);
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

TEST_F(Dispatch, ModuleIsLoadedOnce) {
    sec_mpm_entry_t e = reserve(kCode, qvtest::kTestMpm);
    sec_status_desc st{};
    qv_int32_t lifetime = 0;
    mpm_.behaviour(QVTEST_MPM_GET_CTX_LIFETIME).value = 3600;
    for (int i = 0; i < 3; ++i) ASSERT_EQ(sec__mpm_get_ctx_lifetime(e, &st, nullptr, &lifetime), 0u);
    EXPECT_EQ(lifetime, 3600);
    EXPECT_EQ(mpm_.calls(QVTEST_MPM_INIT), 1u);
    EXPECT_EQ(mpm_.calls(QVTEST_MPM_GET_CTX_LIFETIME), 3u);
}

struct LoadFailure {
    const char *what;
    std::string file;
    int message;
};

TEST_F(Dispatch, LoadFailuresReportTheirMessageAndAreRetried) {
    const LoadFailure failures[] = {
        {"missing file", "no_such_module.so", MSG_2650_050},
        {"empty file", qvtest::kTestMpmEmpty, MSG_2650_050},
        {"not a shared object", qvtest::kTestMpmNotElf, MSG_2650_051},
        {"no mpm_init", qvtest::kTestMpmNoInit, MSG_2650_052},
    };
    for (const LoadFailure &f : failures) {
        SCOPED_TRACE(f.what);
        qvtest::clear_mpm_table();
        sec_mpm_entry_t e = reserve(kCode, f.file.c_str());
        for (int attempt = 0; attempt < 2; ++attempt) {  // the second call tries again
            sec_status_desc st{};
            cu_set_no_error_1();
            qv_int32_t lifetime = 0;
            EXPECT_EQ(sec__mpm_get_ctx_lifetime(e, &st, nullptr, &lifetime), 22u);
            EXPECT_EQ(last_message(), f.message);
            EXPECT_EQ(st.maj_stat, 0u);  // a failed lookup leaves the status alone
            EXPECT_STREQ(st.desc, "");
            EXPECT_TRUE(lock_is_free(e));
        }
    }
}

TEST_F(Dispatch, LoadFailureMessageArguments) {
    sec_mpm_entry_t e = reserve(kCode, qvtest::kTestMpmNoInit);
    sec_status_desc st{};
    ASSERT_EQ(sec__mpm_end(e, &st, 0, nullptr), 22u);
    cu_error_t *err = nullptr;
    cu_get_error_1(&err);
    ASSERT_NE(err, nullptr);
    EXPECT_EQ(err->cu_error_id, 22);
    EXPECT_STREQ(err->cu_msg_cat, "qvsec.cat");
    EXPECT_EQ(err->cu_msg_set, 1);
    EXPECT_EQ(err->cu_msg_num, MSG_2650_052);
    cu_rel_error_1(err);
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
