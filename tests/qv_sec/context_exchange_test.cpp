// A client and a server, each with its own service token, build a context
// over the test module in 1 to 255 rounds, seal and open data both ways and
// end their contexts: in one process, and in two processes that carry the
// CCDBs over a socket pair. Then unauthenticated contexts: chosen by the
// client (empty shared list), asked for by a module on either side, forced
// by the server on a waiting client; refused by QV_SEC_IMP_MECHS without
// "none" on the client and by a service whose own imposed mechanisms lack it.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "child_process.h"
#include "context_test_harness.h"
#include "sec_test_util.h"

namespace {

using namespace ctxtest;

// The CCDBs of an n-round exchange with the test module's default outputs.
std::vector<Bytes> expected_wire(int n, qv_uint32_t mech) {
    std::vector<Bytes> w;
    for (int k = 1; k <= n; ++k) {
        auto seq = static_cast<uint8_t>(k);
        w.push_back(ccdb(mech, seq, 1, text(k == 1 ? "qvtest-client-token" : "qvtest-client-more")));
        w.push_back(ccdb(mech, seq, k < n ? 1 : 0, text("qvtest-server-token")));
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
    // The modules saw only their own bytes, and the service names.
    EXPECT_EQ(std::string(m_.record(QVTEST_MPM_START_SEC_CONTEXT).str[0]), "qvtest-svc");
    EXPECT_EQ(std::string(m_.record(QVTEST_MPM_START_SEC_CONTEXT).str[1]), "qvtest-host");
    const qvtest_mpm_call_t &rec = m_.record(QVTEST_MPM_COMPLETE_SEC_CONTEXT);
    EXPECT_EQ(Bytes(rec.in, rec.in + rec.in_len), text("qvtest-server-token"));
    EXPECT_EQ(m_.calls(QVTEST_MPM_RECEIVE_SEC_CONTEXT), static_cast<unsigned long>(n));

    EXPECT_EQ(seal_and_open(ex.client_ctx, ex.server_ctx, text("to the server"), kCodeA), text("to the server"));
    EXPECT_EQ(seal_and_open(ex.server_ctx, ex.client_ctx, text("and back"), kCodeA), text("and back"));

    sec_status_desc st{};
    Out leftover;
    leftover.d.value = malloc(3);
    leftover.d.length = 3;
    EXPECT_EQ(sec_end_context(&st, ex.client_ctx, leftover.get()), 0);
    EXPECT_TRUE(leftover.empty());
    EXPECT_EQ(sec_end_context(&st, ex.server_ctx, nullptr), 0);
    ex.client_ctx = ex.server_ctx = nullptr;
    EXPECT_EQ(m_.calls(QVTEST_MPM_END_CONTEXT), 2u);
}

INSTANTIATE_TEST_SUITE_P(ContextExchange, Rounds, ::testing::Values(1, 2, 7, 255));

TEST_F(ContextFixture, OneRoundBeyondTheLimitFailsTheClient) {
    script_rounds(m_, 256);
    Exchange &ex = establish(mech_list({kCodeA}));
    EXPECT_EQ(ex.client_rc, SEC_S_BAD_MPM);
    EXPECT_EQ(last_message(), MSG_2650_026);
    EXPECT_NE(last_error_text().find("(qvtest)"), std::string::npos);
    EXPECT_EQ(ex.client_ctx, nullptr);
    EXPECT_EQ(ex.wire.size(), 510u);  // 255 rounds crossed
    EXPECT_EQ(ex.server_rc, 1);
}

TEST_F(ContextFixture, SecondMechanismServesBothSides) {
    script_rounds(m2_, 2);
    Exchange &ex = establish(mech_list({kCodeB, kCodeA}));
    ASSERT_EQ(ex.client_rc, 0);
    ASSERT_EQ(ex.server_rc, 0);
    EXPECT_EQ(ex.wire, expected_wire(2, kCodeB));
    EXPECT_EQ(m_.calls(QVTEST_MPM_START_SEC_CONTEXT), 0u);
    char name[SEC_C_CTX_MPM_NAME_SIZE] = {};
    sec_status_desc st{};
    EXPECT_EQ(sec_get_ctx_attribute(&st, ex.server_ctx, SEC_C_CTX_MPM_NAME, name), 0);
    EXPECT_STREQ(name, "qvtest2");
    EXPECT_EQ(seal_and_open(ex.client_ctx, ex.server_ctx, text("b"), kCodeB), text("b"));
}

// ---- Two processes over a socket pair ----

// The pair is a SOCK_SEQPACKET one, so each message keeps its bounds; a
// phase ends with kEnd, which no CCDB or sealed buffer can be.
const Bytes kEnd = text("end");

bool send_msg(int fd, const Bytes &b) {
    return send(fd, b.data(), b.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(b.size());
}

bool recv_msg(int fd, Bytes &b) {
    b.assign(65536, 0);
    ssize_t n = recv(fd, b.data(), b.size(), 0);
    if (n <= 0) return false;
    b.resize(static_cast<size_t>(n));
    return true;
}

// What the server process reports when it is done.
struct ServerReport {
    int rc = -1;
    int opened_ok = 0;
    long live_handles = -1;
    long live_buffers = -1;
};

// The server process: answers every CCDB until an empty frame, then opens
// the client's sealed message and seals an answer, ends everything and
// reports. Exits without running the parent's destructors.
[[noreturn]] void serve(int fd, int rounds) {
    qvtest::TestMpm m;
    m.behaviour(QVTEST_MPM_RECEIVE_SEC_CONTEXT).continue_rounds = rounds - 1;
    long h0 = m.live_handles(), b0 = m.live_buffers();
    long opened_by_caller = 0;  // sec_process_data's output is the caller's, freed here
    ServerReport rep;
    sec_status_desc st{};
    sec_token_t svc = nullptr, ctx = nullptr;
    if (sec_start(&st, 0, &svc) != 0) _exit(2);
    Bytes in;
    while (recv_msg(fd, in) && in != kEnd) {
        View v(in);
        Out ans;
        rep.rc = sec_receive_sec_context(&st, svc, v.get(), &ctx, ans.get());
        Bytes a = ans.take();
        if (!send_msg(fd, a.empty() ? kEnd : a)) _exit(3);
    }
    if (ctx != nullptr) {
        if (recv_msg(fd, in)) {
            View v(in);
            Out opened, sealed;
            rep.opened_ok = sec_process_data(&st, ctx, v.get(), opened.get()) == 0 && opened.bytes() == text("ping");
            opened_by_caller += 1;
            Bytes pong = text("pong");
            View reply(pong);
            sec_prepare_data(&st, ctx, SEC_F_PROTECT_MODE2, reply.get(), sealed.get());
            send_msg(fd, sealed.take());
        }
        sec_end_context(&st, ctx, nullptr);
    }
    sec_end(&st, 0, svc);
    rep.live_handles = m.live_handles() - h0;
    rep.live_buffers = m.live_buffers() - b0 - opened_by_caller;
    Bytes r(reinterpret_cast<uint8_t *>(&rep), reinterpret_cast<uint8_t *>(&rep) + sizeof rep);
    send_msg(fd, r);
    _exit(0);
}

class TwoProcesses : public ContextFixture, public ::testing::WithParamInterface<int> {};

TEST_P(TwoProcesses, ClientAndServerOverASocketPair) {
    const int n = GetParam();
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sv), 0);
    // Every read is bounded: a side that stops answering fails the test.
    struct timeval limit{30, 0};
    for (int fd : sv) setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(sv[0]);
        serve(sv[1], n);
    }
    close(sv[1]);
    int fd = sv[0];
    m_.behaviour(QVTEST_MPM_START_SEC_CONTEXT).continue_rounds = 1;
    m_.behaviour(QVTEST_MPM_COMPLETE_SEC_CONTEXT).continue_rounds = n - 1;

