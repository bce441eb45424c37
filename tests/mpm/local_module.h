// The "local" mechanism module as the library sees it: opened with dlopen,
// every routine looked up by name and called with the module's argument
// order. Plus the pieces the tests share: buffers released through the
// module, socket pairs, framed transport for two processes, and contexts
// established over a socket.
#pragma once

#include <dlfcn.h>
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

class LocalModule {
public:
    LocalModule() : path_(module_path("mpm_local.so")) {
        handle_ = dlopen(path_.c_str(), RTLD_NOW);
        if (handle_ == nullptr) throw std::runtime_error(std::string("cannot open ") + path_ + ": " + dlerror());
#define QV_LOOKUP(name) name = sym<decltype(&::name)>(#name)
        QV_LOOKUP(mpm_init);
        QV_LOOKUP(mpm_start);
        QV_LOOKUP(mpm_end);
        QV_LOOKUP(mpm_set_ctx_attribute);
        QV_LOOKUP(mpm_service_cleanup);
        QV_LOOKUP(mpm_start_sec_context);
        QV_LOOKUP(mpm_get_target_name);
        QV_LOOKUP(mpm_complete_sec_context);
        QV_LOOKUP(mpm_get_ctx_lifetime);
        QV_LOOKUP(mpm_get_ctx_flags);
        QV_LOOKUP(mpm_prepare_data);
        QV_LOOKUP(mpm_process_data);
        QV_LOOKUP(mpm_end_context);
        QV_LOOKUP(mpm_login_as_service);
        QV_LOOKUP(mpm_login_as_user);
        QV_LOOKUP(mpm_renew_identity);
        QV_LOOKUP(mpm_receive_sec_context);
        QV_LOOKUP(mpm_get_client_name);
        QV_LOOKUP(mpm_get_mapped_name);
        QV_LOOKUP(mpm_get_client_id);
        QV_LOOKUP(mpm_release_buffer);
        QV_LOOKUP(mpm_create_id_context);
        QV_LOOKUP(mpm_sign_data_v);
        QV_LOOKUP(mpm_verify_data_v);
        QV_LOOKUP(mpm_get_ctx_mpm);
        QV_LOOKUP(mpm_user_valid);
#undef QV_LOOKUP
        mpm_init();
    }
    ~LocalModule() { dlclose(handle_); }
    LocalModule(const LocalModule &) = delete;
    LocalModule &operator=(const LocalModule &) = delete;

    decltype(&::mpm_init) mpm_init;
    decltype(&::mpm_start) mpm_start;
    decltype(&::mpm_end) mpm_end;
    decltype(&::mpm_set_ctx_attribute) mpm_set_ctx_attribute;
    decltype(&::mpm_service_cleanup) mpm_service_cleanup;
    decltype(&::mpm_start_sec_context) mpm_start_sec_context;
    decltype(&::mpm_get_target_name) mpm_get_target_name;
    decltype(&::mpm_complete_sec_context) mpm_complete_sec_context;
    decltype(&::mpm_get_ctx_lifetime) mpm_get_ctx_lifetime;
    decltype(&::mpm_get_ctx_flags) mpm_get_ctx_flags;
    decltype(&::mpm_prepare_data) mpm_prepare_data;
    decltype(&::mpm_process_data) mpm_process_data;
    decltype(&::mpm_end_context) mpm_end_context;
    decltype(&::mpm_login_as_service) mpm_login_as_service;
    decltype(&::mpm_login_as_user) mpm_login_as_user;
    decltype(&::mpm_renew_identity) mpm_renew_identity;
    decltype(&::mpm_receive_sec_context) mpm_receive_sec_context;
    decltype(&::mpm_get_client_name) mpm_get_client_name;
    decltype(&::mpm_get_mapped_name) mpm_get_mapped_name;
    decltype(&::mpm_get_client_id) mpm_get_client_id;
    decltype(&::mpm_release_buffer) mpm_release_buffer;
    decltype(&::mpm_create_id_context) mpm_create_id_context;
    decltype(&::mpm_sign_data_v) mpm_sign_data_v;
    decltype(&::mpm_verify_data_v) mpm_verify_data_v;
    decltype(&::mpm_get_ctx_mpm) mpm_get_ctx_mpm;
    decltype(&::mpm_user_valid) mpm_user_valid;

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
enum : qv_uint32_t {
    kBadArgument = 4, kBadHandle = 5, kBadToken = 7, kNoSocket = 8, kKeyExchange = 10,
    kWrongState = 11, kWrongTarget = 13, kBadMessage = 14, kReplayed = 15, kOutOfOrder = 16,
    kUnknownName = 19, kNotPermitted = 20, kMutualRequired = 21, kServiceNotAllowed = 25, kOtherProcess = 26,
};
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

// An input buffer over bytes the test owns.
inline sec_buffer_desc in_buffer(std::vector<uint8_t> &v) {
    return sec_buffer_desc{static_cast<qv_int32_t>(v.size()), v.empty() ? nullptr : v.data()};
}

struct SocketPair {
    int fd[2] = {-1, -1};
    SocketPair() {
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, fd) != 0) throw std::runtime_error("socketpair");
    }
    ~SocketPair() {
        for (int f : fd)
            if (f >= 0) close(f);
    }
};

// Framed messages over a stream socket, each wait bounded.
inline bool send_frame(int fd, const std::vector<uint8_t> &bytes) {
    uint32_t n = static_cast<uint32_t>(bytes.size());
    std::vector<uint8_t> out(reinterpret_cast<const uint8_t *>(&n), reinterpret_cast<const uint8_t *>(&n) + 4);
    out.insert(out.end(), bytes.begin(), bytes.end());
    size_t done = 0;
    while (done < out.size()) {
        ssize_t w = write(fd, out.data() + done, out.size() - done);
        if (w <= 0) return false;
        done += static_cast<size_t>(w);
    }
    return true;
}

inline bool read_exact(int fd, uint8_t *p, size_t n, int timeout_ms) {
    size_t done = 0;
    while (done < n) {
        pollfd pfd{fd, POLLIN, 0};
        if (poll(&pfd, 1, timeout_ms) != 1) return false;
        ssize_t r = read(fd, p + done, n - done);
        if (r <= 0) return false;
        done += static_cast<size_t>(r);
    }
    return true;
}

inline bool recv_frame(int fd, std::vector<uint8_t> &bytes, int timeout_ms = 10000) {
    uint32_t n;
    if (!read_exact(fd, reinterpret_cast<uint8_t *>(&n), 4, timeout_ms) || n > (1u << 24)) return false;
    bytes.resize(n);
    return n == 0 || read_exact(fd, bytes.data(), n, timeout_ms);
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

}  // namespace qvtest
