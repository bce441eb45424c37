// Context establishments per second, and sealed request/reply round trips
// per second at 64 B and 16 KiB, between a client and a service process
// over a UNIX-domain socket, through the library with the local mechanism.
// The framing is the example service's.
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

extern "C" {
#include "framing.h"
}

namespace {

constexpr int kEstablishments = 300;
constexpr int kRoundTrips = 2000;
constexpr int kDone = 9;  // frame type: the client is finished with this connection
constexpr int kFrameTimeoutMs = 30000;

struct Buf {
    sec_buffer_desc b{0, nullptr};
    ~Buf() { sec_release_buffer(&b); }
};

void die(const char *what, qv_int32_t rc) {
    std::fprintf(stderr, "%s failed: %d\n", what, rc);
    std::exit(1);
}

// The service: one connection at a time; a context per connection, then it
// answers every sealed frame with the same bytes sealed back.
[[noreturn]] void service(int listener) {
    sec_status_desc st;
    sec_token_t stoken = nullptr;
    if (sec_start(&st, 0, &stoken) != 0) die("sec_start", 1);
    for (;;) {
        int fd = accept(listener, nullptr, nullptr);
        if (fd < 0) std::_Exit(0);
        sec_token_t ctx = nullptr;
        int type = 0;
        Buf offer, shared;
        if (recv_frame(fd, kFrameTimeoutMs, &type, &offer.b) != 0) std::_Exit(0);
        if (type == kDone) std::_Exit(0);
        sec_reconcile_auth_methods(&offer.b, &shared.b);
        send_frame(fd, kFrameTimeoutMs, FRAME_SHARED, shared.b.value, shared.b.length);
        sec_setup_socket(stoken, fd, SEC_F_LOCAL_SOCKET | SEC_F_SOCKET_BOUND, nullptr, &ctx);
        for (;;) {
            Buf in, out;
            if (recv_frame(fd, kFrameTimeoutMs, &type, &in.b) != 0 || type == kDone) break;
            if (type == FRAME_CCDB) {
                qv_int32_t rc = sec_receive_sec_context(&st, stoken, &in.b, &ctx, &out.b);
                if (rc > 1) die("sec_receive_sec_context", rc);
                if (out.b.length > 0) send_frame(fd, kFrameTimeoutMs, FRAME_CCDB, out.b.value, out.b.length);
            } else {
                Buf plain;
                if (sec_process_data(&st, ctx, &in.b, &plain.b) != 0) die("sec_process_data", 3);
                if (sec_prepare_data(&st, ctx, SEC_F_PROTECT_MODE2, &plain.b, &out.b) != 0) die("sec_prepare_data", 3);
                send_frame(fd, kFrameTimeoutMs, FRAME_DATA, out.b.value, out.b.length);
            }
        }
        sec_end_context(&st, ctx, nullptr);
        close(fd);
    }
}

int connect_to(const std::string &path) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    path.copy(addr.sun_path, sizeof addr.sun_path - 1);
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) die("connect", 1);
    return fd;
}

// One client connection: offer, context, and the context's handle.
sec_token_t establish(sec_token_t stoken, int fd) {
    sec_status_desc st;
    sec_token_t ctx = nullptr;
    Buf offer, shared;
    qv_int32_t count = 0;
    int type = 0;
    sec_get_auth_methods(&offer.b, &count);
    send_frame(fd, kFrameTimeoutMs, FRAME_OFFER, offer.b.value, offer.b.length);
    if (recv_frame(fd, kFrameTimeoutMs, &type, &shared.b) != 0) die("offer", 1);
    sec_setup_socket(stoken, fd, SEC_F_LOCAL_SOCKET | SEC_F_SOCKET_BOUND, nullptr, &ctx);
    Buf c_ccdb;
    qv_int32_t rc = sec_start_sec_context(&st, stoken, &shared.b, const_cast<char *>("bench"),
                                          const_cast<char *>("localhost"), 0, &ctx, &c_ccdb.b);
    while (rc == SEC_S_CONTINUE) {
        send_frame(fd, kFrameTimeoutMs, FRAME_CCDB, c_ccdb.b.value, c_ccdb.b.length);
        sec_release_buffer(&c_ccdb.b);
        Buf s_ccdb;
        if (recv_frame(fd, kFrameTimeoutMs, &type, &s_ccdb.b) != 0) die("exchange", 1);
        rc = sec_complete_sec_context(&st, &s_ccdb.b, &ctx, &c_ccdb.b);
    }
    if (rc != 0) die("establishing", rc);
    if (c_ccdb.b.length > 0) send_frame(fd, kFrameTimeoutMs, FRAME_CCDB, c_ccdb.b.value, c_ccdb.b.length);
    return ctx;
}

