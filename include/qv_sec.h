/*
 * libqv_sec: authentication, security contexts, identities, access control
 * lists and message authentication for the services of a cluster and their
 * clients, over pluggable mechanism modules (MPMs).
 *
 * This header is the supported interface, grouped by task:
 *
 *   1. Starting and ending        service tokens (sec_start, sec_end)
 *   2. Negotiating and contexts   mechanism lists, sockets, security contexts
 *   3. Protection                 sealing data, signing data vectors
 *   4. Identities and groups      logins, client identities, CIDBs,
 *                                 identity contexts, group lookup
 *   5. ACLs                       entries, ACL buffers, access checks
 *   6. Message authentication     shared DES keys, message tokens
 *   7. Buffers and errors         typed buffers, releasing, messages
 *
 * The library's internal routines (sec__*), its global state SEC_STATE, the
 * records behind the opaque tokens and the lock routines are declared in
 * qv_sec_internal.h, for the library's own tools, tests and diagnostics.
 * Programs do not need it.
 *
 * Every routine returns a signed 32-bit code: 0 success, 1 the exchange must
 * continue, 2 the context is unauthenticated, larger values are failures
 * whose detail is in the calling thread's error record (qv_cu.h) and, for a
 * failure inside a mechanism module, in the status record.
 *
 * Threads and fork. Every routine may be called from several threads at
 * once, and a thread cancelled inside one releases the locks it holds; a
 * token that a cancelled call was building is left for the caller's clean-up
 * to end (sec_end, sec_end_context), which then ends what the modules made
 * for it. The library installs fork handlers: the child of a process whose
 * other threads were inside the library may go on using it. In the child,
 * start new service tokens with sec_start and build new contexts; a module
 * whose load another thread had under way is loaded again on first use.
 * Tokens inherited from the parent may be used or ended in the child only if
 * no other thread was using them at the fork (their mutexes and the
 * modules' own state would be as that thread left them). A module routine
 * must not call fork.
 */
#ifndef QV_SEC_H
#define QV_SEC_H

#include <pthread.h>
#include <stddef.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <time.h>
#include "qv_types.h"
#include "qv_sec_version.h"
#include "qv_cu.h"

