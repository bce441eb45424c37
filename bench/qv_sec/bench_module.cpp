// A module whose one routine does next to nothing: the benchmark's reference.
#include "qv_sec_mpm.h"

void mpm_init(void) {}

qv_uint32_t mpm_get_ctx_lifetime(qv_uint32_t *min_stat, void *token, qv_int32_t *lifetime) {
    *min_stat = 0;
    *lifetime = token != nullptr ? 1 : 2;
    return 0;
}
