// The CIDB, the portable form of a client's identity: writing and reading
// the buffer, and the 64-bit byte-order helpers its node ID needs.
//
// Layout (big-endian): type 0x87, version, node ID (8), mechanism code (4);
// for mechanism 0 the buffer ends after 18 bytes. Otherwise the flags (4),
// four reserved bytes, then L1 (2) and the network name; with the mapping
// flag, L2 (2) and the mapped name (L2 = 0: no mapped name, end), the group
// count G (4) and G times a length (2) and a group name. Every name is UTF-8
// and carries its NUL.
#include <cstdlib>
#include <cstring>
#include <span>

#include "byte_io.h"
#include "errors.h"
#include "mpm_answer.h"

namespace {

constexpr const char *kWrapName = "sec__wrap_cid_buff";
constexpr size_t kHeaderLen = 18;   // type, version, node ID, mechanism, and room for the flags
constexpr size_t kFlagsOffset = 14;
constexpr size_t kFixedLen = 22;    // with the flags and the reserved word
constexpr size_t kMaxNameLen = 0xffff;

void put_be(uint8_t *p, uint64_t v, int bytes) {
    for (int i = bytes - 1; i >= 0; --i) {
        p[i] = static_cast<uint8_t>(v);
        v >>= 8;
    }
}

// The CIDB being written. Each append grows the block by exactly what it
// adds, so the buffer handed out is never larger than its length says.
class CidbWriter {
public:
    CidbWriter() = default;
    ~CidbWriter() { std::free(bytes_); }
    CidbWriter(const CidbWriter &) = delete;
    CidbWriter &operator=(const CidbWriter &) = delete;

    // Room for n more bytes, zero-filled; NULL when there is no memory.
    uint8_t *grow(size_t n) {
        void *p = std::realloc(bytes_, len_ + n);
        if (p == nullptr) {
            sec_report(SEC_S_NO_MEMORY, MSG_2650_032, kWrapName, static_cast<int>(len_ + n));
            return nullptr;
        }
        bytes_ = static_cast<uint8_t *>(p);
        uint8_t *at = bytes_ + len_;
        // Bytes the format leaves unwritten (the flags of mechanism 0, the
        // reserved word) are zeroed so that no stale heap bytes leave the
        // process.
        std::memset(at, 0, n);
        len_ += n;
        return at;
    }
    uint8_t *at(size_t offset) { return bytes_ + offset; }

    // A name converted to UTF-8, its NUL included, after its 2-byte length.
    // A name that does not fit the length field cannot be carried.
    qv_int32_t name(const char *s) {
        size_t in_len = std::strlen(s) + 1;
        char *utf8 = nullptr;
        size_t utf8_len = 0;
        if (qv_int32_t rc = sec__convert_to_utf8(const_cast<char *>(s), &in_len, &utf8, &utf8_len)) return rc;
        SecMallocPtr owned(utf8);
        if (utf8_len > kMaxNameLen) return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_002, kWrapName);
        uint8_t *p = grow(2 + utf8_len);
        if (p == nullptr) return SEC_S_NO_MEMORY;
        put_be(p, utf8_len, 2);
        std::memcpy(p + 2, utf8, utf8_len);
        return 0;
    }

    void hand_out(sec_buffer_t out) {
        out->value = bytes_;
        out->length = static_cast<qv_int32_t>(len_);
        bytes_ = nullptr;
        len_ = 0;
    }

private:
    uint8_t *bytes_ = nullptr;
    size_t len_ = 0;
};

qv_int32_t wrap(qv_uint32_t mech, int version, qv_uint32_t flags, sec_privset_info_t ps, sec_buffer_t out) {
    qv_uint64_t node_id = 0;
    // A CIDB names the host that made it; without a node ID it would name
    // the wrong one, and a host-local identity would be accepted elsewhere.
    if (int rc = cu_get_node_id_1(&node_id)) {
        if (rc == CU_E_NOMEM) return sec_report(SEC_S_NO_MEMORY, MSG_2650_004);
        return sec_report(SEC_S_INTERNAL, MSG_2650_077, "cu_get_node_id_1", rc, kWrapName);
    }
    CidbWriter w;
    uint8_t *p = w.grow(kHeaderLen);
    if (p == nullptr) return SEC_S_NO_MEMORY;
    p[0] = SEC_BUF_CIDB;
    p[1] = static_cast<uint8_t>(version);
    put_be(p + 2, node_id, 8);
    put_be(p + 10, mech, 4);
    if (mech != 0) {
        if (ps == nullptr || ps->name == nullptr) return sec_report(SEC_S_INTERNAL, MSG_2650_072, mech);
        if (w.grow(kFixedLen - kHeaderLen) == nullptr) return SEC_S_NO_MEMORY;
        put_be(w.at(kFlagsOffset), flags | SEC_CIDB_F_AUTHENTICATED, 4);
        if (qv_int32_t rc = w.name(ps->name)) return rc;
        if (flags & SEC_CIDB_F_MAPPING) {
            if (ps->mname == nullptr) {
                if (w.grow(2) == nullptr) return SEC_S_NO_MEMORY;
            } else {
                if (qv_int32_t rc = w.name(ps->mname)) return rc;
                // A count the set does not back with an array is written as
                // no groups rather than read out of nowhere.
                qv_uint32_t g = ps->gcount > 0 && ps->groups != nullptr ? static_cast<qv_uint32_t>(ps->gcount) : 0;
                uint8_t *gp = w.grow(4);
                if (gp == nullptr) return SEC_S_NO_MEMORY;
                put_be(gp, g, 4);
                for (qv_uint32_t i = 0; i < g; ++i) {
                    const char *group = static_cast<const char *>(ps->groups[i].value);
                    if (qv_int32_t rc = w.name(group != nullptr ? group : "")) return rc;
                }
            }
        }
    }
    w.hand_out(out);
    return 0;
}

