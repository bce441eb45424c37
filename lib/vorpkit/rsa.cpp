// RSA: key generation, the modulus and public key of a private key, and the
// raw modular power with the three key records.
#include <cstdlib>
#include <cstring>

#include "bn_montgomery.h"

extern "C" {
const unsigned char Vorp_RSA_PUB_EXP_3[2] = {0x01, 0x03};
const unsigned char Vorp_RSA_PUB_EXP_FERMAT4[4] = {0x03, 0x01, 0x00, 0x01};
}

namespace vorp::bn {
namespace {

constexpr int32_t kMinKeyBits = 16, kMaxKeyBits = 65534;
// Each draw of a prime candidate has a fair chance; this many failing in a
// row means the exponent or the certainty leaves no prime to find.
constexpr int kMaxPrimeDraws = 100000;

struct Sizes {
    size_t bits, k, h;
};

Sizes sizes_of(const uint8_t *rec) {
    const size_t b = size_t(rec[1]) << 8 | rec[2];
    return {b, (b + 7) / 8, (b + 15) / 16};
}

size_t limbs_for(size_t bytes) { return (bytes + 7) / 8; }

// Public values only: the result is trimmed.
Num num_from_be(const uint8_t *p, size_t len) { return Num{digits_from_limbs(limbs_from_be(p, len, limbs_for(len))), false}; }

void num_to_be(const Num &v, uint8_t *out, size_t len) { limbs_to_be(limbs_from_digits(v.mag, limbs_for(4 * v.mag.size())), out, len); }

bool odd(const uint8_t *number, size_t len) { return len > 0 && (number[len - 1] & 1); }

// m^exp mod n for a public n, with the message and result in k bytes.
void power_mod_n(const uint8_t *n, size_t k, const uint8_t *exp, size_t exp_len, bool secret, uint8_t *message) {
    const size_t limbs = limbs_for(k);
    Montgomery mont(limbs_from_be(n, k, limbs), false);
    Limbs e = limbs_from_be(exp, exp_len, limbs_for(exp_len) + 1);
    limbs_to_be(mont.power_plain(limbs_from_be(message, k, limbs), e, 8 * exp_len, secret), message, k);
}

// The CRT record: m1 = c^dP mod p, m2 = c^dQ mod q, then Garner's
// recombination c^d = m2 + q * ((m1 - m2) * qInv mod p). Every length comes
// from the record's size, so the secrets steer neither branches nor indices.
void power_crt(const uint8_t *rec, size_t k, size_t h, uint8_t *message) {
    const size_t n = limbs_for(h);
    const uint8_t *p = rec + 3, *q = p + h, *dp = q + h, *dq = dp + h, *qinv = dq + h;
    const Montgomery mp(limbs_from_be(p, h, n), true), mq(limbs_from_be(q, h, n), true);
    const Limbs c = limbs_from_be(message, k, 2 * n);  // k <= 2h bytes
    // c = hi * R + lo with R = 2^(64n), so c in Montgomery form is
    // lo * R + hi * R^2.
    auto residue = [&](const Montgomery &mt) {
        Limbs lo(c.begin(), c.begin() + long(n)), hi(c.begin() + long(n), c.end());
        return mt.add(mt.to_mont(lo), mt.to_mont(mt.to_mont(hi)));
    };
    const Limbs cp = mp.from_mont(residue(mp)), cq = mq.from_mont(residue(mq));
    const Limbs ep = limbs_from_be(dp, h, n), eq = limbs_from_be(dq, h, n);
    const Montgomery *monts[2] = {&mp, &mq};
    const Limbs *bases[2] = {&cp, &cq}, *exps[2] = {&ep, &eq};
    Limbs ms[2];
    power_pair(monts, bases, exps, 8 * h, ms);
    const Limbs &m1 = ms[0], &m2 = ms[1];
    // m2 is first reduced modulo p, so that a record whose q exceeds p
    // still gives the exact power.
    const Limbs diff = mp.sub(m1, mp.from_mont(mp.to_mont(m2)));
    const Limbs t = mp.to_mont(mp.mul(limbs_from_be(qinv, h, n), diff));
    const Limbs qv = limbs_from_be(q, h, n);
    Limbs r(2 * n + 1);
    for (size_t i = 0; i < n; ++i) {
        unsigned __int128 carry = 0;
        for (size_t j = 0; j < n; ++j) {
            carry += (unsigned __int128)t[i] * qv[j] + r[i + j];
            r[i + j] = Limb(carry);
            carry >>= 64;
        }
        r[i + n] = Limb(carry);
    }
    unsigned __int128 carry = 0;
    for (size_t j = 0; j < 2 * n + 1; ++j) {
        carry += (unsigned __int128)r[j] + (j < n ? m2[j] : 0);
        r[j] = Limb(carry);
        carry >>= 64;
    }
    limbs_to_be(r, message, k);
}

// The prime search of key generation: a random start below 2^b with bits
// b - 1, b - 2 and 0 set, searched upward; redrawn when no prime is found,
// when gcd(e, p - 1) != 1 or when it equals `other`.
bool draw_prime(size_t b, const Num &e, int32_t prob, Vorp_rsrc_t rsrc, const Num *other, Num &prime) {
    Num limit;
    limit.mag = mag_shift_left(Digits{1}, b);
    for (int draw = 0; draw < kMaxPrimeDraws; ++draw) {
        Num start;
        num_random_below(limit, rsrc, start);
        for (size_t bit : {b - 1, b - 2, size_t(0)}) {
            if (start.mag.size() <= bit / 32) start.mag.resize(bit / 32 + 1);
            start.mag[bit / 32] |= Digit(1) << (bit % 32);
        }
        if (num_find_prime(start, limit, prob, false, rsrc, prime) != 0 || prime.is_zero()) continue;
        const Digits g = mag_gcd(e.mag, num_sub(prime, num_from_u64(1)).mag);
        if (g.size() != 1 || g[0] != 1) continue;
        if (other && num_compare(prime, *other) == 0) continue;
        return true;
    }
    return false;
}

unsigned char *fail_bytes(qv_int32_t code) {
    Vorp_errno = code;
    return nullptr;
}

}  // namespace
}  // namespace vorp::bn

