// Access to the scriptable test module (mpm/test) from a test program. The
// module files are under the build tree's lib/qvsec; a TestMpm opens the
// same file the library loads (one copy per process) and drives it through
// test_mpm_control.h.
#pragma once

#include <cstdlib>
#include <dlfcn.h>
#include <unistd.h>
#include <stdexcept>
#include <string>

#include "test_mpm_control.h"
#include "test_support.h"

namespace qvtest {

// Files built by mpm/test.
inline constexpr const char *kTestMpm = "libqvtest_mpm.so";            // every routine
inline constexpr const char *kTestMpm2 = "libqvtest_mpm2.so";          // the same, its own state
inline constexpr const char *kTestMpmNoFlags = "libqvtest_mpm_noflags.so";  // no mpm_get_ctx_flags
inline constexpr const char *kTestMpmNoInit = "libqvtest_mpm_noinit.so";    // no mpm_init
inline constexpr const char *kTestMpmEmpty = "qvtest_empty.so";        // an empty file
inline constexpr const char *kTestMpmNotElf = "qvtest_notelf.so";      // a text file

// The build tree's lib/qvsec; without QV_TEST_BINARY_DIR, found from the
// test program's own place (build/bin).
inline std::string module_path(const std::string &file) {
    if (std::getenv("QV_TEST_BINARY_DIR") != nullptr) return binary_dir() + "/lib/qvsec/" + file;
    char exe[4096];
    ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
    std::string dir = n > 0 ? std::string(exe, static_cast<size_t>(n)) : std::string("./x");
    dir.erase(dir.rfind('/'));
    return dir + "/../lib/qvsec/" + file;
}

class TestMpm {
public:
    explicit TestMpm(const std::string &file = kTestMpm) : path_(module_path(file)) {
        handle_ = dlopen(path_.c_str(), RTLD_NOW);
        if (handle_ == nullptr) throw std::runtime_error(std::string("cannot open ") + path_ + ": " + dlerror());
        ctl_ = sym<qvtest_mpm_control_t *(*)()>("qvtest_mpm_control")();
        reset_ = sym<void (*)()>("qvtest_mpm_reset");
        release_ = sym<void (*)()>("qvtest_mpm_release");
        blocked_ = sym<int (*)()>("qvtest_mpm_blocked");
        calls_ = sym<unsigned long (*)(int)>("qvtest_mpm_calls");
        handles_ = sym<long (*)()>("qvtest_mpm_live_handles");
        buffers_ = sym<long (*)()>("qvtest_mpm_live_buffers");
        reset();
    }
    ~TestMpm() { dlclose(handle_); }
    TestMpm(const TestMpm &) = delete;
    TestMpm &operator=(const TestMpm &) = delete;

    const std::string &path() const { return path_; }
    // Defaults for every routine, records and call counts cleared.
    void reset() { reset_(); }
    // Lets every blocked routine return (until the next reset).
    void release() { release_(); }
    int blocked() const { return blocked_(); }
    unsigned long calls(int routine) const { return calls_(routine); }
    long live_handles() const { return handles_(); }
    long live_buffers() const { return buffers_(); }
    qvtest_mpm_behaviour_t &behaviour(int routine) { return ctl_->behaviour[routine]; }
    const qvtest_mpm_call_t &record(int routine) const { return ctl_->record[routine]; }

private:
    template <typename F>
    F sym(const char *name) {
        void *p = dlsym(handle_, name);
        if (p == nullptr) throw std::runtime_error(std::string("no ") + name + " in " + path_);
        return reinterpret_cast<F>(p);
    }
    std::string path_;
    void *handle_ = nullptr;
    qvtest_mpm_control_t *ctl_ = nullptr;
    void (*reset_)() = nullptr;
    void (*release_)() = nullptr;
    int (*blocked_)() = nullptr;
    unsigned long (*calls_)(int) = nullptr;
    long (*handles_)() = nullptr;
    long (*buffers_)() = nullptr;
};

}  // namespace qvtest
