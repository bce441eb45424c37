// The "local" module's context establishment, driven through dlopen as the
// library drives it: in one process over a socket pair, across processes
// (fork) with the kernel's peer credentials, services and clients run as
// another user, and tokens that lie, are cut short or are corrupted.
#include <gtest/gtest.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "child_process.h"
#include "local_module.h"

namespace qvtest {
namespace {

constexpr size_t kUidAt = 68, kGidAt = 72, kPidAt = 76;
constexpr qv_uint32_t kRequireMutual = 0x2;
constexpr uid_t kNobody = 65534;

std::string this_host() {
    char buf[256] = {};
    gethostname(buf, sizeof buf - 1);
    return buf;
}

// The name the module gives the peer of ctx (the client on the service side,
// the service on the client side); empty when it refuses.
std::string peer_name(LocalModule &m, void *ctx, qv_uint32_t *status = nullptr) {
    char buf[256];
    qv_int32_t len = sizeof buf;
    qv_uint32_t minor, s = m.mpm_get_client_name(&minor, ctx, &len, buf);
    if (status != nullptr) *status = s;
    return s == 0 ? std::string(buf) : std::string();
}

std::string user_at_host(uid_t uid) {
    passwd *pw = getpwuid(uid);
    return (pw != nullptr ? std::string(pw->pw_name) : "#" + std::to_string(uid)) + "@" + this_host();
}

sockaddr_un unix_address(const std::string &path) {
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    std::strncpy(sa.sun_path, path.c_str(), sizeof sa.sun_path - 1);
    return sa;
}

// Drops this (child) process to another user; false when it cannot.
bool become(uid_t uid) { return setgroups(0, nullptr) == 0 && setgid(uid) == 0 && setuid(uid) == 0; }

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
    ASSERT_EQ(1u, p.start("svc", kRequireMutual));
    ASSERT_EQ(0u, p.receive(p.hello.bytes()));
    ASSERT_EQ(0u, p.complete(p.reply.bytes()));
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
    // Nothing vouched for the service: the client cannot name it.
    qv_uint32_t status;
    peer_name(m, p.client.get(), &status);
    EXPECT_EQ(kWrongState, status);
}

// The service side of a cross-process exchange, run in a child: accepts one
// client, establishes, checks who the client is, then unseals one message,
// seals an answer and verifies one signature. Exit code 0 = all good, else
// the step that failed.
int serve_one(LocalModule &m, int listen_fd, uid_t expected_uid) {
    int fd = accept(listen_fd, nullptr, nullptr);
    if (fd < 0) return 10;
    Service svc(m);
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

// A service in a child process, listening on path. The listening socket is
// made and bound by this test's user; listen is called after the child has
// become service_uid, so the kernel reports that user to connecting clients.
// A pre-forked service listens in one process and answers in another.
pid_t spawn_service(LocalModule &m, const std::string &path, uid_t service_uid, bool preforked, uid_t client_uid) {
    pid_t child = fork();
    if (child != 0) return child;
    int lfd = socket(AF_UNIX, SOCK_STREAM, 0);
    const sockaddr_un sa = unix_address(path);
    if (bind(lfd, reinterpret_cast<const sockaddr *>(&sa), sizeof sa) != 0) _exit(9);
    if (service_uid != geteuid() && !become(service_uid)) _exit(8);
    if (listen(lfd, 1) != 0) _exit(9);
    if (!preforked) _exit(serve_one(m, lfd, client_uid));
    pid_t worker = fork();
    if (worker == 0) _exit(serve_one(m, lfd, client_uid));
    _exit(wait_bounded(worker));
}

struct ClientResult {
    qv_uint32_t status = 0, minor = 0, flags = 0;
    std::string service;  // the service's name as the client learned it
};

// The client's half: establishes over a connection to path and, when that
// succeeds, runs the exchange serve_one expects.
ClientResult run_client(LocalModule &m, const std::string &path, qv_uint32_t flags, const char *target) {
    ClientResult r;
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    const sockaddr_un sa = unix_address(path);
    EXPECT_TRUE(wait_until([&] { return connect(fd, reinterpret_cast<const sockaddr *>(&sa), sizeof sa) == 0; }));
    Service svc(m);
    Context ctx(m);
    EXPECT_EQ(0u, ctx.attach(fd));
    ModBuffer hello(m);
    qv_uint32_t minor;
    EXPECT_EQ(1u, m.mpm_start_sec_context(&minor, svc.handle(), const_cast<char *>(target),
                                          const_cast<char *>("localhost"), flags, ctx.slot(), hello.get()));
    EXPECT_TRUE(send_frame(fd, hello.bytes()));
    std::vector<uint8_t> reply;
    EXPECT_TRUE(recv_frame(fd, reply));
    sec_buffer_desc in = in_buffer(reply);
    ModBuffer none(m);
    r.status = m.mpm_complete_sec_context(&r.minor, &in, ctx.get(), none.get());
    if (r.status != 0) {
        close(fd);
        return r;
    }
    m.mpm_get_ctx_flags(&minor, ctx.get(), &r.flags);
    r.service = peer_name(m, ctx.get());

    std::vector<uint8_t> ping = {'p', 'i', 'n', 'g'};
    sec_buffer_desc ping_in = in_buffer(ping);
    ModBuffer sealed(m);
    EXPECT_EQ(0u, m.mpm_prepare_data(&minor, ctx.get(), kIntegrity, &ping_in, sealed.get()));
    EXPECT_TRUE(send_frame(fd, sealed.bytes()));
    std::vector<uint8_t> answer;
    EXPECT_TRUE(recv_frame(fd, answer));
    in = in_buffer(answer);
    ModBuffer plain(m);
    EXPECT_EQ(0u, m.mpm_process_data(&minor, ctx.get(), &in, plain.get()));
    EXPECT_EQ((std::vector<uint8_t>{'p', 'o', 'n', 'g'}), plain.bytes());
    iovec v{ping.data(), ping.size()};
    ModBuffer sig(m);
    EXPECT_EQ(0u, m.mpm_sign_data_v(&minor, ctx.get(), 1, &v, sig.get()));
    EXPECT_TRUE(send_frame(fd, sig.bytes()));
    close(fd);
    return r;
}

// Who may answer a client that requires mutual authentication: the kernel
// names the user that listens, and that user must be allowed to serve the
// target. An impostor run as another user on the client's path gets the
// client's hello and nothing else.
TEST_F(LocalExchange, ServicesAcrossProcessesAndUsers) {
    const uid_t me = geteuid();
    struct Case {
        const char *what;
        bool other_user, preforked;
        qv_uint32_t flags;
        const char *target;
        qv_uint32_t status, minor;
    } cases[] = {
        {"own user", false, false, kRequireMutual, "svc", 0, 0},
        {"own user, pre-forked", false, true, kRequireMutual, "svc", 0, 0},
        {"impostor", true, false, kRequireMutual, "svc", kServiceNotAllowed, 1},
        {"impostor, pre-forked", true, true, kRequireMutual, "svc@localhost", kServiceNotAllowed, 1},
        {"service named after its user", true, true, kRequireMutual, "nobody", 0, 0},
        {"impostor, client does not require", true, false, 0, "svc", 0, 0},
    };
    bool skipped = false;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        if (c.other_user && me != 0) {
            skipped = true;
            continue;
        }
        TempDir dir;
        std::string path = dir.path() + "/svc.sock";
        const uid_t service_uid = c.other_user ? kNobody : me;
        pid_t child = spawn_service(m, path, service_uid, c.preforked, me);
        ASSERT_GE(child, 0);
        ClientResult r = run_client(m, path, c.flags, c.target);
        EXPECT_EQ(c.status, r.status);
        EXPECT_EQ(c.minor, r.minor);
        int served = wait_bounded(child);
        if (c.status == 0) {
            EXPECT_EQ(0, served);
            // The client knows who served it, checked or not; only a check
            // against the target sets the mutual flag.
            EXPECT_EQ(user_at_host(service_uid), r.service);
            EXPECT_EQ(c.flags == kRequireMutual ? 0x1u : 0u, r.flags & 0x1u);
        }
    }
    if (skipped) GTEST_SKIP() << "the cases with a service run as another user need root";
}

// The kernel gives both ends of a socket pair the credentials of the process
// that made it: the maker authenticates to a child that inherited an end.
TEST_F(LocalExchange, PairMakerAuthenticatesToChild) {
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
        EXPECT_EQ(0, wait_bounded(child));
    }
}

