// The buffer-size protocol of the module routines that answer with a name or
// an id (mpm_get_client_name, mpm_get_mapped_name, mpm_get_client_id): one
// call with a 256-byte buffer, and a second one with a buffer of the size
// the module asked for when it answered major status 6.
#pragma once

#include <cstdlib>
#include <memory>

#include "byte_io.h"
#include "qv_sec_internal.h"

using SecMallocPtr = std::unique_ptr<char, SecFree>;

// A module's answer: `length` bytes at `bytes`, always followed by a NUL so
// that a name is a string whether or not the module ended it. An answer of
// length 0 has no bytes.
struct SecMpmAnswer {
    SecMallocPtr bytes;
    qv_int32_t length = 0;
};

using SecMpmQuery = qv_uint32_t (*)(sec_mpm_entry_t, sec_status_t, void *, qv_int32_t *, char *);

// Runs the protocol. Returns 0 with *answer filled; the wrapper's code (3 with
// st filled, or 22) when the module fails; 22 when the module reports more
// bytes than the buffer it was given holds; or SEC_S_NO_MEMORY with nothing
// recorded and *wanted the size that could not be allocated, so that the
// caller reports it with its own message. `routine` and `caller` name the
// module routine and the library routine in the messages.
qv_int32_t sec_query_mpm(SecMpmQuery query, const char *routine, const char *caller, sec_mpm_entry_t entry,
                         sec_status_t st, void *mtoken, SecMpmAnswer *answer, size_t *wanted);
