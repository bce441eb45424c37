// The two context-establishment tokens of "host" and the check of the
// assertion each carries. The bytes come from the peer: every length is
// checked, and a reader accepts exactly one token with nothing after it.
#include <sodium.h>

#include <cstring>

#include "byte_io.h"
#include "host_mech.h"

namespace qvhostmech {
namespace {

Status fail(qv_uint32_t *reason, Reason r) {
    if (reason != nullptr) *reason = r;
    return kBadToken;
}

void write_head(ByteWriter &w, uint8_t type, uint16_t flags, std::span<const uint8_t> assertion) {
    w.u8(type);
    w.u8(kProtocolVersion);
    w.u16be(flags);
    w.u32be(static_cast<uint32_t>(assertion.size()));
    w.bytes(assertion);
}

Status read_head(ByteReader &r, uint8_t type, uint16_t &flags, std::span<const uint8_t> &assertion,
                 qv_uint32_t *reason) {
    uint8_t t, version;
    uint32_t n;
    if (!r.u8(t)) return fail(reason, kReasonTruncated);
    if (t != type) return fail(reason, kReasonType);
    if (!r.u8(version)) return fail(reason, kReasonTruncated);
    if (version != kProtocolVersion) return fail(reason, kReasonVersion);
    if (!r.u16be(flags) || !r.u32be(n) || n > kMaxAssertion || !r.take(n, assertion))
        return fail(reason, kReasonTruncated);
    return kOk;
}

}  // namespace

std::vector<uint8_t> write_client_token(uint16_t flags, std::span<const uint8_t> assertion) {
    ByteWriter w;
    write_head(w, kTypeClient, flags, assertion);
    return w.data();
}

std::vector<uint8_t> write_service_token_body(uint16_t flags, std::span<const uint8_t> assertion) {
    ByteWriter w;
    write_head(w, kTypeService, flags, assertion);
    return w.data();
}

Status read_client_token(std::span<const uint8_t> in, ClientToken &t, qv_uint32_t *reason) {
    ByteReader r(in);
    if (Status s = read_head(r, kTypeClient, t.flags, t.assertion, reason); s != kOk) return s;
    if (r.remaining() != 0) return fail(reason, kReasonTrailing);
    return kOk;
}

Status read_service_token(std::span<const uint8_t> in, ServiceToken &t, qv_uint32_t *reason) {
    ByteReader r(in);
    if (Status s = read_head(r, kTypeService, t.flags, t.assertion, reason); s != kOk) return s;
    if (!r.take(kConfirmSize, t.confirm)) return fail(reason, kReasonTruncated);
    if (r.remaining() != 0) return fail(reason, kReasonTrailing);
    return kOk;
}

Status check_peer_assertion(std::span<const uint8_t> bytes, const qvhost::TrustedHosts &trusted, std::int64_t now,
                            std::int64_t skew, qvhost::Assertion &a, qv_uint32_t *minor) {
    size_t consumed = 0;
    switch (qvhost::check_assertion(bytes, trusted, now, skew, a, &consumed)) {
    case qvhost::AssertionCheck::kOk: break;
    case qvhost::AssertionCheck::kMalformed: *minor = kReasonTruncated; return kBadToken;
    case qvhost::AssertionCheck::kUntrusted: *minor = kCheckUntrusted; return kUntrusted;
    case qvhost::AssertionCheck::kBadSignature: *minor = kCheckBadSignature; return kUntrusted;
    case qvhost::AssertionCheck::kNotYetValid: *minor = kCheckNotYetValid; return kNotValidNow;
    case qvhost::AssertionCheck::kExpired: *minor = kCheckExpired; return kNotValidNow;
    }
    if (consumed != bytes.size()) {
        *minor = kReasonTrailing;
        return kBadToken;
    }
    // The key is the host's; the node ID says the host is the machine the
    // trusted entry was made for (a host name reused elsewhere is not it).
    const qvhost::TrustedKey *k = trusted.find(a.host, a.key_id, now);
    if (k == nullptr) {
        *minor = kCheckUntrusted;
        return kUntrusted;
    }
    if (k->node_id != a.node_id) {
        *minor = kNodeId;
        return kMisaddressed;
    }
    return kOk;
}

}  // namespace qvhostmech
