/*
 * libqv_sec: authentication, security contexts, identities, access control
 * lists and message authentication for the services of a cluster and their
 * clients, over pluggable mechanism modules (MPMs).
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
#include "qv_cu.h"

#ifdef __cplusplus
extern "C" {
#endif
#if defined(__GNUC__)
#pragma GCC visibility push(default)
#endif

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

/* ---- Error messages ---- */

/* The default texts of the library's messages, indexed by message number
 * (catalogue "qvsec.cat", set 1). */
#define SEC_MSG_COUNT 79
extern const char *cu_mesgtbl_qvsec_msg[SEC_MSG_COUNT];
extern const char cu_badid_qvsec_msg[];

/* One thread's captured error: the first failure of a series of attempts. */
typedef struct sec_error_s {
    qv_int32_t rc;
    sec_status_desc st;
    cu_error_t *errp;
} sec_error_desc, *sec_error_t;

/* ---- Readers-writer lock ---- */

typedef struct sec_rwlock_s {
    pthread_mutex_t mutex;
    pthread_cond_t r_cond;
    pthread_cond_t w_cond;
    int count;    /* > 0 readers holding, -1 a writer holding, 0 free */
    int writers;  /* threads waiting to become the writer */
} sec_rwlock_desc, *sec_rwlock_t;

/* ---- Configuration ---- */

#define SEC_CFG_FLAG_I 0x1u  /* flag letter "i" or "I" */
#define SEC_CFG_FLAG_U 0x2u  /* flag letter "u" or "U" */

/* One line of the configuration file. */
typedef struct sec_config_rec_s {
    qv_uint32_t magic;
    qv_uint32_t code;
    qv_uint32_t priority;
    qv_uint32_t flags;
    char *name;
    char *path;
    struct sec_config_rec_s *prev;
    struct sec_config_rec_s *next;
} sec_config_rec_desc, *sec_config_rec_t;

typedef struct sec_config_s {
    char *fname;                /* the file's path, fixed at initialisation */
    qv_int32_t rtime;           /* time of the last successful read; 0 never */
    qv_int32_t count;
    sec_config_rec_t cfg_recs;  /* records in file order */
} sec_config_desc, *sec_config_t;

/* ---- Mechanism module table ---- */

#define SEC_MPM_MAX_ENTRIES 8

#define SEC_MPM_S_RESERVED       0x1u
#define SEC_MPM_S_LOADED         0x2u
#define SEC_MPM_S_NOT_CONFIGURED 0x80000000u

typedef struct sec_mpm_entry_s {
    qv_uint32_t magic;
    qv_uint32_t state;     /* SEC_MPM_S_* */
    sec_rwlock_desc lock;  /* read: every call into the module; write: loading */
    qv_uint32_t code;
    time_t ltime;          /* end of the most recent call into the module */
    char *name;
    char *path;
    void *object;          /* dlopen handle, NULL until loaded */
} sec_mpm_entry_desc, *sec_mpm_entry_t;

typedef struct sec_mpm_s {
    qv_int32_t count;
    sec_mpm_entry_desc entries[SEC_MPM_MAX_ENTRIES];
} sec_mpm_desc, *sec_mpm_t;

/* ---- Global state ---- */

typedef struct sec_state_s {
    pthread_mutex_t lock;  /* guards config and mpms */
    sec_config_desc config;
    sec_mpm_desc mpms;
} sec_state_desc, *sec_state_t;

extern sec_state_desc SEC_STATE;

/* ---- Service tokens ---- */

typedef struct sec_mech_data_s {
    qv_uint32_t state;     /* 0x1: mpm_start succeeded for this token */
    void *mtoken;          /* the module's own service token */
    sec_mpm_entry_t mpm;
    struct sec_mech_data_s *next;
} sec_mech_data_desc, *sec_mech_data_t;

typedef struct sec_svc_token_s {
    qv_uint32_t magic;     /* "vres" */
    pthread_mutex_t lock;  /* guards mdata_list and svc_name */
    qv_uint32_t state;
    char *svc_name;
    qv_uint32_t sflags;
    sec_mech_data_t mdata_list;
} sec_svc_token_desc, *sec_svc_token_t;

