// Checked reads and atomic writes of the host key and trusted-hosts files.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sodium.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "host_files.h"

namespace qvhost {
namespace {

using Fd = SecOwnedFd;

std::string reason(const std::string &path, const char *what, const char *text) {
    return std::string(what) + " " + path + ": " + text;
}

std::string errno_reason(const std::string &path, const char *what, int err) {
    return reason(path, what, std::strerror(err));
}

std::string mode_text(mode_t mode) {
    char buf[8];
    std::snprintf(buf, sizeof buf, "%04o", static_cast<unsigned>(mode & 07777));
    return buf;
}

std::string directory_of(const std::string &path) {
    auto slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

}  // namespace

bool read_checked_file(const std::string &path, std::size_t max_bytes, mode_t forbidden_mode,
                       const char *what, std::string &out, std::string &why) {
    out.clear();
    Fd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    if (fd.get() < 0) {
        why = errno == ELOOP ? reason(path, what, "is a symbolic link; name the file itself")
                             : errno_reason(path, what, errno);
        return false;
    }
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0) {
        why = errno_reason(path, what, errno);
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        why = reason(path, what, "is not a regular file");
        return false;
    }
    // Whoever owns the file can change its mode and its content.
    if (st.st_uid != 0 && st.st_uid != ::geteuid()) {
        why = reason(path, what, "is owned by another user; it must belong to root or to this user");
        return false;
    }
    if ((st.st_mode & forbidden_mode) != 0) {
        why = reason(path, what,
                     ("has unsafe permissions " + mode_text(st.st_mode) + " (allowed at most " +
                      mode_text(07777 & ~forbidden_mode & 0666) + ")")
                         .c_str());
        return false;
    }
    if (static_cast<unsigned long long>(st.st_size) > max_bytes) {
        why = reason(path, what, ("is larger than " + std::to_string(max_bytes) + " bytes").c_str());
        return false;
    }
    // One more byte than allowed, so that a file that grew after fstat is noticed.
    out.resize(max_bytes + 1);
    std::size_t got = 0;
    while (got < out.size()) {
        ssize_t n = ::read(fd.get(), out.data() + got, out.size() - got);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            sodium_memzero(out.data(), out.size());
            out.clear();
            why = errno_reason(path, what, errno);
            return false;
        }
        if (n == 0) break;
        got += static_cast<std::size_t>(n);
    }
    if (got > max_bytes) {
        sodium_memzero(out.data(), out.size());
        out.clear();
        why = reason(path, what, ("is larger than " + std::to_string(max_bytes) + " bytes").c_str());
        return false;
    }
    // Shrinking keeps the buffer; the bytes beyond are zero already.
    out.resize(got);
    return true;
}

bool write_file_atomically(const std::string &path, std::string_view content, mode_t mode,
                           std::string &why) {
    std::string tmp = path + ".tmpXXXXXX";
    Fd fd(::mkostemp(tmp.data(), O_CLOEXEC));
    if (fd.get() < 0) {
        why = errno_reason(tmp, "cannot create", errno);
        return false;
    }
    auto fail = [&](const char *step) {
        why = std::string("cannot ") + step + " " + tmp + ": " + std::strerror(errno);
        ::unlink(tmp.c_str());
        return false;
    };
    // mkostemp makes the file 0600; the mode is set before any byte is written.
    if (::fchmod(fd.get(), mode) != 0) return fail("set the mode of");
    std::size_t done = 0;
    while (done < content.size()) {
        ssize_t n = ::write(fd.get(), content.data() + done, content.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return fail("write");
        done += static_cast<std::size_t>(n);
    }
    if (::fsync(fd.get()) != 0) return fail("flush");
    if (::close(fd.release()) != 0) return fail("close");
    if (::rename(tmp.c_str(), path.c_str()) != 0) {
        int err = errno;
        ::unlink(tmp.c_str());
        why = "cannot replace " + path + ": " + std::strerror(err);
        return false;
    }
    // The rename itself lasts only once the directory is on disk.
    Fd dir(::open(directory_of(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dir.get() >= 0) ::fsync(dir.get());
    return true;
}

bool crypto_ready() {
    static const bool ready = sodium_init() >= 0;
    return ready;
}

}  // namespace qvhost
