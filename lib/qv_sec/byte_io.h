// Bounds-checked reading and writing of the big-endian fields of typed
// buffers, CIDBs and ACL buffers. A read that does not fit fails and leaves
// the cursor where it was; nothing is ever read past the end.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>
#include <vector>

#include "qv_sec.h"

// Frees a malloc'ed buffer that is not yet the caller's (buffers handed to
// the caller are malloc'ed: the caller frees them).
struct SecFree {
    void operator()(void *p) const { std::free(p); }
};

class ByteReader {
public:
    explicit ByteReader(std::span<const uint8_t> bytes) : bytes_(bytes) {}
    // A caller buffer; a negative length or a NULL value with a length reads
    // as no bytes at all (callers check the lengths they need).
    static ByteReader of(const sec_buffer_desc &b) {
        if (b.length <= 0 || b.value == nullptr) return ByteReader({});
        return ByteReader({static_cast<const uint8_t *>(b.value), static_cast<size_t>(b.length)});
    }

    size_t remaining() const { return bytes_.size() - pos_; }
    std::span<const uint8_t> rest() const { return bytes_.subspan(pos_); }

    bool u8(uint8_t &v) {
        if (remaining() < 1) return false;
        v = bytes_[pos_++];
        return true;
    }
    bool u16be(uint16_t &v) {
        if (remaining() < 2) return false;
        v = static_cast<uint16_t>(bytes_[pos_] << 8 | bytes_[pos_ + 1]);
        pos_ += 2;
        return true;
    }
    bool u32be(uint32_t &v) {
        if (remaining() < 4) return false;
        v = static_cast<uint32_t>(bytes_[pos_]) << 24 | static_cast<uint32_t>(bytes_[pos_ + 1]) << 16 |
            static_cast<uint32_t>(bytes_[pos_ + 2]) << 8 | bytes_[pos_ + 3];
        pos_ += 4;
        return true;
    }
    bool u64be(uint64_t &v) {
        uint32_t hi, lo;
        if (remaining() < 8) return false;
        u32be(hi);
        u32be(lo);
        v = static_cast<uint64_t>(hi) << 32 | lo;
        return true;
    }
    bool take(size_t n, std::span<const uint8_t> &out) {
        if (remaining() < n) return false;
        out = bytes_.subspan(pos_, n);
        pos_ += n;
        return true;
    }

private:
    std::span<const uint8_t> bytes_;
    size_t pos_ = 0;
};

class ByteWriter {
public:
    void u8(uint8_t v) { bytes_.push_back(v); }
    void u16be(uint16_t v) {
        bytes_.push_back(static_cast<uint8_t>(v >> 8));
        bytes_.push_back(static_cast<uint8_t>(v));
    }
    void u32be(uint32_t v) {
        for (int shift = 24; shift >= 0; shift -= 8) bytes_.push_back(static_cast<uint8_t>(v >> shift));
    }
    void u64be(uint64_t v) {
        u32be(static_cast<uint32_t>(v >> 32));
        u32be(static_cast<uint32_t>(v));
    }
    void bytes(std::span<const uint8_t> b) { bytes_.insert(bytes_.end(), b.begin(), b.end()); }
    const std::vector<uint8_t> &data() const { return bytes_; }
    size_t size() const { return bytes_.size(); }

private:
    std::vector<uint8_t> bytes_;
};

// Copies bytes into a newly malloc'ed caller buffer. An empty span gives
// length 0 and value NULL. On allocation failure *out is left empty and the
// result is false: the caller reports the failure with its own message.
inline bool give_buffer(std::span<const uint8_t> bytes, sec_buffer_t out) {
    out->length = 0;
    out->value = nullptr;
    if (bytes.empty()) return true;
    void *p = std::malloc(bytes.size());
    if (p == nullptr) return false;
    std::memcpy(p, bytes.data(), bytes.size());
    out->value = p;
    out->length = static_cast<qv_int32_t>(bytes.size());
    return true;
}
