// Run by secure_execution_test as a set-user-id program: starts the library
// with whatever configuration and trace variables it was given and prints
// whether it ran in secure-execution mode and what sec_start returned.
#include <cstdio>
#include <sys/auxv.h>

#include "qv_sec.h"

int main() {
    sec_status_desc st{};
    sec_token_t token = nullptr;
    qv_int32_t rc = sec_start(&st, 0, &token);
    std::printf("secure=%lu rc=%d\n", getauxval(AT_SECURE), rc);
    sec_end(&st, 0, token);
    return 0;
}
