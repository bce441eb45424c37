// The library's configuration for the benchmarks: the test module as the only
// mechanism (code 65538), in a temporary file named by QV_SEC_CONFIG.
#pragma once

#include <cstdlib>
#include <string>
#include <unistd.h>

// Writes the file and points QV_SEC_CONFIG at it; returns its path, to be
// removed at the end, or "" when it cannot be written.
inline std::string use_test_module_config() {
    char cfg[] = "/tmp/qvsec-bench-XXXXXX";
    int fd = mkstemp(cfg);
    std::string line = "1 qvtest 65538 " QVBENCH_TEST_MPM " i\n";
    bool ok = fd >= 0 && write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
    if (fd >= 0) close(fd);
    if (!ok) return "";
    setenv("QV_SEC_CONFIG", cfg, 1);
    unsetenv("QV_SEC_IMP_MECHS");
    return cfg;
}
