// Data protection with the session keys: sealed messages (ChaCha20-Poly1305,
// integrity alone or integrity and confidentiality) and detached signatures
// (keyed BLAKE2b). Each direction has its own keys and its own sequence
// numbers, one series for sealed messages and one for signatures; a message
// is accepted only with the next number of its series, so a replayed,
// dropped-and-later-delivered or reordered message is refused, and one side's
// messages cannot be reflected back to it.
#include <sodium.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "mech_common.h"

namespace qvmech {
namespace {

constexpr char kSignLabel[] = "qvsec local v1 signature";

struct FreeDeleter {
    void operator()(void *p) const { std::free(p); }
};
using MallocBytes = std::unique_ptr<uint8_t, FreeDeleter>;

MallocBytes allocate(size_t n) { return MallocBytes(static_cast<uint8_t *>(std::malloc(n))); }

void put_u64(uint8_t *p, uint64_t v) {
    for (int i = 7; i >= 0; --i, v >>= 8) p[i] = static_cast<uint8_t>(v);
}

uint64_t get_u64(const uint8_t *p) {
    uint64_t v = 0;
    for (int i = 0; i < 8; ++i) v = v << 8 | p[i];
    return v;
}

void make_nonce(uint8_t nonce[crypto_aead_chacha20poly1305_IETF_NPUBBYTES], uint64_t seq) {
    std::memset(nonce, 0, crypto_aead_chacha20poly1305_IETF_NPUBBYTES);
    put_u64(nonce + 4, seq);
}

// Whether an (already locked) context is an established security context of
// this process. A forked child holds a copy of its parent's keys and
// sequence numbers: both would seal under the same nonces, and each would
// accept the peer's next message once.
Status usable(const Context &ctx, Status not_a_security_context) {
    if (ctx.role == Role::kIdentity) return not_a_security_context;
    if (ctx.phase != Phase::kComplete) return kWrongState;
    if (ctx.generation != process_generation()) return kOtherProcess;
    return kOk;
}

const uint8_t *tx_seal_key(const Context &c) {
    return (c.role == Role::kClient ? c.keys.seal_c2s : c.keys.seal_s2c).data();
}
const uint8_t *rx_seal_key(const Context &c) {
    return (c.role == Role::kClient ? c.keys.seal_s2c : c.keys.seal_c2s).data();
}
const uint8_t *tx_sign_key(const Context &c) {
    return (c.role == Role::kClient ? c.keys.sign_c2s : c.keys.sign_s2c).data();
}
const uint8_t *rx_sign_key(const Context &c) {
    return (c.role == Role::kClient ? c.keys.sign_s2c : c.keys.sign_c2s).data();
}

bool valid_vector(qv_int32_t count, const iovec *vector) {
    if (count < 0 || (count > 0 && vector == nullptr)) return false;
    for (qv_int32_t i = 0; i < count; ++i)
        if (vector[i].iov_len != 0 && vector[i].iov_base == nullptr) return false;
    return true;
}

void signature_tag(const uint8_t *key, uint64_t seq, qv_int32_t count, const iovec *vector,
                   uint8_t tag[crypto_generichash_BYTES]) {
    crypto_generichash_state st;
    crypto_generichash_init(&st, key, kKeySize, crypto_generichash_BYTES);
    crypto_generichash_update(&st, reinterpret_cast<const uint8_t *>(kSignLabel), sizeof kSignLabel - 1);
    uint8_t be[8];
    put_u64(be, seq);
    crypto_generichash_update(&st, be, sizeof be);
    // The number of elements and each element's length are covered, so the
    // same bytes split otherwise ("user=ali" "ce;role=admin" against
    // "user=alice;role=admin" "") do not verify.
    put_u64(be, static_cast<uint64_t>(count));
    crypto_generichash_update(&st, be, sizeof be);
    for (qv_int32_t i = 0; i < count; ++i) {
        put_u64(be, vector[i].iov_len);
        crypto_generichash_update(&st, be, sizeof be);
        if (vector[i].iov_len > 0)
            crypto_generichash_update(&st, static_cast<const uint8_t *>(vector[i].iov_base), vector[i].iov_len);
    }
    crypto_generichash_final(&st, tag, crypto_generichash_BYTES);
    sodium_memzero(&st, sizeof st);
}

}  // namespace
}  // namespace qvmech

