// The two context-establishment tokens: writers and their bounds-checked
// readers. The bytes come from the peer, so the readers check every length
// and accept exactly one token with nothing after it.
#include <cstring>

#include "byte_io.h"
#include "local_mech.h"

namespace qvlocal {
namespace {

void write_common(ByteWriter &w, uint8_t type, uint16_t flags, std::span<const uint8_t> nonce,
                  std::span<const uint8_t> public_key, const Credentials &c, const std::string &name) {
    w.u8(type);
    w.u8(kProtocolVersion);
    w.u16be(flags);
    w.bytes(nonce);
    w.bytes(public_key);
    w.u32be(c.uid);
    w.u32be(c.gid);
    w.u32be(c.pid);
    // Writers are given names of at most kMaxServiceName bytes (checked where
    // the names enter the module).
    w.u8(static_cast<uint8_t>(name.size()));
    w.bytes({reinterpret_cast<const uint8_t *>(name.data()), name.size()});
}

struct Fields {
    uint16_t flags = 0;
    std::span<const uint8_t> nonce, public_key;
    Credentials creds;
    std::string name;
};

Status fail(qv_uint32_t *reason, Reason r) {
    if (reason != nullptr) *reason = r;
    return kBadToken;
}

Status read_common(ByteReader &r, uint8_t type, Fields &f, qv_uint32_t *reason) {
    uint8_t t, version, name_len;
    if (!r.u8(t)) return fail(reason, kReasonTruncated);
    if (t != type) return fail(reason, kReasonType);
    if (!r.u8(version)) return fail(reason, kReasonTruncated);
    if (version != kProtocolVersion) return fail(reason, kReasonVersion);
    std::span<const uint8_t> name;
    if (!r.u16be(f.flags) || !r.take(kNonceSize, f.nonce) || !r.take(kPublicKeySize, f.public_key) ||
        !r.u32be(f.creds.uid) || !r.u32be(f.creds.gid) || !r.u32be(f.creds.pid) || !r.u8(name_len) ||
        !r.take(name_len, name))
        return fail(reason, kReasonTruncated);
    if (std::memchr(name.data(), 0, name.size()) != nullptr) return fail(reason, kReasonName);
    f.name.assign(reinterpret_cast<const char *>(name.data()), name.size());
    return kOk;
}

}  // namespace

std::vector<uint8_t> write_client_hello(const ClientHello &h) {
    ByteWriter w;
    write_common(w, kTypeClientHello, h.flags, h.nonce, h.public_key, h.creds, h.target);
    return w.data();
}

std::vector<uint8_t> write_server_reply_body(const ServerReply &r) {
    ByteWriter w;
    write_common(w, kTypeServerReply, r.flags, r.nonce, r.public_key, r.creds, r.service);
    return w.data();
}

Status read_client_hello(std::span<const uint8_t> in, ClientHello &h, qv_uint32_t *reason) {
    ByteReader r(in);
    Fields f;
    if (Status s = read_common(r, kTypeClientHello, f, reason); s != kOk) return s;
    if (r.remaining() != 0) return fail(reason, kReasonTrailing);
    h.flags = f.flags;
    std::memcpy(h.nonce.data(), f.nonce.data(), kNonceSize);
    std::memcpy(h.public_key.data(), f.public_key.data(), kPublicKeySize);
    h.creds = f.creds;
    h.target = std::move(f.name);
    return kOk;
}

Status read_server_reply(std::span<const uint8_t> in, ServerReply &rep, qv_uint32_t *reason) {
    ByteReader r(in);
    Fields f;
    if (Status s = read_common(r, kTypeServerReply, f, reason); s != kOk) return s;
    std::span<const uint8_t> confirm;
    if (!r.take(kConfirmSize, confirm)) return fail(reason, kReasonTruncated);
    if (r.remaining() != 0) return fail(reason, kReasonTrailing);
    rep.flags = f.flags;
    std::memcpy(rep.nonce.data(), f.nonce.data(), kNonceSize);
    std::memcpy(rep.public_key.data(), f.public_key.data(), kPublicKeySize);
    rep.creds = f.creds;
    rep.service = std::move(f.name);
    std::memcpy(rep.confirm.data(), confirm.data(), kConfirmSize);
    return kOk;
}

}  // namespace qvlocal
