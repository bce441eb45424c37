// Security contexts through the public routines: the client's walk over the
// shared list, what each side does with every CCDB it is given, whole
// exchanges of 1 to 255 rounds, unauthenticated contexts, the routines of a
// complete context, the module wrappers beneath, and the trace records of
// the context routines (the argument and token contract is contract_test's).
// The fixture ends every test by checking that the test modules got back
// every handle and buffer they handed out.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "child_process.h"
#include "context_test_harness.h"
#include "current_error.h"
#include "sec_test_util.h"
#include "test_support.h"
#include "trace.h"
#include "trace_format.h"

namespace {

using namespace ctxtest;
using M = qvtest::TestMpm;
constexpr int kStartCtx = QVTEST_MPM_START_SEC_CONTEXT, kComplete = QVTEST_MPM_COMPLETE_SEC_CONTEXT,
              kReceive = QVTEST_MPM_RECEIVE_SEC_CONTEXT;
const Bytes kClientToken = text("qvtest-client-token"), kServerToken = text("qvtest-server-token");

Bytes recorded_input(const M &m, int routine) {
    const qvtest_mpm_call_t &r = m.record(routine);
    return Bytes(r.in, r.in + r.in_len);
}

// Scripts of the test module for the table rows.
void none(M &) {}
void none2(M &, M &) {}
template <int R> void continues(M &m) { m.behaviour(R).continue_rounds = 1; }
template <int R> void silent(M &m) { m.behaviour(R).output_len = 0; }
template <int R> void silent_continue(M &m) { continues<R>(m); silent<R>(m); }
template <int R> void fails(M &m) {
    m.behaviour(R).maj_stat = 0x21;
    m.behaviour(R).min_stat = 9;
}

// ---- One side at a time ----

class ClientContext : public ContextFixture {
protected:
    void TearDown() override {
        end();
        ContextFixture::TearDown();
    }
    // sec_start_sec_context with the list into ctx_ (or the given token) and out_.
    int start(const Bytes &list, sec_token_t *given = nullptr) {
        View l(list);
        out_.take();
        return sec_start_sec_context(&st_, client_svc_, l.get(), svc_, host_, 0x1234, given ? given : &ctx_,
                                     out_.get());
    }
    int complete(const Bytes &answer) {
        View a(answer);
        out_.take();
        return sec_complete_sec_context(&st_, a.get(), &ctx_, out_.get());
    }
    int receive(const Bytes &c_ccdb) {
        View in(c_ccdb);
        out_.take();
        return sec_receive_sec_context(&st_, server_svc_, in.get(), &ctx_, out_.get());
    }
    void end() {
        sec_status_desc st{};
        EXPECT_EQ(sec_end_context(&st, ctx_, nullptr), 0);
        ctx_ = nullptr;
    }

    sec_status_desc st_{};
    sec_token_t ctx_ = nullptr;
    Out out_;
    char svc_[8] = "svc", host_[8] = "host";
};

class Refused : public ClientContext {};
class ServerContext : public ClientContext {};

// The walk over the shared list: the first module that accepts ends it, an
// unknown code stops it, and when every module fails the caller sees the
// first failure. Each abandoned attempt's module context is ended at once.
TEST_F(ClientContext, WalkOverTheSharedList) {
    configure(line(1, "qvtest", kCodeA, qvtest::kTestMpm) + line(2, "qvtest2", kCodeB, qvtest::kTestMpm2) +
              line(3, "broken", 0x77, "no-such-module.so"));
    restart_server();
    struct Row {
        const char *what;
        std::vector<qv_uint32_t> list;
        void (*script)(M &a, M &b);
        int rc, msg;                     // msg 0: not checked
        const char *status;              // nullptr: the status record is not checked
        Bytes out;
        unsigned long starts, ends;      // mpm_start_sec_context and mpm_end_context calls, both modules
    };
    const Row rows[] = {
        // B is not started by sec_start (only the first configured module
        // is): its start for the service is tried like any other step.
        {"module start for the service fails", {kCodeB},
         [](M &, M &b) { b.behaviour(QVTEST_MPM_START).maj_stat = 0x13; },
         SEC_S_MPM_FAILURE, 0, "19 0 0x51 mpm_start", {}, 0, 0},
        {"the first module accepts", {kCodeA}, none2, 0, 0, "0 0 0x0 ", ccdb(kCodeA, 1, 0, kClientToken), 1, 0},
        {"complete without output", {kCodeA}, [](M &a, M &) { silent<kStartCtx>(a); }, 0, 0, "0 0 0x0 ", {}, 1, 0},
        {"continue without output", {kCodeA}, [](M &a, M &) { silent_continue<kStartCtx>(a); }, SEC_S_BAD_MPM,
         MSG_2650_024, nullptr, {}, 1, 1},
        {"unknown code stops the walk", {kCodeB, 0x999, kCodeA}, [](M &, M &b) { fails<kStartCtx>(b); },
         SEC_S_BAD_MECHANISM, MSG_2650_006, "0 0 0x0 ", {}, 1, 1},
        {"the first failure when all fail", {kCodeB, kCodeA},
         [](M &a, M &b) {
             fails<kStartCtx>(b);
             a.behaviour(kStartCtx).maj_stat = 0x11;
         },
         SEC_S_MPM_FAILURE, 0, "33 9 0x51 mpm_start_sec_context", {}, 2, 2},
        {"a later module accepts", {kCodeB, kCodeA},
         [](M &a, M &b) {
             fails<kStartCtx>(b);
             continues<kStartCtx>(a);
         },
         1, 0, "0 0 0x0 ", ccdb(kCodeA, 1, 1, kClientToken), 2, 1},
        {"a module that cannot be loaded fails first", {0x77, kCodeA}, [](M &a, M &) { fails<kStartCtx>(a); },
         SEC_S_BAD_MPM, MSG_2650_050, "0 0 0x0 ", {}, 1, 1},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.what);
        m_.reset();
        m2_.reset();
        r.script(m_, m2_);
        cu_set_no_error_1();
        EXPECT_EQ(start(mech_list(r.list)), r.rc);
        if (r.msg != 0) {
            EXPECT_EQ(last_message(), r.msg);
        }
        if (r.status != nullptr) {
            EXPECT_EQ(status_text(st_), r.status);
        }
        EXPECT_EQ(out_.bytes(), r.out);
        EXPECT_EQ(m_.calls(kStartCtx) + m2_.calls(kStartCtx), r.starts);
        EXPECT_EQ(m_.calls(QVTEST_MPM_END_CONTEXT) + m2_.calls(QVTEST_MPM_END_CONTEXT), r.ends);
        EXPECT_EQ(ctx_ == nullptr, r.rc > SEC_S_UNAUTHENTICATED);
        if (m_.calls(kStartCtx) != 0) {
            // The module gets the service's handle and the caller's arguments.
            const qvtest_mpm_call_t &rec = m_.record(kStartCtx);
            EXPECT_EQ(rec.args[3], 0x1234u);
            EXPECT_STREQ(rec.str[0], "svc");
            EXPECT_STREQ(rec.str[1], "host");
        }
        end();
    }
}

