// sec_start_sec_context and sec_complete_sec_context: argument and token
// checks, the walk over the shared list with its first-failure reporting,
// module protocol faults, mismatched answers, socket-prepared tokens. Every
// failure must leave no token, no output and nothing of the module's.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "context_test_harness.h"
#include "sec_test_util.h"

namespace {

using namespace ctxtest;

class ClientContext : public ContextFixture {
protected:
    // sec_start_sec_context with the list, into ctx_ and out_.
    int start(const Bytes &list, sec_token_t *ctokenp = nullptr) {
        View l(list);
        out_.take();
        return sec_start_sec_context(&st_, client_svc_, l.get(), svc_, host_, 0x1234, ctokenp ? ctokenp : &ctx_,
                                     out_.get());
    }
    int complete(const Bytes &answer) {
        View a(answer);
        out_.take();
        return sec_complete_sec_context(&st_, a.get(), &ctx_, out_.get());
    }
    void TearDown() override {
        sec_status_desc st{};
        EXPECT_EQ(sec_end_context(&st, ctx_, nullptr), 0);
        ContextFixture::TearDown();
    }

    sec_status_desc st_{};
    sec_token_t ctx_ = nullptr;
    Out out_;
    char svc_[8] = "svc";
    char host_[8] = "host";
};

TEST_F(ClientContext, ArgumentChecks) {
    Bytes list = mech_list({kCodeA});
    View l(list);
    sec_token_t ctx = nullptr;
    Out out;
    EXPECT_EQ(sec_start_sec_context(nullptr, client_svc_, l.get(), svc_, host_, 0, &ctx, out.get()), 4);
    EXPECT_EQ(last_message(), MSG_2650_060);
    EXPECT_NE(last_error_text().find("sec_start_sec_context"), std::string::npos);
    struct Case {
        sec_token_t svc;
        sec_buffer_t list;
        char *svc_name;
        char *host;
        sec_token_t *ctokenp;
        sec_buffer_t out;
    } cases[] = {
        {nullptr, l.get(), svc_, host_, &ctx, out.get()}, {client_svc_, l.get(), nullptr, host_, &ctx, out.get()},
        {client_svc_, l.get(), svc_, nullptr, &ctx, out.get()}, {client_svc_, l.get(), svc_, host_, nullptr, out.get()},
        {client_svc_, l.get(), svc_, host_, &ctx, nullptr},
        // A missing list is found after the token is made; the token goes.
        {client_svc_, nullptr, svc_, host_, &ctx, out.get()},
    };
    for (const Case &c : cases) {
        st_.maj_stat = 77;
        EXPECT_EQ(sec_start_sec_context(&st_, c.svc, c.list, c.svc_name, c.host, 0, c.ctokenp, c.out), 4);
        EXPECT_EQ(last_message(), MSG_2650_002);
        EXPECT_NE(last_error_text().find("sec_start_sec_context"), std::string::npos);
        EXPECT_EQ(st_.maj_stat, 0u);
        EXPECT_EQ(ctx, nullptr);
    }
    EXPECT_EQ(m_.calls(QVTEST_MPM_START_SEC_CONTEXT), 0u);
}

TEST_F(ClientContext, MalformedListsAreRefusedAndTheTokenGoes) {
    struct Case {
        Bytes list;
        int rc;
    } cases[] = {
        {{}, SEC_S_BAD_BUFFER},
        {{0x82, 1}, SEC_S_BAD_BUFFER},
        {{0x81, 3}, SEC_S_BAD_VERSION},
        {{0x81, 1, 0}, SEC_S_BAD_BUFFER},
        {{0x81, 2, 0, 1, 0, 2, 9}, SEC_S_BAD_BUFFER},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(start(c.list), c.rc);
        EXPECT_EQ(last_message(), c.rc == SEC_S_BAD_VERSION ? MSG_2650_007 : MSG_2650_005);
        EXPECT_EQ(ctx_, nullptr);
        EXPECT_TRUE(out_.empty());
    }
    // A version-2 list is read.
    EXPECT_EQ(start(mech_list({kCodeA}, 2)), 0);
}

TEST_F(ClientContext, ServiceTokenMustBeStarted) {
    sec_svc_token_desc fake{};
    View l(mech_list({kCodeA}));
    EXPECT_EQ(sec_start_sec_context(&st_, &fake, l.get(), svc_, host_, 0, &ctx_, out_.get()), SEC_S_BAD_TOKEN);
    EXPECT_EQ(last_message(), MSG_2650_003);
    fake.magic = SEC_SVC_TOKEN_MAGIC;  // the magic without the started bit
    EXPECT_EQ(sec_start_sec_context(&st_, &fake, l.get(), svc_, host_, 0, &ctx_, out_.get()), SEC_S_BAD_TOKEN);
    EXPECT_EQ(ctx_, nullptr);
}

TEST_F(ClientContext, GivenTokenMustBeAnUnusedSocketToken) {
    // Not a context token at all: reported, left alone.
    uint32_t not_a_token[16] = {1, 2, 3};
    sec_token_t given = not_a_token;
    EXPECT_EQ(start(mech_list({kCodeA}), &given), SEC_S_BAD_TOKEN);
    EXPECT_EQ(given, static_cast<sec_token_t>(not_a_token));
    EXPECT_EQ(not_a_token[1], 2u);
    // A context token in use is destroyed like any token of a failed start.
    ASSERT_EQ(start(mech_list({kCodeA})), 0);
    sec_token_t used = ctx_;
    ctx_ = nullptr;
    EXPECT_EQ(start(mech_list({kCodeA}), &used), SEC_S_BAD_TOKEN);
    EXPECT_EQ(last_message(), MSG_2650_003);
    EXPECT_EQ(used, nullptr);
}

TEST_F(ClientContext, ModuleReceivesTheCallersArguments) {
    ASSERT_EQ(start(mech_list({kCodeA})), 0);
    const qvtest_mpm_call_t &rec = m_.record(QVTEST_MPM_START_SEC_CONTEXT);
    auto *svc = client_svc();
    ASSERT_NE(svc->mdata_list, nullptr);
    EXPECT_EQ(rec.args[0], reinterpret_cast<uintptr_t>(svc->mdata_list->mtoken));
    EXPECT_EQ(rec.args[3], 0x1234u);
    EXPECT_EQ(rec.args[4], reinterpret_cast<uintptr_t>(&static_cast<sec_ctx_token_t>(ctx_)->mdata.mtoken));
    EXPECT_EQ(std::string(rec.str[0]), "svc");
    // Complete at once: the first CCDB carries no continue flag.
    EXPECT_EQ(out_.bytes(), ccdb(kCodeA, 1, 0, text("qvtest-client-token")));
    EXPECT_EQ(state_of(ctx_), SEC_CTX_S_CLIENT | SEC_CTX_S_COMPLETE | SEC_CTX_S_AUTHENTICATED);
    EXPECT_EQ(static_cast<sec_ctx_token_t>(ctx_)->version, 2);
    EXPECT_EQ(static_cast<sec_ctx_token_t>(ctx_)->svc_token, client_svc_);
    EXPECT_EQ(m_.calls(QVTEST_MPM_RELEASE_BUFFER), 1u);
}

TEST_F(ClientContext, CompleteWithoutOutputSendsNothing) {
    m_.behaviour(QVTEST_MPM_START_SEC_CONTEXT).output_len = 0;
    EXPECT_EQ(start(mech_list({kCodeA})), 0);
    EXPECT_TRUE(out_.empty());
    EXPECT_EQ(seq_of(ctx_), 0u);
}

TEST_F(ClientContext, UnknownCodeStopsTheWalk) {
    m2_.behaviour(QVTEST_MPM_START_SEC_CONTEXT).maj_stat = 0x10;
    EXPECT_EQ(start(mech_list({kCodeB, 0x999, kCodeA})), SEC_S_BAD_MECHANISM);
    EXPECT_EQ(last_message(), MSG_2650_006);
    // The earlier failure is not what the caller sees, and A is never tried.
    EXPECT_EQ(st_.maj_stat, 0u);
    EXPECT_EQ(m_.calls(QVTEST_MPM_START_SEC_CONTEXT), 0u);
    EXPECT_EQ(ctx_, nullptr);
}

TEST_F(ClientContext, FirstFailureIsReportedWhenAllFail) {
    m2_.behaviour(QVTEST_MPM_START_SEC_CONTEXT).maj_stat = 0x10;
    m2_.behaviour(QVTEST_MPM_START_SEC_CONTEXT).min_stat = 7;
    m_.behaviour(QVTEST_MPM_START_SEC_CONTEXT).maj_stat = 0x11;
    EXPECT_EQ(start(mech_list({kCodeB, kCodeA})), SEC_S_MPM_FAILURE);
    EXPECT_EQ(st_.maj_stat, 0x10u);
    EXPECT_EQ(st_.min_stat, 7u);
    EXPECT_EQ(st_.mech_code, kCodeB);
    EXPECT_STREQ(st_.desc, "mpm_start_sec_context");
    EXPECT_EQ(m_.calls(QVTEST_MPM_END_CONTEXT) + m2_.calls(QVTEST_MPM_END_CONTEXT), 2u);
    EXPECT_EQ(ctx_, nullptr);
    EXPECT_TRUE(out_.empty());
}

TEST_F(ClientContext, FirstFailureKeepsItsMessageAcrossModules) {
    // A module that cannot be loaded fails with 22 and its message; the
    // second fails inside its routine. The caller sees the first.
    configure(line(1, "qvtest", kCodeA, qvtest::kTestMpm) + line(2, "broken", 0x77, "no-such-module.so"));
    restart_server();
    m_.behaviour(QVTEST_MPM_START_SEC_CONTEXT).maj_stat = 0x11;
    EXPECT_EQ(start(mech_list({0x77, kCodeA})), SEC_S_BAD_MPM);
    EXPECT_EQ(last_message(), MSG_2650_050);
    EXPECT_EQ(st_.maj_stat, 0u);
}

TEST_F(ClientContext, LaterModuleAcceptsAfterAFailure) {
    m2_.behaviour(QVTEST_MPM_START_SEC_CONTEXT).maj_stat = 0x10;
    m_.behaviour(QVTEST_MPM_START_SEC_CONTEXT).continue_rounds = 1;
    cu_set_no_error_1();
    EXPECT_EQ(start(mech_list({kCodeB, kCodeA})), 1);
    EXPECT_EQ(st_.desc[0], '\0');
    EXPECT_EQ(st_.mech_code, 0u);
    EXPECT_EQ(out_.bytes(), ccdb(kCodeA, 1, 1, text("qvtest-client-token")));
    EXPECT_EQ(state_of(ctx_), SEC_CTX_S_CLIENT | SEC_CTX_S_IN_PROGRESS | SEC_CTX_S_AUTHENTICATED);
    EXPECT_EQ(static_cast<sec_ctx_token_t>(ctx_)->mdata.mpm->code, kCodeA);
}

TEST_F(ClientContext, ModuleStartFailureForTheServiceIsTriedLikeAnyOther) {
    // B is not started by sec_start (only the first configured module is).
    m2_.behaviour(QVTEST_MPM_START).maj_stat = 0x13;
    EXPECT_EQ(start(mech_list({kCodeB})), SEC_S_MPM_FAILURE);
    EXPECT_STREQ(st_.desc, "mpm_start");
    EXPECT_EQ(m2_.calls(QVTEST_MPM_START_SEC_CONTEXT), 0u);
}

TEST_F(ClientContext, ContinueWithoutOutputIsAModuleFault) {
    m_.behaviour(QVTEST_MPM_START_SEC_CONTEXT).continue_rounds = 1;
    m_.behaviour(QVTEST_MPM_START_SEC_CONTEXT).output_len = 0;
    EXPECT_EQ(start(mech_list({kCodeA})), SEC_S_BAD_MPM);
    EXPECT_EQ(last_message(), MSG_2650_024);
    EXPECT_EQ(m_.calls(QVTEST_MPM_END_CONTEXT), 1u);
    EXPECT_EQ(ctx_, nullptr);
}

TEST_F(ClientContext, LoginAsServiceOnceForClientContexts) {
    client_svc()->state |= SEC_SVC_S_LOGIN_AS_SERVICE;
    client_svc()->svc_name = strdup("qvsvc");  // as sec_login_as_service leaves it
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(start(mech_list({kCodeA})), 0);
        sec_status_desc st{};
        EXPECT_EQ(sec_end_context(&st, ctx_, nullptr), 0);
        ctx_ = nullptr;
    }
    EXPECT_EQ(m_.calls(QVTEST_MPM_LOGIN_AS_SERVICE), 1u);
    EXPECT_EQ(client_svc()->mdata_list->state, SEC_MECH_S_STARTED | SEC_MECH_S_CLIENT_LOGIN);
}

