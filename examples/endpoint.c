#define _GNU_SOURCE /* SOCK_CLOEXEC, NI_MAXHOST */
#include "endpoint.h"

#include <errno.h>
#include <netdb.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "qv_sec.h"

int endpoint_unix(struct endpoint *ep, const char *path) {
    memset(ep, 0, sizeof *ep);
    if (strlen(path) >= sizeof ep->path) {
        fprintf(stderr, "socket path too long: %s\n", path);
        return -1;
    }
    strcpy(ep->path, path);
    return 0;
}

int endpoint_tcp(struct endpoint *ep, const char *address) {
    const char *colon = strrchr(address, ':');
    const char *host = address;
    size_t host_len;
    memset(ep, 0, sizeof *ep);
    ep->tcp = 1;
    if (colon == NULL || colon[1] == '\0' || strlen(colon + 1) >= sizeof ep->port) {
        fprintf(stderr, "not HOST:PORT: %s\n", address);
        return -1;
    }
    host_len = (size_t)(colon - address);
    /* "[::1]:7000": the brackets keep an IPv6 address's colons apart. */
    if (host_len >= 2 && address[0] == '[' && address[host_len - 1] == ']') {
        ++host;
        host_len -= 2;
    }
    if (host_len == 0 || host_len >= sizeof ep->host) {
        fprintf(stderr, "not HOST:PORT: %s\n", address);
        return -1;
    }
    memcpy(ep->host, host, host_len);
    strcpy(ep->port, colon + 1);
    return 0;
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

int endpoint_from_options(struct endpoint *ep, const char *path, const char *tcp_address, int create) {
    char default_path[108];
    if (tcp_address != NULL) return endpoint_tcp(ep, tcp_address) != 0 ? 2 : 0;
    if (path == NULL) {
        if (example_socket_path(default_path, sizeof default_path, create) != 0) return 1;
        path = default_path;
    }
    return endpoint_unix(ep, path) != 0 ? 1 : 0;
}

static void unix_address(const struct endpoint *ep, struct sockaddr_un *addr) {
    memset(addr, 0, sizeof *addr);
    addr->sun_family = AF_UNIX;
    memcpy(addr->sun_path, ep->path, strlen(ep->path) + 1);
}

/* The addresses of host:port; NULL, with a message, when there are none. */
static struct addrinfo *tcp_addresses(const struct endpoint *ep, int passive) {
    struct addrinfo hints, *list = NULL;
    int rc;
    memset(&hints, 0, sizeof hints);
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = passive ? AI_PASSIVE : 0;
    rc = getaddrinfo(ep->host, ep->port, &hints, &list);
    if (rc != 0) {
        fprintf(stderr, "%s:%s: %s\n", ep->host, ep->port, gai_strerror(rc));
        return NULL;
    }
    return list;
}

static void print_listening(int fd) {
    struct sockaddr_storage addr;
    socklen_t len = sizeof addr;
    char host[NI_MAXHOST], port[NI_MAXSERV];
    if (getsockname(fd, (struct sockaddr *)&addr, &len) != 0 ||
        getnameinfo((struct sockaddr *)&addr, len, host, sizeof host, port, sizeof port,
                    NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
        printf("service: listening\n");
        return;
    }
    printf(addr.ss_family == AF_INET6 ? "service: listening on [%s]:%s\n" : "service: listening on %s:%s\n", host,
           port);
}

static int tcp_listen(const struct endpoint *ep, int backlog) {
    struct addrinfo *list = tcp_addresses(ep, 1), *ai;
    int fd = -1, one = 1;
    for (ai = list; ai != NULL; ai = ai->ai_next) {
        fd = socket(ai->ai_family, ai->ai_socktype | SOCK_CLOEXEC, ai->ai_protocol);
        if (fd < 0) continue;
        /* A restarted service may bind again while old connections linger. */
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        if (bind(fd, ai->ai_addr, ai->ai_addrlen) == 0 && listen(fd, backlog) == 0) break;
        close(fd);
        fd = -1;
    }
    if (list != NULL && fd < 0) fprintf(stderr, "service: cannot listen on %s:%s: %s\n", ep->host, ep->port, strerror(errno));
    if (list != NULL) freeaddrinfo(list);
    if (fd >= 0) print_listening(fd);
    return fd;
}

int endpoint_listen(const struct endpoint *ep, int backlog) {
    struct sockaddr_un addr;
    int fd;
    if (ep->tcp) return tcp_listen(ep, backlog);
    unix_address(ep, &addr);
    /* Close-on-exec: a program this service starts must not inherit a
     * socket that clients authenticate it by. */
    fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    unlink(ep->path);
    if (fd < 0 || bind(fd, (struct sockaddr *)&addr, sizeof addr) != 0 || listen(fd, backlog) != 0) {
        fprintf(stderr, "service: cannot listen on %s: %s\n", ep->path, strerror(errno));
        if (fd >= 0) close(fd);
        return -1;
    }
    printf("service: listening on %s\n", ep->path);
    return fd;
}

static int tcp_connect(const struct endpoint *ep) {
    struct addrinfo *list = tcp_addresses(ep, 0), *ai;
    int fd = -1;
    for (ai = list; ai != NULL; ai = ai->ai_next) {
        fd = socket(ai->ai_family, ai->ai_socktype | SOCK_CLOEXEC, ai->ai_protocol);
        if (fd < 0) continue;
        if (connect(fd, ai->ai_addr, ai->ai_addrlen) == 0) break;
        close(fd);
        fd = -1;
    }
    if (list != NULL && fd < 0) fprintf(stderr, "client: cannot connect to %s:%s: %s\n", ep->host, ep->port, strerror(errno));
    if (list != NULL) freeaddrinfo(list);
    return fd;
}

int endpoint_connect(const struct endpoint *ep) {
    struct sockaddr_un addr;
    int fd;
    if (ep->tcp) return tcp_connect(ep);
    unix_address(ep, &addr);
    fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || connect(fd, (struct sockaddr *)&addr, sizeof addr) != 0) {
        fprintf(stderr, "client: cannot connect to %s: %s\n", ep->path, strerror(errno));
        if (fd >= 0) close(fd);
        return -1;
    }
    return fd;
}

unsigned int endpoint_socket_flags(const struct endpoint *ep) {
    return ep->tcp ? SEC_F_NETWORK_SOCKET : SEC_F_LOCAL_SOCKET | SEC_F_SOCKET_BOUND;
}
