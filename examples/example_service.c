/*
 * qvsec-example-service: accepts clients on a UNIX-domain socket (or a TCP
 * address) and, for each one, negotiates a mechanism, accepts its security
 * context, says who the client is, unseals its request and seals a reply.
 *
 *   qvsec-example-service [--socket PATH | --listen HOST:PORT] [--count N]
 *                         [--max-clients N] [--timeout SECONDS] [--cidb FILE]
 *                         [--service NAME]
 *
 * Clients are served in parallel by a fixed pool of --max-clients threads
 * (16 unless given). While every thread is busy, new connections wait in
 * the kernel's listen backlog, which costs the service nothing; the pool's
 * size bounds the threads, memory and descriptors the service spends at
 * once. Every frame has a deadline (--timeout, 5 seconds unless given): a
 * client that stalls, trickles its bytes or stops reading is dropped when
 * its time runs out, and its thread goes on to the next connection. A
 * refused client (bad framing, a length over the limit, failed
 * authentication) costs its own thread and connection, nothing more: no
 * other client waits for it beyond the pool being that one thread short
 * until the deadline. With --count N the service stops after N
 * connections, once all of them are done.
 *
 * With --service, the service logs in under NAME (sec_login_as_service):
 * mechanisms that address a service by name, such as "host", accept only
 * clients that asked for that name.
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
 * Over TCP (--listen) the "local" mechanism cannot vouch for anyone: it
 * trusts only what the kernel says about the other end of a UNIX-domain
 * socket. A TCP service needs a mechanism that works across hosts; the
 * service says so when a client's mechanism declines the network socket.
 *
 * The structure to copy: one sec_start for the process, its service token
 * shared by every thread (every routine of the library may be called from
 * several threads at once); per client, on its own thread and with its own
 * context, sec_reconcile_auth_methods, sec_setup_socket on the accepted
 * socket (the "local" mechanism checks the client against the kernel's view
 * of that socket), sec_receive_sec_context until it stops asking for more,
 * a look at the context's attributes (0 from sec_receive_sec_context does
 * not mean the client is authenticated), sec_get_client_identity,
 * sec_process_data / sec_prepare_data, and sec_end_context.
 */
#define _GNU_SOURCE /* accept4 */
#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "endpoint.h"
#include "failure.h"
#include "framing.h"

#define MAX_THREADS 1024

/* Set once in main, before any thread starts, then only read. */
static sec_token_t stoken = NULL;
static struct endpoint where;
static int listener = -1;
static int timeout_ms = 5000;
static const char *cidb_path = NULL; /* the CIDB path given with --cidb, or NULL */

/* The connections still to accept (--count); -1 for no end. */
static pthread_mutex_t count_lock = PTHREAD_MUTEX_INITIALIZER;
static long connections_left = -1;
/* One writer of the CIDB file at a time, so that it holds one client's whole. */
static pthread_mutex_t cidb_lock = PTHREAD_MUTEX_INITIALIZER;

/* Writes the client's identity as a CIDB to cidb_path. The file is created
 * readable by this user only (main sets the umask): a client's groups are
 * nobody else's business. */
static void write_cidb(sec_token_t ctx) {
    sec_status_desc st;
    sec_buffer_desc cidb = {0, NULL};
    FILE *f;
    qv_int32_t rc = sec_create_cidb(&st, SEC_F_CIDB_MAPPING, ctx, &cidb);
    if (rc != 0) {
        print_failure("sec_create_cidb", rc, &st);
        return;
    }
    pthread_mutex_lock(&cidb_lock);
    f = fopen(cidb_path, "wb");
    if (f == NULL || fwrite(cidb.value, 1, (size_t)cidb.length, f) != (size_t)cidb.length) perror(cidb_path);
    if (f != NULL && fclose(f) != 0) perror(cidb_path);
    pthread_mutex_unlock(&cidb_lock);
    sec_release_buffer(&cidb);
}

/* Tells the client why it is refused, and logs it: one line per refusal. */
static void refuse(int fd, const char *why) {
    fprintf(stderr, "service: refused a client: %s\n", why);
    send_frame(fd, timeout_ms, FRAME_REFUSED, why, (qv_int32_t)strlen(why));
}

/* Receives the frame of the expected type; anything else drops the client,
 * with a line that says why. */
