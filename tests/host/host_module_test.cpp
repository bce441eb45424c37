// The "host" module across simulated hosts: each host has its own node ID
// file, host key, trusted-hosts file, module configuration and running
// qvsec-hostd; services run in child processes (a host's configuration per
// process, as on real hosts), clients in the test process. Success both
// ways, then one table of attacks on the service side and on the client
// side, each followed by the same service still serving a genuine client.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <functional>
#include <map>
#include <memory>

#include "child_process.h"
#include "host_files.h"
#include "host_mech.h"
#include "sim_hosts.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;
using namespace qvhostmech;
using namespace qvhosttest;

std::int64_t now() { return static_cast<std::int64_t>(time(nullptr)); }

// Length-prefixed frames between the test and its service processes.
void put_frame(int fd, const Bytes &b) {
    uint32_t n = static_cast<uint32_t>(b.size());
    ASSERT_EQ(write(fd, &n, 4), 4);
    if (n > 0) {  // the peer may have gone after an empty frame: no write of nothing
        ASSERT_EQ(write(fd, b.data(), n), static_cast<ssize_t>(n));
    }
}

bool get_frame(int fd, Bytes &b) {
    uint32_t n = 0;
    if (recv(fd, &n, 4, MSG_WAITALL) != 4 || n > (1u << 20)) return false;
    b.resize(n);
    return n == 0 || recv(fd, b.data(), n, MSG_WAITALL) == static_cast<ssize_t>(n);
}

Bytes take(sec_buffer_desc &b) {
    Bytes out(static_cast<const uint8_t *>(b.value), static_cast<const uint8_t *>(b.value) + (b.value ? b.length : 0));
    qv_uint32_t minor;
    mpm_release_buffer(&minor, &b);
    return out;
}

sec_buffer_desc view(const Bytes &b) {
    return {static_cast<qv_int32_t>(b.size()), b.empty() ? nullptr : const_cast<uint8_t *>(b.data())};
}

std::string client_name(void *ctx) {
    char name[512];
    qv_int32_t len = sizeof name;
    qv_uint32_t minor;
    return mpm_get_client_name(&minor, ctx, &len, name) == 0 ? std::string(name) : "?";
}

// A service process of host h logged in as name: per client token it
// answers status, minor, reply and the client's network name; after a
// success it unseals one message and seals "re:" and the message back.
struct Service {
    pid_t pid = -1;
    int fd = -1;
};

