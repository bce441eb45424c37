// The scriptable mechanism module of the project's tests. Every routine does
// something plausible by default (handles, output buffers, names with the
// buffer-size protocol, signatures that verify) and can be told by the test,
// through test_mpm_control.h, what statuses to return, what bytes to produce,
// how many "continue" rounds to make and whether to block until released.
// Built in variants: QVTEST_NO_GET_CTX_FLAGS leaves out mpm_get_ctx_flags,
// QVTEST_NO_INIT leaves out mpm_init.
#include <cstdint>
#include <fcntl.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <unistd.h>
#include <utility>

#include "qv_sec_mpm.h"
#include "test_mpm_control.h"

#define QVTEST_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

qvtest_mpm_control_t g_control;
std::mutex g_mutex;
int g_blocked;
int g_released;
long g_live_handles;
long g_live_buffers;

const std::pair<int, const char *> kDefaultNames[] = {
    {QVTEST_MPM_GET_TARGET_NAME, "qvtest-target"}, {QVTEST_MPM_GET_CLIENT_NAME, "qvtest_client@example"},
    {QVTEST_MPM_GET_MAPPED_NAME, "qvtest_user"},   {QVTEST_MPM_GET_CLIENT_ID, "qvtest-client-id"},
    {QVTEST_MPM_GET_CTX_MPM, "qvtest"},
};

void reset_all() {
    std::memset(&g_control, 0, sizeof g_control);
    for (int r = 0; r < QVTEST_MPM_ROUTINES; ++r) {
        g_control.behaviour[r].output_len = -1;
        g_control.behaviour[r].name_len = -1;
        g_control.record[r].in_len = -1;
    }
    for (const auto &[r, name] : kDefaultNames) std::strcpy(g_control.behaviour[r].name, name);
    __atomic_store_n(&g_released, 0, __ATOMIC_RELEASE);
}

// Sets defaults before any test touches the module.
struct Defaults {
    Defaults() { reset_all(); }
} g_defaults;

uintptr_t as_arg(const void *p) { return reinterpret_cast<uintptr_t>(p); }
uintptr_t as_arg(qv_uint32_t v) { return v; }
uintptr_t as_arg(qv_int32_t v) { return static_cast<uintptr_t>(static_cast<intptr_t>(v)); }

struct BlockNow {};  // a routine with no input to record: blocks (when told to) at once
constexpr BlockNow kBlockNow;

