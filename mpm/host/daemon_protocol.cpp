// Requests and responses of the host daemon, and deadline-bounded socket I/O.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "byte_io.h"
#include "daemon_protocol.h"

namespace qvhost {
namespace {

constexpr std::uint8_t kRequestMagic[4] = {'Q', 'V', 'H', 'Q'};
constexpr std::uint8_t kResponseMagic[4] = {'Q', 'V', 'H', 'S'};
constexpr std::uint8_t kVersion = 1;
constexpr std::size_t kMaxName = 255;

std::span<const std::uint8_t> bytes_of(const std::string &s) {
    return {reinterpret_cast<const std::uint8_t *>(s.data()), s.size()};
}

// Milliseconds left before the deadline, 0 when it passed.
int remaining_ms(Deadline deadline) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return 0;
    return left.count() > 60000 ? 60000 : static_cast<int>(left.count());
}

// Waits until fd is ready for `events` or the deadline passes.
int wait_ready(int fd, short events, Deadline deadline) {
    for (;;) {
        int ms = remaining_ms(deadline);
        if (ms == 0) return ETIMEDOUT;
        pollfd p{fd, events, 0};
        int n = ::poll(&p, 1, ms);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return errno;
        if (n > 0) return 0;
    }
}

}  // namespace

std::vector<std::uint8_t> encode_request(const AssertionRequest &req) {
    ByteWriter w;
    w.bytes(kRequestMagic);
    w.u8(kVersion);
    w.u16be(req.flags);
    w.u32be(req.lifetime);
    w.bytes(req.kx_public);
    w.bytes(req.binding);
    w.u16be(static_cast<std::uint16_t>(req.peer_service.size()));
    w.bytes(bytes_of(req.peer_service));
    w.u16be(static_cast<std::uint16_t>(req.peer_host.size()));
    w.bytes(bytes_of(req.peer_host));
    return w.data();
}

RequestParse parse_request(std::span<const std::uint8_t> bytes, AssertionRequest &req, std::size_t *used) {
    ByteReader r(bytes);
    // Every field is checked as soon as it is whole, so that garbage is refused
    // without waiting for the deadline.
    std::span<const std::uint8_t> b;
    if (bytes.empty()) return RequestParse::kIncomplete;
    std::size_t magic_have = bytes.size() < sizeof kRequestMagic ? bytes.size() : sizeof kRequestMagic;
    if (std::memcmp(bytes.data(), kRequestMagic, magic_have) != 0) return RequestParse::kMalformed;
    if (!r.take(sizeof kRequestMagic, b)) return RequestParse::kIncomplete;
    std::uint8_t version;
    if (!r.u8(version)) return RequestParse::kIncomplete;
    if (version != kVersion) return RequestParse::kMalformed;
    if (!r.u16be(req.flags)) return RequestParse::kIncomplete;
    if ((req.flags & ~kFromService) != 0) return RequestParse::kMalformed;
    if (!r.u32be(req.lifetime) || !r.take(kKxPublicBytes, b)) return RequestParse::kIncomplete;
    std::memcpy(req.kx_public.data(), b.data(), b.size());
    if (!r.take(kBindingBytes, b)) return RequestParse::kIncomplete;
    std::memcpy(req.binding.data(), b.data(), b.size());
    for (std::string *name : {&req.peer_service, &req.peer_host}) {
        std::uint16_t len;
        if (!r.u16be(len)) return RequestParse::kIncomplete;
        if (len > kMaxName) return RequestParse::kMalformed;
        if (!r.take(len, b)) return RequestParse::kIncomplete;
        for (std::uint8_t c : b)
            if (c < 0x20 || c == 0x7f) return RequestParse::kMalformed;
        name->assign(reinterpret_cast<const char *>(b.data()), b.size());
    }
    if (used != nullptr) *used = bytes.size() - r.remaining();
    return RequestParse::kComplete;
}

std::vector<std::uint8_t> encode_response(std::uint8_t status, std::span<const std::uint8_t> body) {
    ByteWriter w;
    w.bytes(kResponseMagic);
    w.u8(kVersion);
    w.u8(status);
    w.u16be(static_cast<std::uint16_t>(body.size()));
    w.bytes(body);
    return w.data();
}

bool parse_response_header(std::span<const std::uint8_t, kResponseHeaderBytes> header, std::uint8_t &status,
                           std::size_t &body_len) {
    if (std::memcmp(header.data(), kResponseMagic, sizeof kResponseMagic) != 0 || header[4] != kVersion)
        return false;
    status = header[5];
    body_len = static_cast<std::size_t>(header[6] << 8 | header[7]);
    if (status == kResponseAssertion) return body_len <= kMaxResponseBody;
    if (status == kResponseRefusal) return body_len <= kMaxRefusalText;
    return false;
}

int read_some(int fd, std::vector<std::uint8_t> &buf, std::size_t max_total, Deadline deadline) {
    if (buf.size() >= max_total) return EMSGSIZE;
    for (;;) {
        std::uint8_t chunk[512];
        std::size_t ask = max_total - buf.size() < sizeof chunk ? max_total - buf.size() : sizeof chunk;
        ssize_t n = ::recv(fd, chunk, ask, 0);
        if (n > 0) {
            buf.insert(buf.end(), chunk, chunk + n);
            return 0;
        }
        if (n == 0) return ECONNRESET;
        if (errno == EINTR) continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK) return errno;
        if (int rc = wait_ready(fd, POLLIN, deadline); rc != 0) return rc;
    }
}

int read_until(int fd, std::vector<std::uint8_t> &buf, std::size_t want, Deadline deadline) {
    while (buf.size() < want)
        if (int rc = read_some(fd, buf, want, deadline); rc != 0) return rc;
    return 0;
}

int write_all(int fd, std::span<const std::uint8_t> bytes, Deadline deadline) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n >= 0) {
            done += static_cast<std::size_t>(n);
            continue;
        }
        if (errno == EINTR) continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK) return errno;
        if (int rc = wait_ready(fd, POLLOUT, deadline); rc != 0) return rc;
    }
    return 0;
}

}  // namespace qvhost
