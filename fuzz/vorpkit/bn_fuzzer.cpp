// Arbitrary bytes as big-number input. The first byte chooses a radix and a
// split point; the rest is read as text and as big-endian data, and the two
// halves as operands of the division and the modular inverse:
//  - text and data round trips give back the same number;
//  - a = q * b + r with |r| < |b| and r carrying a's sign (or zero);
//  - n * inverse(n) mod |b| is 1 whenever an inverse is returned.
#include "../fuzz_support.h"
#include "vorpkit.h"

namespace {

using Owned = qvfuzz::Owned<bignum_t, bn_free>;
using qvfuzz::check;

bool well_formed(bignum_tc b) {
    return b && b[2] <= b[0] && (b[2] == 0 ? b[1] == 0 : b[3 + b[2] - 1] != 0) && b[1] <= 1;
}

bool same(bignum_tc a, bignum_tc b) { return bn_compare(a, b) == 0 && a[1] == b[1] && a[2] == b[2]; }

void text_round_trip(const std::string &text, int radix) {
    Owned n;
    if (!bn_fromString(text.c_str(), radix, &n.p)) return;
    check(well_formed(n.p));
    char *end = nullptr;
    char *s = bn_toString(n.p, radix, &end);
    check(s && end == s + std::strlen(s));
    Owned back;
    check(bn_fromString(s, radix, &back.p) && same(n.p, back.p));
    std::free(s);
}

void data_round_trip(const uint8_t *data, size_t size, qv_int32_t signum) {
    Owned n;
    check(bn_fromData(signum, data, qv_int32_t(size), &n.p) && well_formed(n.p));
    for (qv_int32_t sign : {0, 1}) {
        qv_int32_t len = bn_toData(n.p, nullptr, 0, sign);
        std::vector<unsigned char> out(size_t(len) + 1);
        check(bn_toData(n.p, out.data(), 0, sign) == len);
        Owned back;
        check(bn_fromData(sign ? 0 : (n.p[1] ? -1 : 1), out.data(), len, &back.p));
        check(same(n.p, back.p));
    }
}

void division(bignum_tc a, bignum_tc b) {
    Owned q, r, prod, sum;
    if (!bn_divide(a, b, &q.p, &r.p)) {
        check(b[2] == 0 && Vorp_errno == VORP_E_DIVIDE);
        return;
    }
    check(well_formed(q.p) && well_formed(r.p));
    check(bn_multiply(q.p, b, &prod.p) && bn_add(prod.p, r.p, &sum.p));
    check(same(sum.p, a));
    Owned ra, rb;
    check(bn_changeSign(0, r.p, &ra.p) && bn_changeSign(0, b, &rb.p) && bn_compare(ra.p, rb.p) < 0);
    check(r.p[2] == 0 || r.p[1] == a[1]);
}

void inverse(bignum_tc n, bignum_tc m) {
    Owned inv, prod, rem, mod, pos;
    if (!bn_modInverse(n, m, &inv.p)) {
        check(Vorp_errno == VORP_E_NO_INVERSE || Vorp_errno == VORP_E_DIVIDE);
        return;
    }
    check(bn_changeSign(0, m, &mod.p));
    check(bn_multiply(n, inv.p, &prod.p) && bn_divide(prod.p, mod.p, nullptr, &rem.p));
    check(rem.p[1] ? bn_add(rem.p, mod.p, &pos.p) != nullptr : bn_changeSign(0, rem.p, &pos.p) != nullptr);
    check(bn_toLong(pos.p) == (bn_bitLength(mod.p) == 1 ? 0 : 1) && bn_bitLength(pos.p) <= 1);
}

}  // namespace

QV_FUZZ_TARGET(4096) {
    if (size < 1) return;
    const int radix = 2 + data[0] % 15;
    const qv_int32_t signum = qv_int32_t(data[0] % 3) - 1;
    ++data;
    --size;
    text_round_trip(std::string(reinterpret_cast<const char *>(data), size), radix);
    data_round_trip(data, size, signum);

    const size_t split = size ? data[0] % (size + 1) : 0;
    Owned a, b;
    check(bn_fromData(0, data, qv_int32_t(split), &a.p) && bn_fromData(0, data + split, qv_int32_t(size - split), &b.p));
    division(a.p, b.p);
    inverse(a.p, b.p);
}
