// Throughput measurement for the primitive benchmarks: runs a body over a
// buffer repeatedly for a fixed wall time and reports bytes per second.
#pragma once

#include <chrono>
#include <cstdio>
#include <cstddef>
#include <functional>

namespace bench {

// Bytes per second of body(len), measured over about `seconds`.
inline double throughput(size_t len, const std::function<void()> &body, double seconds = 0.25) {
    using clock = std::chrono::steady_clock;
    for (int i = 0; i < 8; ++i) body();  // warm up caches and branch predictors
    size_t iterations = 0;
    auto start = clock::now();
    double elapsed = 0;
    do {
        for (int i = 0; i < 16; ++i) body();
        iterations += 16;
        elapsed = std::chrono::duration<double>(clock::now() - start).count();
    } while (elapsed < seconds);
    return static_cast<double>(iterations) * static_cast<double>(len) / elapsed;
}

// One table row: name, size, ours, reference, ratio.
inline void print_row(const char *name, size_t len, double ours, double ref) {
    std::printf("%-22s %7zu B %10.1f MB/s %10.1f MB/s %7.2f\n", name, len, ours / 1e6, ref / 1e6, ours / ref);
}

inline void print_header(const char *reference) {
    std::printf("%-22s %9s %15s %15s %7s\n", "primitive", "size", "vorpkit", reference, "ratio");
}

}  // namespace bench
