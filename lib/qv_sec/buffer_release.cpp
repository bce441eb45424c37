// sec_release_buffer: the one way callers give back the buffers the library
// handed them (typed id buffers, CIDBs, ACL buffers, mechanism lists, opened
// plaintext, ...).
#include <cstdlib>
#include <cstring>
#include <malloc.h>

#include "library_init.h"
#include "trace.h"

extern "C" {

qv_int32_t sec_release_buffer(sec_buffer_t buff) {
    sec_init_once();
    sec_trace_api_entry(kTraceReleaseBuffer, buff);
    if (buff != nullptr) {
        // Opened plaintext and identities are among what comes back here, so
        // the bytes are wiped before the block goes back to the heap. The
        // whole block is wiped, as the allocator knows it: the caller's
        // length may have been changed, and is not trusted to bound it.
        if (buff->value != nullptr) explicit_bzero(buff->value, malloc_usable_size(buff->value));
        std::free(buff->value);
        buff->value = nullptr;
        buff->length = 0;
    }
    sec_trace_api_exit(kTraceReleaseBuffer, 0, nullptr);
    return 0;
}

}  // extern "C"
