/*
 * libqv_tr: component tracing. Components register an array of detail levels
 * (one byte per category) that this library owns and sets; they test a byte
 * before every record, so disabled tracing costs nothing else.
 *
 * Trace levels: the environment variable QV_TRACE, read at every
 * registration, and tr_set_levels_1 use one grammar:
 *
 *   settings  = group *( ";" group )
 *   group     = component ":" setting *( "," setting )
 *   setting   = category "=" level
 *   component = a registered component name, or "*" for every component
 *   category  = a category name as registered, or "*" for every category
 *   level     = decimal number 0 to 255
 *
 * e.g. QV_TRACE="_SEA:API=8,Buffer=1;_XYZ:*=1". Component and category names
 * are matched without regard to ASCII case; blanks around names and numbers
 * are ignored; empty groups and settings are skipped. A malformed group or
 * setting is ignored and the rest still applies. Settings apply from left to
 * right, so a later one wins. A level is never set below the category's
 * minimum level.
 *
 * Records: appended to the file named by QV_TRACE_FILE, read at the first
 * record of the process. When it is unset or empty no file is created and
 * every record is dropped at once, with nothing allocated. Each record holds
 * the component, the record id, the process and thread ids, the time and the
 * payload, and reaches the file in one write, so several threads and
 * processes may share one file. The tool qvtrace prints a trace file.
 * Records of components that are not registered are written like any other:
 * the level test is the caller's. The file is opened without following a
 * symbolic link (a link there is refused, and nothing is recorded), and
 * close-on-exec.
 *
 * A process in secure-execution mode (set-user-id, set-group-id or file
 * capabilities) ignores both QV_TRACE and QV_TRACE_FILE: they would let the
 * user who started it choose files and record secrets of the process.
 *
 * Return codes of every routine below; none of them changes errno.
 */
#ifndef QV_TR_H
#define QV_TR_H

#include <stddef.h>
#include "qv_types.h"

#define TR_OK             0 /* success, or record dropped because no file is configured */
#define TR_E_ARGUMENT     1 /* bad argument (NULL or over-long name, bad count, record too large) */
#define TR_E_NO_MEMORY    2 /* memory exhausted */
#define TR_E_FILE         3 /* the trace file could not be opened or written */
#define TR_E_NOT_FOUND    4 /* the component is not registered */
#define TR_E_BAD_SETTING  5 /* part of a level setting was malformed and ignored */

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

/* tr_register_component_1 registers comp (1 to 255 bytes) with ncats
 * categories. levels must have an element for every category_id (ids are
 * 0 or more); the library owns the array until the component is unregistered
 * or registered again, and writes each levels[category_id]: first its default
 * (raised to its minimum), then the settings of QV_TRACE, then those given
 * earlier to tr_set_levels_1. cats is copied. Registering a registered name
 * again replaces its array and categories; the old array is left as it is.
 * Fails with TR_E_ARGUMENT (nothing registered) or TR_E_NO_MEMORY. */
int tr_register_component_1(const char *comp, tr_detail_level_t *levels,
                            const tr_category_description *cats, int ncats);

/* tr_record_id_1 writes a record with no payload. */
int tr_record_id_1(const char *comp, qv_uint32_t id);

/* tr_record_data_1 writes a record of npairs data items, each given as two
 * arguments (const void *data, size_t length); a length of 0 records an empty
 * item whatever the pointer. A NULL pointer with a non-zero length is
 * TR_E_ARGUMENT and nothing is written. A record may hold up to 16 MiB. */
int tr_record_data_1(const char *comp, qv_uint32_t id, qv_uint32_t npairs, ...);

/* tr_record_strings_1 writes a record of nstrings NUL-terminated strings
 * (const char *), each recorded with its NUL; a NULL string is recorded as an
 * empty item, which qvtrace shows as (null). */
int tr_record_strings_1(const char *comp, qv_uint32_t id, qv_uint32_t nstrings, ...);

/* tr_unregister_component_1 gives the component's level array back: its
 * categories' levels are set to 0 and the library no longer writes it.
 * TR_E_NOT_FOUND when comp is not registered. */
int tr_unregister_component_1(const char *comp);

/* tr_set_levels_1 changes levels while the process runs, with the grammar
 * above, in the arrays of the registered components; the settings are also
 * kept and applied to components registered later (after QV_TRACE). A
 * component sees a change at its next level test. Returns TR_E_BAD_SETTING
 * when some part was malformed (the well-formed parts still apply),
 * TR_E_ARGUMENT for NULL settings. */
int tr_set_levels_1(const char *settings);

#if defined(__GNUC__)
#pragma GCC visibility pop
#endif
#ifdef __cplusplus
}
#endif
#endif /* QV_TR_H */