using namespace vorp::bn;

extern "C" unsigned char *Vorp_rsaKeyGen(qv_int32_t keySize, qv_int32_t keyType, const unsigned char *pub_exp,
                                         unsigned char *keyData, Vorp_rsrc_t rsrc) {
    const int type = keyType & 0x7f, certainty = (keyType >> 8) & 0xff;
    if (keySize < kMinKeyBits || keySize > kMaxKeyBits || keySize % 2 ||
        (type != VORP_RSA_CRT_KEY && type != VORP_RSA_PRIVATE_KEY) || certainty == 1 || !pub_exp || !rsrc)
        return fail_bytes(VORP_E_BAD_ARGUMENT);
    return guarded<unsigned char *>(nullptr, [&]() -> unsigned char * {
        const Num e = num_from_be(pub_exp + 1, pub_exp[0]);
        // An even exponent has no inverse modulo (p - 1)(q - 1).
        if (e.is_zero() || !(e.mag[0] & 1) || (e.mag.size() == 1 && e.mag[0] == 1)) return fail_bytes(VORP_E_BAD_ARGUMENT);
        const size_t bits = size_t(keySize), b = bits / 2, k = (bits + 7) / 8, h = (bits + 15) / 16;
        const int32_t prob = certainty == 0 ? (bits <= 511 ? -80 : -12) : certainty <= 11 ? certainty : -certainty;
        Num p, q;
        if (!draw_prime(b, e, prob, rsrc, nullptr, p) || !draw_prime(b, e, prob, rsrc, &p, q))
            return fail_bytes(VORP_E_BAD_ARGUMENT);
        const Num one = num_from_u64(1), p1 = num_sub(p, one), q1 = num_sub(q, one);
        Num d;
        num_mod_inverse(e, num_mul(p1, q1), d);  // gcd(e, p - 1) = gcd(e, q - 1) = 1
        std::vector<uint8_t, WipingAllocator<uint8_t>> rec(type == VORP_RSA_CRT_KEY ? 3 + 5 * h : 3 + 2 * k);
        rec[0] = uint8_t(type);
        rec[1] = uint8_t(bits >> 8);
        rec[2] = uint8_t(bits);
        if (type == VORP_RSA_PRIVATE_KEY) {
            num_to_be(num_mul(p, q), &rec[3], k);
            num_to_be(d, &rec[3 + k], k);
        } else {
            if (num_compare(p, q) < 0) std::swap(p, q);
            Num qinv;
            num_mod_inverse(q, p, qinv);
            const Num parts[] = {p, q, num_mod(d, num_sub(p, one)), num_mod(d, num_sub(q, one)), qinv};
            for (size_t i = 0; i < 5; ++i) num_to_be(parts[i], &rec[3 + i * h], h);
        }
        unsigned char *out = keyData ? keyData : static_cast<unsigned char *>(std::malloc(rec.size()));
        if (!out) return fail_bytes(VORP_E_NO_MEMORY);
        std::memcpy(out, rec.data(), rec.size());
        return out;
    });
}

