/*
 * How the example service and client carry the library's buffers over their
 * socket: each frame is a type byte, a 4-byte big-endian length and that many
 * bytes. The library never touches the network; framing is the
 * application's business, and any scheme that delivers the bytes intact will
 * do.
 */
#ifndef QVSEC_EXAMPLE_FRAMING_H
#define QVSEC_EXAMPLE_FRAMING_H

#include "qv_sec.h"

enum frame_type {
    FRAME_OFFER = 1,   /* the client's mechanism list (sec_get_auth_methods) */
    FRAME_SHARED = 2,  /* the service's reconciled list (sec_reconcile_auth_methods) */
    FRAME_CCDB = 3,    /* context-establishment data, either way */
    FRAME_DATA = 4,    /* sealed application data (sec_prepare_data) */
    FRAME_REFUSED = 5  /* the service gives up on this client: the body says why */
};

/* Frames above this size are refused: a peer cannot make us allocate more. */
#define FRAME_MAX_LENGTH (1u << 20)

/* Sends one frame; 0 on success, -1 on a socket error. */
int send_frame(int fd, int type, const void *data, qv_int32_t length);
/* Receives one frame into a malloc'ed buffer (release with
 * sec_release_buffer); 0 on success, -1 on a socket error, a closed
 * connection or an oversized frame. */
int recv_frame(int fd, int *type, sec_buffer_desc *buffer);

/* Prints "<what>: <message>" for the failure that code rc reported: the
 * catalogued message of the thread's error record, or for a failure inside a
 * mechanism module (rc 3), the module's status. */
void print_failure(const char *what, qv_int32_t rc, const sec_status_desc *st);

/* The default socket path of the example service, in a directory that only
 * the service's user (or root) can write, so that no other user can put a
 * socket of its own where clients look:
 *   $XDG_RUNTIME_DIR/qvsec-example.sock   when the variable is set;
 *   /run/qvsec/example.sock               for root otherwise;
 *   /tmp/qvsec-<uid>/example.sock         for other users otherwise.
 * With create set, a missing /run/qvsec or /tmp/qvsec-<uid> is made. Fails
 * (-1, with a message on stderr) when the directory is not owned by root or
 * this user, is writable by group or others, or the path does not fit. */
int example_socket_path(char *path, size_t size, int create);

#endif
