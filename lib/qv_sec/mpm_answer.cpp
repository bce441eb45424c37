#include "mpm_answer.h"

#include <cstring>

#include "errors.h"
#include "qv_sec_mpm.h"

namespace {

constexpr qv_int32_t kFirstBufferSize = 256;

// A module that claims to have written more than the buffer it was given
// broke the protocol; its answer cannot be read safely.
qv_int32_t oversized_answer(const char *routine, const char *caller, qv_int32_t length) {
    return sec_report(SEC_S_BAD_MPM, MSG_2650_034, routine, static_cast<int>(length), caller);
}

// A heap copy of n bytes with a NUL after them.
SecMallocPtr terminated_copy(const char *bytes, size_t n) {
    SecMallocPtr p(static_cast<char *>(std::malloc(n + 1)));
    if (p) {
        std::memcpy(p.get(), bytes, n);
        p.get()[n] = '\0';
    }
    return p;
}

}  // namespace

qv_int32_t sec_query_mpm(SecMpmQuery query, const char *routine, const char *caller, sec_mpm_entry_t entry,
                         sec_status_t st, void *mtoken, SecMpmAnswer *answer, size_t *wanted) {
    answer->bytes.reset();
    answer->length = 0;
    char first[kFirstBufferSize];
    qv_int32_t length = kFirstBufferSize;
    qv_uint32_t rc = query(entry, st, mtoken, &length, first);
    if (rc == 0) {
        if (length < 0 || length > kFirstBufferSize) return oversized_answer(routine, caller, length);
        if (length == 0) return 0;
        answer->bytes = terminated_copy(first, static_cast<size_t>(length));
        if (!answer->bytes) {
            *wanted = static_cast<size_t>(length);
            return SEC_S_NO_MEMORY;
        }
        answer->length = length;
        return 0;
    }
    // Major status 6 with a length: the module needs a buffer of that size.
    if (rc != SEC_S_MPM_FAILURE || st->maj_stat != MPM_S_BUFFER_TOO_SMALL || length <= 0)
        return static_cast<qv_int32_t>(rc);
    const qv_int32_t size = length;
    // One byte more than the module is told of, for the NUL.
    SecMallocPtr larger(static_cast<char *>(std::calloc(static_cast<size_t>(size) + 1, 1)));
    if (!larger) {
        *wanted = static_cast<size_t>(size);
        return SEC_S_NO_MEMORY;
    }
    rc = query(entry, st, mtoken, &length, larger.get());
    if (rc != 0) return static_cast<qv_int32_t>(rc);
    // The buffer is the answer as it stands; the length must still fit it.
    if (length < 0 || length > size) return oversized_answer(routine, caller, length);
    if (length == 0) return 0;
    larger.get()[length] = '\0';
    answer->bytes = std::move(larger);
    answer->length = length;
    return 0;
}