TEST_F(ClientContext, GivenTokenMustBeAnUnusedSocketToken) {
    uint32_t not_a_token[16] = {1, 2, 3};
    sec_token_t given = not_a_token;
    EXPECT_EQ(start(mech_list({kCodeA}), &given), SEC_S_BAD_TOKEN);
    EXPECT_EQ(given, static_cast<sec_token_t>(not_a_token));  // not a context token: left alone
    EXPECT_EQ(not_a_token[1], 2u);
    ASSERT_EQ(start(mech_list({kCodeA})), 0);
    sec_token_t used = std::exchange(ctx_, nullptr);
    EXPECT_EQ(start(mech_list({kCodeA}), &used), SEC_S_BAD_TOKEN);  // destroyed like any failed start's
    EXPECT_EQ(last_message(), MSG_2650_003);
    EXPECT_EQ(used, nullptr);
}

// A token from sec_setup_socket: the module is told about the socket, and
// the socket file goes with the token, also when the start fails.
TEST_F(ClientContext, SocketPreparedTokens) {
    std::string prefix = dir_.path() + "/";
    std::vector<int> fds;
    auto prepare = [&] {
        fds.push_back(socket(AF_UNIX, SOCK_STREAM, 0));
        EXPECT_EQ(sec_setup_socket(client_svc_, fds.back(), SEC_F_LOCAL_SOCKET, prefix.data(), &ctx_), 0);
        return std::string(static_cast<sec_ctx_token_t>(ctx_)->sinfo.path);
    };
    auto exists = [](const std::string &p) {
        struct stat sb;
        return stat(p.c_str(), &sb) == 0;
    };
    std::string path = prepare();
    ASSERT_TRUE(exists(path));
    sec_token_t token = ctx_;
    ASSERT_EQ(start(mech_list({kCodeA}), &ctx_), 0);
    EXPECT_EQ(ctx_, token);
    const qvtest_mpm_call_t &rec = m_.record(QVTEST_MPM_SET_CTX_ATTRIBUTE);
    EXPECT_EQ(rec.args[1], 1u);  // the socket information
    EXPECT_EQ(rec.args[2], reinterpret_cast<uintptr_t>(&static_cast<sec_ctx_token_t>(ctx_)->sinfo));
    end();
    EXPECT_FALSE(exists(path));

    path = prepare();
    EXPECT_EQ(start(mech_list({0x999}), &ctx_), SEC_S_BAD_MECHANISM);
    EXPECT_EQ(ctx_, nullptr);
    EXPECT_FALSE(exists(path));

    // A module that refuses the socket is passed over.
    prepare();
    m2_.behaviour(QVTEST_MPM_SET_CTX_ATTRIBUTE).maj_stat = 0x30;
    m_.reset();
    EXPECT_EQ(start(mech_list({kCodeB, kCodeA}), &ctx_), 0);
    EXPECT_EQ(m2_.calls(kStartCtx), 0u);
    EXPECT_EQ(m_.calls(kStartCtx), 1u);
    end();
    for (int fd : fds) close(fd);
}

// Every CCDB handed to sec_complete_sec_context (after a start that waits)
// or to sec_receive_sec_context (first, later, or after an unauthenticated
// first): what it returns and sends. A refusal (code above 2) destroys the
// context, ends its module context and sends nothing; a module failure is
// passed on in the status record. Malformed bytes have one row per outcome;
// the fuzz targets' corpora replay the rest.
TEST_F(Refused, EveryRowEndsTheContext) {
    enum Side { kAnswer, kFirst, kLater, kAfterUnauth };
    struct Row {
        const char *what;
        Side side;
        void (*script)(M &);
        Bytes in;
        int rc, msg;  // msg 0: a module failure, which records none
        Bytes out = {};  // what is sent when the code is 0 or 1
    };
    const Bytes v1 = Bytes{0x82, 1} + be32(kCodeA);
    const Row rows[] = {
        // The client's first CCDB was sequence 1 of A; the answer must fit.
        {"answer: sequence ahead", kAnswer, none, ccdb(kCodeA, 2, 0, text("x")), 7, MSG_2650_005},
        {"answer: mechanism", kAnswer, none, ccdb(kCodeB, 1, 0, text("x")), 8, MSG_2650_006},
        {"answer: version", kAnswer, none, Bytes{0x82, 3} + be32(kCodeA) + Bytes{1, 0}, 9, MSG_2650_007},
        {"client module continues without output", kAnswer, silent_continue<kComplete>, ccdb(kCodeA, 1, 0, text("s")),
         22, MSG_2650_024},
        {"server waits, client module sends nothing", kAnswer, none, ccdb(kCodeA, 1, 1, text("s")), 22, MSG_2650_025},
        {"client module fails", kAnswer, fails<kComplete>, ccdb(kCodeA, 1, 0, text("s")), 3, 0},
        {"answer: done", kAnswer, none, ccdb(kCodeA, 1, 0, text("s")), 0, 0, {}},
        // A version-1 answer has no sequence number; the reply keeps its version.
        {"answer: older version", kAnswer, continues<kComplete>, v1 + text("old"), 1, 0,
         v1 + text("qvtest-client-more")},
        {"first: sequence 2", kFirst, none, ccdb(kCodeA, 2, 1, text("c")), 7, MSG_2650_005},
        {"first: version 3", kFirst, none, Bytes{0x82, 3} + be32(kCodeA) + Bytes{1, 0}, 9, MSG_2650_007},
        {"first: unknown code", kFirst, none, ccdb(0x999, 1, 1, text("c")), 8, MSG_2650_006},
        {"server module continues without output", kFirst, silent_continue<kReceive>, ccdb(kCodeA, 1, 1, text("c")),
         22, MSG_2650_024},
        {"client waits, server module sends nothing", kFirst, silent<kReceive>, ccdb(kCodeA, 1, 1, text("c")), 22,
         MSG_2650_025},
        {"server module fails", kFirst, fails<kReceive>, ccdb(kCodeA, 1, 1, text("c")), 3, 0},
        {"first: accepted", kFirst, none, ccdb(kCodeA, 1, 1, text("c")), 0, 0, ccdb(kCodeA, 1, 0, kServerToken)},
        {"first: client done, server sends nothing", kFirst, silent<kReceive>, ccdb(kCodeA, 1, 0, text("c")), 0, 0, {}},
        {"first: unauthenticated", kFirst, none, ccdb(0, 1, 0), 0, 0, {}},
        // After a first CCDB of sequence 1 that the server answered.
        {"later: other mechanism", kLater, none, ccdb(kCodeB, 2, 1, text("c")), 8, MSG_2650_006},
        {"later: skipped sequence", kLater, none, ccdb(kCodeA, 3, 1, text("c")), 7, MSG_2650_005},
        {"an unauthenticated context takes no more", kAfterUnauth, none, ccdb(0, 2, 0), 8, MSG_2650_006},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.what);
        m_.reset();
        if (r.side == kAnswer) {
            continues<kStartCtx>(m_);
            ASSERT_EQ(start(mech_list({kCodeA})), 1);
        } else if (r.side == kLater) {
            continues<kReceive>(m_);
            ASSERT_EQ(receive(ccdb(kCodeA, 1, 1, text("c"))), 1);
            EXPECT_EQ(out_.bytes(), ccdb(kCodeA, 1, 1, kServerToken));
        } else if (r.side == kAfterUnauth) {
            ASSERT_EQ(receive(ccdb(0, 1, 0)), 0);
        }
        r.script(m_);
        cu_set_no_error_1();
        EXPECT_EQ(r.side == kAnswer ? complete(r.in) : receive(r.in), r.rc);
        if (r.msg != 0) {
            EXPECT_EQ(last_message(), r.msg);
        }
        if (r.rc == SEC_S_MPM_FAILURE) {
            const char *routine = r.side == kAnswer ? "mpm_complete_sec_context" : "mpm_receive_sec_context";
            EXPECT_EQ(status_text(st_), std::string("33 9 0x10002 ") + routine);
        }
        if (r.rc <= SEC_S_UNAUTHENTICATED) {
            EXPECT_EQ(out_.bytes(), r.out);
            end();
            continue;
        }
        EXPECT_EQ(ctx_, nullptr);
        EXPECT_TRUE(out_.empty());
        EXPECT_EQ(m_.live_handles(), handles0_ + 2);  // the two services' handles only
        if (r.side == kFirst && r.msg != 0 && r.rc != SEC_S_BAD_MPM) {
            EXPECT_EQ(m_.calls(kReceive), 0u);
        }
    }
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

