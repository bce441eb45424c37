// The context token behind a security or identity context handle: allocation,
// the validity tests the context routines share, and destruction. Also the
// small RAII helpers of the context routines: keeping the caller's error
// across clean-up calls, and owning module output and library buffers until
// they are handed over.
#pragma once

#include <cstdlib>
#include <utility>

#include "qv_cu.h"
#include "qv_sec_internal.h"
#include "qv_sec_mpm.h"

// Service token state bits.
inline constexpr qv_uint32_t kSvcStarted = SEC_SVC_S_STARTED;
inline constexpr qv_uint32_t kSvcLoginAsService = SEC_SVC_S_LOGIN_AS_SERVICE;
inline constexpr qv_uint32_t kSvcRefuseUnauth = SEC_SVC_S_REFUSE_UNAUTH;

// Mechanism-data state bits.
inline constexpr qv_uint32_t kMechStarted = SEC_MECH_S_STARTED;
inline constexpr qv_uint32_t kMechServerLogin = SEC_MECH_S_SERVER_LOGIN;
inline constexpr qv_uint32_t kMechClientLogin = SEC_MECH_S_CLIENT_LOGIN;

inline constexpr int kContextVersion = 2;  // the CCDB and seal-buffer version this library writes
inline constexpr unsigned char kMaxSeqNo = 255;

inline bool sec_ctx_has_magic(const void *token) {
    return token != nullptr && static_cast<const sec_ctx_token_desc *>(token)->magic == SEC_CTX_TOKEN_MAGIC;
}

// Complete (established, authenticated or not) and a context token.
inline bool sec_ctx_usable(const void *token) {
    return sec_ctx_has_magic(token) && (static_cast<const sec_ctx_token_desc *>(token)->state & SEC_CTX_S_COMPLETE);
}

// A service token's state word. sec_login_as_service sets a bit in it while
// context routines of other threads read it without the token's mutex, so
// both sides go through atomics.
inline qv_uint32_t sec_svc_state(const sec_svc_token_desc *svc) { return __atomic_load_n(&svc->state, __ATOMIC_ACQUIRE); }
inline void sec_svc_state_set(sec_svc_token_desc *svc, qv_uint32_t bits) {
    __atomic_fetch_or(&svc->state, bits, __ATOMIC_ACQ_REL);
}

// A service token from sec_start that has not been ended.
inline bool sec_svc_usable(const void *token) {
    auto *svc = static_cast<const sec_svc_token_desc *>(token);
    return svc != nullptr && svc->magic == SEC_SVC_TOKEN_MAGIC && (sec_svc_state(svc) & kSvcStarted);
}

// A zero-filled context token with the magic written and svc_token set; NULL
// when there is no memory.
sec_ctx_token_t sec_ctx_allocate(sec_token_t svc);

// Ends the context's module context, if it has one, and forgets the module
// handle. The caller's error record and status record are kept as they were.
void sec_ctx_end_module_context(sec_ctx_token_t c, sec_status_t st);

// Frees everything the record owns (the socket path, removing the socket
// file when the library bound it; the privilege set), then zero-fills and
// frees the record. The module context is not touched.
void sec_ctx_free(sec_ctx_token_t c);

// Destroys a context after a failure: ends its module context keeping the
// caller's error and status, frees the token and sets *ctokenp to NULL.
void sec_ctx_discard(sec_token_t *ctokenp, sec_status_t st);

// The service's mechanism data for entry (added when missing), the module
// started for the service with the service's flags when it was not yet. The
// caller holds svc->lock.
qv_int32_t sec_svc_started_mech_data(sec_svc_token_t svc, sec_mpm_entry_t entry, sec_status_t st,
                                     sec_mech_data_t *rec);

// Makes sure the module is started for the service (with the service's
// flags) and, when the service asked for its own identity, logged in as the
// service, under the service token's mutex; *rec is the service's
// mechanism data for the module. The login runs when the record lacks
// kMechClientLogin and sets login_bit on success: a client context sets
// kMechClientLogin, so it logs in once; a server context sets
// kMechServerLogin, so every new server context logs in again.
qv_int32_t sec_ctx_prepare_module(sec_svc_token_t svc, sec_mpm_entry_t entry, sec_status_t st,
                                  qv_uint32_t login_bit, sec_mech_data_t *rec);

// The failure of a service login that a token asked for but cannot make:
// sec_login_as_service found no memory for the name and left the request
// set. No module is ever asked to log in without a name; the contexts of
// such a token fail instead of going on without the service's identity.
qv_int32_t sec_no_service_name();

