// The key schedule: X25519 between the two ephemeral keys, the shared secret
// keyed into a BLAKE2b hash of the whole transcript (both tokens, so every
// claim and name in them), and one key per purpose and direction derived
// from that, under labels of the module.
#include <sodium.h>

#include <cstring>

#include "mech_common.h"

namespace qvmech {
namespace {

enum SubkeyId : uint64_t { kSealC2S = 1, kSealS2C = 2, kSignC2S = 3, kSignS2C = 4, kConfirm = 5 };

void put_length(crypto_generichash_state &st, size_t n) {
    uint8_t be[4] = {static_cast<uint8_t>(n >> 24), static_cast<uint8_t>(n >> 16), static_cast<uint8_t>(n >> 8),
                     static_cast<uint8_t>(n)};
    crypto_generichash_update(&st, be, sizeof be);
}

}  // namespace

SessionKeys::~SessionKeys() { wipe(); }

void SessionKeys::wipe() {
    sodium_memzero(seal_c2s.data(), seal_c2s.size());
    sodium_memzero(seal_s2c.data(), seal_s2c.size());
    sodium_memzero(sign_c2s.data(), sign_c2s.size());
    sodium_memzero(sign_s2c.data(), sign_s2c.size());
    sodium_memzero(confirm.data(), confirm.size());
}

void KeyPair::wipe() { sodium_memzero(secret_key.data(), secret_key.size()); }

void KeyPair::generate() {
    randombytes_buf(secret_key.data(), secret_key.size());
    crypto_scalarmult_base(public_key.data(), secret_key.data());
}

void random_bytes(std::span<uint8_t> out) { randombytes_buf(out.data(), out.size()); }

Status derive_session_keys(const KdfLabels &labels, const KeyPair &own, std::span<const uint8_t> peer_public,
                           std::span<const uint8_t> hello, std::span<const uint8_t> reply_body,
                           SessionKeys &keys) {
    if (peer_public.size() != crypto_scalarmult_BYTES) return kKeyExchange;
    uint8_t shared[crypto_scalarmult_BYTES];
    // Fails for the low-order points that force an all-zero secret.
    if (crypto_scalarmult(shared, own.secret_key.data(), peer_public.data()) != 0) {
        sodium_memzero(shared, sizeof shared);
        return kKeyExchange;
    }
    uint8_t transcript[crypto_generichash_BYTES];
    crypto_generichash_state st;
    crypto_generichash_init(&st, nullptr, 0, sizeof transcript);
    put_length(st, hello.size());
    crypto_generichash_update(&st, hello.data(), hello.size());
    put_length(st, reply_body.size());
    crypto_generichash_update(&st, reply_body.data(), reply_body.size());
    crypto_generichash_final(&st, transcript, sizeof transcript);

    uint8_t prk[crypto_kdf_KEYBYTES];
    crypto_generichash_init(&st, shared, sizeof shared, sizeof prk);
    crypto_generichash_update(&st, reinterpret_cast<const uint8_t *>(labels.session), std::strlen(labels.session));
    crypto_generichash_update(&st, transcript, sizeof transcript);
    crypto_generichash_final(&st, prk, sizeof prk);
    sodium_memzero(shared, sizeof shared);

    crypto_kdf_derive_from_key(keys.seal_c2s.data(), kKeySize, kSealC2S, labels.kdf_context, prk);
    crypto_kdf_derive_from_key(keys.seal_s2c.data(), kKeySize, kSealS2C, labels.kdf_context, prk);
    crypto_kdf_derive_from_key(keys.sign_c2s.data(), kKeySize, kSignC2S, labels.kdf_context, prk);
    crypto_kdf_derive_from_key(keys.sign_s2c.data(), kKeySize, kSignS2C, labels.kdf_context, prk);
    uint8_t confirm_key[kKeySize];
    crypto_kdf_derive_from_key(confirm_key, sizeof confirm_key, kConfirm, labels.kdf_context, prk);
    sodium_memzero(prk, sizeof prk);

    crypto_generichash_init(&st, confirm_key, sizeof confirm_key, keys.confirm.size());
    crypto_generichash_update(&st, reinterpret_cast<const uint8_t *>(labels.confirm), std::strlen(labels.confirm));
    crypto_generichash_update(&st, transcript, sizeof transcript);
    crypto_generichash_final(&st, keys.confirm.data(), keys.confirm.size());
    sodium_memzero(confirm_key, sizeof confirm_key);
    sodium_memzero(&st, sizeof st);
    return kOk;
}

}  // namespace qvmech
