// sec_receive_sec_context: argument and token checks, sequence and version
// rules, mechanism binding and the module's start and login for the
// service, protocol faults of the module. A failure destroys the context
// (and ends its module context), except a given token that is not one.
#include <gtest/gtest.h>

#include "context_test_harness.h"
#include "sec_test_util.h"

namespace {

using namespace ctxtest;

class ServerContext : public ContextFixture {
protected:
    int receive(const Bytes &c_ccdb) {
        View in(c_ccdb);
        out_.take();
        return sec_receive_sec_context(&st_, server_svc_, in.get(), &ctx_, out_.get());
    }
    void TearDown() override {
        sec_status_desc st{};
        EXPECT_EQ(sec_end_context(&st, ctx_, nullptr), 0);
        ContextFixture::TearDown();
    }
    // The live module handles beyond the two services' own.
    long context_handles() { return m_.live_handles() - handles0_ - 2; }

    sec_status_desc st_{};
    sec_token_t ctx_ = nullptr;
    Out out_;
};

TEST_F(ServerContext, ArgumentChecksUseTheOlderMessage) {
    View in(ccdb(kCodeA, 1, 1, text("c")));
    Out out;
    sec_token_t ctx = nullptr;
    struct Case {
        sec_status_t st;
        sec_token_t svc;
        sec_buffer_t in;
        sec_token_t *ctokenp;
        sec_buffer_t out;
    } cases[] = {
        {nullptr, server_svc_, in.get(), &ctx, out.get()}, {&st_, nullptr, in.get(), &ctx, out.get()},
        {&st_, server_svc_, nullptr, &ctx, out.get()},     {&st_, server_svc_, in.get(), nullptr, out.get()},
        {&st_, server_svc_, in.get(), &ctx, nullptr},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(sec_receive_sec_context(c.st, c.svc, c.in, c.ctokenp, c.out), 4);
        EXPECT_EQ(last_message(), MSG_2650_002);
        EXPECT_NE(last_error_text().find("sec_receive_sec_context"), std::string::npos);
        EXPECT_EQ(ctx, nullptr);
    }
    sec_svc_token_desc fake{};
    fake.magic = SEC_SVC_TOKEN_MAGIC;
    EXPECT_EQ(sec_receive_sec_context(&st_, &fake, in.get(), &ctx, out.get()), SEC_S_BAD_TOKEN);
    EXPECT_EQ(last_message(), MSG_2650_003);
    EXPECT_EQ(m_.calls(QVTEST_MPM_RECEIVE_SEC_CONTEXT), 0u);
}

TEST_F(ServerContext, GivenTokenThatIsNotAcceptableIsLeftAlone) {
    sec_ctx_token_desc fresh{};
    std::memcpy(&fresh.magic, "tnoc", 4);  // a context token that never exchanged anything
    sec_ctx_token_desc idle = fresh;
    idle.state = SEC_CTX_S_SOCKET | 0x1u;
    uint32_t garbage[16] = {7};
    for (void *given : {static_cast<void *>(&fresh), static_cast<void *>(&idle), static_cast<void *>(garbage)}) {
        ctx_ = given;
        EXPECT_EQ(receive(ccdb(kCodeA, 1, 1, text("c"))), SEC_S_BAD_TOKEN);
        EXPECT_EQ(ctx_, given);
    }
    EXPECT_EQ(fresh.magic, SEC_CTX_TOKEN_MAGIC);
    ctx_ = nullptr;
}

TEST_F(ServerContext, FirstRoundBindsTheModule) {
    ASSERT_EQ(receive(ccdb(kCodeA, 1, 1, text("client bytes"))), 0);
    auto *c = static_cast<sec_ctx_token_t>(ctx_);
    EXPECT_EQ(c->state, SEC_CTX_S_SERVER | SEC_CTX_S_COMPLETE | SEC_CTX_S_AUTHENTICATED);
    EXPECT_EQ(c->version, 2);
    EXPECT_EQ(c->seq_no, 1);
    EXPECT_EQ(c->svc_token, server_svc_);
    EXPECT_EQ(c->mdata.mpm->code, kCodeA);
    EXPECT_EQ(c->mdata.next, server_svc()->mdata_list);
    const qvtest_mpm_call_t &rec = m_.record(QVTEST_MPM_RECEIVE_SEC_CONTEXT);
    EXPECT_EQ(Bytes(rec.in, rec.in + rec.in_len), text("client bytes"));
    EXPECT_EQ(rec.args[0], reinterpret_cast<uintptr_t>(c->mdata.next->mtoken));
    EXPECT_EQ(rec.args[2], reinterpret_cast<uintptr_t>(&c->mdata.mtoken));
    EXPECT_EQ(out_.bytes(), ccdb(kCodeA, 1, 0, text("qvtest-server-token")));
    EXPECT_EQ(m_.calls(QVTEST_MPM_RELEASE_BUFFER), 1u);
}

TEST_F(ServerContext, SecondModuleIsStartedForTheServiceOnce) {
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(receive(ccdb(kCodeB, 1, 1, text("c"))), 0);
        sec_status_desc st{};
        EXPECT_EQ(sec_end_context(&st, ctx_, nullptr), 0);
        ctx_ = nullptr;
    }
    EXPECT_EQ(m2_.calls(QVTEST_MPM_START), 1u);
    EXPECT_EQ(m2_.record(QVTEST_MPM_START).args[0], server_svc()->sflags);
}

