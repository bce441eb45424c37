// Connections served per second by the example service, against a plain
// echo server without security in the same run (same framing, same pool
// size), each with and without misbehaving peers: connections that stall
// until the deadline and a stream of connections that send garbage. Only
// ratios are meaningful; the rates depend on the machine.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

extern "C" {
#include "framing.h"
}

extern char **environ;

namespace {

constexpr int kPool = 8;         // threads of either server
constexpr int kClients = 4;      // client threads of the bench
constexpr int kStalled = 4;      // stalled connections while misbehaving
constexpr int kTimeoutMs = 1000; // the servers' deadline
constexpr double kSeconds = 3.0; // per measurement

struct Buf {
    sec_buffer_desc b{0, nullptr};
    ~Buf() { sec_release_buffer(&b); }
};

int connect_to(const std::string &path) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    path.copy(addr.sun_path, sizeof addr.sun_path - 1);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0) return fd;
    if (fd >= 0) close(fd);
    return -1;
}

// The reference: a pool of threads that echo one frame per connection.
void echo_server(int listener, std::atomic<bool> &stop) {
    std::vector<std::thread> pool;
    for (int i = 0; i < kPool; ++i)
        pool.emplace_back([&] {
            while (!stop) {
                int fd = accept(listener, nullptr, nullptr);
                if (fd < 0) continue;
                Buf in;
                int type = 0;
                if (recv_frame(fd, kTimeoutMs, &type, &in.b) == FRAME_OK)
                    send_frame(fd, kTimeoutMs, type, in.b.value, in.b.length);
                close(fd);
            }
        });
    for (std::thread &t : pool) t.join();
}

bool echo_once(const std::string &path) {
    int fd = connect_to(path), type = 0;
    if (fd < 0) return false;
    Buf in;
    bool ok = send_frame(fd, kTimeoutMs, FRAME_DATA, "ping", 4) == FRAME_OK &&
              recv_frame(fd, kTimeoutMs, &type, &in.b) == FRAME_OK && in.b.length == 4;
    close(fd);
    return ok;
}

// One client of the example service, as the example client does it: offer,
// context with mutual authentication, a sealed request, the sealed reply.
bool service_once(sec_token_t stoken, const std::string &path) {
    int fd = connect_to(path), type = 0;
    if (fd < 0) return false;
    sec_status_desc st;
    sec_token_t ctx = nullptr;
    Buf offer, shared, c_ccdb, sealed, reply, plain;
    qv_int32_t count = 0, rc = sec_get_auth_methods(&offer.b, &count);
    bool ok = rc == 0 && send_frame(fd, kTimeoutMs, FRAME_OFFER, offer.b.value, offer.b.length) == FRAME_OK &&
              recv_frame(fd, kTimeoutMs, &type, &shared.b) == FRAME_OK && type == FRAME_SHARED &&
              sec_setup_socket(stoken, fd, SEC_F_LOCAL_SOCKET | SEC_F_SOCKET_BOUND, nullptr, &ctx) == 0;
    if (ok) rc = sec_start_sec_context(&st, stoken, &shared.b, const_cast<char *>("example"),
                                       const_cast<char *>("localhost"), 0x2, &ctx, &c_ccdb.b);
    while (ok && (rc == SEC_S_CONTINUE || c_ccdb.b.length > 0)) {
        ok = send_frame(fd, kTimeoutMs, FRAME_CCDB, c_ccdb.b.value, c_ccdb.b.length) == FRAME_OK;
        sec_release_buffer(&c_ccdb.b);
        if (rc != SEC_S_CONTINUE) break;
        Buf s_ccdb;
        ok = ok && recv_frame(fd, kTimeoutMs, &type, &s_ccdb.b) == FRAME_OK && type == FRAME_CCDB;
        if (ok) rc = sec_complete_sec_context(&st, &s_ccdb.b, &ctx, &c_ccdb.b);
    }
    sec_buffer_desc msg{4, const_cast<char *>("ping")};
    ok = ok && rc == 0 && sec_prepare_data(&st, ctx, SEC_F_PROTECT_MODE2, &msg, &sealed.b) == 0 &&
         send_frame(fd, kTimeoutMs, FRAME_DATA, sealed.b.value, sealed.b.length) == FRAME_OK &&
         recv_frame(fd, kTimeoutMs, &type, &reply.b) == FRAME_OK && type == FRAME_DATA &&
         sec_process_data(&st, ctx, &reply.b, &plain.b) == 0;
    sec_end_context(&st, ctx, nullptr);
    close(fd);
    return ok;
}

