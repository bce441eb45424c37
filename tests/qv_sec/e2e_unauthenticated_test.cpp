// Unauthenticated contexts end to end: chosen by the client (empty shared
// list), asked for by a module on either side, forced by the server on a
// waiting client; refused by QV_SEC_IMP_MECHS without "none" on the client
// and by a service whose own imposed mechanisms lack it.
#include <gtest/gtest.h>

#include "context_test_harness.h"
#include "sec_test_util.h"

namespace {

using namespace ctxtest;

const Bytes kUnauthCcdb = {0x82, 0x02, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00};

class Unauthenticated : public ContextFixture {
protected:
    // The attribute answers of an unauthenticated context.
    static void expect_unauthenticated_answers(sec_token_t ctx) {
        sec_status_desc st{};
        qv_int32_t lifetime = 0;
        qv_uint32_t flags = 99;
        char name[SEC_C_CTX_MPM_NAME_SIZE] = "xxxxxxxxxxxxxxxx";
        int nothing = 7;
        EXPECT_EQ(sec_get_ctx_attribute(&st, ctx, SEC_C_CTX_LIFETIME, &lifetime), 0);
        EXPECT_EQ(lifetime, -1);
        EXPECT_EQ(sec_get_ctx_attribute(&st, ctx, SEC_C_CTX_FLAGS, &flags), 0);
        EXPECT_EQ(flags, 0u);
        EXPECT_EQ(sec_get_ctx_attribute(&st, ctx, SEC_C_CTX_MPM_NAME, name), 0);
        EXPECT_STREQ(name, "none");
        EXPECT_EQ(sec_get_ctx_attribute(&st, ctx, SEC_C_CTX_NOTHING, &nothing), 0);
        EXPECT_EQ(nothing, 7);
        EXPECT_EQ(sec_get_ctx_lifetime(&st, ctx, &lifetime), 0);
        EXPECT_EQ(lifetime, -1);
        // No protection without authentication.
        Bytes msg = text("x");
        View in(msg);
        Out out;
        EXPECT_EQ(sec_prepare_data(&st, ctx, SEC_F_PROTECT_MODE1, in.get(), out.get()), SEC_S_AUTH_ERROR);
        EXPECT_EQ(last_message(), MSG_2650_022);
        EXPECT_EQ(sec_process_data(&st, ctx, in.get(), out.get()), SEC_S_AUTH_ERROR);
    }
};

TEST_F(Unauthenticated, EmptySharedListOnBothSides) {
    Exchange &ex = establish(mech_list({}));
    EXPECT_EQ(ex.client_rc, SEC_S_UNAUTHENTICATED);
    EXPECT_EQ(ex.wire, std::vector<Bytes>{kUnauthCcdb});
    EXPECT_EQ(ex.server_rc, 0);
    EXPECT_EQ(state_of(ex.client_ctx), SEC_CTX_S_CLIENT | SEC_CTX_S_COMPLETE);
    EXPECT_EQ(state_of(ex.server_ctx), SEC_CTX_S_SERVER | SEC_CTX_S_COMPLETE);
    EXPECT_EQ(seq_of(ex.server_ctx), 1u);
    EXPECT_EQ(m_.calls(QVTEST_MPM_START_SEC_CONTEXT) + m_.calls(QVTEST_MPM_RECEIVE_SEC_CONTEXT), 0u);
    expect_unauthenticated_answers(ex.client_ctx);
    expect_unauthenticated_answers(ex.server_ctx);
}

TEST_F(Unauthenticated, ClientMessageSaysItInitiatedIt) {
    establish(mech_list({}));
    // The informational message of the return code 2, recorded by the client.
    sec_status_desc st{};
    sec_token_t ctx = nullptr;
    Bytes list = mech_list({});
    View l(list);
    Out out;
    EXPECT_EQ(sec_start_sec_context(&st, client_svc_, l.get(), const_cast<char *>("s"), const_cast<char *>("h"), 0,
                                    &ctx, out.get()),
              SEC_S_UNAUTHENTICATED);
    EXPECT_EQ(last_message(), MSG_CLIENT_INITIATES_UNAUTH);
    EXPECT_EQ(sec_end_context(&st, ctx, out.get()), 0);
    EXPECT_TRUE(out.empty());
}

TEST_F(Unauthenticated, ImposedMechanismsDecideOnTheClient) {
    struct Case {
        const char *imposed;
        int rc;
    } cases[] = {{"qvtest", SEC_S_BAD_MECHANISM}, {"qvtest none", SEC_S_UNAUTHENTICATED}, {"", SEC_S_UNAUTHENTICATED}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.imposed);
        setenv("QV_SEC_IMP_MECHS", c.imposed, 1);
        ex_ = Exchange{};
        Exchange &ex = establish(mech_list({}));
        EXPECT_EQ(ex.client_rc, c.rc);
        if (c.rc == SEC_S_BAD_MECHANISM) {
            EXPECT_EQ(last_message(), MSG_2650_086);
            EXPECT_EQ(ex.client_ctx, nullptr);
            EXPECT_TRUE(ex.wire.empty());
        }
        end_contexts();
    }
}

