// qvtrace [--raw] [--config CFG] FILE: prints a trace file written by
// libqv_tr, one line per record in file order, the security library's
// records by name, and reports damaged stretches on their own lines.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "library_init.h"
#include "qv_sec.h"
#include "record_printer.h"
#include "trace_format.h"

namespace {

constexpr int kExitClean = 0;
constexpr int kExitDamaged = 1;
constexpr int kExitError = 2;
constexpr size_t kChunkSize = size_t{1} << 20;

const char kUsage[] =
    "usage: qvtrace [--raw] [--config CFG] FILE\n"
    "Prints the trace file FILE (as named by QV_TRACE_FILE), one line per record\n"
    "in the order written:\n"
    "  TIME COMPONENT id=N pid=P tid=T ITEM...\n"
    "TIME is UTC with nanoseconds. The security library's records (component\n"
    "_SEA) are shown by name: a routine's entry with its arguments, its exit with\n"
    "the return code and status, module loading and locking, the headers of the\n"
    "buffers traced (mechanism lists, CCDBs, seal buffers, ...). Mechanism codes\n"
    "are shown with their mnemonics from the configuration file CFG (default:\n"
    "the one the library reads, from QV_SEC_CONFIG or its standard places).\n"
    "Other records, and all of them with --raw, are shown as items: strings in\n"
    "double quotes with non-printable bytes escaped, data in hexadecimal.\n"
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

// The configuration's mnemonics by code. The default file is chosen as the
// library chooses it; that one may well be absent where a trace is read, and
// then codes are shown alone. A file named with --config must be readable.
bool read_mnemonics(const char *named, qvtrace::Mnemonics &names) {
    const char *path = named != nullptr ? named : std::getenv("QV_SEC_CONFIG");
    struct stat sb;
    if (path == nullptr)
        path = ::stat(kSecConfigPrimary, &sb) == 0 ? kSecConfigPrimary : kSecConfigFallback;
    sec_config_rec_t recs = nullptr;
    qv_int32_t count = 0, line = 0;
    if (sec__validate_config_file(path, &recs, &count, &line) != 0) {
        if (named == nullptr)
            return true;
        std::fprintf(stderr, "qvtrace: %s: not a readable configuration file%s\n", path,
                     line > 0 ? (" (line " + std::to_string(line) + ")").c_str() : "");
        return false;
    }
    for (sec_config_rec_t r = recs; r != nullptr; r = r->next)
        if (r->name != nullptr)
            names.emplace(r->code, r->name);
    sec__free_config_recs(recs);
    return true;
}

int print_trace_file(const char *path, const qvtrace::Mnemonics *names) {
    FileDescriptor fd(::open(path, O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0)
        return fail(path, std::strerror(errno));

    qvtr::TraceReader reader;
    auto print = [names](const qvtr::TraceEvent &event) {
        if (event.kind == qvtr::TraceEvent::Kind::header)
            return;
        std::string line = qvtrace::format_event(event, names);
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
    bool raw = false;
    const char *config = nullptr;
    int i = 1;
    for (; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            std::fputs(kUsage, stdout);
            return kExitClean;
        }
        if (std::strcmp(argv[i], "--raw") == 0) {
            raw = true;
        } else if (std::strcmp(argv[i], "--config") == 0) {
            if (++i == argc) {
                std::fputs(kUsage, stderr);
                return kExitError;
            }
            config = argv[i];
        } else {
            break;
        }
    }
    if (argc - i != 1 || argv[i][0] == '\0') {
        std::fputs(kUsage, stderr);
        return kExitError;
    }
    try {
        qvtrace::Mnemonics names;
        if (!raw && !read_mnemonics(config, names))
            return kExitError;
        return print_trace_file(argv[i], raw ? nullptr : &names);
    } catch (const std::bad_alloc &) {
        return fail(argv[i], "out of memory");
    }
}
