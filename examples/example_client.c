/*
 * qvsec-example-client: connects to the example service, establishes a
 * security context with it, sends a sealed request and prints the unsealed
 * reply.
 *
 *   qvsec-example-client [--socket PATH | --connect HOST:PORT] [--service NAME]
 *                        [--host NAME] [--service-user USER] [--timeout SECONDS] [MESSAGE]
 *
 * The client requires mutual authentication: the service must run as a user
 * allowed to serve NAME ("example" unless given): root, the client's own
 * user, or one the administrator listed for NAME (see the local mechanism's
 * README). With --service-user it must moreover run as USER. The default
 * socket is the service's default: see example_socket_path. Each answer
 * must arrive within --timeout seconds (60 unless given: a busy service
 * keeps new clients waiting until one of its threads is free).
 *
 * --host names the service's host to the mechanisms ("localhost" unless
 * given): the "host" mechanism asks its host's daemon for an assertion
 * addressed to NAME and accepts only that host's answer.
 *
 * Over TCP (--connect) the "local" mechanism declines: only a UNIX-domain
 * socket lets the kernel say who runs the other end. The client then says
 * that its mechanism cannot work over TCP; a TCP client needs a mechanism
 * that proves identity across hosts.
 *
 * The structure to copy: sec_start; sec_get_auth_methods and the service's
 * reconciled list; sec_setup_socket on the connected socket (so the "local"
 * mechanism can check the service too); sec_start_sec_context, then
 * sec_complete_sec_context with each answer until neither side needs more;
 * sec_prepare_data / sec_process_data; sec_end_context and sec_end.
 */
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "endpoint.h"
#include "failure.h"
#include "framing.h"

/* sec_start_sec_context flag of the local mechanism: the service's user must
 * be allowed to serve the target name. */
#define EXAMPLE_REQUIRE_MUTUAL 0x00000002u

static int timeout_ms = 60000;
static char *target_host = "localhost";

static int refused(int type, const sec_buffer_desc *frame) {
    if (type != FRAME_REFUSED) return 0;
    fprintf(stderr, "client: the service refused: %.*s\n", (int)frame->length, (const char *)frame->value);
    return 1;
}

/* Runs the context exchange; returns the established context or NULL. */
static sec_token_t establish(sec_token_t stoken, int fd, const struct endpoint *ep, char *service) {
    sec_status_desc st;
    sec_token_t ctx = NULL;
    sec_buffer_desc offer = {0, NULL}, shared, c_ccdb = {0, NULL};
    qv_int32_t count = 0, rc;
    int type;

    /* 1. Offer our mechanisms; the service answers with those we share. */
    rc = sec_get_auth_methods(&offer, &count);
    if (rc != 0) {
        print_failure("sec_get_auth_methods", rc, NULL);
        return NULL;
    }
    send_frame(fd, timeout_ms, FRAME_OFFER, offer.value, offer.length);
    sec_release_buffer(&offer);
    if (recv_frame(fd, timeout_ms, &type, &shared) != 0 || type != FRAME_SHARED) {
        if (!refused(type, &shared)) fprintf(stderr, "client: no answer to the offer\n");
        sec_release_buffer(&shared);
        return NULL;
    }

    /* 2. Our socket too, so the mechanism can check who the service is (or,
     * for a network socket, so that "local" knows to decline). */
    rc = sec_setup_socket(stoken, fd, endpoint_socket_flags(ep), NULL, &ctx);
    if (rc != 0) {
        print_failure("sec_setup_socket", rc, NULL);
        sec_release_buffer(&shared);
        return NULL;
    }

    /* 3. Start, then complete with each answer while either side needs more. */
    rc = sec_start_sec_context(&st, stoken, &shared, service, target_host, EXAMPLE_REQUIRE_MUTUAL, &ctx, &c_ccdb);
    sec_release_buffer(&shared);
    while (rc == SEC_S_CONTINUE || c_ccdb.length > 0) {
        sec_buffer_desc s_ccdb;
        if (c_ccdb.length > 0) send_frame(fd, timeout_ms, FRAME_CCDB, c_ccdb.value, c_ccdb.length);
        sec_release_buffer(&c_ccdb);
        if (rc != SEC_S_CONTINUE) break;
        if (recv_frame(fd, timeout_ms, &type, &s_ccdb) != 0 || type != FRAME_CCDB) {
            if (!refused(type, &s_ccdb)) fprintf(stderr, "client: the service closed the exchange\n");
            sec_release_buffer(&s_ccdb);
            sec_end_context(&st, ctx, NULL);
            return NULL;
        }
        rc = sec_complete_sec_context(&st, &s_ccdb, &ctx, &c_ccdb);
        sec_release_buffer(&s_ccdb);
    }
    if (rc == SEC_S_OK) return ctx;
    if (rc == SEC_S_UNAUTHENTICATED) {
        /* Nobody vouched for the service: do not send it anything secret. */
        fprintf(stderr, "client: the context is unauthenticated\n");
        sec_end_context(&st, ctx, NULL);
        return NULL;
    }
    print_failure("establishing the context", rc, &st);
    /* A mechanism that checks its peer through a UNIX-domain socket declines
     * a network socket with EAFNOSUPPORT: say so plainly. */
    if (ep->tcp && rc == SEC_S_MPM_FAILURE && st.min_stat == EAFNOSUPPORT)
        fprintf(stderr,
                "client: mechanism 0x%x cannot authenticate over TCP: it needs a UNIX-domain socket; "
                "use --socket, or configure a mechanism that works across hosts\n",
                st.mech_code);
    return NULL;
}

