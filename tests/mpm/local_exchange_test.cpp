// The "local" module's context establishment, driven through dlopen as the
// library drives it: in one process over a socket pair, across processes
// (fork) with the kernel's peer credentials, and with tokens that lie, are
// cut short or are corrupted.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "local_module.h"

namespace qvtest {
namespace {

constexpr size_t kUidAt = 68, kGidAt = 72, kPidAt = 76;

// One client and one service context, each with its own end of a socket pair
// made by this process, so each side's kernel view of the other is this
// process: both sides can check each other.
struct Pair {
    explicit Pair(LocalModule &mod, const char *login = nullptr)
        : m(mod), client_svc(mod), server_svc(mod, login), client(mod), server(mod), hello(mod), reply(mod) {}
    LocalModule &m;
    SocketPair sp;
    Service client_svc, server_svc;
    Context client, server;
    ModBuffer hello, reply;
    qv_uint32_t minor = 0, rflags = 0;

    qv_uint32_t start(const char *target = "svc", qv_uint32_t flags = 0, bool attach = true) {
        if (attach) {
            EXPECT_EQ(0u, client.attach(sp.fd[0]));
        }
        return m.mpm_start_sec_context(&minor, client_svc.handle(), const_cast<char *>(target),
                                       const_cast<char *>("localhost"), flags, client.slot(), hello.get());
    }
    qv_uint32_t receive(std::vector<uint8_t> token, bool attach = true) {
        if (attach) {
            EXPECT_EQ(0u, server.attach(sp.fd[1]));
        }
        sec_buffer_desc in = in_buffer(token);
        return m.mpm_receive_sec_context(&minor, server_svc.handle(), &in, server.slot(), reply.get(), &rflags);
    }
    qv_uint32_t complete(std::vector<uint8_t> token) {
        sec_buffer_desc in = in_buffer(token);
        ModBuffer out(m);
        qv_uint32_t s = m.mpm_complete_sec_context(&minor, &in, client.get(), out.get());
        EXPECT_EQ(0, out.length());
        return s;
    }
    void establish() {
        ASSERT_EQ(1u, start());
        ASSERT_EQ(0u, receive(hello.bytes()));
        ASSERT_EQ(0u, complete(reply.bytes()));
    }
};

class LocalExchange : public ::testing::Test {
protected:
    LocalModule m;
};

TEST_F(LocalExchange, MutualInOneProcess) {
    Pair p(m, "svc");
    p.establish();
    EXPECT_EQ(81u + 3, p.hello.bytes().size());
    EXPECT_EQ(113u + 3, p.reply.bytes().size());
    qv_uint32_t minor, flags = 0;
    qv_int32_t lifetime = 0;
    for (void *ctx : {p.client.get(), p.server.get()}) {
        ASSERT_EQ(0u, m.mpm_get_ctx_flags(&minor, ctx, &flags));
        EXPECT_EQ(0x1fu, flags);  // mutual, replay, sequence, integrity, confidentiality
        ASSERT_EQ(0u, m.mpm_get_ctx_lifetime(&minor, ctx, &lifetime));
        EXPECT_EQ(0x7fffffff, lifetime);
        char mnemonic[17] = {};
        ASSERT_EQ(0u, m.mpm_get_ctx_mpm(&minor, ctx, mnemonic));
        EXPECT_STREQ("local", mnemonic);
    }
    EXPECT_EQ(0x1fu, p.rflags);
}

TEST_F(LocalExchange, ClientWithoutSocketIsOneWay) {
    Pair p(m);
    ASSERT_EQ(1u, p.start("svc", 0, false));
    ASSERT_EQ(0u, p.receive(p.hello.bytes()));
    ASSERT_EQ(0u, p.complete(p.reply.bytes()));
    qv_uint32_t minor, flags = 0;
    ASSERT_EQ(0u, m.mpm_get_ctx_flags(&minor, p.client.get(), &flags));
    EXPECT_EQ(0x1eu, flags);
    ASSERT_EQ(0u, m.mpm_get_ctx_flags(&minor, p.server.get(), &flags));
    EXPECT_EQ(0x1eu, flags);  // the client said it would not check the service
}

// Child processes report through their exit status; the parent waits for a
// bounded time.
int wait_child(pid_t pid) {
    int status = -1;
    bool done = wait_until([&] { return waitpid(pid, &status, WNOHANG) == pid; }, std::chrono::seconds(20));
    if (!done) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -2;
}

// The service side of a cross-process exchange, run in a child: accepts one
// client, establishes, checks who the client is, then unseals one message,
// seals an answer and verifies one signature. Exit code 0 = all good, else
// the step that failed.
int serve_one(LocalModule &m, int listen_fd, uid_t expected_uid) {
    int fd = accept(listen_fd, nullptr, nullptr);
    if (fd < 0) return 10;
    Service svc(m, "svc");
    Context ctx(m);
    if (ctx.attach(fd) != 0) return 11;
    std::vector<uint8_t> frame;
    if (!recv_frame(fd, frame)) return 12;
    sec_buffer_desc in = in_buffer(frame);
    ModBuffer reply(m);
    qv_uint32_t minor, rflags;
    if (m.mpm_receive_sec_context(&minor, svc.handle(), &in, ctx.slot(), reply.get(), &rflags) != 0) return 13;
    if (!send_frame(fd, reply.bytes())) return 14;
    char id[64];
    qv_int32_t id_len = sizeof id;
    if (m.mpm_get_client_id(&minor, ctx.get(), &id_len, id) != 0 || id_len < 9) return 15;
    uint32_t uid = static_cast<uint32_t>(static_cast<uint8_t>(id[1])) << 24 |
                   static_cast<uint32_t>(static_cast<uint8_t>(id[2])) << 16 |
                   static_cast<uint32_t>(static_cast<uint8_t>(id[3])) << 8 | static_cast<uint8_t>(id[4]);
    if (uid != expected_uid) return 16;
    if (!recv_frame(fd, frame)) return 17;
    in = in_buffer(frame);
    ModBuffer plain(m);
    if (m.mpm_process_data(&minor, ctx.get(), &in, plain.get()) != 0) return 18;
    std::vector<uint8_t> expect = {'p', 'i', 'n', 'g'};
    if (plain.bytes() != expect) return 19;
    std::vector<uint8_t> pong = {'p', 'o', 'n', 'g'};
    sec_buffer_desc pong_in = in_buffer(pong);
    ModBuffer sealed(m);
    if (m.mpm_prepare_data(&minor, ctx.get(), kConfidentiality, &pong_in, sealed.get()) != 0) return 20;
    if (!send_frame(fd, sealed.bytes())) return 21;
    std::vector<uint8_t> sig;
    if (!recv_frame(fd, sig)) return 22;
    sec_buffer_desc sig_in = in_buffer(sig);
    iovec v{expect.data(), expect.size()};
    if (m.mpm_verify_data_v(&minor, ctx.get(), &sig_in, 1, &v) != 0) return 23;
    close(fd);
    return 0;
}

TEST_F(LocalExchange, TwoProcessesMutualOverConnectedSocket) {
    TempDir dir;
    std::string path = dir.path() + "/svc.sock";
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // The service makes the listening socket: the kernel records its
        // credentials there for the client's end.
        int lfd = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un sa{};
        sa.sun_family = AF_UNIX;
        std::strncpy(sa.sun_path, path.c_str(), sizeof sa.sun_path - 1);
        if (bind(lfd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0 || listen(lfd, 1) != 0) _exit(9);
        _exit(serve_one(m, lfd, getuid()));
    }
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    std::strncpy(sa.sun_path, path.c_str(), sizeof sa.sun_path - 1);
    ASSERT_TRUE(wait_until([&] { return connect(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) == 0; }));

    Service svc(m);
    Context ctx(m);
    ASSERT_EQ(0u, ctx.attach(fd));
    ModBuffer hello(m);
    qv_uint32_t minor;
    ASSERT_EQ(1u, m.mpm_start_sec_context(&minor, svc.handle(), const_cast<char *>("svc"),
                                          const_cast<char *>("localhost"), 0, ctx.slot(), hello.get()));
    ASSERT_TRUE(send_frame(fd, hello.bytes()));
    std::vector<uint8_t> reply;
    ASSERT_TRUE(recv_frame(fd, reply));
    sec_buffer_desc in = in_buffer(reply);
    ModBuffer none(m);
    ASSERT_EQ(0u, m.mpm_complete_sec_context(&minor, &in, ctx.get(), none.get())) << minor;
    qv_uint32_t flags = 0;
    ASSERT_EQ(0u, m.mpm_get_ctx_flags(&minor, ctx.get(), &flags));
    EXPECT_EQ(0x1u, flags & 0x1u);  // the service was checked

    std::vector<uint8_t> ping = {'p', 'i', 'n', 'g'};
    sec_buffer_desc ping_in = in_buffer(ping);
    ModBuffer sealed(m);
    ASSERT_EQ(0u, m.mpm_prepare_data(&minor, ctx.get(), kIntegrity, &ping_in, sealed.get()));
    ASSERT_TRUE(send_frame(fd, sealed.bytes()));
    std::vector<uint8_t> answer;
    ASSERT_TRUE(recv_frame(fd, answer));
    in = in_buffer(answer);
    ModBuffer plain(m);
    ASSERT_EQ(0u, m.mpm_process_data(&minor, ctx.get(), &in, plain.get()));
    EXPECT_EQ((std::vector<uint8_t>{'p', 'o', 'n', 'g'}), plain.bytes());
    iovec v{ping.data(), ping.size()};
    ModBuffer sig(m);
    ASSERT_EQ(0u, m.mpm_sign_data_v(&minor, ctx.get(), 1, &v, sig.get()));
    ASSERT_TRUE(send_frame(fd, sig.bytes()));
    EXPECT_EQ(0, wait_child(child));
    close(fd);
}

// The kernel gives both ends of a socket pair the credentials of the process
// that made it. A child that inherited an end is not that process: as a
// client it is refused; a child serving the pair's maker accepts it.
TEST_F(LocalExchange, SocketPairAcrossFork) {
    {
        SocketPair sp;
        pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            close(sp.fd[0]);
            sp.fd[0] = -1;
            Service svc(m);
            Context ctx(m);
            std::vector<uint8_t> hello;
            if (ctx.attach(sp.fd[1]) != 0 || !recv_frame(sp.fd[1], hello)) _exit(1);
            sec_buffer_desc in = in_buffer(hello);
            ModBuffer reply(m);
            qv_uint32_t minor, rflags;
            if (m.mpm_receive_sec_context(&minor, svc.handle(), &in, ctx.slot(), reply.get(), &rflags) != 0) _exit(2);
            _exit(send_frame(sp.fd[1], reply.bytes()) ? 0 : 3);
        }
        // The maker of the pair, as a client that does not check the child.
        Service svc(m);
        Context ctx(m);
        ModBuffer hello(m);
        qv_uint32_t minor;
        ASSERT_EQ(1u, m.mpm_start_sec_context(&minor, svc.handle(), nullptr, nullptr, 0, ctx.slot(), hello.get()));
        ASSERT_TRUE(send_frame(sp.fd[0], hello.bytes()));
        std::vector<uint8_t> reply;
        ASSERT_TRUE(recv_frame(sp.fd[0], reply));
        sec_buffer_desc in = in_buffer(reply);
        ModBuffer none(m);
        EXPECT_EQ(0u, m.mpm_complete_sec_context(&minor, &in, ctx.get(), none.get()));
        EXPECT_EQ(0, wait_child(child));
    }
    {
        SocketPair sp;
        pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            Service svc(m);
            Context ctx(m);
            ModBuffer hello(m);
            qv_uint32_t minor;
            if (m.mpm_start_sec_context(&minor, svc.handle(), nullptr, nullptr, 0, ctx.slot(), hello.get()) != 1)
                _exit(1);
            _exit(send_frame(sp.fd[1], hello.bytes()) ? 0 : 2);
        }
        Service svc(m);
        Context ctx(m);
        ASSERT_EQ(0u, ctx.attach(sp.fd[0]));
        std::vector<uint8_t> hello;
        ASSERT_TRUE(recv_frame(sp.fd[0], hello));
        sec_buffer_desc in = in_buffer(hello);
        ModBuffer reply(m);
        qv_uint32_t minor, rflags;
        EXPECT_EQ(kMismatch, m.mpm_receive_sec_context(&minor, svc.handle(), &in, ctx.slot(), reply.get(), &rflags));
        EXPECT_EQ(0x4u, minor);  // the process differs, user and group agree
        EXPECT_EQ(nullptr, ctx.get());
        EXPECT_EQ(0, reply.length());
        EXPECT_EQ(0, wait_child(child));
    }
}

