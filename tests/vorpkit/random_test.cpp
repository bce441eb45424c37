// The random generators: the fixed-point logarithm, the
// output order of the true-random generator, its fallback to the operating
// system when the clock shows no jitter, and the pseudo-random generator
// against a model written here (OpenSSL's MD5 as the digest).
#include <openssl/evp.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <random>
#include <vector>

#include "child_process.h"
#include "random_internal.h"
#include "test_support.h"
#include "vorpkit.h"

namespace {

using Bytes = std::vector<uint8_t>;
namespace rng = vorp::rng;

Bytes md5(const uint8_t *p, size_t n) {
    Bytes d(16);
    unsigned len = 0;
    EVP_Digest(p, n, d.data(), &len, EVP_md5(), nullptr);
    return d;
}

// ---- Scripted entropy sources ----

// A clock in microseconds: g_seconds whole seconds plus a tick. Each tick
// value is read 1 + s times, s from the script: the read that sees the
// change and s reads of the same value, so each sample is known in advance.
long g_seconds = 0;
long g_tick = 0;
uint32_t g_reads_left = 0;
std::mt19937 g_script;
uint32_t (*g_next_sample)() = nullptr;
size_t g_os_calls = 0;

clock_t scripted_clock() {
    if (g_reads_left == 0) {
        ++g_tick;
        g_reads_left = g_next_sample() + 1;  // the read that sees the change, then the same ones
    }
    --g_reads_left;
    return static_cast<clock_t>(g_seconds * 1000000 + g_tick % 1000000);
}

// The clock as measured on our machines: 0 (retried) or 1 same reads.
uint32_t no_jitter() { return g_script() % 5 == 0 ? 0 : 1; }
// A clock with some jitter: 1, or 6 one time in four (about 0.8 bit a
// sample, so a round needs more than its first 64 samples).
uint32_t some_jitter() { return g_script() % 4 == 0 ? 6 : 1; }

void counting_os_random(uint8_t *buf, size_t n) {
    ++g_os_calls;
    rng::system_random(buf, n);
}

// Installs scripted sources for one test and restores the real ones.
class ScriptedSources {
public:
    explicit ScriptedSources(uint32_t (*next)(), uint32_t script_seed = 1) {
        g_next_sample = next;
        g_script.seed(script_seed);
        g_reads_left = 0;
        g_tick = 0;
        g_os_calls = 0;
        saved_ = rng::replace_entropy_sources({scripted_clock, counting_os_random});
    }
    ~ScriptedSources() { rng::replace_entropy_sources(saved_); }

private:
    rng::EntropySources saved_;
};

Bytes trng_bytes(Vorp_trng_t &t, size_t n) {
    Bytes b(n);
    Vorp_trng(&t, b.data(), static_cast<qv_uint32_t>(n));
    return b;
}

// ---- Helpers of the true-random generator ----

TEST(RandomHelpers, Log2) {
    // 1000 * log2 from the top seven bits: the ends here, every table entry
    // and dropped low bits in the loop against the C library's log2.
    EXPECT_EQ(rng::log2(0), 0u);
    EXPECT_EQ(rng::log2(0xffffffff), 31989u);
    for (uint32_t v = 1; v < 100000; v += (v < 4096 ? 1 : 97)) {
        int e = 31 - __builtin_clz(v);
        double top = e >= 6 ? v >> (e - 6) : v << (6 - e);
        ASSERT_EQ(rng::log2(v), 1000 * e + std::lround(1000 * std::log2(top / 64))) << v;
    }
}

// ---- True-random generator ----

// The generator as specified, on a clock whose every sample is `sample`
// (0: the clock gives none), with the fallback this library adds: a round
// whose estimate is 0 at a check, or that gets no sample, XORs the
// operating system's bytes into the pool before the last fold.
struct TrngModel {
    Vorp_trng_t t{};
    uint32_t sample = 1;
    void (*os)(uint8_t *, size_t) = nullptr;

