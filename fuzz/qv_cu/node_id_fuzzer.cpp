// Parses arbitrary node ID file contents.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "cu_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    uint64_t id = 0;
    int rc = qvcu::parse_node_id(std::string_view(reinterpret_cast<const char *>(data), size), &id);
    if (rc != 0 && rc != CU_E_BADFORMAT) __builtin_trap();
    return 0;
}
