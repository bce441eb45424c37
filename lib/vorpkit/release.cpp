#include "vorpkit.h"

extern "C" {
const char Vorp_RELEASE[] = "Vorp 1.01 (Nov00B)";
qv_int32_t Vorp_errno = 0;
}
