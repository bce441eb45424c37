// The kernel's view of the other end of a local socket.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>

#include "mech_common.h"

namespace qvmech {

Status peer_credentials(int fd, Credentials &creds, qv_uint32_t *minor) {
    sockaddr_storage addr{};
    socklen_t len = sizeof addr;
    if (getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len) != 0) {
        *minor = static_cast<qv_uint32_t>(errno);
        return kNoSocket;
    }
    // Only a UNIX-domain socket has credentials that the kernel vouches for.
    if (addr.ss_family != AF_UNIX) {
        *minor = EAFNOSUPPORT;
        return kNoSocket;
    }
    ucred uc{};
    socklen_t uc_len = sizeof uc;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &uc, &uc_len) != 0) {
        *minor = static_cast<qv_uint32_t>(errno);
        return kNoSocket;
    }
    // An unconnected socket reports no process.
    if (uc_len != sizeof uc || uc.pid <= 0) {
        *minor = ENOTCONN;
        return kNoSocket;
    }
    creds.uid = static_cast<uint32_t>(uc.uid);
    creds.gid = static_cast<uint32_t>(uc.gid);
    creds.pid = static_cast<uint32_t>(uc.pid);
    return kOk;
}

// What a party states about itself in its token. The receiver does not rely
// on it: a process that holds another's socket end could write anything.
Credentials own_credentials() {
    return Credentials{static_cast<uint32_t>(geteuid()), static_cast<uint32_t>(getegid()),
                       static_cast<uint32_t>(getpid())};
}

Status socket_id(int fd, SocketId &id, qv_uint32_t *minor) {
    struct stat st {};
    if (fstat(fd, &st) != 0) {
        *minor = static_cast<qv_uint32_t>(errno);
        return kNoSocket;
    }
    id = SocketId{st.st_dev, st.st_ino};
    return kOk;
}

}  // namespace qvmech
