#include "failure.h"

#include <stdio.h>
#include <string.h>

#include "qv_cu.h"

void print_failure(const char *what, qv_int32_t rc, const sec_status_desc *st) {
    cu_error_t *err = NULL;
    char *msg = NULL;
    if (rc == SEC_S_MPM_FAILURE && st != NULL) {
        fprintf(stderr, "%s: mechanism 0x%x failed in %s (major 0x%x, minor 0x%x)\n", what, st->mech_code,
                st->desc, st->maj_stat, st->min_stat);
        return;
    }
    if (cu_get_error_1(&err) == 0 && err != NULL && err->cu_error_id != 0 && cu_get_errmsg_1(err, &msg) == 0) {
        size_t len = strlen(msg);
        while (len > 0 && msg[len - 1] == '\n') msg[--len] = '\0';
        fprintf(stderr, "%s (code %d): %s\n", what, (int)rc, msg);
    } else {
        fprintf(stderr, "%s: failed with code %d\n", what, (int)rc);
    }
    cu_rel_errmsg_1(msg);
    cu_rel_error_1(err);
}
