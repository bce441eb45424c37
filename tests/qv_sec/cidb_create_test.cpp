// sec_create_cidb from security and identity contexts: what reaches the CIDB
// (names, mapping, groups, host-local flag) and which failure of the module
// or of the mapping stops it, with its code and message; nothing is handed
// out on failure and every module buffer is given back (fixture teardown).
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "current_error.h"
#include "identity_fixture.h"
#include "messages.h"
#include "sec_buffer.h"

namespace {

int g_groups_result = 0;
int g_groups_calls = 0;

}  // namespace

// This program's identity mapping: every user is in "qvgrp" alone.
extern "C" int sec_idm_get_groups(sec_buffer_t, int *gcount, sec_buffer_t *groups) {
    ++g_groups_calls;
    if (g_groups_result != 0) return g_groups_result;
    *gcount = 1;
    *groups = static_cast<sec_buffer_t>(calloc(1, sizeof(sec_buffer_desc)));
    (*groups)[0] = {6, strdup("qvgrp")};
    return 0;
}

namespace {

class CreateCidb : public qvtest::HandBuiltContextFixture {
protected:
    void SetUp() override {
        HandBuiltContextFixture::SetUp();
        g_groups_result = 0;
        g_groups_calls = 0;
    }
    void TearDown() override {
        // An identity context's privilege set belongs to the test here.
        token_.privset = sec_privset_info_desc{};
        HandBuiltContextFixture::TearDown();
    }
};

TEST_F(CreateCidb, WhatTheCidbCarriesAndWhatStopsIt) {
    static char lent_name[] = "lent@example", lent_mname[] = "lentuser", lent_group[] = "lentgrp";
    static sec_buffer_desc lent_groups[] = {{8, lent_group}};
    constexpr qv_uint32_t kIdentity = SEC_CTX_S_COMPLETE | SEC_CTX_S_IDENTITY | SEC_CTX_S_AUTHENTICATED;
    struct Row {
        const char *what;
        std::function<void(qvtest::TestMpm &, sec_ctx_token_desc &)> setup;
        qv_uint32_t flags;
        qv_int32_t rc;
        int msg;                  // when rc is not 0 and not 3
        qv_uint32_t cidb_flags;   // when rc is 0
        const char *name, *mname;
        std::vector<std::string> groups;
    };
    const std::vector<Row> rows = {
        {"network name only", nullptr, 0, 0, 0, 0x200, "qvtest_client@example", nullptr, {}},
        {"mapping and host-local", nullptr, 0x401, 0, 0, 0x400600, "qvtest_client@example", "qvtest_user", {"qvgrp"}},
        {"no mapped name: no groups asked",
         []([[maybe_unused]] qvtest::TestMpm &m, [[maybe_unused]] sec_ctx_token_desc &t) { m.behaviour(QVTEST_MPM_GET_MAPPED_NAME).name_len = 0; }, 1, 0, 0, 0x400200,
         "qvtest_client@example", nullptr, {}},
        {"unauthenticated: mechanism 0", []([[maybe_unused]] qvtest::TestMpm &m, [[maybe_unused]] sec_ctx_token_desc &t) { t.state &= ~SEC_CTX_S_AUTHENTICATED; }, 0x401, 0,
         0, 0, nullptr, nullptr, {}},
        // An identity context lends its set; it cannot vouch for host-locality.
        {"identity context, mapped",
         []([[maybe_unused]] qvtest::TestMpm &m, [[maybe_unused]] sec_ctx_token_desc &t) {
             t.state = kIdentity | SEC_CTX_S_MAPPED;
             t.privset = {lent_name, lent_mname, 1, lent_groups};
         },
         0x401, 0, 0, 0x400200, "lent@example", "lentuser", {"lentgrp"}},
        {"identity context without a name",
         []([[maybe_unused]] qvtest::TestMpm &m, [[maybe_unused]] sec_ctx_token_desc &t) { t.state = kIdentity; }, 0, SEC_S_INTERNAL, MSG_2650_072, 0, nullptr, nullptr, {}},
        {"no module data", []([[maybe_unused]] qvtest::TestMpm &m, [[maybe_unused]] sec_ctx_token_desc &t) { t.mdata.mpm = nullptr; }, 0, SEC_S_INTERNAL, MSG_2650_071, 0,
         nullptr, nullptr, {}},
        {"empty client name", []([[maybe_unused]] qvtest::TestMpm &m, [[maybe_unused]] sec_ctx_token_desc &t) { m.behaviour(QVTEST_MPM_GET_CLIENT_NAME).name_len = 0; }, 0,
         SEC_S_BAD_MPM, MSG_2650_067, 0, nullptr, nullptr, {}},
        {"module refuses the flags", []([[maybe_unused]] qvtest::TestMpm &m, [[maybe_unused]] sec_ctx_token_desc &t) { m.behaviour(QVTEST_MPM_GET_CTX_FLAGS).maj_stat = 9; },
         0, SEC_S_MPM_FAILURE, 0, 0, nullptr, nullptr, {}},
        {"module refuses the mapped name",
         []([[maybe_unused]] qvtest::TestMpm &m, [[maybe_unused]] sec_ctx_token_desc &t) { m.behaviour(QVTEST_MPM_GET_MAPPED_NAME).maj_stat = 9; }, 1, SEC_S_MPM_FAILURE, 0, 0,
         nullptr, nullptr, {}},
        {"mapping fails: its code passed on", [](qvtest::TestMpm &, sec_ctx_token_desc &) { g_groups_result = 36; }, 1, 36, -1, 0, nullptr,
         nullptr, {}},
        {"not complete", []([[maybe_unused]] qvtest::TestMpm &m, [[maybe_unused]] sec_ctx_token_desc &t) { t.state &= ~SEC_CTX_S_COMPLETE; }, 0, SEC_S_BAD_TOKEN,
         MSG_2650_061, 0, nullptr, nullptr, {}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        mpm_.reset();
        token_.state = kEstablished;
        token_.mdata.mpm = entry_;
        token_.privset = sec_privset_info_desc{};
        g_groups_result = 0;
        if (row.setup) row.setup(mpm_, token_);
        cu_set_no_error_1();
        sec_status_desc st{};
        qvtest::SecBuffer cidb;
        EXPECT_EQ(sec_create_cidb(&st, row.flags, &token_, cidb.get()), row.rc);
        if (row.rc != 0) {
            EXPECT_TRUE(cidb.empty());
            if (row.rc == SEC_S_MPM_FAILURE) {
                EXPECT_EQ(st.maj_stat, 9u);
            } else if (row.msg >= 0) {
                EXPECT_EQ(qvtest::current_error().msg_num, row.msg);
            }
            continue;
        }
        qv_uint32_t mech = 0, flags = 0;
        int version = 0;
        qv_uint64_t node = 0;
        sec_privset_info_desc ps{};
        ASSERT_EQ(sec__unwrap_cid_buff(cidb.get(), &mech, &version, &node, &flags, &ps), 0);
        EXPECT_EQ(version, 1);
        EXPECT_EQ(mech, row.name != nullptr ? kCode : 0u);
        EXPECT_EQ(flags, row.cidb_flags);
        if (row.name == nullptr) {
            EXPECT_EQ(cidb.d.length, 18);
        } else {
            EXPECT_STREQ(ps.name, row.name);
        }
        EXPECT_STREQ(ps.mname != nullptr ? ps.mname : "<none>", row.mname != nullptr ? row.mname : "<none>");
        ASSERT_EQ(ps.gcount, static_cast<int>(row.groups.size()));
        for (size_t i = 0; i < row.groups.size(); ++i)
            EXPECT_STREQ(static_cast<char *>(ps.groups[i].value), row.groups[i].c_str());
        sec__free_privset_info(&ps);
    }
}

}  // namespace