#ifdef __cplusplus
extern "C" {
#endif
#if defined(__GNUC__)
#pragma GCC visibility push(default)
#endif

/* ==== Basic types, return codes and the status record ==== */

typedef void *sec_token_t;
typedef qv_int32_t sec_boolean_t;

/* ---- Return codes ---- */

#define SEC_S_OK                 0   /* success */
#define SEC_S_CONTINUE           1   /* the exchange must continue: send the output buffer */
#define SEC_S_UNAUTHENTICATED    2   /* the context is complete but unauthenticated */
#define SEC_S_MPM_FAILURE        3   /* a module routine failed: see the status record */
#define SEC_S_BAD_ARGUMENT       4
#define SEC_S_BAD_TOKEN          5   /* bad service, context or identity-context token */
#define SEC_S_NO_MEMORY          6
#define SEC_S_BAD_BUFFER         7
#define SEC_S_BAD_MECHANISM      8   /* bad or unknown mechanism code or mnemonic */
#define SEC_S_BAD_VERSION        9   /* bad buffer or ACL-entry version */
#define SEC_S_SOCKET             10
#define SEC_S_AUTH_ERROR         12
#define SEC_S_NO_ACL_ENTRIES     18
#define SEC_S_CONFIG             21  /* configuration file or environment */
#define SEC_S_BAD_MPM            22  /* a module cannot be used or broke the module protocol */
#define SEC_S_INTERNAL           23
#define SEC_S_MPM_NO_SIGNATURE   24  /* passed on from a module's signing routines */
#define SEC_S_CODESET            26  /* conversion to or from UTF-8 failed */
#define SEC_S_NOT_DES_KEY        27
#define SEC_S_MSG_VERIFY_FAILED  28  /* wrong key or wrong digest */
#define SEC_S_CRYPTO_FAILURE     29
#define SEC_S_AMBIGUOUS_CIDB     31
#define SEC_S_BAD_SIGNATURE      34  /* passed on from a module's verification */
#define SEC_S_USER_NOT_VALID     36  /* passed on from a module's user validation */
#define SEC_S_NO_PRIVSET         40

/* ---- Status record and buffers ---- */

/* What the last failing module routine reported. Every routine that takes one
 * zeroes it first. */
typedef struct sec_status_s {
    qv_uint32_t maj_stat;   /* the module routine's major status */
    qv_uint32_t min_stat;   /* its minor status */
    qv_uint32_t mech_code;  /* the mechanism whose routine failed */
    char desc[64];          /* the routine's name, e.g. "mpm_start_sec_context" */
} sec_status_desc, *sec_status_t;

/* A counted byte buffer. Buffers the library returns are the caller's, to be
 * released with sec_release_buffer. */
typedef struct sec_buffer_s {
    qv_int32_t length;
    void *value;
} sec_buffer_desc, *sec_buffer_t;

/* sec_version: the library's version as "MAJOR.MINOR.PATCH", the same text
 * as QV_SEC_VERSION of the header the library was built with. A program
 * compares the two to find that it runs against another release. */
const char *sec_version(void);

/* ==== 1. Starting and ending ====
 * A service or client process starts a service token with sec_start: the
 * token names the process to the mechanisms of the configuration file
 * (QV_SEC_CONFIG, see qvsec.cfg(5)). Every context is made under a service
 * token; sec_end ends the token and the mechanisms started for it. A
 * process usually starts one token and keeps it for its life. */

#define SEC_F_DEFER_MPM_START 0x20u  /* sec_start: start no module yet */

/* sec_start: creates a service token in *stokenp and starts the first
 * configured mechanism for it (unless flags has SEC_F_DEFER_MPM_START). A
 * first mechanism that fails to start leaves its detail in *st and still
 * returns 0. Release the token with sec_end. In secure-execution mode
 * (set-user-id, set-group-id, file capabilities) a configuration file or
 * module not owned by root or the effective user, or writable by its group
 * or others, is refused: code 21 for the file, 22 (2650-050, errno EPERM)
 * for a module. */
qv_int32_t sec_start(sec_status_t st, qv_uint32_t flags, sec_token_t *stokenp);

/* sec_end: ends every mechanism started for the token and frees it. A NULL
 * token is not an error. */
qv_int32_t sec_end(sec_status_t st, qv_uint32_t flags, sec_token_t stoken);

/* ==== 2. Negotiating and contexts ====
 * The client sends its offer (sec_get_auth_methods), the server keeps the
 * mechanisms it shares (sec_reconcile_auth_methods) and answers with them;
 * the client then builds a security context with the first one that works.
 * For the "local" mechanism both sides first call sec_setup_socket on the
 * connected UNIX-domain socket: without it the mechanism refuses every
 * client. A server receives 0 for a complete context whether or not its
 * client authenticated: check SEC_C_CTX_FLAGS or SEC_C_CTX_MPM_NAME before
 * trusting the client. */

/* ---- Mechanism negotiation ----
 * A mechanism is named on the wire by a 32-bit code and locally by a
 * mnemonic of at most 16 characters; code 0, "none", means no
 * authentication. QV_SEC_MECH names the client's preferred mechanism and
 * QV_SEC_IMP_MECHS the mechanisms the process allows. */

/* sec_get_auth_methods: the client's offer, a newly allocated mechanism list
 * in *mbuff (release with sec_release_buffer) with its count in *mcount. With
 * imposed mechanisms: the configured ones that are imposed, in file order.
 * Otherwise the preferred one first, then every configured one. */
qv_int32_t sec_get_auth_methods(sec_buffer_t mbuff, qv_int32_t *mcount);
/* sec_create_mech_buffer: a mechanism list from a string of mnemonics
 * separated by white space; an unknown mnemonic is an error (8). */
qv_int32_t sec_create_mech_buffer(char *mstring, qv_int32_t *mcount, sec_buffer_t mbuff);
/* Edit QV_SEC_IMP_MECHS in the process environment: add the list's
 * mechanisms, replace the value by them, or empty it. Edits are applied one
 * at a time, and the variable is replaced by a whole new string: threads
 * reading it meanwhile see the old value or the new one, never an unset or
 * partial one. */
qv_int32_t sec_add_imposed_mechs(sec_buffer_t mbuff);
qv_int32_t sec_set_imposed_mechs(sec_buffer_t mbuff);
qv_int32_t sec_clear_imposed_mechs(void);
/* sec_reconcile_auth_methods: server side; the client's offer in its order,
 * less the codes this server has not configured, in a newly allocated
 * *sh_mechs (possibly empty). An empty offer is refused (8). */
qv_int32_t sec_reconcile_auth_methods(sec_buffer_t cl_mechs, sec_buffer_t sh_mechs);

#define SEC_F_LOCAL_SOCKET   0x01000000u
#define SEC_F_NETWORK_SOCKET 0x02000000u
#define SEC_F_SOCKET_BOUND   0x10000000u

/* sec_setup_socket: a context token bound to sockfd, in *ctokenp. For a local
 * (UNIX-domain) socket that is not yet bound, arg is the directory prefix
 * (1 to 68 characters) of a unique path that the library binds. */
qv_int32_t sec_setup_socket(sec_token_t stoken, int sockfd, qv_uint32_t flags,
                            void *arg, sec_token_t *ctokenp);

/* Socket information of a context prepared by sec_setup_socket, as the
 * library hands it to a mechanism module (context attribute 1). */
typedef struct sec_socket_info_s {
    qv_int32_t fd;
    qv_uint32_t type;  /* the sec_setup_socket flags; 0x80000000: path bound by the library */
    char *path;        /* the bound path, owned */
} sec_socket_info_desc, *sec_socket_info_t;

/* ---- Security contexts ----
 * A client and a server build a context by exchanging CCDBs: the client
 * starts with sec_start_sec_context and feeds each answer of the server to
 * sec_complete_sec_context; the server hands each CCDB of the client to
 * sec_receive_sec_context. Return code 1 means: send the output CCDB (when
 * not empty) and wait for the peer's next one; 0 the context is complete; 2
 * (client only) complete but unauthenticated. An exchange has at most 255
 * rounds. A failure (above 2 on the client, above 1 on the server) destroys
 * the context and sets the caller's handle to NULL. */

#define SEC_C_NO_TOKEN NULL  /* *ctokenp of a context not yet made */


/* sec_start_sec_context: tries the mechanisms of the shared list smechs (from
 * sec_reconcile_auth_methods) in order; the first module that accepts gives
 * the first CCDB in *c_ccdb. *ctokenp is SEC_C_NO_TOKEN or a token from
 * sec_setup_socket. An empty list, or a module that asks for it, gives an
 * unauthenticated context (2) unless QV_SEC_IMP_MECHS is set, not empty and
 * lacks "none" (8). flags go to the module unchanged. */
qv_int32_t sec_start_sec_context(sec_status_t st, sec_token_t stoken, sec_buffer_t smechs, char *trg_svc,
                                 char *trg_host, qv_uint32_t flags, sec_token_t *ctokenp, sec_buffer_t c_ccdb);
/* sec_complete_sec_context: the client's next step with the server's answer
 * s_ccdb; *c_ccdb is the next CCDB for the server, empty when none. */
qv_int32_t sec_complete_sec_context(sec_status_t st, sec_buffer_t s_ccdb, sec_token_t *ctokenp,
                                    sec_buffer_t c_ccdb);
/* sec_receive_sec_context: the server's step with the client's CCDB c_ccdb;
 * *ctokenp is SEC_C_NO_TOKEN (or a token from sec_setup_socket) for the
 * first CCDB of a client. *s_ccdb is the answer, empty when none is to be
 * sent. Never returns 2: 0 means complete, NOT authenticated. A client that
 * asks for an unauthenticated context gets 0 too (unless the service refuses
 * them): before trusting the client, look at the context's attributes
 * (SEC_C_CTX_MPM_NAME is "none", SEC_C_CTX_FLAGS lacks 0x200). */
qv_int32_t sec_receive_sec_context(sec_status_t st, sec_token_t stoken, sec_buffer_t c_ccdb,
                                   sec_token_t *ctokenp, sec_buffer_t s_ccdb);

/* sec_get_ctx_attribute codes and what arg points to. */
#define SEC_C_CTX_LIFETIME 1u  /* qv_int32_t: seconds left; -1 unauthenticated */
#define SEC_C_CTX_FLAGS    2u  /* qv_uint32_t: the module's flags | 0x200; 0 unauthenticated */
#define SEC_C_CTX_NOTHING  3u  /* accepted; nothing is written */
#define SEC_C_CTX_MPM_NAME 4u  /* char[SEC_C_CTX_MPM_NAME_SIZE]: the mnemonic, "none" unauthenticated */
#define SEC_C_CTX_MPM_NAME_SIZE 17

/* Queries on a complete context. */
qv_int32_t sec_get_ctx_attribute(sec_status_t st, sec_token_t token, qv_uint32_t attr, void *arg);
/* A NULL lifetime is accepted and nothing is written. */
qv_int32_t sec_get_ctx_lifetime(sec_status_t st, sec_token_t ctoken, qv_int32_t *lifetime);
/* sec_end_context: ends the context (complete or not) and frees the token; a
 * socket file the library bound for it is removed. buff, when not NULL, is
 * released and emptied. A NULL token is not an error. */
qv_int32_t sec_end_context(sec_status_t st, sec_token_t ctoken, sec_buffer_t buff);

/* ==== 3. Protection ====
 * A complete, authenticated security context seals data for its peer
 * (sec_prepare_data, opened by sec_process_data on the other side) and
 * signs data vectors (sec_sign_data_v, checked by sec_verify_data_v). */

/* sec_prepare_data protection modes: exactly one must be given; their
 * meaning belongs to the module. */
#define SEC_F_PROTECT_MODE1 0x00100000u
#define SEC_F_PROTECT_MODE2 0x00200000u

/* sec_prepare_data: seals in into a newly allocated seal buffer *out (type
 * 0x86) with the context's module; authenticated contexts only. Input whose
 * seal could not fit a buffer's 32-bit length is refused (code 7) before the
 * module is called; module output too long for the header, likewise after
 * it. */
qv_int32_t sec_prepare_data(sec_status_t st, sec_token_t ctoken, qv_uint32_t flags, sec_buffer_t in,
                            sec_buffer_t out);
/* sec_process_data: opens a seal buffer made by the peer's context. */
qv_int32_t sec_process_data(sec_status_t st, sec_token_t ctoken, sec_buffer_t in, sec_buffer_t out);

/* ---- Signing data vectors ----
 * An authenticated security context signs a vector of buffers through its
 * mechanism; the peer verifies the signature with its own context. The
 * signature is a seal buffer (type 0x86, the context's version, the
 * mechanism code, then the mechanism's signature bytes). An element with
 * iov_len 0 may have a NULL iov_base. */

/* sec_sign_data_v: the signature of the count elements of vector in
 * *signature (release with sec_release_buffer); count 0 gives success and an
 * empty signature. Returns 0; 4; 5 (not a security context); 7 (an element
 * with a length and a NULL base); 12 (unauthenticated); 6; 23; or the
 * mechanism's failure (3, or 24 passed on). On failure *signature is empty
 * once the arguments have been accepted. */
qv_int32_t sec_sign_data_v(sec_status_t st, sec_token_t context, qv_int32_t count, struct iovec *vector,
                           sec_buffer_t signature);

/* sec_verify_data_v: checks the peer's signature (only read) over the count
 * elements of vector. Returns 0; 4; 5; 7 (a bad element, an empty signature
 * or one that is not a seal buffer); 8 (made by another mechanism); 12; 6;
 * 23; or the mechanism's failure (3, or 24 and 34 passed on: 34 means the
 * signature does not match). */
qv_int32_t sec_verify_data_v(sec_status_t st, sec_token_t context, sec_buffer_t signature, qv_int32_t count,
                             struct iovec *vector);

/* ==== 4. Identities and groups ====
 * A service logs in under its own name; a server learns its client's
 * network name, mapped local name and groups from the context, can carry
 * the client's identity to another process as a CIDB, and can rebuild it
 * there as an identity context. */

/* ---- Service identity and the client's identity ---- */

/* sec_login_as_service: records svc_name in the service token and logs the
 * service in to every configured mechanism, starting each for the token when
 * needed. Succeeds when one mechanism succeeds; otherwise gives the first
 * mechanism's failure. A service token logs in once (a second call is 5). */
qv_int32_t sec_login_as_service(sec_status_t st, char *svc_name, sec_token_t stoken);

/* sec_renew_identity: refreshes the service's identity in every configured
 * mechanism for ltime (0: nothing to do), logging the service in first where
 * it has not yet been. Succeeds when one mechanism succeeds. */
qv_int32_t sec_renew_identity(sec_status_t st, time_t ltime, sec_token_t stoken);

/* sec_login_as_user: logs in as the user of the typed identity buffer id
 * (type 0x83, version 1 or 2) through the mechanism the buffer names;
 * authenticator and flags go to that mechanism untouched. */
qv_int32_t sec_login_as_user(sec_status_t st, sec_token_t stoken, sec_buffer_t id, void *authenticator,
                             qv_uint32_t flags);

/* sec_get_client_identity: from an authenticated security context or an
 * identity context, any of: the client's network name (*name), its mapped
 * local name (*mname, NULL when it has none) and its typed id buffer (type
 * 0x83 version 2: mechanism code, then the mechanism's id bytes; security
 * contexts only). NULL pointers ask for nothing. Names are released with
 * sec_release_name, the buffer with sec_release_buffer. On failure every
 * output is NULL or empty. */
qv_int32_t sec_get_client_identity(sec_status_t st, sec_token_t ctoken, qv_char_t **name, qv_char_t **mname,
                                   sec_buffer_t id);

/* ---- Identity mapping hook ---- */

/* The groups of the local user named by mapped_name. The library's default
 * answers from the system's group database; a program replaces it by
 * defining its own function of this name. */
int sec_idm_get_groups(sec_buffer_t mapped_name, int *gcount, sec_buffer_t *groups);

/* ---- Portable identities: UTF-8 names and CIDBs ---- */


/* Caller flags of sec_create_cidb. */
#define SEC_F_CIDB_MAPPING     0x00000001u  /* also record the mapped name and the groups */
#define SEC_F_CIDB_HOST_LOCAL  0x00000400u  /* usable only on this host (security contexts) */

/* Flags inside a CIDB. */
#define SEC_CIDB_F_AUTHENTICATED 0x00000200u  /* a network name follows */
#define SEC_CIDB_F_HOST_LOCAL    0x00000400u  /* valid only on the host of the node ID */
#define SEC_CIDB_F_MAPPING       0x00400000u  /* the mapped name (and groups) follow */


/* sec_create_cidb: the client's identity of a complete security or identity
 * context as a CIDB in *cidb (release with sec_release_buffer); flags are
 * SEC_F_CIDB_*. An unauthenticated context gives the 18-byte CIDB of
 * mechanism 0. Returns 0; 4; 5 (2650-061); 22; 23; 6; 3 or the failure of
 * sec_idm_get_groups or of the UTF-8 conversion. On failure *cidb is empty. */
qv_int32_t sec_create_cidb(sec_status_t st, qv_uint32_t flags, sec_token_t token, sec_buffer_t cidb);

/* Flags of sec_create_id_context: exactly one of the first two, at most one
 * of the last two. */
#define SEC_F_IDCTX_SECCTX    0x00000001u  /* in is a security context token */
#define SEC_F_IDCTX_CIDB      0x00000002u  /* in is a sec_buffer_t holding a CIDB */
#define SEC_F_IDCTX_FORCE_MAP 0x00000010u  /* ask the module for the mapped name even when the CIDB has one */
#define SEC_F_IDCTX_NO_MAP    0x00000020u  /* do not ask the module for a mapped name */

/* sec_create_id_context: a new identity context in *context (end it with
 * sec_end_context) for the client of a complete security context or of a
 * CIDB, under the started service token stoken. A host-local CIDB is
 * accepted only on the host that made it. Returns 0; 4; 5; 6; 7 (a bad
 * CIDB); 8 (no module for the CIDB's mechanism); 21; 22; 23; 31 (host-local
 * CIDB from another host, 2650-087); 3; or the failure of
 * sec_idm_get_groups or of the UTF-8 conversion. On failure nothing is
 * handed out and the module's identity context, if made, is ended. */
qv_int32_t sec_create_id_context(sec_status_t st, sec_token_t stoken, qv_uint32_t flags, void *in,
                                 sec_token_t *context);

/* sec_get_client_groups: copies the groups of identity context `context`
 * into the caller's array `buffer`, whose size in bytes is *count (one
 * sec_buffer_desc per group). On success *count is the number stored (groups
 * without a name are skipped), *groups is buffer, and each element's value is
 * a malloc'ed copy the caller frees. When buffer is too small, or *count is
 * 0 (even for no groups), returns 6 (2650-064) with *count the bytes needed.
 * Also 4, 5 (2650-061, 2650-063 for a security context), 40 (2650-065:
 * no privilege set, *count 0) and 6 (2650-032). Takes no status record. */
qv_int32_t sec_get_client_groups(sec_token_t context, char *buffer, qv_int32_t *count, sec_buffer_t *groups);

/* sec_user_valid: asks the mechanism of identity context `context` whether
 * the local user `username` is valid for its client: 0 yes, 36 no, 3 the
 * module failed (both with st from the module). Also 4, 5 (2650-061,
 * 2650-063), 12 (2650-022: unauthenticated) and 23 (2650-023). */
qv_int32_t sec_user_valid(sec_status_t st, sec_token_t context, char *username);

/* ==== 5. ACLs ==== */

/* ---- Access control lists ----
 * An ACL is a flat byte buffer that the service stores itself: a 16-byte
 * head, then sub-ACLs, one per pair of entry type and mechanism code, in the
 * order in which the pairs were first used; each sub-ACL is a 20-byte head
 * followed by its entries in ascending order of identifier. Every integer is
 * big-endian. Entries of types 3 and 4 carry a NUL-terminated identifier
 * (16 + n + 1 bytes for n characters, the last two zero); entries of other
 * types are 16 bytes and carry none, so such a sub-ACL holds one entry. The
 * meaning of types (other than that) and of permission bits is the
 * service's. The structures below describe the bytes; read the fields as
 * big-endian bytes, never as host integers. */

#define SEC_ACL_HEAD_MAGIC    0xB0BC0DE1u
#define SEC_SUBACL_HEAD_MAGIC 0xB0BC0DE2u
#define SEC_ACL_VERSION       1u
#define SEC_ACL_HEAD_LEN      16
#define SEC_SUBACL_HEAD_LEN   20
#define SEC_ACLE_HEAD_LEN     16  /* an entry without identifier */

/* One ACL entry, the same bytes alone, in an entry list and in an ACL. */
typedef struct sec_acle_s {
    unsigned char length[4];  /* total size of the entry, this header included */
    unsigned char mech[4];    /* mechanism code */
    unsigned char perm[4];    /* permission bits */
    unsigned char type[2];    /* entry type */
    char id[2];               /* identifier and its NUL (types 3 and 4), then padding */
} sec_acle_desc, *sec_acle_t;

/* Entries back to back. */
typedef struct sec_acle_list_s {
    qv_uint32_t count;     /* number of entries */
    qv_uint32_t length;    /* total bytes at elements */
    sec_acle_t elements;
} sec_acle_list_desc, *sec_acle_list_t;

/* An ACL buffer: length and value, owned by the caller, released with
 * sec_release_acl. An empty buffer (length 0 or value NULL) is an ACL
 * without entries. */
typedef sec_buffer_desc sec_acl_buffer_desc;
typedef sec_buffer_t sec_acl_buffer_t;

/* The head at offset 0, and the head of each sub-ACL. */
typedef struct sec_acl_head_s {
    unsigned char sah_magic[4];     /* SEC_ACL_HEAD_MAGIC */
    unsigned char sah_startoff[4];  /* 16, or 0 when there is no sub-ACL */
    unsigned char sah_version[4];   /* 1 */
    unsigned char sah_count[4];     /* entries in all sub-ACLs (signed) */
} sec_acl_head_desc, *sec_acl_head_t;

typedef struct sec_subacl_head_s {
    unsigned char ssh_magic[4];     /* SEC_SUBACL_HEAD_MAGIC */
    unsigned char ssh_type[4];      /* entry type in the first two bytes, then two zero bytes */
    unsigned char ssh_mech[4];      /* mechanism code */
    unsigned char ssh_nextoff[4];   /* from this head to the next; 0 for the last sub-ACL */
    unsigned char ssh_count[4];     /* entries of this sub-ACL (signed) */
} sec_subacl_head_desc, *sec_subacl_head_t;

/* Failures of the ACL routines: 4 (2650-031 naming the routine, the
 * argument's position and its value), 6 (no memory: 2650-032 naming the
 * routine and the size; or an ACL whose magic or structure is damaged:
 * 2650-038), 18 (2650-035: the entry to delete is not there), 23 (2650-033:
 * the stored sub-ACL holds one identifier twice). */

/* sec_create_acle: a new entry in *acle (release with sec_release_acle). id is
 * copied for types 3 and 4, where it must not be NULL or empty, and ignored
 * for other types. A type above 0xffff is refused (position 3). */
qv_int32_t sec_create_acle(qv_uint32_t mech, qv_uint32_t perm, qv_uint32_t type, char *id, sec_acle_t *acle);

/* sec_display_acle_id: a heap copy of the entry's identifier in *id (length
 * counts the NUL; release with sec_release_buffer). An entry with an empty
 * identifier is refused (position 1). */
qv_int32_t sec_display_acle_id(sec_acle_t entry, sec_buffer_t id);

/* sec_release_acle: frees *entry and sets it NULL. Its failures name
 * "sec_del_acle_from_acl", as programs expect. */
qv_int32_t sec_release_acle(sec_acle_t *entry);

/* sec_create_acl_from_data: a heap copy of the length bytes at data in *acl
 * (length 0: an empty ACL); the bytes are not checked here, but by every
 * routine that reads them. */
qv_int32_t sec_create_acl_from_data(qv_int32_t length, void *data, sec_acl_buffer_t acl);

/* sec_add_acle_to_acl / sec_del_acle_from_acl: add the entry (an entry with
 * the same identifier is replaced) to, or remove the entry with its
 * identifier from, the sub-ACL of its type and mechanism; a new sub-ACL is
 * appended. The caller's buffer is replaced by a new one on success and left
 * exactly as it was on failure. With release = 1 the entry is freed after a
 * successful change. A sub-ACL stored out of order is sorted by the change.
 * An edit costs one pass over the buffer (a sort for a sub-ACL stored out of
 * order). */
qv_int32_t sec_add_acle_to_acl(sec_acle_t acle, sec_boolean_t release, sec_acl_buffer_t acl);
qv_int32_t sec_del_acle_from_acl(sec_acle_t acle, sec_boolean_t release, sec_acl_buffer_t acl);

/* sec_release_acl: checks the head's magic (6, 2650-038, when wrong), wipes
 * and frees the buffer and empties the record. An empty buffer is not an
 * error. */
qv_int32_t sec_release_acl(sec_acl_buffer_t acl);

/* sec_release_acle_list: frees the list's elements and the list, and sets
 * *list NULL. Always 0. */
qv_int32_t sec_release_acle_list(sec_acle_list_t *list);

/* ---- Permission verification ---- */

/* sec_sec_verify_perm_from_ctx / sec_sec_verify_perm_from_cab: placeholders
 * kept for the programs that call them; they never grant anything. They
 * check their arguments (4, 2650-031; from_cab reports cab as position 4,
 * acl 5, result 6 and mod 7), accept only a context token that is NOT
 * complete (a complete one is 4, 2650-003), and for an empty ACL or one whose
 * magic is right set *result and *mod to 0 and return 0; another ACL is 23,
 * 2650-038. perm is not examined. from_cab reads the ACL from its declared
 * fifth parameter, acl: perm is an integer and cannot hold a buffer. Use
 * sec_check_acl_access to decide access. */
qv_int32_t sec_sec_verify_perm_from_ctx(sec_status_t st, sec_token_t ctx, qv_uint32_t perm, sec_acl_buffer_t acl,
                                        sec_boolean_t *result, sec_boolean_t *mod);
qv_int32_t sec_sec_verify_perm_from_cab(sec_status_t st, sec_token_t ctx, sec_buffer_t cab, qv_uint32_t perm,
                                        sec_acl_buffer_t acl, sec_boolean_t *result, sec_boolean_t *mod);

/* ---- Access checks ----
 * Which of the requested permission bits an ACL grants a client: the union
 * of the bits of every entry that matches it, nothing by default. The
 * service says which entry types mean what (-1: the service has no such
 * entries). Matching, for a client of mechanism m:
 *   network_name  entries of m whose identifier is the client's network name;
 *   mapped_name   entries of m whose identifier is its mapped local name;
 *   group         entries of m whose identifier is one of its groups;
 *   authenticated the entry of m: any authenticated client of m;
 *   anyone        the entry of m, and the entry of mechanism 0 ("none"),
 *                 which applies to every client.
 * An unauthenticated client (mechanism 0) is matched by the anyone entry of
 * mechanism 0 alone, never by entries meant for authenticated clients. The
 * three identifier kinds must be types 3 or 4 (only those carry an
 * identifier), the two others any other type, and no two kinds may share a
 * type. Identifiers compare exactly, byte for byte. */
typedef struct sec_acl_types_s {
    qv_int32_t network_name;
    qv_int32_t mapped_name;
    qv_int32_t group;
    qv_int32_t authenticated;
    qv_int32_t anyone;
} sec_acl_types_desc, *sec_acl_types_t;

/* The types used when a service passes NULL: 3 a network name, 4 a group,
 * 1 any authenticated client, 2 anyone; no mapped-name entries. */
#define SEC_ACL_TYPES_DEFAULT {3, -1, 4, 1, 2}

/* A client as the check sees it. */
typedef struct sec_acl_client_s {
    qv_uint32_t mech;             /* its mechanism; 0 for an unauthenticated client */
    const char *name;             /* network name; NULL when unauthenticated */
    const char *mname;            /* mapped local name, NULL when none */
    qv_int32_t gcount;            /* groups of the mapped name */
    const char *const *groups;
} sec_acl_client_desc, *sec_acl_client_t;

/* sec_check_acl_access: *granted = the bits of requested that acl grants the
 * client of ctx, a complete security or identity context (the identity and
 * groups of an identity context; the network name, mapped name and its
 * groups of a security context, asked of its mechanism). types NULL: the
 * default above. A check reads the sub-ACL heads and, with a binary search,
 * O(log n) entries of each matching sub-ACL, so it relies on the order the
 * editing routines keep: an ACL stored out of order (bytes from elsewhere
 * never edited here) may have entries missed, never matched wrongly.
 * Returns 0; 4 (2650-031: a NULL argument, or types that break the rules
 * above: position 4); 5 (2650-003: not a complete context); 7 (2650-038: a
 * damaged ACL: its heads, for every client, or an entry the search reads); 6;
 * or the mechanism's failure (3) when asking it for a name. *granted is 0 on
 * failure. */
qv_int32_t sec_check_acl_access(sec_status_t st, sec_token_t ctx, sec_acl_buffer_t acl,
                                const sec_acl_types_desc *types, qv_uint32_t requested, qv_uint32_t *granted);

/* sec_check_acl_client: the same check for a client described by the caller
 * (a client whose identity was learnt otherwise, or an administrator's
 * question). Returns 0, 4 (acl, client, granted NULL: positions 1, 3, 5;
 * types: position 2; a client of mechanism 0 with a name, or one of another
 * mechanism without: position 3) or 7. */
qv_int32_t sec_check_acl_client(sec_acl_buffer_t acl, const sec_acl_types_desc *types,
                                const sec_acl_client_desc *client, qv_uint32_t requested, qv_uint32_t *granted);

/* ==== 6. Message authentication ==== */

/* ---- Message authentication ----
 * Two processes that share a DES key authenticate messages without any
 * module or context. The token of a message is its MD5 digest followed by
 * the key, enciphered with single DES in CBC mode under the key and the
 * fixed IV sec_c_des_iv. These routines neither initialise the library, nor
 * trace, nor lock; the buffers they return are released with free(). */

#define SEC_F_MSG_DIGEST    0x00100000u  /* compute or check the token */
#define SEC_F_MSG_NO_DIGEST 0x00200000u  /* do nothing and succeed */

#define SEC_DES_KEY_LEN   8   /* a key buffer: the raw key bytes, odd parity */
#define SEC_MSG_TOKEN_LEN 24  /* an authentication token */

/* The fixed initialisation vector of the token's CBC chain, c35a917ec35a917e. */
extern const unsigned char sec_c_des_iv[SEC_DES_KEY_LEN];

/* sec_generate_key: a new random DES key with odd parity that is neither weak
 * nor semi-weak, in a newly malloc'ed key->value (free it with free) with
 * key->length 8. Returns 0, 4 when key is NULL, or 6 (key->value NULL,
 * key->length unchanged). */
qv_int32_t sec_generate_key(sec_buffer_t key);

/* sec_prepare_message: with SEC_F_MSG_DIGEST, the 24-byte token of the
 * message in, in a newly malloc'ed out->value (free it with free); an empty
 * message or SEC_F_MSG_NO_DIGEST gives success and out empty (length 0, value
 * NULL). Exactly one of the two flags must be set. Returns 0; 4 for a NULL
 * argument, bad flags or a malformed message buffer; 27 when key is not an
 * 8-byte odd-parity key; 6; 29 when the cipher fails. On failure out is
 * empty. */
qv_int32_t sec_prepare_message(sec_buffer_t key, qv_uint32_t flags, sec_buffer_t in, sec_buffer_t out);

/* sec_process_message: with SEC_F_MSG_DIGEST, checks the token inout (only
 * read) against the message in and the key. An empty message or
 * SEC_F_MSG_NO_DIGEST succeeds without reading inout. Returns 0; 4 (as
 * sec_prepare_message, and naming it); 27; 7 when the token is not 24 bytes;
 * 28 when the token was made with another key (2650-048) or for another
 * message (2650-049); 29. */
qv_int32_t sec_process_message(sec_buffer_t key, qv_uint32_t flags, sec_buffer_t in, sec_buffer_t inout);

/* ==== 7. Buffers and errors ====
 * Every buffer that the library hands out is the caller's: release it with
 * the routine named beside the call that made it (usually
 * sec_release_buffer). A failing routine leaves its message in the calling
 * thread's error record: read it with cu_get_error_1 and cu_get_errmsg_1
 * (qv_cu.h). */

/* ---- Typed buffers ----
 * Every buffer that goes to a peer starts with a type byte and a version
 * byte; buffers that carry module data go on with the 4-byte big-endian
 * mechanism code; a version-2 CCDB adds a sequence byte and a flags byte. */

#define SEC_BUF_MECH_LIST 0x81  /* mechanism list */
#define SEC_BUF_CCDB      0x82  /* context-establishment data */
#define SEC_BUF_TYPED_ID  0x83  /* typed identity buffer */
#define SEC_BUF_SEAL      0x86  /* sealed data and signatures */
#define SEC_BUF_CIDB      0x87  /* portable client identity */

#define SEC_CCDB_F_CONTINUE 0x01  /* the sender's own context still needs data */

/* sec_release_name: frees a name the library returned (NULL allowed). */
qv_int32_t sec_release_name(char *name);

/* sec_release_buffer: wipes and frees a buffer's value (the whole block,
 * whatever its length says) and empties the record (NULL allowed). Always 0. */
qv_int32_t sec_release_buffer(sec_buffer_t buff);

/* ntohl64 / htonl64: a 64-bit value between big-endian and host order. */
qv_uint64_t ntohl64(qv_uint64_t v);
qv_uint64_t htonl64(qv_uint64_t v);

/* ---- Explaining failures ----
 * Words for people: what a return code, a message or a mechanism's status
 * means, its usual causes and what to check, for logs and tools. The text is
 * English, several lines, and may change between releases: do not parse it.
 * *text receives a NUL-terminated string (length without the NUL), released
 * with sec_release_buffer. Apart from their own argument errors, both leave
 * the calling thread's error record as it was, so a failure can be explained
 * before or after its message is read. */

/* sec_explain_status: explains return code rc and, when st is not NULL and
 * holds a failure of a module routine (maj_stat above 1), the module's
 * status, in the mechanism's own words where its module provides them
 * (mpm_explain_status in qv_sec_mpm.h; the module is loaded if needed).
 * Returns 0, 4 (2650-060: rc is not a return code of the library, position
 * 1; text NULL, position 3) or 6. */
qv_int32_t sec_explain_status(qv_int32_t rc, const sec_status_desc *st, sec_buffer_t text);

/* sec_explain_message: explains the message with catalogue number number
 * (cu_msg_num of the error record) and the return code it comes with.
 * Returns 0, 4 (2650-060: a number the library does not issue, position 1;
 * text NULL, position 2) or 6. */
qv_int32_t sec_explain_message(qv_int32_t number, sec_buffer_t text);

/* ---- Error messages ---- */

/* The default texts of the library's messages, indexed by message number
 * (catalogue "qvsec.cat", set 1). */
#define SEC_MSG_COUNT 79
extern const char *cu_mesgtbl_qvsec_msg[SEC_MSG_COUNT];
extern const char cu_badid_qvsec_msg[];

#if defined(__GNUC__)
#pragma GCC visibility pop
#endif
#ifdef __cplusplus
}
#endif
#endif /* QV_SEC_H */
