// qvsec-hostd: the host daemon. It signs, with the host key, assertions about
// the local processes that ask, having identified each by the kernel's
// credentials of its UNIX-domain socket.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <mutex>
#include <string>

#include "host_trust.h"

namespace qvhostd {

struct Options {
    std::string socket_path = "/run/qvsec/hostd.sock";
    std::string key_path = "/etc/qvsec/host.key";
    std::string trusted_path = "/etc/qvsec/trusted-hosts";
    std::string host_name;            // default: gethostname
    std::uint32_t max_lifetime = 300;  // seconds
    int timeout_ms = 5000;            // per connection, for the whole exchange
    unsigned max_connections = 64;    // served at once
    unsigned max_per_user = 8;        // of those, at once for one uid
};

// What every connection reads: fixed at start, except the trusted-hosts list,
// which is read again when its file changes.
class Daemon {
public:
    Daemon(const Options &o, std::uint64_t node_id) : options_(o), node_id_(node_id) {}
    bool load(std::string &why);
    // Serves one accepted, non-blocking connection and closes it.
    void serve(int fd);
    const Options &options() const { return options_; }

private:
    bool target_known(const std::string &host);

    Options options_;
    std::uint64_t node_id_;
    qvhost::HostKey key_;
    std::mutex trusted_lock_;
    qvhost::TrustedHosts trusted_;
    struct timespec trusted_mtime_ {};
    ino_t trusted_inode_ = 0;
};

// One line on standard error, whole (one write), prefixed with the program name.
void log_line(const std::string &text);

}  // namespace qvhostd
