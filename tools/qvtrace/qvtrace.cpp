// qvtrace FILE: prints a trace file written by libqv_tr, one line per record
// in file order, and reports damaged stretches on their own lines.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "record_printer.h"
#include "trace_format.h"

namespace {

constexpr int kExitClean = 0;
constexpr int kExitDamaged = 1;
constexpr int kExitError = 2;
constexpr size_t kChunkSize = size_t{1} << 20;

const char kUsage[] =
    "usage: qvtrace FILE\n"
    "Prints the trace file FILE (as named by QV_TRACE_FILE), one line per record\n"
    "in the order written:\n"
    "  TIME COMPONENT id=N pid=P tid=T ITEM...\n"
    "TIME is UTC with nanoseconds; string items are shown in double quotes with\n"
    "non-printable bytes escaped, data items in hexadecimal.\n"
    "A damaged stretch is shown as \"damaged record at offset N\" and reading\n"
    "goes on at the next whole record.\n"
    "Exit status: 0 clean file, 1 damage found, 2 file unreadable or bad usage.\n";

class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor() {
        if (fd_ >= 0)
            ::close(fd_);
    }
    FileDescriptor(const FileDescriptor &) = delete;
    FileDescriptor &operator=(const FileDescriptor &) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

int fail(const char *path, const std::string &why) {
    std::fprintf(stderr, "qvtrace: %s: %s\n", path, why.c_str());
    return kExitError;
}

int print_trace_file(const char *path) {
    FileDescriptor fd(::open(path, O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0)
        return fail(path, std::strerror(errno));

    qvtr::TraceReader reader;
    auto print = [](const qvtr::TraceEvent &event) {
        if (event.kind == qvtr::TraceEvent::Kind::header)
            return;
        std::string line = qvtrace::format_event(event);
        line += '\n';
        std::fwrite(line.data(), 1, line.size(), stdout);
    };
    // The reader keeps at most one record's worth of bytes (16 MiB) beyond
    // a chunk, so files of any size are read in bounded memory.
    std::vector<uint8_t> pending;
    uint64_t base = 0;
    for (bool eof = false; !eof;) {
        size_t held = pending.size();
        pending.resize(held + kChunkSize);
        ssize_t n;
        do {
            n = ::read(fd.get(), pending.data() + held, kChunkSize);
        } while (n < 0 && errno == EINTR);
        if (n < 0)
            return fail(path, std::strerror(errno));
        pending.resize(held + size_t(n));
        eof = n == 0;
        size_t used = reader.parse(pending, base, eof, print);
        pending.erase(pending.begin(), pending.begin() + ptrdiff_t(used));
        base += used;
        if (reader.unsupported_version() != 0)
            return fail(path, "unsupported trace file version " +
                                  std::to_string(reader.unsupported_version()));
    }
    if (std::fflush(stdout) != 0 || std::ferror(stdout))
        return fail("standard output", std::strerror(errno));
    if (reader.bad_file_header())
        std::fprintf(stderr, "qvtrace: %s: no trace file header at offset 0\n", path);
    if (reader.damage_count() != 0) {
        std::fprintf(stderr, "qvtrace: %s: %llu damaged stretch(es) skipped\n", path,
                     static_cast<unsigned long long>(reader.damage_count()));
        return kExitDamaged;
    }
    return kExitClean;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc == 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
        std::fputs(kUsage, stdout);
        return kExitClean;
    }
    if (argc != 2 || argv[1][0] == '\0') {
        std::fputs(kUsage, stderr);
        return kExitError;
    }
    try {
        return print_trace_file(argv[1]);
    } catch (const std::bad_alloc &) {
        return fail(argv[1], "out of memory");
    }
}