// ---- sec_complete_sec_context ----

class Completing : public ClientContext {
protected:
    void SetUp() override {
        ClientContext::SetUp();
        m_.behaviour(QVTEST_MPM_START_SEC_CONTEXT).continue_rounds = 1;
        ASSERT_EQ(start(mech_list({kCodeA})), 1);
    }
};

TEST_F(Completing, ArgumentChecks) {
    Bytes answer = ccdb(kCodeA, 1, 0, text("x"));
    View a(answer);
    sec_buffer_desc empty{0, nullptr};
    sec_buffer_desc null_value{3, nullptr};
    sec_token_t none = nullptr;
    Out out;
    EXPECT_EQ(sec_complete_sec_context(nullptr, a.get(), &ctx_, out.get()), 4);
    EXPECT_EQ(last_message(), MSG_2650_060);
    // A failure destroys the context, so each case starts a fresh one.
    struct Case {
        sec_buffer_t s;
        bool no_handle;
        bool null_token;
        bool null_out;
    } cases[] = {{nullptr, false, false, false}, {&empty, false, false, false}, {&null_value, false, false, false},
                 {a.get(), true, false, false},  {a.get(), false, true, false}, {a.get(), false, false, true}};
    for (const Case &c : cases) {
        if (ctx_ == nullptr) {
            m_.behaviour(QVTEST_MPM_START_SEC_CONTEXT).continue_rounds = 1;
            ASSERT_EQ(start(mech_list({kCodeA})), 1);
        }
        EXPECT_EQ(sec_complete_sec_context(&st_, c.s, c.no_handle ? nullptr : c.null_token ? &none : &ctx_,
                                           c.null_out ? nullptr : out.get()),
                  4);
        EXPECT_EQ(last_message(), MSG_2650_002);
        EXPECT_NE(last_error_text().find("sec_complete_sec_context"), std::string::npos);
    }
    EXPECT_EQ(m_.calls(QVTEST_MPM_COMPLETE_SEC_CONTEXT), 0u);
}

