// qvsec mac keygen KEYFILE | sign KEYFILE FILE [TOKENFILE] | verify KEYFILE FILE TOKENFILE
//
// Message authentication under a shared DES key from the shell. A key file
// holds the 8 raw key bytes, exactly as the library's key buffer; a token
// file holds the 24 raw token bytes. Without TOKENFILE, sign prints the token
// as 48 hex digits, and verify takes a token file in either form, so that
// `qvsec mac sign k f > t` then `qvsec mac verify k f t` works.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "owned_fd.h"
#include "commands.h"
#include "qv_sec.h"

const char *const kMacUsage =
    "usage: qvsec mac keygen KEYFILE\n"
    "       qvsec mac sign KEYFILE FILE [TOKENFILE]\n"
    "       qvsec mac verify KEYFILE FILE TOKENFILE\n";

namespace {

// Key files are small; anything larger is not one, and is not read whole.
constexpr size_t kKeyFileLimit = 4096;
constexpr size_t kTokenFileLimit = 4096;

// Bytes that may hold a key: wiped before they are released.
struct SecretBytes {
    std::vector<uint8_t> bytes;
    SecretBytes() = default;
    SecretBytes(const SecretBytes &) = delete;
    SecretBytes &operator=(const SecretBytes &) = delete;
    ~SecretBytes() {
        if (!bytes.empty()) explicit_bzero(bytes.data(), bytes.size());
    }
};

bool fail_errno(const std::string &path, const char *what) {
    std::fprintf(stderr, "qvsec: %s: %s: %s\n", path.c_str(), what, std::strerror(errno));
    return false;
}

// Reads the whole file at path into out; at most limit bytes (0: no limit
// beyond what a message buffer can describe).
bool read_whole(const std::string &path, size_t limit, std::vector<uint8_t> &out) {
    SecOwnedFd f(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (f.get() < 0) return fail_errno(path, "cannot open");
    size_t max = limit ? limit : static_cast<size_t>(INT32_MAX);
    out.clear();
    uint8_t chunk[65536];
    for (;;) {
        ssize_t n = read(f.get(), chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return fail_errno(path, "cannot read");
        if (n == 0) break;
        if (static_cast<size_t>(n) > max - out.size()) {
            std::fprintf(stderr, "qvsec: %s: file too large (more than %zu bytes)\n", path.c_str(), max);
            explicit_bzero(chunk, sizeof chunk);
            return false;
        }
        out.insert(out.end(), chunk, chunk + n);
    }
    explicit_bzero(chunk, sizeof chunk);  // the buffer may have held a key
    return true;
}

bool write_all(int fd, const uint8_t *p, size_t n) {
    while (n > 0) {
        ssize_t w = write(fd, p, n);
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) return false;
        p += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}

// Writes bytes to a new file at path with the given mode. A key file is never
// replaced (exclusive): overwriting a shared key by accident would cut off
// every peer that holds it. A token file is replaced.
bool write_file(const std::string &path, const uint8_t *p, size_t n, mode_t mode, bool exclusive) {
    int flags = O_WRONLY | O_CREAT | O_CLOEXEC | (exclusive ? O_EXCL : O_TRUNC);
    SecOwnedFd f(open(path.c_str(), flags, mode));
    if (f.get() < 0) return fail_errno(path, "cannot create");
    if (!write_all(f.get(), p, n) || fsync(f.get()) != 0) {
        int saved = errno;
        if (exclusive) unlink(path.c_str());
        errno = saved;
        return fail_errno(path, "cannot write");
    }
    return true;
}

std::string to_hex(const uint8_t *p, size_t n) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    for (size_t i = 0; i < n; ++i) {
        s += digits[p[i] >> 4];
        s += digits[p[i] & 15];
    }
    return s;
}

// A token file as written by sign: 24 raw bytes, or 48 hex digits with white
// space around them. Anything else is passed on as it is, for the library to
// judge.
std::vector<uint8_t> token_from_file(const std::vector<uint8_t> &file) {
    std::string text(file.begin(), file.end());
    size_t b = text.find_first_not_of(" \t\r\n"), e = text.find_last_not_of(" \t\r\n");
    if (file.size() == SEC_MSG_TOKEN_LEN || b == std::string::npos) return file;
    std::string hex = text.substr(b, e - b + 1);
    if (hex.size() != 2 * SEC_MSG_TOKEN_LEN || hex.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        return file;
    std::vector<uint8_t> token;
    for (size_t i = 0; i < hex.size(); i += 2) token.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
    return token;
}

sec_buffer_desc view(std::vector<uint8_t> &v) {
    return {static_cast<qv_int32_t>(v.size()), v.empty() ? nullptr : v.data()};
}

int library_failure(const std::string &path) {
    std::fprintf(stderr, "qvsec: %s: %s\n", path.c_str(), current_error_message().c_str());
    return kExitFailed;
}

int keygen(const std::string &keyfile) {
    sec_buffer_desc key{0, nullptr};
    if (sec_generate_key(&key) != 0) return library_failure(keyfile);
    bool ok = write_file(keyfile, static_cast<uint8_t *>(key.value), static_cast<size_t>(key.length), 0600, true);
    explicit_bzero(key.value, static_cast<size_t>(key.length));
    std::free(key.value);
    if (!ok) return kExitFailed;
    std::printf("%s: new key written\n", keyfile.c_str());
    return kExitOk;
}

int sign(const std::string &keyfile, const std::string &file, const std::string *tokenfile) {
    SecretBytes key;
    std::vector<uint8_t> msg;
    if (!read_whole(keyfile, kKeyFileLimit, key.bytes) || !read_whole(file, 0, msg)) return kExitFailed;
    sec_buffer_desc k = view(key.bytes), in = view(msg), out{0, nullptr};
    if (sec_prepare_message(&k, SEC_F_MSG_DIGEST, &in, &out) != 0) return library_failure(keyfile);
    std::vector<uint8_t> token(static_cast<uint8_t *>(out.value), static_cast<uint8_t *>(out.value) + out.length);
    std::free(out.value);
    if (token.empty()) std::fprintf(stderr, "qvsec: %s: the message is empty: it has no token\n", file.c_str());
    if (tokenfile != nullptr) return write_file(*tokenfile, token.data(), token.size(), 0644, false) ? kExitOk : kExitFailed;
    std::printf("%s\n", to_hex(token.data(), token.size()).c_str());
    return kExitOk;
}

int verify(const std::string &keyfile, const std::string &file, const std::string &tokenfile) {
    SecretBytes key;
    std::vector<uint8_t> msg, token_file;
    if (!read_whole(keyfile, kKeyFileLimit, key.bytes) || !read_whole(file, 0, msg) ||
        !read_whole(tokenfile, kTokenFileLimit, token_file))
        return kExitFailed;
    std::vector<uint8_t> token = token_from_file(token_file);
    sec_buffer_desc k = view(key.bytes), in = view(msg), t = view(token);
    qv_int32_t rc = sec_process_message(&k, SEC_F_MSG_DIGEST, &in, &t);
    if (rc == SEC_S_NOT_DES_KEY) return library_failure(keyfile);
    if (rc == SEC_S_BAD_BUFFER) return library_failure(tokenfile);
    if (rc != 0) return library_failure(file);
    // An empty message is accepted whatever the token: say so rather than
    // claim it was checked.
    std::printf(msg.empty() ? "%s: empty message, nothing to verify\n" : "%s: verified\n", file.c_str());
    return kExitOk;
}

}  // namespace

int run_mac(const Args &args) {
    if (args.size() == 2 && args[0] == "keygen") return keygen(args[1]);
    if ((args.size() == 3 || args.size() == 4) && args[0] == "sign")
        return sign(args[1], args[2], args.size() == 4 ? &args[3] : nullptr);
    if (args.size() == 4 && args[0] == "verify") return verify(args[1], args[2], args[3]);
    std::fputs(kMacUsage, stderr);
    return kExitUsage;
}
