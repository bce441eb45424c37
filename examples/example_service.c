/*
 * qvsec-example-service: accepts clients on a UNIX-domain socket and, for
 * each one, negotiates a mechanism, accepts its security context, says who
 * the client is, unseals its request and seals a reply.
 *
 *   qvsec-example-service [--socket PATH] [--count N] [--cidb FILE]
 *
 * With --cidb, each client's identity is also written to FILE as a CIDB
 * (network name, mapped name and groups; the last client's replaces the
 * one before), which `qvsec cidb show FILE` decodes and which another
 * process can turn back into an identity context with sec_create_id_context.
 *
 * By default it listens in a directory that only its user can write
 * ($XDG_RUNTIME_DIR, /run/qvsec for root, /tmp/qvsec-<uid>): a socket in a
 * directory anyone can write, such as /tmp, could be replaced by another
 * user's, and clients would talk to that one.
 *
 * The structure to copy: one sec_start for the process; per client,
 * sec_reconcile_auth_methods, sec_setup_socket on the accepted socket (the
 * "local" mechanism checks the client against the kernel's view of that
 * socket), sec_receive_sec_context until it stops asking for more, a look
 * at the context's attributes (0 from sec_receive_sec_context does not mean
 * the client is authenticated), sec_get_client_identity, sec_process_data /
 * sec_prepare_data, and sec_end_context.
 */
#define _GNU_SOURCE /* accept4 */
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "framing.h"

/* The CIDB path given with --cidb, or NULL. */
static const char *cidb_path = NULL;

/* Writes the client's identity as a CIDB to cidb_path. The file is created
 * readable by this user only: a client's groups are nobody else's business. */
static void write_cidb(sec_token_t ctx) {
    sec_status_desc st;
    sec_buffer_desc cidb = {0, NULL};
    FILE *f;
    qv_int32_t rc = sec_create_cidb(&st, SEC_F_CIDB_MAPPING, ctx, &cidb);
    if (rc != 0) {
        print_failure("sec_create_cidb", rc, &st);
        return;
    }
    umask(077);
    f = fopen(cidb_path, "wb");
    if (f == NULL || fwrite(cidb.value, 1, (size_t)cidb.length, f) != (size_t)cidb.length) perror(cidb_path);
    if (f != NULL && fclose(f) != 0) perror(cidb_path);
    sec_release_buffer(&cidb);
}

static void refuse(int fd, const char *why) { send_frame(fd, FRAME_REFUSED, why, (qv_int32_t)strlen(why)); }

/* Runs the context exchange; returns the accepted context or NULL. */
static sec_token_t accept_context(sec_token_t stoken, int fd) {
    sec_status_desc st;
    sec_token_t ctx = NULL;
    sec_buffer_desc offer, shared = {0, NULL};
    int type;
    qv_int32_t rc;

    /* 1. The client's offer in, the mechanisms we share back. */
    if (recv_frame(fd, &type, &offer) != 0 || type != FRAME_OFFER) {
        sec_release_buffer(&offer);
        return NULL;
    }
    rc = sec_reconcile_auth_methods(&offer, &shared);
    sec_release_buffer(&offer);
    if (rc != 0) {
        print_failure("sec_reconcile_auth_methods", rc, NULL);
        refuse(fd, "no mechanism in common");
        return NULL;
    }
    send_frame(fd, FRAME_SHARED, shared.value, shared.length);
    sec_release_buffer(&shared);

    /* 2. Hand the accepted socket to the library: it is already bound. */
    rc = sec_setup_socket(stoken, fd, SEC_F_LOCAL_SOCKET | SEC_F_SOCKET_BOUND, NULL, &ctx);
    if (rc != 0) {
        print_failure("sec_setup_socket", rc, NULL);
        return NULL;
    }

    /* 3. Accept context-establishment data until the context is complete. */
    for (;;) {
        sec_buffer_desc c_ccdb, s_ccdb = {0, NULL};
        if (recv_frame(fd, &type, &c_ccdb) != 0 || type != FRAME_CCDB) {
            sec_release_buffer(&c_ccdb);
            sec_end_context(&st, ctx, NULL);
            return NULL;
        }
        rc = sec_receive_sec_context(&st, stoken, &c_ccdb, &ctx, &s_ccdb);
        sec_release_buffer(&c_ccdb);
        if (s_ccdb.length > 0) send_frame(fd, FRAME_CCDB, s_ccdb.value, s_ccdb.length);
        sec_release_buffer(&s_ccdb);
        if (rc == SEC_S_CONTINUE) continue;
        if (rc == SEC_S_OK) {
            /* 0 means complete, not authenticated: a client that asks for an
             * unauthenticated context gets 0 too (unless QV_SEC_IMP_MECHS
             * rules those out). Its mechanism is then "none", and its flags
             * lack SEC_CTX_S_AUTHENTICATED. This service wants to know who
             * its clients are. */
            char mech[SEC_C_CTX_MPM_NAME_SIZE] = "";
            sec_get_ctx_attribute(&st, ctx, SEC_C_CTX_MPM_NAME, mech);
            if (strcmp(mech, "none") != 0) return ctx;
            fprintf(stderr, "service: refusing an unauthenticated client\n");
            refuse(fd, "authentication required");
            sec_end_context(&st, ctx, NULL);
            return NULL;
        }
        /* The library has destroyed the context. */
        print_failure("sec_receive_sec_context", rc, &st);
        refuse(fd, "authentication failed");
        return NULL;
    }
}

