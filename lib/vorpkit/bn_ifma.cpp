// Modular powers on AVX-512 IFMA: numbers in 52-bit digits, four to a
// 256-bit vector (which wastes no lane for 1024-bit moduli, 20 digits), multiplied with the 52-bit multiply-add instructions in an
// almost-Montgomery form (results below 2m rather than m, which needs
// 4m < 2^(52L); the exact residue is taken once at the end). Only the
// product routine is compiled for those instructions, through a target
// attribute, so no code shared with the rest of the library carries them.
// GCC 12 reports the placeholder operands inside its own AVX-512 lane
// intrinsics as maybe uninitialised; they are not read.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <immintrin.h>

#include <utility>

#include "bn_montgomery.h"
#include "cpu_features.h"

namespace vorp::bn {
namespace {

constexpr Limb kMask52 = (Limb(1) << 52) - 1;
// Up to 64 digits (moduli of up to 3,326 bits); longer ones stay on the
// 64-bit path.
constexpr size_t kMaxVectors = 16;

struct Modulus52 {
    size_t digits, vectors;  // L and ceil(L / 8)
    const Limb *m;           // 4 * vectors digits, zero above L
    Limb k0;                 // -m^-1 mod 2^52
};

void to_digits52(const Limb *a, size_t n, Limb *d, size_t count) {
    for (size_t j = 0; j < count; ++j) {
        const size_t bit = 52 * j, w = bit / 64, s = bit % 64;
        Limb v = w < n ? a[w] >> s : 0;
        if (s > 12 && w + 1 < n) v |= a[w + 1] << (64 - s);
        d[j] = v & kMask52;
    }
}

void from_digits52(const Limb *d, size_t count, Limb *a, size_t n) {
    std::fill(a, a + n, 0);
    for (size_t j = 0; j < count; ++j) {
        const size_t bit = 52 * j, w = bit / 64, s = bit % 64;
        if (w < n) a[w] |= d[j] << s;
        if (s > 12 && w + 1 < n) a[w + 1] |= d[j] >> (64 - s);
    }
}

// out[k] = a[k] * b[k] / 2^(52L) modulo m[k], below 2m[k] for a[k], b[k]
// below 2m[k]. Each turn adds the low halves of a * b[i] and y * m (y chosen
// so that the lowest digit becomes 0 modulo 2^52), moves the accumulator
// down one digit, and adds the high halves, which belong one digit up. The
// digits are normalised once, at the end. The lowest digit, which decides
// y and is then dropped, is followed in a general register (z), with the
// carry it leaves for the next digit: so y waits for one lane move and two
// scalar products rather than for the vector products of its own turn. K
// products run interleaved, so that one's chain of dependent steps fills
// the other's waits; the vector count is a template argument so that every
// accumulator stays in a register.
template <size_t K, size_t NV>
__attribute__((target("avx512f,avx512vl,avx512ifma"))) void amm(const Modulus52 *const mod[K], Limb *const out[K],
                                                       const Limb *const a[K], const Limb *const b[K]) {
    const __m256i zero = _mm256_setzero_si256();
    __m256i acc[K][NV];
    Limb carry[K] = {};
#pragma GCC unroll 2
    for (size_t k = 0; k < K; ++k)
#pragma GCC unroll 16
        for (size_t v = 0; v < NV; ++v) acc[k][v] = zero;
    for (size_t i = 0; i < mod[0]->digits; ++i) {
        __m256i bi[K], y[K];
#pragma GCC unroll 2
        for (size_t k = 0; k < K; ++k) {
            const Limb bk = b[k][i];
            const Limb z = Limb(_mm_cvtsi128_si64(_mm256_castsi256_si128(acc[k][0]))) + carry[k] + ((a[k][0] * bk) & kMask52);
            const Limb yk = (z * mod[k]->k0) & kMask52;
            carry[k] = (z + ((yk * mod[k]->m[0]) & kMask52)) >> 52;
            bi[k] = _mm256_set1_epi64x((long long)bk);
            y[k] = _mm256_set1_epi64x((long long)yk);
        }
#pragma GCC unroll 2
        for (size_t k = 0; k < K; ++k)
#pragma GCC unroll 16
            for (size_t v = 0; v < NV; ++v) {
                acc[k][v] = _mm256_madd52lo_epu64(acc[k][v], _mm256_loadu_epi64(a[k] + 4 * v), bi[k]);
                acc[k][v] = _mm256_madd52lo_epu64(acc[k][v], _mm256_loadu_epi64(mod[k]->m + 4 * v), y[k]);
            }
#pragma GCC unroll 2
        for (size_t k = 0; k < K; ++k) {
#pragma GCC unroll 16
            for (size_t v = 0; v + 1 < NV; ++v) acc[k][v] = _mm256_alignr_epi64(acc[k][v + 1], acc[k][v], 1);
            acc[k][NV - 1] = _mm256_alignr_epi64(zero, acc[k][NV - 1], 1);
        }
#pragma GCC unroll 2
        for (size_t k = 0; k < K; ++k)
#pragma GCC unroll 16
            for (size_t v = 0; v < NV; ++v) {
                acc[k][v] = _mm256_madd52hi_epu64(acc[k][v], _mm256_loadu_epi64(a[k] + 4 * v), bi[k]);
                acc[k][v] = _mm256_madd52hi_epu64(acc[k][v], _mm256_loadu_epi64(mod[k]->m + 4 * v), y[k]);
            }
    }
    // The K carry chains of the normalisation run side by side; the last
    // turn's carry goes into the lowest digit.
    Limb t[K][4 * NV], c[K];
#pragma GCC unroll 2
    for (size_t k = 0; k < K; ++k) {
        c[k] = carry[k];
#pragma GCC unroll 16
        for (size_t v = 0; v < NV; ++v) _mm256_storeu_epi64(t[k] + 4 * v, acc[k][v]);
    }
    for (size_t j = 0; j < 4 * NV; ++j)
#pragma GCC unroll 2
        for (size_t k = 0; k < K; ++k) {
            c[k] += t[k][j];
            out[k][j] = c[k] & kMask52;
            c[k] >>= 52;
        }
    // Wiped by vector stores; the empty statement after them tells the
    // compiler that they are needed.
#pragma GCC unroll 2
    for (size_t k = 0; k < K; ++k)
#pragma GCC unroll 16
        for (size_t v = 0; v < NV; ++v) _mm256_storeu_epi64(t[k] + 4 * v, zero);
    __asm__ volatile("" : : "r"(&t[0][0]) : "memory");
}

// The window table scan, NV vectors of four digits an entry: every entry
// is loaded, and a lane mask from comparing the entry number with idx
// decides by a blend (no branch, no index) whether it is kept.
template <size_t NV>
__attribute__((target("avx512f,avx512vl"))) void select52(Limb *out, const Limb *table, size_t entries, Limb idx) {
    const __m256i want = _mm256_set1_epi64x((long long)idx), step = _mm256_set1_epi64x(1);
    __m256i acc[NV], e = _mm256_setzero_si256();
#pragma GCC unroll 16
    for (size_t v = 0; v < NV; ++v) acc[v] = _mm256_setzero_si256();
    for (size_t i = 0; i < entries; ++i, e = _mm256_add_epi64(e, step), table += 4 * NV) {
        const __mmask8 keep = _mm256_cmpeq_epi64_mask(e, want);
#pragma GCC unroll 16
        for (size_t v = 0; v < NV; ++v) acc[v] = _mm256_mask_mov_epi64(acc[v], keep, _mm256_loadu_epi64(table + 4 * v));
    }
#pragma GCC unroll 16
    for (size_t v = 0; v < NV; ++v) _mm256_storeu_epi64(out + 4 * v, acc[v]);
}

template <size_t... V>
void select_entry52_for(Limb *out, const Limb *table, size_t entries, size_t n, Limb idx, std::index_sequence<V...>) {
    using Fn = void (*)(Limb *, const Limb *, size_t, Limb);
    static constexpr Fn fns[] = {select52<V + 1>...};
    fns[n / 4 - 1](out, table, entries, idx);
}

// n a multiple of 4, at most 4 * kMaxVectors.
void select_entry52(Limb *out, const Limb *table, size_t entries, size_t n, Limb idx) {
    select_entry52_for(out, table, entries, n, idx, std::make_index_sequence<kMaxVectors>{});
}

template <size_t K>
using AmmFn = void (*)(const Modulus52 *const[K], Limb *const[K], const Limb *const[K], const Limb *const[K]);

template <size_t K>
AmmFn<K> amm_for(size_t vectors) {
    static constexpr AmmFn<K> fns[kMaxVectors] = {amm<K, 1>,  amm<K, 2>,  amm<K, 3>,  amm<K, 4>,  amm<K, 5>,  amm<K, 6>,
                                                  amm<K, 7>,  amm<K, 8>,  amm<K, 9>,  amm<K, 10>, amm<K, 11>, amm<K, 12>,
                                                  amm<K, 13>, amm<K, 14>, amm<K, 15>, amm<K, 16>};
    return fns[vectors - 1];
}

// One modulus in 52-bit digits, with 2^(104L) mod m for the conversion
// into the almost-Montgomery form. Not copied: mod points into m52.
struct Prepared {
    size_t n, digits, vectors, d;
    Limbs m52, rr, one, unit;
    Modulus52 mod;
};

bool prepare(const Montgomery &mont, Prepared &p) {
    p.n = mont.size();
    p.digits = (64 * p.n + 2 + 51) / 52;
    p.vectors = (p.digits + 3) / 4;
    p.d = 4 * p.vectors;
    if (!cpu().ifma || p.n < 8 || p.vectors > kMaxVectors) return false;
    p.m52.assign(p.d, 0);
    to_digits52(mont.modulus().data(), p.n, p.m52.data(), p.d);
    p.mod = Modulus52{p.digits, p.vectors, p.m52.data(), mont.m0inv() & kMask52};
    // 2^(104L) mod m: 2^r taken into Montgomery form q times, 104L = 64n * q + r.
    Limbs v(p.n);
    const size_t total = 104 * p.digits, q = total / (64 * p.n), r = total % (64 * p.n);
    v[r / 64] = Limb(1) << (r % 64);
    for (size_t i = 0; i < q; ++i) v = mont.to_mont(v);
    p.rr.assign(p.d, 0);
    to_digits52(v.data(), p.n, p.rr.data(), p.d);
    p.unit.assign(p.d, 0);
    p.unit[0] = 1;
    p.one.assign(p.d, 0);
    const Modulus52 *mods[1] = {&p.mod};
    Limb *o[1] = {p.one.data()};
    const Limb *x[1] = {p.unit.data()}, *y[1] = {p.rr.data()};
    amm_for<1>(p.vectors)(mods, o, x, y);
    return true;
}

// base (below R) into the almost-Montgomery form.
Limbs enter(const Montgomery &mont, const Prepared &p, const Limbs &base) {
    Limbs x(p.d);
    to_digits52(mont.from_mont(mont.to_mont(base)).data(), p.n, x.data(), p.d);  // base mod m
    const Modulus52 *mods[1] = {&p.mod};
    Limb *o[1] = {x.data()};
    const Limb *a[1] = {x.data()}, *b[1] = {p.rr.data()};
    amm_for<1>(p.vectors)(mods, o, a, b);
    return x;
}

// Out of the form: a product with 1 leaves at most m; one masked
// subtraction takes m to 0.
Limbs leave(const Montgomery &mont, const Prepared &p, Limbs acc) {
    const Modulus52 *mods[1] = {&p.mod};
    Limb *o[1] = {acc.data()};
    const Limb *a[1] = {acc.data()}, *b[1] = {p.unit.data()};
    amm_for<1>(p.vectors)(mods, o, a, b);
    Limbs out(p.n), tmp(p.n);
    from_digits52(acc.data(), p.d, out.data(), p.n);
    reduce_once(out.data(), out.data(), 0, mont.modulus().data(), p.n, tmp.data());
    return out;
}

template <size_t K>
bool powers(const Montgomery *const mont[K], const Limbs *const base[K], const Limbs *const exp[K], size_t bits,
            bool secret, Limbs out[K]) {
    Prepared p[K];
    std::array<Limbs, K> x, one;
    std::array<const Limbs *, K> e;
    const Modulus52 *mods[K];
    for (size_t k = 0; k < K; ++k) {
        if (!prepare(*mont[k], p[k]) || p[k].vectors != p[0].vectors || p[k].digits != p[0].digits) return false;
        x[k] = enter(*mont[k], p[k], *base[k]);
        one[k] = p[k].one;
        e[k] = exp[k];
        mods[k] = &p[k].mod;
        bits = std::min(bits, 64 * exp[k]->size());
    }
    const AmmFn<K> fn = amm_for<K>(p[0].vectors);
    std::array<Limbs, K> acc = window_powers<K>(p[0].d, x, one, e, bits, secret,
                                                [&](auto &o, auto &a, auto &b) { fn(mods, o.data(), a.data(), b.data()); },
                                                &select_entry52);
    for (size_t k = 0; k < K; ++k) out[k] = leave(*mont[k], p[k], std::move(acc[k]));
    return true;
}

}  // namespace

bool Montgomery::power_ifma(const Limbs &base, const Limbs &exp, size_t bits, bool secret, Limbs &out) const {
    const Montgomery *mont[1] = {this};
    const Limbs *b[1] = {&base}, *e[1] = {&exp};
    return powers<1>(mont, b, e, bits, secret, &out);
}

bool power_pair_ifma(const Montgomery *mont[2], const Limbs *base[2], const Limbs *exp[2], size_t bits, Limbs out[2]) {
    return powers<2>(mont, base, exp, bits, true, out);
}

}  // namespace vorp::bn
