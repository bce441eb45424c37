// Cipher throughput against OpenSSL's libcrypto (EVP), single thread, in the
// same run: AES-128/256 ECB and CBC both ways, DES-CBC, 3DES-CBC, RC4, at 64
// bytes, 1 KiB and 16 KiB per call. Keys are set up once, outside the timing.
#include <openssl/evp.h>
#include <openssl/provider.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <cstring>
#include <vector>

#include "bench_util.h"
#include "vorpkit.h"

namespace {

struct Reference {
    EVP_CIPHER_CTX *ctx;
    std::vector<unsigned char> out;
    size_t len;

    Reference(const EVP_CIPHER *cipher, const unsigned char *key, int key_len, const unsigned char *iv, bool enc,
              size_t n)
        : ctx(EVP_CIPHER_CTX_new()), out(n + 64), len(n) {
        EVP_CipherInit_ex(ctx, cipher, nullptr, nullptr, nullptr, enc);
        EVP_CIPHER_CTX_set_key_length(ctx, key_len);
        EVP_CIPHER_CTX_set_padding(ctx, 0);
        EVP_CipherInit_ex(ctx, nullptr, nullptr, key, iv, enc);
    }
    ~Reference() { EVP_CIPHER_CTX_free(ctx); }
    void run(const unsigned char *in) {
        int n = 0;
        EVP_CipherUpdate(ctx, out.data(), &n, in, static_cast<int>(len));
    }
};

const size_t kSizes[] = {64, 1024, 16384};

// The machine is shared: ours and the reference are timed in turn, three
// times each, and each keeps its best, so that a burst of other work does not
// land on one side only.
void compare(const char *name, size_t n, const std::function<void()> &ours, const std::function<void()> &theirs) {
    double best_ours = 0, best_theirs = 0;
    for (int round = 0; round < 3; ++round) {
        best_ours = std::max(best_ours, bench::throughput(n, ours, 0.1));
        best_theirs = std::max(best_theirs, bench::throughput(n, theirs, 0.1));
    }
    bench::print_row(name, n, best_ours, best_theirs);
}

void bench_aes(const char *name, const EVP_CIPHER *cipher, int key_len, bool cbc, bool enc) {
    unsigned char key[32], iv[16], ours_iv[16];
    for (int i = 0; i < 32; ++i) key[i] = static_cast<unsigned char>(i * 7 + 1);
    std::memset(iv, 0x24, sizeof iv);
    std::memcpy(ours_iv, iv, sizeof iv);
    qv_uint32_t ks[VORP_AES_KEY_WORDS_MAX];
    Vorp_aesKey(key, key_len, ks, 16);
    for (size_t n : kSizes) {
        std::vector<unsigned char> in(n, 0x5c), out(n);
        Reference ref(cipher, key, key_len, cbc ? iv : nullptr, enc, n);
        compare(name, n, [&] {
            Vorp_aes(enc ? 0 : 1, ks, cbc ? ours_iv : nullptr, in.data(), out.data(), static_cast<qv_uint32_t>(n));
        }, [&] { ref.run(in.data()); });
    }
}

void bench_des(const char *name, const EVP_CIPHER *cipher, int keys, bool enc) {
    unsigned char key[24], iv[8], ours_iv[8];
    for (int i = 0; i < 24; ++i) key[i] = static_cast<unsigned char>(i * 13 + 5);
    std::memset(iv, 0x42, sizeof iv);
    std::memcpy(ours_iv, iv, sizeof iv);
    qv_uint32_t ks[VORP_DES_KEY_WORDS(3)];
    Vorp_desKey(key, keys, ks);
    for (size_t n : kSizes) {
        std::vector<unsigned char> in(n, 0x5c), out(n);
        Reference ref(cipher, key, 8 * keys, iv, enc, n);
        compare(name, n, [&] {
            Vorp_des(enc ? 0 : 1, ks, ours_iv, in.data(), out.data(), static_cast<qv_uint32_t>(n));
        }, [&] { ref.run(in.data()); });
    }
}

void bench_rc4() {
    unsigned char key[16];
    for (int i = 0; i < 16; ++i) key[i] = static_cast<unsigned char>(i * 3 + 11);
    unsigned char state[VORP_RC4_STATE_LEN];
    Vorp_rc4Key(key, 16, state);
    for (size_t n : kSizes) {
        std::vector<unsigned char> in(n, 0x5c), out(n);
        Reference ref(EVP_rc4(), key, 16, nullptr, true, n);
        compare("RC4", n, [&] {
            Vorp_rc4(state, in.data(), out.data(), static_cast<qv_uint32_t>(n));
        }, [&] { ref.run(in.data()); });
    }
}

}  // namespace

int main() {
    // Single DES and RC4 are in the legacy provider.
    if (!OSSL_PROVIDER_load(nullptr, "legacy") || !OSSL_PROVIDER_load(nullptr, "default")) {
        std::fprintf(stderr, "cannot load the OpenSSL legacy provider\n");
        return 1;
    }
    bench::print_header("OpenSSL");
    bench_aes("AES-128-ECB encrypt", EVP_aes_128_ecb(), 16, false, true);
    bench_aes("AES-128-ECB decrypt", EVP_aes_128_ecb(), 16, false, false);
    bench_aes("AES-128-CBC encrypt", EVP_aes_128_cbc(), 16, true, true);
    bench_aes("AES-128-CBC decrypt", EVP_aes_128_cbc(), 16, true, false);
    bench_aes("AES-256-ECB encrypt", EVP_aes_256_ecb(), 32, false, true);
    bench_aes("AES-256-ECB decrypt", EVP_aes_256_ecb(), 32, false, false);
    bench_aes("AES-256-CBC encrypt", EVP_aes_256_cbc(), 32, true, true);
    bench_aes("AES-256-CBC decrypt", EVP_aes_256_cbc(), 32, true, false);
    bench_des("DES-CBC encrypt", EVP_des_cbc(), 1, true);
    bench_des("DES-CBC decrypt", EVP_des_cbc(), 1, false);
    bench_des("3DES-CBC encrypt", EVP_des_ede3_cbc(), 3, true);
    bench_des("3DES-CBC decrypt", EVP_des_ede3_cbc(), 3, false);
    bench_rc4();
    return 0;
}
