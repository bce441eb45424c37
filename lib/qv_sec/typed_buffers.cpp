// The CCDB and the seal buffer: the typed buffers that carry a module's
// opaque bytes to the peer. Wrapping adds the header, unwrapping checks and
// strips it, so a module only ever sees its own bytes.
#include <cstdint>
#include <cstring>

#include "byte_io.h"
#include "context_token.h"
#include "errors.h"

namespace {

constexpr int kCcdbVersion2 = 2;

qv_int32_t bad_buffer() { return sec_report(SEC_S_BAD_BUFFER, MSG_2650_005); }

// The body of a module buffer that is to get a header of `header` bytes; a
// negative length, a NULL value with a length, or a length that leaves no
// room for the header in a buffer's 32-bit length is corrupt. The last is
// found before a byte is copied: a module may claim more than it wrote.
bool module_bytes(sec_buffer_t b, qv_int32_t header, std::span<const uint8_t> &out) {
    out = {};
    if (b == nullptr || b->length == 0) return true;
    if (b->length < 0 || b->value == nullptr || b->length > INT32_MAX - header) return false;
    out = {static_cast<const uint8_t *>(b->value), static_cast<size_t>(b->length)};
    return true;
}

qv_int32_t give_or_report(const ByteWriter &w, sec_buffer_t out) {
    if (give_buffer(w.data(), out)) return 0;
    return sec_report(SEC_S_NO_MEMORY, MSG_2650_004);
}

}  // namespace

extern "C" {

const qv_int32_t sec__buff_tv_len = 2;
const qv_int32_t sec__buff_tvm_len = 6;
const qv_int32_t sec__buff_tvms_len = 8;

qv_int32_t sec__wrap_mech_ccdb(sec_buffer_t mccdb, qv_uint32_t mech, int version, unsigned char seq_no,
                               unsigned char flags, sec_buffer_t ccdb) {
    ccdb->length = 0;
    ccdb->value = nullptr;
    std::span<const uint8_t> body;
    // A module that hands back a corrupt buffer is refused, not copied from.
    if (!module_bytes(mccdb, version == kCcdbVersion2 ? sec__buff_tvms_len : sec__buff_tvm_len, body))
        return bad_buffer();
    ByteWriter w;
    w.u8(SEC_BUF_CCDB);
    w.u8(static_cast<uint8_t>(version));
    w.u32be(mech);
    if (version == kCcdbVersion2) {
        w.u8(seq_no);
        w.u8(flags);
    }
    w.bytes(body);
    return give_or_report(w, ccdb);
}

qv_int32_t sec__unwrap_mech_ccdb(sec_buffer_t ccdb, qv_uint32_t *mech, int *version, unsigned char *seq_no,
                                 unsigned char *flags, sec_buffer_t mccdb) {
    if (ccdb == nullptr || mccdb == nullptr) {
        if (mech) *mech = 0;
        if (version) *version = 0;
        if (seq_no) *seq_no = 0;
        return bad_buffer();
    }
    mccdb->length = 0;
    mccdb->value = nullptr;
    ByteReader r = ByteReader::of(*ccdb);
    uint8_t type = 0, ver = 0;
    uint32_t code = 0;
    if (!r.u8(type) || type != SEC_BUF_CCDB || r.remaining() < 5) return bad_buffer();
    r.u8(ver);
    if (ver > kCcdbVersion2) return sec_report(SEC_S_BAD_VERSION, MSG_2650_007);
    r.u32be(code);
    *version = ver;
    *mech = code;
    *seq_no = 0;
    *flags = 0;
    if (ver == kCcdbVersion2) {
        uint8_t s = 0, f = 0;
        if (!r.u8(s) || !r.u8(f)) return bad_buffer();
        *seq_no = s;
        *flags = f;
    }
    if (!give_buffer(r.rest(), mccdb)) return sec_report(SEC_S_NO_MEMORY, MSG_2650_004);
    return 0;
}

qv_int32_t sec__wrap_seal_buff(sec_buffer_t in, qv_uint32_t mech, int version, sec_buffer_t out) {
    SealReservation room;
    return sec_wrap_seal_into(in, mech, version, room, out);
}

qv_int32_t sec__unwrap_seal_buff(sec_buffer_t in, qv_uint32_t *mech, int *version, sec_buffer_t out) {
    out->length = 0;
    out->value = nullptr;
    if (in == nullptr) return bad_buffer();
    ByteReader r = ByteReader::of(*in);
    uint8_t type = 0, ver = 0;
    uint32_t code = 0;
    if (!r.u8(type) || type != SEC_BUF_SEAL || !r.u8(ver) || !r.u32be(code)) return bad_buffer();
    *version = ver;
    *mech = code;
    std::span<const uint8_t> body = r.rest();
    if (!give_buffer(body, out)) {
        return sec_report(SEC_S_NO_MEMORY, MSG_2650_032, "sec__unwrap_seal_buff", static_cast<int>(body.size()));
    }
    return 0;
}

}  // extern "C"

qv_int32_t sec_wrap_seal_into(sec_buffer_t in, qv_uint32_t mech, int version, SealReservation &room,
                              sec_buffer_t out) {
    out->length = 0;
    out->value = nullptr;
    std::span<const uint8_t> body;
    if (!module_bytes(in, sec__buff_tvm_len, body)) return bad_buffer();
    const size_t n = sec__buff_tvm_len + body.size();
    if (!room.fit(n)) return sec_report(SEC_S_NO_MEMORY, MSG_2650_004);
    uint8_t *p = room.data();
    p[0] = SEC_BUF_SEAL;
    p[1] = static_cast<uint8_t>(version);
    for (int i = 0; i < 4; ++i) p[2 + i] = static_cast<uint8_t>(mech >> (24 - 8 * i));
    if (!body.empty()) std::memcpy(p + sec__buff_tvm_len, body.data(), body.size());
    out->value = room.take();
    out->length = static_cast<qv_int32_t>(n);
    return 0;
}
