/*
 * libqv_cu: per-thread error records with catalogued messages, code-set
 * conversion, node identity and a high-resolution counter.
 */
#ifndef QV_CU_H
#define QV_CU_H

#include <stddef.h>
#include "qv_types.h"

#ifdef __cplusplus
extern "C" {
#endif
#if defined(__GNUC__)
#pragma GCC visibility push(default)
#endif

/* Result codes of the cu_* routines (0 is success). */
#define CU_E_NOMEM      15  /* memory ran out */
#define CU_E_CONVERT    16  /* the input cannot be converted (bad or incomplete
                               sequence, or an unsupported code set) */
#define CU_E_INTERNAL   17  /* a system facility failed unexpectedly (a file
                               that exists could not be read, iconv failed) */
#define CU_E_NOTFOUND   18  /* no node ID source exists */
#define CU_E_BADFORMAT  19  /* a node ID source does not hold a valid ID */
#define CU_E_BADARG     20  /* a NULL pointer or out-of-range argument */

/* Type of one message argument, read from the conversion in the default text. */
typedef enum cu_arg_type {
    CU_ARG_INT = 1,      /* %d %i %c (int) */
    CU_ARG_UINT = 2,     /* %u %x %X %o (unsigned int) */
    CU_ARG_LONG = 3,     /* %ld %lld %jd %zd ... (64-bit signed) */
    CU_ARG_ULONG = 4,    /* %lu %llx %zx ... (64-bit unsigned) */
    CU_ARG_DOUBLE = 5,   /* %f %e %g %a */
    CU_ARG_STRING = 6,   /* %s: copied into the record */
    CU_ARG_POINTER = 7   /* %p */
} cu_arg_type_t;

/* One message argument. Integers are kept widened to 64 bits: INT values
 * sign-extended in cu_arg_long, UINT values zero-extended in cu_arg_ulong. */
typedef struct cu_arg {
    qv_int32_t cu_arg_type;              /* a cu_arg_type_t */
    union {
        qv_int64_t   cu_arg_long;        /* CU_ARG_INT, CU_ARG_LONG */
        qv_uint64_t  cu_arg_ulong;       /* CU_ARG_UINT, CU_ARG_ULONG */
        double       cu_arg_double;
        char        *cu_arg_string;      /* owned by the record; NULL prints "(null)" */
        void        *cu_arg_pointer;
    } cu_arg_value;
} cu_arg_t;

typedef struct cu_error {
    qv_int32_t   cu_error_id;     /* the error id = the failing routine's return code */
    char        *cu_ffdc_id;      /* NULL in this product */
    char        *cu_msg_cat;      /* catalogue name, e.g. "qvsec.cat" */
    qv_int32_t   cu_msg_set;      /* message set, 1 */
    qv_int32_t   cu_msg_num;      /* message number = index in the message table */
    char        *cu_msg_default;  /* default text, printf-style, positional %1$s allowed */
    qv_uint32_t  cu_arg_cnt;      /* number of message arguments */
    cu_arg_t    *cu_args;         /* the arguments, typed from the default text's conversions */
} cu_error_t;

/* cu_set_error_1: replaces the calling thread's error record with a deep copy
 * of the given strings and the variable arguments, which are read according
 * to the conversions of msg_default (positional %N$ or plain; a plain one
 * takes the argument after the previous conversion's). Reading stops before
 * the first argument whose type the text leaves unknown (an unused number,
 * %n, %Lf, %ls, or a malformed conversion). When memory runs out the record
 * keeps only error_id. Returns error_id. */
int cu_set_error_1(int error_id, const char *ffdc_id, const char *msg_cat,
                   int msg_set, int msg_num, const char *msg_default, ...);

/* cu_get_error_1: a deep copy of the thread's record (cu_error_id 0 and no
 * message when there is none), released with cu_rel_error_1. Returns 0,
 * CU_E_BADARG when err is NULL, or CU_E_NOMEM (and *err is NULL). */
int cu_get_error_1(cu_error_t **err);

/* cu_pset_error_1: makes a deep copy of *err the thread's record; NULL clears
 * it. The caller keeps err. Returns 0, or CU_E_NOMEM (the record then keeps
 * only err's error id). */
int cu_pset_error_1(const cu_error_t *err);

/* cu_set_no_error_1: clears the thread's record. Returns 0. */
int cu_set_no_error_1(void);

