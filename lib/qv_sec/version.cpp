// sec_version: the release this library was built as.
#include "qv_sec.h"

extern "C" const char *sec_version(void) { return QV_SEC_VERSION; }
