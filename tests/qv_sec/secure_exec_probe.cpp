// Run by secure_execution_test as a set-user-id program: starts the library
// with whatever configuration and trace variables it was given and prints
// whether it ran in secure-execution mode, what sec_start returned, the
// trace level of the API category and the node id it found.
#include <cstdio>
#include <sys/auxv.h>

#include "qv_cu.h"
#include "qv_sec_internal.h"

int main() {
    sec_status_desc st{};
    sec_token_t token = nullptr;
    qv_int32_t rc = sec_start(&st, 0, &token);
    qv_uint64_t node = 0;
    int node_rc = cu_get_node_id_1(&node);
    // The API category's level: what QV_TRACE would have raised.
    std::printf("secure=%lu rc=%d api=%u node=%d:%016llx\n", getauxval(AT_SECURE), rc, sec__trace_detail_levels[2],
                node_rc, static_cast<unsigned long long>(node));
    sec_end(&st, 0, token);
    return 0;
}
