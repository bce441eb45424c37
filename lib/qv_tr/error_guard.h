// Wraps the body of every exported routine: errno is kept as the caller left
// it, and no C++ exception crosses into C (cancellation's unwind excepted).
#pragma once

#include <cerrno>
#include <exception>
#include <new>

#include "qv_tr.h"

namespace qvtr {

// Everything thrown below derives from std::exception; a thread
// cancellation's unwind does not, and passes through with errno restored.
// (A handler for abi::__forced_unwind would do the same, but the runtime
// binds its reference to a null object, which the undefined-behaviour
// sanitizer stops at.)
template <typename F>
int guarded_call(F body) {
    struct KeepErrno {
        int saved = errno;
        ~KeepErrno() { errno = saved; }
    } keep;
    try {
        return body();
    } catch (const std::bad_alloc &) {
        return TR_E_NO_MEMORY;
    } catch (const std::exception &) {
        return TR_E_ARGUMENT;  // nothing else is thrown below; never let it out
    }
}

}  // namespace qvtr