    sec_status_desc st{};
    Bytes list = mech_list({kCodeA});
    View l(list);
    Out out;
    int rc = sec_start_sec_context(&st, client_svc_, l.get(), const_cast<char *>("svc"), const_cast<char *>("host"), 0,
                                   &ex_.client_ctx, out.get());
    std::vector<Bytes> wire;
    Bytes c = out.take();
    while (!c.empty()) {
        wire.push_back(c);
        ASSERT_TRUE(send_msg(fd, c));
        Bytes s;
        ASSERT_TRUE(recv_msg(fd, s));
        if (s == kEnd) s.clear();
        if (!s.empty()) wire.push_back(s);
        if (s.empty() || rc != 1) break;
        View sin(s);
        rc = sec_complete_sec_context(&st, sin.get(), &ex_.client_ctx, out.get());
        c = out.take();
    }
    ASSERT_TRUE(send_msg(fd, kEnd));
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(wire, expected_wire(n, kCodeA));
    ASSERT_NE(ex_.client_ctx, nullptr);

    // Data both ways.
    Bytes ping_text = text("ping");
    View ping(ping_text);
    Out sealed;
    ASSERT_EQ(sec_prepare_data(&st, ex_.client_ctx, SEC_F_PROTECT_MODE1, ping.get(), sealed.get()), 0);
    ASSERT_TRUE(send_msg(fd, sealed.take()));
    Bytes pong;
    ASSERT_TRUE(recv_msg(fd, pong));
    View pv(pong);
    Out opened;
    EXPECT_EQ(sec_process_data(&st, ex_.client_ctx, pv.get(), opened.get()), 0);
    EXPECT_EQ(opened.bytes(), text("pong"));
    opened_by_caller_ += 1;