#define SEC_SVC_TOKEN_MAGIC 0x73657276u  /* "vres" in memory on little-endian hosts */
#define SEC_CTX_TOKEN_MAGIC 0x636f6e74u  /* "tnoc" in memory on little-endian hosts */

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

/* ---- Context tokens ---- */

/* Socket information of a context prepared by sec_setup_socket. */
typedef struct sec_socket_info_s {
    qv_int32_t fd;
    qv_uint32_t type;  /* the sec_setup_socket flags; 0x80000000: path bound by the library */
    char *path;        /* the bound path, owned */
} sec_socket_info_desc, *sec_socket_info_t;

/* The client's privilege set, kept in a server-side context token. */
typedef struct sec_privset_info_s {
    char *name;            /* client network name */
    char *mname;           /* mapped local name, may be NULL */
    int gcount;
    sec_buffer_t groups;   /* gcount buffers, each value a NUL-terminated group name */
} sec_privset_info_desc, *sec_privset_info_t;

/* The record behind a security or identity context handle. */
typedef struct sec_ctx_token_s {
    qv_uint32_t magic;              /* "tnoc" */
    qv_uint32_t state;              /* SEC_CTX_S_* */
    sec_token_t svc_token;          /* the service token the context was made under */
    sec_socket_info_desc sinfo;
    unsigned char seq_no;           /* sequence number of the last CCDB sent or received */
    qv_uint16_t version;            /* CCDB and seal-buffer version of the context */
    sec_mech_data_desc mdata;       /* the chosen module and its context handle */
    sec_privset_info_desc privset;
} sec_ctx_token_desc, *sec_ctx_token_t;

#define SEC_CTX_S_SOCKET          0x80000000u  /* prepared by sec_setup_socket */
#define SEC_CTX_S_IN_PROGRESS     0x08000000u  /* another exchange is needed */
#define SEC_CTX_S_COMPLETE        0x04000000u
#define SEC_CTX_S_CLIENT          0x02000000u
#define SEC_CTX_S_SERVER          0x01000000u
#define SEC_CTX_S_IDENTITY        0x00800000u  /* identity context, not security context */
#define SEC_CTX_S_MAPPED          0x00400000u  /* mapped name and groups looked up */
#define SEC_CTX_S_REFUSE_UNAUTH   0x00200000u  /* unauthenticated contexts refused */
#define SEC_CTX_S_AUTHENTICATED   0x00000200u  /* a module context exists */

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

/* Header lengths: type and version; with the mechanism; with sequence and flags. */
extern const qv_int32_t sec__buff_tv_len;
extern const qv_int32_t sec__buff_tvm_len;
extern const qv_int32_t sec__buff_tvms_len;

/* Wraps module bytes (NULL: none) in a CCDB of the given version (2: with
 * sequence number and flags). Returns 0, or 6 with *ccdb empty. */
qv_int32_t sec__wrap_mech_ccdb(sec_buffer_t mccdb, qv_uint32_t mech, int version, unsigned char seq_no,
                               unsigned char flags, sec_buffer_t ccdb);
/* Checks and strips a CCDB's header; the body is copied into *mccdb. Returns
 * 0, 7 (not a CCDB or too short), 9 (version above 2) or 6. */
qv_int32_t sec__unwrap_mech_ccdb(sec_buffer_t ccdb, qv_uint32_t *mech, int *version, unsigned char *seq_no,
                                 unsigned char *flags, sec_buffer_t mccdb);
/* Wraps sealed module bytes in a seal buffer. Returns 0, or 6. */
qv_int32_t sec__wrap_seal_buff(sec_buffer_t in, qv_uint32_t mech, int version, sec_buffer_t out);
/* Checks and strips a seal buffer's header (the version is not checked).
 * Returns 0, 7 or 6. */
qv_int32_t sec__unwrap_seal_buff(sec_buffer_t in, qv_uint32_t *mech, int *version, sec_buffer_t out);

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

/* Service token state bits. */
#define SEC_SVC_S_STARTED          0x1u
#define SEC_SVC_S_LOGIN_AS_SERVICE 0x4u  /* establish the service's own identity in each module */
/* Unauthenticated clients are refused. sec_start sets it when the process's
 * QV_SEC_IMP_MECHS is set, not empty and lacks "none": the imposed
 * mechanisms then rule out unauthenticated contexts on the server side too. */
