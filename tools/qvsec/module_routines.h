// What each module routine is for, seen from the application: the library
// routines that call it, and so fail (or misbehave) when a module lacks it.
// Shared by `qvsec mechs --load` and `qvsec module check`.
#pragma once

#include "mpm.h"

struct MpmRoutineUse {
    // The application calls that reach the routine, and what they do when
    // the module does not export it.
    const char *consequence;
    // Whether ordinary clients and services reach it: a module without it
    // does not conform. The others serve optional features.
    bool essential;
};

// Indexed by sec_mpm_routine_id.
extern const MpmRoutineUse kMpmRoutineUses[MPM_ROUTINE_COUNT];

// The entry of the routine named `name`, or nullptr for a name outside the
// table.
const MpmRoutineUse *mpm_routine_use(const char *name);
