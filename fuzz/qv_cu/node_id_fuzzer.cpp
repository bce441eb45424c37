// Parses arbitrary node ID file contents.
#include <string_view>

#include "../fuzz_support.h"
#include "cu_internal.h"

QV_FUZZ_TARGET(SIZE_MAX) {
    uint64_t id = 0;
    int rc = qvcu::parse_node_id(std::string_view(reinterpret_cast<const char *>(data), size), &id);
    if (rc != 0 && rc != CU_E_BADFORMAT) __builtin_trap();
}