#define SEC_SVC_S_REFUSE_UNAUTH    0x8u

/* Mechanism-data state bits. */
#define SEC_MECH_S_STARTED      0x1u  /* mpm_start succeeded for the service */
#define SEC_MECH_S_SERVER_LOGIN 0x2u  /* logged in as the service by a server context */
#define SEC_MECH_S_CLIENT_LOGIN 0x4u  /* logged in as the service by a client context */

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

/* sec_prepare_data protection modes: exactly one must be given; their
 * meaning belongs to the module. */
#define SEC_F_PROTECT_MODE1 0x00100000u
#define SEC_F_PROTECT_MODE2 0x00200000u

/* Queries on a complete context. */
qv_int32_t sec_get_ctx_attribute(sec_status_t st, sec_token_t token, qv_uint32_t attr, void *arg);
/* A NULL lifetime is accepted and nothing is written. */
qv_int32_t sec_get_ctx_lifetime(sec_status_t st, sec_token_t ctoken, qv_int32_t *lifetime);
/* sec_prepare_data: seals in into a newly allocated seal buffer *out (type
 * 0x86) with the context's module; authenticated contexts only. Input whose
 * seal could not fit a buffer's 32-bit length is refused (code 7) before the
 * module is called; module output too long for the header, likewise after
 * it. */
qv_int32_t sec_prepare_data(sec_status_t st, sec_token_t ctoken, qv_uint32_t flags, sec_buffer_t in,
                            sec_buffer_t out);
/* sec_process_data: opens a seal buffer made by the peer's context. */
qv_int32_t sec_process_data(sec_status_t st, sec_token_t ctoken, sec_buffer_t in, sec_buffer_t out);
/* sec_end_context: ends the context (complete or not) and frees the token; a
 * socket file the library bound for it is removed. buff, when not NULL, is
 * released and emptied. A NULL token is not an error. */
qv_int32_t sec_end_context(sec_status_t st, sec_token_t ctoken, sec_buffer_t buff);

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

/* Internal: translation between mnemonic strings and lists (callers hold
 * SEC_STATE.lock), and the environment strings for QV_SEC_IMP_MECHS. */
qv_int32_t sec__translate_mech_mnemonics(sec_boolean_t force, char *mstring, sec_buffer_t mbuff,
                                         qv_int32_t *mcount);
qv_int32_t sec__translate_mech_codes(sec_buffer_t mbuff, qv_int32_t mcount, char *mstring);
sec_boolean_t sec__contains_mech_none(char *mstring);
qv_int32_t sec__create_varval(char *var, char *value, char **varstrp);
qv_int32_t sec__create_empty_varval(char *var, char **varstrp);

#define SEC_F_LOCAL_SOCKET   0x01000000u
#define SEC_F_NETWORK_SOCKET 0x02000000u
#define SEC_F_SOCKET_BOUND   0x10000000u

/* sec_setup_socket: a context token bound to sockfd, in *ctokenp. For a local
 * (UNIX-domain) socket that is not yet bound, arg is the directory prefix
 * (1 to 68 characters) of a unique path that the library binds. */
qv_int32_t sec_setup_socket(sec_token_t stoken, int sockfd, qv_uint32_t flags,
                            void *arg, sec_token_t *ctokenp);

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

/* DES key helpers over the 8 bytes at key. fix sets bit 0 of each byte so
 * that the byte has odd parity (bits 7..1 are kept); check returns 1 when all
 * 8 bytes have odd parity, else 0; is_weak returns 1 when the bytes are one
 * of the 16 weak and semi-weak keys in odd-parity form, else 0. */
void sec__des_fix_key_parity(unsigned char *key);
int sec__des_check_key_parity(const unsigned char *key);
int sec__des_is_weak_key(const unsigned char *key);

/* ---- Identity mapping hook ---- */

/* The groups of the local user named by mapped_name. The library's default
 * answers from the system's group database; a program replaces it by
 * defining its own function of this name. */
int sec_idm_get_groups(sec_buffer_t mapped_name, int *gcount, sec_buffer_t *groups);

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

