/*
 * How the example service and client carry the library's buffers over their
 * socket: each frame is a type byte, a 4-byte big-endian length and that many
 * bytes. The library never touches the network; framing is the
 * application's business, and any scheme that delivers the bytes intact will
 * do.
 *
 * Every frame has a deadline: a peer that sends nothing, or trickles its
 * bytes, or does not read what it is sent, is given up on when the time runs
 * out, instead of holding the reader or writer forever.
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

/* Every frame of this protocol is small (mechanism lists, context tokens, a
 * short sealed message). A larger length is refused before anything is
 * allocated: a peer cannot make us set aside more than this. */
#define FRAME_MAX_LENGTH (64u * 1024u)

/* What send_frame and recv_frame return. */
enum frame_status {
    FRAME_OK = 0,
    FRAME_CLOSED = -1,    /* the peer closed the connection (or reset it) */
    FRAME_TIMED_OUT = -2, /* the frame did not arrive or leave within the deadline */
    FRAME_TOO_LONG = -3,  /* the length is above FRAME_MAX_LENGTH */
    FRAME_NO_MEMORY = -4
};

/* A short text for a frame_status, for messages. */
const char *frame_status_text(int status);

/* Sends one frame, giving up after timeout_ms milliseconds. */
int send_frame(int fd, int timeout_ms, int type, const void *data, qv_int32_t length);
/* Receives one frame into a malloc'ed buffer (release with
 * sec_release_buffer), giving up when the whole frame has not arrived within
 * timeout_ms milliseconds. On failure the buffer is empty. */
int recv_frame(int fd, int timeout_ms, int *type, sec_buffer_desc *buffer);

#endif
