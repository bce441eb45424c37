// The "local" mechanism module as the library sees it: opened with dlopen,
// every routine looked up by name and called with the module's argument
// order. Plus what the tests share: buffers released through the module,
// socket pairs, messages over a socket, and service and context handles.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "qv_sec_mpm.h"
#include "test_mpm.h"

namespace qvtest {

#define QV_LOCAL_ROUTINES(X)                                                                                     \
    X(mpm_init) X(mpm_start) X(mpm_end) X(mpm_set_ctx_attribute) X(mpm_service_cleanup) X(mpm_start_sec_context) \
    X(mpm_get_target_name) X(mpm_complete_sec_context) X(mpm_get_ctx_lifetime) X(mpm_get_ctx_flags)             \
    X(mpm_prepare_data) X(mpm_process_data) X(mpm_end_context) X(mpm_login_as_service) X(mpm_login_as_user)      \
    X(mpm_renew_identity) X(mpm_receive_sec_context) X(mpm_get_client_name) X(mpm_get_mapped_name)               \
    X(mpm_get_client_id) X(mpm_release_buffer) X(mpm_create_id_context) X(mpm_sign_data_v) X(mpm_verify_data_v)  \
    X(mpm_get_ctx_mpm) X(mpm_user_valid)

class LocalModule {
public:
    LocalModule() : path_(module_path("mpm_local.so")) {
        handle_ = dlopen(path_.c_str(), RTLD_NOW);
        if (handle_ == nullptr) throw std::runtime_error(std::string("cannot open ") + path_ + ": " + dlerror());
#define QV_LOOKUP(name) name = sym<decltype(&::name)>(#name);
        QV_LOCAL_ROUTINES(QV_LOOKUP)
#undef QV_LOOKUP
        mpm_init();
    }
    ~LocalModule() { dlclose(handle_); }
    LocalModule(const LocalModule &) = delete;
    LocalModule &operator=(const LocalModule &) = delete;

#define QV_DECLARE(name) decltype(&::name) name = nullptr;
    QV_LOCAL_ROUTINES(QV_DECLARE)
#undef QV_DECLARE

private:
    template <typename F>
    F sym(const char *name) {
        void *p = dlsym(handle_, name);
        if (p == nullptr) throw std::runtime_error(std::string("missing ") + name);
        return reinterpret_cast<F>(p);
    }
    std::string path_;
    void *handle_;
};

// Statuses and flags of the module (its README documents them).
inline constexpr qv_uint32_t kBadArgument = 4, kBadHandle = 5, kBadToken = 7, kNoSocket = 8, kKeyExchange = 10,
                             kWrongState = 11, kWrongTarget = 13, kBadMessage = 14, kReplayed = 15,
                             kOutOfOrder = 16, kUnknownName = 19, kNotPermitted = 20, kMutualRequired = 21,
                             kServiceNotAllowed = 25, kOtherProcess = 26, kBadSignature = 34, kUserNotValid = 36;
inline constexpr qv_uint32_t kIntegrity = 0x00100000, kConfidentiality = 0x00200000;
inline constexpr qv_uint32_t kLocalSocket = 0x01000000, kNetworkSocket = 0x02000000;

// A module output buffer, released through the module.
class ModBuffer {
public:
    explicit ModBuffer(LocalModule &m) : m_(m) {}
    ~ModBuffer() { release(); }
    ModBuffer(const ModBuffer &) = delete;
    ModBuffer &operator=(const ModBuffer &) = delete;
    sec_buffer_t get() { return &b_; }
    void release() {
        qv_uint32_t minor;
        m_.mpm_release_buffer(&minor, &b_);
    }
    std::vector<uint8_t> bytes() const {
        auto *p = static_cast<const uint8_t *>(b_.value);
        return b_.length > 0 ? std::vector<uint8_t>(p, p + b_.length) : std::vector<uint8_t>();
    }
    qv_int32_t length() const { return b_.length; }

private:
    LocalModule &m_;
    sec_buffer_desc b_{0, nullptr};
};

inline void push_be32(std::vector<uint8_t> &v, uint32_t x) {
    for (int s = 24; s >= 0; s -= 8) v.push_back(static_cast<uint8_t>(x >> s));
}

using NameRoutine = qv_uint32_t (*)(qv_uint32_t *, void *, qv_int32_t *, char *);
// A name routine's answer in a 256-byte buffer, its NUL included; empty when
// the routine refuses (its status in *status).
inline std::string ask_name(NameRoutine r, void *ctx, qv_uint32_t *status = nullptr) {
    char buf[256];
    qv_int32_t len = sizeof buf;
    qv_uint32_t minor, s = r(&minor, ctx, &len, buf);
    if (status != nullptr) *status = s;
    return s == 0 ? std::string(buf, static_cast<size_t>(len)) : std::string();
}

// An input buffer over bytes the test owns.
inline sec_buffer_desc in_buffer(std::vector<uint8_t> &v) {
    return sec_buffer_desc{static_cast<qv_int32_t>(v.size()), v.empty() ? nullptr : v.data()};
}

// Sequenced-packet sockets keep each token one message: no framing needed.
struct SocketPair {
    int fd[2] = {-1, -1};
    SocketPair() {
        if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fd) != 0) throw std::runtime_error("socketpair");
    }
    ~SocketPair() {
        for (int f : fd)
            if (f >= 0) close(f);
    }
};

