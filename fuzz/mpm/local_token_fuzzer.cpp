// Outside bytes the "local" module reads: the client's hello (service side),
// the service's reply (client side), sealed messages, signatures, the
// identity token of mpm_login_as_user, the "<user>@<host>" names of
// identity contexts, and the services file. The first byte picks the
// reader; the rest is the input (for the login token and the names, after an
// option byte that lets seeds name this host and this process's user on any
// machine). The token readers are
// called directly and through the module's routines, on contexts whose
// sockets are real, so every check after parsing runs too.
#include <sys/socket.h>
#include <unistd.h>

#include "../fuzz_support.h"
#include "local_mech.h"

namespace {

void *g_service;

struct Established {
    void *client = nullptr, *server = nullptr;
    int fd[2] = {-1, -1};
};

using qvfuzz::view;

// One context pair for the whole run, for the readers of established
// contexts (nothing random ever passes their checks, so it stays usable).
Established &pair() {
    static Established e = [] {
        Established p;
        qv_uint32_t minor = 0, rflags = 0;
        // Without a complete pair no input could reach the checks after
        // parsing: stop rather than run checks that cannot fail.
        sec_buffer_desc hello{0, nullptr}, reply{0, nullptr}, none{0, nullptr};
        mpm_init();
        bool ok = mpm_start(&minor, 0, &g_service) == 0 &&
                  socketpair(AF_UNIX, SOCK_STREAM, 0, p.fd) == 0;
        sec_socket_info_desc ci{p.fd[0], qvlocal::kSocketLocal, nullptr}, si{p.fd[1], qvlocal::kSocketLocal, nullptr};
        ok = ok && mpm_set_ctx_attribute(&minor, g_service, MPM_ATTR_SOCKET_INFO, &ci, &p.client) == 0 &&
             mpm_set_ctx_attribute(&minor, g_service, MPM_ATTR_SOCKET_INFO, &si, &p.server) == 0 &&
             mpm_start_sec_context(&minor, g_service, nullptr, nullptr, 0, &p.client, &hello) == qvlocal::kContinue &&
             mpm_receive_sec_context(&minor, g_service, &hello, &p.server, &reply, &rflags) == qvlocal::kOk &&
             mpm_complete_sec_context(&minor, &reply, p.client, &none) == qvlocal::kOk;
        if (!ok) {
            std::fprintf(stderr, "no established pair of local contexts (minor status %u)\n", minor);
            std::abort();
        }
        mpm_release_buffer(&minor, &hello);
        mpm_release_buffer(&minor, &reply);
        return p;
    }();
    return e;
}

// Option byte, bit 0: the token's uid becomes this process's; bit 1: this
// host's name is appended. Accepted exactly when the version is 1, the uid
// is the process's own and the host part is this host's name.
void login_token(const std::vector<uint8_t> &in) {
    if (in.empty()) return;
    std::vector<uint8_t> token(in.begin() + 1, in.end());
    const uint32_t own = qvlocal::own_credentials().uid;
    if ((in[0] & 1) && token.size() >= 5)
        for (int i = 0; i < 4; ++i) token[1 + i] = static_cast<uint8_t>(own >> (24 - 8 * i));
    if (in[0] & 2) token.insert(token.end(), qvlocal::host_name().begin(), qvlocal::host_name().end());
    sec_buffer_desc id = view<sec_buffer_desc>(token);
    qv_uint32_t minor = 0;
    qv_uint32_t rc = mpm_login_as_user(&minor, &id, nullptr, 0, g_service);
    qv_uint32_t want = qvlocal::kNotPermitted;
    if (token.size() < 9 || token[0] != 1) {
        want = qvlocal::kBadToken;
    } else {
        uint32_t uid = static_cast<uint32_t>(token[1]) << 24 | token[2] << 16 | token[3] << 8 | token[4];
        std::string host(token.begin() + 9, token.end());
        if (uid == own && host == qvlocal::host_name()) want = qvlocal::kOk;
    }
    if (rc != want) __builtin_trap();
}

// Option byte, bit 0: "@" and this host's name are appended. A name of
// another host is refused as such whatever the user part holds; a name that
// is accepted gives an identity context that answers with a network name
// of this host.
void name_of_identity(const std::vector<uint8_t> &in) {
    if (in.empty()) return;
    std::string name(in.begin() + 1, in.end());
    if (in[0] & 1) name += "@" + qvlocal::host_name();
    name.resize(strnlen(name.c_str(), name.size()));  // as a C string
    void *ctx = nullptr;
    qv_uint32_t minor = 0;
    qv_uint32_t rc = mpm_create_id_context(&minor, MPM_IDCTX_FROM_NAME, name.data(), &ctx);
    size_t at = name.rfind('@');
    bool this_host = at != std::string::npos && name.substr(at + 1) == qvlocal::host_name();
    if (name.empty() || name.size() > 4096) {
        if (rc != qvlocal::kBadArgument) __builtin_trap();
    } else if (!this_host) {
        if (rc != qvlocal::kUnknownName || minor != 3) __builtin_trap();
    } else if (rc != qvlocal::kOk && rc != qvlocal::kUnknownName) {
        __builtin_trap();
    }
    if ((rc == qvlocal::kOk) != (ctx != nullptr)) __builtin_trap();
    if (ctx == nullptr) return;
    char answer[8192];
    qv_int32_t len = sizeof answer;
    if (mpm_get_client_name(&minor, ctx, &len, answer) != qvlocal::kOk) __builtin_trap();
    std::string got(answer, strnlen(answer, sizeof answer));
    if (got.size() <= qvlocal::host_name().size() + 1 || got.substr(got.size() - qvlocal::host_name().size() - 1) != "@" + qvlocal::host_name())
        __builtin_trap();
    if (mpm_end_context(&minor, ctx) != qvlocal::kOk) __builtin_trap();
}

}  // namespace

