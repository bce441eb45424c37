// Allocation-failure sweep. A test program that calls alloc_failure_sweep
// links alloc_failure.cpp, which replaces malloc, calloc, realloc and free
// for the whole program: allocations can be made to fail from the n-th on,
// and the blocks still live are counted.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

namespace qvtest {

// Whether the replacement allocator is the one in use (not under valgrind or
// a sanitizer, which bring their own).
bool failing_allocator_active();

// Runs step with allocations failing from the n-th on, for n = 0, 1, ...
// until a run sees no failure. check(rc, failed) runs with allocation
// restored after each run; it must release what step handed out and put
// back the state before step, so that every block allocated during the run
// is freed again (a block still live counts as a leak). warm, if given, runs
// once first with allocation working (caches that live for the process).
// Skips the test when the failing allocator is not in use.
void alloc_failure_sweep(const std::function<int()> &step, const std::function<void(int rc, bool failed)> &check,
                         const std::function<void()> &warm = nullptr);

// Keeps a copy of the first bytes (at most 64) of block p as they are when p
// is freed, to check that secrets were wiped first; freed_bytes() gives what
// was seen (empty until p is freed). Needs the failing allocator.
void watch_free(const void *p, size_t n);
std::string freed_bytes();

}  // namespace qvtest