/* sec_release_name: frees a name the library returned (NULL allowed). */
qv_int32_t sec_release_name(char *name);

/* sec_release_buffer: wipes and frees a buffer's value (the whole block,
 * whatever its length says) and empties the record (NULL allowed). Always 0. */
qv_int32_t sec_release_buffer(sec_buffer_t buff);

/* Internal: the mapping step of identity contexts and CIDBs. Asks the
 * mechanism (entry, its context handle mtoken) for the client's mapped name;
 * with one, ps->mname is that name and ps->gcount / ps->groups its groups
 * from sec_idm_get_groups, whose failure is returned as it is. Without one,
 * ps->mname is NULL and no groups are asked for. On failure ps->mname,
 * ps->gcount and ps->groups are left NULL / 0. */
qv_int32_t sec__get_mapped_identity(sec_status_t st, sec_mpm_entry_t entry, void *mtoken, sec_privset_info_t ps);

/* ---- Portable identities: UTF-8 names and CIDBs ---- */

/* Internal: converts the *local_length bytes of local_string (callers count
 * the NUL, so it is converted too) from the locale's code set to UTF-8, and
 * back. The output is malloc'ed (free it with free) and *utf8_length /
 * *local_length counts its bytes, the converted NUL included. Returns 0; 26
 * (2650-079) when the locale's code set cannot be converted or the input is
 * not valid in it; 6 (2650-032); 23 (2650-077). On failure the output is
 * NULL with length 0. */
qv_int32_t sec__convert_to_utf8(char *local_string, size_t *local_length, char **utf8_string, size_t *utf8_length);
qv_int32_t sec__convert_from_utf8(char *utf8_string, size_t *utf8_length, char **local_string,
                                  size_t *local_length);

/* ntohl64 / htonl64: a 64-bit value between big-endian and host order. */
qv_uint64_t ntohl64(qv_uint64_t v);
qv_uint64_t htonl64(qv_uint64_t v);

/* Caller flags of sec_create_cidb. */
#define SEC_F_CIDB_MAPPING     0x00000001u  /* also record the mapped name and the groups */
#define SEC_F_CIDB_HOST_LOCAL  0x00000400u  /* usable only on this host (security contexts) */

/* Flags inside a CIDB. */
#define SEC_CIDB_F_AUTHENTICATED 0x00000200u  /* a network name follows */
#define SEC_CIDB_F_HOST_LOCAL    0x00000400u  /* valid only on the host of the node ID */
#define SEC_CIDB_F_MAPPING       0x00400000u  /* the mapped name (and groups) follow */

/* Internal: frees what a privilege set owns (NULL allowed); the record's
 * fields are left as they were. */
void sec__free_privset_info(sec_privset_info_t ps);

/* Internal: writes a CIDB (type 0x87) for mechanism mech into out (release
 * with sec_release_buffer): this host's node ID, and for mech other than 0
 * the flags with 0x200 added and ps's names in UTF-8 (with flag 0x00400000
 * also ps->mname and the groups). Returns 0, 6, 23 (no node ID), 4 (a name
 * longer than 65535 bytes) or a conversion failure; on failure out is
 * empty. */
qv_int32_t sec__wrap_cid_buff(qv_uint32_t mech, int version, qv_uint32_t flags, sec_privset_info_t ps,
                              sec_buffer_t out);
/* Internal: reads a CIDB. Every output starts at 0 / empty; *ps receives
 * malloc'ed copies of the names in the locale's code set (free them with
 * sec__free_privset_info). Returns 0, 7 (2650-005: not a CIDB, or a length
 * that does not fit), 6 or a conversion failure; on failure *ps is empty. */
qv_int32_t sec__unwrap_cid_buff(sec_buffer_t in, qv_uint32_t *mech, int *version, qv_uint64_t *nodeid,
                                qv_uint32_t *flags, sec_privset_info_t ps);

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

/* ---- Internal routines ----
 * Exported under their own names for the library's tools and tests, and for
 * diagnostics. They take the locks their descriptions name; programs
 * normally use the routines above instead. */

/* One-time initialisation, run through pthread_once by every routine. */
extern pthread_once_t sec__init_once_block;
void sec__cts_init(void);