    void fold() {
        Bytes d = md5(t.sbuf, sizeof t.sbuf);
        for (int i = 0; i < 16; ++i) t.accu[i % 8] ^= d[i];
    }
    void round() {
        std::memset(t.accu, 0, 8);
        std::memset(t.syms, 0, sizeof t.syms);
        int p = 255;
        uint32_t toggle = 0, previous = 0, count = 0, budget = 0, counted = 0;
        bool fallback = sample == 0;
        while (!fallback) {
            t.sbuf[p] = static_cast<uint8_t>((t.sbuf[p] << 4) | (sample & 15));
            p -= static_cast<int>(toggle);
            toggle ^= 1;
            uint32_t symbol = (sample == previous + 1 || sample + 1 == previous) ? previous : sample;
            previous = symbol;
            t.syms[symbol % 16] += counted;
            counted = 1;
            if (p < 0) {
                fold();
                p += 256;
                counted = 0;
            }
            ++count;
            budget += 96;
            if (count != t.nsam) continue;
            uint32_t h = 0;
            for (uint32_t s : t.syms)
                if (s > 0) h += s * (rng::log2(count) - rng::log2(s));
            if (h == 0) {
                fallback = true;
                break;
            }
            uint32_t wanted = static_cast<uint32_t>(uint64_t{budget} * 1000 / h);
            if (wanted <= count) break;
            t.nsam = h > count ? wanted + 3 : count + 32;
            counted = 0;
        }
        if (fallback) {
            uint8_t extra[256];
            os(extra, sizeof extra);
            for (size_t i = 0; i < sizeof extra; ++i) t.sbuf[i] ^= extra[i];
        }
        fold();
        t.bytes = 8;
    }
    Bytes draw(size_t n) {
        Bytes out(n);
        if (t.nsam == 0) t.nsam = 64;
        while (n > 0) {
            if (t.bytes > 0)
                out[--n] = t.accu[--t.bytes];
            else
                round();
        }
        return out;
    }
};

// Known "operating system" bytes: a different pattern on every call, counted
// apart for the library (0) and the model (1).
uint8_t g_pattern[2];
template <int Who>
void patterned_os_random(uint8_t *buf, size_t n) {
    g_os_calls += Who == 0;
    ++g_pattern[Who];
    for (size_t i = 0; i < n; ++i) buf[i] = static_cast<uint8_t>(i * 31 + g_pattern[Who] * 7);
}

uint32_t always_one() { return 1; }

clock_t always_changing() {
    static clock_t c = 0;
    return ++c;
}
clock_t broken() { return static_cast<clock_t>(-1); }

// When the rounds fall back to the operating system, the caller's record
// still goes through the specified states: after every call its histogram,
// pool, accumulator, count of unused bytes and sample count are those of the
// specified algorithm fed the same samples and the same extra bytes, and
// the bytes handed out are the accumulator's, last first.
TEST(Trng, FallbackRoundsLeaveTheSpecifiedStateAfterEveryCall) {
    struct Row {
        const char *name;
        clock_t (*clock)();  // nullptr: the scripted clock, every sample 1
        uint32_t sample;     // what the model samples (0: no sample at all)
        size_t os_calls;     // rounds over the calls below
    } rows[] = {
        {"no jitter: the estimate drops to 0", nullptr, 1, 6},
        {"no sample: the clock changes at every read", always_changing, 0, 6},
        {"no sample: the clock is broken", broken, 0, 6},
    };
    const size_t calls[] = {3, 5, 1, 8, 11, 0, 2, 16};
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        ScriptedSources sources(always_one);
        auto saved = rng::replace_entropy_sources({row.clock ? row.clock : scripted_clock, patterned_os_random<0>});
        g_pattern[0] = g_pattern[1] = 0;
        Vorp_trng_t t{};
        TrngModel model;
        model.sample = row.sample;
        model.os = patterned_os_random<1>;
        for (size_t n : calls) {
            Bytes got = trng_bytes(t, n), want = model.draw(n);
            EXPECT_EQ(got, want) << "call of " << n;
            EXPECT_EQ(std::memcmp(&t, &model.t, sizeof t), 0) << "record after a call of " << n;
        }
        EXPECT_EQ(g_os_calls, row.os_calls);
        rng::replace_entropy_sources(saved);
    }
}

TEST(Trng, JitteryClockNeedsNoOperatingSystemHelp) {
    Bytes first;
    for (int run = 0; run < 2; ++run) {
        ScriptedSources sources(some_jitter, 42);
        Vorp_trng_t t{};
        Bytes out = trng_bytes(t, 24);
        EXPECT_EQ(g_os_calls, 0u);
        EXPECT_GT(t.nsam, 64u);  // raised to meet the estimate
        if (run == 0)
            first = out;
        else
            EXPECT_EQ(out, first);  // a function of the samples alone
    }
}

// With the machine's own clock: separate states give different bytes, and
// so do two copies of one state, as a fork leaves them (here in a child),
// whatever path the rounds take.
TEST(Trng, RealClockDiffersAcrossStatesAndProcesses) {
    Vorp_trng_t a{}, b{};
    const Bytes first = trng_bytes(a, 16);
    EXPECT_NE(first, trng_bytes(b, 16));
    Vorp_trng_t c = a;
    EXPECT_EQ(qvtest::run_in_child([&] { return trng_bytes(c, 16) == trng_bytes(a, 16) ? 1 : 0; }), 0);
}

// ---- Pseudo-random generator ----

// The generator as a model: seed bytes 0..15 replaced by MD5 of all 32 at
// every 8th counter value, output seed[i % 8]; optional stirring bytes given
// per counter value.
struct PrngModel {
    uint8_t seed[32];
    uint32_t ri;
    uint8_t next() {
        uint32_t i = ++ri;
        if (i % 8 == 0) {
            Bytes d = md5(seed, 32);
            std::memcpy(seed, d.data(), 16);
        }
        return seed[i % 8];
    }
};

