// Feeds arbitrary bytes to the configuration reader as a file, both as a
// first read and as a re-read over earlier records.
#include <sys/mman.h>
#include <unistd.h>

#include "../fuzz_support.h"
#include "qv_sec_internal.h"

QV_SEC_FUZZ_TARGET(SIZE_MAX) {
    static int fd = memfd_create("qvsec-config", MFD_CLOEXEC);
    static std::string path = "/proc/self/fd/" + std::to_string(fd);
    if (fd < 0 || ftruncate(fd, 0) != 0 || pwrite(fd, data, size, 0) != static_cast<ssize_t>(size)) return;

    sec_config_rec_t recs = nullptr;
    qv_int32_t count = 0, line = 0;
    if (sec__validate_config_file(path.c_str(), &recs, &count, &line) == 0) {
        qv_int32_t n = 0;
        for (sec_config_rec_t r = recs; r; r = r->next) {
            if (r->name == nullptr || r->path == nullptr || r->path[0] == '\0') __builtin_trap();
            ++n;
        }
        if (n != count) __builtin_trap();
    }
    sec__free_config_recs(recs);
}
