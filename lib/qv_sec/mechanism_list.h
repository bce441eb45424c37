// Mechanism lists (type 0x81): an ordered list of 32-bit mechanism codes, and
// their translation to and from strings of mnemonics.
#pragma once

#include <cstdint>
#include <pthread.h>
#include <string>
#include <vector>

#include "qv_sec_internal.h"

using MechCodes = std::vector<qv_uint32_t>;

inline constexpr qv_uint32_t kMechNone = 0;
inline constexpr size_t kMaxMnemonicLength = 16;
inline constexpr const char *kMnemonicNone = "none";
inline constexpr const char *kEnvPreferredMech = "QV_SEC_MECH";
inline constexpr const char *kEnvImposedMechs = "QV_SEC_IMP_MECHS";

// Serialises the setters of QV_SEC_IMP_MECHS (building the string and
// putenv); taken after SEC_STATE.lock when both are needed, never before.
pthread_mutex_t &sec_imposed_mechs_mutex();

// The value of an environment variable; unset and empty are both NULL.
const char *sec_env_value(const char *name);

// Checks a received list and gives its codes: 0, or 7 (not a list, or a
// length that is not 2 + 4n) or 9 (version above 2), with the message
// recorded.
qv_int32_t sec_read_mech_list(const sec_buffer_desc *list, MechCodes &codes);

// Hands a list of codes to the caller as a newly allocated buffer (type
// 0x81, version 1). On allocation failure: 6 with 2650-032 naming routine.
qv_int32_t sec_give_mech_list(const MechCodes &codes, sec_buffer_t out, const char *routine);

// True when the process's imposed mechanisms are set and lack "none", so an
// unauthenticated context is not allowed.
bool sec_unauthenticated_refused();