TEST_F(LocalExchange, ClaimsThatDifferFromTheKernelAreRefused) {
    struct Case {
        size_t at;
        qv_uint32_t bit;
    } cases[] = {{kUidAt, 0x1}, {kGidAt, 0x2}, {kPidAt, 0x4}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.at);
        // A client that lies about itself.
        Pair p(m);
        ASSERT_EQ(1u, p.start());
        std::vector<uint8_t> hello = p.hello.bytes();
        hello[c.at + 3] ^= 0x01;
        EXPECT_EQ(kMismatch, p.receive(hello));
        EXPECT_EQ(c.bit, p.minor);
        EXPECT_EQ(nullptr, p.server.get());
        EXPECT_EQ(0, p.reply.length());
        // A service that lies about itself, to a client that checks.
        Pair q(m);
        ASSERT_EQ(1u, q.start());
        ASSERT_EQ(0u, q.receive(q.hello.bytes()));
        std::vector<uint8_t> reply = q.reply.bytes();
        reply[c.at + 3] ^= 0x01;
        EXPECT_EQ(kMismatch, q.complete(reply));
        EXPECT_EQ(c.bit, q.minor);
    }
}

TEST_F(LocalExchange, ChangedReplyFailsKeyConfirmation) {
    // Nonce, public key, service name and the tag itself are all covered.
    for (size_t at : {4u, 35u, 36u, 67u, 81u, 84u, 115u}) {
        SCOPED_TRACE(at);
        Pair p(m, "svc");
        ASSERT_EQ(1u, p.start());
        ASSERT_EQ(0u, p.receive(p.hello.bytes()));
        std::vector<uint8_t> reply = p.reply.bytes();
        ASSERT_LT(at, reply.size());
        reply[at] ^= 0x20;
        EXPECT_EQ(kKeyExchange, p.complete(reply));
    }
    // A changed hello gives the service other keys than the client's.
    Pair p(m);
    ASSERT_EQ(1u, p.start());
    std::vector<uint8_t> hello = p.hello.bytes();
    hello[10] ^= 0x01;
    ASSERT_EQ(0u, p.receive(hello));
    EXPECT_EQ(kKeyExchange, p.complete(p.reply.bytes()));
}

