#include "framing.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "qv_cu.h"

static int write_all(int fd, const unsigned char *p, size_t n) {
    while (n > 0) {
        ssize_t w = write(fd, p, n);
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) return -1;
        p += w;
        n -= (size_t)w;
    }
    return 0;
}

static int read_all(int fd, unsigned char *p, size_t n) {
    while (n > 0) {
        ssize_t r = read(fd, p, n);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return -1;
        p += r;
        n -= (size_t)r;
    }
    return 0;
}

int send_frame(int fd, int type, const void *data, qv_int32_t length) {
    unsigned char header[5];
    qv_uint32_t n = length > 0 ? (qv_uint32_t)length : 0;
    header[0] = (unsigned char)type;
    header[1] = (unsigned char)(n >> 24);
    header[2] = (unsigned char)(n >> 16);
    header[3] = (unsigned char)(n >> 8);
    header[4] = (unsigned char)n;
    if (write_all(fd, header, sizeof header) != 0) return -1;
    return n > 0 ? write_all(fd, data, n) : 0;
}

int recv_frame(int fd, int *type, sec_buffer_desc *buffer) {
    unsigned char header[5];
    qv_uint32_t n;
    buffer->length = 0;
    buffer->value = NULL;
    if (read_all(fd, header, sizeof header) != 0) return -1;
    n = (qv_uint32_t)header[1] << 24 | (qv_uint32_t)header[2] << 16 | (qv_uint32_t)header[3] << 8 | header[4];
    if (n > FRAME_MAX_LENGTH) return -1;
    *type = header[0];
    if (n == 0) return 0;
    buffer->value = malloc(n);
    if (buffer->value == NULL) return -1;
    if (read_all(fd, buffer->value, n) != 0) {
        free(buffer->value);
        buffer->value = NULL;
        return -1;
    }
    buffer->length = (qv_int32_t)n;
    return 0;
}

void print_failure(const char *what, qv_int32_t rc, const sec_status_desc *st) {
    cu_error_t *err = NULL;
    char *msg = NULL;
    if (rc == SEC_S_MPM_FAILURE && st != NULL) {
        fprintf(stderr, "%s: mechanism 0x%x failed in %s (major 0x%x, minor 0x%x)\n", what, st->mech_code,
                st->desc, st->maj_stat, st->min_stat);
        return;
    }
    if (cu_get_error_1(&err) == 0 && err != NULL && err->cu_error_id != 0 && cu_get_errmsg_1(err, &msg) == 0) {
        size_t len = strlen(msg);
        while (len > 0 && msg[len - 1] == '\n') msg[--len] = '\0';
        fprintf(stderr, "%s (code %d): %s\n", what, (int)rc, msg);
    } else {
        fprintf(stderr, "%s: failed with code %d\n", what, (int)rc);
    }
    cu_rel_errmsg_1(msg);
    cu_rel_error_1(err);
}

int example_socket_path(char *path, size_t size, int create) {
    const char *runtime = getenv("XDG_RUNTIME_DIR");
    uid_t uid = geteuid();
    char dir[256];
    const char *name = "example.sock";
    /* /run/qvsec is searchable by everyone, so that clients of other users
     * reach a root service; /tmp/qvsec-<uid> is its user's alone. */
    mode_t mode = 0755;
    struct stat st;
    int n;

    if (runtime != NULL && runtime[0] != '\0') {
        n = snprintf(dir, sizeof dir, "%s", runtime);
        name = "qvsec-example.sock";
        create = 0;
    } else if (uid == 0) {
        n = snprintf(dir, sizeof dir, "/run/qvsec");
    } else {
        n = snprintf(dir, sizeof dir, "/tmp/qvsec-%u", (unsigned)uid);
        mode = 0700;
    }
    if (n < 0 || (size_t)n >= sizeof dir) {
        fprintf(stderr, "socket directory name too long\n");
        return -1;
    }
    if (create && mkdir(dir, mode) != 0 && errno != EEXIST) {
        fprintf(stderr, "cannot make %s: %s\n", dir, strerror(errno));
        return -1;
    }
    /* lstat: a symbolic link in the directory's place is refused too. */
    if (lstat(dir, &st) != 0) {
        fprintf(stderr, "%s: %s\n", dir, strerror(errno));
        return -1;
    }
    if (!S_ISDIR(st.st_mode) || (st.st_uid != 0 && st.st_uid != uid) || (st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        fprintf(stderr, "refusing %s: not a directory that only root or this user can write\n", dir);
        return -1;
    }
    n = snprintf(path, size, "%s/%s", dir, name);
    if (n < 0 || (size_t)n >= size) {
        fprintf(stderr, "socket path too long\n");
        return -1;
    }
    return 0;
}
