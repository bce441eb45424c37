// Helpers shared by the test programs.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace qvtest {

// The source tree (for vector files and fixtures) and the build tree.
std::string source_dir();
std::string binary_dir();

// A fresh directory under $TMPDIR, removed with its contents on destruction.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::string &path() const { return path_; }
    // Writes contents to path()/name and returns the full path.
    std::string write(const std::string &name, const std::string &contents) const;

private:
    std::string path_;
};

std::string read_file(const std::string &path);

// Hex helpers for known-answer tests ("0a1b..."; whitespace ignored).
std::vector<uint8_t> from_hex(const std::string &hex);
std::string to_hex(const uint8_t *data, size_t len);
inline std::string to_hex(const std::vector<uint8_t> &v) { return to_hex(v.data(), v.size()); }

// A vector file holds blocks of "Key = value" lines separated by blank lines;
// "#" starts a comment line. Each block becomes one map.
using VectorBlock = std::map<std::string, std::string>;
std::vector<VectorBlock> read_vectors(const std::string &path_under_tests_vectors);

// Points QV_TRACE_FILE at a file of this process (/tmp/qvtest-NAME-PID),
// removed at exit, and returns its path. The trace library chooses its file
// at the first record, so a program calls this from a static initializer.
std::string trace_file_of_process(const std::string &name);

// This host's name; the name of user uid ("" without a passwd entry); and
// the network name the "local" mechanism gives uid here (user@host, or
// #uid@host without a passwd entry).
std::string this_host();
std::string user_name(unsigned uid);
std::string user_at_host(unsigned uid);

// Polls pred every millisecond until it holds or the timeout passes.
bool wait_until(const std::function<bool()> &pred,
                std::chrono::milliseconds timeout = std::chrono::seconds(10));

}  // namespace qvtest