// One call in progress: counts it, records its arguments, and snapshots the
// behaviour under the mutex so that concurrent calls see a consistent copy.
class Call {
public:
    template <typename... A>
    Call(BlockNow, int routine, qv_uint32_t *min_stat, A... args) : Call(routine, min_stat, args...) {
        maybe_block();
    }
    template <typename... A>
    Call(int routine, qv_uint32_t *min_stat, A... args) : r_(routine) {
        std::lock_guard<std::mutex> g(g_mutex);
        qvtest_mpm_call_t &rec = g_control.record[r_];
        __atomic_fetch_add(&rec.calls, 1, __ATOMIC_ACQ_REL);
        rec.nargs = sizeof...(A);
        uintptr_t values[] = {as_arg(args)..., 0};
        std::memcpy(rec.args, values, sizeof(uintptr_t) * sizeof...(A));
        rec.in_len = -1;
        rec.str[0][0] = rec.str[1][0] = '\0';
        b_ = g_control.behaviour[r_];
        qvtest_mpm_behaviour_t &live = g_control.behaviour[r_];
        if (live.continue_rounds > 0) {
            live.continue_rounds -= 1;
            continuing_ = true;
        }
        if (min_stat != nullptr) *min_stat = b_.min_stat;
    }
    void input(const void *bytes, qv_int32_t len) {
        std::lock_guard<std::mutex> g(g_mutex);
        qvtest_mpm_call_t &rec = g_control.record[r_];
        rec.in_len = len;
        if (bytes != nullptr && len > 0)
            std::memcpy(rec.in, bytes, len < QVTEST_MPM_MAX_BYTES ? static_cast<size_t>(len) : QVTEST_MPM_MAX_BYTES);
    }
    void string(int slot, const char *s) {
        std::lock_guard<std::mutex> g(g_mutex);
        std::snprintf(g_control.record[r_].str[slot], sizeof g_control.record[r_].str[slot], "%s",
                      s != nullptr ? s : "(null)");
    }
    // Blocks when told to; usleep is a cancellation point, and the counter
    // of blocked threads is repaired if the thread is cancelled here.
    void maybe_block() {
        if (!b_.block) return;
        struct Blocked {
            Blocked() { __atomic_fetch_add(&g_blocked, 1, __ATOMIC_ACQ_REL); }
            ~Blocked() { __atomic_fetch_sub(&g_blocked, 1, __ATOMIC_ACQ_REL); }
        } blocked;
        while (!__atomic_load_n(&g_released, __ATOMIC_ACQUIRE)) usleep(1000);
    }
    // The major status: 1 during continue rounds, else the scripted one.
    qv_uint32_t status() const { return continuing_ ? MPM_S_CONTINUE : b_.maj_stat; }
    // Status 1 is "continue" only for the context-establishment routines;
    // elsewhere it is a failure like any other.
    bool fails() const {
        bool context = r_ == QVTEST_MPM_START_SEC_CONTEXT || r_ == QVTEST_MPM_COMPLETE_SEC_CONTEXT ||
                       r_ == QVTEST_MPM_RECEIVE_SEC_CONTEXT;
        return status() != 0 && !(context && status() == MPM_S_CONTINUE);
    }
    const qvtest_mpm_behaviour_t &behaviour() const { return b_; }

    // Output bytes: the scripted ones, or the default.
    void output(sec_buffer_t out, const char *dflt) const {
        if (out == nullptr) return;
        const void *src = dflt;
        size_t len = std::strlen(dflt);
        if (b_.output_len >= 0) {
            src = b_.output;
            len = static_cast<size_t>(b_.output_len);
        }
        fill(out, src, len);
        if (b_.claim_len != 0 && out->value != nullptr) out->length = b_.claim_len;
    }
    // False when there was no memory for the bytes.
    static bool fill(sec_buffer_t out, const void *src, size_t len) {
        out->length = 0;
        out->value = nullptr;
        if (len == 0) return true;
        void *p = malloc(len);
        if (p == nullptr) return false;
        std::memcpy(p, src, len);
        out->value = p;
        out->length = static_cast<qv_int32_t>(len);
        __atomic_fetch_add(&g_live_buffers, 1, __ATOMIC_ACQ_REL);
        return true;
    }

private:
    int r_;
    qvtest_mpm_behaviour_t b_;
    bool continuing_ = false;
};

void *new_handle() {
    auto *h = static_cast<qvtest_mpm_handle_t *>(calloc(1, sizeof(qvtest_mpm_handle_t)));
    if (h == nullptr) return nullptr;
    h->magic = QVTEST_MPM_HANDLE_MAGIC;
    __atomic_fetch_add(&g_live_handles, 1, __ATOMIC_ACQ_REL);
    return h;
}

void free_handle(void *p) {
    auto *h = static_cast<qvtest_mpm_handle_t *>(p);
    if (h == nullptr || h->magic != QVTEST_MPM_HANDLE_MAGIC) return;
    std::memset(h, 0, sizeof *h);
    free(h);
    __atomic_fetch_sub(&g_live_handles, 1, __ATOMIC_ACQ_REL);
}