// A client is the user the kernel says connected, at the time it connected,
// whatever its hello claims: a child that inherited a root process's
// connected end and became nobody is root; nobody connecting itself is nobody.
TEST_F(LocalExchange, ClientIsWhoTheKernelSaysConnected) {
    if (geteuid() != 0) GTEST_SKIP() << "running a client as another user needs root";
    struct Case {
        const char *what;
        bool inherited;
        size_t claim_at;  // 0: the hello as written
        uid_t client;
    } cases[] = {
        {"inherited end, became nobody", true, 0, 0},
        {"inherited end, became nobody, claims root", true, kUidAt, 0},
        {"nobody claims uid 0", false, kUidAt, kNobody},
        {"nobody claims gid 0", false, kGidAt, kNobody},
        {"nobody claims pid 0", false, kPidAt, kNobody},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        TempDir dir;
        const sockaddr_un sa = unix_address(dir.path() + "/svc.sock");
        int lfd = socket(AF_UNIX, SOCK_STREAM, 0);
        ASSERT_EQ(0, bind(lfd, reinterpret_cast<const sockaddr *>(&sa), sizeof sa));
        ASSERT_EQ(0, listen(lfd, 1));
        // nobody must reach the socket to connect by itself.
        ASSERT_EQ(0, chmod(dir.path().c_str(), 0711));
        ASSERT_EQ(0, chmod(sa.sun_path, 0666));
        int cfd = socket(AF_UNIX, SOCK_STREAM, 0);
        if (c.inherited) {
            ASSERT_EQ(0, connect(cfd, reinterpret_cast<const sockaddr *>(&sa), sizeof sa));
        }
        pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            if (!become(kNobody)) _exit(1);
            if (!c.inherited && connect(cfd, reinterpret_cast<const sockaddr *>(&sa), sizeof sa) != 0) _exit(2);
            Service svc(m);
            Context ctx(m);
            ModBuffer hello(m);
            qv_uint32_t minor;
            if (m.mpm_start_sec_context(&minor, svc.handle(), nullptr, nullptr, 0, ctx.slot(), hello.get()) != 1)
                _exit(3);
            std::vector<uint8_t> bytes = hello.bytes();
            if (c.claim_at != 0) std::fill_n(bytes.begin() + static_cast<long>(c.claim_at), 4, 0);
            _exit(send_frame(cfd, bytes) ? 0 : 4);
        }
        close(cfd);
        int fd = accept(lfd, nullptr, nullptr);
        ASSERT_GE(fd, 0);
        Service svc(m);
        Context ctx(m);
        ASSERT_EQ(0u, ctx.attach(fd));
        std::vector<uint8_t> hello;
        ASSERT_TRUE(recv_frame(fd, hello));
        sec_buffer_desc in = in_buffer(hello);
        ModBuffer reply(m);
        qv_uint32_t minor, rflags;
        EXPECT_EQ(0u, m.mpm_receive_sec_context(&minor, svc.handle(), &in, ctx.slot(), reply.get(), &rflags));
        EXPECT_EQ(user_at_host(c.client), peer_name(m, ctx.get()));
        if (c.client != 0) {
            EXPECT_EQ(36u, m.mpm_user_valid(&minor, ctx.get(), const_cast<char *>("root")));
        }
        EXPECT_EQ(0, wait_bounded(child));
        close(fd);
        close(lfd);
    }
}