/* cu_get_errmsg_1: the formatted message in a malloc'ed string: the text of
 * the catalogue cu_msg_cat for (cu_msg_set, cu_msg_num) when the catalogue
 * and the message are found, else cu_msg_default (NULL: an empty message),
 * with the arguments substituted. The catalogue is looked up with
 * catopen(NL_CAT_LOCALE), which honours NLSPATH and LANG, then in
 * share/qvsec/ beside the directory that holds libqv_cu. Released with
 * cu_rel_errmsg_1. Returns 0, CU_E_BADARG (err or msg NULL) or CU_E_NOMEM;
 * *msg is NULL on failure. */
int cu_get_errmsg_1(const cu_error_t *err, char **msg);

/* Release a record from cu_get_error_1 or a message from cu_get_errmsg_1
 * (NULL is fine). */
void cu_rel_error_1(cu_error_t *err);
void cu_rel_errmsg_1(char *msg);

/* Code-set conversion, wrapping iconv. A handle may be used by several
 * threads at once. */
typedef struct cu_iconv cu_iconv_t;

#define CU_ICONV_TO_UTF8    0
#define CU_ICONV_FROM_UTF8  1

/* cu_iconv_open_1: direction 0: codeset to UTF-8; 1: UTF-8 to codeset.
 * Returns 0, CU_E_BADARG (NULL codeset or hdl, other direction),
 * CU_E_CONVERT (iconv does not know the code set) or CU_E_NOMEM. */
int cu_iconv_open_1(const char *codeset, int direction, cu_iconv_t **hdl);
/* cu_iconv_str_1: converts the *in_len bytes of in (a NUL among them is
 * converted like any character) into a malloc'ed *out of *out_len bytes; one
 * more NUL follows them, not counted. flags is reserved (pass 0; ignored).
 * *in_len is left unchanged. Result 0 success, CU_E_NOMEM, CU_E_INTERNAL or
 * CU_E_BADARG (NULL hdl, in_len, out or out_len, or NULL in with a nonzero
 * length), CU_E_CONVERT: the input holds an invalid or incomplete sequence
 * or a character the target code set lacks. On failure *out is NULL and
 * *out_len 0. */
int cu_iconv_str_1(cu_iconv_t *hdl, int flags, char *in, size_t *in_len,
                   char **out, size_t *out_len);
/* cu_iconv_close_1: frees the handle (NULL is fine). Returns 0. */
int cu_iconv_close_1(cu_iconv_t *hdl);

/* cu_get_node_id_1: this host's 64-bit node ID: from the file named by
 * $QV_NODE_ID_FILE (when set and the file exists), else /var/qv/cfg/node_id
 * (16 hex digits, surrounding whitespace allowed); when neither file exists,
 * derived from /etc/machine-id by a 64-bit FNV-1a hash (stable across runs,
 * without exposing the machine ID itself). Returns 0, CU_E_BADARG (id NULL),
 * CU_E_BADFORMAT (the file used is malformed), CU_E_INTERNAL (it exists but
 * cannot be read) or CU_E_NOTFOUND (no source exists); *id is set only on
 * success. */
int cu_get_node_id_1(qv_uint64_t *id);

/* High-resolution time: a 64-bit counter, its rate in ticks per second, and
 * the conversion of a counter value into seconds and nanoseconds. */
typedef struct cu_timeinfo {
    qv_uint64_t cu_sec;
    qv_uint64_t cu_nsec;
} cu_timeinfo_t;

/* cu_get_ctr_1: nanoseconds since the Epoch (CLOCK_REALTIME), made strictly
 * increasing within the process so that two calls never return the same
 * value. Returns 0, CU_E_BADARG (ctr NULL) or CU_E_INTERNAL (no clock). */
int cu_get_ctr_1(qv_uint64_t *ctr);
/* cu_get_procspeed_1: the counter's rate, 1000000000 ticks per second.
 * Returns 0 or CU_E_BADARG (NULL). */
int cu_get_procspeed_1(qv_uint64_t *ticks_per_second);
/* cu_cvt_time_1: ctr ticks at ticks_per_second as whole seconds and the
 * remaining nanoseconds (rounded down). Returns 0 or CU_E_BADARG
 * (ticks_per_second 0 or ti NULL). */
int cu_cvt_time_1(qv_uint64_t ctr, qv_uint64_t ticks_per_second, cu_timeinfo_t *ti);

#if defined(__GNUC__)
#pragma GCC visibility pop
#endif
#ifdef __cplusplus
}
#endif
#endif /* QV_CU_H */
