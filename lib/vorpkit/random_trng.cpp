// The true-random generator: samples how often the processor clock can be
// read before it ticks, estimates the entropy of the samples and condenses
// the pool with MD5, 8 output bytes a round.
//
// Zero entropy. Where clock() is a system call with microsecond resolution
// (as on our build machines), a read costs about as long as a tick: the reads
// that return the same value number 0 (retried) or 1, and under load every
// read may see a new value. Every counted symbol is then the same, the
// estimate drops to 0 after the first check (or no sample comes at all), and
// the pool would be identical on every run. So a round whose estimate is 0
// stops sampling and, before the pool is condensed, XORs 256 bytes from the
// operating system's generator into it; so does a round whose clock gives no sample within fixed bounds
// (kMaxZeroCountRetries, kMaxSameReads) or that has not met its target after
// kMaxRoundSamples samples. No division by zero, no unbounded spin, and the
// output stays unpredictable on any machine; where the clock does jitter,
// the rounds work from the samples alone. Either way a round ends the same:
// the pool is condensed into the accumulator, which then serves 8 bytes,
// so the caller's record goes through the same states on both paths.
//
// Concurrency: the generator keeps all its state in the caller's record and
// takes no lock; a record must not be used by two threads at once, separate
// records are independent.
#include <cstring>

#include "byte_order.h"
#include "random_internal.h"
#include "vorpkit.h"

namespace vorp::rng {

namespace {

// round(1000 * log2(1 + i / 64)) for i = 0..63.
constexpr uint16_t kLog2Table[64] = {
    0, 22, 44, 66, 87, 109, 129, 150, 170, 190, 209, 229, 248, 267, 285, 304,
    322, 340, 358, 375, 392, 409, 426, 443, 459, 476, 492, 508, 524, 539, 555, 570,
    585, 600, 615, 629, 644, 658, 672, 687, 700, 714, 728, 741, 755, 768, 781, 794,
    807, 820, 833, 845, 858, 870, 883, 895, 907, 919, 931, 943, 954, 966, 977, 989};

constexpr uint32_t kFirstRoundSamples = 64;
constexpr uint32_t kMillibitsPerSample = 96;  // 96 bits sought for 64 output bits
// Bounds that keep a clock without jitter, a frozen clock or one that
// changes on every read from spinning forever.
constexpr uint32_t kMaxRoundSamples = 32768;
constexpr uint32_t kMaxSameReads = 1u << 22;
constexpr uint32_t kMaxZeroCountRetries = 1000;

// How many further reads returned the clock value `current` before it
// changed (at least 1); `current` then holds the new value, so consecutive
// samples each measure one whole tick. 0 when the clock gives no such sample
// within the bounds.
uint32_t take_sample(clock_t (*read_clock)(), clock_t &current) {
    for (uint32_t retry = 0; retry < kMaxZeroCountRetries; ++retry) {
        if (current == static_cast<clock_t>(-1)) return 0;
        uint32_t same = 0;
        clock_t now;
        while ((now = read_clock()) == current)
            if (++same >= kMaxSameReads) return 0;
        current = now;
        if (same > 0) return same;
    }
    return 0;
}

// Millibits: the sum over the symbols of syms[s] * (log2(count) - log2(syms[s])).
uint32_t entropy_estimate(const uint32_t syms[16], uint32_t count) {
    uint32_t lc = log2(count), h = 0;
    for (int s = 0; s < 16; ++s)
        if (syms[s] > 0) h += syms[s] * (lc - log2(syms[s]));
    return h;
}

// One round: refills accu and sets bytes to 8.
void run_round(Vorp_trng_t *T) {
    const EntropySources src = entropy_sources();
    std::memset(T->accu, 0, sizeof T->accu);
    std::memset(T->syms, 0, sizeof T->syms);
    int p = 255;
    uint32_t toggle = 0, previous = 0, count = 0, budget = 0, counted = 0;
    bool from_os = false;
    clock_t current = src.clock();
    for (;;) {
        uint32_t sample = take_sample(src.clock, current);
        if (sample == 0) {
            from_os = true;
            break;
        }
        T->sbuf[p] = static_cast<uint8_t>((T->sbuf[p] << 4) | (sample & 15));
        p -= static_cast<int>(toggle);
        toggle ^= 1;
        // A step of one either way is clock jitter, not a change of symbol.
        uint32_t symbol = (sample == previous + 1 || sample + 1 == previous) ? previous : sample;
        previous = symbol;
        T->syms[symbol % 16] += counted;
        counted = 1;
        if (p < 0) {  // 512 samples since the last fold
            compress(T->sbuf, sizeof T->sbuf, T->accu);
            p += 256;
            counted = 0;
        }
        ++count;
        budget += kMillibitsPerSample;
        if (count != T->nsam && count < kMaxRoundSamples) continue;

        uint32_t h = entropy_estimate(T->syms, count);
        if (h == 0 || count >= kMaxRoundSamples) {
            // Even at the bound a round that met its target ends normally.
            if (h > 0 && static_cast<uint64_t>(budget) * 1000 / h <= count) break;
            from_os = true;
            break;
        }
        auto wanted = static_cast<uint32_t>(static_cast<uint64_t>(budget) * 1000 / h);
        if (wanted <= count) break;
        T->nsam = h > count ? wanted + 3 : count + 32;
        counted = 0;
    }
    if (from_os) {
        uint8_t os[sizeof T->sbuf];
        src.os_random(os, sizeof os);
        for (size_t i = 0; i < sizeof os; ++i) T->sbuf[i] ^= os[i];
        secure_wipe(os, sizeof os);
    }
    compress(T->sbuf, sizeof T->sbuf, T->accu);
    T->bytes = 8;
}

}  // namespace

uint32_t log2(uint32_t v) {
    if (v == 0) return 0;
    uint32_t e = 6;
    while (v < 64) {
        v <<= 1;
        --e;
    }
    while (v > 127) {
        v >>= 1;
        ++e;
    }
    return 1000 * e + kLog2Table[v - 64];
}

void compress(const uint8_t *sbuf, size_t n, uint8_t outbuf[8]) {
    uint8_t digest[16];
    Vorp_md5(nullptr, sbuf, static_cast<qv_uint32_t>(n), digest);
    for (size_t i = 0; i < sizeof digest; ++i) outbuf[i % 8] ^= digest[i];
    secure_wipe(digest, sizeof digest);
}

}  // namespace vorp::rng

extern "C" void Vorp_trng(Vorp_trng_t *T, void *data, qv_uint32_t len) {
    if (T == nullptr || (data == nullptr && len > 0)) {
        Vorp_errno = VORP_E_BAD_ARGUMENT;
        return;
    }
    if (T->nsam == 0) T->nsam = vorp::rng::kFirstRoundSamples;
    auto *out = static_cast<uint8_t *>(data);
    while (len > 0) {
        if (T->bytes > 0) {
            // Handed-out bytes stay in the accumulator until the next round
            // clears it: the record is the caller's and shows the generator's
            // state as it is; a caller whose bytes become keys wipes the
            // whole record after use (as sec_generate_key does).
            --T->bytes;
            out[--len] = T->accu[T->bytes];
        } else {
            vorp::rng::run_round(T);
        }
    }
}
