// Loads and stores of fixed-width integers at any alignment.
#pragma once

#include <cstdint>
#include <cstring>

namespace vorp {

inline uint32_t load_le32(const uint8_t *p) { uint32_t v; std::memcpy(&v, p, 4); return v; }
inline void store_le32(uint8_t *p, uint32_t v) { std::memcpy(p, &v, 4); }
inline uint32_t load_be32(const uint8_t *p) { return __builtin_bswap32(load_le32(p)); }
inline void store_be32(uint8_t *p, uint32_t v) { store_le32(p, __builtin_bswap32(v)); }
inline uint64_t load_be64(const uint8_t *p) { uint64_t v; std::memcpy(&v, p, 8); return __builtin_bswap64(v); }
inline void store_be64(uint8_t *p, uint64_t v) { v = __builtin_bswap64(v); std::memcpy(p, &v, 8); }
inline uint32_t rotl32(uint32_t v, int n) { return (v << n) | (v >> ((32 - n) & 31)); }
inline uint32_t rotr32(uint32_t v, int n) { return (v >> n) | (v << ((32 - n) & 31)); }

// Overwrites memory in a way the compiler may not drop as a dead store.
inline void secure_wipe(void *p, size_t n) {
    std::memset(p, 0, n);
    __asm__ __volatile__("" : : "r"(p) : "memory");
}

}  // namespace vorp
