// Modular powers on AVX-512 IFMA: numbers in 52-bit digits, eight to a
// vector, multiplied with the 52-bit multiply-add instructions in an
// almost-Montgomery form (results below 2m rather than m, which needs
// 4m < 2^(52L); the exact residue is taken once at the end). Only the
// product routine is compiled for those instructions, through a target
// attribute, so no code shared with the rest of the library carries them.
// GCC 12 reports the placeholder operands inside its own AVX-512 lane
// intrinsics as maybe uninitialised; they are not read.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <immintrin.h>

#include "bn_montgomery.h"
#include "cpu_features.h"

namespace vorp::bn {
namespace {

constexpr Limb kMask52 = (Limb(1) << 52) - 1;
// Up to 64 digits (moduli of up to 3,326 bits); longer ones stay on the
// 64-bit path.
constexpr size_t kMaxVectors = 8;

struct Modulus52 {
    size_t digits, vectors;  // L and ceil(L / 8)
    const Limb *m;           // 8 * vectors digits, zero above L
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

// out = a * b / 2^(52L) modulo m, below 2m for a, b below 2m. Each turn adds
// the low halves of a * b[i] and y * m (y chosen so that the lowest digit
// becomes 0 modulo 2^52), moves the accumulator down one digit, and adds the
// high halves, which belong one digit up. The digits are normalised once,
// at the end. The vector count is a template argument so that the loops
// over vectors unroll and every vector stays in a register.
template <size_t NV>
__attribute__((target("avx512f,avx512ifma"))) void amm(const Modulus52 &mod, Limb *out, const Limb *a,
                                                       const Limb *b) {
    const __m512i zero = _mm512_setzero_si512();
    __m512i acc[NV], av[NV], mv[NV];
#pragma GCC unroll 8
    for (size_t v = 0; v < NV; ++v) {
        acc[v] = zero;
        av[v] = _mm512_loadu_si512(a + 8 * v);
        mv[v] = _mm512_loadu_si512(mod.m + 8 * v);
    }
    for (size_t i = 0; i < mod.digits; ++i) {
        const __m512i bi = _mm512_set1_epi64((long long)b[i]);
#pragma GCC unroll 8
        for (size_t v = 0; v < NV; ++v) acc[v] = _mm512_madd52lo_epu64(acc[v], av[v], bi);
        const Limb low = Limb(_mm_cvtsi128_si64(_mm512_castsi512_si128(acc[0])));
        const __m512i y = _mm512_set1_epi64((long long)((low * mod.k0) & kMask52));
#pragma GCC unroll 8
        for (size_t v = 0; v < NV; ++v) acc[v] = _mm512_madd52lo_epu64(acc[v], mv[v], y);
        const Limb carry = Limb(_mm_cvtsi128_si64(_mm512_castsi512_si128(acc[0]))) >> 52;
#pragma GCC unroll 8
        for (size_t v = 0; v + 1 < NV; ++v) acc[v] = _mm512_alignr_epi64(acc[v + 1], acc[v], 1);
        acc[NV - 1] = _mm512_alignr_epi64(zero, acc[NV - 1], 1);
        acc[0] = _mm512_mask_add_epi64(acc[0], 1, acc[0], _mm512_set1_epi64((long long)carry));
#pragma GCC unroll 8
        for (size_t v = 0; v < NV; ++v) acc[v] = _mm512_madd52hi_epu64(acc[v], av[v], bi);
#pragma GCC unroll 8
        for (size_t v = 0; v < NV; ++v) acc[v] = _mm512_madd52hi_epu64(acc[v], mv[v], y);
    }
    Limb t[8 * NV];
#pragma GCC unroll 8
    for (size_t v = 0; v < NV; ++v) _mm512_storeu_si512(t + 8 * v, acc[v]);
    Limb c = 0;
    for (size_t j = 0; j < 8 * NV; ++j) {
        c += t[j];
        out[j] = c & kMask52;
        c >>= 52;
    }
    volatile Limb *wipe = t;
    for (size_t j = 0; j < 8 * NV; ++j) wipe[j] = 0;
}

using AmmFn = void (*)(const Modulus52 &, Limb *, const Limb *, const Limb *);
constexpr AmmFn kAmm[kMaxVectors] = {amm<1>, amm<2>, amm<3>, amm<4>, amm<5>, amm<6>, amm<7>, amm<8>};

}  // namespace

bool Montgomery::power_ifma(const Limbs &base, const Limbs &exp, size_t bits, bool secret, Limbs &out) const {
    const size_t n = n_, digits = (64 * n + 2 + 51) / 52, nv = (digits + 7) / 8, d = 8 * nv;
    if (!cpu().ifma || n < 8 || nv > kMaxVectors) return false;
    Limbs m52(d), rr(d), x(d), unit(d), one52(d);
    to_digits52(m_.data(), n, m52.data(), d);
    const Modulus52 mod{digits, nv, m52.data(), m0inv_ & kMask52};
    // 2^(104L) mod m: 2^r Montgomery-converted q times, 104L = 64n * q + r.
    {
        Limbs v(n);
        const size_t total = 104 * digits, q = total / (64 * n), r = total % (64 * n);
        v[r / 64] = Limb(1) << (r % 64);
        for (size_t i = 0; i < q; ++i) v = to_mont(v);
        to_digits52(v.data(), n, rr.data(), d);
    }
    const AmmFn amm_n = kAmm[nv - 1];
    auto mul = [&](Limb *o, const Limb *a, const Limb *b) { amm_n(mod, o, a, b); };
    to_digits52(from_mont(to_mont(base)).data(), n, x.data(), d);  // base mod m
    mul(x.data(), x.data(), rr.data());
    unit[0] = 1;
    mul(one52.data(), unit.data(), rr.data());
    Limbs acc = window_power(d, x, one52, exp, std::min(bits, 64 * exp.size()), secret, mul);
    mul(acc.data(), acc.data(), unit.data());  // at most m now
    out.assign(n, 0);
    from_digits52(acc.data(), d, out.data(), n);
    Limbs tmp(n);
    reduce_once(out.data(), out.data(), 0, m_.data(), n, tmp.data());  // m becomes 0
    return true;
}

}  // namespace vorp::bn