double seconds_since(std::chrono::steady_clock::time_point t) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
}

}  // namespace

int main() {
    char dir[] = "/tmp/qvbench.XXXXXX";
    if (!mkdtemp(dir)) return 1;
    std::string cfg = std::string(dir) + "/qvsec.cfg", sock = std::string(dir) + "/s.sock";
    FILE *f = std::fopen(cfg.c_str(), "w");
    std::fprintf(f, "1 local 0x00000001 %s i\n", QVBENCH_LOCAL_MODULE);
    std::fclose(f);
    setenv("QV_SEC_CONFIG", cfg.c_str(), 1);

    // The service listens itself: the kernel vouches for the process that
    // called listen(), and that must be the one that claims to be the service.
    int ready[2];
    if (pipe(ready) != 0) return 1;
    pid_t child = fork();
    if (child == 0) {
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        sock.copy(addr.sun_path, sizeof addr.sun_path - 1);
        int listener = socket(AF_UNIX, SOCK_STREAM, 0);
        if (bind(listener, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 || listen(listener, 16) != 0) {
            std::_Exit(1);
        }
        char ok = 1;
        if (write(ready[1], &ok, 1) != 1) std::_Exit(1);
        service(listener);
    }
    char ok = 0;
    if (read(ready[0], &ok, 1) != 1) die("the service did not start", 1);

    sec_status_desc st;
    sec_token_t stoken = nullptr;
    if (sec_start(&st, 0, &stoken) != 0) die("sec_start", 1);

    auto t0 = std::chrono::steady_clock::now();
    for (int i = 0; i < kEstablishments; ++i) {
        int fd = connect_to(sock);
        sec_token_t ctx = establish(stoken, fd);
        send_frame(fd, kFrameTimeoutMs, kDone, nullptr, 0);
        sec_end_context(&st, ctx, nullptr);
        close(fd);
    }
    double est = kEstablishments / seconds_since(t0);
    std::printf("%-44s %10.0f /s\n", "context establishments (connect included)", est);

    int fd = connect_to(sock);
    sec_token_t ctx = establish(stoken, fd);
    for (size_t size : {size_t{64}, size_t{16384}}) {
        std::vector<unsigned char> data(size, 0x5a);
        sec_buffer_desc plain{static_cast<qv_int32_t>(size), data.data()};
        auto t = std::chrono::steady_clock::now();
        for (int i = 0; i < kRoundTrips; ++i) {
            Buf sealed, answer, opened;
            int type = 0;
            if (sec_prepare_data(&st, ctx, SEC_F_PROTECT_MODE2, &plain, &sealed.b) != 0) die("prepare", 3);
            send_frame(fd, kFrameTimeoutMs, FRAME_DATA, sealed.b.value, sealed.b.length);
            if (recv_frame(fd, kFrameTimeoutMs, &type, &answer.b) != 0) die("reply", 1);
            if (sec_process_data(&st, ctx, &answer.b, &opened.b) != 0) die("process", 3);
        }
        double rate = kRoundTrips / seconds_since(t);
        std::printf("sealed round trips, %5zu B %25s %10.0f /s  (%.1f MB/s each way)\n", size, "", rate,
                    rate * static_cast<double>(size) / 1e6);
    }
    send_frame(fd, kFrameTimeoutMs, kDone, nullptr, 0);
    sec_end_context(&st, ctx, nullptr);
    close(fd);
    // Tell the service to stop: a connection whose first frame says so.
    int last = connect_to(sock);
    send_frame(last, kFrameTimeoutMs, kDone, nullptr, 0);
    close(last);
    waitpid(child, nullptr, 0);
    sec_end(&st, 0, stoken);
    unlink(sock.c_str());
    unlink(cfg.c_str());
    rmdir(dir);
    return 0;
}
