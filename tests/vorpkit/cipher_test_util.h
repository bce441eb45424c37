// Helpers of the cipher tests: random inputs, OpenSSL as the reference, and a
// fixture parameter that runs a test on the accelerated and on the portable
// implementations.
#pragma once

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/provider.h>

#include <cstdint>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "cpu_features.h"

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

// Value-parameterised fixture: GetParam() true forces the portable code.
class BothPaths : public ::testing::TestWithParam<bool> {
protected:
    void SetUp() override { vorp::force_portable(GetParam()); }
    void TearDown() override { vorp::force_portable(false); }
};

inline std::string path_name(const ::testing::TestParamInfo<bool> &info) {
    return info.param ? "Portable" : "Accelerated";
}

}  // namespace ciphertest
