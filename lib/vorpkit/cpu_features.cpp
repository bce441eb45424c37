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
        f.adx = b & bit_ADX;
        // AVX2 also needs the OS to save the YMM registers.
        if (osxsave) {
            unsigned lo, hi;
            __asm__("xgetbv" : "=a"(lo), "=d"(hi) : "c"(0));
            f.avx2 = (b & bit_AVX2) && (lo & 0x6) == 0x6;
            f.vaes = f.avx2 && f.aesni && (c & bit_VAES);
            // AVX-512 needs the opmask and both halves of the ZMM state too.
            f.ifma = (lo & 0xe6) == 0xe6 && (b & bit_AVX512F) && (b & bit_AVX512VL) && (b & bit_AVX512IFMA);
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

std::atomic<bool> g_no_vaes{false};

}  // namespace

const CpuFeatures &cpu() {
    static const CpuFeatures detected = detect();
    static const CpuFeatures without_vaes = [] {
        CpuFeatures f = detected;
        f.vaes = false;
        return f;
    }();
    if (forced().load(std::memory_order_relaxed)) return kNone;
    return g_no_vaes.load(std::memory_order_relaxed) ? without_vaes : detected;
}

void force_portable(bool on) { forced().store(on, std::memory_order_relaxed); }

void force_no_vaes(bool on) { g_no_vaes.store(on, std::memory_order_relaxed); }

}  // namespace vorp
