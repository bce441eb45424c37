// One connection of the host daemon: identify the caller, read its request,
// answer with a signed assertion or a refusal.
#include <pwd.h>
#include <sodium.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "daemon_protocol.h"
#include "host_files.h"
#include "hostd.h"
#include "local_mech.h"

namespace qvhostd {
namespace {

// The user's name on this host, or "#uid" when it has no entry.
std::string user_name(std::uint32_t uid) {
    passwd pw{}, *found = nullptr;
    std::string buf(4096, '\0');
    while (getpwuid_r(uid, &pw, buf.data(), buf.size(), &found) == ERANGE && buf.size() < (1u << 20))
        buf.resize(buf.size() * 2);
    if (found == nullptr || found->pw_name == nullptr || found->pw_name[0] == '\0')
        return "#" + std::to_string(uid);
    return found->pw_name;
}

}  // namespace

void log_line(const std::string &text) {
    std::string line = "qvsec-hostd: " + text + "\n";
    ssize_t ignored = ::write(STDERR_FILENO, line.data(), line.size());
    (void)ignored;
}

bool Daemon::load(std::string &why) {
    if (!qvhost::read_host_key(options_.key_path, key_, why)) return false;
    struct stat st {};
    if (::stat(options_.trusted_path.c_str(), &st) == 0) {
        trusted_inode_ = st.st_ino;
        trusted_mtime_ = st.st_mtim;
    }
    return qvhost::read_trusted_hosts(options_.trusted_path, trusted_, why);
}

// Reads the trusted-hosts file again when it changed since the last read; a
// file that became unreadable or bad leaves the last good list in force.
bool Daemon::target_known(const std::string &host) {
    std::lock_guard<std::mutex> guard(trusted_lock_);
    struct stat st {};
    if (::stat(options_.trusted_path.c_str(), &st) == 0 &&
        (st.st_ino != trusted_inode_ || st.st_mtim.tv_sec != trusted_mtime_.tv_sec ||
         st.st_mtim.tv_nsec != trusted_mtime_.tv_nsec)) {
        qvhost::TrustedHosts fresh;
        std::string why;
        if (qvhost::read_trusted_hosts(options_.trusted_path, fresh, why))
            trusted_ = std::move(fresh);
        else
            log_line("keeping the previous trusted hosts: " + why);
        trusted_inode_ = st.st_ino;
        trusted_mtime_ = st.st_mtim;
    }
    return trusted_.knows_host(host);
}

void Daemon::serve(int fd) {
    SecOwnedFd conn(fd);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(options_.timeout_ms);
    qvlocal::Credentials creds;
    qv_uint32_t minor = 0;
    if (qvlocal::peer_credentials(conn.get(), creds, &minor) != qvlocal::kOk) {
        log_line(std::string("refused a caller it cannot identify: ") + std::strerror(static_cast<int>(minor)));
        return;
    }
    std::string who = "uid " + std::to_string(creds.uid) + " pid " + std::to_string(creds.pid);
    auto refuse = [&](const std::string &text) {
        log_line("refused " + who + ": " + text);
        std::string t = text.substr(0, qvhost::kMaxRefusalText);
        qvhost::write_all(conn.get(),
                          qvhost::encode_response(qvhost::kResponseRefusal,
                                                  {reinterpret_cast<const std::uint8_t *>(t.data()), t.size()}),
                          deadline);
    };

    std::vector<std::uint8_t> buf;
    qvhost::AssertionRequest req;
    std::size_t used = 0;
    for (;;) {
        if (int rc = qvhost::read_some(conn.get(), buf, qvhost::kMaxRequestBytes, deadline); rc != 0) {
            log_line("refused " + who + ": " +
                     (rc == ETIMEDOUT ? std::string("no whole request before the deadline")
                                      : std::string("connection ended before a whole request: ") + std::strerror(rc)));
            return;
        }
        qvhost::RequestParse p = qvhost::parse_request(buf, req, &used);
        if (p == qvhost::RequestParse::kMalformed) return refuse("malformed request");
        if (p == qvhost::RequestParse::kComplete) break;
    }
    // One request per connection: anything after it is a malformed request.
    if (used != buf.size()) return refuse("malformed request (bytes after the request)");
    if (!qvhost::valid_host_name(req.peer_host)) return refuse("malformed request (bad target host name)");
    if (!target_known(req.peer_host)) return refuse("target host " + req.peer_host + " is not trusted");

    qvhost::Assertion a;
    a.flags = req.flags;
    a.not_before = static_cast<std::int64_t>(std::time(nullptr));
    // A lifetime of 0 asks for the daemon's maximum.
    std::uint32_t lifetime =
        req.lifetime == 0 || req.lifetime > options_.max_lifetime ? options_.max_lifetime : req.lifetime;
    a.expiry = a.not_before + lifetime;
    randombytes_buf(a.nonce.data(), a.nonce.size());
    a.kx_public = req.kx_public;
    a.binding = req.binding;
    a.uid = creds.uid;
    a.user = user_name(creds.uid);
    a.host = options_.host_name;
    a.node_id = node_id_;
    a.peer_service = req.peer_service;
    a.peer_host = req.peer_host;
    std::vector<std::uint8_t> signed_bytes = qvhost::sign_assertion(a, key_);
    if (int rc = qvhost::write_all(conn.get(), qvhost::encode_response(qvhost::kResponseAssertion, signed_bytes),
                                   deadline);
        rc != 0)
        log_line("could not answer " + who + ": " + std::strerror(rc));
}

}  // namespace qvhostd