using namespace qvmech;

extern "C" qv_uint32_t mpm_prepare_data(qv_uint32_t *min_stat, void *token, qv_uint32_t flags, sec_buffer_t in,
                                        sec_buffer_t out) {
    return guarded(min_stat, [&](qv_uint32_t *) -> qv_uint32_t {
        if (in == nullptr || out == nullptr) return kBadArgument;
        out->length = 0;
        out->value = nullptr;
        uint8_t mode;
        if (flags == kProtectIntegrity)
            mode = kModeIntegrity;
        else if (flags == kProtectConfidentiality)
            mode = kModeConfidentiality;
        else
            return kBadArgument;
        if (in->length < 0 || (in->length > 0 && in->value == nullptr) ||
            in->length > INT32_MAX - static_cast<qv_int32_t>(kSealHeader + kSealTag))
            return kBadArgument;
        Context *ctx = as_context(token);
        if (ctx == nullptr) return kBadHandle;
        std::lock_guard<std::mutex> g(ctx->lock);
        if (Status s = usable(*ctx, kWrongState); s != kOk) return s;
        if (ctx->seal_tx == UINT64_MAX) return kExhausted;

        const size_t n = static_cast<size_t>(in->length);
        const size_t total = kSealHeader + n + kSealTag;
        MallocBytes buf = allocate(total);
        if (!buf) return kNoMemory;
        uint8_t *p = buf.get();
        p[0] = kProtocolVersion;
        p[1] = mode;
        put_u64(p + 2, ctx->seal_tx);
        uint8_t nonce[crypto_aead_chacha20poly1305_IETF_NPUBBYTES];
        make_nonce(nonce, ctx->seal_tx);
        // libsodium wants real pointers even for zero lengths.
        uint8_t empty = 0;
        const auto *data = n > 0 ? static_cast<const uint8_t *>(in->value) : &empty;
        if (mode == kModeIntegrity) {
            // The data travels in the clear; the tag covers header and data.
            if (n > 0) std::memcpy(p + kSealHeader, data, n);
            crypto_aead_chacha20poly1305_ietf_encrypt_detached(p + kSealHeader, p + kSealHeader + n, nullptr, &empty, 0, p,
                                                               kSealHeader + n, nullptr, nonce, tx_seal_key(*ctx));
        } else {
            crypto_aead_chacha20poly1305_ietf_encrypt_detached(p + kSealHeader, p + kSealHeader + n, nullptr, data, n,
                                                               p, kSealHeader, nullptr, nonce, tx_seal_key(*ctx));
        }
        ctx->seal_tx += 1;
        out->value = buf.release();
        out->length = static_cast<qv_int32_t>(total);
        return kOk;
    });
}