// The descriptor number a context was given may come to name another socket
// (a service that closes and accepts again): the context notices and refuses
// rather than check the new connection.
TEST_F(LocalExchange, DescriptorThatNamesAnotherSocketIsRefused) {
    for (bool client_side : {true, false}) {
        SCOPED_TRACE(client_side);
        Pair p(m);
        SocketPair other;
        ASSERT_EQ(1u, p.start());
        ASSERT_EQ(0u, p.server.attach(p.sp.fd[1]));
        int fd = p.sp.fd[client_side ? 0 : 1];
        ASSERT_EQ(fd, dup2(other.fd[client_side ? 0 : 1], fd));
        if (client_side) {
            ASSERT_EQ(0u, p.receive(p.hello.bytes(), false));
            EXPECT_EQ(kNoSocket, p.complete(p.reply.bytes()));
        } else {
            EXPECT_EQ(kNoSocket, p.receive(p.hello.bytes(), false));
        }
        EXPECT_EQ(static_cast<qv_uint32_t>(ESTALE), p.minor);
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
    } cases[] = {{"svcA", "svcB", kWrongTarget}, {"svcA", "svcA", 0},       {"svcA", "", 0},
                 {nullptr, "svcB", 0},            {"svcA", "svcA@node1", 0}, {"svcA", "svcB@svcA", kWrongTarget}};
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
        info.fd = 1000;  // names nothing: there is no socket to remember
        EXPECT_EQ(kNoSocket, m.mpm_set_ctx_attribute(&minor, nullptr, 1, &info, c.slot()));
        EXPECT_EQ(static_cast<qv_uint32_t>(EBADF), minor);
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
    // A forked child completing its parent's exchange would derive the
    // parent's keys.
    EXPECT_EQ(static_cast<int>(kOtherProcess),
              run_in_child([&] { return static_cast<int>(p.complete(p.reply.bytes())); }));
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
