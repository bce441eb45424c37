/*
 * libqv_sec: authentication, security contexts, identities, access control
 * lists and message authentication for the services of a cluster and their
 * clients, over pluggable mechanism modules (MPMs).
 *
 * Every routine returns a signed 32-bit code: 0 success, 1 the exchange must
 * continue, 2 the context is unauthenticated, larger values are failures
 * whose detail is in the calling thread's error record (qv_cu.h) and, for a
 * failure inside a mechanism module, in the status record.
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

#define SEC_F_DEFER_MPM_START 0x20u  /* sec_start: start no module yet */

/* sec_start: creates a service token in *stokenp and starts the first
 * configured mechanism for it (unless flags has SEC_F_DEFER_MPM_START). A
 * first mechanism that fails to start leaves its detail in *st and still
 * returns 0. Release the token with sec_end. */
qv_int32_t sec_start(sec_status_t st, qv_uint32_t flags, sec_token_t *stokenp);

/* sec_end: ends every mechanism started for the token and frees it. A NULL
 * token is not an error. */
qv_int32_t sec_end(sec_status_t st, qv_uint32_t flags, sec_token_t stoken);

#define SEC_F_LOCAL_SOCKET   0x01000000u
#define SEC_F_NETWORK_SOCKET 0x02000000u
#define SEC_F_SOCKET_BOUND   0x10000000u

/* sec_setup_socket: a context token bound to sockfd, in *ctokenp. For a local
 * (UNIX-domain) socket that is not yet bound, arg is the directory prefix
 * (1 to 68 characters) of a unique path that the library binds. */
qv_int32_t sec_setup_socket(sec_token_t stoken, int sockfd, qv_uint32_t flags,
                            void *arg, sec_token_t *ctokenp);

/* ---- Identity mapping hook ---- */

/* The groups of the local user named by mapped_name. The library's default
 * answers from the system's group database; a program replaces it by
 * defining its own function of this name. */
int sec_idm_get_groups(sec_buffer_t mapped_name, int *gcount, sec_buffer_t *groups);

#if defined(__GNUC__)
#pragma GCC visibility pop
#endif
#ifdef __cplusplus
}
#endif
#endif /* QV_SEC_H */