// After sec_login_as_service, a module that was not logged in then (B,
// whose login failed while A's succeeded) logs in once for the client's
// contexts and again for every server context; a failed login fails the
// context.
TEST_F(ServerContext, LoginAsServiceOnceForClientsAndForEveryServerContext) {
    char name[] = "qvsvc";
    m2_.behaviour(QVTEST_MPM_LOGIN_AS_SERVICE).maj_stat = 0x40;
    ASSERT_EQ(sec_login_as_service(&st_, name, client_svc_), 0);
    ASSERT_EQ(sec_login_as_service(&st_, name, server_svc_), 0);
    m2_.reset();
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(start(mech_list({kCodeB})), 0);
        end();
    }
    EXPECT_EQ(m2_.calls(QVTEST_MPM_LOGIN_AS_SERVICE), 1u);
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(receive(ccdb(kCodeB, 1, 0, text("c"))), 0);
        end();
    }
    EXPECT_EQ(m2_.calls(QVTEST_MPM_LOGIN_AS_SERVICE), 4u);
    EXPECT_STREQ(m2_.record(QVTEST_MPM_LOGIN_AS_SERVICE).str[0], "qvsvc");
    m2_.behaviour(QVTEST_MPM_LOGIN_AS_SERVICE).maj_stat = 0x40;
    EXPECT_EQ(receive(ccdb(kCodeB, 1, 0, text("c"))), SEC_S_MPM_FAILURE);
    EXPECT_STREQ(st_.desc, "mpm_login_as_service");
    EXPECT_EQ(ctx_, nullptr);
}

// ---- Whole exchanges ----

// The CCDBs of an n-round exchange with the test module's default outputs.
std::vector<Bytes> expected_wire(int n, qv_uint32_t mech) {
    std::vector<Bytes> w;
    for (int k = 1; k <= n; ++k) {
        auto seq = static_cast<uint8_t>(k);
        w.push_back(ccdb(mech, seq, 1, k == 1 ? kClientToken : text("qvtest-client-more")));
        w.push_back(ccdb(mech, seq, k < n ? 1 : 0, kServerToken));
    }
    return w;
}

class Rounds : public ContextFixture, public ::testing::WithParamInterface<int> {};

TEST_P(Rounds, EstablishSealOpenAndEnd) {
    const int n = GetParam();
    script_rounds(m_, n);
    Exchange &ex = establish(mech_list({kCodeA}));
    ASSERT_EQ(ex.client_rc, 0) << last_error_text();
    ASSERT_EQ(ex.server_rc, 0);
    EXPECT_EQ(ex.wire, expected_wire(n, kCodeA));
    // Each module saw only its peer's bytes.
    EXPECT_EQ(recorded_input(m_, kComplete), kServerToken);
    EXPECT_EQ(recorded_input(m_, kReceive), n == 1 ? kClientToken : text("qvtest-client-more"));
    EXPECT_EQ(m_.calls(kReceive), static_cast<unsigned long>(n));
    EXPECT_EQ(seal_and_open(ex.client_ctx, ex.server_ctx, text("to the server"), kCodeA), text("to the server"));
    EXPECT_EQ(seal_and_open(ex.server_ctx, ex.client_ctx, text("and back"), kCodeA), text("and back"));
    // Ending a context releases the caller's buffer too.
    sec_status_desc st{};
    Out leftover;
    leftover.d = {3, malloc(3)};
    EXPECT_EQ(sec_end_context(&st, ex.client_ctx, leftover.get()), 0);
    EXPECT_TRUE(leftover.empty());
    EXPECT_EQ(sec_end_context(&st, ex.server_ctx, nullptr), 0);
    ex.client_ctx = ex.server_ctx = nullptr;
    EXPECT_EQ(m_.calls(QVTEST_MPM_END_CONTEXT), 2u);
}

INSTANTIATE_TEST_SUITE_P(ContextExchange, Rounds, ::testing::Values(1, 2, 255));

TEST_F(ContextFixture, OneRoundBeyondTheLimitFailsTheClient) {
    script_rounds(m_, 256);
    Exchange &ex = establish(mech_list({kCodeA}));
    EXPECT_EQ(ex.client_rc, SEC_S_BAD_MPM);
    EXPECT_EQ(last_message(), MSG_2650_026);
    EXPECT_EQ(qvtest::current_error_args(), "qvtest");  // the module named
    EXPECT_EQ(ex.client_ctx, nullptr);
    EXPECT_EQ(ex.wire.size(), 510u);  // 255 rounds crossed
    EXPECT_EQ(ex.server_rc, 1);
}

