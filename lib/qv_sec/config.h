// The configuration file: one mechanism module per line, read whole and kept
// in SEC_STATE.config. The routines (declared in qv_sec.h) run under
// SEC_STATE.lock, taken by the caller.
#pragma once

#include "owned_fd.h"
#include "qv_sec_internal.h"

#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

// Why a configuration or module file cannot be trusted by a privileged
// process: bits of the answer of sec__file_distrust.
inline constexpr unsigned kSecFileForeignOwner = 0x1;    // owned by neither root nor the effective user
inline constexpr unsigned kSecFileOthersMayWrite = 0x2;  // writable by its group or by others
inline constexpr unsigned kSecFileNotRegular = 0x4;      // not a regular file

// Exported for the qvsec tool, which applies the same rule.
#pragma GCC visibility push(default)
extern "C" {

// Non-zero when the process runs in secure-execution mode (set-user-id,
// set-group-id or file capabilities): the environment then belongs to a less
// privileged user and may not choose files or code.
int sec__secure_execution(void);

// The reasons (kSecFile* bits) why the file described by sb cannot be trusted
// by a process whose effective user is euid; 0 when it can.
unsigned sec__file_distrust(const struct stat *sb, uid_t euid);

}  // extern "C"
#pragma GCC visibility pop