/* Error capture: the first failure of a series of attempts, per thread. */
extern qv_int32_t sec__error_ok;
extern pthread_key_t sec__error_key;
/* Keeps (rc, *st) and a copy of the thread's error record unless the thread
 * already holds a captured failure. Returns 0, or 6 when no record could be
 * allocated. */
qv_int32_t sec__error_capture(qv_int32_t rc, sec_status_t st);
/* Zeroes *st, then gives back the kept failure in *rc and *st and reinstates
 * its error record as the thread's. */
void sec__error_retrieve(qv_int32_t *rc, sec_status_t st);
/* Forgets the kept failure and zeroes *st; with none kept, leaves *st alone. */
void sec__error_clear(sec_status_t st);
void sec__error_cleanup(void *data);

/* Configuration file; callers hold SEC_STATE.lock. */
/* Brings SEC_STATE.config up to date: reads the file the first time and again
 * whenever it was modified after the last successful read. A failed re-read
 * keeps the old records. */
qv_uint32_t sec__read_config(void);
/* The file's modification time and size, truncated to 32 bits. */
qv_uint32_t sec__check_cfg_file(qv_int32_t *mtime, qv_int32_t *size);
/* Reads and parses len bytes of the file into a new list in *recs. */
qv_uint32_t sec__read_config_file(qv_int32_t len, sec_config_rec_t *recs, qv_int32_t *count);
/* Finds the record at *cursor, ends it at its newline and points *next at the
 * following record (NULL at the end of the text). */
qv_uint32_t sec__get_config_rec(char **cursor, char **next);
/* Parses one record in place; a comment gives *rec NULL and success. */
qv_int32_t sec__parse_config_rec(char *line, sec_config_rec_t *rec);
void sec__free_config_recs(sec_config_rec_t head);
/* Reads the file at path exactly as the library reads its configuration and
 * gives its records (free them with sec__free_config_recs); on failure *line
 * is the line of the offending record, 0 when there is none. */
qv_uint32_t sec__validate_config_file(const char *path, sec_config_rec_t *recs, qv_int32_t *count,
                                      qv_int32_t *line);

/* Readers-writer lock (module table entries). Writers have preference;
 * promote and demote are not atomic (others may get in between). Waits are
 * cancellation points whose clean-up repairs the counters; a holder that can
 * be cancelled pushes its own handler that unlocks. */
void sec__simple_init(pthread_mutex_t *mutex);
void sec__lock_init(sec_rwlock_t lock);
void sec__lock_destroy(sec_rwlock_t lock);
void sec__lock_read(sec_rwlock_t lock);
void sec__unlock_read(sec_rwlock_t lock);
void sec__lock_write(sec_rwlock_t lock);
void sec__unlock_write(sec_rwlock_t lock);
/* 0 when the write lock was taken, -1 when the lock is held (waiting writers
 * are not considered). */
int sec__trylock_write(sec_rwlock_t lock);
/* Caller holds a read lock and ends holding the write lock. */
void sec__lock_promote(sec_rwlock_t lock);
/* Caller holds the write lock and ends holding a read lock. */
void sec__lock_demote(sec_rwlock_t lock);
void sec__waiting_reader_cleanup(pthread_mutex_t *mutex);
void sec__waiting_writer_cleanup(sec_rwlock_t lock);

/* Module table. The routines marked so run with SEC_STATE.lock held by the
 * caller. */
/* Finds the entry for rec->code, or reserves a free one (copying the
 * mnemonic and path); 21 when all 8 entries hold other codes. Caller holds
 * SEC_STATE.lock. */
qv_uint32_t sec__reserve_mpm(sec_config_rec_t rec, sec_mpm_entry_t *entry);
/* A calloc'ed, NULL-terminated array of the entries that the configuration
 * file lists, in table order; the caller frees the array only. Caller holds
 * SEC_STATE.lock. */
qv_uint32_t sec__select_mpms(sec_mpm_entry_t **list);
/* Re-reads the configuration, reserves an entry per record and, when list
 * is not NULL, selects the listed entries into *list. Caller holds
 * SEC_STATE.lock. */
