// Establishing a context, one side at a time: the client's walk over the
// shared list with its first-failure reporting, the server's sequence,
// version and mechanism rules, the module's start and login for the
// service, protocol faults of the module, mismatched answers and
// socket-prepared tokens. A failure destroys the context (and ends its
// module context), except a given token that is not one, and leaves no
// output and nothing of the module's.
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

TEST_F(Completing, OlderVersionAnswerIsReadWithoutSequence) {
    // A version-1 answer has no sequence number and is not checked for one.
    m_.behaviour(QVTEST_MPM_COMPLETE_SEC_CONTEXT).continue_rounds = 1;
    EXPECT_EQ(complete(Bytes{0x82, 1} + be32(kCodeA) + text("old")), 1);
    // The reply keeps the server's version: a 6-byte header.
    EXPECT_EQ(out_.bytes(), (Bytes{0x82, 1} + be32(kCodeA) + text("qvtest-client-more")));
    EXPECT_EQ(seq_of(ctx_), 2u);
}

// ---- CCDBs either side refuses, and module faults ----

// Scripts of the test module for the refusal rows.
void none(qvtest::TestMpm &) {}
void fails(qvtest::TestMpm &m, int routine, qv_uint32_t maj) {
    m.behaviour(routine).maj_stat = maj;
    m.behaviour(routine).min_stat = 9;
}
void continues_silently(qvtest::TestMpm &m, int routine) {
    m.behaviour(routine).continue_rounds = 1;
    m.behaviour(routine).output_len = 0;
}
void done_silently(qvtest::TestMpm &m, int routine) { m.behaviour(routine).output_len = 0; }

enum Side { kComplete, kFirstReceive, kLaterReceive };

struct Refusal {
    const char *what;
    Side side;
    void (*script)(qvtest::TestMpm &);
    Bytes in;
    int rc;
    int msg;                     // 0: a module failure, which records none
    const char *desc = nullptr;  // the failing module routine
};

std::vector<Refusal> refusals() {
    const Bytes v1 = Bytes{0x82, 1} + be32(kCodeA);
    return {
        // The client's first CCDB was sequence 1 of kCodeA; the answer must fit.
        {"answer: sequence ahead", kComplete, none, ccdb(kCodeA, 2, 0, text("x")), SEC_S_BAD_BUFFER, MSG_2650_005},
        {"answer: sequence behind", kComplete, none, ccdb(kCodeA, 0, 0, text("x")), SEC_S_BAD_BUFFER, MSG_2650_005},
        {"answer: mechanism", kComplete, none, ccdb(kCodeB, 1, 0, text("x")), SEC_S_BAD_MECHANISM, MSG_2650_006},
        {"answer: version", kComplete, none, Bytes{0x82, 3} + be32(kCodeA) + Bytes{1, 0}, SEC_S_BAD_VERSION,
         MSG_2650_007},
        {"answer: type", kComplete, none, Bytes{0x86, 2} + be32(kCodeA) + Bytes{1, 0}, SEC_S_BAD_BUFFER, MSG_2650_005},
        {"answer: short", kComplete, none, Bytes{0x82, 2} + be32(kCodeA) + Bytes{1}, SEC_S_BAD_BUFFER, MSG_2650_005},
        {"client module continues without output", kComplete,
         [](qvtest::TestMpm &m) { continues_silently(m, QVTEST_MPM_COMPLETE_SEC_CONTEXT); },
         ccdb(kCodeA, 1, 0, text("s")), SEC_S_BAD_MPM, MSG_2650_024},
        {"server waits, client module sends nothing", kComplete, none, ccdb(kCodeA, 1, 1, text("s")), SEC_S_BAD_MPM,
         MSG_2650_025},
        {"client module fails", kComplete,
         [](qvtest::TestMpm &m) { fails(m, QVTEST_MPM_COMPLETE_SEC_CONTEXT, 0x21); },
         ccdb(kCodeA, 1, 0, text("s")), SEC_S_MPM_FAILURE, 0, "mpm_complete_sec_context"},
        // The server's first CCDB.
        {"first: sequence 2", kFirstReceive, none, ccdb(kCodeA, 2, 1, text("c")), SEC_S_BAD_BUFFER, MSG_2650_005},
        {"first: version 1", kFirstReceive, none, v1 + text("c"), SEC_S_BAD_BUFFER, MSG_2650_005},
        {"first: version 0", kFirstReceive, none, Bytes{0x82, 0} + be32(kCodeA), SEC_S_BAD_MECHANISM, MSG_2650_006},
        {"first: version 3", kFirstReceive, none, Bytes{0x82, 3} + be32(kCodeA) + Bytes{1, 0}, SEC_S_BAD_VERSION,
         MSG_2650_007},
        {"first: seven bytes", kFirstReceive, none, Bytes{0x82, 2} + be32(kCodeA) + Bytes{1}, SEC_S_BAD_BUFFER,
         MSG_2650_005},
        {"first: unknown code", kFirstReceive, none, ccdb(0x999, 1, 1, text("c")), SEC_S_BAD_MECHANISM, MSG_2650_006},
        {"first: not a CCDB", kFirstReceive, none, Bytes{0x81, 1, 0, 0, 0, 1}, SEC_S_BAD_BUFFER, MSG_2650_005},
        {"first: empty", kFirstReceive, none, Bytes{}, SEC_S_BAD_BUFFER, MSG_2650_005},
        {"server module continues without output", kFirstReceive,
         [](qvtest::TestMpm &m) { continues_silently(m, QVTEST_MPM_RECEIVE_SEC_CONTEXT); },
         ccdb(kCodeA, 1, 1, text("c")), SEC_S_BAD_MPM, MSG_2650_024},
        {"client waits, server module sends nothing", kFirstReceive,
         [](qvtest::TestMpm &m) { done_silently(m, QVTEST_MPM_RECEIVE_SEC_CONTEXT); },
         ccdb(kCodeA, 1, 1, text("c")), SEC_S_BAD_MPM, MSG_2650_025},
        {"server module fails", kFirstReceive,
         [](qvtest::TestMpm &m) { fails(m, QVTEST_MPM_RECEIVE_SEC_CONTEXT, 0x50); },
         ccdb(kCodeA, 1, 1, text("c")), SEC_S_MPM_FAILURE, 0, "mpm_receive_sec_context"},
        // The server's second CCDB, after a first of sequence 1.
        {"later: other mechanism", kLaterReceive, none, ccdb(kCodeB, 2, 1, text("c")), SEC_S_BAD_MECHANISM,
         MSG_2650_006},
        {"later: same sequence again", kLaterReceive, none, ccdb(kCodeA, 1, 1, text("c")), SEC_S_BAD_BUFFER,
         MSG_2650_005},
        {"later: skipped sequence", kLaterReceive, none, ccdb(kCodeA, 3, 1, text("c")), SEC_S_BAD_BUFFER,
         MSG_2650_005},
        {"later: older version", kLaterReceive, none, v1 + text("c"), SEC_S_BAD_BUFFER, MSG_2650_005},
    };
}

