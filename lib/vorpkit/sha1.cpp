// SHA-1 (FIPS 180-1): the portable compression function, the choice between
// it and the SHA-instruction version, and the exported routines.
#include "cpu_features.h"
#include "hash_internal.h"

namespace vorp {

namespace {

// Rounds on a 16-word circular message schedule; the caller rotates the roles
// of a..e instead of moving values between registers.
#define SHA1_W(i) (w[(i) & 15] = rotl32(w[((i) + 13) & 15] ^ w[((i) + 8) & 15] ^ w[((i) + 2) & 15] ^ w[(i) & 15], 1))
#define SHA1_R0(a, b, c, d, e, i) \
    e += ((b & (c ^ d)) ^ d) + (w[i] = load_be32(p + 4 * (i))) + 0x5a827999u + rotl32(a, 5); b = rotl32(b, 30)
#define SHA1_R1(a, b, c, d, e, i) \
    e += ((b & (c ^ d)) ^ d) + SHA1_W(i) + 0x5a827999u + rotl32(a, 5); b = rotl32(b, 30)
#define SHA1_R2(a, b, c, d, e, i) \
    e += (b ^ c ^ d) + SHA1_W(i) + 0x6ed9eba1u + rotl32(a, 5); b = rotl32(b, 30)
#define SHA1_R3(a, b, c, d, e, i) \
    e += (((b | c) & d) | (b & c)) + SHA1_W(i) + 0x8f1bbcdcu + rotl32(a, 5); b = rotl32(b, 30)
#define SHA1_R4(a, b, c, d, e, i) \
    e += (b ^ c ^ d) + SHA1_W(i) + 0xca62c1d6u + rotl32(a, 5); b = rotl32(b, 30)

// Five rounds of one kind, each with the roles of a..e rotated by one.
#define SHA1_FIVE(R, i)          \
    R(a, b, c, d, e, (i));       \
    R(e, a, b, c, d, (i) + 1);   \
    R(d, e, a, b, c, (i) + 2);   \
    R(c, d, e, a, b, (i) + 3);   \
    R(b, c, d, e, a, (i) + 4)

}  // namespace

void sha1_compress_portable(uint32_t h[5], const uint8_t *p, size_t blocks) {
    uint32_t w[16];
    for (; blocks > 0; --blocks, p += kHashBlock) {
        uint32_t a = h[0], b = h[1], c = h[2], d = h[3], e = h[4];
        SHA1_FIVE(SHA1_R0, 0);
        SHA1_FIVE(SHA1_R0, 5);
        SHA1_FIVE(SHA1_R0, 10);
        SHA1_R0(a, b, c, d, e, 15);
        SHA1_R1(e, a, b, c, d, 16);
        SHA1_R1(d, e, a, b, c, 17);
        SHA1_R1(c, d, e, a, b, 18);
        SHA1_R1(b, c, d, e, a, 19);
        SHA1_FIVE(SHA1_R2, 20);
        SHA1_FIVE(SHA1_R2, 25);
        SHA1_FIVE(SHA1_R2, 30);
        SHA1_FIVE(SHA1_R2, 35);
        SHA1_FIVE(SHA1_R3, 40);
        SHA1_FIVE(SHA1_R3, 45);
        SHA1_FIVE(SHA1_R3, 50);
        SHA1_FIVE(SHA1_R3, 55);
        SHA1_FIVE(SHA1_R4, 60);
        SHA1_FIVE(SHA1_R4, 65);
        SHA1_FIVE(SHA1_R4, 70);
        SHA1_FIVE(SHA1_R4, 75);
        h[0] += a;
        h[1] += b;
        h[2] += c;
        h[3] += d;
        h[4] += e;
    }
    secure_wipe(w, sizeof w);
}

void sha1_compress(uint32_t h[5], const uint8_t *data, size_t blocks) {
    const CpuFeatures &f = cpu();
    if (f.shani && f.sse41 && f.ssse3)
        sha1_compress_shani(h, data, blocks);
    else
        sha1_compress_portable(h, data, blocks);
}

namespace {

struct ShaTraits {
    static constexpr size_t kWords = 5;
    static void init(uint32_t *h) {
        h[0] = 0x67452301;
        h[1] = 0xefcdab89;
        h[2] = 0x98badcfe;
        h[3] = 0x10325476;
        h[4] = 0xc3d2e1f0;
    }
    static void compress(uint32_t *h, const uint8_t *p, size_t blocks) { sha1_compress(h, p, blocks); }
    // Two zero bytes, high's low three bytes, low's three bytes, all
    // big-endian: the standard 64-bit bit length.
    static void write_length(uint8_t *f, SplitBitLength len) {
        f[0] = 0;
        f[1] = 0;
        f[2] = static_cast<uint8_t>(len.high >> 16);
        f[3] = static_cast<uint8_t>(len.high >> 8);
        f[4] = static_cast<uint8_t>(len.high);
        f[5] = static_cast<uint8_t>(len.low >> 16);
        f[6] = static_cast<uint8_t>(len.low >> 8);
        f[7] = static_cast<uint8_t>(len.low);
    }
    static void write_digest(const uint32_t *h, uint8_t *out) {
        for (size_t i = 0; i < kWords; ++i) store_be32(out + 4 * i, h[i]);
    }
};

}  // namespace

}  // namespace vorp

extern "C" {

qv_uint32_t *Vorp_shaInit(qv_uint32_t *state) { return vorp::hash_init<vorp::ShaTraits>(state); }

void Vorp_sha(qv_uint32_t *state, const void *data, qv_uint32_t dataLen, void *digest) {
    vorp::hash_call<vorp::ShaTraits>(state, data, dataLen, digest);
}

}
