// The caller's side of the host daemon: one request, one answer, one deadline.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "daemon_protocol.h"
#include "host_files.h"
#include "host_trust.h"

namespace qvhost {
namespace {

int fail(int code, std::string &why, const std::string &text) {
    why = text;
    return code;
}

// A non-blocking connect to a UNIX-domain socket whose backlog is full fails
// with EAGAIN at once; it is retried until the deadline.
int connect_before(int fd, const sockaddr_un &addr, Deadline deadline) {
    for (;;) {
        if (::connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) == 0) return 0;
        if (errno == EINTR) continue;
        if (errno != EAGAIN) return errno;
        if (std::chrono::steady_clock::now() >= deadline) return ETIMEDOUT;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

}  // namespace

int request_assertion(const std::string &socket_path, const AssertionRequest &req, int timeout_ms,
                      std::vector<std::uint8_t> &assertion, std::string &why) {
    assertion.clear();
    Deadline deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms > 0 ? timeout_ms : 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (socket_path.empty() || socket_path.size() >= sizeof addr.sun_path)
        return fail(ENAMETOOLONG, why, "host daemon socket path is empty or too long");
    std::memcpy(addr.sun_path, socket_path.data(), socket_path.size());
    if (req.peer_service.size() > 255 || (req.peer_host.size() > 0 && !valid_host_name(req.peer_host)))
        return fail(EINVAL, why, "bad target service or host name");
    SecOwnedFd s(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (s.get() < 0) return fail(errno, why, std::string("cannot make a socket: ") + std::strerror(errno));
    if (int rc = connect_before(s.get(), addr, deadline); rc != 0)
        return fail(rc, why, "cannot reach the host daemon at " + socket_path + ": " + std::strerror(rc));
    if (int rc = write_all(s.get(), encode_request(req), deadline); rc != 0)
        return fail(rc, why, std::string("cannot send to the host daemon: ") + std::strerror(rc));
    std::vector<std::uint8_t> buf;
    if (int rc = read_until(s.get(), buf, kResponseHeaderBytes, deadline); rc != 0)
        return fail(rc == ECONNRESET ? EPROTO : rc, why,
                    std::string("no answer from the host daemon: ") + std::strerror(rc));
    std::uint8_t status;
    std::size_t body_len;
    if (!parse_response_header(std::span<const std::uint8_t, kResponseHeaderBytes>(buf.data(), kResponseHeaderBytes),
                               status, body_len))
        return fail(EPROTO, why, "the host daemon's answer is malformed");
    if (int rc = read_until(s.get(), buf, kResponseHeaderBytes + body_len, deadline); rc != 0)
        return fail(rc == ECONNRESET ? EPROTO : rc, why,
                    std::string("truncated answer from the host daemon: ") + std::strerror(rc));
    if (status == kResponseRefusal) {
        why = "the host daemon refused: ";
        for (std::size_t i = kResponseHeaderBytes; i < buf.size(); ++i)
            why.push_back(buf[i] >= 0x20 && buf[i] < 0x7f ? static_cast<char>(buf[i]) : '?');
        return EACCES;
    }
    assertion.assign(buf.begin() + kResponseHeaderBytes, buf.end());
    return 0;
}

}  // namespace qvhost
