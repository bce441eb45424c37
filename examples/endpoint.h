/*
 * Where the example service listens and the example client connects: a
 * UNIX-domain socket (the default) or a TCP address.
 *
 * The "local" mechanism authenticates over a UNIX-domain socket only: the
 * kernel tells each end which user runs the other, and that is all the
 * mechanism trusts. Over TCP nobody vouches for the peer that way, so a
 * TCP connection needs a mechanism that proves identity across hosts.
 */
#ifndef QVSEC_EXAMPLE_ENDPOINT_H
#define QVSEC_EXAMPLE_ENDPOINT_H

#include <stddef.h>

struct endpoint {
    int tcp;            /* 0: the UNIX-domain socket at path; 1: TCP to host:port */
    char path[108];     /* the size of sun_path */
    char host[256];
    char port[32];
};

/* Sets ep to the UNIX-domain socket at path; -1 when the path is too long. */
int endpoint_unix(struct endpoint *ep, const char *path);
/* Sets ep to the TCP address "HOST:PORT" ("[ADDRESS]:PORT" for IPv6); -1,
 * with a message, when address is not of that form. */
int endpoint_tcp(struct endpoint *ep, const char *address);

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

/* The endpoint that the --socket PATH and --listen/--connect ADDRESS options
 * name (either may be NULL, not both given): TCP at tcp_address, the UNIX
 * socket at path, or the default socket (made with create, see
 * example_socket_path). 0, or 1 with a message for a path that does not fit,
 * 2 for a malformed address. */
int endpoint_from_options(struct endpoint *ep, const char *path, const char *tcp_address, int create);

/* A listening socket on ep (close-on-exec), with room for backlog waiting
 * connections; prints "service: listening on ..." with the address actually
 * bound (the port the system chose for port 0). -1, with a message, on
 * failure. */
int endpoint_listen(const struct endpoint *ep, int backlog);
/* A socket connected to ep (close-on-exec); -1, with a message, on failure. */
int endpoint_connect(const struct endpoint *ep);

/* The sec_setup_socket flags for a socket of ep: a UNIX-domain socket that is
 * already bound, or a network socket. */
unsigned int endpoint_socket_flags(const struct endpoint *ep);

#endif
