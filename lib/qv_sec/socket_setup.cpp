// sec_setup_socket: a context token for a caller's socket; a local socket
// that is not bound yet is bound to a path unique to process, thread and time.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "errors.h"
#include "library_init.h"
#include "trace.h"

namespace {

// The longest directory prefix: with the 35 characters appended the path
// still fits in sun_path.
constexpr size_t kMaxPrefix = 68;
constexpr qv_uint32_t kPathBoundByLibrary = 0x80000000u;

bool valid_flags(qv_uint32_t flags, const void *arg) {
    bool local = (flags & SEC_F_LOCAL_SOCKET) != 0;
    bool network = (flags & SEC_F_NETWORK_SOCKET) != 0;
    if (local == network) return false;
    if (local && (flags & SEC_F_SOCKET_BOUND) == 0) {
        if (arg == nullptr) return false;
        size_t len = strnlen(static_cast<const char *>(arg), kMaxPrefix + 1);
        if (len == 0 || len > kMaxPrefix) return false;
    }
    return true;
}

void discard_context(sec_ctx_token_t c) {
    free(c->sinfo.path);
    std::memset(static_cast<void *>(c), 0, sizeof *c);
    free(c);
}

qv_uint32_t prepare_local_socket(sec_ctx_token_t c, int sockfd, qv_uint32_t flags, void *arg) {
    struct sockaddr_storage addr;
    socklen_t len = sizeof addr;
    std::memset(&addr, 0, sizeof addr);
    if (getsockname(sockfd, reinterpret_cast<struct sockaddr *>(&addr), &len) != 0 ||
        (addr.ss_family != AF_UNSPEC && addr.ss_family != AF_UNIX))
        return sec_report(SEC_S_SOCKET, MSG_2650_008);
    if (flags & SEC_F_SOCKET_BOUND) return 0;
    qv_uint32_t rc = sec__bind_unix_socket(sockfd, static_cast<char *>(arg), &c->sinfo.path);
    if (rc == 0) c->sinfo.type |= kPathBoundByLibrary;
    return rc;
}

qv_int32_t setup_socket(sec_token_t stoken, int sockfd, qv_uint32_t flags, void *arg, sec_token_t *ctokenp) {
    if (stoken == nullptr || ctokenp == nullptr)
        return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_002, "sec_setup_socket");
    if (sockfd < 0) return sec_report(SEC_S_SOCKET, MSG_2650_008);
    if (!valid_flags(flags, arg)) return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_002, "sec_setup_socket");
    if (static_cast<sec_svc_token_t>(stoken)->magic != SEC_SVC_TOKEN_MAGIC)
        return sec_report(SEC_S_BAD_TOKEN, MSG_2650_003);

    *ctokenp = nullptr;
    auto *c = static_cast<sec_ctx_token_t>(calloc(1, sizeof(sec_ctx_token_desc)));
    if (c == nullptr) return sec_report(SEC_S_NO_MEMORY, MSG_2650_004);
    std::memcpy(&c->magic, "tnoc", sizeof c->magic);
    c->svc_token = stoken;
    c->sinfo.fd = sockfd;
    c->sinfo.type = flags;
    *ctokenp = c;

    qv_uint32_t rc = 0;
    if (flags & SEC_F_LOCAL_SOCKET) rc = prepare_local_socket(c, sockfd, flags, arg);
    if (rc != 0) {
        // A path already bound stays bound; only the token goes.
        discard_context(c);
        *ctokenp = nullptr;
        return static_cast<qv_int32_t>(rc);
    }
    c->state = SEC_CTX_S_SOCKET;
    return 0;
}

}  // namespace

extern "C" {

qv_uint32_t sec__bind_unix_socket(int sockfd, char *path, char **rpath) {
    struct sockaddr_un addr;
    std::memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;

    qv_uint64_t ctr = 0, rate = 0;
    cu_timeinfo_t ti{};
    cu_get_ctr_1(&ctr);
    cu_get_procspeed_1(&rate);
    cu_cvt_time_1(ctr, rate, &ti);

    int n = std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s%s%x%x%08x%08x", path, "sec",
                          static_cast<unsigned>(getpid()),
                          static_cast<unsigned>(reinterpret_cast<uintptr_t>(pthread_self())),
                          static_cast<unsigned>(ti.cu_sec), static_cast<unsigned>(ti.cu_nsec));
    // A prefix too long for sun_path would bind a truncated path.
    if (n < 0 || static_cast<size_t>(n) >= sizeof addr.sun_path)
        return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_002, "sec__bind_unix_socket");

    socklen_t len = static_cast<socklen_t>(std::strlen(addr.sun_path) + sizeof addr.sun_family);
    if (bind(sockfd, reinterpret_cast<struct sockaddr *>(&addr), len) != 0) return sec_report(SEC_S_SOCKET, MSG_2650_008);
    *rpath = strdup(addr.sun_path);
    if (*rpath == nullptr) return sec_report(SEC_S_NO_MEMORY, MSG_2650_004);
    return 0;
}

qv_int32_t sec_setup_socket(sec_token_t stoken, int sockfd, qv_uint32_t flags, void *arg, sec_token_t *ctokenp) {
    sec_init_once();
    sec_trace_api_entry(kTraceSetupSocket, stoken, sockfd, flags, arg, ctokenp);
    qv_int32_t rc = setup_socket(stoken, sockfd, flags, arg, ctokenp);
    sec_trace_api_exit(kTraceSetupSocket, rc, nullptr);
    return rc;
}

}  // extern "C"
