// Arbitrary bytes as the typed identity buffer of sec_login_as_user. The
// configuration names one mechanism whose module file does not exist, so a
// buffer that passes the checks reaches the module lookup and fails there:
// every input must end in 7 (bad buffer), 8 (unknown mechanism) or 22
// (module unusable), and nothing may be read outside the buffer.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

#include "qv_sec.h"

namespace {
sec_token_t g_service = nullptr;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    char dir[] = "/tmp/qv_typed_id_fuzzXXXXXX";
    if (mkdtemp(dir) == nullptr) abort();
    std::string path = std::string(dir) + "/qvsec.cfg";
    FILE *f = fopen(path.c_str(), "w");
    if (f == nullptr) abort();
    std::fprintf(f, "1 fuzz 65538 %s/absent.so i\n", dir);
    std::fclose(f);
    setenv("QV_SEC_CONFIG", path.c_str(), 1);
    sec_status_desc st{};
    if (sec_start(&st, 0x20, &g_service) != 0) abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 1 << 16) return 0;
    // An exact-size copy, so that a read past the end is caught.
    void *copy = size ? malloc(size) : nullptr;
    if (size) memcpy(copy, data, size);
    sec_buffer_desc id{static_cast<qv_int32_t>(size), copy};
    sec_status_desc st{};
    qv_int32_t rc = sec_login_as_user(&st, g_service, &id, nullptr, 0);
    if (rc != 7 && rc != 8 && rc != 22) __builtin_trap();
    bool well_formed = size >= 6 && data[0] == 0x83 && (data[1] == 1 || data[1] == 2);
    if ((rc == 7) == well_formed) __builtin_trap();
    free(copy);
    cu_set_no_error_1();
    return 0;
}
