// Arbitrary RSA key records and Diffie-Hellman parameter records. The first
// byte chooses the record kind and the arithmetic path (the processor's or
// the portable one); the record is padded to the length its size bytes
// announce (at most 1,024 bits, so that a run stays quick) and the message or
// the public and private values follow. Each result must equal the same
// power done with the bn_* routines:
//  - 0x11 and 0x12: message^exponent mod n;
//  - 0x10: Garner's recombination of the powers modulo p and q;
//  - the public key of a private record gives message^e mod n;
//  - Vorp_dh: pub^priv mod p.
// Records that no key can have (an even modulus, a bad type or format) must
// fail with their error code and leave the output alone.
#include "../fuzz_support.h"
#include "cpu_features.h"
#include "vorpkit.h"

namespace {

using Bytes = std::vector<unsigned char>;

using Owned = qvfuzz::Owned<bignum_t, bn_free>;
using qvfuzz::check;

bignum_t number(const unsigned char *p, size_t len) { return bn_fromData(1, p, qv_int32_t(len), nullptr); }

// v (non-negative, below 2^(8 len)) in len bytes.
Bytes bytes(bignum_tc v, size_t len) {
    Bytes out(len);
    const qv_int32_t n = bn_toData(v, nullptr, 0, 0);
    check(size_t(n) <= len);
    bn_toData(v, out.data() + len - size_t(n), 0, 0);
    return out;
}

// base^exp mod m, non-negative.
bignum_t power(bignum_tc base, bignum_tc exp, bignum_tc m) {
    bignum_t r = bn_power(base, exp, m, nullptr);
    check(r != nullptr);
    return r;
}

void rsa(qvfuzz::Cursor &in, uint8_t type) {
    Bytes head = in.padded(2);
    const size_t bits = (size_t(head[0]) << 8 | head[1]) % 1025, k = (bits + 7) / 8, h = (bits + 15) / 16;
    Bytes rec{type, uint8_t(bits >> 8), uint8_t(bits)};
    const size_t body = type == 0x10 ? 5 * h : type == 0x11 ? 2 * k : k + 1;
    Bytes rest = in.padded(body);
    rec.insert(rec.end(), rest.begin(), rest.end());
    if (type == 0x12) {
        Bytes e = in.padded(rec.back() % 65);
        rec.back() = uint8_t(e.size());
        rec.insert(rec.end(), e.begin(), e.end());
    }
    const Bytes message = in.padded(k);
    Bytes out = message;
    out.push_back(0xa5);  // nothing may be written past k bytes
    const qv_int32_t got = Vorp_rsa(rec.data(), out.data());
    const unsigned char *n = &rec[3];
    const bool bad = type == 0x10 ? bits % 2 || h == 0 || !(rec[2 + h] & 1) || !(rec[2 + 2 * h] & 1)
                                  : k == 0 || !(n[k - 1] & 1);
    if (bad) {
        check(got == 0 && Vorp_errno == VORP_E_BAD_KEY && std::memcmp(out.data(), message.data(), k) == 0);
        return;
    }
    check(got == qv_int32_t(k) && out[k] == 0xa5);
    out.pop_back();
    Owned c(number(message.data(), k));
    if (type != 0x10) {
        Owned mod(number(n, k)), e(type == 0x11 ? number(n + k, k) : number(n + k + 1, n[k]));
        Owned want(power(c.p, e.p, mod.p));
        check(out == bytes(want.p, k));
        return;
    }
    const unsigned char *p = &rec[3];
    Owned pn(number(p, h)), qn(number(p + h, h)), dp(number(p + 2 * h, h)), dq(number(p + 3 * h, h)),
        qinv(number(p + 4 * h, h));
    Owned m1(power(c.p, dp.p, pn.p)), m2(power(c.p, dq.p, qn.p)), m2p, hh;
    check(bn_divide(m2.p, pn.p, nullptr, &m2p.p) != nullptr);  // a record may have q above p
    Owned diff(bn_subtract(m1.p, m2p.p, nullptr));
    check(diff.p != nullptr);
    Owned t(bn_multiply(diff.p, qinv.p, nullptr));
    check(t.p && bn_divide(t.p, pn.p, nullptr, &hh.p));
    Owned hpos(hh.p[1] ? bn_add(hh.p, pn.p, nullptr) : bn_clone(hh.p));
    Owned prod(bn_multiply(hpos.p, qn.p, nullptr));
    check(prod.p != nullptr);
    Owned sum(bn_add(prod.p, m2.p, nullptr));
    check(sum.p != nullptr);
    // Only the low k bytes of a record whose numbers do not fit together.
    Bytes full = bytes(sum.p, 2 * h + 1);
    check(std::memcmp(out.data(), full.data() + full.size() - k, k) == 0);
}

void public_key(qvfuzz::Cursor &in, uint8_t type) {
    Bytes head = in.padded(2);
    const size_t bits = 2 * ((size_t(head[0]) << 8 | head[1]) % 513), k = (bits + 7) / 8, h = (bits + 15) / 16;
    Bytes rec{type, uint8_t(bits >> 8), uint8_t(bits)}, rest = in.padded(type == 0x10 ? 5 * h : 2 * k);
    rec.insert(rec.end(), rest.begin(), rest.end());
    const unsigned char exp[] = {0x03, 0x01, 0x00, 0x01};
    Bytes pub(k + 8, 0xa5);
    Vorp_errno = 0;
    if (!Vorp_rsaMakePublicKey(rec.data(), exp, pub.data())) {
        check(Vorp_errno == VORP_E_BAD_ARGUMENT && type == 0x10);  // a product longer than k bytes
        return;
    }
    check(pub[0] == 0x12 && pub[1] == rec[1] && pub[2] == rec[2] && std::memcmp(&pub[3 + k], exp, 4) == 0);
    check(pub[k + 7] == 0xa5);
    Bytes n(k + 1);
    const qv_int32_t len = Vorp_rsaComputeModulus(rec.data(), n.data());
    check(len >= 0 && size_t(len) <= k && std::memcmp(&pub[3 + k - size_t(len)], n.data(), size_t(len)) == 0);
}

void dh(qvfuzz::Cursor &in, uint8_t format) {
    Bytes head = in.padded(3);
    const size_t bits = (size_t(head[0]) << 8 | head[1]) % 1025, k = (bits + 7) / 8, glen = head[2] % 9;
    Bytes rec{format, uint8_t(bits >> 8), uint8_t(bits)}, p = in.padded(k), g = in.padded(glen);
    rec.insert(rec.end(), p.begin(), p.end());
    rec.push_back(uint8_t(glen));
    rec.insert(rec.end(), g.begin(), g.end());
    const Bytes priv = in.padded(k), pub = in.padded(k);
    Bytes shared(k + 1, 0xa5);
    const qv_int32_t got = Vorp_dh(rec.data(), format == '0' && (head[2] & 0x80) ? nullptr : priv.data(), pub.data(),
                                   shared.data());
    const bool bad = format < '0' || format > '2' || k == 0 || !(p[k - 1] & 1);
    if (bad) {
        check(got == 0 && Vorp_errno == VORP_E_BAD_ARGUMENT && shared[0] == 0xa5);
        return;
    }
    check(got == qv_int32_t(k) && shared[k] == 0xa5);
    shared.pop_back();
    Owned pn(number(p.data(), k)), y(number(pub.data(), k)), x(number(priv.data(), k));
    if (format == '0' && (head[2] & 0x80)) {
        Owned one(number((const unsigned char *)"\x01", 1));
        Owned want(power(y.p, one.p, pn.p));
        check(shared == bytes(want.p, k));
        return;
    }
    Owned want(power(y.p, x.p, pn.p));
    check(shared == bytes(want.p, k));
}

}  // namespace

QV_FUZZ_TARGET(2048) {
    if (size < 1) return;
    const uint8_t choice = data[0];
    qvfuzz::Cursor in{data + 1, size - 1};
    vorp::force_portable(choice & 0x80);
    switch (choice & 0x0f) {
    case 0: rsa(in, 0x10); break;
    case 1: rsa(in, 0x11); break;
    case 2: rsa(in, 0x12); break;
    case 3: public_key(in, 0x10); break;
    case 4: public_key(in, 0x11); break;
    case 5: dh(in, '0'); break;
    case 6: dh(in, '2'); break;
    default: dh(in, uint8_t('0' + (choice >> 4) % 8)); break;
    }
}
