// The texts of the statuses every module of this family shares, and the
// body of mpm_explain_status, for the people who meet them through the
// library's status record.
#include <cstdio>
#include <cstring>
#include <string>

#include "mech_common.h"

namespace qvmech {
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

}  // namespace

std::string shared_status_text(qv_uint32_t major, qv_uint32_t minor) {
    switch (major) {
    case kBadArgument: return "a routine of the mechanism was given a bad argument (NULL, bad mode, size out of range)";
    case kBadHandle: return "not a handle of this mechanism, or one already ended";
    case kBufferTooSmall: return "the buffer for a name is too small; the size needed was returned";
    case kBadToken: {
        const char *why = reason_text(minor);
        return std::string("a context-establishment token from the peer is malformed") + (why ? ": " : "") +
               (why ? why : "") + "; check that both sides run the same release";
    }
    case kKeyExchange:
        return "the key exchange failed: the peer's public key is unusable or its confirmation does not match "
               "(a peer that is not the one that answered, or a changed token)";
    case kWrongState:
        return "a routine was called at the wrong point of the context's life (not established yet, already "
               "started, or an identity context used to protect data)";
    case kNoMemory: return "the mechanism could not allocate memory";
    case kBadMessage: {
        const char *why = reason_text(minor);
        return std::string("a sealed message is malformed or was changed") + (why ? ": " : "") + (why ? why : "");
    }
    case kReplayed: return "a sealed message was received twice (replay)";
    case kOutOfOrder: return "a sealed message arrived ahead of the next expected one (lost or reordered)";
    case kCryptoUnavailable: return "the cryptographic library (libsodium) could not start";
    case kExhausted: return "the context's sequence numbers are used up: make a new context";
    case kInternal: return "an unexpected failure inside the mechanism";
    case kNoSignature: return "an identity context cannot sign or verify";
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

qv_uint32_t explain_status(qv_uint32_t *min_stat, qv_uint32_t major, qv_uint32_t minor, char *text, qv_int32_t size,
                           std::string (*own_text)(qv_uint32_t, qv_uint32_t)) {
    return guarded(min_stat, [&](qv_uint32_t *) -> qv_uint32_t {
        if (text == nullptr || size <= 0) return kBadArgument;
        std::string s = own_text(major, minor);
        if (s.empty()) s = shared_status_text(major, minor);
        if (s.empty()) return kBadArgument;
        std::snprintf(text, static_cast<size_t>(size), "%s", s.c_str());
        return kOk;
    });
}

}  // namespace qvmech
