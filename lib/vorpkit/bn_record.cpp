// The caller's bignum_t records: reading them into Nums, placing results
// under the reuse rule, and the routines that work on a record's layout
// (allocation, copy, sign, comparison, bits, 64-bit values).
#include <cstdlib>
#include <limits>

#include "bn_internal.h"

namespace vorp::bn {

bignum_t allocate_record(size_t capacity) {
    if (capacity > std::numeric_limits<qv_uint32_t>::max() ||
        capacity > std::numeric_limits<size_t>::max() / sizeof(qv_uint32_t) - kHeaderWords)
        return nullptr;
    auto *b = static_cast<bignum_t>(std::calloc(capacity + kHeaderWords, sizeof(qv_uint32_t)));
    if (b) b[kCapacityWord] = qv_uint32_t(capacity);
    return b;
}

Num read(bignum_tc b) {
    if (!b || b[kLengthWord] > b[kCapacityWord]) throw BadArgument{};
    Num n;
    n.mag.assign(b + kHeaderWords, b + kHeaderWords + b[kLengthWord]);
    trim(n.mag);
    n.neg = b[kSignWord] != 0;
    n.fix_sign();
    return n;
}

namespace {

void store(const Num &v, bignum_t out) {
    const size_t n = v.mag.size();
    out[kSignWord] = n && v.neg ? 1 : 0;
    out[kLengthWord] = qv_uint32_t(n);
    std::copy(v.mag.begin(), v.mag.end(), out + kHeaderWords);
    // Digits above the length may have held an earlier (secret) value.
    std::fill(out + kHeaderWords + n, out + kHeaderWords + out[kCapacityWord], 0u);
}

}  // namespace

bignum_t place(const Num &v, bignum_t *slot) {
    bignum_t out = slot ? *slot : nullptr;
    if (!out || out[kCapacityWord] < v.mag.size()) {
        out = allocate_record(std::max<size_t>(v.mag.size(), 1));
        if (!out) return fail(VORP_E_NO_MEMORY);
        if (slot) {
            bn_free(*slot);
            *slot = out;
        }
    }
    store(v, out);
    return out;
}

Num num_from_u64(uint64_t v, bool neg) {
    Num n;
    if (v) n.mag.push_back(Digit(v));
    if (v >> 32) n.mag.push_back(Digit(v >> 32));
    n.neg = neg;
    n.fix_sign();
    return n;
}

int num_compare(const Num &a, const Num &b) {
    if (a.neg != b.neg) return a.neg ? -1 : 1;
    int m = mag_compare(a.mag, b.mag);
    return a.neg ? -m : m;
}

}  // namespace vorp::bn

using namespace vorp::bn;

extern "C" bignum_t bn_new(bignum_t *b, qv_int32_t nDigits) {
    if (nDigits < 0) return fail(VORP_E_BAD_ARGUMENT);
    bignum_t out = b ? *b : nullptr;
    if (!out || out[kCapacityWord] < qv_uint32_t(nDigits)) {
        out = allocate_record(size_t(nDigits));
        if (!out) return fail(VORP_E_NO_MEMORY);
        if (b) {
            bn_free(*b);
            *b = out;
        }
    }
    std::fill(out + kSignWord, out + kHeaderWords + out[kCapacityWord], 0u);
    return out;
}

extern "C" bignum_t bn_clone(bignum_tc b) {
    if (!b || b[kLengthWord] > b[kCapacityWord]) return fail(VORP_E_BAD_ARGUMENT);
    bignum_t out = allocate_record(b[kCapacityWord]);
    if (!out) return fail(VORP_E_NO_MEMORY);
    std::copy(b, b + kHeaderWords + b[kLengthWord], out);
    return out;
}

extern "C" void bn_free(bignum_t b) {
    if (!b) return;
    volatile qv_uint32_t *v = b;
    const size_t words = size_t(b[kCapacityWord]) + kHeaderWords;
    for (size_t i = 0; i < words; ++i) v[i] = 0;
    std::free(b);
}

