// qvsec-hostd: options, the listening socket, signals and the bounded set of
// connection threads. serve.cpp handles one connection.
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <thread>

#include "hostd.h"
#include "local_mech.h"
#include "qv_cu.h"

namespace {

const char kUsage[] =
    "usage: qvsec-hostd [--socket PATH] [--key FILE] [--trusted FILE] [--host-name NAME]\n"
    "                   [--max-lifetime SECONDS] [--timeout-ms MS] [--max-connections N]\n"
    "Runs in the foreground. Defaults: --socket /run/qvsec/hostd.sock, --key /etc/qvsec/host.key,\n"
    "--trusted /etc/qvsec/trusted-hosts, --host-name the system's host name, --max-lifetime 300,\n"
    "--timeout-ms 5000, --max-connections 64 (at most 8 of them from one user).\n";

bool parse_number(const char *text, unsigned long max, unsigned long &out) {
    char *end = nullptr;
    errno = 0;
    out = std::strtoul(text, &end, 10);
    return errno == 0 && end != text && *end == '\0' && text[0] != '-' && out >= 1 && out <= max;
}

// Returns 0 when parsed, else the exit status (0 after --help).
int parse_options(int argc, char **argv, qvhostd::Options &o, bool &done) {
    done = false;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            std::fputs(kUsage, stdout);
            done = true;
            return 0;
        }
        if (i + 1 >= argc) {
            std::fprintf(stderr, "qvsec-hostd: unknown option or missing value: %s\n%s", a.c_str(), kUsage);
            return 2;
        }
        const char *v = argv[++i];
        unsigned long n = 0;
        if (a == "--socket") o.socket_path = v;
        else if (a == "--key") o.key_path = v;
        else if (a == "--trusted") o.trusted_path = v;
        else if (a == "--host-name") o.host_name = v;
        else if (a == "--max-lifetime" && parse_number(v, 86400, n)) o.max_lifetime = static_cast<std::uint32_t>(n);
        else if (a == "--timeout-ms" && parse_number(v, 600000, n)) o.timeout_ms = static_cast<int>(n);
        else if (a == "--max-connections" && parse_number(v, 4096, n)) o.max_connections = static_cast<unsigned>(n);
        else {
            std::fprintf(stderr, "qvsec-hostd: bad option %s %s\n%s", a.c_str(), v, kUsage);
            return 2;
        }
    }
    if (o.max_per_user > o.max_connections) o.max_per_user = o.max_connections;
    return 0;
}

// A stale socket file (nobody accepts on it) is replaced; a live one means
// another daemon runs there, and this one does not start.
int listen_on(const std::string &path, std::string &why) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof addr.sun_path) {
        why = "socket path is empty or too long";
        return -1;
    }
    std::memcpy(addr.sun_path, path.data(), path.size());
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        why = std::string("socket: ") + std::strerror(errno);
        return -1;
    }
    struct stat st {};
    if (::lstat(path.c_str(), &st) == 0) {
        int probe = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        bool live = S_ISSOCK(st.st_mode) && probe >= 0 &&
                    ::connect(probe, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0;
        if (probe >= 0) ::close(probe);
        if (live || !S_ISSOCK(st.st_mode)) {
            why = path + (live ? " is in use by a running daemon" : " exists and is not a socket");
            ::close(fd);
            return -1;
        }
        ::unlink(path.c_str());
    }
    if (::bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 ||
        // Every local user may ask: the daemon tells them apart by the kernel's word.
        ::chmod(path.c_str(), 0666) != 0 || ::listen(fd, 128) != 0) {
        why = path + ": " + std::strerror(errno);
        ::close(fd);
        return -1;
    }
    return fd;
}

// The connections being served: at most max_connections at once, at most
// max_per_user of them for one uid, so that one user's stalled callers cannot
// take every slot.
class Slots {
public:
    explicit Slots(const qvhostd::Options &o) : total_max_(o.max_connections), user_max_(o.max_per_user) {}
    void wait_for_free() {
        std::unique_lock<std::mutex> lock(m_);
        cv_.wait(lock, [&] { return total_ < total_max_; });
    }
    bool take(std::uint32_t uid) {
        std::lock_guard<std::mutex> lock(m_);
        if (total_ >= total_max_ || per_user_[uid] >= user_max_) return false;
        ++total_;
        ++per_user_[uid];
        return true;
    }
    void give_back(std::uint32_t uid) {
        std::lock_guard<std::mutex> lock(m_);
        --total_;
        if (--per_user_[uid] == 0) per_user_.erase(uid);
        cv_.notify_all();
    }
    bool wait_idle(std::chrono::milliseconds limit) {
        std::unique_lock<std::mutex> lock(m_);
        return cv_.wait_for(lock, limit, [&] { return total_ == 0; });
    }

private:
    std::mutex m_;
    std::condition_variable cv_;
    unsigned total_ = 0, total_max_, user_max_;
    std::map<std::uint32_t, unsigned> per_user_;
};

}  // namespace