TEST_F(LocalExchange, TruncatedOrExtendedTokensAreRefused) {
    Pair p(m, "svc");
    ASSERT_EQ(1u, p.start());
    const std::vector<uint8_t> hello = p.hello.bytes();
    for (size_t n = 0; n <= hello.size(); ++n) {
        std::vector<uint8_t> cut(hello.begin(), hello.begin() + static_cast<long>(n));
        if (n == hello.size()) cut.push_back(0);
        SCOPED_TRACE(n);
        Context server(m);
        ASSERT_EQ(0u, server.attach(p.sp.fd[1]));
        sec_buffer_desc in = in_buffer(cut);
        ModBuffer reply(m);
        qv_uint32_t minor, rflags;
        EXPECT_EQ(kBadToken, m.mpm_receive_sec_context(&minor, p.server_svc.handle(), &in, server.slot(), reply.get(),
                                                       &rflags));
        EXPECT_EQ(n == hello.size() ? 4u : 1u, minor);
        EXPECT_EQ(nullptr, server.get());
    }
    ASSERT_EQ(0u, p.receive(hello));
    const std::vector<uint8_t> reply = p.reply.bytes();
    // A refused reply leaves the client waiting for the real one.
    for (size_t n = 0; n <= reply.size(); ++n) {
        std::vector<uint8_t> cut(reply.begin(), reply.begin() + static_cast<long>(n));
        if (n == reply.size()) cut.push_back(0);
        SCOPED_TRACE(n);
        EXPECT_EQ(kBadToken, p.complete(cut));
    }
    EXPECT_EQ(0u, p.complete(reply));
}

