// The mapping step and what rests on it. This program defines its own
// sec_idm_get_groups, which the library must call instead of its own
// (every user is in "qvgrp"; g_result makes it fail), while its own stays
// reachable in the library. It also defines
// getpwnam_r and getgrgid_r, which fail with an injected error when asked,
// so that the library's own sec_idm_get_groups meets each lookup failure.
// Then sec_create_cidb over a hand-built context: what reaches the CIDB and
// which failure stops it.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <grp.h>
#include <pwd.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "identity_fixture.h"
#include "messages.h"
#include "sec_buffer.h"
#include "sec_test_util.h"

namespace {

int g_result = 0, g_calls = 0;
std::string g_seen;
qv_int32_t g_seen_length = -1;
int g_pw_error = 0, g_gr_error = 0;  // injected into the next lookups

template <typename Fn>
Fn next(const char *name) {
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" int sec_idm_get_groups(sec_buffer_t mapped_name, int *gcount, sec_buffer_t *groups) {
    ++g_calls;
    g_seen_length = mapped_name->length;
    g_seen.assign(static_cast<const char *>(mapped_name->value));
    if (g_result != 0) return g_result;
    *gcount = 1;
    *groups = static_cast<sec_buffer_t>(calloc(1, sizeof(sec_buffer_desc)));
    (*groups)[0] = {6, strdup("qvgrp")};
    return 0;
}

extern "C" int getpwnam_r(const char *name, passwd *pw, char *buf, size_t n, passwd **out) {
    static auto real = next<int (*)(const char *, passwd *, char *, size_t, passwd **)>("getpwnam_r");
    if (g_pw_error == 0) return real(name, pw, buf, n, out);
    *out = nullptr;
    return g_pw_error;
}

extern "C" int getgrgid_r(gid_t gid, group *gr, char *buf, size_t n, group **out) {
    static auto real = next<int (*)(gid_t, group *, char *, size_t, group **)>("getgrgid_r");
    if (g_gr_error == 0) return real(gid, gr, buf, n, out);
    *out = nullptr;
    return g_gr_error;
}

namespace {

// The library's own definition, which this program's hides.
int library_groups(sec_buffer_t name, int *gcount, sec_buffer_t *groups) {
    void *lib = dlopen("libqv_sec.so.1", RTLD_NOW | RTLD_NOLOAD);
    auto own = reinterpret_cast<decltype(&sec_idm_get_groups)>(dlsym(lib, "sec_idm_get_groups"));
    dlclose(lib);
    EXPECT_NE(own, &sec_idm_get_groups);
    return own(name, gcount, groups);
}

TEST(IdentityMapping, LibraryLookupFailures) {
    std::string me = getpwuid(geteuid())->pw_name;
    struct Row {
        const char *what;
        std::string user;
        qv_int32_t length;  // -1: with the NUL
        int pw_error, gr_error;
        int rc, msg;
        bool groups;
    } rows[] = {
        {"this user", me, -1, 0, 0, 0, -1, true},
        {"the length without the NUL", me, static_cast<qv_int32_t>(me.size()), 0, 0, 0, -1, true},
        {"no such user: no groups", "qv-no-such-user-7f3a", -1, 0, 0, 0, -1, false},
        {"user lookup out of memory", me, -1, ENOMEM, 0, 6, MSG_2650_004, false},
        {"user lookup fails", me, -1, EIO, 0, 23, MSG_2650_034, false},
        // A shorter list would drop the groups an access entry denies.
        {"group lookup out of memory", me, -1, 0, ENOMEM, 6, MSG_2650_004, false},
        {"group lookup fails", me, -1, 0, EIO, 23, MSG_2650_034, false},
        {"empty name", "", 1, 0, 0, 4, MSG_2650_060, false},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        std::string buf = row.user + '\0' + "trailing";
        sec_buffer_desc name{row.length >= 0 ? row.length : static_cast<qv_int32_t>(row.user.size() + 1), buf.data()};
        int count = -1;
        sec_buffer_t groups = reinterpret_cast<sec_buffer_t>(&buf);
        cu_set_no_error_1();
        g_pw_error = row.pw_error;
        g_gr_error = row.gr_error;
        int rc = library_groups(&name, &count, &groups);
        g_pw_error = g_gr_error = 0;
        EXPECT_EQ(rc, row.rc);
        EXPECT_EQ(last_message(), row.msg);
        EXPECT_EQ(count > 0 && groups != nullptr, row.groups);
        if (!row.groups) {
            EXPECT_EQ(count, 0);
            EXPECT_EQ(groups, nullptr);
        }
        for (int i = 0; i < count; ++i) {
            EXPECT_EQ(groups[i].length, static_cast<qv_int32_t>(strlen(static_cast<char *>(groups[i].value)) + 1));
            free(groups[i].value);
        }
        free(groups);
    }
    EXPECT_EQ(g_calls, 0);
}

class CreateCidb : public qvtest::HandBuiltContextFixture {
protected:
    void TearDown() override {
        token_.privset = sec_privset_info_desc{};  // an identity context's set is the test's
        HandBuiltContextFixture::TearDown();
    }
};

TEST_F(CreateCidb, WhatTheCidbCarriesAndWhatStopsIt) {
    static char lent_name[] = "lent@example", lent_mname[] = "lentuser", lent_group[] = "lentgrp";
    static sec_buffer_desc lent_groups[] = {{8, lent_group}};
    constexpr qv_uint32_t kIdentity = SEC_CTX_S_COMPLETE | SEC_CTX_S_IDENTITY | SEC_CTX_S_AUTHENTICATED;
    using Setup = std::function<void(qvtest::TestMpm &, sec_ctx_token_desc &)>;
    auto module = [](int routine, qv_uint32_t maj, qv_int32_t len = -1) -> Setup {
        return [=](qvtest::TestMpm &m, sec_ctx_token_desc &) {
            m.behaviour(routine).maj_stat = maj;
            m.behaviour(routine).name_len = len;
        };
    };
    auto token = [](qv_uint32_t clear, qv_uint32_t set) -> Setup {
        return [=](qvtest::TestMpm &, sec_ctx_token_desc &t) { t.state = (t.state & ~clear) | set; };
    };
    struct Row {
        const char *what;
        Setup setup;
        qv_uint32_t flags;
        qv_int32_t rc;
        int msg;                 // when rc is not 0 and not 3
        qv_uint32_t cidb_flags;  // when rc is 0
        const char *set;         // what the CIDB carries, as privset_text writes it
    };
    const std::vector<Row> rows = {
        {"network name only", nullptr, 0, 0, 0, 0x200, "qvtest_client@example|-|"},
        {"mapping and host-local", nullptr, 0x401, 0, 0, 0x400600, "qvtest_client@example|qvtest_user|qvgrp/6"},
        {"no mapped name: no groups asked", module(QVTEST_MPM_GET_MAPPED_NAME, 0, 0), 1, 0, 0, 0x400200,
         "qvtest_client@example|-|"},
        {"unauthenticated: mechanism 0", token(SEC_CTX_S_AUTHENTICATED, 0), 0x401, 0, 0, 0, "-|-|"},
        // An identity context lends its set; it cannot vouch for host-locality.
        {"identity context, mapped",
         [](qvtest::TestMpm &, sec_ctx_token_desc &t) {
             t.state = kIdentity | SEC_CTX_S_MAPPED;
             t.privset = {lent_name, lent_mname, 1, lent_groups};
         },
         0x401, 0, 0, 0x400200, "lent@example|lentuser|lentgrp/8"},
        {"identity context without a name", token(~0u, kIdentity), 0, 23, MSG_2650_072, 0, "-|-|"},
        {"no module data", [](qvtest::TestMpm &, sec_ctx_token_desc &t) { t.mdata.mpm = nullptr; }, 0, 23,
         MSG_2650_071, 0, "-|-|"},
        {"empty client name", module(QVTEST_MPM_GET_CLIENT_NAME, 0, 0), 0, 22, MSG_2650_067, 0, "-|-|"},
        {"module refuses the flags", module(QVTEST_MPM_GET_CTX_FLAGS, 9), 0, 3, 0, 0, "-|-|"},
        {"module refuses the mapped name", module(QVTEST_MPM_GET_MAPPED_NAME, 9), 1, 3, 0, 0, "-|-|"},
        {"mapping fails: its code passed on", [](qvtest::TestMpm &, sec_ctx_token_desc &) { g_result = 36; }, 1, 36,
         -1, 0, "-|-|"},
        {"not complete", token(SEC_CTX_S_COMPLETE, 0), 0, 5, MSG_2650_061, 0, "-|-|"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        mpm_.reset();
        token_.state = kEstablished;
        token_.mdata.mpm = entry_;
        token_.privset = sec_privset_info_desc{};
        g_result = g_calls = 0;
        if (row.setup) row.setup(mpm_, token_);
        cu_set_no_error_1();
        sec_status_desc st{};
        qvtest::SecBuffer cidb;
        EXPECT_EQ(sec_create_cidb(&st, row.flags, &token_, cidb.get()), row.rc);
        // The program's mapping is asked only for a mapped name, and is given
        // it with the module's byte count.
        EXPECT_EQ(g_calls, row.rc == 36 || std::string(row.set).find("qvgrp") != std::string::npos ? 1 : 0);
        if (g_calls > 0) {
            EXPECT_EQ(g_seen, "qvtest_user");
            EXPECT_EQ(g_seen_length, 12);
        }
        if (row.rc != 0) {
            EXPECT_TRUE(cidb.empty());
            EXPECT_EQ(st.maj_stat, row.rc == SEC_S_MPM_FAILURE ? 9u : 0u);
            EXPECT_EQ(last_message(), row.msg > 0 ? row.msg : last_message());
            continue;
        }
        qv_uint32_t mech = 0, flags = 0;
        int version = 0;
        qv_uint64_t node = 0;
        sec_privset_info_desc ps{};
        ASSERT_EQ(sec__unwrap_cid_buff(cidb.get(), &mech, &version, &node, &flags, &ps), 0);
        EXPECT_EQ(version, 1);
        EXPECT_EQ(mech, row.cidb_flags != 0 ? kCode : 0u);
        EXPECT_EQ(flags, row.cidb_flags);
        EXPECT_EQ(cidb.d.length == 18, row.cidb_flags == 0);
        EXPECT_EQ(qvtest::privset_text(ps), row.set);
        sec__free_privset_info(&ps);
    }
    g_result = 0;
}

}  // namespace
