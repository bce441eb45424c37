// sec_release_buffer: the one way callers give back the buffers the library
// handed them (typed id buffers, CIDBs, ACL buffers, mechanism lists, ...).
#include <cstdlib>

#include "library_init.h"
#include "trace.h"

extern "C" {

qv_int32_t sec_release_buffer(sec_buffer_t buff) {
    sec_init_once();
    sec_trace_api_entry(kTraceReleaseBuffer, buff);
    if (buff != nullptr) {
        std::free(buff->value);
        buff->value = nullptr;
        buff->length = 0;
    }
    sec_trace_api_exit(kTraceReleaseBuffer, 0, nullptr);
    return 0;
}

}  // extern "C"