TEST_F(LocalExchange, MalformedFieldsAreRefused) {
    struct Case {
        size_t at;
        uint8_t value;
        qv_uint32_t reason;
    } cases[] = {{0, 0x02, 2}, {0, 0x00, 2}, {1, 0x02, 3}, {1, 0x00, 3}, {81, 0x00, 5}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.at);
        Pair p(m);
        ASSERT_EQ(1u, p.start("abc"));
        std::vector<uint8_t> hello = p.hello.bytes();
        hello[c.at] = c.value;
        EXPECT_EQ(kBadToken, p.receive(hello));
        EXPECT_EQ(c.reason, p.minor);
    }
    // A name length that runs past the end.
    Pair p(m);
    ASSERT_EQ(1u, p.start("abc"));
    std::vector<uint8_t> hello = p.hello.bytes();
    hello[80] = 4;
    EXPECT_EQ(kBadToken, p.receive(hello));
    EXPECT_EQ(1u, p.minor);
}

TEST_F(LocalExchange, TargetMustBeTheLoggedInService) {
    struct Case {
        const char *login, *target;
        qv_uint32_t status;
    } cases[] = {{"svcA", "svcB", kWrongTarget}, {"svcA", "svcA", 0}, {"svcA", "", 0}, {nullptr, "svcB", 0}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.target);
        Pair p(m, c.login);
        ASSERT_EQ(1u, p.start(c.target));
        EXPECT_EQ(c.status, p.receive(p.hello.bytes()));
    }
}