namespace {

// n of a 0x10 or 0x11 record in its natural length; returns that length.
size_t write_modulus(const uint8_t *rec, uint8_t *out) {
    const Sizes s = sizes_of(rec);
    if (rec[0] == VORP_RSA_PRIVATE_KEY) {
        std::memcpy(out, rec + 3, s.k);
        return s.k;
    }
    const Num n = num_mul(num_from_be(rec + 3, s.h), num_from_be(rec + 3 + s.h, s.h));
    const size_t len = (mag_bit_length(n.mag) + 7) / 8;
    num_to_be(n, out, len);
    return len;
}

bool private_key(const uint8_t *rec) { return rec && (rec[0] == VORP_RSA_CRT_KEY || rec[0] == VORP_RSA_PRIVATE_KEY); }

}  // namespace

extern "C" qv_int32_t Vorp_rsaComputeModulus(const unsigned char *rsaKey, unsigned char *modulus) {
    if (!private_key(rsaKey) || !modulus) {
        Vorp_errno = VORP_E_BAD_ARGUMENT;
        return 0;
    }
    return guarded<qv_int32_t>(0, [&] { return qv_int32_t(write_modulus(rsaKey, modulus)); });
}

extern "C" unsigned char *Vorp_rsaMakePublicKey(const unsigned char *rsaKey, const unsigned char *pubExp,
                                                unsigned char *pubKey) {
    if (!private_key(rsaKey) || !pubExp) return fail_bytes(VORP_E_BAD_ARGUMENT);
    return guarded<unsigned char *>(nullptr, [&]() -> unsigned char * {
        const Sizes s = sizes_of(rsaKey);
        std::vector<uint8_t> n(2 * s.h + s.k);  // room for either form
        const size_t len = write_modulus(rsaKey, n.data());
        if (len > s.k) return fail_bytes(VORP_E_BAD_ARGUMENT);
        const size_t exp_len = size_t(pubExp[0]) + 1;
        unsigned char *out = pubKey ? pubKey : static_cast<unsigned char *>(std::malloc(s.k + exp_len + 3));
        if (!out) return fail_bytes(VORP_E_NO_MEMORY);
        out[0] = VORP_RSA_PUBLIC_KEY;
        out[1] = rsaKey[1];
        out[2] = rsaKey[2];
        std::memset(out + 3, 0, s.k - len);
        std::memcpy(out + 3 + s.k - len, n.data(), len);
        std::memcpy(out + 3 + s.k, pubExp, exp_len);
        return out;
    });
}

extern "C" qv_int32_t Vorp_rsa(const unsigned char *keyData, unsigned char *message) {
    if (!keyData || !message) {
        Vorp_errno = VORP_E_BAD_ARGUMENT;
        return 0;
    }
    const uint8_t type = keyData[0];
    const Sizes s = sizes_of(keyData);
    const uint8_t *body = keyData + 3;
    // Montgomery arithmetic needs odd moduli, as every RSA key has; a prime's
    // lowest bit is no secret.
    const bool bad = type == VORP_RSA_CRT_KEY ? s.bits % 2 || !odd(body, s.h) || !odd(body + s.h, s.h)
                                              : type > VORP_RSA_PUBLIC_KEY || type < VORP_RSA_PRIVATE_KEY || !odd(body, s.k);
    if (bad) {
        Vorp_errno = VORP_E_BAD_KEY;
        return 0;
    }
    return guarded<qv_int32_t>(0, [&] {
        if (type == VORP_RSA_CRT_KEY)
            power_crt(keyData, s.k, s.h, message);
        else if (type == VORP_RSA_PRIVATE_KEY)
            power_mod_n(body, s.k, body + s.k, s.k, true, message);
        else
            power_mod_n(body, s.k, body + s.k + 1, body[s.k], false, message);
        return qv_int32_t(s.k);
    });
}
