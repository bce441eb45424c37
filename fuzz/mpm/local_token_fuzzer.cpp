// Outside bytes the "local" module reads: the client's hello (service side),
// the service's reply (client side), sealed messages, signatures and the
// services file. The
// first byte picks the reader; the rest is the input. The token readers are
// called directly and through the module's routines, on contexts whose
// sockets are real, so every check after parsing runs too.
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "local_mech.h"

namespace {

void *g_service;

struct Established {
    void *client = nullptr, *server = nullptr;
    int fd[2] = {-1, -1};
};

sec_buffer_desc as_buffer(const std::vector<uint8_t> &v) {
    return sec_buffer_desc{static_cast<qv_int32_t>(v.size()), v.empty() ? nullptr : const_cast<uint8_t *>(v.data())};
}

// One context pair for the whole run, for the readers of established
// contexts (nothing random ever passes their checks, so it stays usable).
Established &pair() {
    static Established e = [] {
        Established p;
        qv_uint32_t minor, rflags;
        mpm_init();
        mpm_start(&minor, 0, &g_service);
        socketpair(AF_UNIX, SOCK_STREAM, 0, p.fd);
        sec_socket_info_desc ci{p.fd[0], qvlocal::kSocketLocal, nullptr}, si{p.fd[1], qvlocal::kSocketLocal, nullptr};
        mpm_set_ctx_attribute(&minor, g_service, MPM_ATTR_SOCKET_INFO, &ci, &p.client);
        mpm_set_ctx_attribute(&minor, g_service, MPM_ATTR_SOCKET_INFO, &si, &p.server);
        sec_buffer_desc hello{0, nullptr}, reply{0, nullptr}, none{0, nullptr};
        mpm_start_sec_context(&minor, g_service, nullptr, nullptr, 0, &p.client, &hello);
        mpm_receive_sec_context(&minor, g_service, &hello, &p.server, &reply, &rflags);
        mpm_complete_sec_context(&minor, &reply, p.client, &none);
        mpm_release_buffer(&minor, &hello);
        mpm_release_buffer(&minor, &reply);
        return p;
    }();
    return e;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    Established &p = pair();
    const std::vector<uint8_t> in(data + 1, data + size);
    sec_buffer_desc buf = as_buffer(in);
    qv_uint32_t minor = 0;
    switch (data[0] % 6) {
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
        mpm_process_data(&minor, data[0] % 6 == 2 ? p.server : p.client, &buf, &out);
        mpm_release_buffer(&minor, &out);
        break;
    }
    case 4: {
        iovec v{const_cast<uint8_t *>(data), size};
        mpm_verify_data_v(&minor, p.server, &buf, 1, &v);
        break;
    }
    case 5: {
        std::vector<std::string> users;
        bool listed;
        (void)qvlocal::parse_services({reinterpret_cast<const char *>(in.data()), in.size()}, "svc", users, &listed);
        break;
    }
    }
    return 0;
}
