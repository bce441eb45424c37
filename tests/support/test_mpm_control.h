/*
 * Control interface of the scriptable test module (mpm/test). A test loads
 * the module's file itself (dlopen of the same path returns the library's
 * copy, loaded once per process), finds qvtest_mpm_control with dlsym, and
 * then sets each routine's behaviour and reads what each routine was called
 * with. Counters that change while calls are under way are read through the
 * accessor routines (atomic loads); the records of arguments are written
 * under the module's mutex before a routine blocks or returns.
 */
#ifndef QVTEST_MPM_CONTROL_H
#define QVTEST_MPM_CONTROL_H

#include <stdint.h>
#include "qv_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The routines, in the library's order; QVTEST_MPM_INIT is mpm_init, which
 * only honours `block`. */
enum qvtest_mpm_routine {
    QVTEST_MPM_START, QVTEST_MPM_END, QVTEST_MPM_SET_CTX_ATTRIBUTE, QVTEST_MPM_SERVICE_CLEANUP,
    QVTEST_MPM_START_SEC_CONTEXT, QVTEST_MPM_GET_TARGET_NAME, QVTEST_MPM_COMPLETE_SEC_CONTEXT,
    QVTEST_MPM_GET_CTX_LIFETIME, QVTEST_MPM_GET_CTX_FLAGS, QVTEST_MPM_PREPARE_DATA, QVTEST_MPM_PROCESS_DATA,
    QVTEST_MPM_END_CONTEXT, QVTEST_MPM_LOGIN_AS_SERVICE, QVTEST_MPM_LOGIN_AS_USER, QVTEST_MPM_RENEW_IDENTITY,
    QVTEST_MPM_RECEIVE_SEC_CONTEXT, QVTEST_MPM_GET_CLIENT_NAME, QVTEST_MPM_GET_MAPPED_NAME,
    QVTEST_MPM_GET_CLIENT_ID, QVTEST_MPM_RELEASE_BUFFER, QVTEST_MPM_CREATE_ID_CONTEXT, QVTEST_MPM_SIGN_DATA_V,
    QVTEST_MPM_VERIFY_DATA_V, QVTEST_MPM_GET_CTX_MPM, QVTEST_MPM_USER_VALID,
    QVTEST_MPM_INIT,
    QVTEST_MPM_ROUTINES
};

#define QVTEST_MPM_MAX_BYTES 256

/* How one routine behaves. qvtest_mpm_reset sets every routine to: status 0,
 * minor 0, no continue rounds, no blocking, its default output and names. */
typedef struct qvtest_mpm_behaviour {
    qv_uint32_t maj_stat;  /* returned once the continue rounds are used up; not 0: no output */
    qv_uint32_t min_stat;  /* stored through the minor-status pointer */
    int continue_rounds;   /* context routines: the next N calls return 1 (with output) */
    int block;             /* wait inside the routine (a cancellation point) until released */
    int output_len;        /* -1: the routine's default output; else the first output_len bytes of output */
    unsigned char output[QVTEST_MPM_MAX_BYTES];
    char name[QVTEST_MPM_MAX_BYTES]; /* name routines and mpm_get_ctx_mpm: the answer ("" = default) */
    qv_int32_t name_len;   /* -1: strlen(name) + 1 (mpm_get_client_id: strlen); else reported as is */
    qv_uint32_t value;     /* *lifetime, *flags or *rflags where the routine has one */
    qv_int32_t claim_len;  /* not 0: an output buffer is handed back claiming this length, whatever
                              its bytes (a module that lies about its output) */
} qvtest_mpm_behaviour_t;

/* What one routine was last called with. */
typedef struct qvtest_mpm_call {
    unsigned long calls;                   /* read with qvtest_mpm_calls while calls run */
    int nargs;
    uintptr_t args[8];                     /* the arguments after the minor-status pointer, module order */
    qv_int32_t in_len;                     /* the last input buffer (or -1 when none) */
    unsigned char in[QVTEST_MPM_MAX_BYTES];
    char str[2][128];                      /* the last string arguments, in order */
} qvtest_mpm_call_t;

typedef struct qvtest_mpm_control {
    qvtest_mpm_behaviour_t behaviour[QVTEST_MPM_ROUTINES];
    qvtest_mpm_call_t record[QVTEST_MPM_ROUTINES];
} qvtest_mpm_control_t;

/* Exported by every variant of the module. */
qvtest_mpm_control_t *qvtest_mpm_control(void);
void qvtest_mpm_reset(void);              /* defaults, records and counters cleared, not released */
void qvtest_mpm_release(void);            /* lets every blocked routine return, now and until reset */
int qvtest_mpm_blocked(void);             /* threads waiting inside a routine */
unsigned long qvtest_mpm_calls(int routine);
long qvtest_mpm_live_handles(void);       /* service, context and identity handles not yet freed */
long qvtest_mpm_live_buffers(void);       /* output buffers not yet given to mpm_release_buffer */

/* Handles the module gives out begin with this magic. */
#define QVTEST_MPM_HANDLE_MAGIC 0x51565448u /* "QVTH" */
typedef struct qvtest_mpm_handle {
    qv_uint32_t magic;
} qvtest_mpm_handle_t;

#ifdef __cplusplus
}
#endif
#endif /* QVTEST_MPM_CONTROL_H */
