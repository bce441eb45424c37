/* Fixed-width types shared by every public header of the product. */
#ifndef QV_TYPES_H
#define QV_TYPES_H

#include <stdint.h>

typedef int32_t  qv_int32_t;
typedef uint32_t qv_uint32_t;
typedef uint16_t qv_uint16_t;
typedef int64_t  qv_int64_t;
typedef uint64_t qv_uint64_t;
typedef char     qv_char_t;

#endif /* QV_TYPES_H */
