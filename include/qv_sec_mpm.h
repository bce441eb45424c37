/*
 * qv_sec_mpm.h: the interface between libqv_sec and a mechanism module (MPM).
 *
 * A module is a shared object that implements one security mechanism. The
 * library loads it with dlopen(path, RTLD_NOW) on the first call into any of
 * its routines, calls mpm_init once, and never unloads it. Each routine is
 * looked up by name when first needed, so a module exports only the routines
 * its mechanism uses; a call to a routine the module lacks fails in the
 * library (return code 22), not in the module. mpm_init is the one routine
 * every module must export.
 *
 * The full contract (when each routine is called, what each status means,
 * who releases what) is share/doc/qvsec/writing-a-module.md.
 *
 * Rules for every routine but mpm_init:
 *  - The first argument points to the caller's minor status: store a
 *    mechanism-specific detail there (0 when there is none).
 *  - The result is the major status: 0 for success. The three
 *    context-establishment routines may return 1: the exchange must continue
 *    and the routine produced output for the peer. Any other value is a
 *    failure; the library copies it into the caller's status record with the
 *    routine's name and the mechanism code, and returns 3 to its caller
 *    (except the statuses 24, 34 and 36 noted below, passed on as they are).
 *  - Never return 2 for a failure of mpm_start_sec_context or of the first
 *    mpm_receive_sec_context: there 2 asks for an UNAUTHENTICATED context,
 *    and the application gets success (2 on the client, 0 on the service).
 *  - Several threads may be inside the module at once, in the same or in
 *    different routines: every routine must be thread-safe.
 *  - A thread may be cancelled inside a routine. Build the module with
 *    exceptions and unwind tables (-fexceptions -funwind-tables) so that the
 *    library's own clean-up runs when that happens.
 *  - Output buffers (sec_buffer_t outputs) are allocated by the module and
 *    released by the library through mpm_release_buffer, so the module picks
 *    the allocator; except mpm_process_data's output, which goes to the
 *    application and is released with free(): it must be malloc memory.
 *    Handles (void * tokens) are the module's own records: opaque to the
 *    library, created and freed by the module's routines.
 *  - Input buffers and strings belong to the library: read them during the
 *    call, never keep or free them.
 */
#ifndef QV_SEC_MPM_H
#define QV_SEC_MPM_H

#include <sys/uio.h>
#include "qv_types.h"
#include "qv_sec.h"