static int expect_frame(int fd, int expected, sec_buffer_desc *frame) {
    int type, rc = recv_frame(fd, timeout_ms, &type, frame);
    if (rc == FRAME_OK && type == expected) return 0;
    if (rc == FRAME_OK) {
        refuse(fd, "unexpected frame");
    } else if (rc == FRAME_TOO_LONG) {
        refuse(fd, "frame too long");
    } else {
        fprintf(stderr, "service: dropped a client: %s\n", frame_status_text(rc));
    }
    sec_release_buffer(frame);
    return -1;
}

/* Why sec_receive_sec_context failed, as the client should hear it. */
static const char *refusal_reason(qv_int32_t rc, const sec_status_desc *st) {
    /* A mechanism that checks its peer through a UNIX-domain socket ("local")
     * declines a network socket with EAFNOSUPPORT. */
    if (where.tcp && rc == SEC_S_MPM_FAILURE && st->min_stat == EAFNOSUPPORT) {
        fprintf(stderr,
                "service: mechanism 0x%x cannot authenticate a client over TCP: it needs a UNIX-domain socket; "
                "TCP clients need a mechanism that works across hosts\n",
                st->mech_code);
        return "this mechanism cannot authenticate over TCP";
    }
    return "authentication failed";
}

/* Whether the shared list is "local" and nothing else: over TCP, such a
 * client cannot authenticate, and is better told at once. */
static int only_local(const sec_buffer_desc *shared) {
    char name[] = "local";
    sec_buffer_desc local = {0, NULL};
    qv_int32_t n = 0;
    int same;
    if (sec_create_mech_buffer(name, &n, &local) != 0) return 0;
    same = local.length == shared->length && memcmp(local.value, shared->value, (size_t)shared->length) == 0;
    sec_release_buffer(&local);
    return same;
}

/* Runs the context exchange; returns the accepted context or NULL. */
static sec_token_t accept_context(int fd) {
    sec_status_desc st;
    sec_token_t ctx = NULL;
    sec_buffer_desc offer, shared = {0, NULL};
    qv_int32_t rc;

    /* 1. The client's offer in, the mechanisms we share back. */
    if (expect_frame(fd, FRAME_OFFER, &offer) != 0) return NULL;
    rc = sec_reconcile_auth_methods(&offer, &shared);
    sec_release_buffer(&offer);
    if (rc != 0) {
        print_failure("sec_reconcile_auth_methods", rc, NULL);
        refuse(fd, "no mechanism in common");
        return NULL;
    }
    if (where.tcp && only_local(&shared)) {
        sec_release_buffer(&shared);
        refuse(fd, "the only mechanism in common, \"local\", cannot authenticate over TCP: "
                   "it needs a UNIX-domain socket");
        return NULL;
    }
    rc = send_frame(fd, timeout_ms, FRAME_SHARED, shared.value, shared.length);
    sec_release_buffer(&shared);
    if (rc != FRAME_OK) return NULL;

    /* 2. Hand the accepted socket to the library: it is already bound (or
     * a network socket, which the "local" mechanism will decline). */
    rc = sec_setup_socket(stoken, fd, endpoint_socket_flags(&where), NULL, &ctx);
    if (rc != 0) {
        print_failure("sec_setup_socket", rc, NULL);
        return NULL;
    }

    /* 3. Accept context-establishment data until the context is complete. */
    for (;;) {
        sec_buffer_desc c_ccdb, s_ccdb = {0, NULL};
        if (expect_frame(fd, FRAME_CCDB, &c_ccdb) != 0) {
            sec_end_context(&st, ctx, NULL);
            return NULL;
        }
        rc = sec_receive_sec_context(&st, stoken, &c_ccdb, &ctx, &s_ccdb);
        sec_release_buffer(&c_ccdb);
        if (s_ccdb.length > 0) send_frame(fd, timeout_ms, FRAME_CCDB, s_ccdb.value, s_ccdb.length);
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
            refuse(fd, "authentication required");
            sec_end_context(&st, ctx, NULL);
            return NULL;
        }
        /* The library has destroyed the context. */
        print_failure("sec_receive_sec_context", rc, &st);
        refuse(fd, refusal_reason(rc, &st));
        return NULL;
    }
}