Service start_service(const Host &h, const std::string &name, uid_t as_user = 0) {
    int sv[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    Service s{fork(), sv[0]};
    if (s.pid != 0) {
        close(sv[1]);
        return s;
    }
    close(sv[0]);
    setenv("QVSEC_HOST_CONF", h.file("host.conf").c_str(), 1);
    qv_uint32_t minor = 0;
    void *svc = nullptr;
    mpm_init();
    if (mpm_start(&minor, 0, &svc) != 0 || mpm_login_as_service(&minor, const_cast<char *>(name.c_str()), svc) != 0 ||
        seteuid(as_user) != 0)
        _exit(3);
    Bytes token;
    while (get_frame(sv[1], token) && !token.empty()) {
        void *ctx = nullptr;
        sec_buffer_desc in = view(token), reply{0, nullptr};
        qv_uint32_t rflags = 0, st = mpm_receive_sec_context(&minor, svc, &in, &ctx, &reply, &rflags);
        Bytes r = take(reply);
        std::string who = st == 0 ? client_name(ctx) : "";
        put_frame(sv[1], Bytes{static_cast<uint8_t>(st), static_cast<uint8_t>(minor)});
        put_frame(sv[1], r);
        put_frame(sv[1], Bytes(who.begin(), who.end()));
        if (st != 0) continue;
        Bytes sealed;
        if (!get_frame(sv[1], sealed)) break;
        sec_buffer_desc sin = view(sealed), plain{0, nullptr}, out{0, nullptr};
        Bytes answer{'r', 'e', ':'};
        if (mpm_process_data(&minor, ctx, &sin, &plain) == 0) {
            Bytes p = take(plain);
            answer.insert(answer.end(), p.begin(), p.end());
        }
        sec_buffer_desc ain = view(answer);
        mpm_prepare_data(&minor, ctx, kProtectConfidentiality, &ain, &out);
        put_frame(sv[1], take(out));
        mpm_end_context(&minor, ctx);
    }
    _exit(0);
}

// A client service handle with host h's configuration.
void *client_handle(const Host &h) {
    setenv("QVSEC_HOST_CONF", h.file("host.conf").c_str(), 1);
    qv_uint32_t minor;
    void *svc = nullptr;
    EXPECT_EQ(mpm_start(&minor, 0, &svc), 0u);
    unsetenv("QVSEC_HOST_CONF");
    return svc;
}

void write_trusted(const Host &h, const std::string &text) {
    std::string why;
    ASSERT_TRUE(qvhosttest::write_trusted(h, text, why)) << why;
}

struct Outcome {
    qv_uint32_t service = 99, service_minor = 0, client = 99, client_minor = 0;
    std::string client_seen, service_seen, echo;
};

// One exchange: the client's token (changed by tamper) to service s, the
// reply (changed by tamper_reply) back, then one sealed round trip.
Outcome exchange(void *csvc, const Service &s, const char *target, const char *host,
                 const std::function<void(Bytes &)> &tamper = {}, const std::function<void(Bytes &)> &tamper_reply = {},
                 uid_t as_user = 0) {
    Outcome o;
    qv_uint32_t minor = 0;
    void *ctx = nullptr;
    sec_buffer_desc out{0, nullptr}, none{0, nullptr};
    EXPECT_EQ(seteuid(as_user), 0);
    o.client = mpm_start_sec_context(&minor, csvc, const_cast<char *>(target), const_cast<char *>(host),
                                     kRequireMutual, &ctx, &out);
    EXPECT_EQ(seteuid(0), 0);
    if (o.client != kContinue) return o;
    Bytes token = take(out);
    if (tamper) tamper(token);
    put_frame(s.fd, token);
    Bytes status, reply, who;
    if (!get_frame(s.fd, status) || !get_frame(s.fd, reply) || !get_frame(s.fd, who)) return o;
    o.service = status.at(0);
    o.service_minor = status.at(1);
    o.client_seen.assign(who.begin(), who.end());
    if (tamper_reply) tamper_reply(reply);
    if (o.service == 0) {
        sec_buffer_desc rin = view(reply);
        o.client = mpm_complete_sec_context(&o.client_minor, &rin, ctx, &none);
        Bytes hello{'h', 'i'};
        sec_buffer_desc hin = view(hello), sealed{0, nullptr};
        if (o.client == 0) {
            o.service_seen = client_name(ctx);
            mpm_prepare_data(&minor, ctx, kProtectConfidentiality, &hin, &sealed);
        }
        put_frame(s.fd, take(sealed));
        Bytes back;
        if (get_frame(s.fd, back) && o.client == 0) {
            sec_buffer_desc bin = view(back), plain{0, nullptr};
            if (mpm_process_data(&minor, ctx, &bin, &plain) == 0) {
                Bytes p = take(plain);
                o.echo.assign(p.begin(), p.end());
            }
        }
    }
    mpm_end_context(&minor, ctx);
    return o;
}

class HostModule : public ::testing::Test {
protected:
    void SetUp() override {
        mpm_init();
        ASSERT_EQ(chmod(tmp_.path().c_str(), 0755), 0);  // for a client of another user
        std::string why;
        const std::string conf = "skew 2\nlifetime 60\nsame-users hosta hostb\n";
        ASSERT_TRUE(set_up_host(a_, tmp_.path(), "hosta", 0xa1a1a1a1a1a1a1a1ULL, conf, why)) << why;
        ASSERT_TRUE(set_up_host(b_, tmp_.path(), "hostb", 0xb2b2b2b2b2b2b2b2ULL, conf, why)) << why;
        ASSERT_TRUE(set_up_host(c_, tmp_.path(), "hostc", 0xc3c3c3c3c3c3c3c3ULL, conf, why)) << why;  // nobody trusts it
        write_trusted(a_, trusted_line(b_, *b_.key));
        write_trusted(b_, trusted_line(a_, *a_.key));
        write_trusted(c_, trusted_line(b_, *b_.key));
        for (Host *h : {&a_, &b_, &c_}) ASSERT_TRUE(start_daemon(*h, QV_HOSTD, why)) << why;
    }
    void TearDown() override {
        for (Service *s : {&svc_, &other_, &on_a_, &nobody_})
            if (s->pid > 0) {
                put_frame(s->fd, {});
                close(s->fd);
                EXPECT_EQ(qvtest::wait_bounded(s->pid), 0);
            }
        for (Host *h : {&a_, &b_, &c_}) stop_daemon(*h);
    }
    qvtest::TempDir tmp_;
    Host a_, b_, c_;
    Service svc_, other_, on_a_, nobody_;
};

// Each row runs one exchange; every refusal is followed by a genuine client
// of the same service process, which must still be served.
TEST_F(HostModule, ExchangesAcrossHosts) {
    svc_ = start_service(b_, "svc");
    other_ = start_service(b_, "other");
    on_a_ = start_service(a_, "svc");  // the same name on the other host
    nobody_ = start_service(b_, "svc", 65534);  // a user that may not serve "svc"
    void *from_a = client_handle(a_), *from_b = client_handle(b_), *from_c = client_handle(c_);
    qvhost::TrustedHosts b_trusts;
    std::string why;
    ASSERT_TRUE(qvhost::parse_trusted_hosts(trusted_line(a_, *a_.key), b_trusts, why));
    // A client assertion of host A changed by change and signed with A's
    // key: what A's root could make.
    auto forged = [&](std::function<void(qvhost::Assertion &)> change) {
        return [&, change](Bytes &token) {
            ClientToken t;
            qv_uint32_t minor;
            ASSERT_EQ(read_client_token(token, t, &minor), kOk);
            qvhost::Assertion a;
            ASSERT_EQ(check_peer_assertion(t.assertion, b_trusts, now(), 0, a, &minor), kOk);
            change(a);
            token = write_client_token(t.flags, qvhost::sign_assertion(a, *a_.key));
        };
    };
    auto to_svc = [&](std::function<void(Bytes &)> tamper = {}, std::function<void(Bytes &)> tamper_reply = {}) {
        return exchange(from_a, svc_, "svc", "hostb", tamper, tamper_reply);
    };
    Bytes replayed, other_reply;
    struct Row {
        const char *what;
        std::function<Outcome()> run;
        qv_uint32_t service, minor, client;
        const char *seen = nullptr;  // the client's name as the service saw it
    };
    const Row rows[] = {
        {"A to B", [&] { return to_svc([&](Bytes &t) { replayed = t; }, [&](Bytes &r) { other_reply = r; }); }, 0, 0,
         0, "root@hosta"},
        {"B to A", [&] { return exchange(from_b, on_a_, "svc@hosta", nullptr); }, 0, 0, 0, "root@hostb"},
        // Who the client is comes from the kernel, through its host's daemon.
        {"another user of A", [&] { return exchange(from_a, svc_, "svc", "hostb", {}, {}, 65534); }, 0, 0, 0,
         "nobody@hosta"},
        {"client of an untrusted host", [&] { return exchange(from_c, svc_, "svc", "hostb"); }, kUntrusted,
         kCheckUntrusted, 0},
        {"revoked key",
         [&] {
             write_trusted(b_, trusted_line(c_, *c_.key));
             Outcome o = to_svc();
             write_trusted(b_, trusted_line(a_, *a_.key));
             return o;
         },
         kUntrusted, kCheckUntrusted, 0},
        {"expired assertion", [&] { return to_svc(forged([](auto &a) { a.not_before = now() - 100, a.expiry = now() - 10; })); },
         kNotValidNow, kCheckExpired, 0},
        {"not yet valid", [&] { return to_svc(forged([](auto &a) { a.not_before = now() + 60; })); }, kNotValidNow,
         kCheckNotYetValid, 0},
        {"replayed first token", [&] { return to_svc([&](Bytes &t) { t = replayed; }); }, kReplayedToken, 0, 0},
        {"assertion for another host", [&] { return to_svc(forged([](auto &a) { a.peer_host = "hostc"; })); },
         kMisaddressed, kOtherHost, 0},
        {"service's assertion as a client's", [&] { return to_svc(forged([](auto &a) { a.flags = qvhost::kFromService; })); },
         kMisaddressed, kWrongKind, 0},
        {"node ID of another machine", [&] { return to_svc(forged([](auto &a) { a.node_id ^= 1; })); }, kMisaddressed,
         kNodeId, 0},
        {"client claiming another user by changed bytes",
         [&] {
             return to_svc([](Bytes &t) {
                 auto at = std::search(t.begin(), t.end(), std::begin("root"), std::end("root") - 1);
                 ASSERT_NE(at, t.end());
                 *at = 'R';
             });
         },
         kUntrusted, kCheckBadSignature, 0},
        {"relay sends a client's token to another service", [&] { return exchange(from_a, other_, "svc", "hostb"); },
         kMisaddressed, kOtherService, 0},
        {"relay gives a client the service's answer to another",
         [&] { return to_svc({}, [&](Bytes &r) { r = other_reply; }); }, 0, 0, kMisaddressed},
        {"service's answer asserted by another trusted host than the one asked for",
         [&] {
             write_trusted(a_, trusted_line(b_, *b_.key) + trusted_line(c_, *c_.key));
             Outcome o = to_svc({}, [&](Bytes &r) {
                 ServiceToken t;
                 qv_uint32_t minor;
                 ASSERT_EQ(read_service_token(r, t, &minor), kOk);
                 qvhost::TrustedHosts b_only;
                 std::string w;
                 ASSERT_TRUE(qvhost::parse_trusted_hosts(trusted_line(b_, *b_.key), b_only, w)) << w;
                 qvhost::Assertion a;
                 ASSERT_EQ(check_peer_assertion(t.assertion, b_only, now(), 0, a, &minor), kOk);
                 a.host = c_.name, a.node_id = c_.node;
                 Bytes confirm(t.confirm.begin(), t.confirm.end());
                 r = write_service_token_body(t.flags, qvhost::sign_assertion(a, *c_.key));
                 r.insert(r.end(), confirm.begin(), confirm.end());
             });
             write_trusted(a_, trusted_line(b_, *b_.key));
             EXPECT_EQ(o.client_minor, kUnexpectedHost);
             return o;
         },
         0, 0, kMisaddressed},
        {"service's answer with a changed confirmation tag", [&] { return to_svc({}, [](Bytes &r) { r.back() ^= 1; }); },
         0, 0, kKeyExchange},
        {"service run by a user that may not serve the target", [&] { return exchange(from_a, nobody_, "svc", "hostb"); },
         0, 0, kServiceNotAllowed},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.what);
        Outcome o = r.run();
        EXPECT_EQ(o.service, r.service);
        EXPECT_EQ(o.service_minor, r.minor);
        if (r.service == 0) {
            EXPECT_EQ(o.client, r.client);
        }
        if (r.seen != nullptr) {  // mutual: each side names the other, and sealed data went both ways
            EXPECT_EQ(o.client_seen, r.seen);
            EXPECT_EQ(o.service_seen, std::string("root@") + (r.what[0] == 'B' ? "hosta" : "hostb"));
            EXPECT_EQ(o.echo, "re:hi");
        }
        EXPECT_EQ(to_svc().echo, "re:hi");
    }
    qv_uint32_t minor;
    for (void *h : {from_a, from_b, from_c}) EXPECT_EQ(mpm_end(&minor, 0, h), kOk);
}

}  // namespace