#ifdef __cplusplus
extern "C" {
#endif
#if defined(__GNUC__)
/* A module built with hidden visibility still exports its mpm_* routines. */
#pragma GCC visibility push(default)
#endif

/* Major statuses with a meaning for the library. */
#define MPM_S_COMPLETE        0u   /* success */
#define MPM_S_CONTINUE        1u   /* context establishment: send the output, expect more */
#define MPM_S_BUFFER_TOO_SMALL 6u  /* name routines: *length holds the size needed */
#define MPM_S_NO_SIGNATURE    24u  /* signing/verification: passed on as return code 24 */
#define MPM_S_BAD_SIGNATURE   34u  /* verification: passed on as return code 34 */
#define MPM_S_USER_NOT_VALID  36u  /* user validation: passed on as return code 36 */

/* Attribute of mpm_set_ctx_attribute: data points to the context's
 * sec_socket_info_s (descriptor, flags, bound path). */
#define MPM_ATTR_SOCKET_INFO 1u

/* Modes of mpm_create_id_context. */
#define MPM_IDCTX_FROM_CONTEXT 1u  /* in is the module's security context handle */
#define MPM_IDCTX_FROM_NAME    2u  /* in is the client's network name (char *) */

/* mpm_init: called once, right after the module is loaded, before any other
 * routine. Takes nothing, returns nothing; set up process-wide state here. A
 * module without it cannot be loaded. */
void mpm_init(void);

/* mpm_start: start the mechanism for one service token of the caller. flags
 * are the caller's sec_start flags. Store the module's own service handle in
 * *token; the library passes it back to every routine made for that service
 * and to mpm_end. */
qv_uint32_t mpm_start(qv_uint32_t *min_stat, qv_uint32_t flags, void **token);

/* mpm_end: end what mpm_start started; token is the handle it returned. The
 * module frees the handle. flags are the caller's sec_end flags. */
qv_uint32_t mpm_end(qv_uint32_t *min_stat, qv_uint32_t flags, void *token);

/* mpm_set_ctx_attribute: attach an attribute (attr, MPM_ATTR_*) to a context.
 * svc_tkn is the service handle; *ctx_tkn the context handle, NULL when the
 * context has none yet: the module may create it there. data belongs to the
 * library and lives as long as the context. */
qv_uint32_t mpm_set_ctx_attribute(qv_uint32_t *min_stat, void *svc_tkn, qv_uint32_t attr, void *data,
                                  void **ctx_tkn);

/* mpm_service_cleanup: drop what the service accumulated (credentials,
 * caches). Note the order: the handle comes before the flags. */
qv_uint32_t mpm_service_cleanup(qv_uint32_t *min_stat, void *token, qv_uint32_t flags);

/* mpm_start_sec_context: the client's first step. sec_token is the service
 * handle; trg_svc and trg_host name the target service and host (strings the
 * library owns). Note the order: flags come after the host. Create the
 * context handle in *ctx_token and put the bytes for the server in *cbuff
 * (allocated by the module, released by the library with
 * mpm_release_buffer). Return 1 when the server must answer before the
 * context is complete; then *cbuff must not be empty. */
qv_uint32_t mpm_start_sec_context(qv_uint32_t *min_stat, void *sec_token, char *trg_svc, char *trg_host,
                                  qv_uint32_t flags, void **ctx_token, sec_buffer_t cbuff);

/* mpm_get_target_name: the mechanism's name for service `service` on host
 * `host`. Write at most *length bytes (NUL included) into name and set
 * *length to the size of the answer; when name is too small, return
 * MPM_S_BUFFER_TOO_SMALL with *length the size needed. */
qv_uint32_t mpm_get_target_name(qv_uint32_t *min_stat, void *token, char *service, char *host,
                                qv_int32_t *length, char *name);

/* mpm_complete_sec_context: the client's later steps. sbuff holds the
 * server's bytes (the library's). token is the context handle. Return 0 when
 * the context is complete, 1 when another round is needed; put the bytes for
 * the server, if any, in *cbuff (module-allocated, released through
 * mpm_release_buffer). */
qv_uint32_t mpm_complete_sec_context(qv_uint32_t *min_stat, sec_buffer_t sbuff, void *token, sec_buffer_t cbuff);

/* mpm_get_ctx_lifetime: seconds the context stays valid, in *lifetime. */
qv_uint32_t mpm_get_ctx_lifetime(qv_uint32_t *min_stat, void *token, qv_int32_t *lifetime);

/* mpm_get_ctx_flags: the context's mechanism flags, in *flags. */
qv_uint32_t mpm_get_ctx_flags(qv_uint32_t *min_stat, void *token, qv_uint32_t *flags);

/* mpm_prepare_data: protect in (the library's bytes) for the peer into *out
 * (module-allocated, released through mpm_release_buffer). */
qv_uint32_t mpm_prepare_data(qv_uint32_t *min_stat, void *token, qv_uint32_t flags, sec_buffer_t in,
                             sec_buffer_t out);

/* mpm_process_data: check and unprotect what the peer's mpm_prepare_data
 * produced, into *out. *out is the application's buffer: fill it with malloc
 * memory (the application releases it with free(), never through
 * mpm_release_buffer), and leave it empty (length 0, value NULL) on failure. */
qv_uint32_t mpm_process_data(qv_uint32_t *min_stat, void *token, sec_buffer_t in, sec_buffer_t out);

/* mpm_end_context: free the context handle. It is not used again. Also
 * called after a failed establishment step, with whatever handle the module
 * left, possibly NULL. */
qv_uint32_t mpm_end_context(qv_uint32_t *min_stat, void *token);

/* mpm_login_as_service: acquire the credentials of service svc_name (the
 * library's string) for the service handle token. */
qv_uint32_t mpm_login_as_service(qv_uint32_t *min_stat, char *svc_name, void *token);

/* mpm_login_as_user: acquire the credentials of the user named in id with
 * the authenticator (both the library's). Note the order: the service handle
 * comes last. */
qv_uint32_t mpm_login_as_user(qv_uint32_t *min_stat, sec_buffer_t id, void *authenticator, qv_uint32_t flags,
                              void *token);

/* mpm_renew_identity: renew the service's credentials; *lifetime receives
 * their new lifetime in seconds. */
qv_uint32_t mpm_renew_identity(qv_uint32_t *min_stat, void *token, qv_int32_t *lifetime);

/* mpm_receive_sec_context: the server's step. svc_tkn is the service
 * handle, cbuff the client's bytes (the library's), *ctx_tkn the context
 * handle (NULL on the first round: create it). Put the answer, if any, in
 * *sbuff (module-allocated, released through mpm_release_buffer) and
 * mechanism flags in *rflags. Return 1 while the client must send more. */
qv_uint32_t mpm_receive_sec_context(qv_uint32_t *min_stat, void *svc_tkn, sec_buffer_t cbuff, void **ctx_tkn,
                                    sec_buffer_t sbuff, qv_uint32_t *rflags);

/* mpm_get_client_name, mpm_get_mapped_name, mpm_get_client_id: the client's
 * network name, its local (mapped) name and its mechanism-specific identity,
 * for a server-side context. Write at most *name_len bytes into name and set
 * *name_len to the size of the answer (names include their NUL; the id is
 * raw bytes). When name is too small, return MPM_S_BUFFER_TOO_SMALL with
 * *name_len the size needed; the library retries with that size. A mapped
 * name of length 0 means the client has no local identity. */
qv_uint32_t mpm_get_client_name(qv_uint32_t *min_stat, void *token, qv_int32_t *name_len, char *name);
qv_uint32_t mpm_get_mapped_name(qv_uint32_t *min_stat, void *token, qv_int32_t *name_len, char *name);
qv_uint32_t mpm_get_client_id(qv_uint32_t *min_stat, void *token, qv_int32_t *id_len, char *id);

/* mpm_release_buffer: free buff->value, which one of the module's routines
 * allocated, and set buff to length 0, value NULL. The library ignores both
 * statuses. */
qv_uint32_t mpm_release_buffer(qv_uint32_t *min_stat, sec_buffer_t buff);

/* mpm_create_id_context: an identity context handle in *id_ctx, from a
 * security context handle or a client name (flags, MPM_IDCTX_*). Freed with
 * mpm_end_context. */
qv_uint32_t mpm_create_id_context(qv_uint32_t *min_stat, qv_uint32_t flags, void *in, void **id_ctx);

/* mpm_sign_data_v: sign the count byte ranges of vector with the context
 * token into *signature (module-allocated, released through
 * mpm_release_buffer). MPM_S_NO_SIGNATURE is passed on to the caller. */
qv_uint32_t mpm_sign_data_v(qv_uint32_t *min_stat, void *token, qv_int32_t count, struct iovec *vector,
                            sec_buffer_t signature);

/* mpm_verify_data_v: check signature (the library's) over the count byte
 * ranges of vector. MPM_S_BAD_SIGNATURE for a signature that does not match
 * and MPM_S_NO_SIGNATURE are passed on to the caller. */
qv_uint32_t mpm_verify_data_v(qv_uint32_t *min_stat, void *token, sec_buffer_t signature, qv_int32_t count,
                              struct iovec *vector);

/* mpm_get_ctx_mpm: the mnemonic of the mechanism behind the context, copied
 * into mpm (room for 16 characters and the NUL). */
qv_uint32_t mpm_get_ctx_mpm(qv_uint32_t *min_stat, void *token, char *mpm);

/* mpm_user_valid: whether username is a valid user for the context's
 * mechanism: 0 yes, MPM_S_USER_NOT_VALID no (passed on as return code 36). */
qv_uint32_t mpm_user_valid(qv_uint32_t *min_stat, void *token, char *username);

/* mpm_explain_status (optional): words for people about one of this
 * module's own statuses. major and minor are a status that one of the
 * module's routines returned (the library passes them from a caller's status
 * record). Write into text, size bytes with the NUL, a short explanation:
 * what went wrong and what to do, e.g. "no socket was given to the
 * mechanism: call sec_setup_socket", without a trailing newline; cut it to
 * fit. Return 0 when text holds an explanation, any other value (text then
 * unused) for a status the module does not explain. Called like any other
 * routine (module loaded, entry read-locked), from any thread; it must not
 * fail for any pair of numbers. sec_explain_status calls it; a module without
 * it works unchanged, and its statuses are then shown as numbers only. */
qv_uint32_t mpm_explain_status(qv_uint32_t *min_stat, qv_uint32_t major, qv_uint32_t minor, char *text,
                               qv_int32_t size);

#if defined(__GNUC__)
#pragma GCC visibility pop
#endif
#ifdef __cplusplus
}
#endif
#endif /* QV_SEC_MPM_H */