// B serves both sides and names itself (its start once per service token is
// the concurrency test's).
TEST_F(ContextFixture, SecondMechanismServesBothSides) {
    script_rounds(m2_, 2);
    Exchange &ex = establish(mech_list({kCodeB, kCodeA}));
    ASSERT_EQ(ex.client_rc, 0);
    ASSERT_EQ(ex.server_rc, 0);
    EXPECT_EQ(ex.wire, expected_wire(2, kCodeB));
    char name[SEC_C_CTX_MPM_NAME_SIZE] = {};
    sec_status_desc st{};
    EXPECT_EQ(sec_get_ctx_attribute(&st, ex.server_ctx, SEC_C_CTX_MPM_NAME, name), 0);
    EXPECT_STREQ(name, "qvtest2");
    EXPECT_EQ(seal_and_open(ex.client_ctx, ex.server_ctx, text("b"), kCodeB), text("b"));
    EXPECT_EQ(m_.calls(kStartCtx), 0u);
}

// ---- Unauthenticated contexts ----

// The answers of sec_get_ctx_attribute and sec_get_ctx_lifetime.
void expect_attributes(sec_token_t ctx, qv_int32_t lifetime, qv_uint32_t flags, const char *mpm) {
    sec_status_desc st{};
    qv_int32_t l = 0;
    qv_uint32_t f = 99;
    char name[SEC_C_CTX_MPM_NAME_SIZE] = "xxxxxxxxxxxxxxxx";
    EXPECT_EQ(sec_get_ctx_attribute(&st, ctx, SEC_C_CTX_LIFETIME, &l), 0);
    EXPECT_EQ(l, lifetime);
    EXPECT_EQ(sec_get_ctx_attribute(&st, ctx, SEC_C_CTX_FLAGS, &f), 0);
    EXPECT_EQ(f, flags);
    EXPECT_EQ(sec_get_ctx_attribute(&st, ctx, SEC_C_CTX_MPM_NAME, name), 0);
    EXPECT_STREQ(name, mpm);
    l = 5;
    EXPECT_EQ(sec_get_ctx_lifetime(&st, ctx, &l), 0);
    EXPECT_EQ(l, lifetime);
    EXPECT_EQ(sec_get_ctx_lifetime(&st, ctx, nullptr), 0);
    int nothing = 7;
    EXPECT_EQ(sec_get_ctx_attribute(&st, ctx, SEC_C_CTX_NOTHING, &nothing), 0);
    EXPECT_EQ(nothing, 7);
}

class Unauthenticated : public ContextFixture {
protected:
    static void expect_unauthenticated_answers(sec_token_t ctx) {
        expect_attributes(ctx, -1, 0, "none");
        sec_status_desc st{};
        // No protection without authentication.
        View in(text("x"));
        Out out;
        EXPECT_EQ(sec_prepare_data(&st, ctx, SEC_F_PROTECT_MODE1, in.get(), out.get()), SEC_S_AUTH_ERROR);
        EXPECT_EQ(last_message(), MSG_2650_022);
        EXPECT_EQ(sec_process_data(&st, ctx, in.get(), out.get()), SEC_S_AUTH_ERROR);
    }
};

void client_waits(M &a) { continues<kStartCtx>(a); }
void server_asks(M &a) { a.behaviour(kReceive).maj_stat = SEC_S_UNAUTHENTICATED; }

// Who asks for an unauthenticated context and who may refuse it: the
// client with an empty list, a module on either side, a server that forces
// it on a waiting client; refused by the client's QV_SEC_IMP_MECHS without
// "none". A side that refuses keeps no context.
TEST_F(Unauthenticated, WhoAsksAndWhoRefuses) {
    struct Row {
        const char *what;
        const char *imposed;  // the client's QV_SEC_IMP_MECHS; nullptr: unset
        std::vector<qv_uint32_t> list;
        void (*script)(M &a, M &b);
        int client_rc, server_rc;  // server_rc -1: nothing reached the server
        std::vector<Bytes> wire;
        int msg;                   // the last message; 0: not checked
        int ends;                  // mpm_end_context calls of A before the contexts end; -1: not checked
        bool server_unauth;        // the server's context is unauthenticated
    };
    const Bytes waiting = ccdb(kCodeA, 1, 1, kClientToken);
    const Bytes U = ccdb(0, 1, 0);
    constexpr int kUnauth = SEC_S_UNAUTHENTICATED, kRefused = SEC_S_BAD_MECHANISM;
    const Row rows[] = {
        {"empty shared list", nullptr, {}, none2, kUnauth, 0, {U}, MSG_CLIENT_INITIATES_UNAUTH, 0, true},
        {"imposed without none", "qvtest", {}, none2, kRefused, -1, {}, MSG_2650_086, 0, false},
        {"imposed with none", "qvtest none", {}, none2, kUnauth, 0, {U}, 0, 0, true},
        {"client module asks", nullptr, {kCodeA}, [](M &a, M &) { a.behaviour(kStartCtx).maj_stat = kUnauth; },
         kUnauth, 0, {U}, 0, 1, true},
        {"client module asks, imposed refuse", "qvtest qvtest2", {kCodeB, kCodeA},
         [](M &, M &b) { b.behaviour(kStartCtx).maj_stat = kUnauth; }, kRefused, -1, {}, MSG_2650_086, -1, false},
        {"server forces a waiting client", nullptr, {kCodeA},
         [](M &a, M &) {
             client_waits(a);
             server_asks(a);
         },
         kUnauth, 0, {waiting, U}, MSG_SERVER_FORCES_UNAUTH, 1, true},
        {"server module asks, client done", nullptr, {kCodeA}, [](M &a, M &) { server_asks(a); }, 0, 0,
         {ccdb(kCodeA, 1, 0, kClientToken)}, 0, -1, true},
        {"forced client, imposed refuse", "qvtest", {kCodeA},
         [](M &a, M &) {
             client_waits(a);
             server_asks(a);
         },
         kRefused, 0, {waiting, U}, MSG_2650_086, -1, true},
        {"server module asks after the first round", nullptr, {kCodeA},
         [](M &a, M &) {
             client_waits(a);
             a.behaviour(kComplete).continue_rounds = 2;
             a.behaviour(kReceive).continue_rounds = 1;
             server_asks(a);
         },
         1, SEC_S_BAD_MPM, {waiting, ccdb(kCodeA, 1, 1, kServerToken), ccdb(kCodeA, 2, 1, text("qvtest-client-more"))},
         MSG_2650_029, -1, false},
    };
    for (const Row &c : rows) {
        SCOPED_TRACE(c.what);
        m_.reset();
        m2_.reset();
        ex_ = Exchange{};
        c.script(m_, m2_);
        if (c.imposed) setenv("QV_SEC_IMP_MECHS", c.imposed, 1);
        Exchange &ex = establish(mech_list(c.list));
        unsetenv("QV_SEC_IMP_MECHS");
        EXPECT_EQ(ex.client_rc, c.client_rc);
        EXPECT_EQ(ex.server_rc, c.server_rc);
        EXPECT_EQ(ex.wire, c.wire);
        if (c.msg != 0) {
            EXPECT_EQ(last_message(), c.msg);
        }
        if (c.ends >= 0) {
            EXPECT_EQ(m_.calls(QVTEST_MPM_END_CONTEXT), static_cast<unsigned long>(c.ends));
        }
        if (c.client_rc == kUnauth) {
            EXPECT_EQ(ex.client_st.maj_stat, 0u);  // an abandoned attempt's failure is not the caller's
            expect_unauthenticated_answers(ex.client_ctx);
        }
        EXPECT_EQ(ex.client_ctx == nullptr, c.client_rc > kUnauth);
        if (c.server_unauth) expect_unauthenticated_answers(ex.server_ctx);
        if (c.server_rc > kUnauth) {
            EXPECT_EQ(ex.server_ctx, nullptr);
        }
        end_contexts();
    }
}

