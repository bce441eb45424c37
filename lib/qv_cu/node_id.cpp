// This host's 64-bit node ID: from the node ID file, or derived from the
// machine ID when no node ID file exists.
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cstdlib>
#include <new>
#include <string>

#include "cu_internal.h"

namespace qvcu {
namespace {

// Node ID and machine ID files are a line long; anything much larger is not
// one, and is not read whole.
constexpr size_t kMaxIdFile = 4096;

class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor() {
        if (fd_ < 0) return;
        int old;  // close is a cancellation point; a destructor must not unwind
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old);
        close(fd_);
        pthread_setcancelstate(old, &old);
    }
    FileDescriptor(const FileDescriptor &) = delete;
    FileDescriptor &operator=(const FileDescriptor &) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

// 0, CU_E_NOTFOUND (no such file), CU_E_BADFORMAT (too large) or CU_E_INTERNAL.
int read_id_file(const char *path, std::string &contents) {
    FileDescriptor fd(open(path, O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0) return (errno == ENOENT || errno == ENOTDIR) ? CU_E_NOTFOUND : CU_E_INTERNAL;
    char buf[kMaxIdFile + 1];
    size_t used = 0;
    for (;;) {
        ssize_t n = read(fd.get(), buf + used, sizeof buf - used);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return CU_E_INTERNAL;
        if (n == 0) break;
        used += size_t(n);
        if (used > kMaxIdFile) return CU_E_BADFORMAT;
    }
    contents.assign(buf, used);
    return 0;
}

bool is_space(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; }

std::string_view trim(std::string_view s) {
    while (!s.empty() && is_space(s.front())) s.remove_prefix(1);
    while (!s.empty() && is_space(s.back())) s.remove_suffix(1);
    return s;
}

int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool all_hex(std::string_view s) {
    for (char c : s)
        if (hex_value(c) < 0) return false;
    return true;
}

// The machine ID (32 hex digits) hashed with 64-bit FNV-1a under a fixed
// prefix: stable for the host, without publishing the machine ID itself.
int node_id_from_machine_id(std::string_view contents, uint64_t *id) {
    std::string_view hex = trim(contents);
    if (hex.size() != 32 || !all_hex(hex)) return CU_E_BADFORMAT;
    uint64_t h = 0xcbf29ce484222325ULL;
    auto mix = [&h](unsigned char c) {
        h ^= c;
        h *= 0x100000001b3ULL;
    };
    for (char c : std::string_view("qvsec node id:")) mix((unsigned char)c);
    for (char c : hex) mix((unsigned char)(c >= 'A' && c <= 'F' ? c - 'A' + 'a' : c));
    *id = h;
    return 0;
}

}  // namespace

int parse_node_id(std::string_view contents, uint64_t *id) {
    std::string_view hex = trim(contents);
    if (hex.size() != 16 || !all_hex(hex)) return CU_E_BADFORMAT;
    uint64_t v = 0;
    for (char c : hex) v = (v << 4) | uint64_t(hex_value(c));
    *id = v;
    return 0;
}

int node_id_from(const char *env_file, const char *default_file, const char *machine_id_file,
                 uint64_t *id) {
    std::string contents;
    for (const char *path : {env_file, default_file}) {
        if (path == nullptr || *path == '\0') continue;
        int rc = read_id_file(path, contents);
        if (rc == CU_E_NOTFOUND) continue;
        return rc != 0 ? rc : parse_node_id(contents, id);
    }
    if (machine_id_file == nullptr || *machine_id_file == '\0') return CU_E_NOTFOUND;
    int rc = read_id_file(machine_id_file, contents);
    return rc != 0 ? rc : node_id_from_machine_id(contents, id);
}

}  // namespace qvcu

extern "C" int cu_get_node_id_1(qv_uint64_t *id) {
    if (id == nullptr) return CU_E_BADARG;
    try {
        // A set-user-id program ignores the variable: it would let the user
        // who started it choose the file read and the identity claimed.
        return qvcu::node_id_from(secure_getenv("QV_NODE_ID_FILE"), "/var/qv/cfg/node_id", "/etc/machine-id", id);
    } catch (const std::bad_alloc &) {
        return CU_E_NOMEM;
    }
}