TEST_F(Completing, AnswersThatDoNotFit) {
    struct Case {
        const char *what;
        Bytes answer;
        int rc;
        int msg;
    } cases[] = {
        {"sequence", ccdb(kCodeA, 2, 0, text("x")), SEC_S_BAD_BUFFER, MSG_2650_005},
        {"mechanism", ccdb(kCodeB, 1, 0, text("x")), SEC_S_BAD_MECHANISM, MSG_2650_006},
        {"version", Bytes{0x82, 3} + be32(kCodeA) + Bytes{1, 0}, SEC_S_BAD_VERSION, MSG_2650_007},
        {"type", Bytes{0x86, 2} + be32(kCodeA) + Bytes{1, 0}, SEC_S_BAD_BUFFER, MSG_2650_005},
        {"short", Bytes{0x82, 2} + be32(kCodeA) + Bytes{1}, SEC_S_BAD_BUFFER, MSG_2650_005},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        if (ctx_ == nullptr) {
            m_.behaviour(QVTEST_MPM_START_SEC_CONTEXT).continue_rounds = 1;
            ASSERT_EQ(start(mech_list({kCodeA})), 1);
        }
        EXPECT_EQ(complete(c.answer), c.rc);
        EXPECT_EQ(last_message(), c.msg);
        EXPECT_EQ(ctx_, nullptr);
        EXPECT_TRUE(out_.empty());
        // The module context of the destroyed token was ended.
        EXPECT_EQ(m_.live_handles(), handles0_ + 2);  // the two services' handles only
    }
}

