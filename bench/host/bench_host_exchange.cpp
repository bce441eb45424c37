// The "host" mechanism between two simulated hosts (each with its own key,
// trusted-hosts file, configuration and running qvsec-hostd) over TCP on
// the loopback: context establishments per second (both daemon round trips
// included) against TCP connections with one unauthenticated round trip;
// sealed round trips per second at 64 B and 16 KiB against plain round
// trips of the same size on the same connection; and the replay cache's
// size after a sustained run of establishments with a 2-second assertion
// lifetime, against the bound rate x (lifetime + skew). References are
// measured in the same run. The framing is the example service's.
#include <arpa/inet.h>
#include <signal.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "host_mech.h"
#include "sim_hosts.h"

extern "C" {
#include "framing.h"
}

namespace {

using namespace qvhostmech;
using Clock = std::chrono::steady_clock;

constexpr int kTimeoutMs = 30000;
constexpr int kEstablishments = 200;
constexpr int kRoundTrips = 2000;
constexpr double kSustainedSeconds = 6.0;
constexpr int kLifetime = 2, kSkew = 0;
enum Type { kToken = 10, kSealed, kPlain, kStats, kBye };

struct Buf {
    sec_buffer_desc b{0, nullptr};
    ~Buf() { sec_release_buffer(&b); }
};

[[noreturn]] void die(const char *what, long code = 0) {
    std::fprintf(stderr, "bench: %s failed (%ld)\n", what, code);
    std::exit(1);
}

double since(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }

// Host B's service: per connection, an optional context, then frames until
// kBye: sealed ones answered sealed, plain ones echoed, kStats with the
// replay cache's size.
[[noreturn]] void serve(int listener, const std::string &conf) {
    setenv("QVSEC_HOST_CONF", conf.c_str(), 1);
    qv_uint32_t minor = 0;
    void *svc = nullptr;
    mpm_init();
    if (mpm_start(&minor, 0, &svc) != 0 || mpm_login_as_service(&minor, const_cast<char *>("bench"), svc) != 0)
        die("service start", minor);
    for (;;) {
        int fd = accept(listener, nullptr, nullptr);
        if (fd < 0) std::_Exit(0);
        int one = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        void *ctx = nullptr;
        for (;;) {
            Buf in;
            int type = 0;
            if (recv_frame(fd, kTimeoutMs, &type, &in.b) != 0 || type == kBye) break;
            sec_buffer_desc out{0, nullptr};
            if (type == kToken) {
                qv_uint32_t rflags;
                if (mpm_receive_sec_context(&minor, svc, &in.b, &ctx, &out, &rflags) != 0) die("receive", minor);
            } else if (type == kSealed) {
                sec_buffer_desc plain{0, nullptr};
                if (mpm_process_data(&minor, ctx, &in.b, &plain) != 0) die("unseal", minor);
                if (mpm_prepare_data(&minor, ctx, kProtectConfidentiality, &plain, &out) != 0) die("seal", minor);
                mpm_release_buffer(&minor, &plain);
            } else if (type == kStats) {
                std::string n = std::to_string(replay_cache(1).size());
                send_frame(fd, kTimeoutMs, kStats, n.data(), static_cast<qv_int32_t>(n.size()));
                continue;
            }
            const sec_buffer_desc &answer = type == kPlain ? in.b : out;
            send_frame(fd, kTimeoutMs, type, answer.value, answer.length);
            mpm_release_buffer(&minor, &out);
        }
        if (ctx != nullptr) mpm_end_context(&minor, ctx);
        close(fd);
    }
}

int connect_to(int port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) die("connect");
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return fd;
}

void round_trip(int fd, int type, const void *data, qv_int32_t n, Buf &answer) {
    int got = 0;
    if (send_frame(fd, kTimeoutMs, type, data, n) != 0 || recv_frame(fd, kTimeoutMs, &got, &answer.b) != 0 ||
        got != type)
        die("round trip", type);
}

// A context with the service on connection fd.
void *establish(void *csvc, int fd) {
    qv_uint32_t minor = 0;
    void *ctx = nullptr;
    sec_buffer_desc token{0, nullptr}, none{0, nullptr};
    if (mpm_start_sec_context(&minor, csvc, const_cast<char *>("bench"), const_cast<char *>("hostb"), 0, &ctx,
                              &token) != kContinue)
        die("start", minor);
    Buf reply;
    round_trip(fd, kToken, token.value, token.length, reply);
    mpm_release_buffer(&minor, &token);
    if (mpm_complete_sec_context(&minor, &reply.b, ctx, &none) != 0) die("complete", minor);
    return ctx;
}

// Establishments (or, without csvc, plain round trips) on fresh connections.
double connections_per_second(void *csvc, int port, int count) {
    std::vector<char> hello(300, 'x');
    auto t = Clock::now();
    for (int i = 0; i < count; ++i) {
        int fd = connect_to(port);
        qv_uint32_t minor;
        if (csvc != nullptr) {
            mpm_end_context(&minor, establish(csvc, fd));
        } else {
            Buf echo;
            round_trip(fd, kPlain, hello.data(), static_cast<qv_int32_t>(hello.size()), echo);
        }
        send_frame(fd, kTimeoutMs, kBye, nullptr, 0);
        close(fd);
    }
    return count / since(t);
}

}  // namespace