TEST_F(ServerContext, LoginAsServiceIsRepeatedForEveryServerContext) {
    server_svc()->state |= SEC_SVC_S_LOGIN_AS_SERVICE;
    server_svc()->svc_name = strdup("qvsvc");  // as sec_login_as_service leaves it
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(receive(ccdb(kCodeA, 1, 0, text("c"))), 0);
        sec_status_desc st{};
        EXPECT_EQ(sec_end_context(&st, ctx_, nullptr), 0);
        ctx_ = nullptr;
    }
    EXPECT_EQ(m_.calls(QVTEST_MPM_LOGIN_AS_SERVICE), 3u);
    EXPECT_EQ(server_svc()->mdata_list->state, SEC_MECH_S_STARTED | SEC_MECH_S_SERVER_LOGIN);
    // A failed login fails the context.
    m_.behaviour(QVTEST_MPM_LOGIN_AS_SERVICE).maj_stat = 0x40;
    EXPECT_EQ(receive(ccdb(kCodeA, 1, 0, text("c"))), SEC_S_MPM_FAILURE);
    EXPECT_STREQ(st_.desc, "mpm_login_as_service");
    EXPECT_EQ(ctx_, nullptr);
}

TEST_F(ServerContext, FirstCcdbsThatAreRefused) {
    struct Case {
        const char *what;
        Bytes c;
        int rc;
        int msg;
    } cases[] = {
        {"sequence 2 first", ccdb(kCodeA, 2, 1, text("c")), SEC_S_BAD_BUFFER, MSG_2650_005},
        {"version 1", Bytes{0x82, 1} + be32(kCodeA) + text("c"), SEC_S_BAD_BUFFER, MSG_2650_005},
        {"version 0", Bytes{0x82, 0} + be32(kCodeA), SEC_S_BAD_MECHANISM, MSG_2650_006},
        {"version 3", Bytes{0x82, 3} + be32(kCodeA) + Bytes{1, 0}, SEC_S_BAD_VERSION, MSG_2650_007},
        {"seven bytes", Bytes{0x82, 2} + be32(kCodeA) + Bytes{1}, SEC_S_BAD_BUFFER, MSG_2650_005},
        {"unknown code", ccdb(0x999, 1, 1, text("c")), SEC_S_BAD_MECHANISM, MSG_2650_006},
        {"not a CCDB", Bytes{0x81, 1, 0, 0, 0, 1}, SEC_S_BAD_BUFFER, MSG_2650_005},
        {"empty", Bytes{}, SEC_S_BAD_BUFFER, MSG_2650_005},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(receive(c.c), c.rc);
        EXPECT_EQ(last_message(), c.msg);
        EXPECT_EQ(ctx_, nullptr);
        EXPECT_TRUE(out_.empty());
    }
    EXPECT_EQ(m_.calls(QVTEST_MPM_RECEIVE_SEC_CONTEXT), 0u);
}

