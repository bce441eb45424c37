// qvsec-hostd and `qvsec host` run as programs: what the daemon serves and
// refuses, that stalled callers do not block others,
// and the tools' refusals of unsafe files.
#include <fcntl.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>

#include "child_process.h"
#include "daemon_protocol.h"
#include "host_files.h"
#include "host_trust.h"
#include "test_support.h"

namespace {

using namespace std::chrono_literals;

std::string write_key(const qvtest::TempDir &dir, const std::string &name, qvhost::HostKey &key) {
    qvhost::generate_host_key(key);
    std::string path = dir.path() + "/" + name, why;
    EXPECT_TRUE(qvhost::write_file_atomically(path, qvhost::encode_host_key(key), 0600, why)) << why;
    return path;
}

// A raw connection to the daemon, for bytes the client library never sends.
int connect_raw(const std::string &path) {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, path.data(), path.size());
    if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        close(fd);
        return -1;
    }
    timeval tv{5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    return fd;
}

// Sends bytes and reads until the daemon closes.
std::string exchange_raw(const std::string &path, const std::vector<std::uint8_t> &bytes) {
    int fd = connect_raw(path);
    EXPECT_EQ(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    std::string got;
    char buf[512];
    for (ssize_t n; (n = recv(fd, buf, sizeof buf, 0)) > 0;) got.append(buf, static_cast<std::size_t>(n));
    close(fd);
    return got;
}

class HostDaemon : public ::testing::Test {
protected:
    void SetUp() override {
        key_path_ = write_key(dir_, "host.key", key_);
        qvhost::HostKey other;
        write_key(dir_, "other.key", other);
        trusted_path_ = dir_.write("trusted", "node-a 00000000000000a1 " + qvhost::to_hex(key_.public_key) +
                                                  "\nnode-b 00000000000000b2 " + qvhost::to_hex(other.public_key) + "\n");
        std::string why;
        ASSERT_TRUE(qvhost::read_trusted_hosts(trusted_path_, trusted_, why)) << why;
        node_file_ = dir_.write("node_id", "00000000000000a1\n");
        socket_ = dir_.path() + "/hostd.sock";
        log_ = dir_.path() + "/hostd.log";
        pid_ = fork();
        if (pid_ == 0) {
            int fd = open(log_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            dup2(fd, STDERR_FILENO);
            setenv("QV_NODE_ID_FILE", node_file_.c_str(), 1);
            execl(QV_HOSTD_PATH, "qvsec-hostd", "--socket", socket_.c_str(), "--key", key_path_.c_str(), "--trusted",
                  trusted_path_.c_str(), "--host-name", "node-a", "--max-lifetime", "60", "--timeout-ms", "1500",
                  nullptr);
            _exit(127);
        }
        // Other users' callers must reach the socket inside the test's directory.
        ASSERT_EQ(chmod(dir_.path().c_str(), 0755), 0);
        ASSERT_TRUE(qvtest::wait_until([&] { return qvtest::read_file(log_).find("serving") != std::string::npos; }));
    }
    void TearDown() override {
        kill(pid_, SIGTERM);
        EXPECT_EQ(qvtest::wait_bounded(pid_, 10s), 0);
        EXPECT_NE(access(socket_.c_str(), F_OK), 0) << "socket left behind";
    }
    int request(const std::string &host, std::uint32_t lifetime, qvhost::Assertion &out, std::string &why) {
        qvhost::AssertionRequest req;
        req.peer_service = "svc";
        req.peer_host = host;
        req.lifetime = lifetime;
        req.kx_public.fill(0x42);
        std::vector<std::uint8_t> bytes;
        int rc = qvhost::request_assertion(socket_, req, 5000, bytes, why);
        if (rc == 0 &&
            qvhost::check_assertion(bytes, trusted_, std::time(nullptr), 0, out, nullptr) != qvhost::AssertionCheck::kOk)
            return -1;
        return rc;
    }
    std::size_t refusals_logged() {
        std::string log = qvtest::read_file(log_);
        std::size_t n = 0;
        for (std::size_t p = 0; (p = log.find("refused", p)) != std::string::npos; ++p) ++n;
        return n;
    }

    qvtest::TempDir dir_;
    qvhost::HostKey key_;
    qvhost::TrustedHosts trusted_;
    std::string key_path_, trusted_path_, node_file_, socket_, log_;
    pid_t pid_ = -1;
};

TEST_F(HostDaemon, ServesAndRefuses) {
    struct Row {
        std::string host;
        std::uint32_t lifetime, want_lifetime;
        int want_rc;
        std::string why;
    } rows[] = {
        {"node-b", 10, 10, 0, ""},
        {"node-b", 1000, 60, 0, ""},
        {"node-b", 0, 60, 0, ""},
        {"node-x", 10, 0, EACCES, "the host daemon refused: target host node-x is not trusted"},
    };
    for (const Row &r : rows) {
        qvhost::Assertion a;
        std::string why;
        ASSERT_EQ(request(r.host, r.lifetime, a, why), r.want_rc) << why;
        EXPECT_EQ(why, r.why);
        if (r.want_rc != 0) continue;
        EXPECT_EQ(a.expiry - a.not_before, r.want_lifetime);
        EXPECT_EQ(a.uid, geteuid());
        EXPECT_EQ(a.user, "root");
        EXPECT_EQ(a.host + " " + a.peer_service + " " + a.peer_host, "node-a svc " + r.host);
        EXPECT_EQ(a.node_id, 0xa1u);
        EXPECT_EQ(a.kx_public[0], 0x42);
    }
    qvhost::AssertionRequest req;
    req.peer_host = "node-b";
    // A caller cannot state its uid: bytes after the request are refused.
    std::vector<std::uint8_t> trailing = qvhost::encode_request(req);
    trailing.insert(trailing.end(), 4, 0);
    std::string got = exchange_raw(socket_, trailing);
    ASSERT_GE(got.size(), qvhost::kResponseHeaderBytes);
    EXPECT_EQ(got[5], qvhost::kResponseRefusal);
    EXPECT_NE(got.find("malformed request"), std::string::npos) << got;
    EXPECT_EQ(refusals_logged(), 2u);
}

TEST_F(HostDaemon, StalledCallersDoNotBlockOthers) {
    // Half a request each, then silence: eight stalled connections of this uid.
    std::vector<std::uint8_t> half = qvhost::encode_request({});
    half.resize(half.size() / 2);
    std::vector<int> stalled;
    for (int i = 0; i < 8; ++i) {
        stalled.push_back(connect_raw(socket_));
        ASSERT_GE(stalled.back(), 0);
        ASSERT_EQ(send(stalled.back(), half.data(), half.size(), MSG_NOSIGNAL), static_cast<ssize_t>(half.size()));
    }
    auto start = std::chrono::steady_clock::now();
    // A ninth of the same uid (accepted after them: the backlog is first in,
    // first out) is turned away at once rather than queued.
    qvhost::Assertion a;
    std::string why;
    int rc = request("node-b", 10, a, why);
    EXPECT_TRUE(rc == EPROTO || rc == EPIPE || rc == ECONNRESET) << rc << " " << why;
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1200ms) << why;
    // Another user is served while they stall.
    if (geteuid() == 0) {
        int rc = qvtest::run_in_child([&] {
            qvhost::Assertion b;
            std::string w;
            return setuid(65534) == 0 && request("node-b", 10, b, w) == 0 ? 0 : 1;
        });
        EXPECT_EQ(rc, 0);
        EXPECT_LT(std::chrono::steady_clock::now() - start, 1200ms);
    }
    // At their deadline the stalled connections are closed, and this uid is served again.
    for (int fd : stalled) {
        char c;
        EXPECT_EQ(recv(fd, &c, 1, 0), 0) << std::strerror(errno);
        close(fd);
    }
    EXPECT_TRUE(qvtest::wait_until([&] { return request("node-b", 10, a, why) == 0; }, 3s)) << why;
    std::string log = qvtest::read_file(log_);
    EXPECT_NE(log.find("too many connections of this user at once"), std::string::npos) << log;
    EXPECT_NE(log.find("no whole request before the deadline"), std::string::npos) << log;
}

TEST(HostTools, RefuseUnsafeFilesAndEditTrust) {
    qvtest::TempDir dir;
    qvhost::HostKey k;
    std::string key = write_key(dir, "k", k), hex = qvhost::to_hex(k.public_key);
    std::string trusted = dir.path() + "/t", loose_key = dir.write("loose", qvtest::read_file(key));
    ASSERT_EQ(chmod(loose_key.c_str(), 0640), 0);
    struct Row {
        const char *program;
        std::vector<std::string> args;
        mode_t trusted_mode;  // applied before the run when the file exists
        int want_status;
        std::string want;  // in stdout on success, in the one line of stderr on failure
    } rows[] = {
        {QVSEC_PATH, {"host", "keygen", "--out", key}, 0, 1, "exists; remove it or add --force"},
        {QV_HOSTD_PATH, {"--key", loose_key, "--trusted", trusted, "--host-name", "n"}, 0, 1, "unsafe permissions 0640"},
        {QVSEC_PATH, {"host", "show", "--key", key}, 0, 0, hex},
        {QVSEC_PATH, {"host", "trust", "node-a", "00000000000000a1", hex, "--file", trusted}, 0, 0, "added node-a"},
        {QVSEC_PATH, {"host", "trust", "node-b", "00000000000000b2", hex, "--file", trusted}, 0644, 1,
         "already trusted for host node-a"},
        {QVSEC_PATH, {"host", "trust", "node-a", "00000000000000a1", hex, "--until", "1893456000", "--file", trusted},
         0666, 1, "has unsafe permissions 0666"},
        {QVSEC_PATH, {"host", "trust", "node-a", "00000000000000a1", hex, "--until", "1893456000", "--file", trusted},
         0644, 0, "updated node-a 00000000000000a1 " + hex + " until=2030-01-01T00:00:00Z"},
        {QVSEC_PATH, {"host", "revoke", "node-a", "--all", "--file", trusted}, 0644, 0, "removed 1 key of node-a"},
        {QVSEC_PATH, {"host", "revoke", "node-a", hex, "--file", trusted}, 0644, 1, "no matching key of host node-a"},
    };
    for (const Row &r : rows) {
        if (r.trusted_mode != 0) {
            ASSERT_EQ(chmod(trusted.c_str(), r.trusted_mode), 0);
        }
        std::string before = access(trusted.c_str(), F_OK) == 0 ? qvtest::read_file(trusted) : "";
        qvtest::ToolRun run = qvtest::run_tool(r.program, r.args, {{"QV_NODE_ID_FILE", dir.write("n", "00000000000000a1")}});
        EXPECT_EQ(run.status, r.want_status) << r.args[1] << ": " << run.err;
        const std::string &text = r.want_status == 0 ? run.out : run.err;
        EXPECT_NE(text.find(r.want), std::string::npos) << text;
        if (r.want_status != 0) {
            EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
            EXPECT_EQ(before.empty() || qvtest::read_file(trusted) == before, true) << "file changed";
        }
    }
    struct stat st {};
    ASSERT_EQ(stat(trusted.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);
}

}  // namespace
