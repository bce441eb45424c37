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

/* Type of one message argument, read from the conversion in the default text. */
typedef enum cu_arg_type {
    CU_ARG_INT = 1,      /* %d %i %c (int) */
    CU_ARG_UINT = 2,     /* %u %x %X %o (unsigned int) */
    CU_ARG_LONG = 3,     /* %ld %lld %jd %zd ... */
    CU_ARG_ULONG = 4,    /* %lu %llx %zx ... */
    CU_ARG_DOUBLE = 5,   /* %f %e %g */
    CU_ARG_STRING = 6,   /* %s: copied into the record */
    CU_ARG_POINTER = 7   /* %p */
} cu_arg_type_t;

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

/* cu_set_error_1: replaces the calling thread's error record; the variable
 * arguments are read according to the conversions of msg_default (positional
 * %N$ or plain). Returns error_id. */
int cu_set_error_1(int error_id, const char *ffdc_id, const char *msg_cat,
                   int msg_set, int msg_num, const char *msg_default, ...);

/* cu_get_error_1: a copy of the thread's record (cu_error_id 0 and no message
 * when there is none), released with cu_rel_error_1. Returns 0, or 15 when
 * memory runs out (and *err is NULL). */
int cu_get_error_1(cu_error_t **err);

/* cu_pset_error_1: makes a copy of err the thread's record; NULL clears it. */
int cu_pset_error_1(const cu_error_t *err);

/* cu_set_no_error_1: clears the thread's record. */
int cu_set_no_error_1(void);

/* cu_get_errmsg_1: the formatted message: the catalogue's text for (set,
 * number) when the catalogue is found, else the default text, with the
 * arguments substituted. Released with cu_rel_errmsg_1. */
int cu_get_errmsg_1(const cu_error_t *err, char **msg);

void cu_rel_error_1(cu_error_t *err);
void cu_rel_errmsg_1(char *msg);

/* Code-set conversion, wrapping iconv. */
typedef struct cu_iconv cu_iconv_t;

#define CU_ICONV_TO_UTF8    0
#define CU_ICONV_FROM_UTF8  1

/* cu_iconv_open_1: direction 0: codeset to UTF-8; 1: UTF-8 to codeset. */
int cu_iconv_open_1(const char *codeset, int direction, cu_iconv_t **hdl);
/* cu_iconv_str_1: converts *in_len bytes of in into a malloc'ed *out of
 * *out_len bytes (NUL-terminated, the NUL not counted). Result 0 success,
 * 15 no memory, 17 or 20 internal failure, any other value: the input cannot
 * be converted. */
int cu_iconv_str_1(cu_iconv_t *hdl, int flags, char *in, size_t *in_len,
                   char **out, size_t *out_len);
int cu_iconv_close_1(cu_iconv_t *hdl);

/* cu_get_node_id_1: this host's 64-bit node ID ($QV_NODE_ID_FILE, else
 * /var/qv/cfg/node_id, 16 hex digits; else derived from /etc/machine-id). */
int cu_get_node_id_1(qv_uint64_t *id);

/* High-resolution time: a 64-bit counter, its rate in ticks per second, and
 * the conversion of a counter value into seconds and nanoseconds. */
typedef struct cu_timeinfo {
    qv_uint64_t cu_sec;
    qv_uint64_t cu_nsec;
} cu_timeinfo_t;

int cu_get_ctr_1(qv_uint64_t *ctr);
int cu_get_procspeed_1(qv_uint64_t *ticks_per_second);
int cu_cvt_time_1(qv_uint64_t ctr, qv_uint64_t ticks_per_second, cu_timeinfo_t *ti);

#if defined(__GNUC__)
#pragma GCC visibility pop
#endif
#ifdef __cplusplus
}
#endif
#endif /* QV_CU_H */
