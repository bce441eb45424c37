// Handle checks, caller buffers, the host and user lookups that names are
// made of, and the answers of the name routines.
#include <pthread.h>
#include <pwd.h>
#include <sodium.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "mech_common.h"

namespace qvmech {

// A handle is only ever a pointer the module handed out; the magic word
// catches a handle of the other kind, a NULL one and most stale ones.
Service *as_service(void *p) {
    auto *s = static_cast<Service *>(p);
    return s != nullptr && s->magic == kServiceMagic ? s : nullptr;
}

Context *as_context(void *p) {
    auto *c = static_cast<Context *>(p);
    return c != nullptr && c->magic == kContextMagic ? c : nullptr;
}

namespace {

std::atomic<uint64_t> g_generation{0};

void forked_child() { g_generation.fetch_add(1, std::memory_order_relaxed); }

}  // namespace

// The handler is registered on first use, before any context exists. The C
// library drops it again when the module is unloaded.
uint64_t process_generation() {
    static const int registered = pthread_atfork(nullptr, nullptr, forked_child);
    (void)registered;
    return g_generation.load(std::memory_order_relaxed);
}

bool crypto_ready() {
    static const bool ready = sodium_init() >= 0;
    return ready;
}

bool give_bytes(std::span<const uint8_t> bytes, sec_buffer_t out) {
    out->length = 0;
    out->value = nullptr;
    if (bytes.empty()) return true;
    if (bytes.size() > static_cast<size_t>(INT32_MAX)) return false;
    void *p = std::malloc(bytes.size());
    if (p == nullptr) return false;
    std::memcpy(p, bytes.data(), bytes.size());
    out->value = p;
    out->length = static_cast<qv_int32_t>(bytes.size());
    return true;
}

std::span<const uint8_t> bytes_of(const sec_buffer_desc &b) {
    if (b.length <= 0 || b.value == nullptr) return {};
    return {static_cast<const uint8_t *>(b.value), static_cast<size_t>(b.length)};
}

const std::string &host_name() {
    static const std::string name = [] {
        char buf[HOST_NAME_MAX + 1] = {};
        if (gethostname(buf, sizeof buf - 1) != 0 || buf[0] == '\0') return std::string("localhost");
        return std::string(buf);
    }();
    return name;
}

namespace {

// getpwuid_r / getpwnam_r with a buffer that grows until the entry fits.
template <typename Lookup>
bool password_entry(Lookup lookup, passwd &pw, std::vector<char> &buf) {
    long hint = sysconf(_SC_GETPW_R_SIZE_MAX);
    buf.resize(hint > 0 ? static_cast<size_t>(hint) : 4096);
    for (;;) {
        passwd *result = nullptr;
        int rc = lookup(&pw, buf.data(), buf.size(), &result);
        if (rc == ERANGE && buf.size() < (1u << 20)) {
            buf.resize(buf.size() * 2);
            continue;
        }
        return rc == 0 && result != nullptr;
    }
}

}  // namespace

std::string user_name_of(uint32_t uid) {
    passwd pw{};
    std::vector<char> buf;
    if (!password_entry([&](passwd *p, char *b, size_t n, passwd **r) { return getpwuid_r(uid, p, b, n, r); }, pw,
                        buf))
        return {};
    return pw.pw_name != nullptr ? std::string(pw.pw_name) : std::string();
}

// A user name of the passwd database, or "#<uid>" for a uid without one (the
// form network names use for such a uid).
bool uid_of_user(const std::string &name, uint32_t &uid, uint32_t &gid) {
    if (name.size() > 1 && name[0] == '#') {
        const char *first = name.data() + 1, *last = name.data() + name.size();
        auto [end, ec] = std::from_chars(first, last, uid);
        if (ec != std::errc() || end != last || *first < '0' || *first > '9') return false;
        gid = UINT32_MAX;
        passwd pw{};
        std::vector<char> buf;
        if (password_entry([&](passwd *p, char *b, size_t n, passwd **r) { return getpwuid_r(uid, p, b, n, r); },
                           pw, buf))
            gid = pw.pw_gid;
        return true;
    }
    if (name.empty()) return false;
    passwd pw{};
    std::vector<char> buf;
    if (!password_entry(
            [&](passwd *p, char *b, size_t n, passwd **r) { return getpwnam_r(name.c_str(), p, b, n, r); }, pw, buf))
        return false;
    uid = pw.pw_uid;
    gid = pw.pw_gid;
    return true;
}

Status client_of(void *token, PeerIdentity &out) {
    Context *ctx = as_context(token);
    if (ctx == nullptr) return kBadHandle;
    std::lock_guard<std::mutex> g(ctx->lock);
    bool knows_peer = ctx->role == Role::kIdentity || (ctx->phase == Phase::kComplete && ctx->peer_known);
    if (!knows_peer) return kWrongState;
    out = ctx->peer;
    return kOk;
}

Status answer(std::span<const uint8_t> bytes, qv_int32_t *len, char *out) {
    if (len == nullptr || *len < 0) return kBadArgument;
    const auto needed = static_cast<qv_int32_t>(bytes.size());
    if (needed > *len || (needed > 0 && out == nullptr)) {
        *len = needed;
        return kBufferTooSmall;
    }
    if (needed > 0) std::memcpy(out, bytes.data(), bytes.size());
    *len = needed;
    return kOk;
}

Status answer_string(const std::string &s, qv_int32_t *len, char *out) {
    return answer({reinterpret_cast<const uint8_t *>(s.c_str()), s.size() + 1}, len, out);
}

std::string network_name(const PeerIdentity &id) {
    std::string user = id.user.empty() ? "#" + std::to_string(id.creds.uid) : id.user;
    return user + "@" + id.host;
}

}  // namespace qvmech
