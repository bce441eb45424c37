// Wraps the body of every exported routine: errno is kept as the caller left
// it, and no C++ exception crosses into C (cancellation's unwind excepted).
#pragma once

#include <cxxabi.h>

#include <cerrno>
#include <new>

#include "qv_tr.h"

namespace qvtr {

template <typename F>
int guarded_call(F body) {
    int saved_errno = errno;
    int rc;
    try {
        rc = body();
    } catch (abi::__forced_unwind &) {
        errno = saved_errno;
        throw;
    } catch (const std::bad_alloc &) {
        rc = TR_E_NO_MEMORY;
    } catch (...) {
        rc = TR_E_ARGUMENT;  // nothing else is thrown below; never let it out
    }
    errno = saved_errno;
    return rc;
}

}  // namespace qvtr