// Saves the thread's error record and the caller's status record, and puts
// both back when it goes out of scope: clean-up calls made after a failure
// then leave the first failure as the caller's.
class SecErrorKeeper {
public:
    explicit SecErrorKeeper(sec_status_t st) : st_(st) {
        cu_get_error_1(&saved_);
        if (st_ != nullptr) status_ = *st_;
    }
    ~SecErrorKeeper() {
        if (saved_ != nullptr) cu_pset_error_1(saved_);
        cu_rel_error_1(saved_);
        if (st_ != nullptr) *st_ = status_;
    }
    SecErrorKeeper(const SecErrorKeeper &) = delete;
    SecErrorKeeper &operator=(const SecErrorKeeper &) = delete;

private:
    sec_status_t st_;
    sec_status_desc status_{};
    cu_error_t *saved_ = nullptr;
};

// A buffer produced by a module routine, given back to the module when it
// goes out of scope.
class MpmOutput {
public:
    explicit MpmOutput(sec_mpm_entry_t entry) : entry_(entry) {}
    ~MpmOutput() { release(); }
    MpmOutput(const MpmOutput &) = delete;
    MpmOutput &operator=(const MpmOutput &) = delete;

    sec_buffer_t get() { return &buf_; }
    // No output at all. A negative length or bytes counted at NULL are not
    // "no output" but a corrupt buffer, which the wrap refuses.
    bool empty() const { return buf_.length == 0; }
    void release() {
        if (buf_.value != nullptr) sec__mpm_release_buffer(entry_, &buf_);
        buf_ = sec_buffer_desc{0, nullptr};
    }

private:
    sec_mpm_entry_t entry_;
    sec_buffer_desc buf_{0, nullptr};
};

// A malloc'ed buffer of the library (an unwrapped body, a CCDB not yet handed
// over), freed when it goes out of scope unless given away.
class OwnedBuffer {
public:
    OwnedBuffer() = default;
    ~OwnedBuffer() { free(buf_.value); }
    OwnedBuffer(const OwnedBuffer &) = delete;
    OwnedBuffer &operator=(const OwnedBuffer &) = delete;

    sec_buffer_t get() { return &buf_; }
    bool empty() const { return buf_.length <= 0 || buf_.value == nullptr; }
    // Moves the bytes into the caller's buffer.
    void give_to(sec_buffer_t out) { *out = std::exchange(buf_, sec_buffer_desc{0, nullptr}); }

private:
    sec_buffer_desc buf_{0, nullptr};
};

// Memory for a seal buffer, taken before a module is asked to seal or sign.
// A module moves its sequence number on with every output, so output lost
// to an allocation failure after the module call would leave the two sides
// out of step for good: with the block reserved first, running out of memory
// fails the call before the module sees it, and the caller can try again.
// An output longer than the slack allows still grows the block afterwards.
class SealReservation {
public:
    SealReservation() = default;
    // Room for a seal buffer around a body of about `body` bytes.
    explicit SealReservation(size_t body)
        : cap_(static_cast<size_t>(sec__buff_tvm_len) + body + kSlack), block_(std::malloc(cap_)) {
        if (block_ == nullptr) cap_ = 0;
    }
    ~SealReservation() { std::free(block_); }
    SealReservation(const SealReservation &) = delete;
    SealReservation &operator=(const SealReservation &) = delete;

    bool reserved() const { return block_ != nullptr; }
    // At least n bytes; a smaller block is replaced (its bytes are not kept).
    bool fit(size_t n) {
        if (n <= cap_) return true;
        void *p = std::malloc(n);
        if (p == nullptr) return false;
        std::free(block_);
        block_ = p;
        cap_ = n;
        return true;
    }
    unsigned char *data() { return static_cast<unsigned char *>(block_); }
    void *take() {
        cap_ = 0;
        return std::exchange(block_, nullptr);
    }

private:
    // More than a module's nonce, tag or signature needs.
    static constexpr size_t kSlack = 1024;
    size_t cap_ = 0;
    void *block_ = nullptr;
};

// Wraps a module's bytes as a seal buffer in `room`, which becomes out's
// value (the work of sec__wrap_seal_buff, without an allocation when the
// bytes fit the reservation).
qv_int32_t sec_wrap_seal_into(sec_buffer_t in, qv_uint32_t mech, int version, SealReservation &room, sec_buffer_t out);

// The module's output of a seal or a signature, wrapped as a seal buffer in
// the memory reserved before the module call; the output goes back to the
// module either way and the first error is kept.
inline qv_int32_t sec_wrap_module_output(MpmOutput &output, const sec_ctx_token_desc &c, sec_status_t st,
                                         SealReservation &room, sec_buffer_t out) {
    qv_int32_t rc = sec_wrap_seal_into(output.get(), c.mdata.mpm->code, c.version, room, out);
    if (rc != 0) {
        SecErrorKeeper keep(st);
        output.release();
        return rc;
    }
    output.release();
    return 0;
}