// The buffer-size protocol: at most *length bytes into name; *length is set
// to the size of the answer; a short buffer gets MPM_S_BUFFER_TOO_SMALL.
qv_uint32_t answer_name(const Call &c, qv_int32_t *length, char *name, bool raw) {
    if (c.fails()) return c.status();
    const qvtest_mpm_behaviour_t &b = c.behaviour();
    qv_int32_t n = b.name_len >= 0 ? b.name_len : static_cast<qv_int32_t>(std::strlen(b.name) + (raw ? 0 : 1));
    if (n > QVTEST_MPM_MAX_BYTES) n = QVTEST_MPM_MAX_BYTES;
    if (length == nullptr) return 0;
    if (n > *length) {
        *length = n;
        return MPM_S_BUFFER_TOO_SMALL;
    }
    if (name != nullptr && n > 0) std::memcpy(name, b.name, static_cast<size_t>(n));
    *length = n;
    return 0;
}

// FNV-1a over the byte ranges, as eight big-endian bytes.
void digest(qv_int32_t count, const struct iovec *vector, unsigned char out[8]) {
    uint64_t h = 0xcbf29ce484222325ull;
    for (qv_int32_t i = 0; vector != nullptr && i < count; ++i) {
        const auto *p = static_cast<const unsigned char *>(vector[i].iov_base);
        for (size_t j = 0; p != nullptr && j < vector[i].iov_len; ++j) h = (h ^ p[j]) * 0x100000001b3ull;
    }
    for (int i = 7; i >= 0; --i, h >>= 8) out[i] = static_cast<unsigned char>(h);
}

constexpr unsigned char kSealTag[4] = {'Q', 'V', 'T', 'P'};
constexpr unsigned char kSealMask = 0x5a;

}  // namespace

QVTEST_EXPORT qvtest_mpm_control_t *qvtest_mpm_control(void) { return &g_control; }

QVTEST_EXPORT void qvtest_mpm_reset(void) {
    std::lock_guard<std::mutex> g(g_mutex);
    reset_all();
}

QVTEST_EXPORT void qvtest_mpm_release(void) { __atomic_store_n(&g_released, 1, __ATOMIC_RELEASE); }
QVTEST_EXPORT int qvtest_mpm_blocked(void) { return __atomic_load_n(&g_blocked, __ATOMIC_ACQUIRE); }
QVTEST_EXPORT unsigned long qvtest_mpm_calls(int routine) {
    if (routine < 0 || routine >= QVTEST_MPM_ROUTINES) return 0;
    return __atomic_load_n(&g_control.record[routine].calls, __ATOMIC_ACQUIRE);
}
QVTEST_EXPORT long qvtest_mpm_live_handles(void) { return __atomic_load_n(&g_live_handles, __ATOMIC_ACQUIRE); }
QVTEST_EXPORT long qvtest_mpm_live_buffers(void) { return __atomic_load_n(&g_live_buffers, __ATOMIC_ACQUIRE); }

