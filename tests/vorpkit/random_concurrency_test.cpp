// Separate generator states and hash calls in several threads at once share
// nothing: run under ThreadSanitizer, any hidden shared state shows up.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "vorpkit.h"

namespace {

TEST(RandomConcurrency, SeparateStatesInParallelThreads) {
    constexpr int kThreads = 4;
    std::vector<std::vector<uint8_t>> out(kThreads, std::vector<uint8_t>(64));
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&out, t] {
            Vorp_prng_t st{};
            st.trngMix = 16;  // stir, and run a sampling round whenever needed
            Vorp_prng(&st, out[t].data(), 64);
            Vorp_trng_t tr{};
            uint8_t key[8];
            Vorp_trng(&tr, key, sizeof key);
            uint8_t d[20];
            Vorp_md5(nullptr, out[t].data(), 64, d);
            Vorp_sha(nullptr, key, sizeof key, d);
        });
    }
    for (auto &th : threads) th.join();
    for (int i = 0; i < kThreads; ++i)
        for (int j = i + 1; j < kThreads; ++j) EXPECT_NE(out[i], out[j]);
}

}  // namespace