// The server's service token takes its refusal from the server's own
// QV_SEC_IMP_MECHS when it is made: a client that chose no mechanism, or
// whose module asks for no authentication, is then turned away.
TEST_F(Unauthenticated, RefusalFollowsTheServersImposedMechanisms) {
    const std::pair<const char *, bool> rows[] = {
        {nullptr, false}, {"", false}, {"qvtest", true}, {"none qvtest", false}, {"unknown", true}};
    for (const auto &[imposed, refuses] : rows) {
        for (bool module_asks : {false, true}) {
            SCOPED_TRACE(std::string(imposed ? imposed : "(unset)") + (module_asks ? ", module asks" : ""));
            if (imposed) setenv("QV_SEC_IMP_MECHS", imposed, 1);
            restart_server();
            unsetenv("QV_SEC_IMP_MECHS");
            m_.reset();
            if (module_asks) {
                client_waits(m_);
                server_asks(m_);
            }
            ex_ = Exchange{};
            Exchange &ex = establish(module_asks ? mech_list({kCodeA}) : mech_list({}));
            EXPECT_EQ(ex.client_rc, module_asks ? (refuses ? 1 : SEC_S_UNAUTHENTICATED) : SEC_S_UNAUTHENTICATED);
            EXPECT_EQ(ex.server_rc, refuses ? SEC_S_AUTH_ERROR : 0);
            if (refuses) {
                EXPECT_EQ(last_message(), MSG_2650_030);
                EXPECT_EQ(ex.server_ctx, nullptr);
            }
            end_contexts();
        }
    }
}

// ---- The routines of a complete context ----

class ContextUse : public ContextFixture {
protected:
    void SetUp() override {
        ContextFixture::SetUp();
        Exchange &ex = establish(mech_list({kCodeA}));
        ASSERT_TRUE(ex.client_rc == 0 && ex.server_rc == 0);
        ctx_ = ex.client_ctx;
    }
    sec_status_desc st_{};
    sec_token_t ctx_ = nullptr;
};

TEST_F(ContextUse, AttributesOfAnAuthenticatedContext) {
    m_.behaviour(QVTEST_MPM_GET_CTX_LIFETIME).value = 3600;
    m_.behaviour(QVTEST_MPM_GET_CTX_FLAGS).value = 0x5;
    expect_attributes(ctx_, 3600, 0x205, "qvtest");
    qv_int32_t lifetime = 0;
    qv_uint32_t flags = 0;
    // A module failure is passed on and nothing is written.
    m_.behaviour(QVTEST_MPM_GET_CTX_FLAGS).maj_stat = 0x60;
    flags = 0xabc;
    EXPECT_EQ(sec_get_ctx_attribute(&st_, ctx_, SEC_C_CTX_FLAGS, &flags), SEC_S_MPM_FAILURE);
    EXPECT_EQ(flags, 0xabcu);
    EXPECT_STREQ(st_.desc, "mpm_get_ctx_flags");
    m_.behaviour(QVTEST_MPM_GET_CTX_LIFETIME).maj_stat = 0x61;
    EXPECT_EQ(sec_get_ctx_lifetime(&st_, ctx_, &lifetime), SEC_S_MPM_FAILURE);
    EXPECT_STREQ(st_.desc, "mpm_get_ctx_lifetime");
    // Every routine starts from a clear status record.
    EXPECT_EQ(sec_get_ctx_attribute(&st_, ctx_, SEC_C_CTX_NOTHING, &flags), 0);
    EXPECT_EQ(st_.maj_stat, 0u);
}

TEST_F(ContextUse, SealingAndOpening) {
    View in(text("data"));
    Out out;
    // Only the mode bits reach the module.
    ASSERT_EQ(sec_prepare_data(&st_, ctx_, SEC_F_PROTECT_MODE2 | 0x8000000f, in.get(), out.get()), 0);
    EXPECT_EQ(m_.record(QVTEST_MPM_PREPARE_DATA).args[1], SEC_F_PROTECT_MODE2);
    const Bytes sealed = Bytes{0x86, 2} + be32(kCodeA) + text("QVTP") + Bytes{'d' ^ 0x5a, 'a' ^ 0x5a, 't' ^ 0x5a,
                                                                             'a' ^ 0x5a};
    EXPECT_EQ(out.take(), sealed);
    EXPECT_EQ(m_.calls(QVTEST_MPM_RELEASE_BUFFER), 3u);  // two establishment answers, one seal
    m_.behaviour(QVTEST_MPM_PREPARE_DATA).maj_stat = 0x70;
    out.d.length = 5;  // whatever the caller had is not looked at
    EXPECT_EQ(sec_prepare_data(&st_, ctx_, SEC_F_PROTECT_MODE1, in.get(), out.get()), SEC_S_MPM_FAILURE);
    EXPECT_TRUE(out.empty());
    EXPECT_STREQ(st_.desc, "mpm_prepare_data");
    // The version byte is not checked; the module gets the bytes behind the header.
    View v(Bytes{0x86, 9} + be32(kCodeA) + text("QVTP") + Bytes{'a' ^ 0x5a});
    EXPECT_EQ(sec_process_data(&st_, ctx_, v.get(), out.get()), 0);
    EXPECT_EQ(out.take(), text("a"));
    opened_by_caller_ += 1;
    EXPECT_EQ(recorded_input(m_, QVTEST_MPM_PROCESS_DATA), text("QVTP") + Bytes{'a' ^ 0x5a});
    // A header alone gives the module an empty buffer, which it refuses.
    View bare(Bytes{0x86, 2} + be32(kCodeA));
    EXPECT_EQ(sec_process_data(&st_, ctx_, bare.get(), out.get()), SEC_S_MPM_FAILURE);
    EXPECT_STREQ(st_.desc, "mpm_process_data");
    // A failing module end is reported, and the context ends all the same.
    m_.behaviour(QVTEST_MPM_END_CONTEXT).maj_stat = 0x71;
    EXPECT_EQ(sec_end_context(&st_, ex_.client_ctx, nullptr), 0);
    EXPECT_STREQ(st_.desc, "mpm_end_context");
    ex_.client_ctx = nullptr;
}