int main(int argc, char **argv) {
    qvhostd::Options o;
    bool done = false;
    if (int rc = parse_options(argc, argv, o, done); rc != 0 || done) return rc;
    if (o.host_name.empty()) {
        char name[256] = {};
        if (::gethostname(name, sizeof name - 1) != 0) {
            std::fprintf(stderr, "qvsec-hostd: cannot read the host name: %s\n", std::strerror(errno));
            return 1;
        }
        o.host_name = name;
    }
    if (!qvhost::valid_host_name(o.host_name)) {
        std::fprintf(stderr, "qvsec-hostd: bad host name '%s'; give one with --host-name\n", o.host_name.c_str());
        return 1;
    }
    qv_uint64_t node_id = 0;
    if (int rc = cu_get_node_id_1(&node_id); rc != 0) {
        std::fprintf(stderr, "qvsec-hostd: cannot read this host's node ID (error %d)\n", rc);
        return 1;
    }
    qvhostd::Daemon daemon(o, node_id);
    std::string why;
    if (!daemon.load(why)) {
        std::fprintf(stderr, "qvsec-hostd: %s\n", why.c_str());
        return 1;
    }
    // SIGTERM and SIGINT are taken through a signalfd by the accept loop; every
    // thread made after this inherits the blocked mask.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGTERM);
    sigaddset(&stop_signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
    ::signal(SIGPIPE, SIG_IGN);
    int sfd = ::signalfd(-1, &stop_signals, SFD_CLOEXEC | SFD_NONBLOCK);
    int lfd = listen_on(o.socket_path, why);
    if (sfd < 0 || lfd < 0) {
        std::fprintf(stderr, "qvsec-hostd: cannot listen: %s\n", sfd < 0 ? std::strerror(errno) : why.c_str());
        return 1;
    }
    qvhostd::log_line("serving " + o.host_name + " on " + o.socket_path);
    Slots slots(o);
    for (;;) {
        slots.wait_for_free();
        pollfd p[2] = {{lfd, POLLIN, 0}, {sfd, POLLIN, 0}};
        if (::poll(p, 2, -1) < 0 && errno != EINTR) break;
        if (p[1].revents != 0) break;
        if ((p[0].revents & POLLIN) == 0) continue;
        int fd = ::accept4(lfd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0) {
            // Out of descriptors: pause rather than spin on a listener that stays readable.
            if (errno == EMFILE || errno == ENFILE) std::this_thread::sleep_for(std::chrono::milliseconds(50));
            continue;
        }
        qvlocal::Credentials creds;
        qv_uint32_t minor = 0;
        // The credentials are looked at here only to share the slots fairly;
        // serve() reads them again for the assertion.
        std::uint32_t uid = qvlocal::peer_credentials(fd, creds, &minor) == qvlocal::kOk ? creds.uid : ~0u;
        if (!slots.take(uid)) {
            qvhostd::log_line("refused uid " + std::to_string(uid) + ": too many connections of this user at once");
            ::close(fd);
            continue;
        }
        try {
            std::thread([&daemon, &slots, fd, uid] {
                daemon.serve(fd);
                slots.give_back(uid);
            }).detach();
        } catch (const std::system_error &) {
            qvhostd::log_line("refused uid " + std::to_string(uid) + ": cannot start a thread");
            ::close(fd);
            slots.give_back(uid);
        }
    }
    ::close(lfd);
    ::unlink(o.socket_path.c_str());
    // Connections in progress end by their own deadline. Should one still
    // run after that, the process ends without destroying what its thread uses.
    bool idle = slots.wait_idle(std::chrono::milliseconds(o.timeout_ms + 1000));
    qvhostd::log_line("stopped");
    if (!idle) std::_Exit(0);
    return 0;
}
