/*
 * libqv_tr: component tracing. Components register an array of detail levels
 * (one byte per category) that this library owns and sets; they test a byte
 * before every record, so disabled tracing costs nothing else.
 */
#ifndef QV_TR_H
#define QV_TR_H

#include <stddef.h>
#include "qv_types.h"

#ifdef __cplusplus
extern "C" {
#endif
#if defined(__GNUC__)
#pragma GCC visibility push(default)
#endif

typedef unsigned char tr_detail_level_t;

typedef struct {
    int category_id;
    const char *category_name;
    tr_detail_level_t default_level_of_detail;
    tr_detail_level_t minimum_level_of_detail;
} tr_category_description;

/* Registers comp; levels[category_id] is set from the defaults and then from
 * QV_TRACE (e.g. QV_TRACE="_SEA:API=8,Buffer=1", "*" for every category). */
int tr_register_component_1(const char *comp, tr_detail_level_t *levels,
                            const tr_category_description *cats, int ncats);
/* Record with no payload. */
int tr_record_id_1(const char *comp, qv_uint32_t id);
/* Record of npairs (const void *, size_t) pairs. */
int tr_record_data_1(const char *comp, qv_uint32_t id, qv_uint32_t npairs, ...);
/* Record of nstrings NUL-terminated strings. */
int tr_record_strings_1(const char *comp, qv_uint32_t id, qv_uint32_t nstrings, ...);
int tr_unregister_component_1(const char *comp);

#if defined(__GNUC__)
#pragma GCC visibility pop
#endif
#ifdef __cplusplus
}
#endif
#endif /* QV_TR_H */