#ifndef QVTEST_NO_INIT
void mpm_init(void) {
    Call c(kBlockNow, QVTEST_MPM_INIT, nullptr);
    // Leaves a trace on disk for tests that run the library in another
    // process (a set-user-id program): the file exists once this ran.
    if (const char *marker = getenv("QVTEST_MPM_INIT_MARKER")) {
        int fd = open(marker, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        if (fd >= 0) close(fd);
    }
}
#endif

qv_uint32_t mpm_start(qv_uint32_t *min_stat, qv_uint32_t flags, void **token) {
    Call c(kBlockNow, QVTEST_MPM_START, min_stat, flags, token);
    if (c.fails()) return c.status();
    if (token != nullptr) *token = new_handle();
    return 0;
}

qv_uint32_t mpm_end(qv_uint32_t *min_stat, qv_uint32_t flags, void *token) {
    Call c(kBlockNow, QVTEST_MPM_END, min_stat, flags, token);
    free_handle(token);
    return c.status();
}

qv_uint32_t mpm_set_ctx_attribute(qv_uint32_t *min_stat, void *svc_tkn, qv_uint32_t attr, void *data,
                                  void **ctx_tkn) {
    Call c(kBlockNow, QVTEST_MPM_SET_CTX_ATTRIBUTE, min_stat, svc_tkn, attr, data, ctx_tkn);
    if (c.fails()) return c.status();
    if (ctx_tkn != nullptr && *ctx_tkn == nullptr) *ctx_tkn = new_handle();
    return 0;
}

qv_uint32_t mpm_service_cleanup(qv_uint32_t *min_stat, void *token, qv_uint32_t flags) {
    Call c(kBlockNow, QVTEST_MPM_SERVICE_CLEANUP, min_stat, token, flags);
    return c.status();
}

qv_uint32_t mpm_start_sec_context(qv_uint32_t *min_stat, void *sec_token, char *trg_svc, char *trg_host,
                                  qv_uint32_t flags, void **ctx_token, sec_buffer_t cbuff) {
    Call c(QVTEST_MPM_START_SEC_CONTEXT, min_stat, sec_token, trg_svc, trg_host, flags, ctx_token, cbuff);
    c.string(0, trg_svc);
    c.string(1, trg_host);
    c.maybe_block();
    if (c.fails()) return c.status();
    if (ctx_token != nullptr && *ctx_token == nullptr) *ctx_token = new_handle();
    c.output(cbuff, "qvtest-client-token");
    return c.status();
}

qv_uint32_t mpm_get_target_name(qv_uint32_t *min_stat, void *token, char *service, char *host,
                                qv_int32_t *length, char *name) {
    Call c(QVTEST_MPM_GET_TARGET_NAME, min_stat, token, service, host, length, name);
    c.string(0, service);
    c.string(1, host);
    c.maybe_block();
    return answer_name(c, length, name, false);
}

qv_uint32_t mpm_complete_sec_context(qv_uint32_t *min_stat, sec_buffer_t sbuff, void *token, sec_buffer_t cbuff) {
    Call c(QVTEST_MPM_COMPLETE_SEC_CONTEXT, min_stat, sbuff, token, cbuff);
    if (sbuff != nullptr) c.input(sbuff->value, sbuff->length);
    c.maybe_block();
    if (cbuff != nullptr) {
        cbuff->length = 0;
        cbuff->value = nullptr;
    }
    if (c.fails()) return c.status();
    // Output only while the exchange goes on, unless scripted.
    if (c.status() == MPM_S_CONTINUE || c.behaviour().output_len >= 0) c.output(cbuff, "qvtest-client-more");
    return c.status();
}

qv_uint32_t mpm_get_ctx_lifetime(qv_uint32_t *min_stat, void *token, qv_int32_t *lifetime) {
    Call c(kBlockNow, QVTEST_MPM_GET_CTX_LIFETIME, min_stat, token, lifetime);
    if (c.fails()) return c.status();
    if (lifetime != nullptr) *lifetime = static_cast<qv_int32_t>(c.behaviour().value);
    return 0;
}

#ifndef QVTEST_NO_GET_CTX_FLAGS
qv_uint32_t mpm_get_ctx_flags(qv_uint32_t *min_stat, void *token, qv_uint32_t *flags) {
    Call c(kBlockNow, QVTEST_MPM_GET_CTX_FLAGS, min_stat, token, flags);
    if (c.fails()) return c.status();
    if (flags != nullptr) *flags = c.behaviour().value;
    return 0;
}
#endif

qv_uint32_t mpm_prepare_data(qv_uint32_t *min_stat, void *token, qv_uint32_t flags, sec_buffer_t in,
                             sec_buffer_t out) {
    Call c(QVTEST_MPM_PREPARE_DATA, min_stat, token, flags, in, out);
    if (in != nullptr) c.input(in->value, in->length);
    c.maybe_block();
    if (c.fails()) return c.status();
    if (c.behaviour().output_len >= 0) {
        c.output(out, "");
        return 0;
    }
    // The tag, then the input with every byte masked: mpm_process_data undoes it.
    size_t n = in != nullptr && in->value != nullptr && in->length > 0 ? static_cast<size_t>(in->length) : 0;
    auto *tmp = static_cast<unsigned char *>(malloc(sizeof kSealTag + n));
    if (tmp == nullptr) return 6;
    std::memcpy(tmp, kSealTag, sizeof kSealTag);
    for (size_t i = 0; i < n; ++i) tmp[sizeof kSealTag + i] = static_cast<const unsigned char *>(in->value)[i] ^ kSealMask;
    bool filled = Call::fill(out, tmp, sizeof kSealTag + n);
    free(tmp);
    return filled ? 0 : 6;
}

qv_uint32_t mpm_process_data(qv_uint32_t *min_stat, void *token, sec_buffer_t in, sec_buffer_t out) {
    Call c(QVTEST_MPM_PROCESS_DATA, min_stat, token, in, out);
    if (in != nullptr) c.input(in->value, in->length);
    c.maybe_block();
    if (c.fails()) return c.status();
    if (c.behaviour().output_len >= 0) {
        c.output(out, "");
        return 0;
    }
    if (in == nullptr || in->value == nullptr || in->length < static_cast<qv_int32_t>(sizeof kSealTag) ||
        std::memcmp(in->value, kSealTag, sizeof kSealTag) != 0) {
        if (min_stat != nullptr) *min_stat = 1;
        return 0x10;  // not sealed by this module
    }
    size_t n = static_cast<size_t>(in->length) - sizeof kSealTag;
    auto *tmp = static_cast<unsigned char *>(malloc(n + 1));
    if (tmp == nullptr) return 6;
    for (size_t i = 0; i < n; ++i) tmp[i] = static_cast<const unsigned char *>(in->value)[sizeof kSealTag + i] ^ kSealMask;
    bool filled = Call::fill(out, tmp, n);
    free(tmp);
    return filled ? 0 : 6;
}

qv_uint32_t mpm_end_context(qv_uint32_t *min_stat, void *token) {
    Call c(kBlockNow, QVTEST_MPM_END_CONTEXT, min_stat, token);
    free_handle(token);
    return c.status();
}

qv_uint32_t mpm_login_as_service(qv_uint32_t *min_stat, char *svc_name, void *token) {
    Call c(QVTEST_MPM_LOGIN_AS_SERVICE, min_stat, svc_name, token);
    c.string(0, svc_name);
    c.maybe_block();
    return c.status();
}

qv_uint32_t mpm_login_as_user(qv_uint32_t *min_stat, sec_buffer_t id, void *authenticator, qv_uint32_t flags,
                              void *token) {
    Call c(QVTEST_MPM_LOGIN_AS_USER, min_stat, id, authenticator, flags, token);
    if (id != nullptr) c.input(id->value, id->length);
    c.maybe_block();
    return c.status();
}

qv_uint32_t mpm_renew_identity(qv_uint32_t *min_stat, void *token, qv_int32_t *lifetime) {
    Call c(kBlockNow, QVTEST_MPM_RENEW_IDENTITY, min_stat, token, lifetime);
    if (c.fails()) return c.status();
    if (lifetime != nullptr) *lifetime = static_cast<qv_int32_t>(c.behaviour().value);
    return 0;
}

qv_uint32_t mpm_receive_sec_context(qv_uint32_t *min_stat, void *svc_tkn, sec_buffer_t cbuff, void **ctx_tkn,
                                    sec_buffer_t sbuff, qv_uint32_t *rflags) {
    Call c(QVTEST_MPM_RECEIVE_SEC_CONTEXT, min_stat, svc_tkn, cbuff, ctx_tkn, sbuff, rflags);
    if (cbuff != nullptr) c.input(cbuff->value, cbuff->length);
    c.maybe_block();
    if (sbuff != nullptr) {
        sbuff->length = 0;
        sbuff->value = nullptr;
    }
    if (c.fails()) return c.status();
    if (ctx_tkn != nullptr && *ctx_tkn == nullptr) *ctx_tkn = new_handle();
    if (rflags != nullptr) *rflags = c.behaviour().value;
    c.output(sbuff, "qvtest-server-token");
    return c.status();
}

qv_uint32_t mpm_get_client_name(qv_uint32_t *min_stat, void *token, qv_int32_t *name_len, char *name) {
    Call c(kBlockNow, QVTEST_MPM_GET_CLIENT_NAME, min_stat, token, name_len, name);
    return answer_name(c, name_len, name, false);
}

qv_uint32_t mpm_get_mapped_name(qv_uint32_t *min_stat, void *token, qv_int32_t *name_len, char *name) {
    Call c(kBlockNow, QVTEST_MPM_GET_MAPPED_NAME, min_stat, token, name_len, name);
    return answer_name(c, name_len, name, false);
}

qv_uint32_t mpm_get_client_id(qv_uint32_t *min_stat, void *token, qv_int32_t *id_len, char *id) {
    Call c(kBlockNow, QVTEST_MPM_GET_CLIENT_ID, min_stat, token, id_len, id);
    return answer_name(c, id_len, id, true);
}

qv_uint32_t mpm_release_buffer(qv_uint32_t *min_stat, sec_buffer_t buff) {
    Call c(kBlockNow, QVTEST_MPM_RELEASE_BUFFER, min_stat, buff);
    if (buff != nullptr) {
        if (buff->value != nullptr) {
            free(buff->value);
            __atomic_fetch_sub(&g_live_buffers, 1, __ATOMIC_ACQ_REL);
        }
        buff->value = nullptr;
        buff->length = 0;
    }
    return c.status();
}

qv_uint32_t mpm_create_id_context(qv_uint32_t *min_stat, qv_uint32_t flags, void *in, void **id_ctx) {
    Call c(QVTEST_MPM_CREATE_ID_CONTEXT, min_stat, flags, in, id_ctx);
    if (flags == MPM_IDCTX_FROM_NAME) c.string(0, static_cast<const char *>(in));
    c.maybe_block();
    if (c.fails()) return c.status();
    if (id_ctx != nullptr) *id_ctx = new_handle();
    return 0;
}

qv_uint32_t mpm_sign_data_v(qv_uint32_t *min_stat, void *token, qv_int32_t count, struct iovec *vector,
                            sec_buffer_t signature) {
    Call c(kBlockNow, QVTEST_MPM_SIGN_DATA_V, min_stat, token, count, vector, signature);
    if (c.fails()) return c.status();
    if (c.behaviour().output_len >= 0) {
        c.output(signature, "");
        return 0;
    }
    unsigned char sig[8];
    digest(count, vector, sig);
    return Call::fill(signature, sig, sizeof sig) ? 0 : 6;
}

qv_uint32_t mpm_verify_data_v(qv_uint32_t *min_stat, void *token, sec_buffer_t signature, qv_int32_t count,
                              struct iovec *vector) {
    Call c(QVTEST_MPM_VERIFY_DATA_V, min_stat, token, signature, count, vector);
    if (signature != nullptr) c.input(signature->value, signature->length);
    c.maybe_block();
    if (c.fails()) return c.status();
    unsigned char sig[8];
    digest(count, vector, sig);
    if (signature == nullptr || signature->length != static_cast<qv_int32_t>(sizeof sig) ||
        signature->value == nullptr || std::memcmp(signature->value, sig, sizeof sig) != 0)
        return MPM_S_BAD_SIGNATURE;
    return 0;
}

qv_uint32_t mpm_get_ctx_mpm(qv_uint32_t *min_stat, void *token, char *mpm) {
    Call c(kBlockNow, QVTEST_MPM_GET_CTX_MPM, min_stat, token, mpm);
    if (c.fails()) return c.status();
    if (mpm != nullptr) {
        size_t n = strnlen(c.behaviour().name, 16);
        std::memcpy(mpm, c.behaviour().name, n);
        mpm[n] = '\0';
    }
    return 0;
}

qv_uint32_t mpm_user_valid(qv_uint32_t *min_stat, void *token, char *username) {
    Call c(QVTEST_MPM_USER_VALID, min_stat, token, username);
    c.string(0, username);
    c.maybe_block();
    return c.status();
}
