// SHA-1 compression with the x86 SHA instructions (built with -msha -msse4.1
// -mssse3; called only when the processor has them). Same results as the
// portable version.
#include <immintrin.h>

#include <utility>

#include "hash_internal.h"

namespace vorp {

namespace {

// Four rounds (group I of 20). e[I & 1] receives this group's E value, the
// other slot keeps the chaining word ABCD that becomes the next group's E.
// Message words: m[I % 4] is this group's; sha1msg1 / xor / sha1msg2 prepare
// the groups 3, 2 and 1 ahead, only while those groups exist.
template <int I>
inline void sha1_group(__m128i &abcd, __m128i (&e)[2], __m128i (&m)[4]) {
    if constexpr (I == 0)
        e[0] = _mm_add_epi32(e[0], m[0]);
    else
        e[I & 1] = _mm_sha1nexte_epu32(e[I & 1], m[I % 4]);
    e[(I + 1) & 1] = abcd;
    if constexpr (I >= 3 && I <= 18) m[(I + 1) % 4] = _mm_sha1msg2_epu32(m[(I + 1) % 4], m[I % 4]);
    abcd = _mm_sha1rnds4_epu32(abcd, e[I & 1], I / 5);
    if constexpr (I >= 1 && I <= 16) m[(I + 3) % 4] = _mm_sha1msg1_epu32(m[(I + 3) % 4], m[I % 4]);
    if constexpr (I >= 2 && I <= 17) m[(I + 2) % 4] = _mm_xor_si128(m[(I + 2) % 4], m[I % 4]);
}

template <int... I>
inline void sha1_all_groups(__m128i &abcd, __m128i (&e)[2], __m128i (&m)[4], std::integer_sequence<int, I...>) {
    (sha1_group<I>(abcd, e, m), ...);
}

}  // namespace

void sha1_compress_shani(uint32_t h[5], const uint8_t *p, size_t blocks) {
    const __m128i byte_swap = _mm_set_epi64x(0x0001020304050607LL, 0x08090a0b0c0d0e0fLL);
    __m128i abcd = _mm_shuffle_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i *>(h)), 0x1b);
    __m128i e0 = _mm_set_epi32(static_cast<int>(h[4]), 0, 0, 0);
    for (; blocks > 0; --blocks, p += kHashBlock) {
        const __m128i abcd_saved = abcd, e_saved = e0;
        __m128i m[4];
        for (int i = 0; i < 4; ++i)
            m[i] = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i *>(p + 16 * i)), byte_swap);
        __m128i e[2] = {e0, e0};
        sha1_all_groups(abcd, e, m, std::make_integer_sequence<int, 20>{});
        e0 = _mm_sha1nexte_epu32(e[0], e_saved);
        abcd = _mm_add_epi32(abcd, abcd_saved);
    }
    _mm_storeu_si128(reinterpret_cast<__m128i *>(h), _mm_shuffle_epi32(abcd, 0x1b));
    h[4] = static_cast<uint32_t>(_mm_extract_epi32(e0, 3));
}

}  // namespace vorp
