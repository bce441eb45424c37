// The client's network name as a context's module reports it, shared by the
// routines that turn a context into a portable identity.
#pragma once

#include "mpm_answer.h"

// Asks the module (entry, its context handle mtoken) for the client name with
// the buffer-size protocol. Returns 0 with *name set; 6 (2650-032 naming
// caller); 22 (2650-067) for an empty name; or the module's failure.
qv_int32_t sec_module_client_name(sec_mpm_entry_t entry, void *mtoken, sec_status_t st, const char *caller,
                                  SecMallocPtr &name);