TEST_F(ServerContext, LaterCcdbsThatAreRefused) {
    struct Case {
        const char *what;
        Bytes c;
        int rc;
        int msg;
    } cases[] = {
        {"other mechanism", ccdb(kCodeB, 2, 1, text("c")), SEC_S_BAD_MECHANISM, MSG_2650_006},
        {"same sequence again", ccdb(kCodeA, 1, 1, text("c")), SEC_S_BAD_BUFFER, MSG_2650_005},
        {"skipped sequence", ccdb(kCodeA, 3, 1, text("c")), SEC_S_BAD_BUFFER, MSG_2650_005},
        {"older version", Bytes{0x82, 1} + be32(kCodeA) + text("c"), SEC_S_BAD_BUFFER, MSG_2650_005},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        m_.behaviour(QVTEST_MPM_RECEIVE_SEC_CONTEXT).continue_rounds = 1;
        ASSERT_EQ(receive(ccdb(kCodeA, 1, 1, text("c"))), 1);
        EXPECT_EQ(out_.bytes(), ccdb(kCodeA, 1, 1, text("qvtest-server-token")));
        EXPECT_EQ(state_of(ctx_), SEC_CTX_S_SERVER | SEC_CTX_S_IN_PROGRESS | SEC_CTX_S_AUTHENTICATED);
        EXPECT_EQ(context_handles(), 1);
        EXPECT_EQ(receive(c.c), c.rc);
        EXPECT_EQ(last_message(), c.msg);
        EXPECT_EQ(ctx_, nullptr);
        EXPECT_TRUE(out_.empty());
        EXPECT_EQ(context_handles(), 0);  // the module context was ended with the token
    }
}

TEST_F(ServerContext, ProtocolFaultsOfTheModule) {
    struct Case {
        const char *what;
        int continue_rounds;
        uint8_t client_flags;
        int msg;
    } cases[] = {
        {"continue without output", 1, 1, MSG_2650_024},
        {"client waits, no output", 0, 1, MSG_2650_025},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        m_.behaviour(QVTEST_MPM_RECEIVE_SEC_CONTEXT).continue_rounds = c.continue_rounds;
        m_.behaviour(QVTEST_MPM_RECEIVE_SEC_CONTEXT).output_len = 0;
        unsigned long ends = m_.calls(QVTEST_MPM_END_CONTEXT);
        EXPECT_EQ(receive(ccdb(kCodeA, 1, c.client_flags, text("c"))), SEC_S_BAD_MPM);
        EXPECT_EQ(last_message(), c.msg);
        EXPECT_EQ(ctx_, nullptr);
        EXPECT_EQ(m_.calls(QVTEST_MPM_END_CONTEXT), ends + 1);
    }
    // Complete without output while the client is done: fine, nothing sent.
    EXPECT_EQ(receive(ccdb(kCodeA, 1, 0, text("c"))), 0);
    EXPECT_TRUE(out_.empty());
    EXPECT_EQ(state_of(ctx_), SEC_CTX_S_SERVER | SEC_CTX_S_COMPLETE | SEC_CTX_S_AUTHENTICATED);
}

TEST_F(ServerContext, ModuleFailureIsPassedOnAndTheTokenGoes) {
    m_.behaviour(QVTEST_MPM_RECEIVE_SEC_CONTEXT).maj_stat = 0x50;
    m_.behaviour(QVTEST_MPM_RECEIVE_SEC_CONTEXT).min_stat = 9;
    EXPECT_EQ(receive(ccdb(kCodeA, 1, 1, text("c"))), SEC_S_MPM_FAILURE);
    EXPECT_EQ(st_.maj_stat, 0x50u);
    EXPECT_EQ(st_.min_stat, 9u);
    EXPECT_EQ(st_.mech_code, kCodeA);
    EXPECT_STREQ(st_.desc, "mpm_receive_sec_context");
    EXPECT_EQ(ctx_, nullptr);
}

TEST_F(ServerContext, UnauthenticatedContextTakesNoMoreCcdbs) {
    ASSERT_EQ(receive(ccdb(0, 1, 0)), 0);
    EXPECT_TRUE(out_.empty());
    EXPECT_EQ(receive(ccdb(0, 2, 0)), SEC_S_BAD_MECHANISM);
    EXPECT_EQ(ctx_, nullptr);
}

}  // namespace
