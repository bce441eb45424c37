// What the fuzz targets share: the standard headers they use, byte helpers,
// an input cursor, an owner of library objects, and the common shape of the
// entry point.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace qvfuzz {

using Bytes = std::vector<uint8_t>;

// The big-endian 32-bit number at p.
inline uint32_t be32(const uint8_t *p) {
    return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}

// A library buffer ({length, value}) over v's bytes, NULL when v is empty.
template <typename Buffer>
Buffer view(Bytes &v) {
    return Buffer{static_cast<decltype(Buffer::length)>(v.size()), v.empty() ? nullptr : v.data()};
}

// Stops the run: a target's check failed.
inline void check(bool ok) {
    if (!ok) __builtin_trap();
}

// Fields taken from the front of an input. Past its end byte() gives 0,
// bytes() fewer bytes and padded() zeros.
struct Cursor {
    const uint8_t *p;
    size_t left;
    uint8_t byte() { return left ? (--left, *p++) : 0; }
    Bytes bytes(size_t n) {
        n = n < left ? n : left;
        Bytes out(p, p + n);
        p += n;
        left -= n;
        return out;
    }
    Bytes padded(size_t n) {
        Bytes out = bytes(n);
        out.resize(n);
        return out;
    }
    Bytes rest() { return bytes(left); }
};

// Owns a library object through its release routine; `p` may be given as
// an output slot.
template <typename T, void (*Release)(T)>
struct Owned {
    T p{};
    Owned() = default;
    explicit Owned(T q) : p(q) {}
    Owned(const Owned &) = delete;
    Owned &operator=(const Owned &) = delete;
    ~Owned() { Release(p); }
};

}  // namespace qvfuzz

// The entry point. An input of more than `max` bytes is skipped; any other
// goes to the body written after the macro, which sees `data` and `size`.
// `after` runs after every input.
#define QV_FUZZ_TARGET_THEN(max, after)                                        \
    static void qv_fuzz_one(const uint8_t *data, size_t size);                \
    extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) { \
        if (size <= (max)) qv_fuzz_one(data, size);                           \
        after;                                                                \
        return 0;                                                             \
    }                                                                         \
    static void qv_fuzz_one(const uint8_t *data, size_t size)
#define QV_FUZZ_TARGET(max) QV_FUZZ_TARGET_THEN(max, (void)0)
// For targets that call libqv_sec: the thread's error record is cleared
// after each input, so that no input's failure is left for the next.
#define QV_SEC_FUZZ_TARGET(max) QV_FUZZ_TARGET_THEN(max, cu_set_no_error_1())
