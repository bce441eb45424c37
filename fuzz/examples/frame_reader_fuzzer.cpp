// The example programs' frame reader (examples/framing.c) on a peer's bytes:
// the input is what arrives on the socket before the peer closes it. Every
// frame read must be within the length bound and of the length announced;
// a failed read must leave the buffer empty.
#include <sys/socket.h>
#include <unistd.h>

#include "../fuzz_support.h"

extern "C" {
#include "framing.h"
}

// At most what fits in a socket's buffer at once: the reader never waits here.
QV_FUZZ_TARGET(80 * 1024) {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) return;
    int sndbuf = 256 * 1024;
    setsockopt(sv[0], SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof sndbuf);
    if (size > 0 && write(sv[0], data, size) != static_cast<ssize_t>(size)) {
        close(sv[0]);
        close(sv[1]);
        return;
    }
    close(sv[0]);
    size_t consumed = 0;
    for (;;) {
        int type = -1;
        sec_buffer_desc frame{7, nullptr};
        int rc = recv_frame(sv[1], 1000, &type, &frame);
        if (rc != FRAME_OK) {
            if (frame.length != 0 || frame.value != nullptr) __builtin_trap();
            break;
        }
        if (frame.length < 0 || static_cast<uint32_t>(frame.length) > FRAME_MAX_LENGTH) __builtin_trap();
        if ((frame.length == 0) != (frame.value == nullptr)) __builtin_trap();
        consumed += 5 + static_cast<size_t>(frame.length);
        if (consumed > size || type != data[consumed - 5 - frame.length]) __builtin_trap();
        free(frame.value);
    }
    close(sv[1]);
}
