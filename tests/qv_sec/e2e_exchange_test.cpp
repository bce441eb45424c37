// A client and a server, each with its own service token, build a context
// over the test module in 1 to 255 rounds, seal and open data both ways and
// end their contexts: in one process, and in two processes that carry the
// CCDBs over a socket pair.
#include <gtest/gtest.h>

#include <cerrno>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include "context_test_harness.h"
#include "sec_test_util.h"

namespace {

using namespace ctxtest;

constexpr qv_uint32_t kClientDone = SEC_CTX_S_CLIENT | SEC_CTX_S_COMPLETE | SEC_CTX_S_AUTHENTICATED;
constexpr qv_uint32_t kServerDone = SEC_CTX_S_SERVER | SEC_CTX_S_COMPLETE | SEC_CTX_S_AUTHENTICATED;

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
    EXPECT_EQ(state_of(ex.client_ctx), kClientDone);
    EXPECT_EQ(state_of(ex.server_ctx), kServerDone);
    EXPECT_EQ(seq_of(ex.client_ctx), static_cast<unsigned>(n));
    EXPECT_EQ(seq_of(ex.server_ctx), static_cast<unsigned>(n));
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
    EXPECT_EQ(seq_of(ex.server_ctx), 255u);
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

// Frames: a 4-byte big-endian length, then the bytes. An empty frame ends a
// phase.
bool write_all(int fd, const uint8_t *p, size_t n) {
    while (n > 0) {
        ssize_t w = send(fd, p, n, MSG_NOSIGNAL);
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) return false;
        p += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}

bool read_all(int fd, uint8_t *p, size_t n) {
    while (n > 0) {
        ssize_t r = read(fd, p, n);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return false;
        p += r;
        n -= static_cast<size_t>(r);
    }
    return true;
}

bool send_frame(int fd, const Bytes &b) {
    Bytes head = be32(static_cast<qv_uint32_t>(b.size()));
    return write_all(fd, head.data(), head.size()) && (b.empty() || write_all(fd, b.data(), b.size()));
}

bool recv_frame(int fd, Bytes &b) {
    uint8_t head[4];
    if (!read_all(fd, head, 4)) return false;
    size_t n = static_cast<size_t>(head[0]) << 24 | head[1] << 16 | head[2] << 8 | head[3];
    if (n > (1u << 20)) return false;
    b.assign(n, 0);
    return n == 0 || read_all(fd, b.data(), n);
}

// What the server process reports when it is done.
struct ServerReport {
    int rc = -1;
    qv_uint32_t state = 0;
    unsigned seq = 0;
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
    while (recv_frame(fd, in) && !in.empty()) {
        View v(in);
        Out ans;
        rep.rc = sec_receive_sec_context(&st, svc, v.get(), &ctx, ans.get());
        if (!send_frame(fd, ans.take())) _exit(3);
    }
    if (ctx != nullptr) {
        rep.state = state_of(ctx);
        rep.seq = seq_of(ctx);
        if (recv_frame(fd, in)) {
            View v(in);
            Out opened, sealed;
            rep.opened_ok = sec_process_data(&st, ctx, v.get(), opened.get()) == 0 && opened.bytes() == text("ping");
            opened_by_caller += 1;
            Bytes pong = text("pong");
            View reply(pong);
            sec_prepare_data(&st, ctx, SEC_F_PROTECT_MODE2, reply.get(), sealed.get());
            send_frame(fd, sealed.take());
        }
        sec_end_context(&st, ctx, nullptr);
    }
    sec_end(&st, 0, svc);
    rep.live_handles = m.live_handles() - h0;
    rep.live_buffers = m.live_buffers() - b0 - opened_by_caller;
    Bytes r(reinterpret_cast<uint8_t *>(&rep), reinterpret_cast<uint8_t *>(&rep) + sizeof rep);
    send_frame(fd, r);
    _exit(0);
}

class TwoProcesses : public ContextFixture, public ::testing::WithParamInterface<int> {};

TEST_P(TwoProcesses, ClientAndServerOverASocketPair) {
    const int n = GetParam();
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
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
        ASSERT_TRUE(send_frame(fd, c));
        Bytes s;
        ASSERT_TRUE(recv_frame(fd, s));
        if (!s.empty()) wire.push_back(s);
        if (s.empty() || rc != 1) break;
        View sin(s);
        rc = sec_complete_sec_context(&st, sin.get(), &ex_.client_ctx, out.get());
        c = out.take();
    }
    ASSERT_TRUE(send_frame(fd, {}));
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(wire, expected_wire(n, kCodeA));
    ASSERT_NE(ex_.client_ctx, nullptr);
    EXPECT_EQ(state_of(ex_.client_ctx), kClientDone);

    // Data both ways.
    Bytes ping_text = text("ping");
    View ping(ping_text);
    Out sealed;
    ASSERT_EQ(sec_prepare_data(&st, ex_.client_ctx, SEC_F_PROTECT_MODE1, ping.get(), sealed.get()), 0);
    ASSERT_TRUE(send_frame(fd, sealed.take()));
    Bytes pong;
    ASSERT_TRUE(recv_frame(fd, pong));
    View pv(pong);
    Out opened;
    EXPECT_EQ(sec_process_data(&st, ex_.client_ctx, pv.get(), opened.get()), 0);
    EXPECT_EQ(opened.bytes(), text("pong"));
    opened_by_caller_ += 1;

    Bytes r;
    ASSERT_TRUE(recv_frame(fd, r));
    ASSERT_EQ(r.size(), sizeof(ServerReport));
    ServerReport rep;
    std::memcpy(&rep, r.data(), sizeof rep);
    EXPECT_EQ(rep.rc, 0);
    EXPECT_EQ(rep.state, kServerDone);
    EXPECT_EQ(rep.seq, static_cast<unsigned>(n));
    EXPECT_EQ(rep.opened_ok, 1);
    EXPECT_EQ(rep.live_handles, 0);
    EXPECT_EQ(rep.live_buffers, 0);
    close(fd);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

INSTANTIATE_TEST_SUITE_P(ContextExchange, TwoProcesses, ::testing::Values(1, 2, 40));

}  // namespace