qv_uint32_t sec__read_reserve_select(sec_mpm_entry_t **list);
/* The entry for code, or NULL. Takes SEC_STATE.lock. */
sec_mpm_entry_t sec__get_mpm_entry(qv_uint32_t code);
/* Loads the module and calls its mpm_init; caller holds entry->lock for
 * writing. 22 with 2650-050, 2650-051 or 2650-052 when it cannot. */
qv_uint32_t sec__load_mpm(sec_mpm_entry_t entry);
/* The service token's mechanism data for entry, created (zeroed, at the head
 * of the list) when missing. Caller holds svc->lock. */
qv_uint32_t sec__check_mech_data(sec_svc_token_t svc, sec_mpm_entry_t entry, sec_mech_data_t *mdata);
/* The same keyed by mechanism code: 8 with 2650-070 when no entry has the
 * code. Takes SEC_STATE.lock for the lookup and then svc->lock itself, so the
 * caller holds neither. */
qv_uint32_t sec__check_mech_data2(sec_svc_token_t svc, qv_uint32_t code, sec_mech_data_t *mdata);

/* Module routines. A routine pointer as looked up (cast it to the routine's
 * own type, see qv_sec_mpm.h); mpm_init's type. */
typedef qv_uint32_t (*sec_mpm_routine_t)();
typedef void (*sec_mpm_init_routine_t)(void);

/* Looks func_name up in the entry's module, loading the module first when
 * needed. On 0 the caller holds entry->lock for reading and must release it
 * with sec__mpm_end_routine; on failure (22) it holds nothing. */
qv_uint32_t sec__mpm_start_routine(sec_mpm_entry_t entry, char *func_name, sec_mpm_routine_t *func);
/* Stamps entry->ltime and releases the read lock. */
void sec__mpm_end_routine(sec_mpm_entry_t entry);

/* One wrapper per module routine. Each holds the entry's read lock for the
 * call, stores the routine's major status in st->maj_stat and its minor
 * status in st->min_stat, and returns 0 when the status is success (0, or 1
 * for the three context-establishment routines). On another status it sets
 * st->desc to the routine's name and st->mech_code to the entry's code and
 * returns 3 (24, 34 or 36 where noted). A failed lookup returns 22 without
 * touching st. The arguments are in the library's order; the wrapper passes
 * them in the module's (see qv_sec_mpm.h). */
qv_uint32_t sec__mpm_start(sec_mpm_entry_t entry, sec_status_t st, qv_uint32_t flags, void **token);
qv_uint32_t sec__mpm_end(sec_mpm_entry_t entry, sec_status_t st, qv_uint32_t flags, void *token);
qv_uint32_t sec__mpm_set_ctx_attribute(sec_mpm_entry_t entry, sec_status_t st, void *svc_tkn, qv_uint32_t attr,
                                       void *data, void **ctx_tkn);
qv_uint32_t sec__mpm_service_cleanup(sec_mpm_entry_t entry, sec_status_t st, qv_uint32_t flags, void *token);
qv_uint32_t sec__mpm_start_sec_context(sec_mpm_entry_t entry, sec_status_t st, void *sec_token, qv_uint32_t flags,
                                       char *trg_svc, char *trg_host, void **ctx_token, sec_buffer_t cbuff);
qv_uint32_t sec__mpm_get_target_name(sec_mpm_entry_t entry, sec_status_t st, void *token, char *service,
                                     char *host, qv_int32_t *length, char *name);
qv_uint32_t sec__mpm_complete_sec_context(sec_mpm_entry_t entry, sec_status_t st, sec_buffer_t sbuff, void *token,
                                          sec_buffer_t cbuff);
qv_uint32_t sec__mpm_get_ctx_lifetime(sec_mpm_entry_t entry, sec_status_t st, void *token, qv_int32_t *lifetime);
qv_uint32_t sec__mpm_get_ctx_flags(sec_mpm_entry_t entry, sec_status_t st, void *token, qv_uint32_t *flags);
qv_uint32_t sec__mpm_prepare_data(sec_mpm_entry_t entry, sec_status_t st, void *token, qv_uint32_t flags,
                                  sec_buffer_t in, sec_buffer_t out);
qv_uint32_t sec__mpm_process_data(sec_mpm_entry_t entry, sec_status_t st, void *token, sec_buffer_t in,
                                  sec_buffer_t out);