// Seed bytes are stored reversed, wrapping past 32 (bytes not reached keep
// their value); without stirring, calls of uneven sizes then continue one
// stream that is a function of the seed.
TEST(Prng, SeedLayoutAndTheStreamWithoutStirring) {
    for (size_t len : {5, 32, 40}) {
        SCOPED_TRACE(len);
        Vorp_prng_t st{};
        std::memset(st.seed, 0xee, sizeof st.seed);
        Bytes data(len), want(32, 0xee);
        for (size_t i = 0; i < len; ++i) want[(len - 1 - i) % 32] = data[i] = static_cast<uint8_t>(i + 1);
        Vorp_seedPrng(&st, data.data(), static_cast<qv_uint32_t>(len));
        ASSERT_EQ(Bytes(st.seed, st.seed + 32), want);
        EXPECT_EQ(st.ri, 1u);
        PrngModel model{};
        std::memcpy(model.seed, want.data(), 32);
        model.ri = 1;
        for (size_t n : {1u, 7u, 8u, 0u, 13u, 100u, 3u, 1000u}) {
            Bytes out(n);
            Vorp_prng(&st, out.data(), static_cast<qv_uint32_t>(n));
            for (size_t k = 0; k < n; ++k) ASSERT_EQ(out[k], model.next()) << "byte " << k << " of a call of " << n;
        }
        EXPECT_EQ(Bytes(st.seed + 16, st.seed + 32), Bytes(model.seed + 16, model.seed + 32));
    }
}

TEST(Prng, StirsInBufferedTrueRandomBytesAtTheSetRate) {
    ScriptedSources sources(no_jitter);
    g_seconds = 100;
    Vorp_prng_t st{};
    st.trngMix = 3;
    st.trngTime = 5;
    Bytes seed_data(32, 0x5a);
    Vorp_seedPrng(&st, seed_data.data(), 32);
    EXPECT_EQ(st.rt, 100u);
    // Four buffered true-random bytes, used last first.
    const uint8_t buffered[8] = {0x11, 0x22, 0x33, 0x44, 0, 0, 0, 0};
    std::memcpy(st.trngState.accu, buffered, 8);
    st.trngState.bytes = 4;

    PrngModel model{};
    std::memcpy(model.seed, st.seed, 32);
    model.ri = 1;
    uint32_t stir = 4;
    Bytes out(40);
    Vorp_prng(&st, out.data(), 40);  // processor time has not moved: no new round
    for (size_t k = 0; k < out.size(); ++k) {
        uint32_t i = model.ri + 1;
        if (i % 3 == 0 && stir > 0) model.seed[i % 8] ^= buffered[--stir];
        ASSERT_EQ(out[k], model.next()) << k;
    }
    EXPECT_EQ(g_os_calls, 0u);

    g_seconds = 104;  // still too early
    Vorp_prng(&st, out.data(), 12);
    EXPECT_EQ(g_os_calls, 0u);
    g_seconds = 105;  // one round, then its 8 bytes serve the next 8 stirs
    Vorp_prng(&st, out.data(), 24);
    EXPECT_EQ(g_os_calls, 1u);
    EXPECT_EQ(st.rt, 105u);
    EXPECT_EQ(st.trngState.bytes, 0u);
    Vorp_prng(&st, out.data(), 30);
    EXPECT_EQ(g_os_calls, 1u);
    g_seconds = 0;
}

TEST(Prng, UnseededStateSeedsItselfFromTheTrueRandomGenerator) {
    Vorp_prng_t a{}, b{};
    Bytes ka(32), kb(32);
    Vorp_prng(&a, ka.data(), 32);
    Vorp_prng(&b, kb.data(), 32);
    EXPECT_EQ(a.ri, 33u);
    EXPECT_NE(ka, kb);
    EXPECT_NE(a.trngState.nsam, 0u);

    Vorp_prng_t c{};
    Vorp_prng(&c, nullptr, 0);  // seeds even when asked for nothing
    EXPECT_EQ(c.ri, 1u);
}

// A missing state, or nowhere to write: VORP_E_BAD_ARGUMENT and nothing
// written or seeded.
TEST(Trng, BadArgumentsOfBothGenerators) {
    Vorp_trng_t t{};
    Vorp_prng_t st{};
    const std::function<void()> calls[] = {
        [] { Vorp_trng(nullptr, nullptr, 0); }, [&] { Vorp_trng(&t, nullptr, 4); },
        [] { Vorp_prng(nullptr, nullptr, 0); }, [&] { Vorp_prng(&st, nullptr, 1); },
        [] { Vorp_seedPrng(nullptr, "x", 1); },
    };
    for (const auto &call : calls) {
        Vorp_errno = 0;
        call();
        EXPECT_EQ(Vorp_errno, VORP_E_BAD_ARGUMENT);
    }
    EXPECT_EQ(t.bytes + t.nsam + st.ri, 0u);
}

}  // namespace
