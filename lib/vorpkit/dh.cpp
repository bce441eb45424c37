// Diffie-Hellman: parameters (fixed or a fresh safe prime), key pairs and
// the shared value.
#include <cstdlib>
#include <cstring>

#include "bn_montgomery.h"

namespace vorp::bn {
namespace {

// The fixed primes are published safe primes (p and (p - 1) / 2 prime):
// 512 bits, the modulus of the SKIP protocol's published numbers; 1024
// bits, the second Oakley group of RFC 2409 (2^1024 - 2^960 - 1 +
// 2^64 * ([2^894 pi] + 129093)). 7 is a quadratic residue modulo both.
constexpr uint8_t kPrime512[64] = {
    0xf5, 0x2a, 0xff, 0x3c, 0xe1, 0xb1, 0x29, 0x40, 0x18, 0x11, 0x8d, 0x7c, 0x84, 0xa7, 0x0a, 0x72,
    0xd6, 0x86, 0xc4, 0x03, 0x19, 0xc8, 0x07, 0x29, 0x7a, 0xca, 0x95, 0x0c, 0xd9, 0x96, 0x9f, 0xab,
    0xd0, 0x0a, 0x50, 0x9b, 0x02, 0x46, 0xd3, 0x08, 0x3d, 0x66, 0xa4, 0x5d, 0x41, 0x9f, 0x9c, 0x7c,
    0xbd, 0x89, 0x4b, 0x22, 0x19, 0x26, 0xba, 0xab, 0xa2, 0x5e, 0xc3, 0x55, 0xe9, 0x2a, 0x05, 0x5f};
constexpr uint8_t kPrime1024[128] = {
    0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xc9, 0x0f, 0xda, 0xa2, 0x21, 0x68, 0xc2, 0x34,
    0xc4, 0xc6, 0x62, 0x8b, 0x80, 0xdc, 0x1c, 0xd1, 0x29, 0x02, 0x4e, 0x08, 0x8a, 0x67, 0xcc, 0x74,
    0x02, 0x0b, 0xbe, 0xa6, 0x3b, 0x13, 0x9b, 0x22, 0x51, 0x4a, 0x08, 0x79, 0x8e, 0x34, 0x04, 0xdd,
    0xef, 0x95, 0x19, 0xb3, 0xcd, 0x3a, 0x43, 0x1b, 0x30, 0x2b, 0x0a, 0x6d, 0xf2, 0x5f, 0x14, 0x37,
    0x4f, 0xe1, 0x35, 0x6d, 0x6d, 0x51, 0xc2, 0x45, 0xe4, 0x85, 0xb5, 0x76, 0x62, 0x5e, 0x7e, 0xc6,
    0xf4, 0x4c, 0x42, 0xe9, 0xa6, 0x37, 0xed, 0x6b, 0x0b, 0xff, 0x5c, 0xb6, 0xf4, 0x06, 0xb7, 0xed,
    0xee, 0x38, 0x6b, 0xfb, 0x5a, 0x89, 0x9f, 0xa5, 0xae, 0x9f, 0x24, 0x11, 0x7c, 0x4b, 0x1f, 0xe6,
    0x49, 0x28, 0x66, 0x51, 0xec, 0xe6, 0x53, 0x81, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
constexpr uint8_t kFixedGenerator = 7;
constexpr int32_t kMinRandomBits = 16, kMaxBits = 65535;

// A parameter record taken apart; every length comes from its size bytes.
struct Params {
    char format;
    size_t k;
    const uint8_t *p;
    Num g;  // public, reduced modulo p
};

bool parse(const uint8_t *rec, Params &out) {
    if (!rec || rec[0] < '0' || rec[0] > '2') return false;
    out.format = char(rec[0]);
    out.k = ((size_t(rec[1]) << 8 | rec[2]) + 7) / 8;
    out.p = rec + 3;
    if (out.k == 0 || !(out.p[out.k - 1] & 1)) return false;  // Montgomery arithmetic needs an odd p
    const uint8_t *g = out.p + out.k;
    const Num p{digits_from_limbs(limbs_from_be(out.p, out.k, (out.k + 7) / 8)), false};
    out.g = num_mod(Num{digits_from_limbs(limbs_from_be(g + 1, g[0], (g[0] + 7u) / 8)), false}, p);
    return true;
}

Montgomery modulus_of(const Params &pr) { return Montgomery(limbs_from_be(pr.p, pr.k, (pr.k + 7) / 8), false); }

// base^exp mod p with a secret exponent of k bytes, written in k bytes.
void power(const Params &pr, const Limbs &base, const Limbs &exp, uint8_t *out) {
    const Montgomery mont = modulus_of(pr);
    limbs_to_be(mont.power_plain(base, exp, 64 * exp.size(), true), out, pr.k);
}

qv_int32_t bad_argument() {
    Vorp_errno = VORP_E_BAD_ARGUMENT;
    return 0;
}

// A random safe prime of exactly `bits` bits and the first generator from 7
// on whose power (p - 1) / 2 is 1. 9 = 3^2 always is, so the search ends
// by 9, far below its limit of 255.
void random_params(size_t bits, Vorp_rsrc_t rsrc, Num &p, uint8_t &g) {
    Num limit;
    limit.mag = mag_shift_left(Digits{1}, bits);
    const int32_t prob = bits < 512 ? -80 : -12;
    do {
        Num start;
        num_random_below(limit, rsrc, start);
        for (size_t bit : {bits - 1, size_t(0)}) {
            if (start.mag.size() <= bit / 32) start.mag.resize(bit / 32 + 1);
            start.mag[bit / 32] |= Digit(1) << (bit % 32);
        }
        num_find_prime(start, limit, prob, true, rsrc, p);
    } while (p.is_zero());
    const Num half{mag_shift_right(p.mag, 1), false}, one = num_from_u64(1);
    for (g = kFixedGenerator; num_compare(num_power(num_from_u64(g), half, &p), one) != 0; ++g) {
    }
}

}  // namespace
}  // namespace vorp::bn

using namespace vorp::bn;

extern "C" unsigned char *Vorp_dhParams(qv_int32_t keySize, unsigned char *dhparams, Vorp_rsrc_t rsrc) {
    const bool fixed = !rsrc && (keySize == 512 || keySize == 1024);
    if (!fixed && (!rsrc || keySize < kMinRandomBits || keySize > kMaxBits)) {
        Vorp_errno = VORP_E_BAD_ARGUMENT;
        return nullptr;
    }
    return guarded<unsigned char *>(nullptr, [&]() -> unsigned char * {
        const size_t bits = size_t(keySize), k = (bits + 7) / 8;
        std::vector<uint8_t> rec(k + 5);
        uint8_t g = kFixedGenerator;
        if (fixed) {
            std::memcpy(&rec[3], bits == 512 ? kPrime512 : kPrime1024, k);
        } else {
            Num p;
            random_params(bits, rsrc, p, g);
            limbs_to_be(limbs_from_digits(p.mag, (k + 7) / 8), &rec[3], k);
        }
        rec[0] = '2';
        rec[1] = uint8_t(bits >> 8);
        rec[2] = uint8_t(bits);
        rec[3 + k] = 1;
        rec[4 + k] = g;
        unsigned char *out = dhparams ? dhparams : static_cast<unsigned char *>(std::malloc(rec.size()));
        if (!out) {
            Vorp_errno = VORP_E_NO_MEMORY;
            return nullptr;
        }
        std::memcpy(out, rec.data(), rec.size());
        return out;
    });
}

extern "C" qv_int32_t Vorp_dhKey(const unsigned char *dhparams, unsigned char *priv, unsigned char *pub,
                                 Vorp_rsrc_t rsrc) {
    if (!priv || !pub || !rsrc) return bad_argument();
    return guarded<qv_int32_t>(0, [&]() -> qv_int32_t {
        Params pr;
        if (!parse(dhparams, pr)) return bad_argument();
        const size_t n = (pr.k + 7) / 8;
        Digits limit = digits_from_limbs(limbs_from_be(pr.p, pr.k, n)), x;
        random_digits_below(limit, rsrc, x);
        const Limbs e = limbs_from_digits(x, n);
        limbs_to_be(e, priv, pr.k);
        power(pr, limbs_from_digits(pr.g.mag, n), e, pub);
        return qv_int32_t(pr.k);
    });
}

extern "C" qv_int32_t Vorp_dh(const unsigned char *dhp, const unsigned char *priv, const unsigned char *pub,
                              unsigned char *shared) {
    if (!pub || !shared) return bad_argument();
    return guarded<qv_int32_t>(0, [&]() -> qv_int32_t {
        Params pr;
        if (!parse(dhp, pr) || (!priv && pr.format != '0')) return bad_argument();
        const size_t n = (pr.k + 7) / 8;
        const Limbs y = limbs_from_be(pub, pr.k, n);
        if (!priv) {
            const Montgomery mont = modulus_of(pr);
            limbs_to_be(mont.from_mont(mont.to_mont(y)), shared, pr.k);
        } else {
            power(pr, y, limbs_from_be(priv, pr.k, n), shared);
        }
        return qv_int32_t(pr.k);
    });
}
