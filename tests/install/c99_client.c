/* A client written in plain C99 against the installed headers: a failing
 * call leaves an error record whose id, message number and text it reads. */
#include <stdio.h>
#include <stdlib.h>

#include "qv_cu.h"
#include "qv_sec_internal.h"

int main(int argc, char **argv) {
    sec_config_rec_t recs = NULL;
    qv_int32_t count = 0, line = 0;
    cu_error_t *err = NULL;
    char *msg = NULL;
    qv_uint32_t rc;

    if (argc != 2) return 2;
    rc = sec__validate_config_file(argv[1], &recs, &count, &line);
    sec__free_config_recs(recs);
    if (cu_get_error_1(&err) != 0) return 3;
    if (cu_get_errmsg_1(err, &msg) != 0) return 4;
    printf("rc=%u id=%d set=%d num=%d line=%d\n%s", (unsigned)rc, (int)err->cu_error_id, (int)err->cu_msg_set,
           (int)err->cu_msg_num, (int)line, msg);
    cu_rel_errmsg_1(msg);
    cu_rel_error_1(err);
    return 0;
}