TEST_F(Completing, OlderVersionAnswerIsReadWithoutSequence) {
    // A version-1 answer has no sequence number and is not checked for one.
    m_.behaviour(QVTEST_MPM_COMPLETE_SEC_CONTEXT).continue_rounds = 1;
    EXPECT_EQ(complete(Bytes{0x82, 1} + be32(kCodeA) + text("old")), 1);
    // The reply keeps the server's version: a 6-byte header.
    EXPECT_EQ(out_.bytes(), (Bytes{0x82, 1} + be32(kCodeA) + text("qvtest-client-more")));
    EXPECT_EQ(seq_of(ctx_), 2u);
}

TEST_F(Completing, ProtocolFaultsOfTheModule) {
    struct Case {
        const char *what;
        int continue_rounds;
        int output_len;
        uint8_t server_flags;
        int msg;
    } cases[] = {
        {"continue without output", 1, 0, 0, MSG_2650_024},
        {"server waits, no output", 0, -1, 1, MSG_2650_025},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        if (ctx_ == nullptr) {
            m_.behaviour(QVTEST_MPM_START_SEC_CONTEXT).continue_rounds = 1;
            ASSERT_EQ(start(mech_list({kCodeA})), 1);
        }
        m_.behaviour(QVTEST_MPM_COMPLETE_SEC_CONTEXT).continue_rounds = c.continue_rounds;
        m_.behaviour(QVTEST_MPM_COMPLETE_SEC_CONTEXT).output_len = c.output_len;
        unsigned long ends = m_.calls(QVTEST_MPM_END_CONTEXT);
        EXPECT_EQ(complete(ccdb(kCodeA, 1, c.server_flags, text("s"))), SEC_S_BAD_MPM);
        EXPECT_EQ(last_message(), c.msg);
        EXPECT_EQ(ctx_, nullptr);
        EXPECT_EQ(m_.calls(QVTEST_MPM_END_CONTEXT), ends + 1);
    }
}

