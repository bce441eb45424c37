// Internal header of the "local" mechanism module: a client and a service on
// the same host authenticate each other through the kernel's credentials of
// the UNIX-domain socket between them, agree a session key by X25519, and
// protect data with it (the parts shared with the "host" module are in
// mpm/common). README.md beside this file documents every routine, token
// format and status.
#pragma once

#include "mech_common.h"

namespace qvlocal {
using namespace qvmech;

inline constexpr uint8_t kTypeClientHello = 0x01;
inline constexpr uint8_t kTypeServerReply = 0x02;
inline constexpr size_t kNonceSize = 32;
inline constexpr size_t kClientHelloFixed = 81;  // without the service name
inline constexpr size_t kServerReplyFixed = 113;  // without the service name

// Token flags (16-bit field of both tokens).
inline constexpr uint16_t kTokenChecksPeer = 0x0001;  // sender checks who the peer is

// The file of "service user" lines read for a client that requires mutual
// authentication.
inline constexpr char kServicesFile[] = QV_LOCAL_SERVICES_FILE;

// The key schedule's labels of this module.
inline constexpr KdfLabels kLocalLabels{"qvlocal1", "qvsec local v1 session", "qvsec local v1 server confirm"};

// ---- Wire formats ----
struct ClientHello {
    uint16_t flags = 0;
    std::array<uint8_t, kNonceSize> nonce{};
    std::array<uint8_t, kPublicKeySize> public_key{};
    Credentials creds;
    std::string target;  // the service the client wants, may be empty
};

struct ServerReply {
    uint16_t flags = 0;
    std::array<uint8_t, kNonceSize> nonce{};
    std::array<uint8_t, kPublicKeySize> public_key{};
    Credentials creds;
    std::string service;  // the name the service logged in with, may be empty
    std::array<uint8_t, kConfirmSize> confirm{};
};

std::vector<uint8_t> write_client_hello(const ClientHello &h);
// The reply without its confirmation tag: the transcript the tag covers.
std::vector<uint8_t> write_server_reply_body(const ServerReply &r);
// Both readers accept exactly one well-formed token and nothing after it;
// on failure they return kBadToken and set *reason.
Status read_client_hello(std::span<const uint8_t> in, ClientHello &h, qv_uint32_t *reason);
Status read_server_reply(std::span<const uint8_t> in, ServerReply &r, qv_uint32_t *reason);

}  // namespace qvlocal
