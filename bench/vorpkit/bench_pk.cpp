// RSA and Diffie-Hellman against OpenSSL's libcrypto in the same run, one
// thread, on the same keys: the RSA-2048 private operation with a CRT key,
// the public operation with e = 65537, 2048-bit key generation (median over
// 21 keys each) and 1024-bit Diffie-Hellman agreement. Ratios are times,
// vorpkit over OpenSSL: below 1 is faster. Times are the thread's processor
// time, so that other load on a shared machine counts less.
#define OPENSSL_SUPPRESS_DEPRECATED 1
#include <openssl/bn.h>
#include <openssl/dh.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <functional>
#include <random>
#include <vector>

#include "vorpkit.h"

namespace {

using Bytes = std::vector<unsigned char>;

int source() {
    static std::mt19937 rng(42);
    return int(rng());
}

double now() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

// Seconds per call of body, the best of three runs of about 0.2 s each.
double per_call(const std::function<void()> &body) {
    double best = 1e9;
    for (int run = 0; run < 3; ++run) {
        body();
        size_t calls = 0;
        const double start = now();
        double elapsed;
        do {
            body();
            ++calls;
        } while ((elapsed = now() - start) < 0.2);
        best = std::min(best, elapsed / double(calls));
    }
    return best;
}

double median_of(size_t count, const std::function<void()> &body) {
    std::vector<double> t;
    for (size_t i = 0; i < count; ++i) {
        const double start = now();
        body();
        t.push_back(now() - start);
    }
    std::sort(t.begin(), t.end());
    return t[t.size() / 2];
}

void row(const char *name, double ours, double ref, double target) {
    std::printf("%-32s %10.3f ms %10.3f ms %7.2f%s\n", name, ours * 1e3, ref * 1e3, ours / ref,
                target > 0 && ours / ref > target ? "  (above target)" : "");
}

BIGNUM *bn(const unsigned char *p, size_t len) { return BN_bin2bn(p, int(len), nullptr); }

}  // namespace

int main() {
    std::printf("%-32s %13s %13s %7s\n", "operation", "vorpkit", "openssl", "ratio");
    // One CRT key, used by both sides.
    const size_t k = 256, h = 128;
    Bytes crt(3 + 5 * h), pub(3 + k + 4);
    Vorp_rsaKeyGen(2048, 0x10, Vorp_RSA_PUB_EXP_FERMAT4, crt.data(), source);
    Vorp_rsaMakePublicKey(crt.data(), Vorp_RSA_PUB_EXP_FERMAT4, pub.data());
    RSA *rsa = RSA_new();
    {
        BIGNUM *e = BN_new(), *p1 = BN_new(), *q1 = BN_new(), *phi = BN_new(), *d = BN_new();
        BN_set_word(e, 65537);
        BIGNUM *p = bn(&crt[3], h), *q = bn(&crt[3 + h], h), *n = BN_new();
        BN_CTX *ctx = BN_CTX_new();
        BN_mul(n, p, q, ctx);
        BN_sub(p1, p, BN_value_one());
        BN_sub(q1, q, BN_value_one());
        BN_mul(phi, p1, q1, ctx);
        BN_mod_inverse(d, e, phi, ctx);
        RSA_set0_key(rsa, n, e, d);
        RSA_set0_factors(rsa, p, q);
        RSA_set0_crt_params(rsa, bn(&crt[3 + 2 * h], h), bn(&crt[3 + 3 * h], h), bn(&crt[3 + 4 * h], h));
        BN_free(p1);
        BN_free(q1);
        BN_free(phi);
        BN_CTX_free(ctx);
    }
    Bytes m(k, 0x5a), out(k);
    m[0] = 0x01;
    row("rsa-2048 private (CRT)", per_call([&] { Vorp_rsa(crt.data(), m.data()); }),
        per_call([&] { RSA_private_encrypt(int(k), m.data(), out.data(), rsa, RSA_NO_PADDING); }), 1.5);
    m.assign(k, 0x5a);
    m[0] = 0x01;
    row("rsa-2048 public (e = 65537)", per_call([&] { Vorp_rsa(pub.data(), m.data()); }),
        per_call([&] { RSA_public_encrypt(int(k), m.data(), out.data(), rsa, RSA_NO_PADDING); }), 0);
    RSA_free(rsa);

    Bytes key(3 + 5 * h);
    const double ours_gen = median_of(21, [&] { Vorp_rsaKeyGen(2048, 0x10, Vorp_RSA_PUB_EXP_FERMAT4, key.data(), source); });
    const double ref_gen = median_of(21, [] {
        RSA *r = RSA_new();
        BIGNUM *e = BN_new();
        BN_set_word(e, 65537);
        RSA_generate_key_ex(r, 2048, e, nullptr);
        BN_free(e);
        RSA_free(r);
    });
    row("rsa-2048 key generation (median)", ours_gen, ref_gen, 2.0);

    // Diffie-Hellman with the fixed 1024-bit parameters: the agreement step.
    Bytes params(128 + 5), a(128), A(128), b(128), B(128), shared(128), ref_shared(128);
    Vorp_dhParams(1024, params.data(), nullptr);
    Vorp_dhKey(params.data(), a.data(), A.data(), source);
    Vorp_dhKey(params.data(), b.data(), B.data(), source);
    DH *dh = DH_new();
    BIGNUM *g = BN_new();
    BN_set_word(g, 7);
    DH_set0_pqg(dh, bn(&params[3], 128), nullptr, g);
    DH_set0_key(dh, bn(A.data(), 128), bn(a.data(), 128));
    BIGNUM *peer = bn(B.data(), 128);
    row("dh-1024 agreement", per_call([&] { Vorp_dh(params.data(), a.data(), B.data(), shared.data()); }),
        per_call([&] { DH_compute_key_padded(ref_shared.data(), peer, dh); }), 0);
    if (shared != ref_shared) std::printf("dh-1024: the two shared values differ\n");
    BN_free(peer);
    DH_free(dh);
    return 0;
}