qv_uint32_t sec__mpm_end_context(sec_mpm_entry_t entry, sec_status_t st, void *token);
qv_uint32_t sec__mpm_login_as_service(sec_mpm_entry_t entry, sec_status_t st, char *svc_name, void *token);
qv_uint32_t sec__mpm_login_as_user(sec_mpm_entry_t entry, sec_status_t st, void *token, sec_buffer_t id,
                                   void *authenticator, qv_uint32_t flags);
qv_uint32_t sec__mpm_renew_identity(sec_mpm_entry_t entry, sec_status_t st, void *token, qv_int32_t *lifetime);
qv_uint32_t sec__mpm_receive_sec_context(sec_mpm_entry_t entry, sec_status_t st, void *svc_tkn, sec_buffer_t cbuff,
                                         void **ctx_tkn, sec_buffer_t sbuff, qv_uint32_t *rflags);
qv_uint32_t sec__mpm_get_client_name(sec_mpm_entry_t entry, sec_status_t st, void *token, qv_int32_t *name_len,
                                     char *name);
qv_uint32_t sec__mpm_get_mapped_name(sec_mpm_entry_t entry, sec_status_t st, void *token, qv_int32_t *name_len,
                                     char *name);
qv_uint32_t sec__mpm_get_client_id(sec_mpm_entry_t entry, sec_status_t st, void *token, qv_int32_t *id_len,
                                   char *id);
/* Releases a buffer that one of the module's routines produced. Takes no
 * status record: the module's statuses are ignored, and the result is the
 * lookup's (0 or 22). */
qv_uint32_t sec__mpm_release_buffer(sec_mpm_entry_t entry, sec_buffer_t buff);
qv_uint32_t sec__mpm_create_id_context(sec_mpm_entry_t entry, sec_status_t st, qv_uint32_t flags, void *in,
                                       void **id_ctx);
/* 24 when the module's status is 24. */
qv_uint32_t sec__mpm_sign_data_v(sec_mpm_entry_t entry, sec_status_t st, void *token, qv_int32_t count,
                                 struct iovec *vector, sec_buffer_t signature);
/* 24 or 34 when the module's status is 24 or 34. */
qv_uint32_t sec__mpm_verify_data_v(sec_mpm_entry_t entry, sec_status_t st, void *token, sec_buffer_t signature,
                                   qv_int32_t count, struct iovec *vector);
qv_uint32_t sec__mpm_get_ctx_mpm(sec_mpm_entry_t entry, sec_status_t st, void *token, char *mpm);
/* 36 when the module's status is 36. */
qv_uint32_t sec__mpm_user_valid(sec_mpm_entry_t entry, sec_status_t st, void *token, char *username);

/* Binds the UNIX-domain socket sockfd to path followed by "sec", the process
 * id and thread id in hex and sixteen hex digits of time; *rpath receives a
 * malloc'ed copy of the bound path. 10 when the bind fails. */
qv_uint32_t sec__bind_unix_socket(int sockfd, char *path, char **rpath);

/* ACL editing. The larger of the two entries' lengths less 16: the bytes
 * over which their identifiers are compared. */
qv_int32_t sec__acle_id_lenmin(sec_acle_t a, sec_acle_t b);
/* Adds (add = 1) or deletes the entry for sec_add_acle_to_acl and
 * sec_del_acle_from_acl, whose argument checks it relies on. */
qv_int32_t sec__modify_acles_in_acl(sec_acle_t acle, sec_boolean_t add, sec_acl_buffer_t acl);

/* Tracing under the component "_SEA": six categories (Errors, Info, API,
 * Buffer, SVCTKN, CTXTKN), levels set by the trace library. */
extern unsigned char sec__trace_detail_levels[6];
void sec__trace_register_qvsec(void);
void sec__trace_unregister_qvsec(void);
void sec__trace_routine_end(const char *name, qv_int32_t rc, sec_status_t st);
void sec__trace_buffer(sec_buffer_t buf);
void sec__trace_service_token(sec_svc_token_t token);
void sec__trace_context_token(void *token);

#if defined(__GNUC__)
#pragma GCC visibility pop
#endif
#ifdef __cplusplus
}
#endif
#endif /* QV_SEC_H */