    Bytes r;
    ASSERT_TRUE(recv_msg(fd, r));
    ASSERT_EQ(r.size(), sizeof(ServerReport));
    ServerReport rep;
    std::memcpy(&rep, r.data(), sizeof rep);
    EXPECT_EQ(rep.rc, 0);
    EXPECT_EQ(rep.opened_ok, 1);
    EXPECT_EQ(rep.live_handles, 0);
    EXPECT_EQ(rep.live_buffers, 0);
    close(fd);
    EXPECT_EQ(qvtest::wait_bounded(pid), 0);
}

INSTANTIATE_TEST_SUITE_P(ContextExchange, TwoProcesses, ::testing::Values(1, 2, 40));

// ---- Unauthenticated contexts ----

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

// Who asks for an unauthenticated context and who may refuse it. A client
// that ends unauthenticated (and a server that does) answers as such; a
// side that refuses keeps no context; the module contexts of abandoned
// attempts are ended at once.
struct Scenario {
    const char *what;
    const char *imposed;  // the client's QV_SEC_IMP_MECHS; nullptr: unset
    std::vector<qv_uint32_t> list;
    void (*script)(qvtest::TestMpm &a, qvtest::TestMpm &b);
    int client_rc, server_rc;  // server_rc -1: nothing reached the server
    std::vector<Bytes> wire;
    int msg;                   // the last message; 0: not checked
    int ends;                  // mpm_end_context calls of A before the contexts end; -1: not checked
    bool server_unauth;        // the server's context is unauthenticated
};

void nothing(qvtest::TestMpm &, qvtest::TestMpm &) {}
void client_waits(qvtest::TestMpm &a) { a.behaviour(QVTEST_MPM_START_SEC_CONTEXT).continue_rounds = 1; }
void server_asks(qvtest::TestMpm &a) { a.behaviour(QVTEST_MPM_RECEIVE_SEC_CONTEXT).maj_stat = SEC_S_UNAUTHENTICATED; }

std::vector<Scenario> scenarios() {
    const Bytes waiting = ccdb(kCodeA, 1, 1, text("qvtest-client-token"));
    const Bytes U = kUnauthCcdb;
    constexpr int kUnauth = SEC_S_UNAUTHENTICATED, kRefused = SEC_S_BAD_MECHANISM;
    return {
        {"empty shared list", nullptr, {}, nothing, kUnauth, 0, {U}, 0, 0, true},
        {"imposed without none", "qvtest", {}, nothing, kRefused, -1, {}, MSG_2650_086, 0, false},
        {"imposed with none", "qvtest none", {}, nothing, kUnauth, 0, {U}, 0, 0, true},
        {"imposed empty", "", {}, nothing, kUnauth, 0, {U}, 0, 0, true},
        {"client module asks", nullptr, {kCodeA},
         [](qvtest::TestMpm &a, qvtest::TestMpm &) {
             a.behaviour(QVTEST_MPM_START_SEC_CONTEXT).maj_stat = SEC_S_UNAUTHENTICATED;
         },
         kUnauth, 0, {U}, 0, 1, true},
        // A, which would accept, is tried after B asked; its context goes.
        {"a later module is left unused", nullptr, {kCodeB, kCodeA},
         [](qvtest::TestMpm &, qvtest::TestMpm &b) {
             b.behaviour(QVTEST_MPM_START_SEC_CONTEXT).maj_stat = SEC_S_UNAUTHENTICATED;
         },
         kUnauth, 0, {U}, 0, 1, true},
        {"client module asks, imposed refuse", "qvtest qvtest2", {kCodeB, kCodeA},
         [](qvtest::TestMpm &, qvtest::TestMpm &b) {
             b.behaviour(QVTEST_MPM_START_SEC_CONTEXT).maj_stat = SEC_S_UNAUTHENTICATED;
         },
         kRefused, -1, {}, MSG_2650_086, -1, false},
        {"server forces a waiting client", nullptr, {kCodeA},
         [](qvtest::TestMpm &a, qvtest::TestMpm &) {
             client_waits(a);
             server_asks(a);
         },
         kUnauth, 0, {waiting, U}, MSG_SERVER_FORCES_UNAUTH, 1, true},
        {"server module asks, client done", nullptr, {kCodeA},
         [](qvtest::TestMpm &a, qvtest::TestMpm &) { server_asks(a); },
         0, 0, {ccdb(kCodeA, 1, 0, text("qvtest-client-token"))}, 0, -1, true},
        {"forced client, imposed refuse", "qvtest", {kCodeA},
         [](qvtest::TestMpm &a, qvtest::TestMpm &) {
             client_waits(a);
             server_asks(a);
         },
         kRefused, 0, {waiting, U}, MSG_2650_086, -1, true},
        {"server module asks after the first round", nullptr, {kCodeA},
         [](qvtest::TestMpm &a, qvtest::TestMpm &) {
             client_waits(a);
             a.behaviour(QVTEST_MPM_COMPLETE_SEC_CONTEXT).continue_rounds = 2;
             a.behaviour(QVTEST_MPM_RECEIVE_SEC_CONTEXT).continue_rounds = 1;
             server_asks(a);
         },
         1, SEC_S_BAD_MPM,
         {waiting, ccdb(kCodeA, 1, 1, text("qvtest-server-token")), ccdb(kCodeA, 2, 1, text("qvtest-client-more"))},
         MSG_2650_029, -1, false},
    };
}