TEST_F(LocalExchange, SocketRequirements) {
    qv_uint32_t minor;
    {  // A service without the client's socket cannot check anything.
        Pair p(m);
        ASSERT_EQ(1u, p.start());
        EXPECT_EQ(kNoSocket, p.receive(p.hello.bytes(), false));
        EXPECT_EQ(static_cast<qv_uint32_t>(ENOTSOCK), p.minor);
    }
    {  // A socket the library marked as a network socket: the client declines.
        Pair p(m);
        ASSERT_EQ(0u, p.client.attach(p.sp.fd[0], kNetworkSocket));
        EXPECT_EQ(kNoSocket, p.start("svc", 0, false));
        EXPECT_EQ(static_cast<qv_uint32_t>(EAFNOSUPPORT), p.minor);
        EXPECT_EQ(0, p.hello.length());
    }
    {  // Mutual authentication asked for without a socket.
        Pair p(m);
        EXPECT_EQ(kMutualRequired, p.start("svc", 0x2, false));
        EXPECT_EQ(nullptr, p.client.get());
    }
    {  // A socket that is not a UNIX-domain one, though marked local.
        Pair p(m);
        ASSERT_EQ(1u, p.start());
        int udp = socket(AF_INET, SOCK_DGRAM, 0);
        ASSERT_GE(udp, 0);
        ASSERT_EQ(0u, p.server.attach(udp));
        EXPECT_EQ(kNoSocket, p.receive(p.hello.bytes(), false));
        EXPECT_EQ(static_cast<qv_uint32_t>(EAFNOSUPPORT), p.minor);
        close(udp);
    }
    {  // Attribute codes other than 1, and bad socket information.
        Context c(m);
        sec_socket_info_desc info{3, kLocalSocket, nullptr};
        EXPECT_EQ(kBadArgument, m.mpm_set_ctx_attribute(&minor, nullptr, 2, &info, c.slot()));
        EXPECT_EQ(kBadArgument, m.mpm_set_ctx_attribute(&minor, nullptr, 1, nullptr, c.slot()));
        info.fd = -1;
        EXPECT_EQ(kBadArgument, m.mpm_set_ctx_attribute(&minor, nullptr, 1, &info, c.slot()));
        EXPECT_EQ(nullptr, c.get());
    }
}

TEST_F(LocalExchange, RoutinesOutOfTurn) {
    Pair p(m);
    qv_uint32_t minor, flags;
    ASSERT_EQ(1u, p.start());
    const std::vector<uint8_t> hello = p.hello.bytes();
    // Not yet established.
    EXPECT_EQ(kWrongState, m.mpm_get_ctx_flags(&minor, p.client.get(), &flags));
    std::vector<uint8_t> data = {1};
    sec_buffer_desc in = in_buffer(data);
    ModBuffer out(m);
    EXPECT_EQ(kWrongState, m.mpm_prepare_data(&minor, p.client.get(), kIntegrity, &in, out.get()));
    // A started client cannot start again or be given a socket.
    p.hello.release();
    EXPECT_EQ(kWrongState, p.start("svc", 0, false));
    EXPECT_EQ(kWrongState, p.client.attach(p.sp.fd[0]));
    EXPECT_EQ(0, p.hello.length());  // a refused call gives no output
    ASSERT_EQ(0u, p.receive(hello));
    // An established service context takes no second hello.
    ModBuffer again(m);
    std::vector<uint8_t> copy = hello;
    sec_buffer_desc hin = in_buffer(copy);
    qv_uint32_t rflags;
    EXPECT_EQ(kWrongState,
              m.mpm_receive_sec_context(&minor, p.server_svc.handle(), &hin, p.server.slot(), again.get(), &rflags));
    ASSERT_EQ(0u, p.complete(p.reply.bytes()));
    EXPECT_EQ(kWrongState, p.complete(p.reply.bytes()));
    // Handles of the wrong kind.
    EXPECT_EQ(kBadHandle, m.mpm_get_ctx_flags(&minor, p.server_svc.handle(), &flags));
    EXPECT_EQ(kBadHandle, m.mpm_end(&minor, 0, p.client.get()));
    EXPECT_EQ(kBadHandle, m.mpm_end_context(&minor, nullptr));
}

}  // namespace
}  // namespace qvtest
