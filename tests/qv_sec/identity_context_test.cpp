// sec_create_id_context from both sources with the mapping flags: the state
// and privilege set of the new identity context, what the module was asked
// (mode, name, mapping), the host-local check, and the failures with their
// codes and messages. A failure after the module made its identity context
// ends that context and still reports the first error; the fixture checks
// that no module handle or buffer is left behind.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "identity_fixture.h"
#include "current_error.h"
#include "test_support.h"

namespace {

using namespace ctxtest;

using qvtest::be16;
using qvtest::cidb_head;
const auto field = qvtest::cidb_field;
Bytes cidb(qv_uint32_t mech, qv_uint32_t flags, const Bytes &names, const Bytes &node = qvtest::kCidbNode) {
    return cidb_head(mech, flags, node) + names;
}

enum Source { kServerContext, kUnauthContext, kIdentityContext, kCidb };

constexpr qv_uint32_t kUnauthId = 0x04800000, kPlainId = 0x04800200, kMappedId = 0x04C00200;

class IdentityContext : public ContextFixture {
protected:
    void SetUp() override {
        setenv("QV_NODE_ID_FILE", dir_.write("node_id", "0123456789abcdef\n").c_str(), 1);
        ContextFixture::SetUp();
    }
    void TearDown() override {
        ContextFixture::TearDown();
        unsetenv("QV_NODE_ID_FILE");
    }
    qvtest::TempDir dir_;
};

TEST_F(IdentityContext, EachSourceAndMappingFlag) {
    const Bytes alice = field("alice");
    const Bytes carried = alice + field("bob") + be32(1) + field("g1");
    struct Row {
        const char *what;
        Source source;
        qv_uint32_t flags;
        Bytes cidb;
        std::function<void(qvtest::TestMpm &)> setup;
        qv_int32_t rc;
        int msg;  // rc other than 0 and 3
        qv_uint32_t state;
        const char *set;  // the privilege set, as privset_text writes it
        int mode;  // mpm_create_id_context's mode, 0: not called
    };
    const std::vector<Row> rows = {
        {"security context", kServerContext, SEC_F_IDCTX_SECCTX, {}, nullptr, 0, 0, kMappedId,
         "qvtest_client@example|qvtest_user|", 1},
        {"security context, no mapping", kServerContext, SEC_F_IDCTX_SECCTX | SEC_F_IDCTX_NO_MAP, {}, nullptr, 0, 0,
         kPlainId, "qvtest_client@example|-|", 1},
        {"unauthenticated security context", kUnauthContext, SEC_F_IDCTX_SECCTX, {}, nullptr, 0, 0, kUnauthId,
         "-|-|", 0},
        {"an identity context given", kIdentityContext, SEC_F_IDCTX_SECCTX, {}, nullptr, 5, MSG_2650_062, 0, "-|-|", 0},
        {"module refuses the identity context", kServerContext, SEC_F_IDCTX_SECCTX, {},
         [](qvtest::TestMpm &m) { m.behaviour(QVTEST_MPM_CREATE_ID_CONTEXT).maj_stat = 9; }, 3, 0, 0, "-|-|", 1},
        {"empty client name after the module's context", kServerContext, SEC_F_IDCTX_SECCTX, {},
         [](qvtest::TestMpm &m) { m.behaviour(QVTEST_MPM_GET_CLIENT_NAME).name_len = 0; }, 22, MSG_2650_067, 0,
         "-|-|", 1},
        {"unauthenticated CIDB", kCidb, SEC_F_IDCTX_CIDB, Bytes{SEC_BUF_CIDB, 1} + qvtest::kCidbNode + be32(0) + be32(0),
         nullptr, 0, 0, kUnauthId, "-|-|", 0},
        {"CIDB without mapping: the module maps", kCidb, SEC_F_IDCTX_CIDB, cidb(kCodeA, 0x200, alice), nullptr, 0, 0,
         kMappedId, "alice|qvtest_user|", 2},
        {"CIDB with mapping: taken as carried", kCidb, SEC_F_IDCTX_CIDB, cidb(kCodeA, 0x400200, carried), nullptr, 0,
         0, kMappedId, "alice|bob|g1/3", 2},
        {"CIDB with L2 = 0: no mapped name", kCidb, SEC_F_IDCTX_CIDB, cidb(kCodeA, 0x400200, alice + be16(0)),
         nullptr, 0, 0, kMappedId, "alice|-|", 2},
        {"CIDB with mapping, forced: the module maps", kCidb, SEC_F_IDCTX_CIDB | SEC_F_IDCTX_FORCE_MAP,
         cidb(kCodeA, 0x400200, carried), nullptr, 0, 0, kMappedId, "alice|qvtest_user|", 2},
        {"CIDB with mapping, no mapping asked", kCidb, SEC_F_IDCTX_CIDB | SEC_F_IDCTX_NO_MAP,
         cidb(kCodeA, 0x400200, carried), nullptr, 0, 0, kMappedId, "alice|bob|g1/3", 2},
        {"CIDB without mapping, no mapping asked", kCidb, SEC_F_IDCTX_CIDB | SEC_F_IDCTX_NO_MAP,
         cidb(kCodeA, 0x200, alice), nullptr, 0, 0, kPlainId, "alice|-|", 2},
        {"host-local CIDB of this host", kCidb, SEC_F_IDCTX_CIDB, cidb(kCodeB, 0x600, alice), nullptr, 0, 0,
         kMappedId, "alice|qvtest_user|", 2},
        {"host-local CIDB of another host", kCidb, SEC_F_IDCTX_CIDB,
         cidb(kCodeA, 0x600, alice, Bytes{0xfe, 0xdc, 0xba, 0x98, 0x76, 0x54, 0x32, 0x10}), nullptr, 31,
         MSG_2650_087, 0, "-|-|", 0},
        {"CIDB of an unconfigured mechanism", kCidb, SEC_F_IDCTX_CIDB, cidb(0x777, 0x200, alice), nullptr, 8,
         MSG_2650_070, 0, "-|-|", 0},
        {"CIDB cut short", kCidb, SEC_F_IDCTX_CIDB, cidb(kCodeA, 0x200, be16(6) + text("ali")), nullptr, 7,
         MSG_2650_005, 0, "-|-|", 0},
        // The first failure is the one reported, not the ending's.
        {"mapping fails after the module's context", kCidb, SEC_F_IDCTX_CIDB, cidb(kCodeA, 0x200, alice),
         [](qvtest::TestMpm &m) {
             m.behaviour(QVTEST_MPM_GET_MAPPED_NAME).maj_stat = 9;
             m.behaviour(QVTEST_MPM_END_CONTEXT).maj_stat = 5;
         },
         3, 0, 0, "-|-|", 2},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        m_.reset();
        m2_.reset();
        sec_status_desc st{};
        Exchange &ex = establish(mech_list(row.source == kUnauthContext ? std::vector<qv_uint32_t>{}
                                                                         : std::vector<qv_uint32_t>{kCodeA}));
        void *in = ex.server_ctx;
        sec_token_t given_identity = nullptr;
        if (row.source == kIdentityContext) {
            ASSERT_EQ(sec_create_id_context(&st, server_svc_, SEC_F_IDCTX_SECCTX, ex.server_ctx, &given_identity), 0);
            in = given_identity;
        }
        View buffer(row.cidb);
        if (row.source == kCidb) in = buffer.get();
        m_.reset();
        m2_.reset();
        if (row.setup) row.setup(m_);
        cu_set_no_error_1();
        sec_token_t made = reinterpret_cast<sec_token_t>(&st);
        qv_int32_t rc = sec_create_id_context(&st, server_svc_, row.flags, in, &made);
        EXPECT_EQ(rc, row.rc);
        qvtest::TestMpm &m = row.cidb.size() > 13 && row.cidb[13] == kCodeB ? m2_ : m_;
        EXPECT_EQ(m.calls(QVTEST_MPM_CREATE_ID_CONTEXT), row.mode != 0 ? 1u : 0u);
        EXPECT_EQ(m.record(QVTEST_MPM_CREATE_ID_CONTEXT).args[0], static_cast<uintptr_t>(row.mode));
        EXPECT_STREQ(m.record(QVTEST_MPM_CREATE_ID_CONTEXT).str[0], row.mode == 2 ? "alice" : "");
        EXPECT_EQ(st.maj_stat, rc == SEC_S_MPM_FAILURE ? 9u : 0u);
        EXPECT_EQ(rc == 0 || rc == SEC_S_MPM_FAILURE ? row.msg : qvtest::current_error().msg_num, row.msg);
        const auto *t = static_cast<const sec_ctx_token_desc *>(made);
        EXPECT_EQ(t != nullptr ? t->state : 0u, row.state);
        EXPECT_EQ(t != nullptr ? qvtest::privset_text(t->privset) : "-|-|", row.set);
        EXPECT_EQ(sec_end_context(&st, made, nullptr), 0);
        EXPECT_EQ(sec_end_context(&st, given_identity, nullptr), 0);
        m_.reset();
        m2_.reset();
        end_contexts();
        ex_ = Exchange{};
    }
}

}  // namespace
