// Internals of the random generators: the fixed-point logarithm, the pool
// condenser, and the two entropy sources (the processor clock and the
// operating system's generator), which tests may replace.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>

namespace vorp::rng {

// 1000 * log2(v) (millibits), from a 64-entry table after normalising v into
// 64..127; the bits shifted out are dropped. 0 for 0.
uint32_t log2(uint32_t v);

// XORs the 16-byte MD5 digest of sbuf[0..n) into outbuf[0..8), byte i into
// outbuf[i % 8].
void compress(const uint8_t *sbuf, size_t n, uint8_t outbuf[8]);

// Fills buf from the operating system's generator (getrandom, else
// /dev/urandom); aborts the process if neither answers.
void system_random(uint8_t *buf, size_t n);

struct EntropySources {
    clock_t (*clock)();                         // processor time, as clock()
    void (*os_random)(uint8_t *buf, size_t n);  // as system_random
};

// The sources in use, and a way for tests to swap them (returns the old
// pair). Not meant to be changed while a generator runs.
EntropySources entropy_sources();
EntropySources replace_entropy_sources(EntropySources s);

}  // namespace vorp::rng
