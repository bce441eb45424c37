// Numbers to and from big-endian bytes and text.
#include <cstdlib>
#include <string>

#include "bn_internal.h"

namespace vorp::bn {
namespace {

// Magnitude of len big-endian bytes.
Digits bytes_to_mag(const unsigned char *data, size_t len) {
    Digits m((len + 3) / 4);
    for (size_t i = 0; i < len; ++i) {
        const size_t pos = len - 1 - i;  // byte significance
        m[pos / 4] |= Digit(data[i]) << (8 * (pos % 4));
    }
    trim(m);
    return m;
}

uint8_t mag_byte(const Digits &m, size_t pos) {
    return pos / 4 < m.size() ? uint8_t(m[pos / 4] >> (8 * (pos % 4))) : 0;
}

int digit_value(char ch) {
    if (ch >= '0' && ch <= '9') return ch - '0';
    if (ch >= 'a' && ch <= 'f') return ch - 'a' + 10;
    if (ch >= 'A' && ch <= 'F') return ch - 'A' + 10;
    return 99;
}

// The largest power of radix that fits a digit, and its exponent: text is
// converted that many characters at a time.
void radix_chunk(Digit radix, Digit &power, int &count) {
    power = radix;
    count = 1;
    while (Wide(power) * radix <= 0xffffffffu) {
        power *= radix;
        ++count;
    }
}

}  // namespace
}  // namespace vorp::bn

using namespace vorp::bn;

extern "C" bignum_t bn_fromData(qv_int32_t signum, const unsigned char *data, qv_int32_t len, bignum_t *c) {
    if (len < 0 || (len > 0 && !data)) return fail(VORP_E_BAD_ARGUMENT);
    return guarded<bignum_t>(nullptr, [&] {
        Num v;
        v.mag = bytes_to_mag(data, size_t(len));
        if (signum != 0) {
            v.neg = signum < 0;
        } else if (len > 0 && (data[0] & 0x80)) {
            // Two's complement: the magnitude is 2^(8 len) - value.
            Digits full(size_t(len + 3) / 4 + 1);
            full[size_t(len) / 4] = Digit(1) << (8 * (size_t(len) % 4));
            trim(full);
            v.mag = mag_sub(full, v.mag);
            v.neg = true;
        }
        v.fix_sign();
        return place(v, c);
    });
}

extern "C" qv_int32_t bn_toData(bignum_tc b, unsigned char *data, qv_int32_t minLen, qv_int32_t sign) {
    return guarded<qv_int32_t>(-1, [&]() -> qv_int32_t {
        Num v = read(b);
        size_t natural = (mag_bit_length(v.mag) + 7) / 8;
        Digits out = v.mag;
        if (sign) {
            // Room for the sign bit: a value whose top bit would read as the
            // wrong sign gets one more byte. A negative number is written as
            // 2^(8 n) - |v|; its magnitude may use the top bit exactly when
            // it is a power of two (-128 is one byte 80).
            const size_t bits = mag_bit_length(v.mag);
            natural = bits / 8 + 1;
            if (v.neg) {
                Digits low = mag_sub(v.mag, Digits{1});
                natural = mag_bit_length(low) / 8 + 1;
            }
        }
        const size_t n = std::max(natural, size_t(std::max(minLen, 0)));
        if (n > size_t(INT32_MAX)) throw BadArgument{};
        if (!data) return qv_int32_t(n);
        if (sign && v.neg) {
            Digits full(n / 4 + 1);
            full[n / 4] = Digit(1) << (8 * (n % 4));
            trim(full);
            out = mag_sub(full, v.mag);
        }
        for (size_t i = 0; i < n; ++i) data[i] = mag_byte(out, n - 1 - i);
        return qv_int32_t(n);
    });
}

extern "C" bignum_t bn_fromString(const char *s, qv_int32_t radix, bignum_t *c) {
    if (!s || radix < 2 || radix > 16) return fail(VORP_E_BAD_ARGUMENT);
    return guarded<bignum_t>(nullptr, [&]() -> bignum_t {
        Num v;
        if (*s == '-') {
            v.neg = true;
            ++s;
        }
        if (digit_value(*s) >= radix) return fail(VORP_E_BAD_ARGUMENT);
        Digit power;
        int count;
        radix_chunk(Digit(radix), power, count);
        while (digit_value(*s) < radix) {
            Digit chunk = 0, scale = 1;
            for (int i = 0; i < count && digit_value(*s) < radix; ++i, ++s) {
                chunk = chunk * Digit(radix) + Digit(digit_value(*s));
                scale *= Digit(radix);
            }
            mag_mult_by_digit_add(v.mag, scale, chunk);
        }
        trim(v.mag);
        v.fix_sign();
        return place(v, c);
    });
}

extern "C" char *bn_toString(bignum_tc b, qv_int32_t radix, char **cp) {
    if (radix < 2 || radix > 16) {
        Vorp_errno = VORP_E_BAD_ARGUMENT;
        return nullptr;
    }
    return guarded<char *>(nullptr, [&]() -> char * {
        Num v = read(b);
        static const char kDigits[] = "0123456789abcdef";
        Digit power;
        int count;
        radix_chunk(Digit(radix), power, count);
        std::string rev;
        while (!v.mag.empty()) {
            Digit chunk = mag_divide_by_digit(v.mag, power);
            for (int i = 0; i < count && (chunk || !v.mag.empty()); ++i) {
                rev.push_back(kDigits[chunk % Digit(radix)]);
                chunk /= Digit(radix);
            }
        }
        if (rev.empty()) rev.push_back('0');
        if (v.neg) rev.push_back('-');
        char *out = static_cast<char *>(std::malloc(rev.size() + 1));
        if (!out) {
            Vorp_errno = VORP_E_NO_MEMORY;
            return nullptr;
        }
        for (size_t i = 0; i < rev.size(); ++i) out[i] = rev[rev.size() - 1 - i];
        out[rev.size()] = '\0';
        if (cp) *cp = out + rev.size();
        return out;
    });
}