int main() {
    char dir[] = "/tmp/qvbench-host.XXXXXX";
    if (mkdtemp(dir) == nullptr) return 1;
    qvhosttest::Host a, b;
    std::string why;
    const std::string conf = "skew " + std::to_string(kSkew) + "\nlifetime " + std::to_string(kLifetime) + "\n";
    if (!qvhosttest::set_up_host(a, dir, "hosta", 0xa1, conf, why) ||
        !qvhosttest::set_up_host(b, dir, "hostb", 0xb2, conf, why) ||
        !qvhosttest::write_trusted(a, qvhosttest::trusted_line(b, *b.key), why) ||
        !qvhosttest::write_trusted(b, qvhosttest::trusted_line(a, *a.key), why) ||
        !qvhosttest::start_daemon(a, QVBENCH_HOSTD, why) || !qvhosttest::start_daemon(b, QVBENCH_HOSTD, why)) {
        std::fprintf(stderr, "bench: %s\n", why.c_str());
        return 1;
    }
    int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (bind(listener, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 || listen(listener, 64) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr *>(&addr), &len) != 0)
        die("listen");
    const int port = ntohs(addr.sin_port);
    pid_t service = fork();
    if (service == 0) serve(listener, b.file("host.conf"));
    close(listener);

    setenv("QVSEC_HOST_CONF", a.file("host.conf").c_str(), 1);
    qv_uint32_t minor = 0;
    void *csvc = nullptr;
    mpm_init();
    if (mpm_start(&minor, 0, &csvc) != 0) die("client start", minor);

    std::printf("%-52s %10s %10s %8s\n", "", "/s", "reference", "ratio");
    const double ref = connections_per_second(nullptr, port, kEstablishments);
    const double est = connections_per_second(csvc, port, kEstablishments);
    std::printf("%-52s %10.0f %10.0f %8.3f\n", "establishments, TCP connect and daemons included", est, ref, est / ref);

    int fd = connect_to(port);
    void *ctx = establish(csvc, fd);
    for (size_t size : {size_t{64}, size_t{16384}}) {
        std::vector<uint8_t> data(size, 0x5a);
        sec_buffer_desc plain{static_cast<qv_int32_t>(size), data.data()};
        auto t = Clock::now();
        for (int i = 0; i < kRoundTrips; ++i) {
            Buf echo;
            round_trip(fd, kPlain, data.data(), plain.length, echo);
        }
        const double plain_rate = kRoundTrips / since(t);
        t = Clock::now();
        for (int i = 0; i < kRoundTrips; ++i) {
            sec_buffer_desc sealed{0, nullptr}, opened{0, nullptr};
            if (mpm_prepare_data(&minor, ctx, kProtectConfidentiality, &plain, &sealed) != 0) die("seal", minor);
            Buf answer;
            round_trip(fd, kSealed, sealed.value, sealed.length, answer);
            if (mpm_process_data(&minor, ctx, &answer.b, &opened) != 0) die("unseal", minor);
            mpm_release_buffer(&minor, &sealed);
            mpm_release_buffer(&minor, &opened);
        }
        const double rate = kRoundTrips / since(t);
        std::printf("sealed round trips, %5zu B %-26s %10.0f %10.0f %8.3f\n", size, "", rate, plain_rate,
                    rate / plain_rate);
    }
    mpm_end_context(&minor, ctx);
    send_frame(fd, kTimeoutMs, kBye, nullptr, 0);
    close(fd);

    // Sustained establishments: the cache holds what the last lifetime + skew
    // seconds brought, not everything since the start.
    int total = 0;
    auto t = Clock::now();
    while (since(t) < kSustainedSeconds) {
        connections_per_second(csvc, port, 20);
        total += 20;
    }
    const double rate = total / since(t);
    Buf stats;
    fd = connect_to(port);
    round_trip(fd, kStats, nullptr, 0, stats);
    const std::string held(static_cast<const char *>(stats.b.value), static_cast<size_t>(stats.b.length));
    std::printf("replay cache after %.0f s at %.0f establishments/s: %s entries of %d accepted; bound rate x "
                "(lifetime %d s + skew %d s + 1) = %.0f\n",
                kSustainedSeconds, rate, held.c_str(), total + kEstablishments + 1, kLifetime, kSkew,
                rate * (kLifetime + kSkew + 1));
    send_frame(fd, kTimeoutMs, kBye, nullptr, 0);
    close(fd);
    kill(service, SIGTERM);
    waitpid(service, nullptr, 0);
    qvhosttest::stop_daemon(a);
    qvhosttest::stop_daemon(b);
    std::string rm = std::string("rm -rf ") + dir;
    return std::system(rm.c_str()) == 0 ? 0 : 1;
}
