// The configuration file: one mechanism module per line, read whole and kept
// in SEC_STATE.config. The routines (declared in qv_sec.h) run under
// SEC_STATE.lock, taken by the caller.
#pragma once

#include "qv_sec.h"
