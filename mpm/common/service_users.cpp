// Which users may answer a client that requires mutual authentication for a
// target name. The kernel tells the client which user runs the process at
// the other end of its socket; this rule says whether that user may serve
// the service the client asked for:
//
//   - root, who can take any user's credentials anyway;
//   - the client's own user, whose processes can read the client's memory
//     anyway;
//   - the users that lines "service user" of the services file name for the
//     service, or, when no line names it, the user whose name is the
//     service's name.
//
// An unprivileged user can therefore serve only its own clients, services
// named after itself, and services the administrator listed it for.
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "owned_fd.h"
#include "mech_common.h"

namespace qvmech {
namespace {

// A services file is a handful of lines; anything larger is not one.
constexpr size_t kMaxServicesFile = 64 * 1024;

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

// The next blank-separated field of line, advancing it.
std::string_view next_field(std::string_view &line) {
    size_t start = 0;
    while (start < line.size() && is_blank(line[start])) ++start;
    size_t end = start;
    while (end < line.size() && !is_blank(line[end])) ++end;
    std::string_view field = line.substr(start, end - start);
    line.remove_prefix(end);
    return field;
}


// The file's text; false when it is there but cannot be trusted or read.
// A missing file is an empty one.
bool read_services_file(const char *path, std::string &text) {
    text.clear();
    // O_NOFOLLOW: the file itself, not where a link put in its place points.
    SecOwnedFd f(open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY));
    if (f.get() < 0) return errno == ENOENT;
    struct stat st {};
    if (fstat(f.get(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
    // Only root may decide who serves what.
    if (st.st_uid != 0 || (st.st_mode & (S_IWGRP | S_IWOTH)) != 0) return false;
    if (static_cast<size_t>(st.st_size) > kMaxServicesFile) return false;
    char buf[4096];
    for (;;) {
        ssize_t n = read(f.get(), buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        if (n == 0) return true;
        text.append(buf, static_cast<size_t>(n));
        if (text.size() > kMaxServicesFile) return false;
    }
}

}  // namespace

bool parse_services(std::string_view text, std::string_view service, std::vector<std::string> &users,
                    bool *listed) {
    *listed = false;
    while (!text.empty()) {
        size_t eol = text.find('\n');
        std::string_view line = text.substr(0, eol);
        text.remove_prefix(eol == std::string_view::npos ? text.size() : eol + 1);
        if (line.find('\0') != std::string_view::npos) return false;
        std::string_view name = next_field(line);
        if (name.empty() || name[0] == '#') continue;
        std::string_view user = next_field(line);
        if (user.empty() || !next_field(line).empty()) return false;
        if (name == service) {
            *listed = true;
            users.emplace_back(user);
        }
    }
    return true;
}

namespace {

// Whether the rule admits a user: one of the users listed for the target's
// service, or, when the file lists none, the user of the service's name.
// match says whether a listed user name is the one at hand.
template <typename Match>
Status listed_or_named(const char *file, std::string_view target, Match match, qv_uint32_t *minor) {
    std::string_view service = target.substr(0, target.find('@'));
    std::string text;
    std::vector<std::string> users;
    bool listed = false;
    if (!read_services_file(file, text) || !parse_services(text, service, users, &listed)) {
        *minor = kMinorServicesFileUnusable;
        return kServiceNotAllowed;
    }
    if (!listed) users.emplace_back(service);
    for (const std::string &user : users)
        if (!user.empty() && match(user)) return kOk;
    *minor = kMinorUserNotAllowed;
    return kServiceNotAllowed;
}

}  // namespace

Status service_user_allowed(const char *file, std::string_view target, uint32_t service_uid, uint32_t client_uid,
                            qv_uint32_t *minor) {
    if (service_uid == 0 || service_uid == client_uid) return kOk;
    // A user that no longer exists matches nobody.
    return listed_or_named(
        file, target,
        [&](const std::string &user) {
            uint32_t uid, gid;
            return uid_of_user(user, uid, gid) && uid == service_uid;
        },
        minor);
}

// The client's own user is not admitted here: the same uid on another host
// may be another person.
Status service_name_allowed(const char *file, std::string_view target, uint32_t service_uid,
                            std::string_view service_user, qv_uint32_t *minor) {
    if (service_uid == 0) return kOk;
    return listed_or_named(
        file, target, [&](const std::string &user) { return user == service_user; }, minor);
}

}  // namespace qvmech