class Refused : public ClientContext {
protected:
    int receive(const Bytes &c_ccdb) {
        View in(c_ccdb);
        out_.take();
        return sec_receive_sec_context(&st_, server_svc_, in.get(), &ctx_, out_.get());
    }
};

// Each refusal destroys the context, ends its module context, and sends
// nothing; a module failure is passed on in the status record.
TEST_F(Refused, EveryRowEndsTheContext) {
    for (const Refusal &r : refusals()) {
        SCOPED_TRACE(r.what);
        m_.reset();
        if (r.side == kComplete) {
            m_.behaviour(QVTEST_MPM_START_SEC_CONTEXT).continue_rounds = 1;
            ASSERT_EQ(start(mech_list({kCodeA})), 1);
        } else if (r.side == kLaterReceive) {
            m_.behaviour(QVTEST_MPM_RECEIVE_SEC_CONTEXT).continue_rounds = 1;
            ASSERT_EQ(receive(ccdb(kCodeA, 1, 1, text("c"))), 1);
            EXPECT_EQ(out_.bytes(), ccdb(kCodeA, 1, 1, text("qvtest-server-token")));
        }
        r.script(m_);
        cu_set_no_error_1();
        EXPECT_EQ(r.side == kComplete ? complete(r.in) : receive(r.in), r.rc);
        if (r.msg != 0) {
            EXPECT_EQ(last_message(), r.msg);
        }
        if (r.desc != nullptr) {
            EXPECT_STREQ(st_.desc, r.desc);
            EXPECT_EQ(st_.min_stat, 9u);
            EXPECT_EQ(st_.mech_code, kCodeA);
        }
        EXPECT_EQ(ctx_, nullptr);
        EXPECT_TRUE(out_.empty());
        EXPECT_EQ(m_.live_handles(), handles0_ + 2);  // the two services' handles only
        if (r.side == kFirstReceive && r.msg != 0 && r.rc != SEC_S_BAD_MPM) {
            EXPECT_EQ(m_.calls(QVTEST_MPM_RECEIVE_SEC_CONTEXT), 0u);
        }
    }
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
    EXPECT_EQ(m_.calls(QVTEST_MPM_START_SEC_CONTEXT), 1u);
}

// ---- sec_receive_sec_context ----

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

    sec_status_desc st_{};
    sec_token_t ctx_ = nullptr;
    Out out_;
};

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
    // A failed login fails the context.
    m_.behaviour(QVTEST_MPM_LOGIN_AS_SERVICE).maj_stat = 0x40;
    EXPECT_EQ(receive(ccdb(kCodeA, 1, 0, text("c"))), SEC_S_MPM_FAILURE);
    EXPECT_STREQ(st_.desc, "mpm_login_as_service");
    EXPECT_EQ(ctx_, nullptr);
}

TEST_F(ServerContext, CompleteWithoutOutputWhileTheClientIsDone) {
    m_.behaviour(QVTEST_MPM_RECEIVE_SEC_CONTEXT).output_len = 0;
    EXPECT_EQ(receive(ccdb(kCodeA, 1, 0, text("c"))), 0);
    EXPECT_TRUE(out_.empty());
}

TEST_F(ServerContext, UnauthenticatedContextTakesNoMoreCcdbs) {
    ASSERT_EQ(receive(ccdb(0, 1, 0)), 0);
    EXPECT_TRUE(out_.empty());
    EXPECT_EQ(receive(ccdb(0, 2, 0)), SEC_S_BAD_MECHANISM);
    EXPECT_EQ(ctx_, nullptr);
}

}  // namespace