TEST_F(Unauthenticated, WhoAsksAndWhoRefuses) {
    for (const Scenario &c : scenarios()) {
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
        if (c.client_rc == SEC_S_UNAUTHENTICATED) {
            EXPECT_EQ(ex.client_st.maj_stat, 0u);  // an abandoned attempt's failure is not the caller's
            expect_unauthenticated_answers(ex.client_ctx);
        }
        if (c.client_rc > SEC_S_UNAUTHENTICATED) {
            EXPECT_EQ(ex.client_ctx, nullptr);
        }
        if (c.server_unauth) expect_unauthenticated_answers(ex.server_ctx);
        if (c.server_rc > SEC_S_UNAUTHENTICATED) {
            EXPECT_EQ(ex.server_ctx, nullptr);
        }
        end_contexts();
    }
}

// The server's service token takes its refusal from the server's own
// QV_SEC_IMP_MECHS when it is made: a client that chose no mechanism is
// then turned away.
TEST_F(Unauthenticated, RefusalFollowsTheServersImposedMechanisms) {
    struct Case {
        const char *imposed;
        bool refuses;
    } cases[] = {{nullptr, false}, {"", false}, {"qvtest", true}, {"none qvtest", false}, {"unknown", true}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.imposed ? c.imposed : "(unset)");
        if (c.imposed) setenv("QV_SEC_IMP_MECHS", c.imposed, 1);
        else unsetenv("QV_SEC_IMP_MECHS");
        restart_server();
        unsetenv("QV_SEC_IMP_MECHS");
        ex_ = Exchange{};
        Exchange &ex = establish(mech_list({}));
        EXPECT_EQ(ex.client_rc, SEC_S_UNAUTHENTICATED);
        EXPECT_EQ(ex.server_rc, c.refuses ? SEC_S_AUTH_ERROR : 0);
        if (c.refuses) {
            EXPECT_EQ(last_message(), MSG_2650_030);
            EXPECT_EQ(ex.server_ctx, nullptr);
        }
        end_contexts();
    }
}

TEST_F(Unauthenticated, RefusingServiceRejectsWhatItsModuleAsksFor) {
    setenv("QV_SEC_IMP_MECHS", "qvtest", 1);
    restart_server();
    unsetenv("QV_SEC_IMP_MECHS");
    m_.behaviour(QVTEST_MPM_START_SEC_CONTEXT).continue_rounds = 1;
    m_.behaviour(QVTEST_MPM_RECEIVE_SEC_CONTEXT).maj_stat = SEC_S_UNAUTHENTICATED;
    establish(mech_list({kCodeA}));
    EXPECT_EQ(ex_.server_rc, SEC_S_AUTH_ERROR);
    EXPECT_EQ(last_message(), MSG_2650_030);
    EXPECT_EQ(ex_.server_ctx, nullptr);
    EXPECT_EQ(ex_.client_rc, 1);
}

}  // namespace
