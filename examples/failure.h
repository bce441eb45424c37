/* How the example service and client report a failed library call. */
#ifndef QVSEC_EXAMPLE_FAILURE_H
#define QVSEC_EXAMPLE_FAILURE_H

#include "qv_sec.h"

/* Prints "<what>: <message>" for the failure that code rc reported: the
 * catalogued message of the thread's error record, or for a failure inside a
 * mechanism module (rc 3), the module's status. */
void print_failure(const char *what, qv_int32_t rc, const sec_status_desc *st);

#endif