QV_FUZZ_TARGET(SIZE_MAX) {
    if (size == 0) return;
    Established &p = pair();
    std::vector<uint8_t> in(data + 1, data + size);
    sec_buffer_desc buf = view<sec_buffer_desc>(in);
    qv_uint32_t minor = 0;
    switch (data[0] % 8) {
    case 0: {
        qvlocal::ClientHello h;
        (void)qvlocal::read_client_hello(in, h, &minor);
        void *ctx = nullptr;
        sec_socket_info_desc si{p.fd[1], qvlocal::kSocketLocal, nullptr};
        mpm_set_ctx_attribute(&minor, g_service, MPM_ATTR_SOCKET_INFO, &si, &ctx);
        sec_buffer_desc reply{0, nullptr};
        qv_uint32_t rflags;
        // A refused hello frees the context; an accepted one is ended here.
        if (mpm_receive_sec_context(&minor, g_service, &buf, &ctx, &reply, &rflags) == 0) mpm_end_context(&minor, ctx);
        mpm_release_buffer(&minor, &reply);
        break;
    }
    case 1: {
        qvlocal::ServerReply r;
        (void)qvlocal::read_server_reply(in, r, &minor);
        void *ctx = nullptr;
        sec_buffer_desc hello{0, nullptr}, none{0, nullptr};
        if (mpm_start_sec_context(&minor, g_service, nullptr, nullptr, 0, &ctx, &hello) == 1) {
            mpm_complete_sec_context(&minor, &buf, ctx, &none);
            mpm_release_buffer(&minor, &none);
        }
        mpm_release_buffer(&minor, &hello);
        mpm_end_context(&minor, ctx);
        break;
    }
    case 2:
    case 3: {
        sec_buffer_desc out{0, nullptr};
        mpm_process_data(&minor, data[0] % 8 == 2 ? p.server : p.client, &buf, &out);
        mpm_release_buffer(&minor, &out);
        break;
    }
    case 4: {
        iovec v{const_cast<uint8_t *>(data), size};
        mpm_verify_data_v(&minor, p.server, &buf, 1, &v);
        break;
    }
    case 5:
        login_token(in);
        break;
    case 6:
        name_of_identity(in);
        break;
    case 7: {
        std::vector<std::string> users;
        bool listed;
        (void)qvlocal::parse_services({reinterpret_cast<const char *>(in.data()), in.size()}, "svc", users, &listed);
        break;
    }
    }
}
