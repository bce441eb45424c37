#include "framing.h"

#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>

static long long now_ms(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (long long)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

/* Waits until fd is ready for events or the deadline (in now_ms time) has
 * passed. The socket stays blocking; the calls below do not wait
 * (MSG_DONTWAIT), so only poll ever waits, and never past the deadline. */
static int wait_ready(int fd, short events, long long deadline) {
    for (;;) {
        struct pollfd p = {fd, events, 0};
        long long left = deadline - now_ms();
        int n;
        if (left <= 0) return FRAME_TIMED_OUT;
        n = poll(&p, 1, left > 60000 ? 60000 : (int)left);
        if (n > 0) return FRAME_OK;
        if (n < 0 && errno != EINTR) return FRAME_CLOSED;
    }
}

static int write_all(int fd, const unsigned char *p, size_t n, long long deadline) {
    while (n > 0) {
        /* MSG_NOSIGNAL: a peer that went away is an error here, not SIGPIPE. */
        ssize_t w = send(fd, p, n, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (w < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
            int rc = wait_ready(fd, POLLOUT, deadline);
            if (rc != FRAME_OK) return rc;
            continue;
        }
        if (w <= 0) return FRAME_CLOSED;
        p += w;
        n -= (size_t)w;
    }
    return FRAME_OK;
}

static int read_all(int fd, unsigned char *p, size_t n, long long deadline) {
    while (n > 0) {
        ssize_t r = recv(fd, p, n, MSG_DONTWAIT);
        if (r < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
            int rc = wait_ready(fd, POLLIN, deadline);
            if (rc != FRAME_OK) return rc;
            continue;
        }
        if (r <= 0) return FRAME_CLOSED;
        p += r;
        n -= (size_t)r;
    }
    return FRAME_OK;
}

const char *frame_status_text(int status) {
    switch (status) {
    case FRAME_OK: return "ok";
    case FRAME_CLOSED: return "connection closed";
    case FRAME_TIMED_OUT: return "timed out";
    case FRAME_TOO_LONG: return "frame too long";
    case FRAME_NO_MEMORY: return "out of memory";
    default: return "unknown";
    }
}

int send_frame(int fd, int timeout_ms, int type, const void *data, qv_int32_t length) {
    long long deadline = now_ms() + timeout_ms;
    unsigned char header[5];
    qv_uint32_t n = length > 0 ? (qv_uint32_t)length : 0;
    int rc;
    if (n > FRAME_MAX_LENGTH) return FRAME_TOO_LONG;
    header[0] = (unsigned char)type;
    header[1] = (unsigned char)(n >> 24);
    header[2] = (unsigned char)(n >> 16);
    header[3] = (unsigned char)(n >> 8);
    header[4] = (unsigned char)n;
    rc = write_all(fd, header, sizeof header, deadline);
    if (rc != FRAME_OK || n == 0) return rc;
    return write_all(fd, data, n, deadline);
}

int recv_frame(int fd, int timeout_ms, int *type, sec_buffer_desc *buffer) {
    long long deadline = now_ms() + timeout_ms;
    unsigned char header[5];
    qv_uint32_t n;
    int rc;
    buffer->length = 0;
    buffer->value = NULL;
    *type = 0;
    rc = read_all(fd, header, sizeof header, deadline);
    if (rc != FRAME_OK) return rc;
    n = (qv_uint32_t)header[1] << 24 | (qv_uint32_t)header[2] << 16 | (qv_uint32_t)header[3] << 8 | header[4];
    /* The bound comes before the allocation. */
    if (n > FRAME_MAX_LENGTH) return FRAME_TOO_LONG;
    *type = header[0];
    if (n == 0) return FRAME_OK;
    buffer->value = malloc(n);
    if (buffer->value == NULL) return FRAME_NO_MEMORY;
    rc = read_all(fd, buffer->value, n, deadline);
    if (rc != FRAME_OK) {
        free(buffer->value);
        buffer->value = NULL;
        *type = 0;
        return rc;
    }
    buffer->length = (qv_int32_t)n;
    return FRAME_OK;
}
