// Cancellation held off for a scope. Destructors are implicitly noexcept: a
// cancellation acted upon inside one (at a write, a condition wait, a call
// into a module) unwinds out of it and ends the process in std::terminate.
// Clean-up code that may reach a cancellation point runs under this guard;
// a pending cancellation then takes effect at the next cancellation point
// after the scope.
#pragma once

#include <pthread.h>

class SecCancelDisabled {
public:
    SecCancelDisabled() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old_); }
    ~SecCancelDisabled() { pthread_setcancelstate(old_, nullptr); }
    SecCancelDisabled(const SecCancelDisabled &) = delete;
    SecCancelDisabled &operator=(const SecCancelDisabled &) = delete;

private:
    int old_ = PTHREAD_CANCEL_ENABLE;
};
