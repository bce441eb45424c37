// The bytes of ACL buffers and entries: big-endian fields, the walk along the
// chain of sub-ACL heads, and the checks every reader makes before it trusts
// an offset or a length. Header only: the qvsec tool and the fuzz targets
// read ACLs with the same code as the library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include "qv_sec_internal.h"

namespace acl {

inline constexpr size_t kHeadLen = SEC_ACL_HEAD_LEN;
inline constexpr size_t kSubHeadLen = SEC_SUBACL_HEAD_LEN;
inline constexpr size_t kEntryHeadLen = SEC_ACLE_HEAD_LEN;
inline constexpr size_t kIdOffset = 14;  // the identifier follows the 14-byte fixed part
inline constexpr size_t kIdPadding = 2;  // zero bytes after an identifier's NUL

// Offsets of the fields inside the heads and entries.
inline constexpr size_t kSahStartoff = 4, kSahVersion = 8, kSahCount = 12;
inline constexpr size_t kSshType = 4, kSshMech = 8, kSshNextoff = 12, kSshCount = 16;
inline constexpr size_t kAcleMech = 4, kAclePerm = 8, kAcleType = 12;

inline uint32_t be32(const uint8_t *p) {
    return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 | static_cast<uint32_t>(p[2]) << 8 |
           p[3];
}
inline uint16_t be16(const uint8_t *p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }
inline void put_be32(uint8_t *p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 24);
    p[1] = static_cast<uint8_t>(v >> 16);
    p[2] = static_cast<uint8_t>(v >> 8);
    p[3] = static_cast<uint8_t>(v);
}
inline void put_be16(uint8_t *p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v);
}

inline const uint8_t *bytes_of(const void *p) { return static_cast<const uint8_t *>(p); }
inline uint32_t entry_length(const void *e) { return be32(bytes_of(e)); }
inline uint32_t entry_mech(const void *e) { return be32(bytes_of(e) + kAcleMech); }
inline uint32_t entry_perm(const void *e) { return be32(bytes_of(e) + kAclePerm); }
inline uint16_t entry_type(const void *e) { return be16(bytes_of(e) + kAcleType); }
inline const char *entry_id(const void *e) { return reinterpret_cast<const char *>(bytes_of(e) + kIdOffset); }

// Only these types carry an identifier.
inline bool type_has_id(uint32_t type) { return type == 3 || type == 4; }

// An entry whose identifier can be compared without reading past it: at
// least the 16-byte header, and a NUL between offset 14 and its end (for
// types without identifier, bytes 14 and 15 are zero). len is what may be
// read at e.
inline bool entry_readable(const uint8_t *e, size_t len) {
    if (len < kEntryHeadLen) return false;
    uint32_t n = be32(e);
    return n >= kEntryHeadLen && n <= len && std::memchr(e + kIdOffset, 0, n - kIdOffset) != nullptr;
}

// Identifier comparison over the larger length less 16 bytes (see
// sec__acle_id_lenmin). On readable entries this never reads past either
// entry: strncmp stops at the first NUL.
inline int compare_ids(const uint8_t *a, const uint8_t *b) {
    uint32_t la = be32(a), lb = be32(b);
    size_t n = (la > lb ? la : lb) - kEntryHeadLen;
    return std::strncmp(entry_id(a), entry_id(b), n);
}

// Whether the comparison of this entry with any other such entry is plain
// strcmp: its compared bytes reach its NUL, or its identifier is empty.
// When every entry of a sub-ACL is plain, the identifiers are totally
// ordered and an edit can work on sorted order directly.
inline bool compares_plainly(const uint8_t *e, size_t id_length) {
    return id_length == 0 || be32(e) - kEntryHeadLen >= id_length + 1;
}

// One sub-ACL: its head's offset, the bytes of its entries [begin, end).
struct SubAcl {
    size_t head = 0;
    size_t begin = 0;
    size_t end = 0;
    uint16_t type = 0;
    uint32_t mech = 0;
    int32_t count = 0;
    bool last = false;
};

// Walks the sub-ACLs of a buffer of at least the ACL head, calling
// visit(const SubAcl &) for each in order; visit returns false to stop.
// Returns false when the buffer is damaged: wrong magics, a start offset
// other than 16 (or 0 with bytes after the head), a head that does not fit,
// a next offset smaller than a head. Entries are not looked at.
template <typename Visit>
bool walk_subacls(std::span<const uint8_t> acl, Visit &&visit) {
    const uint8_t *b = acl.data();
    const size_t len = acl.size();
    if (len < kHeadLen || be32(b) != SEC_ACL_HEAD_MAGIC) return false;
    uint32_t start = be32(b + kSahStartoff);
    if (start == 0) return len == kHeadLen;
    if (start != kHeadLen) return false;
    size_t off = kHeadLen;
    for (;;) {
        if (len - off < kSubHeadLen || be32(b + off) != SEC_SUBACL_HEAD_MAGIC) return false;
        uint32_t next = be32(b + off + kSshNextoff);
        SubAcl s;
        s.head = off;
        s.begin = off + kSubHeadLen;
        s.type = be16(b + off + kSshType);
        s.mech = be32(b + off + kSshMech);
        s.count = static_cast<int32_t>(be32(b + off + kSshCount));
        s.last = next == 0;
        if (next != 0 && (next < kSubHeadLen || next > len - off)) return false;
        s.end = s.last ? len : off + next;
        if (!visit(static_cast<const SubAcl &>(s))) return true;
        if (s.last) return true;
        off += next;
    }
}

// Calls visit(const uint8_t *entry) for each entry of sub-ACL s, in stored
// order, after checking that it is readable. Returns false when an entry is
// not, when the entries do not fill the sub-ACL exactly, or when their
// number is not the head's count.
template <typename Visit>
bool walk_entries(std::span<const uint8_t> acl, const SubAcl &s, Visit &&visit) {
    const uint8_t *b = acl.data();
    size_t off = s.begin;
    int64_t n = 0;
    while (off < s.end) {
        if (!entry_readable(b + off, s.end - off)) return false;
        visit(static_cast<const uint8_t *>(b + off));
        off += be32(b + off);
        ++n;
    }
    return n == s.count;
}

}  // namespace acl
