// Reporting failures: one catalogued error record per failure, and the
// per-thread capture (sec__error_*) that keeps the first failure of a series
// of attempts.
#pragma once

#include <exception>
#include <new>
#include <type_traits>

#include "messages.h"
#include "qv_cu.h"
#include "qv_sec_internal.h"


inline constexpr const char *kSecCatalogue = "qvsec.cat";
inline constexpr int kSecMessageSet = 1;

// The default text of a message number; out-of-range numbers get the text
// that says so.
inline const char *sec_message_text(int number) {
    return number >= 0 && number < SEC_MSG_COUNT ? cu_mesgtbl_qvsec_msg[number] : cu_badid_qvsec_msg;
}

// Records return code rc with message `number` and its arguments (C types
// only: they are read back through the message's conversions). Returns what
// the utility library returns, which is rc.
template <typename... Args>
qv_int32_t sec_report(qv_int32_t rc, int number, Args... args) {
    static_assert(((std::is_arithmetic_v<Args> || std::is_pointer_v<Args>) && ...),
                  "message arguments must be plain C values");
    return cu_set_error_1(rc, nullptr, kSecCatalogue, kSecMessageSet, number, sec_message_text(number), args...);
}

// Runs the body of an exported routine so that no exception leaves it: a
// failed allocation becomes the no-memory code, anything else an internal
// error. Everything the library throws derives from std::exception; a
// thread cancellation's unwind does not, and passes through untouched. (A
// handler for abi::__forced_unwind would do the same, but the runtime binds
// its reference to a null object, which the undefined-behaviour sanitizer
// stops at.)
template <typename Body>
qv_int32_t sec_guard(Body &&body) {
    try {
        return body();
    } catch (const std::bad_alloc &) {
        return sec_report(SEC_S_NO_MEMORY, MSG_2650_004);
    } catch (const std::exception &) {
        return sec_report(SEC_S_INTERNAL, MSG_2650_023);
    }
}
