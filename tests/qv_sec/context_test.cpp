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

// A token given to a start or an acceptance must be an unused one from
// sec_setup_socket: anything else is refused and left alone, but for a
// used context token, which is destroyed like any failed start's.
TEST_F(ServerContext, GivenTokenMustBeUnused) {
    sec_ctx_token_desc fresh{};
    std::memcpy(&fresh.magic, "tnoc", 4);  // a context token that never exchanged anything
    sec_ctx_token_desc idle = fresh;
    idle.state = SEC_CTX_S_SOCKET | 0x1u;
    uint32_t garbage[16] = {7, 2};
    for (void *given : {static_cast<void *>(&fresh), static_cast<void *>(&idle), static_cast<void *>(garbage)}) {
        ctx_ = given;
        EXPECT_EQ(receive(ccdb(kCodeA, 1, 1, text("c"))), SEC_S_BAD_TOKEN);
        EXPECT_EQ(ctx_, given);
    }
    EXPECT_EQ(fresh.magic, SEC_CTX_TOKEN_MAGIC);
    ctx_ = garbage;
    EXPECT_EQ(start(mech_list({kCodeA}), &ctx_), SEC_S_BAD_TOKEN);
    EXPECT_EQ(ctx_, static_cast<sec_token_t>(garbage));
    EXPECT_EQ(garbage[1], 2u);
    ctx_ = nullptr;
    ASSERT_EQ(start(mech_list({kCodeA})), 0);
    EXPECT_EQ(start(mech_list({kCodeA}), &ctx_), SEC_S_BAD_TOKEN);
    EXPECT_EQ(last_message(), MSG_2650_003);
    EXPECT_EQ(ctx_, nullptr);
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

// The client's module waits for an answer; the server's asks for no
// authentication.
void forced(M &a, M &) {
    continues<kStartCtx>(a);
    a.behaviour(kReceive).maj_stat = SEC_S_UNAUTHENTICATED;
}

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
        {"server forces a waiting client", nullptr, {kCodeA}, forced, kUnauth, 0, {waiting, U},
         MSG_SERVER_FORCES_UNAUTH, 1, true},
        {"server module asks, client done", nullptr, {kCodeA},
         [](M &a, M &) { a.behaviour(kReceive).maj_stat = kUnauth; }, 0, 0, {ccdb(kCodeA, 1, 0, kClientToken)}, 0,
         -1, true},
        {"forced client, imposed refuse", "qvtest", {kCodeA}, forced, kRefused, 0, {waiting, U}, MSG_2650_086, -1,
         true},
        {"server module asks after the first round", nullptr, {kCodeA},
         [](M &a, M &) {
             forced(a, a);
             a.behaviour(kComplete).continue_rounds = 2;
             a.behaviour(kReceive).continue_rounds = 1;
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
            if (module_asks) forced(m_, m_);
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
    EXPECT_EQ(status_text(st_), "0 0 0x0 ");  // the failure's record is cleared
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

// The wrappers the library itself never calls (the others run with their
// arguments recorded in the tests above): the module sees its arguments in
// its own order, a failing status gives 3 and fills the status record, and
// the entry's lock is free afterwards.
constexpr unsigned kCode = 0x10001;

uintptr_t u(const void *p) { return reinterpret_cast<uintptr_t>(p); }

class Dispatch : public qvtest::MpmFixture {
protected:
    qvtest::TestMpm mpm_;
};

TEST_F(Dispatch, UncalledWrappersUnderEveryStatus) {
    sec_mpm_entry_t e = reserve(kCode, qvtest::kTestMpm);
    int obj = 0;
    char svc[] = "svc", host[] = "host", name[256] = {};
    qv_int32_t len = 256;
    struct Case {
        int routine;
        const char *name;
        std::function<qv_uint32_t(sec_status_t)> call;
        std::vector<uintptr_t> sees;
    } cases[] = {
        {QVTEST_MPM_SERVICE_CLEANUP, "mpm_service_cleanup",
         [&](sec_status_t st) { return sec__mpm_service_cleanup(e, st, 0x23, &obj); }, {u(&obj), 0x23}},
        {QVTEST_MPM_GET_TARGET_NAME, "mpm_get_target_name",
         [&](sec_status_t st) { return sec__mpm_get_target_name(e, st, &obj, svc, host, &len, name); },
         {u(&obj), u(svc), u(host), u(&len), u(name)}},
        {QVTEST_MPM_GET_CTX_MPM, "mpm_get_ctx_mpm",
         [&](sec_status_t st) { return sec__mpm_get_ctx_mpm(e, st, &obj, name); }, {u(&obj), u(name)}},
    };
    for (const Case &c : cases) {
        for (qv_uint32_t maj : {0u, 1u, 7u, 0x80000001u}) {
            SCOPED_TRACE(std::string(c.name) + " " + std::to_string(maj));
            mpm_.reset();
            mpm_.behaviour(c.routine).maj_stat = maj;
            mpm_.behaviour(c.routine).min_stat = 0x99;
            sec_status_desc st{};
            std::strcpy(st.desc, "kept");  // success does not clear it
            cu_set_no_error_1();
            EXPECT_EQ(c.call(&st), maj == 0 ? 0u : 3u);
            const qvtest_mpm_call_t &r = mpm_.record(c.routine);
            EXPECT_EQ(std::vector<uintptr_t>(r.args, r.args + r.nargs), c.sees);
            const std::string rest = maj != 0 ? "0x10001 " + std::string(c.name) : "0x0 kept";
            EXPECT_EQ(status_text(st), std::to_string(maj) + " 153 " + rest);
            EXPECT_EQ(last_message(), -1);  // a module failure records no message
            EXPECT_TRUE(lock_is_free(e));
        }
    }
}

// A module that cannot be loaded, or lacks the routine called, fails every
// call with 22 and its message from the library's catalogue, and leaves the
// status record and the entry's lock alone.
TEST_F(Dispatch, LoadAndLookupFailures) {
    const std::pair<const char *, int> failures[] = {
        {"no_such_module.so", MSG_2650_050}, {qvtest::kTestMpmEmpty, MSG_2650_050},
        {qvtest::kTestMpmNotElf, MSG_2650_051}, {qvtest::kTestMpmNoInit, MSG_2650_052},
        {qvtest::kTestMpmNoFlags, MSG_2650_020}};
    for (const auto &[file, message] : failures) {
        SCOPED_TRACE(file);
        qvtest::clear_mpm_table();
        sec_mpm_entry_t e = reserve(kCode, file);
        for (int attempt = 0; attempt < 2; ++attempt) {
            sec_status_desc st{};
            qv_uint32_t flags = 0;
            cu_set_no_error_1();
            EXPECT_EQ(sec__mpm_get_ctx_flags(e, &st, nullptr, &flags), 22u);
            EXPECT_EQ(last_message(), message);
            EXPECT_EQ(status_text(st), "0 0 0x0 ");
            EXPECT_TRUE(lock_is_free(e));
        }
    }
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
    sec_acle_t acle = nullptr;  // the ACL routines trace only their end
    EXPECT_EQ(sec_create_acle(kCodeA, 1, 3, const_cast<char *>("x"), &acle), 0);
    EXPECT_EQ(sec_release_acle(&acle), 0);
    sec__trace_detail_levels[SEC_TRC_API] = 0;
    EXPECT_EQ(sec_end_context(&st, id, nullptr), 0);
    EXPECT_EQ(library_record_ids(from), (Ids{45, 47, 155, 157, 110, 112, 23, 26, 1, 1}));
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
    // Each part in the order the records were written.
    const std::string parts[] = {
        "id=22 ", "sec_end exit rc=0 (ok) maj=0 min=0 mech=none desc=\"\"",
        "id=61 ", "sec_start_sec_context entry st=0x", " flags=0x0 ctokenp=0x",
        "id=6 ", "buffer length=14 buffer=\"mechanism list\" v1 "
                 "mechanisms=qvtest(0x00010002),qvtest2(0x00000051),qvgone(0x00000077)",
        "id=6 ", "buffer=\"CCDB\" v2 mech=qvtest(0x00010002) seq=1 flags=0x0",
        "id=64 ", "sec_start_sec_context exit rc=2 (complete, unauthenticated)",
        "buffer length=8 buffer=\"CCDB\" v2 mech=none seq=1 flags=0x00 body=0",
        "id=173 ", "module file missing (stat failed) module=\"qvgone\" thread=0x",
        " path=\"/nonexistent/libqvgone.so\"",
    };
    size_t at = 0;
    for (const std::string &part : parts) {
        at = run.out.find(part, at);
        ASSERT_NE(at, std::string::npos) << part << "\n" << run.out;
    }
}

}  // namespace
