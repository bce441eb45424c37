/*
 * libqv_sec internals: the records behind the opaque tokens, the global
 * state SEC_STATE, the lock routines and the internal sec__* routines. They
 * are exported under their own names for the library's tools and tests and
 * for diagnostics; their behaviour may change between releases. Programs
 * use qv_sec.h alone.
 */
#ifndef QV_SEC_INTERNAL_H
#define QV_SEC_INTERNAL_H

#include "qv_sec.h"

#ifdef __cplusplus
extern "C" {
#endif
#if defined(__GNUC__)
#pragma GCC visibility push(default)
#endif

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

/* ---- Context tokens ---- */

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

/* Internal: translation between mnemonic strings and lists (callers hold
 * SEC_STATE.lock), and the environment strings for QV_SEC_IMP_MECHS. */
qv_int32_t sec__translate_mech_mnemonics(sec_boolean_t force, char *mstring, sec_buffer_t mbuff,
                                         qv_int32_t *mcount);
qv_int32_t sec__translate_mech_codes(sec_buffer_t mbuff, qv_int32_t mcount, char *mstring);
sec_boolean_t sec__contains_mech_none(char *mstring);
qv_int32_t sec__create_varval(char *var, char *value, char **varstrp);
qv_int32_t sec__create_empty_varval(char *var, char **varstrp);

/* DES key helpers over the 8 bytes at key. fix sets bit 0 of each byte so
 * that the byte has odd parity (bits 7..1 are kept); check returns 1 when all
 * 8 bytes have odd parity, else 0; is_weak returns 1 when the bytes are one
 * of the 16 weak and semi-weak keys in odd-parity form, else 0. */
void sec__des_fix_key_parity(unsigned char *key);
int sec__des_check_key_parity(const unsigned char *key);
int sec__des_is_weak_key(const unsigned char *key);

/* Internal: the mapping step of identity contexts and CIDBs. Asks the
 * mechanism (entry, its context handle mtoken) for the client's mapped name;
 * with one, ps->mname is that name and ps->gcount / ps->groups its groups
 * from sec_idm_get_groups, whose failure is returned as it is. Without one,
 * ps->mname is NULL and no groups are asked for. On failure ps->mname,
 * ps->gcount and ps->groups are left NULL / 0. */
qv_int32_t sec__get_mapped_identity(sec_status_t st, sec_mpm_entry_t entry, void *mtoken, sec_privset_info_t ps);

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
#endif /* QV_SEC_INTERNAL_H */
