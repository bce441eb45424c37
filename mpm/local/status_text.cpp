// mpm_explain_status: the module's own statuses (README.md, "Statuses") in
// words; the shared ones are in mpm/common.
#include <cstdio>
#include <cstring>
#include <string>

#include "local_mech.h"

namespace qvlocal {
namespace {

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
    case kNoSocket: return no_socket_text(minor);
    case kWrongTarget: return "the client targets another service name than the one this service logged in with";
    case kUnknownName:
        return minor == 3 ? "the name is of another host, or has no @host part"
                          : "the name does not denote a user of this host";
    case kNotPermitted: return "a process can log in only as its own user with this mechanism";
    case kMutualRequired:
        return "mutual authentication was asked for without a socket: call sec_setup_socket on the client too";
    case kServiceNotAllowed:
        return minor == kMinorServicesFileUnusable
                   ? std::string("the file ") + kServicesFile +
                         " that says which users may serve which services is unusable (not owned by root, or "
                         "writable by others, or malformed)"
                   : std::string("the user running the service may not serve the target name: run it as the "
                                 "target's user or list it in ") + kServicesFile;
    default: return {};
    }
}

}  // namespace
}  // namespace qvlocal

extern "C" qv_uint32_t mpm_explain_status(qv_uint32_t *min_stat, qv_uint32_t major, qv_uint32_t minor, char *text,
                                          qv_int32_t size) {
    return qvlocal::explain_status(min_stat, major, minor, text, size, qvlocal::text_for);
}
