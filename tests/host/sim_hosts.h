// Simulated hosts of the "host" mechanism on one machine, for the two-host
// test and the benchmark: each host a directory with its own host key, node
// ID file, trusted-hosts file and module configuration, and its own running
// qvsec-hostd.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "host_trust.h"

namespace qvhosttest {

struct Host {
    std::string name, dir;
    uint64_t node = 0;
    std::unique_ptr<qvhost::HostKey> key = std::make_unique<qvhost::HostKey>();
    pid_t daemon = -1;
    std::string file(const char *f) const { return dir + "/" + f; }
};

// Makes root/name with a fresh key, the node ID file and host.conf (the
// defaults of the test plus extra lines); false with a reason.
bool set_up_host(Host &h, const std::string &root, const std::string &name, uint64_t node, const std::string &extra,
                 std::string &why);
// A trusted-hosts line for h with key.
std::string trusted_line(const Host &h, const qvhost::HostKey &key, std::optional<std::int64_t> until = {});
bool write_trusted(const Host &h, const std::string &text, std::string &why);
// Starts qvsec-hostd for h (the program hostd) and waits for its socket.
bool start_daemon(Host &h, const char *hostd, std::string &why);
// Stops it and removes its socket.
void stop_daemon(Host &h);

}  // namespace qvhosttest
