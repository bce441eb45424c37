// Allocation failures in the library's public routines: with allocations
// failing from the n-th on, for every n, each sequence ends in success or
// the no-memory code, leaves nothing allocated (the sweep counts blocks) and
// no module handle or buffer behind, and leaves its tokens in a state the
// next call can rely on.
#include <gtest/gtest.h>

#include <pwd.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <string>

#include "alloc_failure.h"
#include "context_test_harness.h"

namespace {

using namespace ctxtest;

class AllocFailure : public ContextFixture {
protected:
    // What a step made, ended by the check with allocation working again.
    struct Made {
        sec_token_t svc = nullptr, cctx = nullptr, sctx = nullptr;
        sec_buffer_desc bufs[4] = {};
        sec_privset_info_desc ps = {};
        sec_token_t ids[2] = {};
        sec_buffer_desc groups[2] = {};
    };
    void end_made() {
        sec_status_desc st{};
        for (sec_token_t t : {made_.cctx, made_.sctx, made_.ids[0], made_.ids[1]})
            EXPECT_EQ(sec_end_context(&st, t, nullptr), 0);
        EXPECT_EQ(sec_end(&st, 0, made_.svc), 0);
        for (sec_buffer_desc &b : made_.bufs) free(b.value);
        for (sec_buffer_desc &b : made_.groups) free(b.value);
        sec__free_privset_info(&made_.ps);
        made_ = Made{};
    }
    qv_int32_t start_client(sec_token_t svc, sec_buffer_t out) {
        char name[] = "svc", host[] = "host";
        return sec_start_sec_context(&st_, svc, list_.get(), name, host, 0, &made_.cctx, out);
    }
    qv_int32_t establish_made() {
        if (qv_int32_t rc = start_client(client_svc_, &made_.bufs[0])) return rc;
        return sec_receive_sec_context(&st_, server_svc_, &made_.bufs[0], &made_.sctx, &made_.bufs[1]);
    }
    qv_int32_t wrap_cidb(int groups, sec_buffer_t out) {
        static char name[] = "alice", mname[] = "bob", g1[] = "g1", g2[] = "staff";
        static sec_buffer_desc group_list[] = {{3, g1}, {6, g2}};
        sec_privset_info_desc ps{name, mname, groups, group_list};
        return sec__wrap_cid_buff(kCodeA, 1, SEC_CIDB_F_MAPPING, &ps, out);
    }
    Bytes bytes(int i) const {
        auto *p = static_cast<const uint8_t *>(made_.bufs[i].value);
        return Bytes(p, p + made_.bufs[i].length);
    }