extern "C" qv_uint32_t mpm_process_data(qv_uint32_t *min_stat, void *token, sec_buffer_t in, sec_buffer_t out) {
    return guarded(min_stat, [&](qv_uint32_t *minor) -> qv_uint32_t {
        if (in == nullptr || out == nullptr) return kBadArgument;
        out->length = 0;
        out->value = nullptr;
        if (in->length < 0 || (in->length > 0 && in->value == nullptr)) return kBadArgument;
        Context *ctx = as_context(token);
        if (ctx == nullptr) return kBadHandle;
        std::lock_guard<std::mutex> g(ctx->lock);
        if (Status s = usable(*ctx, kWrongState); s != kOk) return s;

        std::span<const uint8_t> msg = bytes_of(*in);
        auto bad = [&](Reason r) {
            *minor = r;
            return kBadMessage;
        };
        if (msg.size() < kSealHeader + kSealTag) return bad(kReasonTruncated);
        if (msg[0] != kProtocolVersion) return bad(kReasonVersion);
        const uint8_t mode = msg[1];
        if (mode != kModeIntegrity && mode != kModeConfidentiality) return bad(kReasonMode);
        const uint64_t seq = get_u64(msg.data() + 2);
        const size_t n = msg.size() - kSealHeader - kSealTag;
        const uint8_t *body = msg.data() + kSealHeader, *tag = body + n;
        uint8_t nonce[crypto_aead_chacha20poly1305_IETF_NPUBBYTES];
        make_nonce(nonce, seq);

        MallocBytes plain;
        if (n > 0) {
            plain = allocate(n);
            if (!plain) return kNoMemory;
        }
        uint8_t empty = 0;
        uint8_t *plain_out = n > 0 ? plain.get() : &empty;
        int rc;
        if (mode == kModeIntegrity) {
            rc = crypto_aead_chacha20poly1305_ietf_decrypt_detached(&empty, nullptr, body, 0, tag, msg.data(),
                                                                    kSealHeader + n, nonce, rx_seal_key(*ctx));
            if (rc == 0 && n > 0) std::memcpy(plain.get(), body, n);
        } else {
            rc = crypto_aead_chacha20poly1305_ietf_decrypt_detached(plain_out, nullptr, body, n, tag, msg.data(),
                                                                    kSealHeader, nonce, rx_seal_key(*ctx));
        }
        if (rc != 0) {
            if (plain) sodium_memzero(plain.get(), n);
            return bad(kReasonTag);
        }
        // Authentic, but is it the next one?
        if (seq != ctx->seal_rx) {
            if (plain) sodium_memzero(plain.get(), n);
            return seq < ctx->seal_rx ? kReplayed : kOutOfOrder;
        }
        ctx->seal_rx += 1;
        out->value = plain.release();
        out->length = static_cast<qv_int32_t>(n);
        return kOk;
    });
}

extern "C" qv_uint32_t mpm_sign_data_v(qv_uint32_t *min_stat, void *token, qv_int32_t count, struct iovec *vector,
                                       sec_buffer_t signature) {
    return guarded(min_stat, [&](qv_uint32_t *) -> qv_uint32_t {
        if (signature == nullptr) return kBadArgument;
        signature->length = 0;
        signature->value = nullptr;
        if (!valid_vector(count, vector)) return kBadArgument;
        Context *ctx = as_context(token);
        if (ctx == nullptr) return kBadHandle;
        std::lock_guard<std::mutex> g(ctx->lock);
        if (Status s = usable(*ctx, kNoSignature); s != kOk) return s;
        if (ctx->sign_tx == UINT64_MAX) return kExhausted;
        uint8_t sig[kSignatureSize];
        sig[0] = kSignatureVersion;
        put_u64(sig + 1, ctx->sign_tx);
        signature_tag(tx_sign_key(*ctx), ctx->sign_tx, count, vector, sig + 9);
        if (!give_bytes(sig, signature)) return kNoMemory;
        ctx->sign_tx += 1;
        return kOk;
    });
}

extern "C" qv_uint32_t mpm_verify_data_v(qv_uint32_t *min_stat, void *token, sec_buffer_t signature,
                                         qv_int32_t count, struct iovec *vector) {
    return guarded(min_stat, [&](qv_uint32_t *minor) -> qv_uint32_t {
        if (signature == nullptr || !valid_vector(count, vector)) return kBadArgument;
        Context *ctx = as_context(token);
        if (ctx == nullptr) return kBadHandle;
        std::lock_guard<std::mutex> g(ctx->lock);
        if (Status s = usable(*ctx, kNoSignature); s != kOk) return s;
        auto bad = [&](Reason r) {
            *minor = r;
            return kBadSignature;
        };
        std::span<const uint8_t> sig = bytes_of(*signature);
        if (sig.size() < kSignatureSize) return bad(kReasonTruncated);
        if (sig.size() > kSignatureSize) return bad(kReasonTrailing);
        if (sig[0] != kSignatureVersion) return bad(kReasonVersion);
        const uint64_t seq = get_u64(sig.data() + 1);
        uint8_t expected[crypto_generichash_BYTES];
        signature_tag(rx_sign_key(*ctx), seq, count, vector, expected);
        if (crypto_verify_32(expected, sig.data() + 9) != 0) return bad(kReasonTag);
        if (seq < ctx->sign_rx) return bad(kReasonReplayed);
        if (seq > ctx->sign_rx) return bad(kReasonOutOfOrder);
        ctx->sign_rx += 1;
        return kOk;
    });
}