static void serve(int fd) {
    sec_status_desc st;
    sec_buffer_desc request, plain = {0, NULL}, reply_plain, reply = {0, NULL};
    char *name = NULL, *mname = NULL, text[512];
    qv_int32_t rc;
    sec_token_t ctx = accept_context(fd);
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
    if (expect_frame(fd, FRAME_DATA, &request) == 0) {
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
                send_frame(fd, timeout_ms, FRAME_DATA, reply.value, reply.length);
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

/* Takes one of the connections still to accept; 0 when there are none. */
static int take_connection(void) {
    int ok;
    pthread_mutex_lock(&count_lock);
    ok = connections_left != 0;
    if (connections_left > 0) --connections_left;
    pthread_mutex_unlock(&count_lock);
    return ok;
}

static void give_back_connection(void) {
    pthread_mutex_lock(&count_lock);
    if (connections_left >= 0) ++connections_left;
    pthread_mutex_unlock(&count_lock);
}

/* One thread of the pool: accepts a connection, serves it, closes it, and
 * again, until --count connections have been taken. */
static void *worker(void *unused) {
    (void)unused;
    while (take_connection()) {
        int fd = accept4(listener, NULL, NULL, SOCK_CLOEXEC);
        if (fd < 0) {
            give_back_connection();
            /* Out of descriptors or memory: let other threads finish. */
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) usleep(100000);
            continue;
        }
        serve(fd);
        close(fd);
    }
    return NULL;
}

static int usage(void) {
    fprintf(stderr,
            "usage: qvsec-example-service [--socket PATH | --listen HOST:PORT] [--count N] [--max-clients N]\n"
            "                             [--timeout SECONDS] [--cidb FILE] [--service NAME]\n");
    return 2;
}

int main(int argc, char **argv) {
    const char *path = NULL, *listen_address = NULL, *service_name = NULL;
    long max_clients = 16, seconds = 5;
    pthread_t threads[MAX_THREADS];
    sec_status_desc st;
    int i, started = 0;
    qv_int32_t rc;

    for (i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--socket") == 0 && i + 1 < argc) {
            path = argv[++i];
        } else if (strcmp(argv[i], "--listen") == 0 && i + 1 < argc) {
            listen_address = argv[++i];
        } else if (strcmp(argv[i], "--cidb") == 0 && i + 1 < argc) {
            cidb_path = argv[++i];
        } else if (strcmp(argv[i], "--count") == 0 && i + 1 < argc) {
            connections_left = strtol(argv[++i], NULL, 10);
        } else if (strcmp(argv[i], "--max-clients") == 0 && i + 1 < argc) {
            max_clients = strtol(argv[++i], NULL, 10);
        } else if (strcmp(argv[i], "--timeout") == 0 && i + 1 < argc) {
            seconds = strtol(argv[++i], NULL, 10);
        } else if (strcmp(argv[i], "--service") == 0 && i + 1 < argc) {
            service_name = argv[++i];
        } else {
            return usage();
        }
    }
    if ((path != NULL && listen_address != NULL) || max_clients < 1 || max_clients > MAX_THREADS || seconds < 1 ||
        seconds > 3600)
        return usage();
    timeout_ms = (int)seconds * 1000;
    /* Line-buffered: the threads' lines come out whole and in time. */
    setvbuf(stdout, NULL, _IOLBF, 0);
    signal(SIGPIPE, SIG_IGN);
    if (cidb_path != NULL) umask(077);

    rc = endpoint_from_options(&where, path, listen_address, 1);
    if (rc != 0) return (int)rc;

    rc = sec_start(&st, 0, &stoken);
    if (rc != 0) {
        print_failure("sec_start", rc, &st);
        return 1;
    }
    if (service_name != NULL && (rc = sec_login_as_service(&st, (char *)service_name, stoken)) != 0) {
        print_failure("sec_login_as_service", rc, &st);
        sec_end(&st, 0, stoken);
        return 1;
    }
    /* A deep backlog: connections that arrive while the pool is busy wait
     * there rather than being refused. */
    listener = endpoint_listen(&where, SOMAXCONN);
    if (listener < 0) {
        sec_end(&st, 0, stoken);
        return 1;
    }

    for (i = 0; i < max_clients; ++i) {
        if (pthread_create(&threads[i], NULL, worker, NULL) != 0) break;
        ++started;
    }
    if (started == 0) {
        fprintf(stderr, "service: cannot start a thread\n");
    } else {
        for (i = 0; i < started; ++i) pthread_join(threads[i], NULL);
    }
    close(listener);
    if (!where.tcp) unlink(where.path);
    sec_end(&st, 0, stoken);
    return started == 0;
}
