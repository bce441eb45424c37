// The trace file: opened once per process with O_APPEND, each record written
// whole in one write() so that threads and processes sharing the file never
// interleave inside a record.
#include "internal.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>

namespace qvtr {
namespace {

// Records up to this size are built on the stack: no allocation per record.
constexpr size_t kStackRecordSize = 1024;

bool write_whole(int fd, std::span<const uint8_t> bytes) {
    ssize_t n;
    do {
        n = ::write(fd, bytes.data(), bytes.size());
    } while (n < 0 && errno == EINTR);
    // A short write is not completed by a second call: another writer's record
    // could come between the two parts. The reader sees a damaged record.
    return n >= 0 && size_t(n) == bytes.size();
}

}  // namespace

TraceFile::TraceFile(const std::string &path) {
    // Owner only: records may hold the contents of buffers. A symbolic link
    // is not followed: whoever can plant one where the file is expected
    // would otherwise choose which file a privileged process appends to.
    fd_ = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd_ < 0)
        return;
    struct stat st;
    if (::fstat(fd_, &st) == 0 && st.st_size == 0) {
        // Another writer may find the file empty at the same moment; the
        // reader accepts a repeated header.
        std::array<uint8_t, kFileHeaderSize> header;
        encode_file_header(header);
        write_whole(fd_, header);
    }
}

TraceFile::~TraceFile() {
    if (fd_ >= 0)
        ::close(fd_);
}

int TraceFile::write_record(std::string_view component, uint32_t id, PayloadKind kind,
                            std::span<const Item> items) {
    if (fd_ < 0)
        return TR_E_FILE;
    size_t size = encoded_record_size(component, items);
    if (size == 0)
        return TR_E_ARGUMENT;

    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    RecordHeader header;
    header.component = component;
    header.id = id;
    header.pid = uint32_t(::getpid());
    header.tid = uint32_t(::gettid());
    header.seconds = uint64_t(now.tv_sec);
    header.nanoseconds = uint32_t(now.tv_nsec);
    header.kind = kind;

    std::array<uint8_t, kStackRecordSize> small;
    std::vector<uint8_t> large;
    std::span<uint8_t> out;
    if (size <= small.size()) {
        out = std::span(small).first(size);
    } else {
        large.resize(size);
        out = large;
    }
    encode_record(out, header, items);
    return write_whole(fd_, out) ? TR_OK : TR_E_FILE;
}

TraceFile *process_trace_file() {
    // A function-local static: after the first call, one load of its guard.
    // Never destroyed, so that records written from exit handlers still
    // reach the file.
    static TraceFile *const file = []() -> TraceFile * {
        // Opening the file is a cancellation point; a thread cancelled there
        // would unwind out of the static's initialisation and leave the next
        // caller to open the file again. Held off, the open runs to its end.
        struct HoldOffCancellation {
            int old = 0;
            HoldOffCancellation() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old); }
            ~HoldOffCancellation() { pthread_setcancelstate(old, nullptr); }
        } hold;
        // Ignored in secure-execution mode (set-user-id and the like): the
        // environment then belongs to a less privileged user.
        const char *path = secure_getenv("QV_TRACE_FILE");
        return path && *path ? new TraceFile(path) : nullptr;
    }();
    return file;
}

}  // namespace qvtr