/* Who the service is, as the mechanism learned it; with expected_user, the
 * service must run as that user. 0 when it may be talked to. */
static int check_service(sec_token_t ctx, const char *expected_user) {
    sec_status_desc st;
    char *name = NULL, *user = NULL;
    int ok;
    qv_int32_t rc = sec_get_client_identity(&st, ctx, &name, &user, NULL);
    if (rc != 0) {
        print_failure("who is the service", rc, &st);
        return expected_user != NULL ? -1 : 0;
    }
    printf("client: the service runs as %s\n", name);
    ok = expected_user == NULL || (user != NULL && strcmp(user, expected_user) == 0);
    if (!ok) fprintf(stderr, "client: the service is not run by %s\n", expected_user);
    sec_release_name(name);
    sec_release_name(user);
    return ok ? 0 : -1;
}

static int usage(void) {
    fprintf(stderr,
            "usage: qvsec-example-client [--socket PATH | --connect HOST:PORT] [--service NAME]\n"
            "                            [--host NAME] [--service-user USER] [--timeout SECONDS] [MESSAGE]\n");
    return 2;
}

int main(int argc, char **argv) {
    const char *path = NULL, *connect_address = NULL, *expected_user = NULL;
    char *service = "example";
    const char *message = "what time is it?";
    struct endpoint ep;
    sec_status_desc st;
    sec_token_t stoken = NULL, ctx;
    sec_buffer_desc plain, sealed = {0, NULL}, answer, reply = {0, NULL};
    char mech[SEC_C_CTX_MPM_NAME_SIZE] = "";
    long seconds = 60;
    int fd, i, type, status = 1;
    qv_int32_t rc;

    for (i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--socket") == 0 && i + 1 < argc) {
            path = argv[++i];
        } else if (strcmp(argv[i], "--connect") == 0 && i + 1 < argc) {
            connect_address = argv[++i];
        } else if (strcmp(argv[i], "--service") == 0 && i + 1 < argc) {
            service = argv[++i];
        } else if (strcmp(argv[i], "--host") == 0 && i + 1 < argc) {
            target_host = argv[++i];
        } else if (strcmp(argv[i], "--service-user") == 0 && i + 1 < argc) {
            expected_user = argv[++i];
        } else if (strcmp(argv[i], "--timeout") == 0 && i + 1 < argc) {
            seconds = strtol(argv[++i], NULL, 10);
        } else if (argv[i][0] == '-') {
            return usage();
        } else {
            message = argv[i];
        }
    }
    if ((path != NULL && connect_address != NULL) || seconds < 1 || seconds > 3600) return usage();
    timeout_ms = (int)seconds * 1000;
    signal(SIGPIPE, SIG_IGN);
    rc = endpoint_from_options(&ep, path, connect_address, 0);
    if (rc != 0) return (int)rc;

    rc = sec_start(&st, 0, &stoken);
    if (rc != 0) {
        print_failure("sec_start", rc, &st);
        return 1;
    }
    fd = endpoint_connect(&ep);
    if (fd < 0) {
        sec_end(&st, 0, stoken);
        return 1;
    }

    ctx = establish(stoken, fd, &ep, service);
    if (ctx != NULL && check_service(ctx, expected_user) != 0) {
        sec_end_context(&st, ctx, NULL);
        ctx = NULL;
    }
    if (ctx != NULL) {
        sec_get_ctx_attribute(&st, ctx, SEC_C_CTX_MPM_NAME, mech);
        printf("client: context established with mechanism \"%s\"\n", mech);

        plain.length = (qv_int32_t)strlen(message);
        plain.value = (void *)message;
        rc = sec_prepare_data(&st, ctx, SEC_F_PROTECT_MODE2, &plain, &sealed);
        if (rc != 0) {
            print_failure("sec_prepare_data", rc, &st);
        } else if (send_frame(fd, timeout_ms, FRAME_DATA, sealed.value, sealed.length) != FRAME_OK) {
            fprintf(stderr, "client: cannot send the request (at most %u bytes sealed)\n", FRAME_MAX_LENGTH);
        } else {
            printf("client: sent a sealed request of %d bytes: %s\n", (int)sealed.length, message);
            if (recv_frame(fd, timeout_ms, &type, &answer) == 0 && type == FRAME_DATA) {
                rc = sec_process_data(&st, ctx, &answer, &reply);
                if (rc == 0) {
                    printf("client: reply: %.*s\n", (int)reply.length, (const char *)reply.value);
                    status = 0;
                } else {
                    print_failure("sec_process_data", rc, &st);
                }
            } else if (!refused(type, &answer)) {
                fprintf(stderr, "client: no reply\n");
            }
            sec_release_buffer(&answer);
        }
        sec_release_buffer(&sealed);
        sec_release_buffer(&reply);
        sec_end_context(&st, ctx, NULL);
    }
    close(fd);
    sec_end(&st, 0, stoken);
    return status;
}