static void serve(sec_token_t stoken, int fd) {
    sec_status_desc st;
    sec_buffer_desc request, plain = {0, NULL}, reply_plain, reply = {0, NULL};
    char *name = NULL, *mname = NULL, text[512];
    int type;
    qv_int32_t rc;
    sec_token_t ctx = accept_context(stoken, fd);
    if (ctx == NULL) return;

    /* 4. Who is the client? Its network name and the local user it maps to. */
    rc = sec_get_client_identity(&st, ctx, &name, &mname, NULL);
    if (rc != 0) {
        print_failure("sec_get_client_identity", rc, &st);
    } else {
        printf("service: client authenticated as %s (local user %s)\n", name, mname ? mname : "-");
    }
    if (cidb_path != NULL) write_cidb(ctx);

    /* 5. Unseal the request, seal the reply. */
    if (recv_frame(fd, &type, &request) == 0 && type == FRAME_DATA) {
        rc = sec_process_data(&st, ctx, &request, &plain);
        if (rc != 0) {
            print_failure("sec_process_data", rc, &st);
        } else {
            printf("service: request: %.*s\n", (int)plain.length, (const char *)plain.value);
            snprintf(text, sizeof text, "hello %s, you said \"%.*s\"", name ? name : "stranger", (int)plain.length,
                     (const char *)plain.value);
            reply_plain.length = (qv_int32_t)strlen(text);
            reply_plain.value = text;
            rc = sec_prepare_data(&st, ctx, SEC_F_PROTECT_MODE2, &reply_plain, &reply);
            if (rc == 0) {
                send_frame(fd, FRAME_DATA, reply.value, reply.length);
            } else {
                print_failure("sec_prepare_data", rc, &st);
            }
        }
    }
    sec_release_buffer(&request);
    sec_release_buffer(&plain);
    sec_release_buffer(&reply);
    sec_release_name(name);
    sec_release_name(mname);
    sec_end_context(&st, ctx, NULL);
}

int main(int argc, char **argv) {
    char default_path[108];
    const char *path = NULL;
    long count = -1;
    sec_status_desc st;
    sec_token_t stoken = NULL;
    struct sockaddr_un addr;
    int listener, i;
    qv_int32_t rc;

    for (i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--socket") == 0 && i + 1 < argc) {
            path = argv[++i];
        } else if (strcmp(argv[i], "--cidb") == 0 && i + 1 < argc) {
            cidb_path = argv[++i];
        } else if (strcmp(argv[i], "--count") == 0 && i + 1 < argc) {
            count = strtol(argv[++i], NULL, 10);
        } else {
            fprintf(stderr, "usage: qvsec-example-service [--socket PATH] [--count N] [--cidb FILE]\n");
            return 2;
        }
    }
    signal(SIGPIPE, SIG_IGN);
    if (path == NULL) {
        if (example_socket_path(default_path, sizeof default_path, 1) != 0) return 1;
        path = default_path;
    }

    rc = sec_start(&st, 0, &stoken);
    if (rc != 0) {
        print_failure("sec_start", rc, &st);
        return 1;
    }

    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    if (strlen(path) >= sizeof addr.sun_path) {
        fprintf(stderr, "service: socket path too long\n");
        return 1;
    }
    strcpy(addr.sun_path, path);
    /* Close-on-exec: a program this service starts must not inherit a
     * socket that clients authenticate it by. */
    listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    unlink(path);
    if (listener < 0 || bind(listener, (struct sockaddr *)&addr, sizeof addr) != 0 || listen(listener, 8) != 0) {
        perror("service: socket");
        return 1;
    }
    printf("service: listening on %s\n", path);
    fflush(stdout);

    while (count != 0) {
        int fd = accept4(listener, NULL, NULL, SOCK_CLOEXEC);
        if (fd < 0) continue;
        serve(stoken, fd);
        close(fd);
        fflush(stdout);
        if (count > 0) --count;
    }
    close(listener);
    unlink(path);
    sec_end(&st, 0, stoken);
    return 0;
}