extern "C" bignum_t bn_changeSign(qv_int32_t sign, bignum_tc b, bignum_t *c) {
    return guarded<bignum_t>(nullptr, [&] {
        Num v = read(b);
        v.neg = sign != 0;
        v.fix_sign();
        return place(v, c);
    });
}

extern "C" qv_int32_t bn_compare(bignum_tc a, bignum_tc b) {
    return guarded<qv_int32_t>(0, [&] { return num_compare(read(a), read(b)); });
}

extern "C" qv_int32_t bn_bitLength(bignum_tc b) {
    return guarded<qv_int32_t>(0, [&] { return qv_int32_t(mag_bit_length(read(b).mag)); });
}

extern "C" qv_int32_t bn_lowestSetBit(bignum_tc b) {
    return guarded<qv_int32_t>(-1, [&] {
        Num v = read(b);
        for (size_t i = 0; i < v.mag.size(); ++i)
            if (v.mag[i]) return qv_int32_t(32 * i + size_t(__builtin_ctz(v.mag[i])));
        return qv_int32_t(-1);
    });
}

extern "C" qv_int32_t bn_checkBit(bignum_tc b, qv_int32_t nthBit) {
    if (!b || b[kLengthWord] > b[kCapacityWord] || nthBit < 0) {
        Vorp_errno = VORP_E_BAD_ARGUMENT;
        return 0;
    }
    const size_t word = size_t(nthBit) / 32;
    if (word >= b[kLengthWord]) return 0;
    return qv_int32_t((b[kHeaderWords + word] >> (nthBit % 32)) & 1);
}

extern "C" bignum_t bn_setBit(bignum_t *c, qv_int32_t nthBit, qv_int32_t bitValue) {
    if (!c || nthBit < 0) return fail(VORP_E_BAD_ARGUMENT);
    return guarded<bignum_t>(nullptr, [&]() -> bignum_t {
        Num v = *c ? read(*c) : Num{};
        const size_t word = size_t(nthBit) / 32;
        const Digit mask = Digit(1) << (nthBit % 32);
        if (bitValue) {
            if (v.mag.size() <= word) v.mag.resize(word + 1);
            v.mag[word] |= mask;
        } else if (word < v.mag.size()) {
            v.mag[word] &= ~mask;
            trim(v.mag);
            v.fix_sign();
        }
        return place(v, c);
    });
}

extern "C" bignum_t bn_fromLong(bignum_t b, qv_int64_t value, qv_int32_t signum) {
    if (!b || b[kLengthWord] > b[kCapacityWord]) return fail(VORP_E_BAD_ARGUMENT);
    const bool neg = signum < 0 || (signum == 0 && value < 0);
    uint64_t mag = uint64_t(value);
    if (signum == 0 && value < 0) mag = 0 - mag;
    Num v = num_from_u64(mag, neg);
    // Only as many digits as the capacity holds are kept.
    if (v.mag.size() > b[kCapacityWord]) {
        v.mag.resize(b[kCapacityWord]);
        trim(v.mag);
        v.fix_sign();
    }
    b[kSignWord] = v.neg ? 1 : 0;
    b[kLengthWord] = qv_uint32_t(v.mag.size());
    std::fill(b + kHeaderWords, b + kHeaderWords + b[kCapacityWord], 0u);
    std::copy(v.mag.begin(), v.mag.end(), b + kHeaderWords);
    return b;
}

extern "C" qv_int64_t bn_toLong(bignum_tc b) {
    if (!b || b[kLengthWord] > b[kCapacityWord]) {
        Vorp_errno = VORP_E_BAD_ARGUMENT;
        return 0;
    }
    uint64_t mag = 0;
    if (b[kLengthWord] > 0) mag = b[kHeaderWords];
    if (b[kLengthWord] > 1) mag |= uint64_t(b[kHeaderWords + 1]) << 32;
    if (b[kSignWord]) mag = 0 - mag;
    return qv_int64_t(mag);
}