// A module that claims an output too long for a header to be added (6 bytes
// for a seal, 8 for a CCDB), or a seal of a negative length: the caller gets
// code 7 and nothing, the module gets its buffer back, and not a byte is
// copied.
TEST_F(ContextUse, OversizedModuleOutputIsRefusedAndReleased) {
    View in(text("data")), list(mech_list({kCodeA}));
    struct iovec element{in.d.value, 4};
    sec_token_t made = nullptr;
    struct Row {
        int routine;
        std::function<qv_int32_t(sec_buffer_t)> call;
        std::vector<qv_int32_t> claims;
    } rows[] = {
        {QVTEST_MPM_PREPARE_DATA,
         [&](sec_buffer_t out) { return sec_prepare_data(&st_, ctx_, SEC_F_PROTECT_MODE1, in.get(), out); },
         {INT32_MAX, INT32_MAX - 5, -4}},
        {QVTEST_MPM_SIGN_DATA_V, [&](sec_buffer_t out) { return sec_sign_data_v(&st_, ctx_, 1, &element, out); },
         {INT32_MAX - 5, -4}},
        {kStartCtx,
         [&](sec_buffer_t out) {
             char svc[] = "svc", host[] = "host";
             return sec_start_sec_context(&st_, client_svc_, list.get(), svc, host, 0, &made, out);
         },
         {INT32_MAX - 7, -4}},
    };
    for (const Row &r : rows) {
        long buffers = m_.live_buffers();
        m_.behaviour(r.routine).output_len = 4;
        for (qv_int32_t claim : r.claims) {
            SCOPED_TRACE(std::to_string(r.routine) + " claiming " + std::to_string(claim));
            m_.behaviour(r.routine).claim_len = claim;
            Out out;
            EXPECT_EQ(r.call(out.get()), SEC_S_BAD_BUFFER);
            EXPECT_EQ(last_message(), MSG_2650_005);
            EXPECT_TRUE(out.empty());
            EXPECT_EQ(made, nullptr);
            EXPECT_EQ(m_.live_buffers(), buffers);
        }
    }
}

// sec_end_context keeps the caller's buffer when it refuses the call, and
// releases it when there is no token at all.
TEST_F(ContextUse, EndContextReleasesTheBufferUnlessRefused) {
    Out buff;
    buff.d = {8, malloc(8)};
    sec_ctx_token_desc wrong{};
    EXPECT_EQ(sec_end_context(nullptr, nullptr, buff.get()), 4);
    EXPECT_EQ(sec_end_context(&st_, &wrong, buff.get()), SEC_S_BAD_TOKEN);
    EXPECT_EQ(last_message(), MSG_2650_003);
    EXPECT_EQ(buff.d.length, 8);
    EXPECT_EQ(sec_end_context(&st_, nullptr, buff.get()), 0);
    EXPECT_TRUE(buff.empty());
}

// ---- Calls through the module wrappers ----

// The module sees its arguments in its own order, statuses become the
// documented return codes, failures fill the status record, and load and
// lookup failures report their messages and leave the entry's lock free.
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

// The wrappers other tests do not reach with their arguments recorded (the
// library does not call the first three), and one of each kind of outcome.
std::vector<Case> cases() {
    return {
        {QVTEST_MPM_SERVICE_CLEANUP, "mpm_service_cleanup", CALL(sec__mpm_service_cleanup(e, st, 0x23, a.token)),
         SEES(u(a.token), 0x23), false, {}},
        {QVTEST_MPM_GET_TARGET_NAME, "mpm_get_target_name",
         CALL(sec__mpm_get_target_name(e, st, a.token, a.svc, a.host, &a.i32, a.name)),
         SEES(u(a.token), u(a.svc), u(a.host), u(&a.i32), u(a.name)), false, {}},
        {QVTEST_MPM_GET_CTX_MPM, "mpm_get_ctx_mpm", CALL(sec__mpm_get_ctx_mpm(e, st, a.token, a.name)),
         SEES(u(a.token), u(a.name)), false, {}},
        {QVTEST_MPM_START, "mpm_start", CALL(sec__mpm_start(e, st, 0x21, &a.slot)), SEES(0x21, u(&a.slot)), false, {}},
        {QVTEST_MPM_SET_CTX_ATTRIBUTE, "mpm_set_ctx_attribute",
         CALL(sec__mpm_set_ctx_attribute(e, st, a.token, 1, a.data, &a.slot)),
         SEES(u(a.token), 1, u(a.data), u(&a.slot)), false, {}},
        {QVTEST_MPM_RECEIVE_SEC_CONTEXT, "mpm_receive_sec_context",
         CALL(sec__mpm_receive_sec_context(e, st, a.token, &a.in, &a.slot, &a.out, &a.u32)),
         SEES(u(a.token), u(&a.in), u(&a.slot), u(&a.out), u(&a.u32)), true, {}},
        {QVTEST_MPM_GET_CLIENT_ID, "mpm_get_client_id", CALL(sec__mpm_get_client_id(e, st, a.token, &a.i32, a.name)),
         SEES(u(a.token), u(&a.i32), u(a.name)), false, {}},
        {QVTEST_MPM_SIGN_DATA_V, "mpm_sign_data_v", CALL(sec__mpm_sign_data_v(e, st, a.token, 2, a.iov, &a.out)),
         SEES(u(a.token), 2, u(a.iov), u(&a.out)), false, {24}},
        {QVTEST_MPM_VERIFY_DATA_V, "mpm_verify_data_v", CALL(sec__mpm_verify_data_v(e, st, a.token, &a.in, 2, a.iov)),
         SEES(u(a.token), u(&a.in), 2, u(a.iov)), false, {24, 34}},
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
            } else if (maj == 0 || continues) {
                EXPECT_EQ(rc, 0u);
                EXPECT_EQ(status_text(st), std::to_string(maj) + " 153 0x0 kept");
                if (continues) {
                    EXPECT_GT(a.out.length, 0);  // continuing means there is output
                }
            } else {
                bool passed = std::find(c.passed_on.begin(), c.passed_on.end(), maj) != c.passed_on.end();
                EXPECT_EQ(rc, passed ? maj : 3u);
                EXPECT_EQ(status_text(st), std::to_string(maj) + " 153 0x10001 " + c.name);
                EXPECT_EQ(last_message(), -1);  // a module failure records no message
            }
            EXPECT_TRUE(lock_is_free(e));
            drop_created(e, a, before);
        }
    }
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
            qvtest::CurrentError err = qvtest::current_error();
            EXPECT_EQ(err.id, 22);
            EXPECT_EQ(err.msg_num, message);
            EXPECT_EQ(status_text(st), "0 0 0x0 ");
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
        EXPECT_EQ(status_text(st), "0 0 0x0 ");
        EXPECT_TRUE(lock_is_free(e));
        // Every other routine works.
        qv_int32_t lifetime = 0;
        EXPECT_EQ(sec__mpm_get_ctx_lifetime(e, &st, nullptr, &lifetime), 0u);
    }
    EXPECT_EQ(noflags.calls(QVTEST_MPM_INIT), 1u);
}

