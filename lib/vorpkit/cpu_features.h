// Which instruction-set extensions the processor offers, read once from CPUID.
// Every accelerated routine has a portable twin with identical results; tests
// force the portable path with vorp::force_portable(true).
#pragma once

namespace vorp {

struct CpuFeatures {
    bool aesni = false;   // AES-NI
    bool pclmul = false;
    bool ssse3 = false;
    bool sse41 = false;
    bool shani = false;   // SHA extensions
    bool avx2 = false;
    bool bmi2 = false;
    bool adx = false;     // ADCX and ADOX (two carry chains)
    bool ifma = false;    // AVX-512 with 52-bit multiply-add
    bool vaes = false;    // AES on 256-bit vectors
};

// The processor's features, or none while the portable path is forced.
const CpuFeatures &cpu();

// Forces (or stops forcing) the portable implementations, process-wide.
// The environment variable VORP_FORCE_PORTABLE=1 forces them from the start.
void force_portable(bool on);

// Hides the 256-bit AES instructions (tests reach the 128-bit AES-NI loops
// on every input length this way).
void force_no_vaes(bool on);

}  // namespace vorp
