// The "local" module driven through dlopen as the library drives it:
// context establishment in one process and across processes and users,
// tokens that lie, are cut short or corrupted; who may serve a target name;
// sealed messages and signatures, and their refusal when changed, replayed,
// reordered, reflected or used after fork.
#include <gtest/gtest.h>
#include <grp.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <functional>

#include "child_process.h"
#include "local_mech.h"
#include "local_module.h"

namespace qvtest {
namespace {

constexpr qv_uint32_t kRequireMutual = 0x2;
constexpr uid_t kNobody = 65534;

// The network name the module gives the peer of ctx, with its NUL.
std::string peer_name(LocalModule &m, void *ctx) { return ask_name(m.mpm_get_client_name, ctx); }

// Drops this (child) process to another user; false when it cannot.
bool become(uid_t uid) { return setgroups(0, nullptr) == 0 && setgid(uid) == 0 && setuid(uid) == 0; }

std::vector<uint8_t> with_byte(std::vector<uint8_t> v, size_t at, int value) {
    v.at(at) = static_cast<uint8_t>(value);
    return v;
}
std::vector<uint8_t> flipped(std::vector<uint8_t> v, size_t at, int mask = 1) {
    return with_byte(v, at, v.at(at) ^ mask);
}

class LocalExchange : public ::testing::Test {
protected:
    LocalModule m;
};

TEST_F(LocalExchange, MutualInOneProcess) {
    Pair p(m, "svc");
    p.establish("svc", kRequireMutual);
    // The hello as documented: type, version, flags, then after nonce and
    // key the sender's uid, gid, pid big-endian and the target's length.
    std::vector<uint8_t> want = {1, 1, 0, 1}, hello = p.hello.bytes(), reply = p.reply.bytes();
    for (uint32_t v : {geteuid(), getegid(), static_cast<uint32_t>(getpid())}) push_be32(want, v);
    want.insert(want.end(), {3, 's', 'v', 'c'});
    ASSERT_EQ(84u, hello.size());
    hello.erase(hello.begin() + 4, hello.begin() + 68);
    EXPECT_EQ(to_hex(want), to_hex(hello));
    ASSERT_EQ(116u, reply.size());
    EXPECT_EQ("02010001", to_hex(reply.data(), 4));
    EXPECT_EQ(3, reply[80]);
    // A client that gave no socket checks nothing and cannot name the
    // service; its flags say so on both sides.
    Pair one_way(m);
    ASSERT_EQ(1u, one_way.start("svc", 0, false));
    ASSERT_EQ(0u, one_way.receive(one_way.hello.bytes()));
    ASSERT_EQ(0u, one_way.complete(one_way.reply.bytes()));
    // Each exchange has fresh nonces on both sides.
    auto nonce = [](const std::vector<uint8_t> &t) { return to_hex(std::vector<uint8_t>(t.begin() + 4, t.begin() + 36)); };
    EXPECT_NE(nonce(p.hello.bytes()), nonce(one_way.hello.bytes()));
    EXPECT_NE(nonce(p.reply.bytes()), nonce(one_way.reply.bytes()));
    qv_uint32_t minor, flags = 0, status;
    ask_name(m.mpm_get_client_name, one_way.client.get(), &status);
    EXPECT_EQ(kWrongState, status);
    EXPECT_EQ(0x1fu, p.rflags);
    EXPECT_EQ(0x1eu, one_way.rflags);
    for (Pair *q : {&p, &one_way}) {
        for (void *ctx : {q->client.get(), q->server.get()}) {
            ASSERT_EQ(0u, m.mpm_get_ctx_flags(&minor, ctx, &flags));
            EXPECT_EQ(q->rflags, flags);  // 0x1: mutual; replay, sequence, integrity, confidentiality
        }
    }
}

// Runs step as uid: in a child that became uid, or here when uid is ours.
bool as_user(uid_t uid, const std::function<bool()> &step) {
    if (uid == geteuid()) return step();
    return run_in_child([&] { return become(uid) && step() ? 0 : 1; }) == 0;
}

// A connection whose ends the kernel credits to the user that listened
// (service_uid) and the one that connected (client_uid), both ends held by
// this process. The listener's process is not the one that answers, as
// with a pre-forked service.
struct UserSockets {
    UserSockets(uid_t service_uid, uid_t client_uid) {
        TempDir dir;
        sockaddr_un sa{AF_UNIX, {}};
        std::strncpy(sa.sun_path, (dir.path() + "/svc.sock").c_str(), sizeof sa.sun_path - 1);
        const auto *addr = reinterpret_cast<const sockaddr *>(&sa);
        int lfd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
        client = socket(AF_UNIX, SOCK_SEQPACKET, 0);
        // The other user must reach the socket.
        EXPECT_TRUE(bind(lfd, addr, sizeof sa) == 0 && chmod(dir.path().c_str(), 0711) == 0 &&
                    chmod(sa.sun_path, 0666) == 0);
        EXPECT_TRUE(as_user(service_uid, [&] { return listen(lfd, 1) == 0; }));
        EXPECT_TRUE(as_user(client_uid, [&] { return connect(client, addr, sizeof sa) == 0; }));
        server = accept(lfd, nullptr, nullptr);
        close(lfd);
    }
    ~UserSockets() {
        close(client);
        close(server);
    }
    int client = -1, server = -1;
};

// Who may answer a client that requires mutual authentication: the kernel
// names the user that listens, and that user must be allowed to serve the
// target. An impostor run as another user on the client's path gets the
// client's hello and nothing else.
TEST_F(LocalExchange, ServicesAcrossProcessesAndUsers) {
    const uid_t me = geteuid();
    struct Case {
        const char *what;
        uid_t service;
        qv_uint32_t flags;
        const char *target;
        qv_uint32_t status, minor;
    } cases[] = {
        {"own user", me, kRequireMutual, "svc", 0, 0},
        {"impostor", kNobody, kRequireMutual, "svc", kServiceNotAllowed, 1},
        {"service named after its user", kNobody, kRequireMutual, "nobody@node1", 0, 0},
        {"impostor, client does not require", kNobody, 0, "svc", 0, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        if (c.service != me && me != 0) GTEST_SKIP() << "a service run as another user needs root";
        UserSockets us(c.service, me);
        Pair p(m, nullptr, us.client, us.server);
        ASSERT_EQ(1u, p.start(c.target, c.flags));
        ASSERT_EQ(0u, p.receive(p.hello.bytes()));
        EXPECT_EQ(c.status, p.complete(p.reply.bytes()));
        EXPECT_EQ(c.minor, p.minor);
        if (c.status != 0) continue;
        // The client knows who served it, checked or not; only a check
        // against the target sets the mutual flag.
        EXPECT_EQ(user_at_host(c.service) + '\0', peer_name(m, p.client.get()));
        qv_uint32_t minor, flags = 0;
        EXPECT_EQ(0u, m.mpm_get_ctx_flags(&minor, p.client.get(), &flags));
        EXPECT_EQ(c.flags == kRequireMutual ? 0x1fu : 0x1eu, flags);
    }
}

// A client is the user the kernel says connected, at the time it connected,
// whatever its hello claims: nobody's connection is nobody's though root
// writes the hello; a child that inherited root's connected end and became
// nobody is root though its hello claims nobody.
TEST_F(LocalExchange, ClientIsWhoTheKernelSaysConnected) {
    if (geteuid() != 0) GTEST_SKIP() << "a client run as another user needs root";
    qv_uint32_t minor;
    {
        UserSockets us(0, kNobody);
        Pair p(m, nullptr, us.client, us.server);
        p.establish();
        EXPECT_EQ(user_at_host(kNobody) + '\0', peer_name(m, p.server.get()));
        EXPECT_EQ(kUserNotValid, m.mpm_user_valid(&minor, p.server.get(), const_cast<char *>("root")));
        EXPECT_EQ(0u, m.mpm_user_valid(&minor, p.server.get(), const_cast<char *>("nobody")));
    }
    UserSockets us(0, 0);
    Pair p(m, nullptr, us.client, us.server);
    EXPECT_EQ(0, run_in_child([&] {
        if (!become(kNobody) || p.start(nullptr, 0, false) != 1) return 1;
        return send_msg(us.client, p.hello.bytes()) ? 0 : 2;
    }));
    std::vector<uint8_t> hello;
    ASSERT_TRUE(recv_msg(us.server, hello));
    ASSERT_EQ(0u, p.receive(hello));
    EXPECT_EQ(user_at_host(0) + '\0', peer_name(m, p.server.get()));
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

// Tokens changed in transit: each refused with its status and minor status.
// A refused reply leaves the client waiting for the real one.
TEST_F(LocalExchange, ChangedTokensAreRefused) {
    using Change = std::vector<uint8_t> (*)(std::vector<uint8_t>);
    struct Case {
        const char *what;
        bool in_reply;
        Change change;
        qv_uint32_t status, minor;
    } cases[] = {
        {"hello type", false, [](auto t) { return with_byte(t, 0, 2); }, kBadToken, 2},
        {"hello version", false, [](auto t) { return with_byte(t, 1, 2); }, kBadToken, 3},
        {"NUL in the target", false, [](auto t) { return with_byte(t, 81, 0); }, kBadToken, 5},
        {"target length past the end", false, [](auto t) { return with_byte(t, 80, 4); }, kBadToken, 1},
        {"byte after the hello", false, [](auto t) { t.push_back(0); return t; }, kBadToken, 4},
        {"client key of low order", false, [](auto t) { std::fill_n(t.begin() + 36, 32, 0); return t; },
         kKeyExchange, 0},
        {"byte after the reply", true, [](auto t) { t.push_back(0); return t; }, kBadToken, 4},
        {"service key of low order", true, [](auto t) { std::fill_n(t.begin() + 36, 32, 0); return t; },
         kKeyExchange, 0},
        // The confirmation tag covers nonce, key, the claims, the service
        // name and itself.
        {"reply claims", true, [](auto t) { return flipped(t, 78); }, kKeyExchange, 7},
        {"reply name", true, [](auto t) { return flipped(t, 83); }, kKeyExchange, 7},
        {"reply tag", true, [](auto t) { return flipped(t, 115); }, kKeyExchange, 7},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        Pair p(m, "svc");
        ASSERT_EQ(1u, p.start());
        if (!c.in_reply) {
            EXPECT_EQ(c.status, p.receive(c.change(p.hello.bytes())));
            EXPECT_EQ(c.minor, p.minor);
            continue;
        }
        ASSERT_EQ(0u, p.receive(p.hello.bytes()));
        EXPECT_EQ(c.status, p.complete(c.change(p.reply.bytes())));
        EXPECT_EQ(c.minor, p.minor);
        EXPECT_EQ(0u, p.complete(p.reply.bytes()));
    }
    // Cut short anywhere: the hello, then the reply.
    Pair p(m, "svc");
    ASSERT_EQ(1u, p.start());
    for (bool reply : {false, true}) {
        const std::vector<uint8_t> t = reply ? p.reply.bytes() : p.hello.bytes();
        for (size_t n = 0; n < t.size(); ++n) {
            std::vector<uint8_t> cut(t.begin(), t.begin() + static_cast<long>(n));
            EXPECT_EQ(kBadToken, reply ? p.complete(cut) : p.receive(cut));
            EXPECT_EQ(1u, p.minor) << n;
        }
        if (!reply) {
            ASSERT_EQ(0u, p.receive(t));
        }
    }
    // A changed hello gives the service other keys than the client's.
    Pair q(m);
    ASSERT_EQ(1u, q.start());
    ASSERT_EQ(0u, q.receive(flipped(q.hello.bytes(), 10)));
    EXPECT_EQ(kKeyExchange, q.complete(q.reply.bytes()));
}

TEST_F(LocalExchange, TargetMustBeTheLoggedInService) {
    const std::string longest(255, 's');  // the longest name a token carries
    struct Case {
        const char *login, *target;
        qv_uint32_t status;
    } cases[] = {{"svcA", "svcB", kWrongTarget},
                 {"svcA", "", 0},
                 {nullptr, "svcB", 0},
                 {nullptr, longest.c_str(), 0},
                 {"svcA", "svcA@node1", 0},
                 {"svcA", "svcB@svcA", kWrongTarget}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.target);
        Pair p(m, c.login);
        ASSERT_EQ(1u, p.start(c.target));
        EXPECT_EQ(c.status, p.receive(p.hello.bytes()));
    }
}

TEST_F(LocalExchange, SocketRequirements) {
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
    {  // Mutual authentication without a socket, or without a target; a
       // target too long; no handle slot.
        Pair p(m);
        EXPECT_EQ(kBadArgument, m.mpm_start_sec_context(&p.minor, p.svc.handle(), nullptr, nullptr, 0, nullptr,
                                                        p.hello.get()));
        EXPECT_EQ(kMutualRequired, p.start("svc", kRequireMutual, false));
        EXPECT_EQ(kBadArgument, p.start(std::string(256, 's').c_str(), 0, false));
        EXPECT_EQ(kBadArgument, p.start("", kRequireMutual, false));
        EXPECT_EQ(nullptr, p.client.get());
    }
    {  // A socket that is not a UNIX-domain one, though marked local.
        Pair p(m);
        ASSERT_EQ(1u, p.start());
        int udp = socket(AF_INET, SOCK_DGRAM, 0);
        ASSERT_EQ(0u, p.server.attach(udp));
        EXPECT_EQ(kNoSocket, p.receive(p.hello.bytes(), false));
        EXPECT_EQ(static_cast<qv_uint32_t>(EAFNOSUPPORT), p.minor);
        close(udp);
    }
    Context c(m);
    qv_uint32_t minor;
    sec_socket_info_desc info{3, kLocalSocket, nullptr};
    EXPECT_EQ(kBadArgument, m.mpm_set_ctx_attribute(&minor, nullptr, 2, &info, c.slot()));
    info.fd = -1;
    EXPECT_EQ(kBadArgument, m.mpm_set_ctx_attribute(&minor, nullptr, 1, &info, c.slot()));
    info.fd = 1000;  // names nothing: there is no socket to remember
    EXPECT_EQ(kNoSocket, m.mpm_set_ctx_attribute(&minor, nullptr, 1, &info, c.slot()));
    EXPECT_EQ(static_cast<qv_uint32_t>(EBADF), minor);
    EXPECT_EQ(nullptr, c.get());
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
    std::vector<uint8_t> copy = hello;
    sec_buffer_desc hin = in_buffer(copy);
    qv_uint32_t rflags;
    EXPECT_EQ(kWrongState, m.mpm_receive_sec_context(&minor, p.svc.handle(), &hin, p.server.slot(), out.get(), &rflags));
    ASSERT_EQ(0u, p.complete(p.reply.bytes()));
    EXPECT_EQ(kWrongState, p.complete(p.reply.bytes()));
    // Handles of the wrong kind.
    EXPECT_EQ(kBadHandle, m.mpm_get_ctx_flags(&minor, p.svc.handle(), &flags));
    EXPECT_EQ(kBadHandle, m.mpm_end(&minor, 0, p.client.get()));
    EXPECT_EQ(kBadHandle, m.mpm_end_context(&minor, nullptr));
}

// Who may answer a client that requires mutual authentication for a target:
// root, the client's own user, and the users the services file lists for the
// service or, when it lists none, the user of the service's name. The file
// counts only when root owns it and only root can write it. The module's own
// file is fixed at build time: this calls the rule with a file the test writes.
TEST(LocalWire, ServiceUsersRule) {
    if (geteuid() != 0) GTEST_SKIP() << "the services file must be owned by root: the test writes one as root";
    constexpr uint32_t kDaemon = 1;
    constexpr qv_uint32_t kUser = qvlocal::kMinorUserNotAllowed, kFile = qvlocal::kMinorServicesFileUnusable;
    enum Kind { kNone, kText, kGroupWritable, kOtherOwner, kSymlink };
    struct Case {
        const char *what;
        Kind kind;
        const char *text, *target;
        uint32_t service_uid, client_uid;
        qv_uint32_t minor;  // 0: allowed
    } cases[] = {
        {"no file, stranger", kNone, "", "svc", kDaemon, kNobody, kUser},
        {"no file, root", kNone, "", "svc", 0, kNobody, 0},
        {"no file, the client's own user", kNone, "", "svc", kDaemon, kDaemon, 0},
        {"no file, user of the service's name", kNone, "", "daemon", kDaemon, kNobody, 0},
        {"listed", kText, "svc daemon\n", "svc", kDaemon, kNobody, 0},
        {"listed by uid, with comments", kText, "# who\n\n  svc\t#65534 \nother daemon\n", "svc", kNobody, 0, 0},
        {"another service's user", kText, "svc daemon\nother nobody\n", "svc", kNobody, 0, kUser},
        {"a list replaces the name rule", kText, "daemon nobody\n", "daemon", kDaemon, 0, kUser},
        {"unknown user listed", kText, "svc no-such-user-qv\n", "svc", kDaemon, 0, kUser},
        {"three fields", kText, "svc daemon extra\n", "svc", kDaemon, 0, kFile},
        {"group-writable", kGroupWritable, "svc daemon\n", "svc", kDaemon, 0, kFile},
        {"owned by another user", kOtherOwner, "svc daemon\n", "svc", kDaemon, 0, kFile},
        {"symbolic link", kSymlink, "svc daemon\n", "svc", kDaemon, 0, kFile},
        {"unusable file, root still serves", kGroupWritable, "", "svc", 0, kNobody, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        TempDir dir;
        std::string path = dir.path() + "/local-services", real = dir.write("real", c.text);
        ASSERT_EQ(0, chmod(real.c_str(), c.kind == kGroupWritable ? 0664 : 0644));
        ASSERT_EQ(0, c.kind == kOtherOwner ? chown(real.c_str(), kNobody, kNobody) : 0);
        ASSERT_EQ(0, c.kind == kNone        ? 0
                     : c.kind == kSymlink   ? symlink(real.c_str(), path.c_str())
                                            : rename(real.c_str(), path.c_str()));
        qv_uint32_t minor = 0;
        EXPECT_EQ(c.minor == 0 ? 0u : kServiceNotAllowed,
                  qvlocal::service_user_allowed(path.c_str(), c.target, c.service_uid, c.client_uid, &minor));
        EXPECT_EQ(c.minor, minor);
    }
}

class LocalProtection : public ::testing::Test {
protected:
    void SetUp() override {
        p.establish();
        client = p.client.get(), server = p.server.get();
    }

    std::vector<uint8_t> seal(void *ctx, std::vector<uint8_t> data, qv_uint32_t mode) {
        sec_buffer_desc in = in_buffer(data);
        ModBuffer out(m);
        qv_uint32_t mn;
        EXPECT_EQ(0u, m.mpm_prepare_data(&mn, ctx, mode, &in, out.get()));
        return out.bytes();
    }
    qv_uint32_t open(void *ctx, std::vector<uint8_t> sealed, std::vector<uint8_t> *plain = nullptr) {
        sec_buffer_desc in = in_buffer(sealed);
        ModBuffer out(m);
        qv_uint32_t s = m.mpm_process_data(&minor, ctx, &in, out.get());
        if (s != 0) {
            EXPECT_EQ(0, out.length());
        }
        if (plain != nullptr) *plain = out.bytes();
        return s;
    }
    qv_uint32_t sign(void *ctx, std::vector<iovec> v, std::vector<uint8_t> *sig) {
        ModBuffer out(m);
        qv_uint32_t s = m.mpm_sign_data_v(&minor, ctx, static_cast<qv_int32_t>(v.size()), v.data(), out.get());
        *sig = out.bytes();
        return s;
    }
    qv_uint32_t verify(void *ctx, std::vector<uint8_t> sig, std::vector<iovec> v) {
        sec_buffer_desc in = in_buffer(sig);
        return m.mpm_verify_data_v(&minor, ctx, &in, static_cast<qv_int32_t>(v.size()), v.data());
    }

    LocalModule m;
    Pair p{m};
    void *client = nullptr, *server = nullptr;
    qv_uint32_t minor = 0;
};

TEST_F(LocalProtection, BothModesBothDirections) {
    const std::vector<uint8_t> message = {'s', 'e', 'c', 'r', 'e', 't', ' ', 'd', 'a', 't', 'a'};
    for (qv_uint32_t mode : {kIntegrity, kConfidentiality}) {
        for (bool from_client : {true, false}) {
            std::vector<uint8_t> sealed = seal(from_client ? client : server, message, mode), plain;
            ASSERT_EQ(message.size() + 26, sealed.size());
            EXPECT_EQ(1, sealed[0]);
            EXPECT_EQ(mode == kIntegrity ? 1 : 2, sealed[1]);
            bool visible = std::search(sealed.begin(), sealed.end(), message.begin(), message.end()) != sealed.end();
            EXPECT_EQ(mode == kIntegrity, visible);
            ASSERT_EQ(0u, open(from_client ? server : client, sealed, &plain));
            EXPECT_EQ(message, plain);
        }
    }
    // Sequence numbers count per direction, across modes.
    std::vector<uint8_t> third = seal(client, {}, kIntegrity);
    ASSERT_EQ(26u, third.size());
    EXPECT_EQ(2, third[9]);
    EXPECT_EQ(0u, open(server, third));
    // A message of another context between the same peers.
    Pair other(m);
    other.establish();
    EXPECT_EQ(kBadMessage, open(server, seal(other.client.get(), {'x'}, kIntegrity)));
    // Modes other than exactly one of the two bits, and bad buffers.
    std::vector<uint8_t> data = {1, 2};
    sec_buffer_desc in = in_buffer(data), negative{-1, data.data()}, null_value{2, nullptr};
    ModBuffer out(m);
    for (qv_uint32_t mode : {0u, kIntegrity | kConfidentiality, 0x1u})
        EXPECT_EQ(kBadArgument, m.mpm_prepare_data(&minor, client, mode, &in, out.get()));
    EXPECT_EQ(kBadArgument, m.mpm_prepare_data(&minor, client, kIntegrity, &negative, out.get()));
    EXPECT_EQ(kBadArgument, m.mpm_process_data(&minor, server, &null_value, out.get()));
}

TEST_F(LocalProtection, EveryChangedByteIsDetected) {
    for (qv_uint32_t mode : {kIntegrity, kConfidentiality}) {
        const std::vector<uint8_t> sealed = seal(client, {1, 2, 3, 4, 5}, mode);
        for (size_t at = 0; at < sealed.size(); ++at) {
            // Version, mode and tag bytes have their own reasons.
            EXPECT_EQ(kBadMessage, open(server, flipped(sealed, at, 0x04)));
            EXPECT_EQ(at == 0 ? 3u : at == 1 ? 6u : 7u, minor) << at;
        }
        for (size_t n = 0; n < sealed.size(); ++n) {
            EXPECT_EQ(kBadMessage, open(server, {sealed.begin(), sealed.begin() + static_cast<long>(n)}));
            EXPECT_EQ(n < 26 ? 1u : 7u, minor) << n;
        }
        // None of that moved the receiver on: the genuine message is next.
        EXPECT_EQ(0u, open(server, sealed));
    }
}

TEST_F(LocalProtection, ReplayedReorderedAndReflectedMessages) {
    std::vector<uint8_t> m0 = seal(client, {'a'}, kConfidentiality);
    std::vector<uint8_t> m1 = seal(client, {'b'}, kIntegrity);
    std::vector<uint8_t> m2 = seal(client, {'c'}, kConfidentiality);
    EXPECT_EQ(kOutOfOrder, open(server, m1));
    EXPECT_EQ(0u, open(server, m0));
    EXPECT_EQ(kReplayed, open(server, m0));
    EXPECT_EQ(kOutOfOrder, open(server, m2));
    EXPECT_EQ(0u, open(server, m1));
    EXPECT_EQ(0u, open(server, m2));
    EXPECT_EQ(kReplayed, open(server, m1));
    // A message sent back to its sender does not pass as the peer's.
    EXPECT_EQ(kBadMessage, open(client, m0));
    EXPECT_EQ(7u, minor);
}

// After fork the child holds a copy of the keys and sequence numbers: it
// must not seal, sign, open or verify with them (it would reuse the parent's
// nonces, and both would accept the peer's next message). The parent goes on.
TEST_F(LocalProtection, ContextsRefuseWorkInAForkedChild) {
    std::vector<uint8_t> from_server = seal(server, {'s'}, kConfidentiality), plain;
    int child = run_in_child([&] {
        std::vector<uint8_t> data = {1, 2, 3}, sig;
        sec_buffer_desc in = in_buffer(data), sealed = in_buffer(from_server);
        ModBuffer out(m);
        iovec v{data.data(), data.size()};
        qv_uint32_t got[] = {
            m.mpm_prepare_data(&minor, client, kConfidentiality, &in, out.get()),
            m.mpm_process_data(&minor, client, &sealed, out.get()),
            sign(client, {v}, &sig),
            m.mpm_verify_data_v(&minor, server, &in, 1, &v),
        };
        // Exit status: 0, or the 1-based number of the call that was not refused.
        for (size_t i = 0; i < std::size(got); ++i)
            if (got[i] != kOtherProcess) return static_cast<int>(i + 1);
        if (out.length() + static_cast<int>(sig.size()) != 0) return 100;
        // Contexts the child makes are its own.
        Pair fresh(m);
        fresh.establish();
        return open(fresh.server.get(), seal(fresh.client.get(), {'f'}, kIntegrity)) == 0 ? 0 : 101;
    });
    EXPECT_EQ(0, child);
    EXPECT_EQ(0u, open(client, from_server, &plain));
    EXPECT_EQ(0u, open(server, seal(client, {'c'}, kIntegrity)));
}

TEST_F(LocalProtection, Signatures) {
    std::string a = "first part ", b = "second part", joined = a + b, changed = joined;
    changed[5] ^= 1;
    const std::vector<iovec> whole = {{a.data(), a.size()}, {b.data(), b.size()}};
    std::vector<uint8_t> s0, s1, s2, back, split;
    ASSERT_EQ(0u, sign(client, whole, &s0));
    ASSERT_EQ(41u, s0.size());
    // A changed vector, or the same bytes split otherwise, fails with minor
    // 7 and does not move the verifier on.
    const std::vector<std::vector<iovec>> forgeries = {
        {{changed.data(), a.size()}, {changed.data() + a.size(), b.size()}},
        {{joined.data(), 3}, {joined.data() + 3, joined.size() - 3}},
        {{a.data(), a.size()}, {nullptr, 0}, {b.data(), b.size()}},
    };
    for (const std::vector<iovec> &v : forgeries) {
        EXPECT_EQ(kBadSignature, verify(server, s0, v));
        EXPECT_EQ(7u, minor);
    }
    EXPECT_EQ(0u, verify(server, s0, whole));
    ASSERT_EQ(0u, sign(client, whole, &s1));
    ASSERT_EQ(0u, sign(client, whole, &s2));
    // Each row: the signature, its verifier, the minor status (0: accepted).
    struct Row {
        std::vector<uint8_t> sig;
        void *ctx;
        qv_uint32_t minor;
    } rows[] = {
        {s0, server, 8},                                             // replayed
        {s2, server, 9},                                             // ahead of s1
        {{s1.begin(), s1.begin() + 40}, server, 1},                  // short
        {with_byte(s1, 0, 1), server, 3},                            // version 1: the concatenation only
        {[&] { auto l = s1; l.push_back(0); return l; }(), server, 4},  // too long
        {s1, client, 7},                                             // sent back to its signer
        {s1, server, 0},
    };
    for (const Row &r : rows) {
        EXPECT_EQ(r.minor == 0 ? 0u : kBadSignature, verify(r.ctx, r.sig, whole));
        EXPECT_EQ(r.minor, minor);
    }
    EXPECT_EQ(0u, verify(server, s2, whole));
    // The service's own signatures go the other way with other keys.
    ASSERT_EQ(0u, sign(server, whole, &back));
    EXPECT_EQ(0u, verify(client, back, whole));
    // A vector element with a length and no bytes.
    EXPECT_EQ(kBadArgument, sign(client, {{nullptr, 1}}, &split));
    EXPECT_EQ(kBadArgument, verify(server, s1, {{nullptr, 1}}));
}

}  // namespace
}  // namespace qvtest