inline bool send_msg(int fd, const std::vector<uint8_t> &bytes) {
    return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

// One message, waiting at most timeout_ms; false on timeout or end of stream.
inline bool recv_msg(int fd, std::vector<uint8_t> &bytes, int timeout_ms = 10000) {
    pollfd pfd{fd, POLLIN, 0};
    bytes.resize(1 << 16);
    ssize_t n = poll(&pfd, 1, timeout_ms) == 1 ? recv(fd, bytes.data(), bytes.size(), 0) : -1;
    bytes.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return n > 0;
}

// A service handle of the module.
class Service {
public:
    explicit Service(LocalModule &m, const char *login = nullptr) : m_(m) {
        qv_uint32_t minor;
        if (m_.mpm_start(&minor, 0, &h_) != 0) throw std::runtime_error("mpm_start");
        if (login != nullptr && m_.mpm_login_as_service(&minor, const_cast<char *>(login), h_) != 0)
            throw std::runtime_error("mpm_login_as_service");
    }
    ~Service() {
        qv_uint32_t minor;
        m_.mpm_end(&minor, 0, h_);
    }
    void *handle() const { return h_; }

private:
    LocalModule &m_;
    void *h_ = nullptr;
};

// A context handle of the module, ended on destruction.
class Context {
public:
    explicit Context(LocalModule &m) : m_(m) {}
    ~Context() { end(); }
    Context(const Context &) = delete;
    Context &operator=(const Context &) = delete;
    void **slot() { return &h_; }
    void *get() const { return h_; }
    void end() {
        if (h_ != nullptr) {
            qv_uint32_t minor;
            m_.mpm_end_context(&minor, h_);
            h_ = nullptr;
        }
    }
    // Gives the context its socket, as the library does for a context that
    // sec_setup_socket prepared.
    qv_uint32_t attach(int fd, qv_uint32_t type = kLocalSocket, void *svc = nullptr) {
        info_ = sec_socket_info_desc{fd, type, nullptr};
        qv_uint32_t minor;
        return m_.mpm_set_ctx_attribute(&minor, svc, MPM_ATTR_SOCKET_INFO, &info_, &h_);
    }

private:
    LocalModule &m_;
    void *h_ = nullptr;
    sec_socket_info_desc info_{-1, 0, nullptr};
};

// One client and one server context, each with its own end of a socket pair
// made by this process: each side's kernel view of the other is this process.
struct Pair {
    explicit Pair(LocalModule &mod, const char *login = nullptr, int cfd = -1, int sfd = -1)
        : m(mod), svc(mod, login), client(mod), server(mod), hello(mod), reply(mod) {
        if (cfd >= 0) dup2(cfd, sp.fd[0]), dup2(sfd, sp.fd[1]);
    }
    LocalModule &m;
    SocketPair sp;
    Service svc;
    Context client, server;
    ModBuffer hello, reply;
    qv_uint32_t minor = 0, rflags = 0;

    qv_uint32_t start(const char *target = "svc", qv_uint32_t flags = 0, bool attach = true) {
        if (attach) {
            EXPECT_EQ(0u, client.attach(sp.fd[0]));
        }
        return m.mpm_start_sec_context(&minor, svc.handle(), const_cast<char *>(target),
                                       const_cast<char *>("localhost"), flags, client.slot(), hello.get());
    }
    // A refused hello frees the server context: each call attaches anew.
    qv_uint32_t receive(std::vector<uint8_t> token, bool attach = true) {
        if (attach) {
            EXPECT_EQ(0u, server.attach(sp.fd[1]));
        }
        sec_buffer_desc in = in_buffer(token);
        qv_uint32_t s = m.mpm_receive_sec_context(&minor, svc.handle(), &in, server.slot(), reply.get(), &rflags);
        if (s != 0) {
            EXPECT_EQ(nullptr, server.get());
        }
        return s;
    }
    qv_uint32_t complete(std::vector<uint8_t> token) {
        sec_buffer_desc in = in_buffer(token);
        ModBuffer out(m);
        qv_uint32_t s = m.mpm_complete_sec_context(&minor, &in, client.get(), out.get());
        EXPECT_EQ(0, out.length());
        return s;
    }
    void establish(const char *target = "svc", qv_uint32_t flags = 0) {
        ASSERT_EQ(1u, start(target, flags));
        ASSERT_EQ(0u, receive(hello.bytes()));
        ASSERT_EQ(0u, complete(reply.bytes()));
    }
};

}  // namespace qvtest