TEST_F(Unauthenticated, ClientModuleAsksForIt) {
    m_.behaviour(QVTEST_MPM_START_SEC_CONTEXT).maj_stat = SEC_S_UNAUTHENTICATED;
    Exchange &ex = establish(mech_list({kCodeA}));
    EXPECT_EQ(ex.client_rc, SEC_S_UNAUTHENTICATED);
    EXPECT_EQ(ex.wire, std::vector<Bytes>{kUnauthCcdb});
    EXPECT_EQ(ex.server_rc, 0);
    EXPECT_EQ(state_of(ex.client_ctx), SEC_CTX_S_CLIENT | SEC_CTX_S_COMPLETE);
    // The failed attempt was ended; the captured failure is not the caller's.
    EXPECT_EQ(m_.calls(QVTEST_MPM_END_CONTEXT), 1u);
    EXPECT_EQ(ex.client_st.maj_stat, 0u);
}

TEST_F(Unauthenticated, ALaterModuleThatAcceptsIsLeftUnused) {
    m2_.behaviour(QVTEST_MPM_START_SEC_CONTEXT).maj_stat = SEC_S_UNAUTHENTICATED;
    Exchange &ex = establish(mech_list({kCodeB, kCodeA}));
    EXPECT_EQ(ex.client_rc, SEC_S_UNAUTHENTICATED);
    EXPECT_EQ(ex.wire, std::vector<Bytes>{kUnauthCcdb});
    EXPECT_EQ(m_.calls(QVTEST_MPM_START_SEC_CONTEXT), 1u);
    // The accepting module's context and output went back to it at once.
    EXPECT_EQ(m_.calls(QVTEST_MPM_END_CONTEXT), 1u);
    EXPECT_EQ(m_.calls(QVTEST_MPM_RELEASE_BUFFER), 1u);
    EXPECT_EQ(state_of(ex.client_ctx), SEC_CTX_S_CLIENT | SEC_CTX_S_COMPLETE);
}

TEST_F(Unauthenticated, ClientModuleRequestRefusedByImposedMechanisms) {
    setenv("QV_SEC_IMP_MECHS", "qvtest qvtest2", 1);
    m2_.behaviour(QVTEST_MPM_START_SEC_CONTEXT).maj_stat = SEC_S_UNAUTHENTICATED;
    Exchange &ex = establish(mech_list({kCodeB, kCodeA}));
    EXPECT_EQ(ex.client_rc, SEC_S_BAD_MECHANISM);
    EXPECT_EQ(last_message(), MSG_2650_086);
    EXPECT_EQ(ex.client_ctx, nullptr);
}

TEST_F(Unauthenticated, ServerForcesItOnAWaitingClient) {
    m_.behaviour(QVTEST_MPM_START_SEC_CONTEXT).continue_rounds = 1;  // the client waits: flag 0x01
    m_.behaviour(QVTEST_MPM_RECEIVE_SEC_CONTEXT).maj_stat = SEC_S_UNAUTHENTICATED;
    Exchange &ex = establish(mech_list({kCodeA}));
    EXPECT_EQ(ex.server_rc, 0);
    ASSERT_EQ(ex.wire.size(), 2u);
    EXPECT_EQ(ex.wire[0], ccdb(kCodeA, 1, 1, text("qvtest-client-token")));
    EXPECT_EQ(ex.wire[1], kUnauthCcdb);
    EXPECT_EQ(state_of(ex.server_ctx), SEC_CTX_S_SERVER | SEC_CTX_S_IN_PROGRESS | SEC_CTX_S_COMPLETE);
    EXPECT_EQ(ex.client_rc, SEC_S_UNAUTHENTICATED);
    EXPECT_EQ(last_message(), MSG_SERVER_FORCES_UNAUTH);
    EXPECT_EQ(state_of(ex.client_ctx), SEC_CTX_S_CLIENT | SEC_CTX_S_COMPLETE);
    // The client's module context was ended when the server forced it.
    EXPECT_EQ(m_.calls(QVTEST_MPM_END_CONTEXT), 1u);
    expect_unauthenticated_answers(ex.client_ctx);
    expect_unauthenticated_answers(ex.server_ctx);
}

