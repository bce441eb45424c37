// Trace record ids of the exported routines: an entry record (id only, or
// with the arguments at the higher level) and an exit record (id only, with
// the return code, or with the return code and the status record).
#pragma once

#include "qv_types.h"

struct sec_trace_ids {
    qv_uint32_t entry;
    qv_uint32_t entry_data;
    qv_uint32_t exit;
    qv_uint32_t exit_rc;
    qv_uint32_t exit_status;
};

// Ids 1-8 are the helper records, 11-27 start-up and service tokens, 164-178
// the module table; the routines below take blocks of five from 30 on.
constexpr sec_trace_ids trace_ids_block(qv_uint32_t first) {
    return {first, first + 1, first + 2, first + 3, first + 4};
}

inline constexpr sec_trace_ids kTraceGetAuthMethods = trace_ids_block(30);
inline constexpr sec_trace_ids kTraceCreateMechBuffer = trace_ids_block(35);
inline constexpr sec_trace_ids kTraceAddImposedMechs = trace_ids_block(40);
inline constexpr sec_trace_ids kTraceSetImposedMechs = trace_ids_block(45);
inline constexpr sec_trace_ids kTraceClearImposedMechs = trace_ids_block(50);
inline constexpr sec_trace_ids kTraceReconcileAuthMethods = trace_ids_block(55);
inline constexpr sec_trace_ids kTraceStartSecContext = trace_ids_block(60);
inline constexpr sec_trace_ids kTraceCompleteSecContext = trace_ids_block(65);
inline constexpr sec_trace_ids kTraceReceiveSecContext = trace_ids_block(70);
inline constexpr sec_trace_ids kTraceGetCtxAttribute = trace_ids_block(75);
inline constexpr sec_trace_ids kTraceGetCtxLifetime = trace_ids_block(80);
inline constexpr sec_trace_ids kTracePrepareData = trace_ids_block(85);
inline constexpr sec_trace_ids kTraceProcessData = trace_ids_block(90);
inline constexpr sec_trace_ids kTraceEndContext = trace_ids_block(95);
inline constexpr sec_trace_ids kTraceLoginAsService = trace_ids_block(100);
inline constexpr sec_trace_ids kTraceRenewIdentity = trace_ids_block(105);
inline constexpr sec_trace_ids kTraceLoginAsUser = trace_ids_block(110);
inline constexpr sec_trace_ids kTraceGetClientIdentity = trace_ids_block(115);
inline constexpr sec_trace_ids kTraceReleaseName = trace_ids_block(120);
inline constexpr sec_trace_ids kTraceReleaseBuffer = trace_ids_block(125);
inline constexpr sec_trace_ids kTraceSignDataV = trace_ids_block(130);
inline constexpr sec_trace_ids kTraceVerifyDataV = trace_ids_block(135);
inline constexpr sec_trace_ids kTraceCreateCidb = trace_ids_block(150);
inline constexpr sec_trace_ids kTraceCreateIdContext = trace_ids_block(155);
inline constexpr sec_trace_ids kTraceGetClientGroups = trace_ids_block(140);
inline constexpr sec_trace_ids kTraceUserValid = trace_ids_block(145);
// The privilege set an identity context was given (strings: name, mapped
// name, group count, group names).
inline constexpr qv_uint32_t kTracePrivset = 160;
