#include "cpu_features.h"

#include <atomic>
#include <cpuid.h>
#include <cstdlib>

namespace vorp {

namespace {

CpuFeatures detect() {
    CpuFeatures f;
    unsigned a, b, c, d;
    if (!__get_cpuid(1, &a, &b, &c, &d)) return f;
    f.aesni = c & bit_AES;
    f.pclmul = c & bit_PCLMUL;
    f.ssse3 = c & bit_SSSE3;
    f.sse41 = c & bit_SSE4_1;
    bool osxsave = c & bit_OSXSAVE;
    if (__get_cpuid_count(7, 0, &a, &b, &c, &d)) {
        f.shani = b & bit_SHA;
        f.bmi2 = b & bit_BMI2;
        // AVX2 also needs the OS to save the YMM registers.
        if (osxsave) {
            unsigned lo, hi;
            __asm__("xgetbv" : "=a"(lo), "=d"(hi) : "c"(0));
            f.avx2 = (b & bit_AVX2) && (lo & 0x6) == 0x6;
        }
    }
    return f;
}

const CpuFeatures kNone{};

std::atomic<bool> &forced() {
    static std::atomic<bool> flag{[] {
        const char *v = std::getenv("VORP_FORCE_PORTABLE");
        return v && v[0] == '1';
    }()};
    return flag;
}

}  // namespace

const CpuFeatures &cpu() {
    static const CpuFeatures detected = detect();
    return forced().load(std::memory_order_relaxed) ? kNone : detected;
}

void force_portable(bool on) { forced().store(on, std::memory_order_relaxed); }

}  // namespace vorp