// Connections per second that `once` completes from kClients threads; with
// misbehave, kStalled connections stall (each reopened when the server
// drops it) and one more thread sends garbage connections all along.
double rate(const std::string &path, const std::function<bool()> &once, bool misbehave) {
    std::atomic<bool> stop{false};
    std::atomic<long> done{0}, failed{0};
    std::vector<std::thread> threads;
    if (misbehave) {
        threads.emplace_back([&] {
            std::vector<int> stalled(kStalled, -1);
            char byte;
            while (!stop) {
                for (int &fd : stalled) {
                    if (fd >= 0 && recv(fd, &byte, 1, MSG_DONTWAIT) != 0) continue;  // still held
                    if (fd >= 0) close(fd);
                    fd = connect_to(path);
                }
                usleep(20000);
            }
            for (int fd : stalled)
                if (fd >= 0) close(fd);
        });
        threads.emplace_back([&] {
            while (!stop) {
                int fd = connect_to(path);
                if (fd < 0) continue;
                send(fd, "GET / HTTP/1.0\r\n\r\n", 18, MSG_NOSIGNAL);
                char buf[64];
                while (recv(fd, buf, sizeof buf, 0) > 0) {
                }
                close(fd);
            }
        });
        usleep(200000);  // let the stalled connections take their threads
    }
    auto begin = std::chrono::steady_clock::now();
    auto end = begin + std::chrono::duration<double>(kSeconds);
    std::vector<std::thread> clients;
    for (int i = 0; i < kClients; ++i)
        clients.emplace_back([&] {
            while (std::chrono::steady_clock::now() < end) (once() ? done : failed)++;
        });
    for (std::thread &t : clients) t.join();
    double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    stop = true;
    for (std::thread &t : threads) t.join();
    if (failed > 0) std::fprintf(stderr, "%ld connections failed\n", failed.load());
    return static_cast<double>(done) / elapsed;
}

}  // namespace

int main() {
    char dir[] = "/tmp/qvbench.XXXXXX";
    if (!mkdtemp(dir)) return 1;
    std::string cfg = std::string(dir) + "/qvsec.cfg", sock = std::string(dir) + "/s.sock",
                echo = std::string(dir) + "/echo.sock";
    FILE *f = std::fopen(cfg.c_str(), "w");
    std::fprintf(f, "1 local 0x00000001 %s i\n", QVBENCH_LOCAL_MODULE);
    std::fclose(f);
    setenv("QV_SEC_CONFIG", cfg.c_str(), 1);
    signal(SIGPIPE, SIG_IGN);

    // The example service, its output discarded.
    std::string pool = std::to_string(kPool), timeout = std::to_string(kTimeoutMs / 1000);
    const char *argv[] = {QVBENCH_SERVICE, "--socket", sock.c_str(), "--max-clients", pool.c_str(),
                          "--timeout", timeout.c_str(), nullptr};
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&fa, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid;
    if (posix_spawn(&pid, QVBENCH_SERVICE, &fa, nullptr, const_cast<char **>(argv), environ) != 0) return 1;
    posix_spawn_file_actions_destroy(&fa);

    // The reference, in this process.
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    echo.copy(addr.sun_path, sizeof addr.sun_path - 1);
    int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    if (bind(listener, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 || listen(listener, SOMAXCONN) != 0)
        return 1;
    std::atomic<bool> stop{false};
    std::thread echo_thread([&] { echo_server(listener, stop); });

    sec_status_desc st;
    sec_token_t stoken = nullptr;
    if (sec_start(&st, 0, &stoken) != 0) return 1;
    for (int i = 0; i < 500 && access(sock.c_str(), F_OK) != 0; ++i) usleep(10000);

    std::printf("%-46s %12s %12s %8s\n", "connections served per second", "echo", "service", "ratio");
    double base[2];
    for (int misbehave = 0; misbehave < 2; ++misbehave) {
        double e = rate(echo, [&] { return echo_once(echo); }, misbehave);
        double s = rate(sock, [&] { return service_once(stoken, sock); }, misbehave);
        base[misbehave] = s;
        std::printf("%-46s %12.0f %12.0f %8.3f\n",
                    misbehave ? "with stalled and garbage peers" : "well-behaved clients only", e, s, s / e);
    }
    std::printf("%-46s %12s %12s %8.3f\n", "service, misbehaving / well-behaved", "", "", base[1] / base[0]);

    sec_end(&st, 0, stoken);
    stop = true;
    shutdown(listener, SHUT_RDWR);
    for (int i = 0; i < kPool; ++i) {  // wake every echo thread blocked in accept
        int fd = connect_to(echo);
        if (fd >= 0) close(fd);
    }
    echo_thread.join();
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
    close(listener);
    unlink(echo.c_str());
    unlink(cfg.c_str());
    rmdir(dir);
    return 0;
}
