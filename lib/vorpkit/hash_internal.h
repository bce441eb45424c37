// The compression functions of MD5 and SHA-1 and the calling convention the
// two digests share (state record, block count, dropped tails, padding).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "byte_order.h"
#include "vorpkit.h"

namespace vorp {

constexpr size_t kHashBlock = 64;

// Each compresses `blocks` consecutive 64-byte blocks into the chaining words.
void md5_compress(uint32_t h[4], const uint8_t *data, size_t blocks);
void sha1_compress_portable(uint32_t h[5], const uint8_t *data, size_t blocks);
void sha1_compress_shani(uint32_t h[5], const uint8_t *data, size_t blocks);
// The SHA-instruction version when the processor has it, else the portable one.
void sha1_compress(uint32_t h[5], const uint8_t *data, size_t blocks);

// The message's bit length 512 * blocks + 8 * tail, kept as low + high * 2^24
// with low below 2^24: the form both length fields are written from.
struct SplitBitLength {
    uint32_t low;
    uint32_t high;
};

inline SplitBitLength split_bit_length(uint32_t blocks, uint32_t tail) {
    SplitBitLength len{512u * (blocks & 0x7fffu) + 8u * tail, blocks >> 15};
    if (len.low > 0xffffffu) {  // cannot happen with tail < 64; kept for safety
        len.low &= 0xffffffu;
        ++len.high;
    }
    return len;
}

// One call of the shared convention. Traits supplies:
//   kWords (chaining words), init(h), compress(h, data, blocks),
//   write_length(last8, SplitBitLength) (bytes 56..63 of the final block),
//   write_digest(h, out).
template <class Traits>
void hash_call(uint32_t *state, const void *data, uint32_t dataLen, void *digest) {
    if ((data == nullptr && dataLen > 0) || (state == nullptr && digest == nullptr)) {
        Vorp_errno = VORP_E_BAD_ARGUMENT;
        return;
    }
    uint32_t one_shot[Traits::kWords + 1];
    if (state == nullptr) {
        Traits::init(one_shot);
        one_shot[Traits::kWords] = 0;
        state = one_shot;
    }
    const auto *p = static_cast<const uint8_t *>(data);
    uint32_t blocks = dataLen / kHashBlock;
    if (blocks > 0) Traits::compress(state, p, blocks);
    state[Traits::kWords] += blocks;
    if (digest == nullptr) return;  // the tail of an intermediate call is dropped

    uint32_t tail = dataLen % kHashBlock;
    uint8_t last[2 * kHashBlock] = {};
    if (tail > 0) std::memcpy(last, p + size_t{blocks} * kHashBlock, tail);
    last[tail] = 0x80;
    size_t pad_blocks = tail < 56 ? 1 : 2;
    Traits::write_length(last + pad_blocks * kHashBlock - 8, split_bit_length(state[Traits::kWords], tail));
    Traits::compress(state, last, pad_blocks);
    Traits::write_digest(state, static_cast<uint8_t *>(digest));
    secure_wipe(last, sizeof last);
    if (state == one_shot) secure_wipe(one_shot, sizeof one_shot);
}

template <class Traits>
uint32_t *hash_init(uint32_t *state) {
    if (state == nullptr) {
        state = static_cast<uint32_t *>(std::malloc((Traits::kWords + 1) * sizeof(uint32_t)));
        if (state == nullptr) {
            Vorp_errno = VORP_E_NO_MEMORY;
            return nullptr;
        }
    }
    Traits::init(state);
    state[Traits::kWords] = 0;
    return state;
}

}  // namespace vorp
