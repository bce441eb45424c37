// The bad-argument failure of the ACL and access-check routines: code 4,
// message 2650-031 with the routine, the argument's position and its value
// (a pointer's low 32 bits: the message prints 0x%x).
#pragma once

#include <cstdint>

#include "errors.h"

inline qv_int32_t sec_acl_bad_argument(const char *routine, int position, const void *value) {
    return sec_report(SEC_S_BAD_ARGUMENT, MSG_2650_031, routine, position,
                      static_cast<unsigned>(reinterpret_cast<uintptr_t>(value)));
}
