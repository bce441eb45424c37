// mpm_explain_status: the module's statuses (README.md, "Statuses") in words
// for the people who meet them through the library's status record.
#include <cstdio>
#include <cstring>
#include <string>

#include "local_mech.h"

namespace qvlocal {
namespace {

const char *reason_text(qv_uint32_t minor) {
    switch (minor) {
    case kReasonTruncated: return "it is shorter than its fields";
    case kReasonType: return "it has the wrong type byte";
    case kReasonVersion: return "its version is not one this module reads";
    case kReasonTrailing: return "bytes follow its last field";
    case kReasonName: return "a name in it holds a NUL byte";
    case kReasonMode: return "its protection mode is unknown";
    case kReasonTag: return "its integrity tag does not match: changed in transit, or made with another context";
    case kReasonReplayed: return "its sequence number was used before: a replay";
    case kReasonOutOfOrder: return "it is ahead of the next expected one: a message was lost or reordered";
    default: return nullptr;
    }
}

std::string no_socket_text(qv_uint32_t minor) {
    switch (minor) {
    case ENOTSOCK:
        return "no socket was given to the mechanism: call sec_setup_socket with the connection's UNIX-domain "
               "socket (flags 0x01000000) before sec_start_sec_context or sec_receive_sec_context";
    case EAFNOSUPPORT:
        return "the socket given is not a UNIX-domain socket, or was not marked local (flag 0x01000000): this "
               "mechanism works only between processes of one host";
    case ENOTCONN:
        return "the socket given has no peer: give the connected socket (from accept or connect), not the "
               "listening one";
    case ESTALE:
        return "the descriptor given to the context now names another socket: it was closed and its number "
               "reused; give each connection its own context";
    default:
        return std::string("no usable local socket: ") + std::strerror(static_cast<int>(minor));
    }
}

std::string text_for(qv_uint32_t major, qv_uint32_t minor) {
    switch (major) {
    case kBadArgument: return "a routine of the mechanism was given a bad argument (NULL, bad mode, size out of range)";
    case kBadHandle: return "not a handle of this mechanism, or one already ended";
    case kBufferTooSmall: return "the buffer for a name is too small; the size needed was returned";
    case kBadToken: {
        const char *why = reason_text(minor);
        return std::string("a context-establishment token from the peer is malformed") + (why ? ": " : "") +
               (why ? why : "") + "; check that both sides run the same release";
    }
    case kNoSocket: return no_socket_text(minor);
    case kKeyExchange:
        return "the key exchange failed: the peer's public key is unusable or its confirmation does not match "
               "(a peer that is not the one that answered, or a changed token)";
    case kWrongState:
        return "a routine was called at the wrong point of the context's life (not established yet, already "
               "started, or an identity context used to protect data)";
    case kNoMemory: return "the mechanism could not allocate memory";
    case kWrongTarget: return "the client targets another service name than the one this service logged in with";
    case kBadMessage: {
        const char *why = reason_text(minor);
        return std::string("a sealed message is malformed or was changed") + (why ? ": " : "") + (why ? why : "");
    }
    case kReplayed: return "a sealed message was received twice (replay)";
    case kOutOfOrder: return "a sealed message arrived ahead of the next expected one (lost or reordered)";
    case kCryptoUnavailable: return "the cryptographic library (libsodium) could not start";
    case kExhausted: return "the context's sequence numbers are used up: make a new context";
    case kUnknownName:
        return minor == 3 ? "the name is of another host, or has no @host part"
                          : "the name does not denote a user of this host";
    case kNotPermitted: return "a process can log in only as its own user with this mechanism";
    case kMutualRequired:
        return "mutual authentication was asked for without a socket: call sec_setup_socket on the client too";
    case kInternal: return "an unexpected failure inside the mechanism";
    case kNoSignature: return "an identity context cannot sign or verify";
    case kServiceNotAllowed:
        return minor == kMinorServicesFileUnusable
                   ? std::string("the file ") + kServicesFile +
                         " that says which users may serve which services is unusable (not owned by root, or "
                         "writable by others, or malformed)"
                   : std::string("the user running the service may not serve the target name: run it as the "
                                 "target's user or list it in ") + kServicesFile;
    case kOtherProcess:
        return "the context was made in another process (before a fork): make a new context in this process";
    case kBadSignature: {
        const char *why = reason_text(minor);
        return std::string("the signature does not verify") + (why ? ": " : "") + (why ? why : "");
    }
    case kUserNotValid:
        return minor == 1 ? "the user name is not known on this host" : "the user name is not the client's user";
    default: return {};
    }
}

}  // namespace
}  // namespace qvlocal

extern "C" qv_uint32_t mpm_explain_status(qv_uint32_t *min_stat, qv_uint32_t major, qv_uint32_t minor, char *text,
                                          qv_int32_t size) {
    using namespace qvlocal;
    return guarded(min_stat, [&](qv_uint32_t *) -> qv_uint32_t {
        if (text == nullptr || size <= 0) return kBadArgument;
        std::string s = text_for(major, minor);
        if (s.empty()) return kBadArgument;
        std::snprintf(text, static_cast<size_t>(size), "%s", s.c_str());
        return kOk;
    });
}