TEST_F(Completing, ModuleFailureIsPassedOn) {
    m_.behaviour(QVTEST_MPM_COMPLETE_SEC_CONTEXT).maj_stat = 0x21;
    EXPECT_EQ(complete(ccdb(kCodeA, 1, 0, text("s"))), SEC_S_MPM_FAILURE);
    EXPECT_STREQ(st_.desc, "mpm_complete_sec_context");
    EXPECT_EQ(st_.maj_stat, 0x21u);
    EXPECT_EQ(ctx_, nullptr);
}

TEST_F(Completing, CompleteContextCannotBeCompletedAgain) {
    EXPECT_EQ(complete(ccdb(kCodeA, 1, 0, text("s"))), 0);
    EXPECT_TRUE(out_.empty());
    EXPECT_EQ(complete(ccdb(kCodeA, 1, 0, text("s"))), SEC_S_BAD_TOKEN);
    EXPECT_EQ(last_message(), MSG_2650_003);
    EXPECT_EQ(ctx_, nullptr);
}

TEST_F(Completing, ServerContextIsNotAClientContext) {
    View c(out_.take());
    Out ans;
    sec_token_t server_ctx = nullptr;
    ASSERT_EQ(sec_receive_sec_context(&st_, server_svc_, c.get(), &server_ctx, ans.get()), 0);
    EXPECT_EQ(sec_complete_sec_context(&st_, ans.get(), &server_ctx, out_.get()), SEC_S_BAD_TOKEN);
    EXPECT_EQ(server_ctx, nullptr);
}

// ---- Socket-prepared tokens ----

class SocketContext : public ClientContext {
protected:
    void SetUp() override {
        ClientContext::SetUp();
        fd_ = socket(AF_UNIX, SOCK_STREAM, 0);
        ASSERT_GE(fd_, 0);
        std::string prefix = dir_.path() + "/";
        ASSERT_EQ(sec_setup_socket(client_svc_, fd_, SEC_F_LOCAL_SOCKET, prefix.data(), &ctx_), 0);
        path_ = static_cast<sec_ctx_token_t>(ctx_)->sinfo.path;
    }
    void TearDown() override {
        ClientContext::TearDown();
        close(fd_);
    }
    static bool exists(const std::string &p) {
        struct stat sb;
        return stat(p.c_str(), &sb) == 0;
    }
    int fd_ = -1;
    std::string path_;
};

TEST_F(SocketContext, ModuleLearnsTheSocketAndTeardownRemovesIt) {
    sec_ctx_token_t c = static_cast<sec_ctx_token_t>(ctx_);
    ASSERT_TRUE(exists(path_));
    ASSERT_EQ(start(mech_list({kCodeA})), 0);
    EXPECT_EQ(ctx_, static_cast<sec_token_t>(c));
    const qvtest_mpm_call_t &rec = m_.record(QVTEST_MPM_SET_CTX_ATTRIBUTE);
    EXPECT_EQ(rec.args[1], 1u);  // the socket information
    EXPECT_EQ(rec.args[2], reinterpret_cast<uintptr_t>(&c->sinfo));
    EXPECT_EQ(rec.args[3], reinterpret_cast<uintptr_t>(&c->mdata.mtoken));
    EXPECT_EQ(state_of(ctx_), SEC_CTX_S_SOCKET | SEC_CTX_S_CLIENT | SEC_CTX_S_COMPLETE | SEC_CTX_S_AUTHENTICATED);
    sec_status_desc st{};
    EXPECT_EQ(sec_end_context(&st, ctx_, nullptr), 0);
    ctx_ = nullptr;
    EXPECT_FALSE(exists(path_));
}

TEST_F(SocketContext, FailedStartDestroysTheTokenAndItsSocketFile) {
    EXPECT_EQ(start(mech_list({0x999})), SEC_S_BAD_MECHANISM);
    EXPECT_EQ(ctx_, nullptr);
    EXPECT_FALSE(exists(path_));
}

TEST_F(SocketContext, FailedAttributeMovesOnToTheNextModule) {
    m2_.behaviour(QVTEST_MPM_SET_CTX_ATTRIBUTE).maj_stat = 0x30;
    EXPECT_EQ(start(mech_list({kCodeB, kCodeA})), 0);
    EXPECT_EQ(m2_.calls(QVTEST_MPM_START_SEC_CONTEXT), 0u);
    EXPECT_EQ(static_cast<sec_ctx_token_t>(ctx_)->mdata.mpm->code, kCodeA);
}

}  // namespace