TEST_F(Unauthenticated, ServerModuleAsksButTheClientIsDone) {
    m_.behaviour(QVTEST_MPM_RECEIVE_SEC_CONTEXT).maj_stat = SEC_S_UNAUTHENTICATED;
    Exchange &ex = establish(mech_list({kCodeA}));
    EXPECT_EQ(ex.client_rc, 0);
    EXPECT_EQ(ex.server_rc, 0);
    EXPECT_EQ(ex.wire.size(), 1u);  // nothing is sent back
    EXPECT_EQ(state_of(ex.server_ctx) & SEC_CTX_S_AUTHENTICATED, 0u);
}

TEST_F(Unauthenticated, ForcedClientRefusesWhenImposedMechanismsLackNone) {
    m_.behaviour(QVTEST_MPM_START_SEC_CONTEXT).continue_rounds = 1;
    m_.behaviour(QVTEST_MPM_RECEIVE_SEC_CONTEXT).maj_stat = SEC_S_UNAUTHENTICATED;
    setenv("QV_SEC_IMP_MECHS", "qvtest", 1);  // read by the client's start only: the server started before
    Exchange &ex = establish(mech_list({kCodeA}));
    EXPECT_EQ(ex.server_rc, 0);
    EXPECT_EQ(ex.client_rc, SEC_S_BAD_MECHANISM);
    EXPECT_EQ(last_message(), MSG_2650_086);
    EXPECT_EQ(ex.client_ctx, nullptr);
}

TEST_F(Unauthenticated, ServerModuleMayNotAskAfterTheFirstRound) {
    script_rounds(m_, 3);
    m_.behaviour(QVTEST_MPM_RECEIVE_SEC_CONTEXT).continue_rounds = 1;
    m_.behaviour(QVTEST_MPM_RECEIVE_SEC_CONTEXT).maj_stat = SEC_S_UNAUTHENTICATED;
    Exchange &ex = establish(mech_list({kCodeA}));
    EXPECT_EQ(ex.server_rc, SEC_S_BAD_MPM);
    EXPECT_EQ(last_message(), MSG_2650_029);
    EXPECT_EQ(ex.server_ctx, nullptr);
    EXPECT_EQ(ex.client_rc, 1);
}

// The server's service token takes its refusal from the server's own
// QV_SEC_IMP_MECHS when it is made.
TEST_F(Unauthenticated, ServiceTokenRefusalFollowsTheImposedMechanisms) {
    struct Case {
        const char *imposed;
        bool refuses;
    } cases[] = {{nullptr, false}, {"", false}, {"qvtest", true}, {"none qvtest", false}, {"unknown", true}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.imposed ? c.imposed : "(unset)");
        if (c.imposed) setenv("QV_SEC_IMP_MECHS", c.imposed, 1);
        else unsetenv("QV_SEC_IMP_MECHS");
        restart_server();
        EXPECT_EQ((server_svc()->state & SEC_SVC_S_REFUSE_UNAUTH) != 0, c.refuses);
        EXPECT_EQ(server_svc()->state & SEC_SVC_S_STARTED, SEC_SVC_S_STARTED);
    }
}

TEST_F(Unauthenticated, RefusingServiceRejectsUnauthenticatedClients) {
    setenv("QV_SEC_IMP_MECHS", "qvtest", 1);
    restart_server();
    unsetenv("QV_SEC_IMP_MECHS");
    // The client chose it.
    Exchange &ex = establish(mech_list({}));
    EXPECT_EQ(ex.client_rc, SEC_S_UNAUTHENTICATED);
    EXPECT_EQ(ex.server_rc, SEC_S_AUTH_ERROR);
    EXPECT_EQ(last_message(), MSG_2650_030);
    EXPECT_EQ(ex.server_ctx, nullptr);
    end_contexts();
    // The server's module asked for it.
    ex_ = Exchange{};
    m_.behaviour(QVTEST_MPM_START_SEC_CONTEXT).continue_rounds = 1;
    m_.behaviour(QVTEST_MPM_RECEIVE_SEC_CONTEXT).maj_stat = SEC_S_UNAUTHENTICATED;
    establish(mech_list({kCodeA}));
    EXPECT_EQ(ex_.server_rc, SEC_S_AUTH_ERROR);
    EXPECT_EQ(last_message(), MSG_2650_030);
    EXPECT_EQ(ex_.server_ctx, nullptr);
    EXPECT_EQ(ex_.client_rc, 1);
}

}  // namespace