    Made made_;
    sec_status_desc st_{};  // the status of the steps' calls
    // Inputs made before the sweep: the steps themselves allocate nothing.
    View list_{mech_list({kCodeA})};
    View message_{text("message")};
    std::string user_ = getpwuid(geteuid())->pw_name;
};

TEST_F(AllocFailure, PublicRoutinesEndInSuccessOrNoMemory) {
    struct Row {
        const char *name;
        std::function<qv_int32_t()> step;
        // Extra checks with allocation working, before the made tokens end.
        std::function<void(qv_int32_t rc)> after;
    };
    const Row rows[] = {
        {"sec_start", [this] { return sec_start(&st_, 0, &made_.svc); }, nullptr},
        // A service login that found no memory for the name must not leave a
        // token whose contexts hand the module a NULL service name.
        {"sec_login_as_service",
         [this] {
             if (qv_int32_t rc = sec_start(&st_, SEC_F_DEFER_MPM_START, &made_.svc)) return rc;
             char name[] = "qvsvc";
             return sec_login_as_service(&st_, name, made_.svc);
         },
         [this](qv_int32_t) {
             if (made_.svc == nullptr) return;
             start_client(made_.svc, &made_.bufs[2]);
             sec_renew_identity(&st_, 60, made_.svc);
             if (m_.calls(QVTEST_MPM_LOGIN_AS_SERVICE) > 0) {
                 EXPECT_STREQ(m_.record(QVTEST_MPM_LOGIN_AS_SERVICE).str[0], "qvsvc");
             }
         }},
        // The variable stays set between runs: replacing it allocates
        // nothing in the environment itself.
        {"sec_set_imposed_mechs and sec_get_auth_methods",
         [this] {
             if (qv_int32_t rc = sec_set_imposed_mechs(list_.get())) return rc;
             qv_int32_t n = 0;
             return sec_get_auth_methods(&made_.bufs[0], &n);
         },
         [this](qv_int32_t rc) { EXPECT_TRUE(rc != 0 || bytes(0) == mech_list({kCodeA})); }},
        {"establish, sign, verify, seal and open",
         [this] {
             if (qv_int32_t rc = establish_made()) return rc;
             char data[] = "signed bytes";
             struct iovec v = {data, sizeof data};
             if (qv_int32_t rc = sec_sign_data_v(&st_, made_.cctx, 1, &v, &made_.bufs[2])) return rc;
             if (qv_int32_t rc = sec_verify_data_v(&st_, made_.sctx, &made_.bufs[2], 1, &v)) return rc;
             free(made_.bufs[2].value);
             made_.bufs[2] = {0, nullptr};
             if (qv_int32_t rc =
                     sec_prepare_data(&st_, made_.cctx, SEC_F_PROTECT_MODE1, message_.get(), &made_.bufs[2]))
                 return rc;
             return sec_process_data(&st_, made_.sctx, &made_.bufs[2], &made_.bufs[3]);
         },
         [this](qv_int32_t rc) {
             // The opened bytes are module output handed to the caller.
             if (rc == 0 && made_.bufs[3].value != nullptr) opened_by_caller_ += 1;
         }},
        {"establish in two rounds",
         [this] {
             m_.behaviour(QVTEST_MPM_START_SEC_CONTEXT).continue_rounds = 1;  // the client asks for an answer
             qv_int32_t rc = start_client(client_svc_, &made_.bufs[0]);
             if (rc != 1) return rc;
             if ((rc = sec_receive_sec_context(&st_, server_svc_, &made_.bufs[0], &made_.sctx, &made_.bufs[1])) != 0)
                 return rc;
             return sec_complete_sec_context(&st_, &made_.bufs[1], &made_.cctx, &made_.bufs[2]);
         },
         nullptr},
        // A failed write leaves no buffer, a failed read no half-read identity.
        {"CIDB written and read back",
         [this] {
             if (qv_int32_t rc = wrap_cidb(2, &made_.bufs[0])) return rc;
             qv_uint32_t mech = 0, flags = 0;
             int version = 0;
             qv_uint64_t node = 0;
             return sec__unwrap_cid_buff(&made_.bufs[0], &mech, &version, &node, &flags, &made_.ps);
         },
         [this](qv_int32_t rc) {
             const sec_privset_info_desc &ps = made_.ps;
             if (rc == 0) {
                 ASSERT_EQ(ps.gcount, 2);
                 EXPECT_STREQ(static_cast<const char *>(ps.groups[1].value), "staff");
                 return;
             }
             EXPECT_TRUE(ps.name == nullptr && ps.mname == nullptr && ps.gcount == 0 && ps.groups == nullptr);
             EXPECT_TRUE(made_.bufs[0].value != nullptr || made_.bufs[0].length == 0);
         }},
        // The mapping comes with the CIDB or is not asked for: the system's
        // group lookup stays out of the sweep. A failed CIDB leaves no buffer.
        {"a CIDB, and identity contexts from a context and from a CIDB",
         [this] {
             if (qv_int32_t rc = establish_made()) return rc;
             if (qv_int32_t rc = sec_create_cidb(&st_, SEC_F_CIDB_HOST_LOCAL, made_.sctx, &made_.bufs[3])) {
                 EXPECT_TRUE(made_.bufs[3].value == nullptr && made_.bufs[3].length == 0);
                 return rc;
             }
             if (qv_int32_t rc = sec_create_id_context(&st_, server_svc_, SEC_F_IDCTX_SECCTX | SEC_F_IDCTX_NO_MAP,
                                                       made_.sctx, &made_.ids[0]))
                 return rc;
             if (qv_int32_t rc = wrap_cidb(1, &made_.bufs[2])) return rc;
             if (qv_int32_t rc = sec_create_id_context(&st_, client_svc_, SEC_F_IDCTX_CIDB, &made_.bufs[2], &made_.ids[1]))
                 return rc;
             qv_int32_t count = sizeof made_.groups;
             sec_buffer_t out = nullptr;
             return sec_get_client_groups(made_.ids[1], reinterpret_cast<char *>(made_.groups), &count, &out);
         },
         [this](qv_int32_t rc) {
             EXPECT_STREQ(static_cast<const char *>(made_.groups[0].value), rc == 0 ? "g1" : nullptr);
         }},
        // The library's own mapping, from the system's databases: a lookup
        // that ran out of memory is code 6, with no half-made group list.
        {"the groups of this process's user",
         [this] {
             sec_buffer_desc name{static_cast<qv_int32_t>(user_.size() + 1), user_.data()};
             return sec_idm_get_groups(&name, &made_.ps.gcount, &made_.ps.groups);
         },
         [this](qv_int32_t rc) {
             EXPECT_EQ(made_.ps.gcount > 0 && made_.ps.groups != nullptr, rc == 0);
             EXPECT_TRUE(rc == 0 || (made_.ps.gcount == 0 && made_.ps.groups == nullptr));
         }},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        m_.reset();
        long handles = m_.live_handles();
        auto finish = [&](qv_int32_t rc) {
            if (row.after) row.after(rc);
            end_made();
            m_.reset();
            cu_set_no_error_1();  // the thread's error record is not a leak
        };
        qvtest::alloc_failure_sweep(
            row.step,
            [&](int rc, bool) {
                // 3: the module's own allocation failed (its status says so);
                // 22: the module lost its output to the failure and asked to
                // go on with nothing to send.
                EXPECT_TRUE(rc == 0 || rc == SEC_S_NO_MEMORY || (rc == SEC_S_MPM_FAILURE && st_.maj_stat == 6) ||
                            rc == SEC_S_BAD_MPM)
                    << "rc " << rc;
                finish(rc);
                EXPECT_EQ(m_.live_handles(), handles);
                sec_status_desc scratch{};
                sec__error_clear(&scratch);
            },
            [&] { finish(row.step()); });
        if (HasFailure()) break;
    }
}

// sec_release_buffer wipes what it frees: the whole block, whatever length
// the caller's record still claims.
TEST(ReleaseBuffer, WipesTheWholeBlockBeforeFreeingIt) {
    if (!qvtest::failing_allocator_active()) GTEST_SKIP() << "needs the test allocator to see freed blocks";
    for (qv_int32_t length : {48, 5, 0}) {
        SCOPED_TRACE(length);
        void *block = std::malloc(48);
        ASSERT_NE(block, nullptr);
        std::memset(block, 0xa5, 48);
        sec_buffer_desc buf{length, block};
        qvtest::watch_free(block, 48);
        EXPECT_EQ(sec_release_buffer(&buf), 0);
        EXPECT_EQ(qvtest::freed_bytes(), std::string(48, '\0'));
        EXPECT_TRUE(buf.value == nullptr && buf.length == 0);
    }
}

}  // namespace