// ---- Trace records ----

// Chosen before the first trace record.
const std::string kTraceFile = qvtest::trace_file_of_process("context");

using Ids = std::vector<uint32_t>;

size_t trace_size() {
    struct stat sb;
    return stat(kTraceFile.c_str(), &sb) == 0 ? static_cast<size_t>(sb.st_size) : 0;
}

// The library's records that start at or after byte `from`.
void library_records(size_t from, const std::function<void(const qvtr::TraceEvent &)> &each) {
    std::ifstream f(kTraceFile, std::ios::binary);
    const std::string b((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    qvtr::TraceReader reader;
    reader.parse({reinterpret_cast<const uint8_t *>(b.data()), b.size()}, 0, true, [&](const qvtr::TraceEvent &ev) {
        if (ev.kind == qvtr::TraceEvent::Kind::record && ev.offset >= from && ev.record.component == kTraceComponent)
            each(ev);
    });
}

Ids library_record_ids(size_t from) {
    Ids ids;
    library_records(from, [&](const qvtr::TraceEvent &ev) { ids.push_back(ev.record.id); });
    return ids;
}

// Entry and exit records of the context and signing routines: ids only at
// API level 1, the data forms at level 8 (the exit with the status record,
// or with the return code alone when there is none).
class ApiTrace : public ContextFixture {
protected:
    void TearDown() override {
        sec__trace_detail_levels[SEC_TRC_API] = 0;
        ContextFixture::TearDown();
    }
    // One two-round exchange, a seal and open, a signature and its
    // verification, the lifetime and an attribute, and the end of both
    // contexts, traced at `level`.
    Ids traced_exchange(unsigned char level) {
        script_rounds(m_, 2);
        size_t from = trace_size();
        sec__trace_detail_levels[SEC_TRC_API] = level;
        establish(mech_list({kCodeA}));
        sec_status_desc st{};
        View in(text("m"));
        Out sealed, opened;
        qv_int32_t lifetime = 0;
        sec_prepare_data(&st, ex_.client_ctx, SEC_F_PROTECT_MODE1, in.get(), sealed.get());
        sec_process_data(&st, ex_.server_ctx, sealed.get(), opened.get());
        if (!opened.empty()) opened_by_caller_ += 1;
        char data[] = "traced";
        iovec v{data, sizeof data - 1};
        Out sig;
        sec_sign_data_v(&st, ex_.client_ctx, 1, &v, sig.get());
        sec_verify_data_v(&st, ex_.server_ctx, sig.get(), 1, &v);
        sec_get_ctx_lifetime(&st, ex_.client_ctx, &lifetime);
        sec_get_ctx_attribute(&st, ex_.client_ctx, SEC_C_CTX_LIFETIME, &lifetime);
        end_contexts();
        sec__trace_detail_levels[SEC_TRC_API] = 0;
        return library_record_ids(from);
    }
};

// start, receive, complete, receive, complete, prepare, process, sign,
// verify, lifetime (with the common routine-end record), attribute, end, end.
TEST_F(ApiTrace, ContextRecordsAtLevelsOneAndEight) {
    EXPECT_EQ(traced_exchange(1),
              (Ids{60, 62, 70, 72, 65, 67, 70, 72, 65, 67, 85, 87, 90, 92, 130, 132, 135, 137, 80, 1, 75, 77, 95, 97,
                   95, 97}));
    EXPECT_EQ(traced_exchange(8),
              (Ids{61, 64, 71, 74, 66, 69, 71, 74, 66, 69, 86, 89, 91, 94, 131, 134, 136, 139, 81, 4, 76, 79, 96, 99,
                   96, 99}));
    size_t from = trace_size();
    sec__trace_detail_levels[SEC_TRC_API] = 8;
    EXPECT_EQ(sec_end_context(nullptr, nullptr, nullptr), 4);
    EXPECT_EQ(sec_get_ctx_lifetime(nullptr, nullptr, nullptr), 4);
    sec__trace_detail_levels[SEC_TRC_API] = 0;
    EXPECT_EQ(library_record_ids(from), (Ids{96, 98, 81, 3}));
}

// The buffers the context routines are given, at BUFFER detail: the first
// word at level 1, all the bytes at level 8 (the client's list, the
// server's CCDB); and the API records of routines beside the contexts.
TEST_F(ApiTrace, BuffersAndOtherRoutines) {
    for (unsigned char level : {1, 8}) {
        size_t from = trace_size();
        sec__trace_detail_levels[SEC_TRC_BUFFER] = level;
        ASSERT_EQ(establish(mech_list({kCodeA})).server_rc, 0);
        sec__trace_detail_levels[SEC_TRC_BUFFER] = 0;
        EXPECT_EQ(library_record_ids(from), (level == 1 ? Ids{5, 5} : Ids{6, 6}));
        if (level == 1) end_contexts();
    }
    size_t from = trace_size();
    sec__trace_detail_levels[SEC_TRC_API] = 1;
    View l(mech_list({kCodeA}));
    EXPECT_EQ(sec_set_imposed_mechs(l.get()), 0);
    sec_status_desc st{};
    sec_token_t id = nullptr;
    EXPECT_EQ(sec_create_id_context(&st, server_svc_, SEC_F_IDCTX_SECCTX | SEC_F_IDCTX_NO_MAP, ex_.server_ctx, &id), 0);
    View user(Bytes{SEC_BUF_TYPED_ID, 2} + be32(kCodeA) + text("alice"));
    EXPECT_EQ(sec_login_as_user(&st, client_svc_, user.get(), nullptr, 0), 0);
    sec_token_t none = nullptr;
    EXPECT_EQ(sec_setup_socket(client_svc_, -1, SEC_F_LOCAL_SOCKET, nullptr, &none), 10);
    sec__trace_detail_levels[SEC_TRC_API] = 0;
    EXPECT_EQ(sec_end_context(&st, id, nullptr), 0);
    EXPECT_EQ(library_record_ids(from), (Ids{45, 47, 155, 157, 110, 112, 23, 26}));
}

// The privilege set an identity context takes from a security context is
// traced above INFO detail 1 only: name, mapped name ("<nil>" when none),
// group count and the groups joined by blanks.
TEST_F(ApiTrace, IdentityContextPrivilegeSetAboveInfoOne) {
    ASSERT_EQ(establish(mech_list({kCodeA})).server_rc, 0);
    m_.behaviour(QVTEST_MPM_GET_MAPPED_NAME).name_len = 0;
    for (unsigned char level : {1, 2}) {
        SCOPED_TRACE(level);
        size_t from = trace_size();
        sec__trace_detail_levels[SEC_TRC_INFO] = level;
        sec_status_desc st{};
        sec_token_t id = nullptr;
        EXPECT_EQ(sec_create_id_context(&st, server_svc_, SEC_F_IDCTX_SECCTX, ex_.server_ctx, &id), 0);
        sec__trace_detail_levels[SEC_TRC_INFO] = 0;
        EXPECT_EQ(sec_end_context(&st, id, nullptr), 0);
        std::vector<std::string> seen;
        library_records(from, [&](const qvtr::TraceEvent &ev) {
            if (ev.record.id != kTracePrivset) return;
            for (auto item : ev.items) seen.emplace_back(reinterpret_cast<const char *>(item.data()));
        });
        const std::vector<std::string> privset = {"qvtest_client@example", "<nil>", "0", ""};
        EXPECT_EQ(seen, level == 1 ? std::vector<std::string>() : privset);
    }
}

// qvtrace reads what real calls wrote by name: a restarted service, a
// negotiation that succeeds, one with no mechanism in common, and a
// configured module whose file is missing. Each row is one output line that
// holds every part, the rows in order. The literal ids pin the records the
// library writes, the names the table qvtrace reads.
TEST_F(ApiTrace, QvtraceNamesNegotiationsAndMissingModules) {
    configure(line(1, "qvtest", kCodeA, qvtest::kTestMpm) + line(2, "qvtest2", kCodeB, qvtest::kTestMpm2) +
              "3 qvgone 119 /nonexistent/libqvgone.so i\n");
    size_t from = trace_size();
    for (auto c : {SEC_TRC_API, SEC_TRC_BUFFER, SEC_TRC_ERRORS}) sec__trace_detail_levels[c] = 8;
    restart_server();
    Out offer, shared, nothing;
    qv_int32_t n = 0;
    EXPECT_EQ(sec_get_auth_methods(offer.get(), &n), 0);
    EXPECT_EQ(sec_reconcile_auth_methods(offer.get(), shared.get()), 0);
    EXPECT_EQ(establish(shared.bytes()).client_rc, 0);
    end_contexts();
    View foreign(mech_list({0x99}));
    EXPECT_EQ(sec_reconcile_auth_methods(foreign.get(), nothing.get()), 0);
    EXPECT_EQ(establish(nothing.bytes()).client_rc, 2);
    end_contexts();
    EXPECT_GT(establish(mech_list({119})).client_rc, 2);
    for (auto c : {SEC_TRC_API, SEC_TRC_BUFFER, SEC_TRC_ERRORS}) sec__trace_detail_levels[c] = 0;

    const std::string all = qvtest::read_file(kTraceFile);
    std::string tail = dir_.write("tail.trc", all.substr(0, qvtr::kFileHeaderSize) + all.substr(from));
    qvtest::ToolRun run = qvtest::run_tool(QVTRACE_PATH, {"--config", dir_.path() + "/qvsec.cfg", tail});
    ASSERT_EQ(run.status, 0) << run.err;
    const std::vector<std::vector<std::string>> rows = {
        {"id=22 ", "sec_end exit rc=0 (ok) maj=0 min=0 mech=none desc=\"\""},
        {"id=61 ", "sec_start_sec_context entry st=0x", " flags=0x0 ctokenp=0x"},
        {"id=6 ", "buffer length=14 buffer=\"mechanism list\" v1 "
                  "mechanisms=qvtest(0x00010002),qvtest2(0x00000051),qvgone(0x00000077)"},
        {"id=6 ", "buffer=\"CCDB\" v2 mech=qvtest(0x00010002) seq=1 flags=0x0"},
        {"id=64 ", "sec_start_sec_context exit rc=2 (complete, unauthenticated)"},
        {"buffer length=8 buffer=\"CCDB\" v2 mech=none seq=1 flags=0x00 body=0"},
        {"id=173 ", "module file missing (stat failed) module=\"qvgone\" thread=0x",
         " path=\"/nonexistent/libqvgone.so\""},
    };
    size_t at = 0;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.back());
        bool found = false;
        while (!found && at < run.out.size()) {
            size_t end = run.out.find('\n', at);
            std::string line = run.out.substr(at, end - at);
            at = end == std::string::npos ? run.out.size() : end + 1;
            found = std::all_of(row.begin(), row.end(), [&](const std::string &p) { return line.find(p) != line.npos; });
        }
        ASSERT_TRUE(found) << run.out;
    }
}

// ---- The typed buffers beneath ----

// What the routines under the exchanges above refuse before a byte is read:
// no buffer, a length that claims more than a NULL value holds, no output.
TEST(TypedBuffers, UnwrapRefusesWhatItCannotRead) {
    qv_uint32_t mech = 1;
    int version = 1;
    unsigned char seq = 1, flags = 1;
    qvtest::SecBuffer out;
    EXPECT_EQ(sec__unwrap_mech_ccdb(nullptr, &mech, &version, &seq, &flags, &out.d), 7);
    EXPECT_TRUE(mech == 0 && version == 0 && seq == 0);
    sec_buffer_desc lying{8, nullptr};
    EXPECT_EQ(sec__unwrap_mech_ccdb(&lying, &mech, &version, &seq, &flags, &out.d), 7);
    View whole(qvtest::from_hex("8202000000000100"));
    EXPECT_EQ(sec__unwrap_mech_ccdb(whole.get(), &mech, &version, &seq, &flags, nullptr), 7);
    EXPECT_TRUE(out.empty());
}

}  // namespace
