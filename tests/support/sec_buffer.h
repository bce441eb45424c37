// Buffers of the security library's calls: bytes a test hands in, and a
// buffer the library hands out, freed at the end of the scope.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <utility>
#include <vector>

#include "qv_sec.h"

namespace qvtest {

// The test's bytes as an input buffer (a copy, so a temporary will do).
struct BufferView {
    explicit BufferView(std::vector<uint8_t> b)
        : bytes(std::move(b)), d{static_cast<qv_int32_t>(bytes.size()), bytes.empty() ? nullptr : bytes.data()} {}
    BufferView(const BufferView &) = delete;
    BufferView &operator=(const BufferView &) = delete;
    sec_buffer_t get() { return &d; }
    std::vector<uint8_t> bytes;
    sec_buffer_desc d;
};

// A buffer the library fills with malloc'ed bytes.
struct SecBuffer {
    SecBuffer() = default;
    ~SecBuffer() { free(d.value); }
    SecBuffer(const SecBuffer &) = delete;
    SecBuffer &operator=(const SecBuffer &) = delete;
    sec_buffer_t get() { return &d; }
    std::vector<uint8_t> bytes() const {
        if (d.value == nullptr || d.length <= 0) return {};
        auto *p = static_cast<const uint8_t *>(d.value);
        return std::vector<uint8_t>(p, p + d.length);
    }
    bool empty() const { return d.length == 0 && d.value == nullptr; }
    // Takes the bytes and frees the buffer.
    std::vector<uint8_t> take() {
        std::vector<uint8_t> b = bytes();
        free(d.value);
        d = sec_buffer_desc{0, nullptr};
        return b;
    }
    sec_buffer_desc d{0, nullptr};
};

}  // namespace qvtest
