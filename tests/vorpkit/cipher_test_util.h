// Helpers of the cipher tests: random inputs, OpenSSL as the reference, and a
// fixture parameter that runs a test on the accelerated and on the portable
// implementations.
#pragma once

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/provider.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "cpu_features.h"
#include "test_support.h"
#include "vorpkit.h"

namespace ciphertest {

using Bytes = std::vector<uint8_t>;

inline Bytes random_bytes(std::mt19937 &rng, size_t n) {
    Bytes b(n);
    for (auto &x : b) x = static_cast<uint8_t>(rng());
    return b;
}

// Single DES and RC4 live in OpenSSL's legacy provider. The providers are
// unloaded at exit, so that the leak checker sees nothing of them.
inline void load_openssl_providers() {
    struct Providers {
        OSSL_PROVIDER *legacy = OSSL_PROVIDER_load(nullptr, "legacy");
        OSSL_PROVIDER *fallback = OSSL_PROVIDER_load(nullptr, "default");
        ~Providers() {
            if (legacy) OSSL_PROVIDER_unload(legacy);
            if (fallback) OSSL_PROVIDER_unload(fallback);
        }
    };
    static Providers providers;
    if (!providers.legacy || !providers.fallback) throw std::runtime_error("cannot load the OpenSSL legacy provider");
}

// One unpadded OpenSSL run; iv empty for ECB and stream ciphers.
inline Bytes openssl_crypt(const EVP_CIPHER *cipher, const Bytes &key, const Bytes &iv, const Bytes &in,
                           bool encrypt) {
    load_openssl_providers();
    EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
    Bytes out(in.size() + 64);
    int n1 = 0, n2 = 0;
    bool ok = ctx && EVP_CipherInit_ex(ctx, cipher, nullptr, nullptr, nullptr, encrypt ? 1 : 0) == 1 &&
              EVP_CIPHER_CTX_set_key_length(ctx, static_cast<int>(key.size())) == 1 &&
              EVP_CIPHER_CTX_set_padding(ctx, 0) == 1 &&
              EVP_CipherInit_ex(ctx, nullptr, nullptr, key.data(), iv.empty() ? nullptr : iv.data(),
                                encrypt ? 1 : 0) == 1 &&
              EVP_CipherUpdate(ctx, out.data(), &n1, in.data(), static_cast<int>(in.size())) == 1 &&
              EVP_CipherFinal_ex(ctx, out.data() + n1, &n2) == 1;
    EVP_CIPHER_CTX_free(ctx);
    if (!ok) throw std::runtime_error("OpenSSL reference failed");
    out.resize(static_cast<size_t>(n1 + n2));
    return out;
}

// One of our block-cipher routines with its schedule bound: Vorp_des or
// Vorp_aes(mode, key, iv, in, out, len).
using Crypt = std::function<unsigned char *(int mode, uint8_t *iv, const uint8_t *in, uint8_t *out, uint32_t len)>;

inline Bytes run(const Crypt &crypt, int mode, uint8_t *iv, const Bytes &in) {
    Bytes out(in.size());
    EXPECT_EQ(crypt(mode, iv, in.data(), out.data(), static_cast<uint32_t>(in.size())), out.data());
    return out;
}

// Compares one ECB or CBC run with OpenSSL: the output, the chaining value
// left behind (the last ciphertext block) and the same run in place.
inline void expect_matches_openssl(const Crypt &crypt, const EVP_CIPHER *ref, const Bytes &key, size_t block,
                                   bool cbc, int mode, const Bytes &in, const Bytes &iv) {
    Bytes want = openssl_crypt(ref, key, cbc ? iv : Bytes{}, in, mode == 0);
    Bytes chain = iv, chain2 = iv, inplace = in;
    EXPECT_EQ(qvtest::to_hex(run(crypt, mode, cbc ? chain.data() : nullptr, in)), qvtest::to_hex(want));
    if (cbc) {
        const Bytes &ct = mode == 0 ? want : in;
        EXPECT_EQ(chain, in.empty() ? iv : Bytes(ct.end() - static_cast<long>(block), ct.end()));
    }
    crypt(mode, cbc ? chain2.data() : nullptr, inplace.data(), inplace.data(), static_cast<uint32_t>(in.size()));
    EXPECT_EQ(inplace, want);
}

// CBC over `data` in two calls sharing the chaining block, split at every
// block boundary, equals one call, both ways.
inline void expect_chains_across_calls(const Crypt &crypt, size_t block, const Bytes &data, const Bytes &iv0) {
    for (int mode = 0; mode <= 1; ++mode) {
        Bytes iv = iv0;
        Bytes whole = run(crypt, mode, iv.data(), data);
        for (size_t split = 0; split <= data.size(); split += block) {
            Bytes chain = iv0, out(data.size());
            crypt(mode, chain.data(), data.data(), out.data(), static_cast<uint32_t>(split));
            crypt(mode, chain.data(), data.data() + split, out.data() + split, static_cast<uint32_t>(data.size() - split));
            EXPECT_EQ(out, whole) << "mode " << mode << ", split " << split;
            EXPECT_EQ(chain, iv) << "mode " << mode << ", split " << split;
        }
    }
}

// call(to, iv) must fail with VORP_E_BAD_ARGUMENT and write neither the 64
// output bytes nor the 32 chaining bytes it is given.
inline void expect_rejected(const std::string &what,
                            const std::function<unsigned char *(uint8_t *to, uint8_t *iv)> &call) {
    uint8_t to[64], iv[32];
    std::memset(to, 0xee, sizeof to);
    std::memset(iv, 0x11, sizeof iv);
    Vorp_errno = 0;
    EXPECT_EQ(call(to, iv), nullptr) << what;
    EXPECT_EQ(Vorp_errno, VORP_E_BAD_ARGUMENT) << what;
    EXPECT_EQ(std::count(to, to + sizeof to, 0xee), 64) << what;
    EXPECT_EQ(std::count(iv, iv + sizeof iv, 0x11), 32) << what;
}

// The implementations a test runs on: everything the processor offers; the
// 128-bit AES instructions without the 256-bit ones (so their loops see long
// inputs too); the portable code.
enum class Path { Accelerated, NoVaes, Portable };

class EveryPath : public ::testing::TestWithParam<Path> {
protected:
    void SetUp() override {
        vorp::force_portable(GetParam() == Path::Portable);
        vorp::force_no_vaes(GetParam() == Path::NoVaes);
    }
    void TearDown() override {
        vorp::force_portable(false);
        vorp::force_no_vaes(false);
    }
};

inline const auto kEveryPath = ::testing::Values(Path::Accelerated, Path::NoVaes, Path::Portable);

inline std::string path_name(const ::testing::TestParamInfo<Path> &info) {
    switch (info.param) {
    case Path::Accelerated: return "Accelerated";
    case Path::NoVaes: return "NoVaes";
    default: return "Portable";
    }
}

}  // namespace ciphertest
