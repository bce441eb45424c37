// MD5 (RFC 1321) with this library's length field for very long messages.
#include "hash_internal.h"

namespace vorp {

namespace {

// The round functions in forms that shorten the dependency chain on b, the
// value the previous step just produced: G adds its two disjoint halves
// separately, so (c & ~d) is computed before b is known.
#define MD5_F(x, y, z) ((z) ^ ((x) & ((y) ^ (z))))
#define MD5_H(x, y, z) ((x) ^ (y) ^ (z))
#define MD5_I(x, y, z) ((y) ^ ((x) | ~(z)))

#define MD5_STEP(f, a, b, c, d, k, t, s)          \
    a += f(b, c, d) + load_le32(p + 4 * (k)) + (t); \
    a = rotl32(a, s) + (b)

#define MD5_STEP_G(a, b, c, d, k, t, s)                       \
    a += (~(d) & (c)) + load_le32(p + 4 * (k)) + (t);           \
    a += (d) & (b);                                             \
    a = rotl32(a, s) + (b)

}  // namespace

void md5_compress(uint32_t h[4], const uint8_t *p, size_t blocks) {
    uint32_t a = h[0], b = h[1], c = h[2], d = h[3];
    for (; blocks > 0; --blocks, p += kHashBlock) {
        const uint32_t a0 = a, b0 = b, c0 = c, d0 = d;

        MD5_STEP(MD5_F, a, b, c, d, 0, 0xd76aa478, 7);
        MD5_STEP(MD5_F, d, a, b, c, 1, 0xe8c7b756, 12);
        MD5_STEP(MD5_F, c, d, a, b, 2, 0x242070db, 17);
        MD5_STEP(MD5_F, b, c, d, a, 3, 0xc1bdceee, 22);
        MD5_STEP(MD5_F, a, b, c, d, 4, 0xf57c0faf, 7);
        MD5_STEP(MD5_F, d, a, b, c, 5, 0x4787c62a, 12);
        MD5_STEP(MD5_F, c, d, a, b, 6, 0xa8304613, 17);
        MD5_STEP(MD5_F, b, c, d, a, 7, 0xfd469501, 22);
        MD5_STEP(MD5_F, a, b, c, d, 8, 0x698098d8, 7);
        MD5_STEP(MD5_F, d, a, b, c, 9, 0x8b44f7af, 12);
        MD5_STEP(MD5_F, c, d, a, b, 10, 0xffff5bb1, 17);
        MD5_STEP(MD5_F, b, c, d, a, 11, 0x895cd7be, 22);
        MD5_STEP(MD5_F, a, b, c, d, 12, 0x6b901122, 7);
        MD5_STEP(MD5_F, d, a, b, c, 13, 0xfd987193, 12);
        MD5_STEP(MD5_F, c, d, a, b, 14, 0xa679438e, 17);
        MD5_STEP(MD5_F, b, c, d, a, 15, 0x49b40821, 22);

        MD5_STEP_G(a, b, c, d, 1, 0xf61e2562, 5);
        MD5_STEP_G(d, a, b, c, 6, 0xc040b340, 9);
        MD5_STEP_G(c, d, a, b, 11, 0x265e5a51, 14);
        MD5_STEP_G(b, c, d, a, 0, 0xe9b6c7aa, 20);
        MD5_STEP_G(a, b, c, d, 5, 0xd62f105d, 5);
        MD5_STEP_G(d, a, b, c, 10, 0x02441453, 9);
        MD5_STEP_G(c, d, a, b, 15, 0xd8a1e681, 14);
        MD5_STEP_G(b, c, d, a, 4, 0xe7d3fbc8, 20);
        MD5_STEP_G(a, b, c, d, 9, 0x21e1cde6, 5);
        MD5_STEP_G(d, a, b, c, 14, 0xc33707d6, 9);
        MD5_STEP_G(c, d, a, b, 3, 0xf4d50d87, 14);
        MD5_STEP_G(b, c, d, a, 8, 0x455a14ed, 20);
        MD5_STEP_G(a, b, c, d, 13, 0xa9e3e905, 5);
        MD5_STEP_G(d, a, b, c, 2, 0xfcefa3f8, 9);
        MD5_STEP_G(c, d, a, b, 7, 0x676f02d9, 14);
        MD5_STEP_G(b, c, d, a, 12, 0x8d2a4c8a, 20);

        MD5_STEP(MD5_H, a, b, c, d, 5, 0xfffa3942, 4);
        MD5_STEP(MD5_H, d, a, b, c, 8, 0x8771f681, 11);
        MD5_STEP(MD5_H, c, d, a, b, 11, 0x6d9d6122, 16);
        MD5_STEP(MD5_H, b, c, d, a, 14, 0xfde5380c, 23);
        MD5_STEP(MD5_H, a, b, c, d, 1, 0xa4beea44, 4);
        MD5_STEP(MD5_H, d, a, b, c, 4, 0x4bdecfa9, 11);
        MD5_STEP(MD5_H, c, d, a, b, 7, 0xf6bb4b60, 16);
        MD5_STEP(MD5_H, b, c, d, a, 10, 0xbebfbc70, 23);
        MD5_STEP(MD5_H, a, b, c, d, 13, 0x289b7ec6, 4);
        MD5_STEP(MD5_H, d, a, b, c, 0, 0xeaa127fa, 11);
        MD5_STEP(MD5_H, c, d, a, b, 3, 0xd4ef3085, 16);
        MD5_STEP(MD5_H, b, c, d, a, 6, 0x04881d05, 23);
        MD5_STEP(MD5_H, a, b, c, d, 9, 0xd9d4d039, 4);
        MD5_STEP(MD5_H, d, a, b, c, 12, 0xe6db99e5, 11);
        MD5_STEP(MD5_H, c, d, a, b, 15, 0x1fa27cf8, 16);
        MD5_STEP(MD5_H, b, c, d, a, 2, 0xc4ac5665, 23);

        MD5_STEP(MD5_I, a, b, c, d, 0, 0xf4292244, 6);
        MD5_STEP(MD5_I, d, a, b, c, 7, 0x432aff97, 10);
        MD5_STEP(MD5_I, c, d, a, b, 14, 0xab9423a7, 15);
        MD5_STEP(MD5_I, b, c, d, a, 5, 0xfc93a039, 21);
        MD5_STEP(MD5_I, a, b, c, d, 12, 0x655b59c3, 6);
        MD5_STEP(MD5_I, d, a, b, c, 3, 0x8f0ccc92, 10);
        MD5_STEP(MD5_I, c, d, a, b, 10, 0xffeff47d, 15);
        MD5_STEP(MD5_I, b, c, d, a, 1, 0x85845dd1, 21);
        MD5_STEP(MD5_I, a, b, c, d, 8, 0x6fa87e4f, 6);
        MD5_STEP(MD5_I, d, a, b, c, 15, 0xfe2ce6e0, 10);
        MD5_STEP(MD5_I, c, d, a, b, 6, 0xa3014314, 15);
        MD5_STEP(MD5_I, b, c, d, a, 13, 0x4e0811a1, 21);
        MD5_STEP(MD5_I, a, b, c, d, 4, 0xf7537e82, 6);
        MD5_STEP(MD5_I, d, a, b, c, 11, 0xbd3af235, 10);
        MD5_STEP(MD5_I, c, d, a, b, 2, 0x2ad7d2bb, 15);
        MD5_STEP(MD5_I, b, c, d, a, 9, 0xeb86d391, 21);

        a += a0;
        b += b0;
        c += c0;
        d += d0;
    }
    h[0] = a;
    h[1] = b;
    h[2] = c;
    h[3] = d;
}

namespace {

struct Md5Traits {
    static constexpr size_t kWords = 4;
    static void init(uint32_t *h) {
        h[0] = 0x67452301;
        h[1] = 0xefcdab89;
        h[2] = 0x98badcfe;
        h[3] = 0x10325476;
    }
    static void compress(uint32_t *h, const uint8_t *p, size_t blocks) { md5_compress(h, p, blocks); }
    // low's three bytes little-endian, a zero byte, high as four bytes
    // little-endian: the field reads low + high * 2^32, not the RFC's
    // low + high * 2^24, once a message reaches 2^15 blocks. Kept so that
    // digests agree with every other holder of this format.
    static void write_length(uint8_t *f, SplitBitLength len) {
        f[0] = static_cast<uint8_t>(len.low);
        f[1] = static_cast<uint8_t>(len.low >> 8);
        f[2] = static_cast<uint8_t>(len.low >> 16);
        f[3] = 0;
        store_le32(f + 4, len.high);
    }
    static void write_digest(const uint32_t *h, uint8_t *out) {
        for (size_t i = 0; i < kWords; ++i) store_le32(out + 4 * i, h[i]);
    }
};

}  // namespace

}  // namespace vorp

extern "C" {

qv_uint32_t *Vorp_md5Init(qv_uint32_t *state) { return vorp::hash_init<vorp::Md5Traits>(state); }

void Vorp_md5(qv_uint32_t *state, const void *data, qv_uint32_t dataLen, void *digest) {
    vorp::hash_call<vorp::Md5Traits>(state, data, dataLen, digest);
}

}
