// One-time initialisation of the library's global state, run at the top of
// every exported routine.
#pragma once

#include "qv_sec_internal.h"


// Registers the fork handlers (fork_handlers.cpp); run once, from
// sec__cts_init, after the locks are initialised.
void sec_install_fork_handlers();

inline void sec_init_once() { pthread_once(&sec__init_once_block, sec__cts_init); }

// The configuration file used when QV_SEC_CONFIG is not set: the first if it
// exists, else the second.
inline constexpr const char *kSecConfigPrimary = "/var/qv/cfg/qvsec.cfg";
inline constexpr const char *kSecConfigFallback = "/usr/sbin/quor/cfg/qvsec.cfg";