qv_int32_t corrupt() { return sec_report(SEC_S_BAD_BUFFER, MSG_2650_005); }

// A length-prefixed name of the CIDB, converted to the locale's code set.
// A name must end in its NUL and hold no other: a name cut short by an
// embedded NUL would read as another identity.
qv_int32_t read_name(ByteReader &r, size_t min_len, char **out, size_t *out_len = nullptr) {
    uint16_t n = 0;
    std::span<const uint8_t> bytes;
    if (!r.u16be(n) || n < min_len || !r.take(n, bytes)) return corrupt();
    if (bytes.back() != 0 || std::memchr(bytes.data(), 0, bytes.size() - 1) != nullptr) return corrupt();
    size_t in_len = bytes.size(), len = 0;
    qv_int32_t rc = sec__convert_from_utf8(reinterpret_cast<char *>(const_cast<uint8_t *>(bytes.data())), &in_len,
                                           out, &len);
    if (out_len != nullptr) *out_len = len;
    return rc;
}

qv_int32_t read_groups(ByteReader &r, sec_privset_info_t ps) {
    uint32_t g = 0;
    if (!r.u32be(g)) return corrupt();
    if (g == 0) return 0;
    // Each group takes at least its two length bytes: a count the rest of
    // the buffer cannot hold is refused before anything is allocated for it.
    if (g > r.remaining() / 2) return corrupt();
    auto *groups = static_cast<sec_buffer_t>(std::calloc(g, sizeof(sec_buffer_desc)));
    if (groups == nullptr)
        return sec_report(SEC_S_NO_MEMORY, MSG_2650_032, "sec__unwrap_cid_buffer",
                          static_cast<int>(g * sizeof(sec_buffer_desc)));
    ps->groups = groups;
    ps->gcount = static_cast<int>(g);
    for (uint32_t i = 0; i < g; ++i) {
        char *name = nullptr;
        size_t len = 0;
        if (qv_int32_t rc = read_name(r, 1, &name, &len)) return rc;
        groups[i].value = name;
        groups[i].length = static_cast<qv_int32_t>(len);
    }
    return 0;
}

qv_int32_t unwrap(sec_buffer_t in, qv_uint32_t *mech, int *version, qv_uint64_t *nodeid, qv_uint32_t *flags,
                  sec_privset_info_t ps) {
    ByteReader r = in != nullptr ? ByteReader::of(*in) : ByteReader({});
    uint8_t type = 0, ver = 0;
    if (r.remaining() < kHeaderLen || !r.u8(type) || type != SEC_BUF_CIDB) return corrupt();
    uint64_t node = 0;
    uint32_t code = 0;
    r.u8(ver);
    r.u64be(node);
    r.u32be(code);
    *version = ver;
    *nodeid = node;
    *mech = code;
    if (code == 0) return 0;

    uint32_t f = 0, reserved = 0;
    if (!r.u32be(f) || !r.u32be(reserved)) return corrupt();
    *flags = f;
    if ((f & SEC_CIDB_F_AUTHENTICATED) == 0) return corrupt();
    if (qv_int32_t rc = read_name(r, 2, &ps->name)) return rc;
    if ((f & SEC_CIDB_F_MAPPING) == 0) return 0;

    ByteReader probe = r;
    uint16_t l2 = 0;
    if (!probe.u16be(l2)) return corrupt();
    if (l2 == 0) return 0;
    if (qv_int32_t rc = read_name(r, 1, &ps->mname)) return rc;
    return read_groups(r, ps);
}

}  // namespace

extern "C" {

qv_uint64_t ntohl64(qv_uint64_t v) {
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    return __builtin_bswap64(v);
#else
    return v;
#endif
}

qv_uint64_t htonl64(qv_uint64_t v) { return ntohl64(v); }

void sec__free_privset_info(sec_privset_info_t ps) {
    if (ps == nullptr) return;
    std::free(ps->name);
    std::free(ps->mname);
    if (ps->gcount != 0 && ps->groups != nullptr) {
        for (int i = 0; i < ps->gcount; ++i) std::free(ps->groups[i].value);
        std::free(ps->groups);
    }
}

qv_int32_t sec__wrap_cid_buff(qv_uint32_t mech, int version, qv_uint32_t flags, sec_privset_info_t ps,
                              sec_buffer_t out) {
    return sec_guard([&]() -> qv_int32_t {
        if (out == nullptr) return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_002, kWrapName);
        out->length = 0;
        out->value = nullptr;
        return wrap(mech, version, flags, ps, out);
    });
}

qv_int32_t sec__unwrap_cid_buff(sec_buffer_t in, qv_uint32_t *mech, int *version, qv_uint64_t *nodeid,
                                qv_uint32_t *flags, sec_privset_info_t ps) {
    return sec_guard([&]() -> qv_int32_t {
        if (mech == nullptr || version == nullptr || nodeid == nullptr || flags == nullptr || ps == nullptr)
            return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_002, "sec__unwrap_cid_buff");
        *mech = 0;
        *version = 0;
        *nodeid = 0;
        *flags = 0;
        *ps = sec_privset_info_desc{};
        qv_int32_t rc = unwrap(in, mech, version, nodeid, flags, ps);
        if (rc != 0) {
            sec__free_privset_info(ps);
            *ps = sec_privset_info_desc{};
        }
        return rc;
    });
}

}  // extern "C"
