// Simulated hosts: files and daemons (sim_hosts.h).
#include "sim_hosts.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <thread>

#include "host_files.h"

namespace qvhosttest {

bool set_up_host(Host &h, const std::string &root, const std::string &name, uint64_t node, const std::string &extra,
                 std::string &why) {
    h.name = name;
    h.node = node;
    h.dir = root + "/" + name;
    if (mkdir(h.dir.c_str(), 0755) != 0) return (why = "mkdir " + h.dir), false;
    qvhost::generate_host_key(*h.key);
    char id[18];
    std::snprintf(id, sizeof id, "%016llx\n", static_cast<unsigned long long>(node));
    const std::string conf = "socket " + h.file("hostd.sock") + "\ntrusted " + h.file("trusted") + "\nservices " +
                             h.file("services") + "\nhost " + name + "\n" + extra;
    return qvhost::write_file_atomically(h.file("key"), qvhost::encode_host_key(*h.key), 0600, why) &&
           qvhost::write_file_atomically(h.file("node_id"), id, 0644, why) &&
           qvhost::write_file_atomically(h.file("host.conf"), conf, 0644, why);
}

std::string trusted_line(const Host &h, const qvhost::HostKey &key, std::optional<std::int64_t> until) {
    return qvhost::format_trusted_line(qvhost::TrustedKey{h.name, h.node, key.public_key, until}) + "\n";
}

bool write_trusted(const Host &h, const std::string &text, std::string &why) {
    return qvhost::write_file_atomically(h.file("trusted"), text, 0644, why);
}

bool start_daemon(Host &h, const char *hostd, std::string &why) {
    h.daemon = fork();
    if (h.daemon < 0) return (why = "fork"), false;
    if (h.daemon == 0) {
        setenv("QV_NODE_ID_FILE", h.file("node_id").c_str(), 1);
        execl(hostd, "qvsec-hostd", "--socket", h.file("hostd.sock").c_str(), "--key", h.file("key").c_str(),
              "--trusted", h.file("trusted").c_str(), "--host-name", h.name.c_str(), "--max-lifetime", "60",
              static_cast<char *>(nullptr));
        _exit(127);
    }
    // The socket file exists from bind, a moment before listen: wait until
    // a connection is taken.
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    h.file("hostd.sock").copy(addr.sun_path, sizeof addr.sun_path - 1);
    for (int i = 0; i < 10000; ++i) {
        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        bool up = fd >= 0 && connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0;
        if (fd >= 0) close(fd);
        if (up) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    why = "no socket from qvsec-hostd for " + h.name;
    return false;
}

void stop_daemon(Host &h) {
    if (h.daemon <= 0) return;
    kill(h.daemon, SIGTERM);
    waitpid(h.daemon, nullptr, 0);
    h.daemon = -1;
    unlink(h.file("hostd.sock").c_str());
}

}  // namespace qvhosttest
